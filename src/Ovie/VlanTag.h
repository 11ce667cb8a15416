// Ovie::VlanTag: an 802.1Q tag as flow config records store it, 6 bytes,
// alignment 1 (records place it at offsets such as 70).
//
// Layout (part of the table format):
//   bytes 0..3  the tag word, little-endian: TPID in the upper 16 bits, then
//               PCP (3 bits), DEI (1 bit), VID (12 bits)
//   byte  4     flags, for the offload engine; the system gives them no meaning
//   byte  5     unused: not compared, not printed, carried along by copies
// Default: word 0x81000fff (TPID 0x8100, VID 4095 "no VLAN"), bytes 4 and 5 0.
//
// Text form, no blanks, parses back and ends at its ")":
//   "VlanTag(tpid=0x8100,pcp=0,dei=0,vid=4095,flags=0x00)"
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>

#include <fmt/format.h>

#include "Zeb/Strep.h"
#include "Zeb/String.h"

namespace Ovie {

class VlanTag {
 public:
  static constexpr uint32_t kDefaultWord = 0x81000fffu;

  constexpr VlanTag() : bytes_{} { wordIs(kDefaultWord); }
  constexpr explicit VlanTag(uint32_t word, uint8_t flags = 0) : bytes_{} {
    wordIs(word);
    bytes_[4] = flags;
  }
  // The parsing constructor: reads the text form at `it` and moves `it` behind
  // it. Throws Zeb::RangeException (and leaves `it`) if the text is no tag.
  VlanTag(Zeb::StrepIt& it, Zeb::StrepIt const& end);

  constexpr uint32_t word() const {
    return uint32_t{bytes_[0]} | (uint32_t{bytes_[1]} << 8) | (uint32_t{bytes_[2]} << 16) |
           (uint32_t{bytes_[3]} << 24);
  }
  constexpr uint16_t tpid() const { return static_cast<uint16_t>(word() >> 16); }
  constexpr uint8_t pcp() const { return static_cast<uint8_t>((word() >> 13) & 0x7); }
  constexpr uint8_t dei() const { return static_cast<uint8_t>((word() >> 12) & 0x1); }
  constexpr uint16_t vid() const { return static_cast<uint16_t>(word() & 0xfff); }
  constexpr uint8_t flags() const { return bytes_[4]; }

  constexpr void wordIs(uint32_t w) {
    bytes_[0] = static_cast<uint8_t>(w);
    bytes_[1] = static_cast<uint8_t>(w >> 8);
    bytes_[2] = static_cast<uint8_t>(w >> 16);
    bytes_[3] = static_cast<uint8_t>(w >> 24);
  }
  constexpr void tpidIs(uint16_t v) { wordIs((word() & 0xffffu) | (uint32_t{v} << 16)); }
  constexpr void pcpIs(uint8_t v) { wordIs((word() & ~0xe000u) | ((uint32_t{v} & 0x7) << 13)); }
  constexpr void deiIs(uint8_t v) { wordIs((word() & ~0x1000u) | ((uint32_t{v} & 0x1) << 12)); }
  constexpr void vidIs(uint16_t v) { wordIs((word() & ~0xfffu) | (uint32_t{v} & 0xfff)); }
  constexpr void flagsIs(uint8_t v) { bytes_[4] = v; }

  // The five value bytes; byte 5 has no meaning.
  constexpr bool operator==(VlanTag const& o) const {
    return word() == o.word() && flags() == o.flags();
  }
  constexpr bool operator<(VlanTag const& o) const {
    return word() != o.word() ? word() < o.word() : flags() < o.flags();
  }

  Zeb::String str() const;

 private:
  std::array<uint8_t, 6> bytes_;
};

static_assert(sizeof(VlanTag) == 6 && alignof(VlanTag) == 1);

std::ostream& operator<<(std::ostream& os, VlanTag const& v);
Zeb::String valueToStrep(VlanTag const& v);

}  // namespace Ovie

template <>
Ovie::VlanTag Zeb::deserializeAttr<Ovie::VlanTag>(Zeb::StrepIt& it, Zeb::StrepIt const& end,
                                                  char const* attrName);

template <>
struct fmt::formatter<Ovie::VlanTag> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Ovie::VlanTag const& v, Ctx& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(v.str()), ctx);
  }
};
