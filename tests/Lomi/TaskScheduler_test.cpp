// Critical tasks: registration handles, runs, and changes made during a run.
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Lomi/Exception.h"
#include "Lomi/TaskScheduler.h"
#include "Lomi/Thrown.h"
#include "Lomi/TraceCapture.h"

namespace {

using Scheduler = Lomi::TaskSchedulerRoot;
using Handle = Scheduler::CriticalTask;

TEST(TaskScheduler, HandleUnregistersOnResetDestructionAndMoveAssignment) {
  Scheduler s;
  std::vector<int> ran;
  Handle a = s.criticalTaskIs("a", [&] { ran.push_back(1); });
  {
    Handle b = s.criticalTaskIs("b", [&] { ran.push_back(2); });
    EXPECT_TRUE(b.registered());
  }
  EXPECT_EQ(s.criticalTasks(), 1u);
  Handle moved = std::move(a);
  EXPECT_FALSE(a.registered());  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(moved.registered());
  s.runCriticalPriorityTasks();
  moved = s.criticalTaskIs("c", [&] { ran.push_back(3); });  // drops "a"
  s.runCriticalPriorityTasks();
  moved.reset();
  moved.reset();
  EXPECT_FALSE(moved.registered());
  s.runCriticalPriorityTasks();
  EXPECT_EQ(ran, (std::vector<int>{1, 3}));
  EXPECT_EQ(s.criticalTasks(), 0u);
  EXPECT_EQ(s.runs(), 2u) << "a run with no task is not counted";
}

TEST(TaskScheduler, ChangesDuringARunFollowTheRules) {
  Scheduler s;
  std::vector<std::string> ran;
  std::optional<Handle> self, later, added;
  self = s.criticalTaskIs("self", [&] {
    ran.push_back("self");
    self->reset();  // unregisters itself while running
    if (!added) added = s.criticalTaskIs("added", [&] { ran.push_back("added"); });
  });
  Handle killer = s.criticalTaskIs("killer", [&] {
    ran.push_back("killer");
    later->reset();  // not yet called in this run
  });
  later = s.criticalTaskIs("later", [&] { ran.push_back("later"); });
  s.runCriticalPriorityTasks();
  EXPECT_EQ(ran, (std::vector<std::string>{"self", "killer"}));
  ran.clear();
  s.runCriticalPriorityTasks();
  EXPECT_EQ(ran, (std::vector<std::string>{"killer", "added"}));
}

TEST(TaskScheduler, RunsDoNotNest) {
  Scheduler s;
  int depth = 0, maxDepth = 0, calls = 0;
  Handle h = s.criticalTaskIs("reentrant", [&] {
    ++calls;
    maxDepth = std::max(maxDepth, ++depth);
    s.runCriticalPriorityTasks();
    --depth;
  });
  s.runCriticalPriorityTasks();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(maxDepth, 1);
}

TEST(TaskScheduler, FailingTaskIsLoggedCountedAndTheRunGoesOn) {
  Scheduler s;
  LomiTest::TraceCapture trace;
  bool second = false;
  Handle a = s.criticalTaskIs("watchdog", [] { throw std::runtime_error("socket gone"); });
  Handle b = s.criticalTaskIs("second", [&] { second = true; });
  s.runCriticalPriorityTasks();
  EXPECT_TRUE(second);
  EXPECT_EQ(s.taskFailures(), 1u);
  ASSERT_EQ(trace.lines.size(), 1u);
  EXPECT_TRUE(trace.lines[0].ends_with(
      "TaskScheduler 0 TaskSchedulerRoot::runCriticalPriorityTasks critical task watchdog "
      "failed: socket gone"))
      << trace.lines[0];
}

TEST(TaskScheduler, RefusesAnEmptyTask) {
  Scheduler s;
  EXPECT_EQ(LomiTest::thrown<Lomi::RuntimeException>(
                [&] { Handle h = s.criticalTaskIs("nothing", Scheduler::Task()); }),
            "critical task nothing has no function to run");
  EXPECT_EQ(s.criticalTasks(), 0u);
}

TEST(TaskScheduler, RegistrationsFromThreadsWhileRunning) {
  Scheduler s;
  std::atomic<int> ran{0};
  std::atomic<bool> stop{false};
  std::thread runner([&] {
    while (!stop.load()) s.runCriticalPriorityTasks();
  });
  std::vector<std::thread> registrars;
  for (int t = 0; t < 2; ++t) {
    registrars.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        Handle h = s.criticalTaskIs("churn", [&] { ran.fetch_add(1); });
      }
    });
  }
  for (auto& t : registrars) t.join();
  stop = true;
  runner.join();
  EXPECT_EQ(s.criticalTasks(), 0u);
  Handle last = s.criticalTaskIs("last", [&] { ran.fetch_add(1000000); });
  int const before = ran.load();
  s.runCriticalPriorityTasks();
  EXPECT_EQ(ran.load() - before, 1000000);
}

}  // namespace
