// Mirak::MirakShadowBase: the part of a shadow that knows nothing of keys and
// values: it follows a writer's table from another process. It owns the
// queue reader, the wake-up connection and the sweeper, and drives them on
// the event loop; the derived shadow owns the copy and says, slot by slot,
// what a change means (doSlot).
//
// How a shadow keeps up
// ---------------------
//   1. initializeTessel(kestor): attach the queue, connect the wake-up
//      socket, then resync(): read the queue's head H, sweep every slot with
//      doSlot(slot, noSequence, compare).
//   2. At the end of the sweep: the queue reader continues after H (every
//      change after H is a live entry above H, or the queue says overrun),
//      sequence() = H, and the derived syncComplete() runs; it calls
//      maybeEnableTessel(), which starts the walks.
//   3. A walk hands the live entries to doSlot, in sequence order, within the
//      yield time; a longer backlog continues on a later turn. Caught up, the
//      reader tells the writer "sleeping after S" and waits for one wake-up,
//      whose handler walks at once, in the loop pass that read it.
//      Without a connection it looks again every kPollSeconds.
//   4. A walk that meets an overrun (changes the queue no longer holds for
//      this reader) resyncs: step 1's sweep again, step 2 after it. A queue
//      that was re-formatted or removed goes to queueReformatted() (by
//      default handleDisconnect()): only a new attach with the new kestor
//      helps, and that is the owner's to do.
//   4a. A walk that meets a damaged queue reports it (once, until a walk
//      gets through again) and sweeps, as after an overrun; while the damage
//      lasts, the copy follows the table by a sweep every kPollSeconds.
//   5. The end of the wake-up connection (writer exit, kill, restart) calls
//      handleDisconnect() within the loop turn that sees it.
//   6. A derived shadow that keeps serving its copy without a writer calls
//      writerLostIs(): the walks stop (the dead writer's queue says nothing
//      new), and every kPollSeconds rejoin() looks for a writer that serves
//      the same generation of the table (an adoption). When one accepts the
//      connection, the copy is swept again and the walks resume after the
//      sweep: a writer that died between a slot's store and its notify left
//      a change that no entry names, and only a sweep finds it. A writer of
//      another generation (a re-format) is not joined: the owner detaches
//      this copy and attaches a new one when the new kestor file is written.
//
// The order in step 1 matters: the head is read before the slot count, and
// both before the first slot is read, so that every change the sweep may miss
// has a sequence above the head.
//
// Threads: none; everything runs on the event loop's thread. Lifetime: the
// loop's tasks hold weak tokens, so an object destroyed with work queued
// leaves tasks that do nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Mem/RootPath.h"
#include "Mirak/Syncer.h"
#include "Rusk/ReaderRuskSm.h"
#include "Tessel/BasicSlot.h"
#include "Tessel/Sequence.h"
#include "Tessel/TesselReader.h"

namespace Lomi {
class EventLoop;
namespace Platform {
class DebugHandler;
}
}  // namespace Lomi

namespace Mirak {

// Bits of shadowFlags.
inline constexpr uint32_t shadowFlagKeyOnly = 1u << 0;
inline constexpr uint32_t shadowFlagResume = 1u << 1;
inline constexpr uint32_t shadowFlagNotifyOnFlush = 1u << 2;

class MirakShadowBase : private Syncer::Client, private Tessel::TesselReader<>::Client {
 public:
  using TesselReader = Tessel::TesselReader<Tessel::BasicSlot>;

  // Without a wake-up connection, a caught-up reader looks again this often.
  static constexpr double kPollSeconds = 0.1;

  // `rootPath` names the table's directory. `loop` null: the process
  // default loop.
  MirakShadowBase(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath rootPath,
                  uint32_t shadowFlags, Lomi::EventLoop* loop = nullptr);
  MirakShadowBase(MirakShadowBase const&) = delete;
  MirakShadowBase& operator=(MirakShadowBase const&) = delete;
  virtual ~MirakShadowBase();

  // What the derived shadow does with a slot. `seq` is noSequence in a sweep.
  // True: taken in; false: rejected because the queue entry no longer counts
  // (see TesselReader).
  bool doSlot(Tessel::BasicSlot slot, Tessel::Sequence seq, bool compare) override = 0;
  // A slot that a queue entry a few places ahead names: a derived shadow may
  // start the loads its doSlot will make. A hint only.
  void prefetch(Tessel::BasicSlot) override {}
  virtual void doFlushSlot(unsigned slot) = 0;
  // The end of a sync sweep: sequence() holds the sweep's head already.
  virtual void syncComplete() = 0;
  virtual void flushComplete() = 0;
  virtual void handleDisconnect() = 0;
  virtual void handleQuiesced(bool quiesced) = 0;
  virtual void corruptionDetected(std::string const& message) = 0;
  // Slots a sweep visits: the shared table's capacity now.
  virtual uint32_t sweepSlots() const = 0;
  // The queue was re-formatted or removed under the reader.
  virtual void queueReformatted() { handleDisconnect(); }

