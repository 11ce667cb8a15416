// FlowTracking::HosStateCounterKey and HosStateCounterEntry: the key and rows
// of the table that counts flows per offload state. The key is the state.
//
// Layout (the table format): the key is one byte, the state. The entry is 8
// bytes: key at 0, 3 bytes no field, hoFlows (u32) at 4.
//
// Text forms: the key's strep is the bare state text ("hoFlowStateOffloaded"),
// with no "Value(" around it. The entry's:
//   Value('FlowTracking::HosStateCounterEntry', ** {'key': <state>, 'hoFlows': <n>})
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "FlowTracking/HoFlowState.h"
#include "FlowTracking/StrepFormatter.h"
#include "Zeb/Strep.h"
#include "Zeb/String.h"

namespace FlowTracking {

class HosStateCounterKey {
 public:
  constexpr HosStateCounterKey() = default;
  constexpr explicit HosStateCounterKey(HoFlowState key) : key_(key) {}
  // The parsing constructor: the bare state text, under the field name "key".
  HosStateCounterKey(Zeb::StrepIt& it, Zeb::StrepIt const& end);

  constexpr HoFlowState key() const { return key_; }

  // The stored byte as an unsigned number.
  constexpr bool operator==(HosStateCounterKey o) const { return key_ == o.key_; }
  constexpr bool operator<(HosStateCounterKey o) const {
    return static_cast<uint8_t>(key_) < static_cast<uint8_t>(o.key_);
  }
  constexpr explicit operator bool() const { return key_ != hoFlowStateUnknown; }

  // " HosStateCounterKey: " and the state; a trace text, never parsed.
  Zeb::String mirakString() const;

 private:
  HoFlowState key_ = hoFlowStateUnknown;
};

static_assert(sizeof(HosStateCounterKey) == 1 && alignof(HosStateCounterKey) == 1);
static_assert(std::is_trivially_copyable_v<HosStateCounterKey>);

// The key has no hash member: a table hashes it as its single byte,
// Zeb::hashSingleAttr<unsigned char>(seed, byte). Found by argument lookup.
uint32_t mirakHash(HosStateCounterKey key, unsigned int seed) noexcept;

class HosStateCounterEntry {
 public:
  using Key = HosStateCounterKey;

  HosStateCounterEntry() = default;
  explicit HosStateCounterEntry(Key const& key) : key_(key) {}
  // The parsing constructor of the text form; moves `it` behind what it read.
  HosStateCounterEntry(Zeb::StrepIt& it, Zeb::StrepIt const& end);

  Key const& key() const { return key_; }
  unsigned int hoFlows() const { return hoFlows_; }
  void hoFlowsIs(unsigned int v) { hoFlows_ = v; }

  // Modular on 32 bits, not atomic, never throw; each returns the new value.
  unsigned int hoFlowsInc(unsigned int n) { return hoFlows_ += n; }
  unsigned int hoFlowsDec(unsigned int n) { return hoFlows_ -= n; }

  bool operator==(HosStateCounterEntry o) const { return key_ == o.key_ && hoFlows_ == o.hoFlows_; }
  // True when the entry differs from a default-constructed one.
  explicit operator bool() const { return !(*this == HosStateCounterEntry()); }

  // "[state] hoFlows: n"; a trace text, never parsed.
  Zeb::String mirakString() const;

 private:
  static void layout() {
    static_assert(std::is_trivially_copyable_v<HosStateCounterEntry> &&
                  std::is_standard_layout_v<HosStateCounterEntry>);
    static_assert(sizeof(HosStateCounterEntry) == 8 && alignof(HosStateCounterEntry) == 4);
    static_assert(offsetof(HosStateCounterEntry, key_) == 0);
    static_assert(offsetof(HosStateCounterEntry, hoFlows_) == 4);
  }

  Key key_;
  unsigned int hoFlows_ = 0;
};

Zeb::String valueToStrep(HosStateCounterKey const& v);
Zeb::String valueToStrep(HosStateCounterEntry const& v);
// The key's text form, the bare state.
std::ostream& operator<<(std::ostream& os, HosStateCounterKey const& v);
std::ostream& operator<<(std::ostream& os, HosStateCounterEntry const& v);

}  // namespace FlowTracking

FLOWTRACKING_STREP_FORMATTER(FlowTracking::HosStateCounterKey);
FLOWTRACKING_STREP_FORMATTER(FlowTracking::HosStateCounterEntry);
