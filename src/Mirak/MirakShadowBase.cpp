// The queue-following half of a shadow; see MirakShadowBase.h.
#include "Mirak/MirakShadowBase.h"

#include "Lomi/EventLoop.h"
#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Parcel/OwnerFile.h"

namespace Mirak {

MirakShadowBase::MirakShadowBase(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath rootPath,
                                 uint32_t shadowFlags, Lomi::EventLoop* loop)
    : handler_(handler),
      rootPath_(std::move(rootPath)),
      syncer_(handler, *this, loop),
      tessel_(rootPath_.path(), handler),
      rusk_(handler, loop ? *loop : Lomi::EventLoop::defaultLoop()),
      shadowFlags_(shadowFlags),
      loop_(loop),
      token_(std::make_shared<MirakShadowBase*>(this)) {
  // The wake handler runs inside the loop's dispatch of the socket, where a
  // walk may run as well as in a task of its own: walking here saves the
  // deferred task's eventfd write and read and a second epoll_wait. The walk
  // is bounded by the yield time as anywhere; a longer backlog goes on in a
  // deferred walk. ReaderRuskSm touches nothing of itself after a handler
  // that disconnected or destroyed it.
  rusk_.wakeHandlerIs([this] { walkOnWake(); });
  rusk_.disconnectHandlerIs([this] {
    FMTRACE(handler_, 1, "MirakShadowBase", "{}: wake-up connection lost", dir());
    handleDisconnect();
  });
}

MirakShadowBase::~MirakShadowBase() {
  // Queued tasks see the token expire and do nothing.
  token_.reset();
  if (rejoinTimer_) loop().timerDel(rejoinTimer_);
  if (damageTimer_) loop().timerDel(damageTimer_);
  rusk_.disconnect();
}

Lomi::EventLoop& MirakShadowBase::loop() const {
  return loop_ ? *loop_ : Lomi::EventLoop::defaultLoop();
}

std::string MirakShadowBase::socketName() const {
  try {
    return Parcel::OwnerFile(handler_, rootPath_, false).tunnetInfo().socketName();
  } catch (Lomi::Exception const& e) {
    FMTRACE(handler_, 1, "MirakShadowBase", "{}: owner file unreadable: {}", dir(), e.msg());
    return {};
  }
}

bool MirakShadowBase::initializeTessel(uint32_t kestor) {
  std::string error;
  if (!tessel_.attach(kestor, error)) {
    FMTRACE(handler_, 0, "MirakShadowBase", "cannot follow the change queue: {}", error);
    return false;
  }
  maybeConnect();
  resync();
  return true;
}

void MirakShadowBase::maybeConnect() {
  if (rusk_.connected()) return;
  std::string error;
  std::string const name = socketName();
  if (name.empty() || !rusk_.connect(name, error)) {
    FMTRACE(handler_, 1, "MirakShadowBase", "{}: no wake-up connection ({}); polling every {} s",
            dir(), name.empty() ? std::string("no writer named in the owner file") : error,
            kPollSeconds);
  }
}

void MirakShadowBase::notQuiesced() {
  tessel_.quiescedReset();
  if (quiescedReported_) {
    quiescedReported_ = false;
    handleQuiesced(false);
  }
}

void MirakShadowBase::resync() {
  // Until the sweep ends and a walk catches up, the copy is not the table's:
  // a quiesced() left over from the last walk before a writer's death would
  // say so while a rejoin's sweep is still finding what the writer changed.
  notQuiesced();
  // The head first, then the count (see the header).
  sweepHead_ = tessel_.head();
  uint32_t const slots = sweepSlots();
  tesselEnabled_ = false;
  resyncs_++;
  FMTRACE(handler_, 1, "MirakShadowBase", "{}: sweep of {} slots from head seq:{}", dir(), slots,
          sweepHead_);
  syncer_.sync(slots, SyncerMode::sync, true);
}

void MirakShadowBase::syncSlot(uint32_t slot) {
  doSlot(slot, Tessel::noSequence, true);
}

void MirakShadowBase::flushSlot(uint32_t slot) {
  doFlushSlot(slot);
}

void MirakShadowBase::syncDone() {
  tessel_.seek(sweepHead_);
  sequence_ = sweepHead_;
  syncComplete();
}

void MirakShadowBase::flushDone() {
  flushComplete();
}

void MirakShadowBase::maybeEnableTessel() {
  // A sweep that ends after the writer's death does not start the walks: the
  // dead writer's queue says nothing new, and a walk would connect to its
  // successor without the sweep that a rejoin makes (rejoin() does both).
  if (!tessel_.attached() || writerLost_) return;
  tesselEnabled_ = true;
  scheduleWalk();
}

void MirakShadowBase::detachTessel() {
  tesselEnabled_ = false;
  writerLost_ = false;
  if (rejoinTimer_) {
    loop().timerDel(rejoinTimer_);
    rejoinTimer_ = 0;
  }
  if (damageTimer_) {
    loop().timerDel(damageTimer_);
    damageTimer_ = 0;
  }
  damageReported_ = false;
  if (syncer_.mode() == SyncerMode::sync) syncer_.cancel();
  tessel_.detach();
  rusk_.disconnect();
}

void MirakShadowBase::writerLostIs() {
  if (writerLost_) return;
  FMTRACE(handler_, 1, "MirakShadowBase", "{}: writer lost; serving the copy as of seq:{}", dir(),
          sequence_);
  writerLost_ = true;
  // A sweep under way goes on: it compares states, and the files stay
  // readable. The walks stop until a writer serves the queue again, and the
  // copy is not caught up with a table whose writer may have changed slots
  // it never told of.
  tesselEnabled_ = false;
  notQuiesced();
  rusk_.disconnect();
  armRejoin();
}

void MirakShadowBase::armRejoin() {
  if (rejoinTimer_ || !writerLost_) return;
  rejoinTimer_ = loop().timerIs(kPollSeconds, [weak = std::weak_ptr<MirakShadowBase*>(token_)] {
    if (auto token = weak.lock()) {
      (*token)->rejoinTimer_ = 0;
      (*token)->rejoin();
    }
  });
}

bool MirakShadowBase::rejoin() {
  if (!writerLost_) return true;
  if (!tessel_.attached()) return false;
  maybeConnect();
  // The order: connected first, then the generation. A writer listens only
  // once its files are validated (adopted or formatted), so a writer that
  // accepts has put its kestor into the headers already.
  if (!rusk_.connected() || !sameTable()) {
    armRejoin();
    return false;
  }
  FMTRACE(handler_, 1, "MirakShadowBase", "{}: a writer serves the table again; sweeping", dir());
  writerLost_ = false;
  rejoins_++;
  resync();
  return true;
}

void MirakShadowBase::queueDamaged(std::string const& message) {
  tesselEnabled_ = false;
  // Reported once until a walk gets through again: a queue that stays
  // damaged fails every walk, and each would leave the marker again.
  bool const report = !damageReported_;
  damageReported_ = true;
  FMTRACE(handler_, report ? 0 : 1, "MirakShadowBase", "{}: change queue damaged: {}; sweeping",
          dir(), message);
  // The queue cannot be followed past the damage, the table can: a sweep
  // brings the copy to the table, and the walks resume from the head it read
  // (a re-find by sequence, past the damaged entry if the head is beyond
  // it). While the damage lasts every walk ends here, so the copy follows the
  // table by sweeps; after the first one they are kPollSeconds apart.
  if (report) {
    resync();
  } else if (!damageTimer_) {
    damageTimer_ = loop().timerIs(kPollSeconds, [weak = std::weak_ptr<MirakShadowBase*>(token_)] {
      if (auto token = weak.lock()) {
        MirakShadowBase& self = **token;
        self.damageTimer_ = 0;
        if (self.tessel_.attached() && !self.writerLost_ && !self.tesselEnabled_ &&
            self.syncer_.mode() != SyncerMode::sync) {
          self.resync();
        }
      }
    });
  }
  // Last: the owner may detach this shadow when it hears of the damage.
  if (report) corruptionDetected(message);
}

void MirakShadowBase::notifyingIs(bool notifying) {
  notifying_ = notifying;
  syncer_.notifyingIs(notifying);
  rusk_.notifyingIs(notifying);
  if (notifying) scheduleWalk();
}

void MirakShadowBase::yieldTimeIs(double const& seconds) {
  yieldTime_ = seconds;
  rusk_.yieldTimeIs(seconds);
  syncer_.yieldTimeIs(seconds);
}

void MirakShadowBase::scheduleWalk(double delay) {
  if (walkScheduled_ || !tesselEnabled_) return;
  walkScheduled_ = true;
  auto task = [weak = std::weak_ptr<MirakShadowBase*>(token_)] {
    if (auto token = weak.lock()) {
      (*token)->walkScheduled_ = false;
      (*token)->walk();
    }
  };
  if (delay > 0) {
    loop().timerIs(delay, std::move(task));
  } else {
    loop().deferredTaskIs(std::move(task));
  }
}

void MirakShadowBase::walkOnWake() {
  if (!tesselEnabled_) return;
  // A walk already queued would find nothing left: it runs, sees the queue
  // caught up and sends nothing (the Sleeping it would send is outstanding).
  walk();
}

void MirakShadowBase::walk() {
  if (!tesselEnabled_ || !notifying_ || !tessel_.attached()) return;
  if (quiescedReported_) {
    quiescedReported_ = false;
    handleQuiesced(false);
  }
  walks_++;
  TesselReader::Walk result;
  try {
    result = tessel_.walk(*this, yieldTime_);
  } catch (Lomi::CorruptionDetectedException const& e) {
    queueDamaged(e.msg());
    return;
  }
  if (result == TesselReader::Walk::caughtUp) damageReported_ = false;
  if (tessel_.lastConsumed() > sequence_) sequence_ = tessel_.lastConsumed();
  switch (result) {
    case TesselReader::Walk::yielded:
      scheduleWalk();
      return;
    case TesselReader::Walk::overrun:
      resync();
      return;
    case TesselReader::Walk::reformatted:
      FMTRACE(handler_, 1, "MirakShadowBase", "{}: the change queue was re-formatted or removed",
              dir());
      tesselEnabled_ = false;
      queueReformatted();
      return;
    case TesselReader::Walk::caughtUp:
      break;
  }
  if (!tessel_.attached() || !tesselEnabled_) return;
  if (!quiescedReported_) {
    quiescedReported_ = true;
    handleQuiesced(true);
  }
  maybeConnect();
  if (rusk_.connected()) {
    rusk_.sleeping(tessel_.lastConsumed());
  } else {
    scheduleWalk(kPollSeconds);
  }
}

}  // namespace Mirak
