// Parcel::KestorId: the restart generation of a table's files.
//
// 32 bits in two u16 halves: the low half names the writer process that first
// made the id (its pid), the high half counts re-formats. A re-format adds 1 to
// the high half (wrapping within 16 bits) and keeps the low half, so readers
// that compare ids learn that every file of the table was made anew.
// Stored as one u32: low half in bits 0-15, high half in bits 16-31.
#pragma once

#include <cstdint>

#include <fmt/format.h>

namespace Parcel {

class KestorId {
 public:
  constexpr KestorId() = default;
  constexpr explicit KestorId(uint32_t value) : value_(value) {}
  constexpr KestorId(uint16_t low, uint16_t high)
      : value_(uint32_t(low) | (uint32_t(high) << 16)) {}

  constexpr uint32_t value() const { return value_; }
  constexpr uint16_t low() const { return static_cast<uint16_t>(value_ & 0xffffu); }
  constexpr uint16_t high() const { return static_cast<uint16_t>(value_ >> 16); }
  constexpr bool isZero() const { return value_ == 0; }

  // The id of the next re-format: high half + 1 (mod 2^16), low half kept.
  constexpr KestorId reformatted() const {
    return KestorId(low(), static_cast<uint16_t>(high() + 1));
  }

  friend constexpr bool operator==(KestorId, KestorId) = default;

 private:
  uint32_t value_ = 0;
};

static_assert(sizeof(KestorId) == 4);

}  // namespace Parcel

// Text form "{low}:{high}".
template <>
struct fmt::formatter<Parcel::KestorId> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Parcel::KestorId const& k, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "{}:{}", k.low(), k.high());
  }
};
