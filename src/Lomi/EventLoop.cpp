// The epoll reactor: fd watchers, a timerfd armed at the earliest timer, and
// an eventfd that stands for pending deferred tasks, so that the epoll
// descriptor alone tells an outer poll that a pass has work.
#include "Lomi/EventLoop.h"

#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "Lomi/Exception.h"
#include "Lomi/Fork.h"

namespace Lomi {

namespace {

constexpr uint64_t kTimerToken = 0;
constexpr uint64_t kWakeToken = 1;
constexpr int kBatch = 64;

[[noreturn]] void throwSystem(char const* call, int fd, int err) {
  char buf[128];
  char const* reason = ::strerror_r(err, buf, sizeof buf);
  throw RuntimeException("EventLoop: {} on fd {} failed: {} (errno {})", call, fd, reason, err);
}

// Milliseconds for epoll_wait, rounded up so that a timeout never ends a wait
// early; -1 waits without limit.
int waitMs(double seconds) {
  if (seconds < 0) return -1;
  double const ms = std::ceil(seconds * 1000.0);
  return ms > 2147483647.0 ? 2147483647 : static_cast<int>(ms);
}

}  // namespace

EventLoop::EventLoop() : forkGeneration_(currentForkGeneration()) { openKernelObjects(); }

EventLoop::~EventLoop() { closeKernelObjects(); }

uint32_t EventLoop::currentForkGeneration() { return forkGeneration(); }

void EventLoop::openKernelObjects() {
  epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epollFd_ < 0) throwSystem("epoll_create1", -1, errno);
  timerFd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  int err = errno;
  char const* call = timerFd_ < 0 ? "timerfd_create" : "eventfd";
  int fd = -1;
  if (timerFd_ >= 0 && wakeFd_ >= 0) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kTimerToken;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, timerFd_, &ev) == 0) {
      ev.data.u64 = kWakeToken;
      if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &ev) == 0) return;
      call = "epoll_ctl(ADD eventfd)";
      fd = wakeFd_;
    } else {
      call = "epoll_ctl(ADD timerfd)";
      fd = timerFd_;
    }
    err = errno;
  }
  closeKernelObjects();
  throwSystem(call, fd, err);
}

void EventLoop::closeKernelObjects() {
  // Closing a descriptor ends only this process's hold on the object: in a
  // child, the parent's epoll instance and its registrations stay whole.
  for (int* fd : {&timerFd_, &wakeFd_, &epollFd_}) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
  }
}

void EventLoop::adoptAfterFork() {
  // The watchers, timers and tasks are the parent's: their owners live on in
  // the parent. Tokens and timer ids keep counting up, so an inherited
  // object's stale id never names the child's work.
  watchers_.clear();
  tokens_.clear();
  timers_.clear();
  timerDeadlines_.clear();
  deferred_.clear();
  batch_.clear();
  wakeSignalled_ = false;
  stopped_ = false;
  closeKernelObjects();
  forkGeneration_ = currentForkGeneration();
  openKernelObjects();
}

EventLoop& EventLoop::defaultLoop() {
  // Made once and never destroyed: objects with static lifetime may still
  // remove their registrations at exit. A forked child keeps the object and
  // gets fresh kernel objects on its first call that changes anything.
  static EventLoop* const loop = new EventLoop();
  return *loop;
}

void EventLoop::fdWatcherIs(int fd, uint32_t events, FdCallback callback) {
  adoptIfForked();
  auto cb = std::make_shared<FdCallback>(std::move(callback));
  auto it = watchers_.find(fd);
  if (it != watchers_.end()) {
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = it->second.token;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_MOD, fd, &ev) != 0)
      throwSystem("epoll_ctl(MOD)", fd, errno);
    it->second.events = events;
    it->second.callback = std::move(cb);
    return;
  }
  uint64_t const token = nextToken_++;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = token;
  if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) != 0) throwSystem("epoll_ctl(ADD)", fd, errno);
  watchers_.emplace(fd, Watcher{token, events, std::move(cb)});
  tokens_.emplace(token, fd);
}

void EventLoop::fdWatcherDel(int fd) {
  adoptIfForked();
  auto it = watchers_.find(fd);
  if (it == watchers_.end()) return;
  // A descriptor closed before its watcher was removed has left the epoll
  // set by itself (EBADF or ENOENT): nothing is left to undo.
  if (::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr) != 0 && errno != EBADF && errno != ENOENT) {
    throwSystem("epoll_ctl(DEL)", fd, errno);
  }
  tokens_.erase(it->second.token);
  watchers_.erase(it);
}

EventLoop::TimerId EventLoop::timerIs(double delaySeconds, Task task) {
  adoptIfForked();
  auto const delay = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(delaySeconds > 0 ? delaySeconds : 0));
  Clock::time_point const deadline = Clock::now() + delay;
  TimerId const id = nextTimer_++;
  timers_.emplace(TimerKey{deadline, id}, std::move(task));
  timerDeadlines_.emplace(id, deadline);
  if (timers_.begin()->first.second == id) timerArm();
  return id;
}

bool EventLoop::timerDel(TimerId id) {
  adoptIfForked();
  auto it = timerDeadlines_.find(id);
  if (it == timerDeadlines_.end()) return false;
  bool const wasFirst = timers_.begin()->first.second == id;
  timers_.erase(TimerKey{it->second, id});
  timerDeadlines_.erase(it);
  if (wasFirst) timerArm();
  return true;
}

