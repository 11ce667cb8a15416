// Zeb::Hash: the hash accumulator that all keys share.
//
// Three 32-bit words begun as (seed, 0, 0); each hashMix<N> adds N bytes (N is
// 1 or 4) to the first word and mixes the three; result() runs the final mix
// and gives the third word. The mix is Bob Jenkins' lookup3 mix/final pair.
// This function is part of the table format: every process that shares a
// table must hash with it.
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
    uint32_t a = a_, b = b_, c = c_;
    c ^= b;
    c -= rot(b, 14);
    a ^= c;
    a -= rot(c, 11);
    b ^= a;
    b -= rot(a, 25);
    c ^= b;
    c -= rot(b, 16);
    a ^= c;
    a -= rot(c, 4);
    b ^= a;
    b -= rot(a, 14);
    c ^= b;
    c -= rot(b, 24);
    return c;
  }

 private:
  static constexpr uint32_t rot(uint32_t x, int k) { return (x << k) | (x >> (32 - k)); }
  void mix() {
    a_ -= c_;
    a_ ^= rot(c_, 4);
    c_ += b_;
    b_ -= a_;
    b_ ^= rot(a_, 6);
    a_ += c_;
    c_ -= b_;
    c_ ^= rot(b_, 8);
    b_ += a_;
    a_ -= c_;
    a_ ^= rot(c_, 16);
    c_ += b_;
    b_ -= a_;
    b_ ^= rot(a_, 19);
    a_ += c_;
    c_ -= b_;
    c_ ^= rot(b_, 4);
    b_ += a_;
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
