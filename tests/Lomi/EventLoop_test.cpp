// Tests of Lomi::EventLoop: fd watchers, timer order, deferred tasks,
// runUntil's timeout, fd() in an outer poll, and loops inherited across fork.
#include "Lomi/EventLoop.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Lomi::EventLoop;

class Pipe {
 public:
  Pipe() { EXPECT_EQ(::pipe(fds_), 0); }
  ~Pipe() {
    ::close(fds_[0]);
    ::close(fds_[1]);
  }
  int in() const { return fds_[0]; }
  void put(char c = 'x') const { ASSERT_EQ(::write(fds_[1], &c, 1), 1); }
  char take() const {
    char c = 0;
    EXPECT_EQ(::read(fds_[0], &c, 1), 1);
    return c;
  }

 private:
  int fds_[2];
};

bool pollReadable(int fd, int timeoutMs) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, timeoutMs) == 1 && (p.revents & POLLIN);
}

TEST(EventLoop, FdWatcherRunsWhileReadableAndNotAfterRemoval) {
  EventLoop loop;
  Pipe p;
  std::vector<uint32_t> seen;
  // A replaced watcher keeps one registration and is never called.
  loop.fdWatcherIs(p.in(), EPOLLIN, [](uint32_t) { ADD_FAILURE() << "replaced watcher ran"; });
  loop.fdWatcherIs(p.in(), EPOLLIN, [&](uint32_t ev) { seen.push_back(ev); });
  EXPECT_TRUE(loop.fdWatched(p.in()));
  EXPECT_EQ(loop.fdWatchers(), 1u);
  EXPECT_EQ(loop.runOnce(0), 0u);
  p.put();
  EXPECT_EQ(loop.runOnce(1), 1u);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_TRUE(seen[0] & EPOLLIN);
  // Level-triggered: unread data is reported again.
  EXPECT_EQ(loop.runOnce(0), 1u);
  EXPECT_EQ(p.take(), 'x');
  EXPECT_EQ(loop.runOnce(0), 0u);
  p.put();
  loop.fdWatcherDel(p.in());
  loop.fdWatcherDel(p.in());  // a second removal is harmless
  EXPECT_EQ(loop.runOnce(0), 0u);
  EXPECT_EQ(seen.size(), 2u);
  EXPECT_EQ(loop.fdWatchers(), 0u);
}

TEST(EventLoop, AWatcherRemovedByAnotherInTheSameBatchIsNotCalled) {
  EventLoop loop;
  Pipe a, b;
  std::vector<char> calls;
  // Both are ready in one pass; whichever runs first removes the other.
  loop.fdWatcherIs(a.in(), EPOLLIN, [&](uint32_t) {
    calls.push_back(a.take());
    loop.fdWatcherDel(b.in());
  });
  loop.fdWatcherIs(b.in(), EPOLLIN, [&](uint32_t) {
    calls.push_back(b.take());
    loop.fdWatcherDel(a.in());
  });
  a.put('a');
  b.put('b');
  // Both descriptors are ready before the pass begins.
  ASSERT_TRUE(pollReadable(a.in(), 0));
  ASSERT_TRUE(pollReadable(b.in(), 0));
  EXPECT_EQ(loop.runOnce(1), 1u);
  EXPECT_EQ(loop.runOnce(0), 0u);
  EXPECT_EQ(calls.size(), 1u);
  EXPECT_EQ(loop.fdWatchers(), 1u);
}

TEST(EventLoop, AWatcherMayRemoveItselfAndDestroyItsCaptures) {
  EventLoop loop;
  Pipe p;
  auto token = std::make_shared<int>(7);
  std::weak_ptr<int> weak = token;
  int value = 0;
  loop.fdWatcherIs(p.in(), EPOLLIN, [&, token](uint32_t) {
    loop.fdWatcherDel(p.in());
    // The capture is still alive while the callback runs.
    value = *token;
  });
  token.reset();
  p.put();
  EXPECT_EQ(loop.runOnce(1), 1u);
  EXPECT_EQ(value, 7);
  EXPECT_TRUE(weak.expired());
}

TEST(EventLoop, TimersRunInDeadlineOrderAndNeverEarly) {
  EventLoop loop;
  std::vector<std::string> order;
  auto const start = EventLoop::Clock::now();
  std::vector<double> ranAfter;
  auto add = [&](double delay, std::string name) {
    loop.timerIs(delay, [&, delay, name] {
      order.push_back(name);
      double const elapsed = std::chrono::duration<double>(EventLoop::Clock::now() - start).count();
      ranAfter.push_back(elapsed - std::max(delay, 0.0));
    });
  };
  add(0.03, "c");
  add(0.01, "a");
  add(0.02, "b");
  // Negative and zero delays are all "due now" and keep the order they were
  // set in.
  add(0.0, "now");
  add(-1.0, "now2");
  add(0.0, "now3");
  EXPECT_EQ(loop.timers(), 6u);
  EXPECT_TRUE(loop.runUntil([&] { return order.size() == 6; }, 10));
  EXPECT_EQ(order, (std::vector<std::string>{"now", "now2", "now3", "a", "b", "c"}));
  for (double late : ranAfter) EXPECT_GE(late, 0.0);
  EXPECT_EQ(loop.timers(), 0u);
}

