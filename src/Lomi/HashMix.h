// Lomi::Impl::HashMix<unsigned int>: the byte mix behind the slot header's
// checksum. FNV-1a over the bytes, from the caller's starting value (the slot
// header starts at 0x811c9dc5), with a final avalanche in value(). Writer and
// readers of a table must agree on it; it is part of the file format.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Lomi::Impl {

template <typename T>
class HashMix;

template <>
class HashMix<unsigned int> {
 public:
  explicit constexpr HashMix(unsigned int start) : h_(start) {}

  void mix(void const* data, size_t len) {
    auto const* p = static_cast<unsigned char const*>(data);
    for (size_t i = 0; i < len; i++) step(p[i]);
  }
  template <size_t N>
  void mixFixedLen(void const* data) {
    auto const* p = static_cast<unsigned char const*>(data);
    for (size_t i = 0; i < N; i++) step(p[i]);
  }
  constexpr unsigned int value() const {
    unsigned int h = h_;
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    h ^= h >> 13;
    h *= 0xc2b2ae35u;
    h ^= h >> 16;
    return h;
  }

 private:
  constexpr void step(unsigned char b) {
    h_ ^= b;
    h_ *= 16777619u;
  }
  unsigned int h_;
};

}  // namespace Lomi::Impl
