// FlowTracking::HoIpFlowCounter and HoIp6FlowCounter: the rows of the offload
// counter tables, packets and bytes per offloaded flow. Their key is the plain
// flow key; the interface is an ordinary field, so a flow has one counter row
// whatever its interface.
//
// Plain values whose bytes are the table format. The u64 fields stand at
// offsets that are 4 mod 8 (36 in the IPv4 record), so the records are packed
// to 4-byte alignment; readers return by value.
//
// Text form (strep), one line, every literal exact:
//   Value('FlowTracking::HoIpFlowCounter', ** {'key': <flow key>,
//   'intfId': <intf>, 'packets': <n>, 'bytes': <n>, 'createTime': <s>,
//   'updateTime': <s>, 'hosEntries': <n>})
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "FlowTracking/FlowKey.h"
#include "FlowTracking/StrepFormatter.h"
#include "Nimbet/IntfId.h"
#include "Zeb/Seconds.h"
#include "Zeb/Strep.h"
#include "Zeb/String.h"

namespace FlowTracking {

#pragma pack(push, 4)

// What HoIpFlowCounter and HoIp6FlowCounter share: every field, accessor and
// operation; the two differ only in the key type `K`. `Self` is the record
// class itself, which keeps the two bases distinct types and names the type
// in the text form. Not used on its own; the out-of-line members are defined
// and instantiated in HoFlowCounter.cpp.
template <typename Self, typename K>
class HoFlowCounterFields {
 public:
  using Key = K;

  HoFlowCounterFields() = default;
  // The key; every other field at its default.
  explicit HoFlowCounterFields(Key const& key) : key_(key) {}
  // The parsing constructor of the text form; moves `it` behind what it read.
  // Throws Zeb::RangeException naming the field that does not parse.
  HoFlowCounterFields(Zeb::StrepIt& it, Zeb::StrepIt const& end);

  Key const& key() const { return key_; }
  Nimbet::IntfId intfId() const { return intfId_; }
  unsigned long long packets() const { return packets_; }
  unsigned long long bytes() const { return bytes_; }
  Zeb::Seconds createTime() const { return createTime_; }
  Zeb::Seconds updateTime() const { return updateTime_; }
  unsigned int hosEntries() const { return hosEntries_; }

  void intfIdIs(Nimbet::IntfId const& v) { intfId_ = v; }
  void packetsIs(unsigned long long v) { packets_ = v; }
  void bytesIs(unsigned long long v) { bytes_ = v; }
  void createTimeIs(Zeb::Seconds v) { createTime_ = v; }
  void updateTimeIs(Zeb::Seconds v) { updateTime_ = v; }
  void hosEntriesIs(unsigned int v) { hosEntries_ = v; }

  // Modular on the field's width, not atomic, never throw; each returns the
  // new value.
  unsigned long long packetsInc(unsigned long long n) { return packets_ += n; }
  unsigned long long bytesInc(unsigned long long n) { return bytes_ += n; }
  unsigned int hosEntriesInc(unsigned int n) { return hosEntries_ += n; }
  unsigned int hosEntriesDec(unsigned int n) { return hosEntries_ -= n; }

  // Field by field in field order; times compare as f64 (NaN is unequal).
  bool operator==(HoFlowCounterFields const& o) const;
  // True when the record differs from a default-constructed one.
  explicit operator bool() const { return !(*this == Self()); }

  // "[flow] intf: .., pkts: .., bytes: .., hos: .., created: .., updated: ..";
  // a trace text, never parsed.
  Zeb::String mirakString() const;

 protected:
  Key key_;
  Nimbet::IntfId intfId_;
  unsigned long long packets_ = 0;
  unsigned long long bytes_ = 0;
  Zeb::Seconds createTime_ = 0.0;
  Zeb::Seconds updateTime_ = 0.0;
  unsigned int hosEntries_ = 0;
};

// HoIpFlowCounter, 72 bytes. Field offsets (the table format): key IpFlowKey at 0 (28 bytes),
// intfId 28, packets 36, bytes 44, createTime 52, updateTime 60, hosEntries 68.
class HoIpFlowCounter : public HoFlowCounterFields<HoIpFlowCounter, IpFlowKey> {
 public:
  using HoFlowCounterFields::HoFlowCounterFields;

 private:
  static void layout() {
    static_assert(std::is_trivially_copyable_v<HoIpFlowCounter> &&
                  std::is_standard_layout_v<HoIpFlowCounter>);
    static_assert(sizeof(HoIpFlowCounter) == 72 && alignof(HoIpFlowCounter) == 4);
    static_assert(offsetof(HoIpFlowCounter, key_) == 0);
    static_assert(offsetof(HoIpFlowCounter, intfId_) == 28);
    static_assert(offsetof(HoIpFlowCounter, packets_) == 36);
    static_assert(offsetof(HoIpFlowCounter, bytes_) == 44);
    static_assert(offsetof(HoIpFlowCounter, createTime_) == 52);
    static_assert(offsetof(HoIpFlowCounter, updateTime_) == 60);
    static_assert(offsetof(HoIpFlowCounter, hosEntries_) == 68);
  }
};

// HoIp6FlowCounter, 96 bytes. Field offsets (the table format): key Ip6FlowKey at 0 (52 bytes),
// intfId 52, packets 60, bytes 68, createTime 76, updateTime 84, hosEntries 92.
class HoIp6FlowCounter : public HoFlowCounterFields<HoIp6FlowCounter, Ip6FlowKey> {
 public:
  using HoFlowCounterFields::HoFlowCounterFields;

 private:
  static void layout() {
    static_assert(std::is_trivially_copyable_v<HoIp6FlowCounter> &&
                  std::is_standard_layout_v<HoIp6FlowCounter>);
    static_assert(sizeof(HoIp6FlowCounter) == 96 && alignof(HoIp6FlowCounter) == 4);
    static_assert(offsetof(HoIp6FlowCounter, key_) == 0);
    static_assert(offsetof(HoIp6FlowCounter, intfId_) == 52);
    static_assert(offsetof(HoIp6FlowCounter, packets_) == 60);
    static_assert(offsetof(HoIp6FlowCounter, bytes_) == 68);
    static_assert(offsetof(HoIp6FlowCounter, createTime_) == 76);
    static_assert(offsetof(HoIp6FlowCounter, updateTime_) == 84);
    static_assert(offsetof(HoIp6FlowCounter, hosEntries_) == 92);
  }
};
#pragma pack(pop)

extern template class HoFlowCounterFields<HoIpFlowCounter, IpFlowKey>;
extern template class HoFlowCounterFields<HoIp6FlowCounter, Ip6FlowKey>;

Zeb::String valueToStrep(HoIpFlowCounter const& v);
Zeb::String valueToStrep(HoIp6FlowCounter const& v);
std::ostream& operator<<(std::ostream& os, HoIpFlowCounter const& v);
std::ostream& operator<<(std::ostream& os, HoIp6FlowCounter const& v);

}  // namespace FlowTracking

FLOWTRACKING_STREP_FORMATTER(FlowTracking::HoIpFlowCounter);
FLOWTRACKING_STREP_FORMATTER(FlowTracking::HoIp6FlowCounter);