void EventLoop::timerArm() {
  itimerspec deadline{};  // the kernel's timer value type
  if (!timers_.empty()) {
    // steady_clock is CLOCK_MONOTONIC on Linux, so its epoch is the timerfd's.
    auto const ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                        timers_.begin()->first.first.time_since_epoch())
                        .count();
    // An absolute time of 0 would disarm the timer; anything in the past
    // fires at once, which is what a due timer wants.
    int64_t const at = ns > 0 ? ns : 1;
    deadline.it_value.tv_sec = at / 1000000000;
    deadline.it_value.tv_nsec = at % 1000000000;
  }
  if (::timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &deadline, nullptr) != 0) {
    throwSystem("timerfd_settime", timerFd_, errno);
  }
}

void EventLoop::deferredTaskIs(Task task) {
  adoptIfForked();
  deferred_.push_back(std::move(task));
  wakeSignal();
}

void EventLoop::wakeSignal() {
  if (wakeSignalled_) return;
  uint64_t const one = 1;
  if (::write(wakeFd_, &one, sizeof one) != sizeof one)
    throwSystem("write(eventfd)", wakeFd_, errno);
  wakeSignalled_ = true;
}

void EventLoop::wakeClear() {
  if (!wakeSignalled_) return;
  uint64_t v;
  // EAGAIN: already read; the flag is what counts.
  (void)!::read(wakeFd_, &v, sizeof v);
  wakeSignalled_ = false;
}

size_t EventLoop::runDeferred() {
  if (deferred_.empty()) return 0;
  // batch_ is empty here unless a task of the batch runs a pass of its own
  // (a nested runOnce): the swap then hands the rest of the outer batch to
  // deferred_, where it runs on a later pass. Otherwise the swap moves the
  // queue in and hands deferred_ the storage of the last batch.
  batch_.swap(deferred_);
  wakeClear();
  size_t ran = 0;
  while (!batch_.empty()) {
    Task task = std::move(batch_.front());
    batch_.pop_front();
    try {
      task();
    } catch (...) {
      // What was not run goes back in front of anything queued meanwhile.
      while (!batch_.empty()) {
        deferred_.push_front(std::move(batch_.back()));
        batch_.pop_back();
      }
      if (!deferred_.empty()) wakeSignal();
      throw;
    }
    ++ran;
  }
  // The wake-up was cleared above while deferred_ may still hold work: the
  // rest of an outer batch after a nested pass. Without a new signal fd()
  // would not poll readable and an outer poll would sleep its whole timeout
  // beside queued work. A no-op when a task queued meanwhile signalled.
  if (!deferred_.empty()) wakeSignal();
  return ran;
}

size_t EventLoop::runTimers() {
  // The timerfd fired: the earliest deadline has passed. Re-arming it below
  // also clears its readiness, so it is never read.
  Clock::time_point const now = Clock::now();
  // Only timers due at the start run: one set by a callback of this pass has
  // an id from `limit` on and waits for the next pass, even with a delay of 0.
  TimerId const limit = nextTimer_;
  size_t ran = 0;
  try {
    auto it = timers_.begin();
    while (it != timers_.end() && it->first.first <= now) {
      if (it->first.second >= limit) {
        ++it;
        continue;
      }
      auto node = timers_.extract(it);
      timerDeadlines_.erase(node.key().second);
      node.mapped()();
      ++ran;
      // The callback may have added or cancelled timers anywhere.
      it = timers_.begin();
    }
  } catch (...) {
    timerArm();
    throw;
  }
  timerArm();
  return ran;
}

size_t EventLoop::runOnce(double timeoutSeconds) {
  adoptIfForked();
  epoll_event events[kBatch];
  int const timeout = !deferred_.empty() ? 0 : waitMs(timeoutSeconds);
  int n = ::epoll_wait(epollFd_, events, kBatch, timeout);
  if (n < 0) {
    if (errno != EINTR) throwSystem("epoll_wait", epollFd_, errno);
    n = 0;
  }
  size_t ran = runDeferred();
  // The ready watchers' tokens are gathered first, in place: a callback may
  // remove or replace any watcher, and a removed one must not run afterwards
  // in this pass.
  bool timerFired = false;
  int ready = 0;
  for (int i = 0; i < n; ++i) {
    uint64_t const token = events[i].data.u64;
    if (token == kTimerToken) timerFired = true;
    if (token == kTimerToken || token == kWakeToken) continue;
    events[ready++] = events[i];
  }
  for (int i = 0; i < ready; ++i) {
    auto t = tokens_.find(events[i].data.u64);
    if (t == tokens_.end()) continue;
    auto w = watchers_.find(t->second);
    // The callback is held here, so a watcher that removes itself (or whose
    // owner is destroyed) does not destroy the function it is running.
    std::shared_ptr<FdCallback> cb = w->second.callback;
    (*cb)(events[i].events);
    ++ran;
  }
  if (timerFired) ran += runTimers();
  return ran;
}

void EventLoop::run() {
  stopped_ = false;
  while (!stopped_) runOnce(-1);
}

bool EventLoop::runUntil(std::function<bool()> const& predicate, double timeoutSeconds) {
  Clock::time_point const end =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(
                         std::chrono::duration<double>(timeoutSeconds > 0 ? timeoutSeconds : 0));
  for (;;) {
    if (predicate()) return true;
    Clock::time_point const now = Clock::now();
    if (now >= end) return false;
    runOnce(std::chrono::duration<double>(end - now).count());
  }
}

}  // namespace Lomi
