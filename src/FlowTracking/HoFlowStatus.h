// FlowTracking::HoIpFlowStatus and HoIp6FlowStatus: the rows of the offload
// status tables, the offload state of a flow on an interface.
//
// Plain values whose bytes are the table format; the three bytes behind
// hoFlowState have no meaning and are neither compared nor printed. The
// records are packed to 4 like the other offload records; their times happen
// to stand at multiples of 8.
//
// Text form (strep), one line, every literal exact:
//   Value('FlowTracking::HoIpFlowStatus', ** {'key': <key>,
//   'hoFlowState': <state>, 'createTime': <s>, 'updateTime': <s>})
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "FlowTracking/HoFlowKey.h"
#include "FlowTracking/HoFlowState.h"
#include "FlowTracking/StrepFormatter.h"
#include "Zeb/Seconds.h"
#include "Zeb/Strep.h"
#include "Zeb/String.h"

namespace FlowTracking {

#pragma pack(push, 4)

// What HoIpFlowStatus and HoIp6FlowStatus share: every field, accessor and
// operation; the two differ only in the key type `K`. `Self` is the record
// class itself, which keeps the two bases distinct types and names the type
// in the text form. Not used on its own; the out-of-line members are defined
// and instantiated in HoFlowStatus.cpp.
template <typename Self, typename K>
class HoFlowStatusFields {
 public:
  using Key = K;

  HoFlowStatusFields() = default;
  // The key; every other field at its default.
  explicit HoFlowStatusFields(Key const& key) : key_(key) {}
  // The parsing constructor of the text form; moves `it` behind what it read.
  // Throws Zeb::RangeException naming the field that does not parse.
  HoFlowStatusFields(Zeb::StrepIt& it, Zeb::StrepIt const& end);

  Key const& key() const { return key_; }
  HoFlowState hoFlowState() const { return hoFlowState_; }
  Zeb::Seconds createTime() const { return createTime_; }
  Zeb::Seconds updateTime() const { return updateTime_; }

  void hoFlowStateIs(HoFlowState v) { hoFlowState_ = v; }
  void createTimeIs(Zeb::Seconds v) { createTime_ = v; }
  void updateTimeIs(Zeb::Seconds v) { updateTime_ = v; }

  // Field by field in field order; times compare as f64 (NaN is unequal).
  bool operator==(HoFlowStatusFields const& o) const;
  // True when the record differs from a default-constructed one.
  explicit operator bool() const { return !(*this == Self()); }

  // "[key] state: .., created: .., updated: .."; a trace text, never parsed.
  Zeb::String mirakString() const;

 protected:
  Key key_;
  HoFlowState hoFlowState_ = hoFlowStateUnknown;
  Zeb::Seconds createTime_ = 0.0;
  Zeb::Seconds updateTime_ = 0.0;
};

// HoIpFlowStatus, 56 bytes. Field offsets (the table format): key HoIpFlowKey at 0 (36 bytes),
// hoFlowState 36, 3 bytes no field, createTime 40, updateTime 48.
class HoIpFlowStatus : public HoFlowStatusFields<HoIpFlowStatus, HoIpFlowKey> {
 public:
  using HoFlowStatusFields::HoFlowStatusFields;

 private:
  static void layout() {
    static_assert(std::is_trivially_copyable_v<HoIpFlowStatus> &&
                  std::is_standard_layout_v<HoIpFlowStatus>);
    static_assert(sizeof(HoIpFlowStatus) == 56);
    static_assert(offsetof(HoIpFlowStatus, key_) == 0);
    static_assert(offsetof(HoIpFlowStatus, hoFlowState_) == 36);
    static_assert(offsetof(HoIpFlowStatus, createTime_) == 40);
    static_assert(offsetof(HoIpFlowStatus, updateTime_) == 48);
  }
};

// HoIp6FlowStatus, 80 bytes. Field offsets (the table format): key HoIp6FlowKey at 0 (60 bytes),
// hoFlowState 60, 3 bytes no field, createTime 64, updateTime 72.
class HoIp6FlowStatus : public HoFlowStatusFields<HoIp6FlowStatus, HoIp6FlowKey> {
 public:
  using HoFlowStatusFields::HoFlowStatusFields;

 private:
  static void layout() {
    static_assert(std::is_trivially_copyable_v<HoIp6FlowStatus> &&
                  std::is_standard_layout_v<HoIp6FlowStatus>);
    static_assert(sizeof(HoIp6FlowStatus) == 80);
    static_assert(offsetof(HoIp6FlowStatus, key_) == 0);
    static_assert(offsetof(HoIp6FlowStatus, hoFlowState_) == 60);
    static_assert(offsetof(HoIp6FlowStatus, createTime_) == 64);
    static_assert(offsetof(HoIp6FlowStatus, updateTime_) == 72);
  }
};
#pragma pack(pop)

extern template class HoFlowStatusFields<HoIpFlowStatus, HoIpFlowKey>;
extern template class HoFlowStatusFields<HoIp6FlowStatus, HoIp6FlowKey>;

Zeb::String valueToStrep(HoIpFlowStatus const& v);
Zeb::String valueToStrep(HoIp6FlowStatus const& v);
std::ostream& operator<<(std::ostream& os, HoIpFlowStatus const& v);
std::ostream& operator<<(std::ostream& os, HoIp6FlowStatus const& v);

}  // namespace FlowTracking

FLOWTRACKING_STREP_FORMATTER(FlowTracking::HoIpFlowStatus);
FLOWTRACKING_STREP_FORMATTER(FlowTracking::HoIp6FlowStatus);
