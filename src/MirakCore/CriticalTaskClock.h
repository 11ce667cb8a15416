// MirakCore::CriticalTaskClock: keeps a process's critical tasks alive during
// a long operation of the writer (a bucket grow or shrink, a slot shrink).
//
// Every `tick()` compares the time stamp counter with a deadline 10 ms ahead;
// past it, and if the check is on, it runs the root scheduler's critical tasks
// and sets a new deadline. The tasks must not touch the table that is being
// changed: the table is inside a critical section and would assert reentrancy.
#pragma once

#include <cstdint>

#include "Lomi/Rdtsc.h"
#include "Lomi/TaskScheduler.h"

namespace MirakCore {

class CriticalTaskClock {
 public:
  explicit CriticalTaskClock(bool check)
      : check_(check), start_(Lomi::Rdtsc::now()), deadline_(start_ + interval()) {}

  void tick() {
    if (!check_) return;
    uint64_t const now = Lomi::Rdtsc::now();
    if (now < deadline_) return;
    Lomi::TaskSchedulerRoot::root().runCriticalPriorityTasks();
    deadline_ = Lomi::Rdtsc::now() + interval();
  }

  uint64_t elapsedNs() const {
    double const ticks = static_cast<double>(Lomi::Rdtsc::now() - start_);
    return static_cast<uint64_t>(ticks * 1e9 / Lomi::Rdtsc::calibrationRate());
  }

 private:
  static uint64_t interval() { return static_cast<uint64_t>(Lomi::Rdtsc::calibrationRate() / 100); }

  bool check_;
  uint64_t start_;
  uint64_t deadline_;
};

}  // namespace MirakCore
