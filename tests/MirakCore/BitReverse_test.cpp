// The bit-reversed bucket walk: the limits of its width, and whole walks
// checked against a bit-by-bit reference for every width up to 16.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "MirakCore/BitReverse.h"

namespace {

using MirakCore::bitReversePermute;

// Reverse the low `bits` bits, add 1, reverse back: the definition, one bit at
// a time, independent of the shift-and-mask form under test.
uint32_t reference(uint32_t index, uint32_t bits) {
  auto rev = [bits](uint64_t v) {
    uint64_t r = 0;
    for (uint32_t i = 0; i < bits; ++i) r |= ((v >> i) & 1u) << (bits - 1 - i);
    return r;
  };
  uint64_t const mask = (uint64_t{1} << bits) - 1;
  return static_cast<uint32_t>(rev((rev(index & mask) + 1) & mask));
}

TEST(BitReversePermute, NoSuccessorOutsideOneTo31Bits) {
  // One bucket: bucketFactor_ is 0, so there is no successor at all.
  EXPECT_EQ(bitReversePermute(0, 0), 0xffffffffu);
  EXPECT_EQ(bitReversePermute(5, 32), 0xffffffffu);
  EXPECT_EQ(bitReversePermute(0, 33), 0xffffffffu);
  // The extremes that are still in range.
  EXPECT_EQ(bitReversePermute(0, 1), 1u);
  EXPECT_EQ(bitReversePermute(1, 1), 0u);
  EXPECT_EQ(bitReversePermute(0, 31), 0x40000000u);
  EXPECT_EQ(bitReversePermute(0x7fffffffu, 31), 0u);
  EXPECT_EQ(bitReversePermute(0x3fffffffu, 31), 0x7fffffffu);
  EXPECT_EQ(MirakCore::bucketAhead(0, 0, 5), 0u);
  EXPECT_EQ(MirakCore::bucketAhead(0, 31, 1), 0x40000000u);
  EXPECT_EQ(MirakCore::bucketAhead(0x7fffffffu, 31, 1), 0u);
}

class BitReverseWidth : public ::testing::TestWithParam<uint32_t> {};

// A whole walk from 0 visits every index exactly once and comes back to 0; each
// step agrees with the reference; the low half steps by exactly n/2 (the short
// form the writer checks); and the walk of 2n buckets is the walk of n with
// b + n inserted right after each b.
TEST_P(BitReverseWidth, WalkIsAPermutationInSplitOrder) {
  uint32_t const bits = GetParam();
  uint32_t const n = 1u << bits;
  std::vector<bool> seen(n, false);
  std::vector<uint32_t> walk;
  uint32_t b = 0;
  for (uint32_t step = 0; step < n; ++step) {
    ASSERT_LT(b, n);
    ASSERT_FALSE(seen[b]) << "bucket " << b << " visited twice at step " << step;
    seen[b] = true;
    walk.push_back(b);
    uint32_t const next = bitReversePermute(b, bits);
    ASSERT_EQ(next, reference(b, bits)) << "bucket " << b;
    if (b < n / 2) {
      ASSERT_EQ(next, b + n / 2) << "bucket " << b;
    }
    b = next;
  }
  EXPECT_EQ(b, 0u);
  // bucketAhead jumps along the same walk, wrapping after the last bucket.
  for (uint32_t step = 0; step < n; step += 1 + step / 8) {
    for (uint32_t ahead : {0u, 1u, 8u, 16u, n - 1, n, n + 3}) {
      ASSERT_EQ(MirakCore::bucketAhead(walk[step], bits, ahead), walk[(step + ahead) % n])
          << "step " << step << " ahead " << ahead;
    }
  }
  EXPECT_EQ(walk.back(), n - 1) << "the last bucket of the walk is numBuckets - 1";
  if (bits < 12) {
    std::vector<uint32_t> doubled{0};
    for (uint32_t c = bitReversePermute(0, bits + 1); c != 0; c = bitReversePermute(c, bits + 1))
      doubled.push_back(c);
    ASSERT_EQ(doubled.size(), 2u * n);
    for (uint32_t i = 0; i < n; ++i) {
      EXPECT_EQ(doubled[2 * i], walk[i]);
      EXPECT_EQ(doubled[2 * i + 1], walk[i] + n);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(SmallWidths, BitReverseWidth, ::testing::Range(1u, 17u));

}  // namespace
