// Zeb::Hash: the hash accumulator that all keys share.
//
// Three 32-bit words begun as (seed, 0, 0); each hashMix<N> adds N bytes (N is
// 1 or 4) to the first word, counts N in the second and folds the first into
// the third; result() runs the final avalanche over the three. The fold is a
// murmur3 block step: its multiply chain on the new word runs beside the
// short chain on the third word, so a key of a few fields hashes in a few
// nanoseconds (lookups hash every key they look for). This function is part
// of the table format: every process that shares a table must hash with it.
#pragma once

#include <cstdint>
#include <cstring>

namespace Zeb {

class Hash {
 public:
  explicit constexpr Hash(uint32_t seed) : a_(seed), b_(0), c_(0) {}

  template <int N>
  void hashMix(void const* p) {
    static_assert(N == 1 || N == 4, "hashMix takes 1 or 4 bytes");
    uint32_t v = 0;
    std::memcpy(&v, p, N);
    a_ += v;
    b_ += N;
    mix();
  }

  uint32_t result() const {
    // The first word is the seed if nothing was mixed, else 0.
    uint32_t h = c_ ^ b_ ^ scramble(a_);
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    h ^= h >> 13;
    h *= 0xc2b2ae35u;
    h ^= h >> 16;
    return h;
  }

 private:
  static constexpr uint32_t rot(uint32_t x, int k) { return (x << k) | (x >> (32 - k)); }
  static constexpr uint32_t scramble(uint32_t k) { return rot(k * 0xcc9e2d51u, 15) * 0x1b873593u; }
  void mix() {
    c_ = rot(c_ ^ scramble(a_), 13) * 5u + 0xe6546b64u;
    a_ = 0;
  }

  uint32_t a_, b_, c_;
};

// A value hashed as its single attribute: Hash(seed), one hashMix over its
// bytes, result(). Used for one-byte keys.
template <typename T>
uint32_t hashSingleAttr(uint32_t seed, T const& v) {
  static_assert(sizeof(T) == 1 || sizeof(T) == 4, "hashSingleAttr takes 1 or 4 byte values");
  Hash h(seed);
  h.hashMix<static_cast<int>(sizeof(T))>(&v);
  return h.result();
}

}  // namespace Zeb
