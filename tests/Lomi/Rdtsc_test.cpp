// The time stamp counter and the monotonic time.
#include <gtest/gtest.h>

#include "Lomi/Rdtsc.h"
#include "Lomi/Time.h"

namespace {

TEST(Rdtsc, NeverRunsBackwardOnOneThread) {
  uint64_t last = Lomi::Rdtsc::now();
  int advanced = 0;
  for (int i = 0; i < 200000; ++i) {
    uint64_t const t = Lomi::Rdtsc::now();
    ASSERT_GE(t, last) << "read " << i;
    advanced += t > last;
    last = t;
  }
  EXPECT_GT(advanced, 0) << "the counter never moved";
}

TEST(Rdtsc, DeadlinesLieAheadByTheirShareOfTheRate) {
  double const rate = Lomi::Rdtsc::calibrationRate();
  ASSERT_GT(rate, 0.0);
  EXPECT_EQ(Lomi::Rdtsc::calibrationRate(), rate) << "measured once";
  uint64_t const before = Lomi::Rdtsc::now();
  uint64_t const d = Lomi::Rdtsc::deadline(0.01);
  uint64_t const after = Lomi::Rdtsc::now();
  EXPECT_GE(d, before + static_cast<uint64_t>(0.01 * rate));
  EXPECT_LE(d, after + static_cast<uint64_t>(0.01 * rate) + 1);
  EXPECT_GT(Lomi::Rdtsc::deadline(0), before) << "a deadline is at least one tick ahead";
  EXPECT_GT(Lomi::Rdtsc::deadline(-1), before);
}

TEST(Time, IsMonotonic) {
  double last = Lomi::time();
  for (int i = 0; i < 100000; ++i) {
    double const t = Lomi::time();
    ASSERT_GE(t, last);
    last = t;
  }
}

}  // namespace
