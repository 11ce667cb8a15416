// Zeb::Hash: the key hash of every table. Its values are part of the file
// format (a bucket is the hash modulo the bucket count), so a few are pinned.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "Zeb/Hash.h"

namespace {

uint32_t hashWords(uint32_t seed, std::vector<uint32_t> const& words) {
  Zeb::Hash h(seed);
  for (uint32_t w : words) h.hashMix<4>(&w);
  return h.result();
}

TEST(Hash, PinnedValuesOfTheFormat) {
  // If one of these changes, every existing table file is unreadable.
  EXPECT_EQ(hashWords(0, {}), 0x00000000u);
  EXPECT_EQ(hashWords(1, {}), 0x295d376du);
  EXPECT_EQ(hashWords(0, {1}), 0xfbf1402au);
  EXPECT_EQ(hashWords(7, {1, 2, 3}), 0x4dfca8aeu);
  // result() reads the state without changing it.
  Zeb::Hash h(7);
  for (uint32_t w : {1u, 2u, 3u}) h.hashMix<4>(&w);
  EXPECT_EQ(h.result(), 0x4dfca8aeu);
  EXPECT_EQ(h.result(), 0x4dfca8aeu);
}

TEST(Hash, SeedOrderAndCountOfWordsMatter) {
  for (std::vector<uint32_t> const& words :
       {std::vector<uint32_t>{}, {0}, {1, 2}, {0xffffffffu, 0, 7}}) {
    EXPECT_NE(hashWords(0, words), hashWords(1, words));
    EXPECT_NE(hashWords(1, words), hashWords(0x80000000u, words));
  }
  EXPECT_NE(hashWords(0, {1, 2}), hashWords(0, {2, 1}));
  EXPECT_NE(hashWords(0, {0}), hashWords(0, {0, 0}));
  EXPECT_NE(hashWords(0, {}), hashWords(0, {0}));
}

TEST(Hash, HashMix4FeedsFourBytesLittleEndianAndEachOneCounts) {
  unsigned char bytes[8] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
  uint32_t word = 0x44332211u;
  Zeb::Hash fromBytes(3), fromWord(3);
  fromBytes.hashMix<4>(bytes);
  fromWord.hashMix<4>(&word);
  EXPECT_EQ(fromBytes.result(), fromWord.result());
  for (int i = 0; i < 8; ++i) {
    unsigned char changed[8];
    std::memcpy(changed, bytes, 8);
    changed[i] ^= 0x01;
    Zeb::Hash h(3);
    h.hashMix<4>(changed);
    if (i < 4) {
      EXPECT_NE(h.result(), fromBytes.result()) << "byte " << i << " was not fed";
    } else {
      EXPECT_EQ(h.result(), fromBytes.result()) << "byte " << i << " was read beyond 4";
    }
  }
}

// One byte in, the same as hashSingleAttr of a byte; a word the same as a
// four-byte mix.
TEST(Hash, HashMix1AndHashSingleAttrFeedOneByteOrOneWord) {
  unsigned char const bytes[4] = {0x5a, 0x01, 0x02, 0x03};
  unsigned char const other[4] = {0x5a, 0xff, 0xfe, 0xfd};
  unsigned char const third[4] = {0x5b, 0x01, 0x02, 0x03};
  auto one = [](unsigned char const* p) {
    Zeb::Hash h(0);
    h.hashMix<1>(p);
    return h.result();
  };
  EXPECT_EQ(one(bytes), one(other));
  EXPECT_NE(one(bytes), one(third));
  EXPECT_NE(one(bytes), hashWords(0, {0x5a})) << "a one-byte mix is not a word's";
  for (uint32_t seed : {0u, 1u, 12345u}) {
    for (int v = 0; v < 256; ++v) {
      uint8_t const b = static_cast<uint8_t>(v);
      Zeb::Hash h(seed);
      h.hashMix<1>(&b);
      EXPECT_EQ(Zeb::hashSingleAttr(seed, b), h.result());
    }
    EXPECT_EQ(Zeb::hashSingleAttr(seed, 0xcafef00du), hashWords(seed, {0xcafef00du}));
  }
}

// Buckets take the low bits of the hash: consecutive keys must spread over
// them, not pile into a few.
TEST(Hash, LowBitsSpreadConsecutiveKeys) {
  constexpr int kBuckets = 1024, kKeys = 64 * kBuckets;
  std::vector<int> count(kBuckets);
  for (uint32_t k = 0; k < kKeys; ++k) count[hashWords(0, {k}) % kBuckets]++;
  auto [lo, hi] = std::minmax_element(count.begin(), count.end());
  EXPECT_GT(*lo, 64 / 2);
  EXPECT_LT(*hi, 64 * 2);
}

TEST(Hash, RandomWordSequencesDifferingInOneBitHashApart) {
  uint32_t const seed = 424242;
  std::printf("Hash bit-flip seed %u\n", seed);
  std::mt19937 rng(seed);
  int same = 0;
  for (int round = 0; round < 2000; ++round) {
    std::vector<uint32_t> words(1 + rng() % 9);
    for (auto& w : words) w = rng();
    auto flipped = words;
    flipped[rng() % flipped.size()] ^= 1u << (rng() % 32);
    same += hashWords(0, words) == hashWords(0, flipped);
  }
  EXPECT_EQ(same, 0);
}

}  // namespace
