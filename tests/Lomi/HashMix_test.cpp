// Lomi::Impl::HashMix: the header checksum's mix. Part of the file format:
// pinned, sensitive to every byte, its place and the starting value.
#include <gtest/gtest.h>

#include <cstring>

#include "Lomi/HashMix.h"

namespace {

using Mix = Lomi::Impl::HashMix<unsigned int>;
constexpr unsigned int kStart = 0x811c9dc5u;

unsigned int mixOf(unsigned int start, void const* p, size_t n) {
  Mix m(start);
  m.mix(p, n);
  return m.value();
}

TEST(HashMix, PinnedValues) {
  // The slot header's checksum: changing the mix breaks every table file.
  EXPECT_EQ(Mix(kStart).value(), 0xab3e7c0bu);
  Mix m(kStart);
  m.mix("abc", 3);
  EXPECT_EQ(m.value(), 0x1cc93dbcu);
  EXPECT_EQ(m.value(), 0x1cc93dbcu) << "value() leaves the state alone";
}

TEST(HashMix, EveryByteItsPlaceTheLengthAndTheStartCount) {
  unsigned char buf[64];
  for (int i = 0; i < 64; ++i) buf[i] = static_cast<unsigned char>(i * 7);
  unsigned int const base = mixOf(kStart, buf, sizeof buf);
  for (size_t i = 0; i < sizeof buf; ++i) {
    unsigned char changed[64];
    std::memcpy(changed, buf, sizeof buf);
    changed[i] ^= 0x80;
    EXPECT_NE(mixOf(kStart, changed, sizeof changed), base) << "byte " << i;
  }
  unsigned char ab[2] = {1, 2}, ba[2] = {2, 1};
  EXPECT_NE(mixOf(0, ab, 2), mixOf(0, ba, 2));
  EXPECT_NE(mixOf(kStart, buf, 63), base) << "the length counts";
  EXPECT_NE(mixOf(0, buf, sizeof buf), base) << "the start value counts";
}

TEST(HashMix, FixedLengthAndPiecesEqualTheWhole) {
  unsigned char buf[40];
  for (int i = 0; i < 40; ++i) buf[i] = static_cast<unsigned char>(255 - i);
  Mix fixed(kStart), pieces(kStart);
  fixed.mixFixedLen<40>(buf);
  pieces.mix(buf, 13);
  pieces.mix(buf + 13, 27);
  EXPECT_EQ(fixed.value(), mixOf(kStart, buf, 40));
  EXPECT_EQ(pieces.value(), mixOf(kStart, buf, 40));
}

}  // namespace
