// Wend::Local<T>: resizing keeps content and fills new elements; indices are
// checked.
#include "Wend/Local.h"

#include <cstdint>

#include <gtest/gtest.h>

#include "Lomi/Exception.h"
#include "Lomi/Thrown.h"

namespace {

template <typename T>
class WendLocal : public ::testing::Test {};

using Types = ::testing::Types<bool, uint8_t, uint32_t, uint64_t>;
TYPED_TEST_SUITE(WendLocal, Types);

// The value stored at index i: alternating for bool, distinct otherwise.
template <typename T>
T valueAt(size_t i) {
  if constexpr (std::is_same_v<T, bool>) {
    return i % 3 == 1;
  } else {
    return static_cast<T>(i * 2654435761u + 1);
  }
}

TYPED_TEST(WendLocal, ResizeKeepsContentAndFillsTheRest) {
  using T = TypeParam;
  Wend::Local<T> a;
  EXPECT_TRUE(a.empty());
  a.resize(1000, T());
  for (size_t i = 0; i < a.size(); ++i) {
    ASSERT_EQ(a[i], T()) << i;
    a[i] = valueAt<T>(i);
  }
  T const fill = valueAt<T>(1);
  a.resize(5000, fill);
  ASSERT_EQ(a.size(), 5000u);
  for (size_t i = 0; i < 1000; ++i) ASSERT_EQ(a[i], valueAt<T>(i)) << i;
  for (size_t i = 1000; i < 5000; ++i) ASSERT_EQ(a[i], fill) << i;
  a.resize(10, T());
  ASSERT_EQ(a.size(), 10u);
  for (size_t i = 0; i < 10; ++i) ASSERT_EQ(a.at(i), valueAt<T>(i)) << i;
  a.resize(20, T());
  for (size_t i = 10; i < 20; ++i) ASSERT_EQ(a[i], T()) << "stale element at " << i;
  a.fill(fill);
  for (size_t i = 0; i < 20; ++i) ASSERT_EQ(a[i], fill);
  a.resize(0);
  EXPECT_TRUE(a.empty());
}

TYPED_TEST(WendLocal, OutOfRangeIndexThrowsWithTheIndex) {
  Wend::Local<TypeParam> a(4);
  EXPECT_NO_THROW(a[3]);
  EXPECT_EQ(LomiTest::thrown<Lomi::CorruptionDetectedException>([&] { a[4]; }),
            "local array index 4 is out of range, size 4");
  Wend::Local<TypeParam> const& c = a;
  EXPECT_THROW(c.at(size_t(-1)), Lomi::CorruptionDetectedException);
  Wend::Local<TypeParam> none;
  EXPECT_THROW(none[0], Lomi::CorruptionDetectedException);
}

TEST(WendLocalFlags, ImpossibleSizeIsAMemoryResourceFailure) {
  Wend::Local<uint64_t> a(3, 7);
  EXPECT_THROW(a.resize(size_t(1) << 60), Lomi::MemoryResourceException);
  ASSERT_EQ(a.size(), 3u) << "a failed resize changed the array";
  EXPECT_EQ(a[2], 7u);
}

}  // namespace
