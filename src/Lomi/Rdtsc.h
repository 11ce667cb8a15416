// Lomi::Rdtsc: the time stamp counter, the cheapest clock for deadlines
// tested in tight loops (a grow checks one after every bucket).
//
// `now()` reads the counter: no system call, no fence, so it may be read a
// little early or late relative to nearby memory accesses; it is for
// deadlines, not for ordering. `calibrationRate()` is ticks per second,
// measured once per process against the monotonic clock over about 10 ms
// (the first call pays for it; later calls read the stored value). Where the
// processor has no such counter, ticks are nanoseconds of the monotonic clock
// and the rate is 1e9.
#pragma once

#include <cstdint>

namespace Lomi {

class Rdtsc {
 public:
  static uint64_t now();
  static double calibrationRate();
  // The tick count `seconds` from now; at least one tick ahead.
  static uint64_t deadline(double seconds);
};

}  // namespace Lomi
