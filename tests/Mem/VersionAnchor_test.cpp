// Version anchors: what a table remembers of the last value it handed out,
// and how a change of the slot's word shows.
#include <gtest/gtest.h>

#include <cstdint>

#include "Mem/VersionAnchor.h"

namespace {

TEST(VersionAnchor, SeesEveryChangeOfTheWord) {
  alignas(8) uint32_t mapping[16] = {};
  mapping[5] = 0x11;  // OCCUPIED, one overwrite behind it
  Mem::VersionAnchor a;
  EXPECT_TRUE(a.neverSet());
  EXPECT_FALSE(a.current());
  EXPECT_EQ(a.cache().offset, Mem::CacheVersionAnchor::kNeverSet);
  a.set(mapping[5], &mapping[5], mapping);
  EXPECT_TRUE(a.current());

  mapping[5] += 2;  // LOOKASIDE up: an overwrite in progress
  EXPECT_FALSE(a.current());
  mapping[5] += 2;  // overwrite done
  EXPECT_FALSE(a.current());
  mapping[5] = 0x11;  // the same word again: the anchor cannot tell, by design
  EXPECT_TRUE(a.current());
  mapping[5] &= ~1u;  // removed
  EXPECT_FALSE(a.current());

  Mem::CacheVersionAnchor c = a.cache();
  EXPECT_EQ(c.word, 0x11u);
  EXPECT_EQ(c.offset, 5 * sizeof(uint32_t));
  EXPECT_EQ(fmt::format("{}", c), "word:0x11 offset:0x14");
}

TEST(VersionAnchor, GoneAndResetAreNeverCurrent) {
  alignas(8) uint32_t mapping[4] = {0, 5, 0, 0};
  Mem::VersionAnchor a;
  a.set(5, &mapping[1], mapping);
  ASSERT_TRUE(a.current());
  a.gone();
  EXPECT_TRUE(a.isGone());
  EXPECT_FALSE(a.current()) << "a slot shrunk away is never current";
  a.set(5, &mapping[1], mapping);
  a.reset();
  EXPECT_TRUE(a.neverSet());
  EXPECT_FALSE(a.current());
}

TEST(VersionAnchor, MismatchIsALomiExceptionWithAnOptionalMessage) {
  EXPECT_EQ(Mem::VersionMismatchException().msg(), "");
  try {
    throw Mem::VersionMismatchException("slot {} moved", 3);
  } catch (Lomi::Exception const& e) {
    EXPECT_EQ(e.msg(), "slot 3 moved");
  }
}

}  // namespace
