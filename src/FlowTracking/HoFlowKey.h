// FlowTracking::HoIpFlowKey and FlowTracking::HoIp6FlowKey: the keys of the
// offload config and status tables, a flow key plus the interface the flow is
// offloaded on. One flow may have a row per interface.
//
// Plain values whose bytes are the table format (offsets pinned below). The
// hash is part of the format too: every process sharing a table must compute
// it the same way.
//
// Text form (strep), one line, every literal exact:
//   Value('FlowTracking::HoIpFlowKey', ** {'ipFlowKey': <IpFlowKey strep>,
//   'intfId': <IntfId text>})
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "FlowTracking/FlowKey.h"
#include "FlowTracking/StrepFormatter.h"
#include "Nimbet/IntfId.h"
#include "Zeb/Strep.h"
#include "Zeb/String.h"

namespace FlowTracking {

// What HoIpFlowKey and HoIp6FlowKey share: every field, accessor and
// operation; the two differ only in the flow key type `F`. `Self` is the key
// class itself, which keeps the two bases distinct types and names the type
// in the text form. Not used on its own; the out-of-line members are defined
// and instantiated in HoFlowKey.cpp.
template <typename Self, typename F>
class HoFlowKeyFields {
 public:
  using FlowKey = F;

  // The default flow key and the default interface (made by the two steps).
  HoFlowKeyFields() = default;
  HoFlowKeyFields(FlowKey const& ipFlowKey, Nimbet::IntfId const& intfId)
      : ipFlowKey_(ipFlowKey), intfId_(intfId) {}
  // The parsing constructor of the text form; moves `it` behind what it read.
  HoFlowKeyFields(Zeb::StrepIt& it, Zeb::StrepIt const& end);

  FlowKey const& ipFlowKey() const { return ipFlowKey_; }
  Nimbet::IntfId const& intfId() const { return intfId_; }

  // Zeb::Hash(seed) fed ipFlowKey.hash(0), then intfId.hash(), each with
  // hashMix<4>. The inner hash always takes seed 0: the table's seed enters
  // once, in the outer accumulator. Never throws.
  uint32_t hash(unsigned int seed) const noexcept;
  // ipFlowKey first; intfId only when the flow keys are equal.
  bool operator==(HoFlowKeyFields const& o) const {
    return ipFlowKey_ == o.ipFlowKey_ && intfId_ == o.intfId_;
  }
  // By flow key, then by interface.
  bool operator<(HoFlowKeyFields const& o) const {
    if (ipFlowKey_ == o.ipFlowKey_) return intfId_ < o.intfId_;
    return ipFlowKey_ < o.ipFlowKey_;
  }
  // True when the key differs from a default-constructed one.
  explicit operator bool() const { return !(*this == Self()); }

  // ipFlowKey.str() + ", intf: " + intfId; a trace text, never parsed.
  Zeb::String mirakString() const;

 protected:
  FlowKey ipFlowKey_;
  Nimbet::IntfId intfId_;
};

// HoIpFlowKey, 36 bytes: ipFlowKey (IpFlowKey, 28 bytes) at 0, intfId at 28.
class HoIpFlowKey : public HoFlowKeyFields<HoIpFlowKey, IpFlowKey> {
 public:
  using HoFlowKeyFields::HoFlowKeyFields;

 private:
  static void layout() {
    static_assert(std::is_trivially_copyable_v<HoIpFlowKey> &&
                  std::is_standard_layout_v<HoIpFlowKey>);
    static_assert(sizeof(HoIpFlowKey) == 36 && alignof(HoIpFlowKey) == 4);
    static_assert(offsetof(HoIpFlowKey, ipFlowKey_) == 0);
    static_assert(offsetof(HoIpFlowKey, intfId_) == 28);
  }
};

// HoIp6FlowKey, 60 bytes: ipFlowKey (Ip6FlowKey, 52 bytes) at 0, intfId at 52.
class HoIp6FlowKey : public HoFlowKeyFields<HoIp6FlowKey, Ip6FlowKey> {
 public:
  using HoFlowKeyFields::HoFlowKeyFields;

 private:
  static void layout() {
    static_assert(std::is_trivially_copyable_v<HoIp6FlowKey> &&
                  std::is_standard_layout_v<HoIp6FlowKey>);
    static_assert(sizeof(HoIp6FlowKey) == 60 && alignof(HoIp6FlowKey) == 4);
    static_assert(offsetof(HoIp6FlowKey, ipFlowKey_) == 0);
    static_assert(offsetof(HoIp6FlowKey, intfId_) == 52);
  }
};

extern template class HoFlowKeyFields<HoIpFlowKey, IpFlowKey>;
extern template class HoFlowKeyFields<HoIp6FlowKey, Ip6FlowKey>;

Zeb::String valueToStrep(HoIpFlowKey const& v);
Zeb::String valueToStrep(HoIp6FlowKey const& v);
std::ostream& operator<<(std::ostream& os, HoIpFlowKey const& v);
std::ostream& operator<<(std::ostream& os, HoIp6FlowKey const& v);

}  // namespace FlowTracking

FLOWTRACKING_STREP_FORMATTER(FlowTracking::HoIpFlowKey);
FLOWTRACKING_STREP_FORMATTER(FlowTracking::HoIp6FlowKey);
