// FlowTracking::HoIpFlowConfig and HoIp6FlowConfig: the rows of the offload
// config tables, one per flow chosen for hardware offload on an interface.
//
// Plain values whose bytes are the table format. The times stand at offsets
// that are 4 mod 8 (36, 44 in the IPv4 record), so the records are packed to
// 4-byte alignment; their readers return by value for that reason. Both VLAN
// tags default to the word 0x81000fff, not to zero.
//
// Text form (strep), one line, every literal exact:
//   Value('FlowTracking::HoIpFlowConfig', ** {'key': <key>, 'createTime': <s>,
//   'updateTime': <s>, 'srcEthAddr': <eth>, 'dstEthAddr': <eth>,
//   'dot1qVlanTag': <tag>, 'dot1qCustomerVlanTag': <tag>, 'cachedIntfId': <intf>})
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "FlowTracking/HoFlowKey.h"
#include "FlowTracking/StrepFormatter.h"
#include "Nimbet/EthAddr.h"
#include "Nimbet/IntfId.h"
#include "Ovie/VlanTag.h"
#include "Zeb/Seconds.h"
#include "Zeb/Strep.h"
#include "Zeb/String.h"

namespace FlowTracking {

#pragma pack(push, 4)

// What HoIpFlowConfig and HoIp6FlowConfig share: every field, accessor and
// operation; the two differ only in the key type `K`. `Self` is the record
// class itself, which keeps the two bases distinct types and names the type
// in the text form. Not used on its own; the out-of-line members are defined
// and instantiated in HoFlowConfig.cpp.
template <typename Self, typename K>
class HoFlowConfigFields {
 public:
  using Key = K;

  HoFlowConfigFields() = default;
  // The key; every other field at its default.
  explicit HoFlowConfigFields(Key const& key) : key_(key) {}
  // The parsing constructor of the text form; moves `it` behind what it read.
  // Throws Zeb::RangeException naming the field that does not parse.
  HoFlowConfigFields(Zeb::StrepIt& it, Zeb::StrepIt const& end);

  Key const& key() const { return key_; }
  Zeb::Seconds createTime() const { return createTime_; }
  Zeb::Seconds updateTime() const { return updateTime_; }
  Nimbet::EthAddr srcEthAddr() const { return srcEthAddr_; }
  Nimbet::EthAddr dstEthAddr() const { return dstEthAddr_; }
  Ovie::VlanTag dot1qVlanTag() const { return dot1qVlanTag_; }
  Ovie::VlanTag dot1qCustomerVlanTag() const { return dot1qCustomerVlanTag_; }
  Nimbet::IntfId cachedIntfId() const { return cachedIntfId_; }

  void createTimeIs(Zeb::Seconds v) { createTime_ = v; }
  void updateTimeIs(Zeb::Seconds v) { updateTime_ = v; }
  void srcEthAddrIs(Nimbet::EthAddr const& v) { srcEthAddr_ = v; }
  void dstEthAddrIs(Nimbet::EthAddr const& v) { dstEthAddr_ = v; }
  void dot1qVlanTagIs(Ovie::VlanTag const& v) { dot1qVlanTag_ = v; }
  void dot1qCustomerVlanTagIs(Ovie::VlanTag const& v) { dot1qCustomerVlanTag_ = v; }
  void cachedIntfIdIs(Nimbet::IntfId const& v) { cachedIntfId_ = v; }

  // Field by field in field order, stopping at the first difference; times
  // compare as f64, so a NaN time makes a record unequal to itself.
  bool operator==(HoFlowConfigFields const& o) const;
  // True when the record differs from a default-constructed one.
  explicit operator bool() const { return !(*this == Self()); }

  // "[key] srcEth: .., dstEth: .., created: .., updateTime: .."; tags and
  // cachedIntfId are left out. A trace text, never parsed.
  Zeb::String mirakString() const;

