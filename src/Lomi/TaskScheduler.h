// Lomi::TaskSchedulerRoot: critical tasks that must keep running while the
// table library does long work on the agent's thread.
//
// A grow or a shrink can hold the thread for much longer than an agent may
// go without, say, answering a watchdog. The agent registers such duties as
// critical tasks; long operations call `runCriticalPriorityTasks()` on the
// root scheduler every 10 ms (see `Rdtsc`), which runs each of them once.
//
// Contract:
// - `criticalTaskIs` returns a handle; the task is registered as long as the
//   handle lives (or until `reset()`). The scheduler must outlive its
//   handles; the root scheduler is never destroyed.
// - A run calls the tasks registered when it starts, in registration order.
//   A task registered during a run waits for the next run; a task
//   unregistered during a run (by itself or by another) is not called after
//   its unregistration returns. A task that calls `runCriticalPriorityTasks`
//   of the same scheduler gets an immediate return: runs do not nest.
// - An exception from a task does not reach the long operation that ran it
//   (that would leave a table half grown): it is logged at level 0 of the
//   "TaskScheduler" trace handler, counted in `taskFailures()`, and the run
//   goes on.
// - Thread safety: registration, unregistration and runs may come from any
//   thread; tasks run on the thread that calls the run, outside any lock.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Lomi {

class TaskSchedulerRoot {
 public:
  using Task = std::function<void()>;

  class CriticalTask {
   public:
    CriticalTask() = default;
    CriticalTask(CriticalTask&& o) noexcept;
    CriticalTask& operator=(CriticalTask&& o) noexcept;
    CriticalTask(CriticalTask const&) = delete;
    CriticalTask& operator=(CriticalTask const&) = delete;
    ~CriticalTask();

    // Unregisters now; nothing if already done.
    void reset();
    bool registered() const { return scheduler_ != nullptr; }

   private:
    friend class TaskSchedulerRoot;
    CriticalTask(TaskSchedulerRoot* scheduler, uint64_t id) : scheduler_(scheduler), id_(id) {}
    TaskSchedulerRoot* scheduler_ = nullptr;
    uint64_t id_ = 0;
  };

  TaskSchedulerRoot();
  ~TaskSchedulerRoot();
  TaskSchedulerRoot(TaskSchedulerRoot const&) = delete;
  TaskSchedulerRoot& operator=(TaskSchedulerRoot const&) = delete;

  // The process's scheduler, the one long operations run.
  static TaskSchedulerRoot& root();

  // Throws Lomi::RuntimeException for an empty task. `name` labels failures.
  [[nodiscard]] CriticalTask criticalTaskIs(std::string name, Task task);
  void runCriticalPriorityTasks();

  size_t criticalTasks() const;
  // Runs that called at least one task.
  uint64_t runs() const;
  uint64_t taskFailures() const;

 private:
  struct Impl;
  void criticalTaskDel(uint64_t id);
  std::unique_ptr<Impl> impl_;
};

}  // namespace Lomi
