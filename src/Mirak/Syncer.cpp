// The sweeper; see Syncer.h.
#include "Mirak/Syncer.h"

#include <chrono>

#include "Lomi/EventLoop.h"
#include "Lomi/Trace.h"

namespace Mirak {

Syncer::Syncer(Lomi::Platform::DebugHandler& handler, Client& client, Lomi::EventLoop* loop)
    : handler_(handler), client_(client), loop_(loop), token_(std::make_shared<Syncer*>(this)) {}

void Syncer::sync(uint32_t count, SyncerMode mode, bool async) {
  FMTRACE(handler_, 2, "Syncer", "{} sweep of {} slots{}", mode == SyncerMode::flush ? "flush" : "sync",
          count, async ? ", in steps" : "");
  mode_ = mode == SyncerMode::flush ? SyncerMode::flush : SyncerMode::sync;
  epoch_++;
  next_ = 0;
  count_ = count;
  if (async) {
    schedule();
  } else {
    step(true);
  }
}

void Syncer::forceSyncCompletion() {
  if (mode_ != SyncerMode::idle) step(true);
}

void Syncer::cancel() {
  mode_ = SyncerMode::idle;
  epoch_++;
  next_ = count_ = 0;
}

void Syncer::notifyingIs(bool notifying) {
  notifying_ = notifying;
  if (notifying_ && mode_ != SyncerMode::idle) schedule();
}

void Syncer::schedule() {
  if (scheduled_) return;
  scheduled_ = true;
  Lomi::EventLoop& loop = loop_ ? *loop_ : Lomi::EventLoop::defaultLoop();
  loop.deferredTaskIs([weak = std::weak_ptr<Syncer*>(token_)] {
    auto token = weak.lock();
    if (!token) return;
    Syncer& self = **token;
    self.scheduled_ = false;
    if (self.mode_ == SyncerMode::idle || !self.notifying_) return;
    self.step(false);
  });
}

void Syncer::step(bool toTheEnd) {
  using Clock = std::chrono::steady_clock;
  auto const deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                           std::chrono::duration<double>(yieldTime_));
  SyncerMode const mode = mode_;
  // A client callback may start a new sweep or cancel this one: each visit
  // re-checks that the sweep it belongs to still runs.
  uint64_t const epoch = epoch_;
  while (next_ < count_) {
    uint32_t const slot = next_++;
    if (mode == SyncerMode::flush) {
      client_.flushSlot(slot);
    } else {
      client_.syncSlot(slot);
    }
    if (epoch_ != epoch) return;
    if (!toTheEnd && next_ % 64 == 0 && Clock::now() >= deadline) {
      FMTRACE(handler_, 8, "Syncer", "yields at slot:{} of {}", next_, count_);
      schedule();
      return;
    }
  }
  mode_ = SyncerMode::idle;
  sweeps_++;
  FMTRACE(handler_, 2, "Syncer", "{} sweep of {} slots complete",
          mode == SyncerMode::flush ? "flush" : "sync", count_);
  if (mode == SyncerMode::flush) {
    client_.flushDone();
  } else {
    client_.syncDone();
  }
}

}  // namespace Mirak
