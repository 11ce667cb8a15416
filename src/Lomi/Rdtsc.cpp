// Time stamp counter reads and their one-time calibration.
#include "Lomi/Rdtsc.h"

#include <time.h>

#include <chrono>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#define LOMI_HAVE_TSC 1
#else
#define LOMI_HAVE_TSC 0
#endif

namespace Lomi {

namespace {

uint64_t monotonicNs() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

double calibrate() {
#if LOMI_HAVE_TSC
  constexpr uint64_t kWindowNs = 10'000'000;
  uint64_t const t0 = monotonicNs();
  uint64_t const c0 = __rdtsc();
  uint64_t t1 = t0;
  // Sleep in short naps rather than spin: the machine is shared, and the
  // window only has to be long enough to make the two clocks' read jitter
  // small against it.
  while ((t1 = monotonicNs()) - t0 < kWindowNs) {
    timespec nap{0, static_cast<long>(kWindowNs - (t1 - t0))};
    ::nanosleep(&nap, nullptr);
  }
  uint64_t const c1 = __rdtsc();
  return static_cast<double>(c1 - c0) * 1e9 / static_cast<double>(t1 - t0);
#else
  return 1e9;
#endif
}

}  // namespace

uint64_t Rdtsc::now() {
#if LOMI_HAVE_TSC
  return __rdtsc();
#else
  return monotonicNs();
#endif
}

double Rdtsc::calibrationRate() {
  static double const rate = calibrate();
  return rate;
}

uint64_t Rdtsc::deadline(double seconds) {
  double ticks = seconds > 0 ? seconds * calibrationRate() : 0;
  return now() + (ticks < 1 ? 1 : static_cast<uint64_t>(ticks));
}

}  // namespace Lomi
