// Nimbet::IntfId: the 8-byte identity of a switch interface, as flow records
// store it.
//
// Layout (part of the table format): word 0 at offset 0 is the interface id,
// kind in the top byte and number in the low 24 bits; word 1 at offset 4 is
// the sub-interface number, 0 for the interface itself. Kinds other than those
// of IntfKind and the all-ones id are legal values too: they have the raw
// text form below.
//
// Text form, which parses back and ends by itself:
//   "intfNone"                 the default, words 0xffffffff and 0
//   "Ethernet7", "Vlan100.5"   a known kind, its number, "." and sub if not 0
//   "intf:0x12000001:0x00000000"  anything else, both words in 8 hex digits
//
// The default value is made in two steps, in this order: the words are set to
// 0xffffffff and 0, then handleInitialized(Zeb::String()) runs, which leaves
// them alone. A non-empty name given to handleInitialized replaces the value.
#pragma once

#include <cstdint>
#include <iosfwd>

#include <fmt/format.h>

#include "Zeb/Strep.h"
#include "Zeb/String.h"

namespace Nimbet {

enum class IntfKind : uint8_t {
  ethernet = 0x01,
  portChannel = 0x02,
  vlan = 0x03,
  loopback = 0x04,
  management = 0x05,
  tunnel = 0x06,
};

class IntfId {
 public:
  static constexpr uint32_t kNoId = 0xffffffffu;
  static constexpr uint32_t kMaxNumber = 0xffffffu;

  IntfId() : id_(kNoId), sub_(0) { handleInitialized(Zeb::String()); }
  // Raw words, as a table file holds them.
  constexpr IntfId(uint32_t id, uint32_t sub) : id_(id), sub_(sub) {}
  // Throws Zeb::RangeException if `number` needs more than 24 bits.
  IntfId(IntfKind kind, uint32_t number, uint32_t sub = 0);
  // The interface named by `name` in the text form above; throws
  // Zeb::RangeException naming the text if it is none.
  explicit IntfId(Zeb::String const& name);

  // Called on every default value after its words are set. An empty name keeps
  // the value; any other name must be a text form and replaces it.
  void handleInitialized(Zeb::String const& name);

  uint32_t id() const { return id_; }
  uint32_t sub() const { return sub_; }
  bool isNone() const { return id_ == kNoId && sub_ == 0; }

  // Field-wise hash of the two words, seed 0 (Zeb::Hash, two hashMix<4>).
  uint32_t hash() const;

  bool operator==(IntfId const& o) const { return id_ == o.id_ && sub_ == o.sub_; }
  bool operator<(IntfId const& o) const { return id_ != o.id_ ? id_ < o.id_ : sub_ < o.sub_; }

  Zeb::String str() const;

 private:
  uint32_t id_;
  uint32_t sub_;
};

static_assert(sizeof(IntfId) == 8 && alignof(IntfId) == 4);

std::ostream& operator<<(std::ostream& os, IntfId const& v);
Zeb::String valueToStrep(IntfId const& v);
// Parses the text form at `it` and moves `it` behind it; the pointer only
// selects the overload. Throws Zeb::RangeException.
IntfId sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, IntfId*);

}  // namespace Nimbet

template <>
Nimbet::IntfId Zeb::deserializeAttr<Nimbet::IntfId>(Zeb::StrepIt& it, Zeb::StrepIt const& end,
                                                    char const* attrName);

template <>
struct fmt::formatter<Nimbet::IntfId> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Nimbet::IntfId const& v, Ctx& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(v.str()), ctx);
  }
};
