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

// HoIpFlowStatus, 56 bytes. Field offsets (the table format): key HoIpFlowKey at 0 (36 bytes),
// hoFlowState 36, 3 bytes no field, createTime 40, updateTime 48.
class HoIpFlowStatus {
 public:
  using Key = HoIpFlowKey;

  HoIpFlowStatus() = default;
  // The key; every other field at its default.
  explicit HoIpFlowStatus(Key const& key) : key_(key) {}
  // The parsing constructor of the text form; moves `it` behind what it read.
  // Throws Zeb::RangeException naming the field that does not parse.
  HoIpFlowStatus(Zeb::StrepIt& it, Zeb::StrepIt const& end);

  Key const& key() const { return key_; }
  HoFlowState hoFlowState() const { return hoFlowState_; }
  Zeb::Seconds createTime() const { return createTime_; }
  Zeb::Seconds updateTime() const { return updateTime_; }

  void hoFlowStateIs(HoFlowState v) { hoFlowState_ = v; }
  void createTimeIs(Zeb::Seconds v) { createTime_ = v; }
  void updateTimeIs(Zeb::Seconds v) { updateTime_ = v; }

  // Field by field in field order; times compare as f64 (NaN is unequal).
  bool operator==(HoIpFlowStatus const& o) const;
  // True when the record differs from a default-constructed one.
  explicit operator bool() const { return !(*this == HoIpFlowStatus()); }

  // "[key] state: .., created: .., updated: .."; a trace text, never parsed.
  Zeb::String mirakString() const;

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

  Key key_;
  HoFlowState hoFlowState_ = hoFlowStateUnknown;
  Zeb::Seconds createTime_ = 0.0;
  Zeb::Seconds updateTime_ = 0.0;
};

// HoIp6FlowStatus, 80 bytes. Field offsets (the table format): key HoIp6FlowKey at 0 (60 bytes),
// hoFlowState 60, 3 bytes no field, createTime 64, updateTime 72.
class HoIp6FlowStatus {
 public:
  using Key = HoIp6FlowKey;

  HoIp6FlowStatus() = default;
  // The key; every other field at its default.
  explicit HoIp6FlowStatus(Key const& key) : key_(key) {}
  // The parsing constructor of the text form; moves `it` behind what it read.
  // Throws Zeb::RangeException naming the field that does not parse.
  HoIp6FlowStatus(Zeb::StrepIt& it, Zeb::StrepIt const& end);

  Key const& key() const { return key_; }
  HoFlowState hoFlowState() const { return hoFlowState_; }
  Zeb::Seconds createTime() const { return createTime_; }
  Zeb::Seconds updateTime() const { return updateTime_; }

  void hoFlowStateIs(HoFlowState v) { hoFlowState_ = v; }
  void createTimeIs(Zeb::Seconds v) { createTime_ = v; }
  void updateTimeIs(Zeb::Seconds v) { updateTime_ = v; }

  // Field by field in field order; times compare as f64 (NaN is unequal).
  bool operator==(HoIp6FlowStatus const& o) const;
  // True when the record differs from a default-constructed one.
  explicit operator bool() const { return !(*this == HoIp6FlowStatus()); }

  // "[key] state: .., created: .., updated: .."; a trace text, never parsed.
  Zeb::String mirakString() const;

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

  Key key_;
  HoFlowState hoFlowState_ = hoFlowStateUnknown;
  Zeb::Seconds createTime_ = 0.0;
  Zeb::Seconds updateTime_ = 0.0;
};
#pragma pack(pop)

Zeb::String valueToStrep(HoIpFlowStatus const& v);
Zeb::String valueToStrep(HoIp6FlowStatus const& v);
std::ostream& operator<<(std::ostream& os, HoIpFlowStatus const& v);
std::ostream& operator<<(std::ostream& os, HoIp6FlowStatus const& v);

}  // namespace FlowTracking

FLOWTRACKING_STREP_FORMATTER(FlowTracking::HoIpFlowStatus);
FLOWTRACKING_STREP_FORMATTER(FlowTracking::HoIp6FlowStatus);