 protected:
  Key key_;
  Zeb::Seconds createTime_ = 0.0;
  Zeb::Seconds updateTime_ = 0.0;
  Nimbet::EthAddr srcEthAddr_;
  Nimbet::EthAddr dstEthAddr_;
  Ovie::VlanTag dot1qVlanTag_;
  Ovie::VlanTag dot1qCustomerVlanTag_;
  Nimbet::IntfId cachedIntfId_;
};

// HoIpFlowConfig, 84 bytes. Field offsets (the table format): key HoIpFlowKey at 0 (36 bytes),
// createTime 36, updateTime 44, srcEthAddr 52, dstEthAddr 58, dot1qVlanTag 64,
// dot1qCustomerVlanTag 70, cachedIntfId 76.
class HoIpFlowConfig : public HoFlowConfigFields<HoIpFlowConfig, HoIpFlowKey> {
 public:
  using HoFlowConfigFields::HoFlowConfigFields;

 private:
  static void layout() {
    static_assert(std::is_trivially_copyable_v<HoIpFlowConfig> &&
                  std::is_standard_layout_v<HoIpFlowConfig>);
    static_assert(sizeof(HoIpFlowConfig) == 84 && alignof(HoIpFlowConfig) == 4);
    static_assert(offsetof(HoIpFlowConfig, key_) == 0);
    static_assert(offsetof(HoIpFlowConfig, createTime_) == 36);
    static_assert(offsetof(HoIpFlowConfig, updateTime_) == 44);
    static_assert(offsetof(HoIpFlowConfig, srcEthAddr_) == 52);
    static_assert(offsetof(HoIpFlowConfig, dstEthAddr_) == 58);
    static_assert(offsetof(HoIpFlowConfig, dot1qVlanTag_) == 64);
    static_assert(offsetof(HoIpFlowConfig, dot1qCustomerVlanTag_) == 70);
    static_assert(offsetof(HoIpFlowConfig, cachedIntfId_) == 76);
  }
};

// HoIp6FlowConfig, 108 bytes. Field offsets (the table format): key HoIp6FlowKey at 0 (60 bytes),
// createTime 60, updateTime 68, srcEthAddr 76, dstEthAddr 82, dot1qVlanTag 88,
// dot1qCustomerVlanTag 94, cachedIntfId 100.
class HoIp6FlowConfig : public HoFlowConfigFields<HoIp6FlowConfig, HoIp6FlowKey> {
 public:
  using HoFlowConfigFields::HoFlowConfigFields;

 private:
  static void layout() {
    static_assert(std::is_trivially_copyable_v<HoIp6FlowConfig> &&
                  std::is_standard_layout_v<HoIp6FlowConfig>);
    static_assert(sizeof(HoIp6FlowConfig) == 108 && alignof(HoIp6FlowConfig) == 4);
    static_assert(offsetof(HoIp6FlowConfig, key_) == 0);
    static_assert(offsetof(HoIp6FlowConfig, createTime_) == 60);
    static_assert(offsetof(HoIp6FlowConfig, updateTime_) == 68);
    static_assert(offsetof(HoIp6FlowConfig, srcEthAddr_) == 76);
    static_assert(offsetof(HoIp6FlowConfig, dstEthAddr_) == 82);
    static_assert(offsetof(HoIp6FlowConfig, dot1qVlanTag_) == 88);
    static_assert(offsetof(HoIp6FlowConfig, dot1qCustomerVlanTag_) == 94);
    static_assert(offsetof(HoIp6FlowConfig, cachedIntfId_) == 100);
  }
};
#pragma pack(pop)

extern template class HoFlowConfigFields<HoIpFlowConfig, HoIpFlowKey>;
extern template class HoFlowConfigFields<HoIp6FlowConfig, HoIp6FlowKey>;

Zeb::String valueToStrep(HoIpFlowConfig const& v);
Zeb::String valueToStrep(HoIp6FlowConfig const& v);
std::ostream& operator<<(std::ostream& os, HoIpFlowConfig const& v);
std::ostream& operator<<(std::ostream& os, HoIp6FlowConfig const& v);

}  // namespace FlowTracking

FLOWTRACKING_STREP_FORMATTER(FlowTracking::HoIpFlowConfig);
FLOWTRACKING_STREP_FORMATTER(FlowTracking::HoIp6FlowConfig);