  // Steps 1 of the header: false if the queue cannot be attached (traced at
  // level 0 with the reason). A wake-up socket that cannot be reached is no
  // failure: the reader polls, and maybeConnect() tries again.
  bool initializeTessel(uint32_t kestor);
  // Connects the wake-up socket again if it is not connected.
  void maybeConnect();
  // A full sweep, then the queue from the head read before it.
  virtual void resync();
  // Lets the queue reader run (called at the end of each sync sweep).
  virtual void maybeEnableTessel();
  // Whether changes come from the queue now (no sweep pending).
  virtual bool syncFromTessel() const { return tesselEnabled_; }
  // Lets go of the queue and the connection; a running sync sweep stops (a
  // flush sweep goes on: it works on the copy alone). A pending rejoin ends.
  void detachTessel();

  // Step 6 of the header. writerLostIs(): the writer is gone; idempotent.
  // rejoin(): if the writer was lost, connects to the writer the owner file
  // names now and, if it serves the same table (sameTable()), sweeps again;
  // else looks again in kPollSeconds. True when no writer is lost (any more).
  void writerLostIs();
  bool rejoin();
  bool writerLost() const { return writerLost_; }
  // Whether the table at the path is still the generation this shadow
  // copies; a derived shadow compares its reader's kestor with the files'.
  virtual bool sameTable() const { return true; }
  uint64_t rejoins() const { return rejoins_; }

  void notifyingIs(bool notifying);
  void yieldTimeIs(double const& seconds);
  double yieldTime() const { return yieldTime_; }

  uint32_t shadowFlags() const { return shadowFlags_; }
  Tessel::Sequence sequence() const { return sequence_; }
  bool synced() const { return synced_; }
  bool notifying() const { return notifying_; }
  std::string const& dir() const { return rootPath_.path(); }
  Mem::NaoRootPath const& rootPathOfTable() const { return rootPath_; }
  Syncer& syncer() { return syncer_; }
  Syncer const& syncer() const { return syncer_; }
  TesselReader& tesselReader() { return tessel_; }
  TesselReader const& tesselReader() const { return tessel_; }
  Rusk::ReaderRuskSm& ruskSm() { return rusk_; }
  Rusk::ReaderRuskSm const& ruskSm() const { return rusk_; }
  // Walks run, sweeps started by resync (the first included).
  uint64_t walks() const { return walks_; }
  uint64_t resyncs() const { return resyncs_; }

 protected:
  Lomi::Platform::DebugHandler& handler_;
  void syncedIs(bool synced) { synced_ = synced; }

 private:
  // Syncer::Client
  void syncSlot(uint32_t slot) override;
  void flushSlot(uint32_t slot) override;
  void syncDone() override;
  void flushDone() override;

  Lomi::EventLoop& loop() const;
  // A walk met a damaged queue: reported (once until a walk gets through),
  // then the copy is swept from the table.
  void queueDamaged(std::string const& message);
  // The copy is no longer known to be caught up: quiesced() false, and the
  // owner told if it had heard "quiesced".
  void notQuiesced();
  void scheduleWalk(double delay = 0);
  void walk();
  // The wake handler: walks at once, in the loop pass that read the Wake.
  void walkOnWake();
  std::string socketName() const;
  void armRejoin();

  Mem::NaoRootPath rootPath_;
  Syncer syncer_;
  TesselReader tessel_;
  Rusk::ReaderRuskSm rusk_;
  uint32_t shadowFlags_;
  bool notifying_ = true;
  Tessel::Sequence sequence_ = 0;
  bool synced_ = false;

  Lomi::EventLoop* loop_;
  double yieldTime_ = 0.05;
  bool tesselEnabled_ = false;
  bool walkScheduled_ = false;
  bool quiescedReported_ = false;
  Tessel::Sequence sweepHead_ = 0;
  uint64_t walks_ = 0;
  uint64_t resyncs_ = 0;
  bool writerLost_ = false;
  uint64_t rejoinTimer_ = 0;
  uint64_t rejoins_ = 0;
  bool damageReported_ = false;
  uint64_t damageTimer_ = 0;
  std::shared_ptr<MirakShadowBase*> token_;
};

}  // namespace Mirak