TEST(EventLoop, ACancelledTimerDoesNotRun) {
  EventLoop loop;
  bool ranCancelled = false, ranOther = false;
  EventLoop::TimerId id = loop.timerIs(0.005, [&] { ranCancelled = true; });
  loop.timerIs(0.02, [&] { ranOther = true; });
  EXPECT_TRUE(loop.timerDel(id));
  EXPECT_FALSE(loop.timerDel(id));
  EXPECT_TRUE(loop.runUntil([&] { return ranOther; }, 5));
  EXPECT_FALSE(ranCancelled);
}

TEST(EventLoop, ATimerSetByATimerWaitsForTheNextPass) {
  EventLoop loop;
  int runs = 0;
  std::function<void()> again = [&] {
    ++runs;
    loop.timerIs(0, again);
  };
  loop.timerIs(0, again);
  EXPECT_TRUE(loop.runUntil([&] { return runs >= 1; }, 5));
  int const after = runs;
  EXPECT_EQ(loop.runOnce(0), 1u);
  EXPECT_EQ(runs, after + 1);
}

TEST(EventLoop, DeferredTasksRunFirstInFirstOutAndLaterOnesOnTheNextPass) {
  EventLoop loop;
  std::vector<int> order;
  loop.deferredTaskIs([&] {
    order.push_back(1);
    loop.deferredTaskIs([&] { order.push_back(3); });
  });
  loop.deferredTaskIs([&] { order.push_back(2); });
  EXPECT_EQ(loop.deferredTasks(), 2u);
  // Pending tasks make the pass return at once, whatever the timeout.
  EXPECT_EQ(loop.runOnce(60), 2u);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_EQ(loop.runOnce(60), 1u);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(loop.runOnce(0), 0u);
}

TEST(EventLoop, AThrowingTaskReachesTheCallerAndKeepsTheRestQueued) {
  EventLoop loop;
  std::vector<int> order;
  loop.deferredTaskIs([&] { order.push_back(1); });
  loop.deferredTaskIs([] { throw std::runtime_error("task failed"); });
  loop.deferredTaskIs([&] { order.push_back(3); });
  EXPECT_THROW(loop.runOnce(0), std::runtime_error);
  EXPECT_EQ(order, (std::vector<int>{1}));
  EXPECT_EQ(loop.deferredTasks(), 1u);
  EXPECT_TRUE(pollReadable(loop.fd(), 0));
  EXPECT_EQ(loop.runOnce(0), 1u);
  EXPECT_EQ(order, (std::vector<int>{1, 3}));
}

// A task that runs a pass of its own takes the rest of the outer batch out
// of it; that rest is still work, so fd() must poll readable and an outer
// wait on it must end at once, not after its timeout.
TEST(EventLoop, ANestedPassLeavesTheRestOfTheBatchQueuedAndFdReadable) {
  EventLoop loop;
  std::vector<int> order;
  loop.deferredTaskIs([&] {
    order.push_back(1);
    loop.deferredTaskIs([&] { order.push_back(2); });
    loop.runOnce(0);
  });
  loop.deferredTaskIs([&] { order.push_back(3); });
  loop.runOnce(0);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_EQ(loop.deferredTasks(), 1u);
  auto const start = std::chrono::steady_clock::now();
  EXPECT_TRUE(pollReadable(loop.fd(), 2000));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  EXPECT_EQ(loop.runOnce(0), 1u);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_FALSE(pollReadable(loop.fd(), 0));
}

TEST(EventLoop, RunUntilStopsAtTheTimeoutOrWhenThePredicateHolds) {
  EventLoop loop;
  int checks = 0;
  EXPECT_FALSE(loop.runUntil(
      [&] {
        ++checks;
        return false;
      },
      0.02));
  EXPECT_GE(checks, 2);
  checks = 0;
  EXPECT_TRUE(loop.runUntil(
      [&] {
        ++checks;
        return true;
      },
      0));
  EXPECT_EQ(checks, 1);
}

