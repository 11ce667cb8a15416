// Nimbet::IpAddr and Nimbet::Ip6Addr: IPv4 and IPv6 addresses as flow keys
// store them: the address bytes in network order, alignment 1, so that a key
// can place them at offsets that are not multiples of 4.
//
// Text forms: IPv4 is the dotted quad, four decimal numbers 0..255 without
// leading zeros ("10.0.0.1"). IPv6 is the usual compressed form (lowercase,
// longest zero run as "::", "::ffff:1.2.3.4" for mapped IPv4); any form the
// system's IPv6 parser takes parses. A parser takes the longest run of the
// characters its form can contain and stops there.
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>

#include <fmt/format.h>

#include "Zeb/Strep.h"
#include "Zeb/String.h"

namespace Nimbet {

class IpAddr {
 public:
  using Bytes = std::array<uint8_t, 4>;

  constexpr IpAddr() : bytes_{} {}
  constexpr explicit IpAddr(Bytes const& b) : bytes_(b) {}
  // From the address as a number: 0x0a000001 is 10.0.0.1.
  constexpr explicit IpAddr(uint32_t hostOrder)
      : bytes_{static_cast<uint8_t>(hostOrder >> 24), static_cast<uint8_t>(hostOrder >> 16),
               static_cast<uint8_t>(hostOrder >> 8), static_cast<uint8_t>(hostOrder)} {}

  constexpr Bytes const& bytes() const { return bytes_; }
  constexpr uint32_t value() const {
    return (uint32_t{bytes_[0]} << 24) | (uint32_t{bytes_[1]} << 16) | (uint32_t{bytes_[2]} << 8) |
           uint32_t{bytes_[3]};
  }

  constexpr bool operator==(IpAddr const& o) const { return bytes_ == o.bytes_; }
  constexpr bool operator<(IpAddr const& o) const { return bytes_ < o.bytes_; }

  Zeb::String str() const;

 private:
  Bytes bytes_;
};

class Ip6Addr {
 public:
  using Bytes = std::array<uint8_t, 16>;

  constexpr Ip6Addr() : bytes_{} {}
  constexpr explicit Ip6Addr(Bytes const& b) : bytes_(b) {}

  constexpr Bytes const& bytes() const { return bytes_; }

  constexpr bool operator==(Ip6Addr const& o) const { return bytes_ == o.bytes_; }
  constexpr bool operator<(Ip6Addr const& o) const { return bytes_ < o.bytes_; }

  Zeb::String str() const;

 private:
  Bytes bytes_;
};

static_assert(sizeof(IpAddr) == 4 && alignof(IpAddr) == 1);
static_assert(sizeof(Ip6Addr) == 16 && alignof(Ip6Addr) == 1);

std::ostream& operator<<(std::ostream& os, IpAddr const& v);
std::ostream& operator<<(std::ostream& os, Ip6Addr const& v);
Zeb::String valueToStrep(IpAddr const& v);
Zeb::String valueToStrep(Ip6Addr const& v);
IpAddr sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, IpAddr*);
Ip6Addr sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, Ip6Addr*);

}  // namespace Nimbet

template <>
Nimbet::IpAddr Zeb::deserializeAttr<Nimbet::IpAddr>(Zeb::StrepIt& it, Zeb::StrepIt const& end,
                                                    char const* attrName);
template <>
Nimbet::Ip6Addr Zeb::deserializeAttr<Nimbet::Ip6Addr>(Zeb::StrepIt& it, Zeb::StrepIt const& end,
                                                      char const* attrName);

template <>
struct fmt::formatter<Nimbet::IpAddr> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Nimbet::IpAddr const& v, Ctx& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(v.str()), ctx);
  }
};
template <>
struct fmt::formatter<Nimbet::Ip6Addr> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Nimbet::Ip6Addr const& v, Ctx& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(v.str()), ctx);
  }
};
