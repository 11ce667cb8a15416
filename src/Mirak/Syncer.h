// Mirak::Syncer: a sweep over a table's slots, as a task of the event loop
// cut into steps by the yield time. A shadow fills its copy by a sync sweep
// (each slot compared with the table) and empties it by a flush sweep.
//
// A sweep visits the slots 0 .. count-1 in order, once each. Run
// synchronously (`async` false) it is done when sync() returns; run
// asynchronously it goes on in later turns of the loop, each turn spending at
// most the yield time (the clock is read every 64 slots), and its end calls
// the client's completion. A new sync() replaces a running sweep (its slots
// are visited again by the new one, which is harmless: a visit compares
// states). While notifying is off, an asynchronous sweep waits: its visits
// call the client's callbacks, which the client has asked not to hear.
//
// Lifetime: the loop's tasks hold a weak token, so a Syncer destroyed with a
// step queued leaves a task that does nothing. Not thread safe.
#pragma once

#include <cstdint>
#include <memory>

namespace Lomi {
class EventLoop;
namespace Platform {
class DebugHandler;
}
}  // namespace Lomi

namespace Mirak {

enum class SyncerMode : int { idle = 0, sync = 1, flush = 2 };

class Syncer {
 public:
  class Client {
   public:
    // One slot of a sync sweep, one of a flush sweep, the end of each.
    virtual void syncSlot(uint32_t slot) = 0;
    virtual void flushSlot(uint32_t slot) = 0;
    virtual void syncDone() = 0;
    virtual void flushDone() = 0;

   protected:
    ~Client() = default;
  };

  // `loop` null: the process default loop, looked up when a step is queued.
  Syncer(Lomi::Platform::DebugHandler& handler, Client& client, Lomi::EventLoop* loop = nullptr);
  Syncer(Syncer const&) = delete;
  Syncer& operator=(Syncer const&) = delete;

  // Sweeps slots 0 .. count-1 in `mode` (sync or flush), now or in steps.
  // The completion is called at the end, also for a count of 0.
  void sync(uint32_t count, SyncerMode mode, bool async);
  // Finishes a running sweep at once, completion included.
  void forceSyncCompletion();
  // Drops a running sweep without its completion.
  void cancel();

  SyncerMode mode() const { return mode_; }
  bool done() const { return mode_ == SyncerMode::idle; }
  uint32_t position() const { return next_; }
  // Sweeps completed.
  uint64_t sweeps() const { return sweeps_; }
  void notifyingIs(bool notifying);
  void yieldTimeIs(double seconds) { yieldTime_ = seconds; }
  double yieldTime() const { return yieldTime_; }

 private:
  void schedule();
  void step(bool toTheEnd);

  Lomi::Platform::DebugHandler& handler_;
  Client& client_;
  Lomi::EventLoop* loop_;
  SyncerMode mode_ = SyncerMode::idle;
  uint32_t next_ = 0;
  uint32_t count_ = 0;
  bool notifying_ = true;
  bool scheduled_ = false;
  double yieldTime_ = 0.05;
  uint64_t sweeps_ = 0;
  // Moves at each sync() and cancel(): a step of an older sweep stops.
  uint64_t epoch_ = 0;
  // A queued step holds a weak copy; the step does nothing once it expired.
  std::shared_ptr<Syncer*> token_;
};

}  // namespace Mirak
