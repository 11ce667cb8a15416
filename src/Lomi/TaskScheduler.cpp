// Registry and runs of critical tasks.
#include "Lomi/TaskScheduler.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"

namespace Lomi {

namespace {

struct Entry {
  uint64_t id;
  std::string name;
  TaskSchedulerRoot::Task task;
  // Cleared by unregistration; a run that copied the entry checks it before
  // each call, so an unregistered task is not called again.
  std::atomic<bool> live{true};
};

// The schedulers whose run is on this thread's stack.
thread_local std::vector<TaskSchedulerRoot const*> runningHere;

}  // namespace

struct TaskSchedulerRoot::Impl {
  mutable std::mutex mutex;
  std::vector<std::shared_ptr<Entry>> tasks;  // in registration order
  uint64_t nextId = 1;
  std::atomic<uint64_t> runs{0};
  std::atomic<uint64_t> failures{0};
};

TaskSchedulerRoot::CriticalTask::CriticalTask(CriticalTask&& o) noexcept
    : scheduler_(std::exchange(o.scheduler_, nullptr)), id_(o.id_) {}

TaskSchedulerRoot::CriticalTask& TaskSchedulerRoot::CriticalTask::operator=(
    CriticalTask&& o) noexcept {
  if (this != &o) {
    reset();
    scheduler_ = std::exchange(o.scheduler_, nullptr);
    id_ = o.id_;
  }
  return *this;
}

TaskSchedulerRoot::CriticalTask::~CriticalTask() {
  reset();
}

void TaskSchedulerRoot::CriticalTask::reset() {
  if (TaskSchedulerRoot* s = std::exchange(scheduler_, nullptr)) s->criticalTaskDel(id_);
}

TaskSchedulerRoot::TaskSchedulerRoot() : impl_(std::make_unique<Impl>()) {}

TaskSchedulerRoot::~TaskSchedulerRoot() = default;

TaskSchedulerRoot& TaskSchedulerRoot::root() {
  static TaskSchedulerRoot* r = new TaskSchedulerRoot;  // never destroyed: handles outlive statics
  return *r;
}

TaskSchedulerRoot::CriticalTask TaskSchedulerRoot::criticalTaskIs(std::string name, Task task) {
  if (!task) throw RuntimeException("critical task {} has no function to run", name);
  std::lock_guard lock(impl_->mutex);
  auto e = std::make_shared<Entry>();
  e->id = impl_->nextId++;
  e->name = std::move(name);
  e->task = std::move(task);
  impl_->tasks.push_back(e);
  return CriticalTask(this, e->id);
}

void TaskSchedulerRoot::criticalTaskDel(uint64_t id) {
  std::lock_guard lock(impl_->mutex);
  auto it = std::find_if(impl_->tasks.begin(), impl_->tasks.end(),
                         [&](auto const& e) { return e->id == id; });
  if (it == impl_->tasks.end()) return;
  (*it)->live.store(false, std::memory_order_relaxed);
  impl_->tasks.erase(it);
}

void TaskSchedulerRoot::runCriticalPriorityTasks() {
  if (std::find(runningHere.begin(), runningHere.end(), this) != runningHere.end()) return;
  std::vector<std::shared_ptr<Entry>> batch;
  {
    std::lock_guard lock(impl_->mutex);
    batch = impl_->tasks;
  }
  if (batch.empty()) return;
  runningHere.push_back(this);
  impl_->runs.fetch_add(1, std::memory_order_relaxed);
  for (auto const& e : batch) {
    // Same-thread unregistration is seen here for sure; one racing from
    // another thread may miss this run, as any concurrent unregistration may.
    if (!e->live.load(std::memory_order_relaxed)) continue;
    try {
      e->task();
    } catch (std::exception const& ex) {
      impl_->failures.fetch_add(1, std::memory_order_relaxed);
      Platform::emit(Platform::getDebugHandler("TaskScheduler"), 0, "TaskSchedulerRoot",
                     "runCriticalPriorityTasks",
                     fmt::format("critical task {} failed: {}", e->name, ex.what()));
    } catch (...) {
      impl_->failures.fetch_add(1, std::memory_order_relaxed);
      Platform::emit(Platform::getDebugHandler("TaskScheduler"), 0, "TaskSchedulerRoot",
                     "runCriticalPriorityTasks",
                     fmt::format("critical task {} failed with a non-standard exception", e->name));
    }
  }
  runningHere.pop_back();
}

size_t TaskSchedulerRoot::criticalTasks() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->tasks.size();
}

uint64_t TaskSchedulerRoot::runs() const {
  return impl_->runs.load(std::memory_order_relaxed);
}

uint64_t TaskSchedulerRoot::taskFailures() const {
  return impl_->failures.load(std::memory_order_relaxed);
}

}  // namespace Lomi