// However the predicate comes true inside a pass (a watcher's callback after a
// long wait, a task or timer it queued, a task of a nested pass), runUntil
// sees it after that pass, never after its timeout.
TEST(EventLoop, RunUntilReturnsAfterThePassThatMadeThePredicateTrue) {
  struct Case {
    char const* name;
    std::function<void(EventLoop&, Pipe&, bool&)> arm;
  };
  Case const cases[] = {
      {"fd callback",
       [](EventLoop& l, Pipe& p, bool& done) {
         l.fdWatcherIs(p.in(), EPOLLIN, [&p, &done](uint32_t) { done = p.take() != 0; });
       }},
      {"task queued by an fd callback",
       [](EventLoop& l, Pipe& p, bool& done) {
         l.fdWatcherIs(p.in(), EPOLLIN, [&](uint32_t) {
           p.take();
           l.deferredTaskIs([&done] { done = true; });
         });
       }},
      {"timer of 0 set by an fd callback",
       [](EventLoop& l, Pipe& p, bool& done) {
         l.fdWatcherIs(p.in(), EPOLLIN, [&](uint32_t) {
           p.take();
           l.timerIs(0, [&done] { done = true; });
         });
       }},
      {"task left over by a nested pass",
       [](EventLoop& l, Pipe& p, bool& done) {
         l.fdWatcherIs(p.in(), EPOLLIN, [&](uint32_t) {
           p.take();
           l.deferredTaskIs([&] {
             l.deferredTaskIs([] {});
             l.runOnce(0);
           });
           l.deferredTaskIs([&done] { done = true; });
         });
       }},
  };
  for (Case const& c : cases) {
    EventLoop loop;
    Pipe pipe;
    bool done = false;
    c.arm(loop, pipe, done);
    // The byte comes from the loop's own timer; the passes wait up to 5 s.
    loop.timerIs(0.02, [&pipe] { pipe.put(); });
    auto const start = std::chrono::steady_clock::now();
    EXPECT_TRUE(loop.runUntil([&] { return done; }, 5)) << c.name;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << c.name;
    loop.fdWatcherDel(pipe.in());
  }
}

TEST(EventLoop, RunEndsAfterStop) {
  EventLoop loop;
  int passes = 0;
  std::function<void()> tick = [&] {
    if (++passes == 3) {
      loop.stop();
      return;
    }
    loop.deferredTaskIs(tick);
  };
  loop.deferredTaskIs(tick);
  loop.run();
  EXPECT_EQ(passes, 3);
}

TEST(EventLoop, FdIsReadableInAnOuterPollExactlyWhenAPassHasWork) {
  EventLoop loop;
  EXPECT_FALSE(pollReadable(loop.fd(), 0));

  loop.deferredTaskIs([] {});
  EXPECT_TRUE(pollReadable(loop.fd(), 0));
  EXPECT_EQ(loop.runOnce(0), 1u);
  EXPECT_FALSE(pollReadable(loop.fd(), 0));

  bool fired = false;
  loop.timerIs(0.01, [&] { fired = true; });
  EXPECT_FALSE(pollReadable(loop.fd(), 0));
  // The outer loop sleeps in its own poll until the timer is due.
  EXPECT_TRUE(pollReadable(loop.fd(), 10000));
  EXPECT_EQ(loop.runOnce(0), 1u);
  EXPECT_TRUE(fired);
  EXPECT_FALSE(pollReadable(loop.fd(), 0));

  Pipe p;
  int reads = 0;
  loop.fdWatcherIs(p.in(), EPOLLIN, [&](uint32_t) {
    p.take();
    ++reads;
  });
  EXPECT_FALSE(pollReadable(loop.fd(), 0));
  p.put();
  EXPECT_TRUE(pollReadable(loop.fd(), 10000));
  EXPECT_EQ(loop.runOnce(0), 1u);
  EXPECT_EQ(reads, 1);
  EXPECT_FALSE(pollReadable(loop.fd(), 0));
}

// A child that inherited a loop, whether the default one or its own, tears
// down what it inherited and then uses the loop: the parent's watcher,
// timer and task are still its own and run in the parent alone.
class InheritedLoop : public ::testing::TestWithParam<bool> {};

TEST_P(InheritedLoop, AChildsTeardownAndUseLeaveTheParentsWorkWhole) {
  EventLoop own;
  EventLoop& loop = GetParam() ? EventLoop::defaultLoop() : own;
  Pipe p;
  int reads = 0;
  bool timerRan = false;
  bool taskRan = false;
  loop.fdWatcherIs(p.in(), EPOLLIN, [&](uint32_t) {
    p.take();
    ++reads;
  });
  EventLoop::TimerId const timer = loop.timerIs(0.05, [&] { timerRan = true; });
  loop.deferredTaskIs([&] { taskRan = true; });
  int const parentFd = loop.fd();
  pid_t const pid = ::fork();
  if (pid == 0) {
    // What an inherited object's destructor does, then work of the child's
    // own: none of it may reach the parent's epoll set or timerfd.
    loop.fdWatcherDel(p.in());
    bool ok = !loop.timerDel(timer) && loop.fdWatchers() == 0 && loop.timers() == 0 &&
              loop.deferredTasks() == 0;
    bool mine = false;
    loop.timerIs(0, [&] { mine = true; });
    ok = ok && loop.runUntil([&] { return mine; }, 5) && !taskRan && !timerRan && reads == 0;
    ok = ok && &EventLoop::defaultLoop() == &EventLoop::defaultLoop();
    ::_exit(ok ? 0 : 1);
  }
  ASSERT_GT(pid, 0);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  p.put();
  EXPECT_TRUE(loop.runUntil([&] { return reads == 1 && timerRan && taskRan; }, 5))
      << "reads " << reads << " timer " << timerRan << " task " << taskRan;
  EXPECT_EQ(loop.fd(), parentFd);
  loop.fdWatcherDel(p.in());
}

INSTANTIATE_TEST_SUITE_P(DefaultOrOwn, InheritedLoop, ::testing::Bool());

}  // namespace
