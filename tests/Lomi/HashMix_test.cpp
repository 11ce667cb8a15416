// Lomi::Impl::HashMix: the header checksum's mix. Part of the file format:
// deterministic, sensitive to every byte and to the starting value.
#include <gtest/gtest.h>

#include <cstring>

#include "Lomi/HashMix.h"

namespace {

using Mix = Lomi::Impl::HashMix<unsigned int>;

unsigned int mixOf(unsigned int start, void const* p, size_t n) {
  Mix m(start);
  m.mix(p, n);
  return m.value();
}

TEST(HashMix, DeterministicAndValueLeavesTheStateAlone) {
  char const text[] = "slots header";
  Mix m(0x811c9dc5u);
  m.mix(text, sizeof text);
  unsigned int const v = m.value();
  EXPECT_EQ(m.value(), v);
  EXPECT_EQ(mixOf(0x811c9dc5u, text, sizeof text), v);
}

TEST(HashMix, PinnedValues) {
  // The slot header's checksum: changing the mix breaks every table file.
  EXPECT_EQ(Mix(0x811c9dc5u).value(), 0xab3e7c0bu);
  EXPECT_EQ(mixOf(0x811c9dc5u, "abc", 3), 0x1cc93dbcu);
}

TEST(HashMix, StartValueMatters) {
  char const text[] = "x";
  EXPECT_NE(mixOf(0x811c9dc5u, text, 1), mixOf(0, text, 1));
  EXPECT_NE(Mix(1).value(), Mix(2).value());
}

TEST(HashMix, EveryByteAndItsPlaceCount) {
  unsigned char buf[64];
  for (int i = 0; i < 64; ++i) buf[i] = static_cast<unsigned char>(i * 7);
  unsigned int const base = mixOf(0x811c9dc5u, buf, sizeof buf);
  for (size_t i = 0; i < sizeof buf; ++i) {
    unsigned char changed[64];
    std::memcpy(changed, buf, sizeof buf);
    changed[i] ^= 0x80;
    EXPECT_NE(mixOf(0x811c9dc5u, changed, sizeof changed), base) << "byte " << i;
  }
  unsigned char ab[2] = {1, 2}, ba[2] = {2, 1};
  EXPECT_NE(mixOf(0, ab, 2), mixOf(0, ba, 2));
  EXPECT_NE(mixOf(0, buf, 63), base) << "the length counts";
}

TEST(HashMix, FixedLengthEqualsTheRuntimeLength) {
  unsigned char buf[40];
  for (int i = 0; i < 40; ++i) buf[i] = static_cast<unsigned char>(255 - i);
  Mix fixed(0x811c9dc5u), runtime(0x811c9dc5u);
  fixed.mixFixedLen<40>(buf);
  runtime.mix(buf, 40);
  EXPECT_EQ(fixed.value(), runtime.value());
  // Mixing in two pieces is mixing the whole.
  Mix pieces(0x811c9dc5u);
  pieces.mix(buf, 13);
  pieces.mix(buf + 13, 27);
  EXPECT_EQ(pieces.value(), runtime.value());
}

}  // namespace
