// Lomi::EventLoop: the reactor on which everything asynchronous of the
// library runs: file watchers of the sentries, wake-up sockets, sweeps cut by
// the yield time. The library starts no thread; the agent drives the loop.
//
// Three kinds of work:
//   fd watchers     a callback per descriptor, run while the descriptor is
//                   ready for the events asked (level-triggered: a callback
//                   that leaves data unread is called again on the next pass);
//   timers          one-shot callbacks due after a delay on the monotonic
//                   clock; due timers run in deadline order, equal deadlines
//                   in the order they were set;
//   deferred tasks  callbacks run on the next pass, first in first out.
//
// Driving it:
//   run()                    passes until stop() is called;
//   runOnce(timeout)         one pass: waits up to `timeout` seconds (a
//                            negative timeout waits until something is due),
//                            then runs the deferred tasks queued before the
//                            pass, the callbacks of the ready descriptors,
//                            and the due timers, in that order;
//   runUntil(pred, timeout)  passes until `pred()` holds or the time is up;
//                            tests use it instead of sleeping;
//   fd()                     a descriptor that polls readable whenever a pass
//                            has work (a ready descriptor, a due timer, a
//                            deferred task): an agent with its own poll loop
//                            adds it to its set and calls runOnce(0) when it
//                            is readable.
//
// Contract:
//   - Callbacks may add and remove watchers, timers and tasks, their own
//     included, and may destroy objects whose watchers are in the batch being
//     run: a watcher removed during a pass is not called afterwards in it.
//     Work added during a pass runs on a later pass, never in the same one,
//     so a task that re-queues itself cannot starve the loop.
//   - An exception thrown by a callback leaves runOnce at once and reaches the
//     caller; work not yet run stays queued (ready descriptors are reported
//     again, being level-triggered).
//   - Failures of the system calls throw Lomi::RuntimeException with the
//     call, the descriptor and the system's reason.
//
// Thread safety: none. One thread owns a loop and makes every call on it.
//
// Fork: the kernel objects of a loop (epoll instance, timerfd, eventfd) are
// shared between a parent and a child made by fork, and so are their
// registrations. A loop used in a child that inherited it first lets go of
// everything it had (watchers, timers and deferred tasks, which belong to the
// parent's objects) and makes kernel objects of its own, without a system
// call on the shared ones. Objects inherited with the loop may then be
// destroyed in the child: their removals find nothing and change nothing in
// the parent. They hear nothing in the child; a child that wants to follow a
// table mounts a collection of its own. The const accessors (fdWatchers,
// timers, deferredTasks) still count the parent's work until the child's
// first other call.
//
// A pass without due timers and deferred tasks makes one system call
// (epoll_wait) and allocates nothing.
#pragma once

#include <sys/epoll.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>

namespace Lomi {

class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using Task = std::function<void()>;
  // Receives the epoll event bits that were ready (EPOLLIN, EPOLLHUP, ...).
  using FdCallback = std::function<void(uint32_t events)>;
  using TimerId = uint64_t;

  EventLoop();
  ~EventLoop();
  EventLoop(EventLoop const&) = delete;
  EventLoop& operator=(EventLoop const&) = delete;

  // The process default loop, made on first use; the same object in a
  // forked child, where it starts afresh (see above).
  static EventLoop& defaultLoop();

  // Not const: in a forked child the first call makes the child's own.
  int fd() {
    adoptIfForked();
    return epollFd_;
  }

  // Watches `fd` for `events` (EPOLLIN, EPOLLOUT, ...); replaces the callback
  // and events of a descriptor already watched. The loop does not own `fd`:
  // remove the watcher before closing it.
  void fdWatcherIs(int fd, uint32_t events, FdCallback callback);
  // Stops watching `fd`; nothing happens for a descriptor not watched.
  void fdWatcherDel(int fd);
  bool fdWatched(int fd) const { return watchers_.count(fd) != 0; }
  size_t fdWatchers() const { return watchers_.size(); }

  // Runs `task` once, `delaySeconds` from now (0 or less: on the next pass).
  TimerId timerIs(double delaySeconds, Task task);
  // Cancels a timer; false if it has run or was never set.
  bool timerDel(TimerId id);
  size_t timers() const { return timers_.size(); }

  // Runs `task` on the next pass.
  void deferredTaskIs(Task task);
  size_t deferredTasks() const { return deferred_.size(); }

  // One pass (see the top of the file). Returns the number of callbacks run.
  size_t runOnce(double timeoutSeconds);
  // Passes until stop(); a stop() before run() is forgotten.
  void run();
  // Ends run() after the pass in progress.
  void stop() { stopped_ = true; }
  // Whether `predicate` held before `timeoutSeconds` passed. The predicate is
  // checked before the first pass and after every pass.
  bool runUntil(std::function<bool()> const& predicate, double timeoutSeconds);

 private:
  struct Watcher {
    uint64_t token;
    uint32_t events;
    std::shared_ptr<FdCallback> callback;
  };
  using TimerKey = std::pair<Clock::time_point, TimerId>;

  // In a child that inherited the loop: drop the parent's work and make new
  // kernel objects. One load and a compare when there was no fork.
  void adoptIfForked() {
    if (forkGeneration_ != currentForkGeneration()) adoptAfterFork();
  }
  static uint32_t currentForkGeneration();
  void adoptAfterFork();
  void openKernelObjects();
  void closeKernelObjects();
  void timerArm();
  void wakeSignal();
  void wakeClear();
  size_t runDeferred();
  size_t runTimers();

  int epollFd_ = -1;
  int timerFd_ = -1;
  int wakeFd_ = -1;
  uint32_t forkGeneration_ = 0;
  bool wakeSignalled_ = false;
  bool stopped_ = false;
  // The epoll data of a watcher is its token, never its descriptor: a
  // descriptor removed and watched again in one pass gets a new token, and
  // the stale event of the old watcher is dropped.
  uint64_t nextToken_ = 2;
  std::unordered_map<int, Watcher> watchers_;
  std::unordered_map<uint64_t, int> tokens_;
  TimerId nextTimer_ = 1;
  std::map<TimerKey, Task> timers_;
  std::unordered_map<TimerId, Clock::time_point> timerDeadlines_;
  std::deque<Task> deferred_;
  // The batch being run; kept between passes so that its storage is reused.
  std::deque<Task> batch_;
};

}  // namespace Lomi
