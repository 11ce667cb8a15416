// Nimbet::EthAddr: a 6-byte Ethernet address, in wire order, alignment 1 so
// records can place it at any offset.
//
// Text form: six pairs of lowercase hex digits joined by ':' (either case
// parses), exactly 17 characters, e.g. "00:1c:73:0a:bb:ff".
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>

#include <fmt/format.h>

#include "Zeb/Strep.h"
#include "Zeb/String.h"

namespace Nimbet {

class EthAddr {
 public:
  using Bytes = std::array<uint8_t, 6>;

  constexpr EthAddr() : bytes_{} {}
  constexpr explicit EthAddr(Bytes const& b) : bytes_(b) {}
  constexpr EthAddr(uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3, uint8_t b4, uint8_t b5)
      : bytes_{b0, b1, b2, b3, b4, b5} {}

  constexpr Bytes const& bytes() const { return bytes_; }
  constexpr bool isZero() const { return *this == EthAddr(); }

  constexpr bool operator==(EthAddr const& o) const { return bytes_ == o.bytes_; }
  constexpr bool operator<(EthAddr const& o) const { return bytes_ < o.bytes_; }

  Zeb::String str() const;

 private:
  Bytes bytes_;
};

static_assert(sizeof(EthAddr) == 6 && alignof(EthAddr) == 1);

std::ostream& operator<<(std::ostream& os, EthAddr const& v);
Zeb::String valueToStrep(EthAddr const& v);
EthAddr sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, EthAddr*);

}  // namespace Nimbet

template <>
Nimbet::EthAddr Zeb::deserializeAttr<Nimbet::EthAddr>(Zeb::StrepIt& it, Zeb::StrepIt const& end,
                                                      char const* attrName);

template <>
struct fmt::formatter<Nimbet::EthAddr> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Nimbet::EthAddr const& v, Ctx& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(v.str()), ctx);
  }
};
