// Mirak::MirakShadow<Ops>: the back end of a collection mounted as shadow or
// keyshadow. It gives this process a private copy of a table that another
// process writes, and tells the client of each change.
//
// What it is made of:
//   - MirakShadowBase: the queue reader, the wake-up connection and the
//     sweeper, which decide when a slot is looked at again;
//   - a MirakReader on the shared table (its counters record is the shadow's
//     statistics);
//   - the copy: ShadowStore<ValueShadowSlot> for shadow (whole rows, reads
//     touch private memory only), KeyShadowStore for keyshadow (keys only,
//     values read from the table), chosen by shadowFlagKeyOnly;
//   - the front object (`owner_`), whose Mem::Notify it calls and which it
//     asks for a placeholder when a flush ends.
//
// Mount status as reported:
//   0  not initialised and not flushing
//   1  initialised, the first sweep still running
//   2  initialised and synchronised once; it stays 2 while the writer is
//      gone (connected() says that) and through later sweeps
//   3  flushing after a detach; wins over the others
//
// Life of a mount:
//   initialize      reader, store, queue; the first sweep starts. False
//                   (nothing kept but the reader's retry) if the files are
//                   not ready; again on an initialised shadow: rejoins a
//                   writer it lost, or retries the wake-up connection.
//   syncComplete    end of each sweep. The first one makes the shadow
//                   synchronised, puts an asynchronous mount's deferred
//                   callbacks live, and tells the client (mountStatusFn,
//                   then quiescedFn).
//   writer gone     the wake-up connection ends: the copy keeps answering as
//                   it was; the front object's sentry waits for a writer. A
//                   writer that adopts the same files is rejoined and the
//                   copy swept again (changes it missed are reported like any
//                   other); one that re-formats makes the sentry detach this
//                   shadow and attach a new one.
//   detach(forced)  queue and reader let go first, then a flush sweep over
//                   the copy alone (keyDelFn per row when the mount asked for
//                   shadowFlagNotifyOnFlush); forced, it is done on return,
//                   else it runs in steps and flushComplete puts the
//                   front object's placeholder in.
//
// A shadow never writes: write, remove and the direct operations throw
// Lomi::NoPermissionException (MirakInterface).
//
// Thread safety: none. Everything runs on the owner's event thread; client
// callbacks run inside doSlot, doFlushSlot, syncComplete and flushComplete
// and may call back into this object (lookups; see ShadowStore.h).
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/CollectionDescriptor.h"
#include "Mem/RootPath.h"
#include "Mem/Sentry.h"
#include "Mirak/Counters.h"
#include "Mirak/IterHint.h"
#include "Mirak/MapDescriptor.h"
#include "Mirak/MirakInterface.h"
#include "Mirak/MirakReader.h"
#include "Mirak/MirakShadowBase.h"
#include "Mirak/ShadowStore.h"
#include "Parcel/KestorFile.h"

namespace Mirak {

template <TablePolicy OpsT>
class MirakMap;

template <TablePolicy OpsT>
class MirakShadow : public MirakShadowBase, public MirakInterface<OpsT> {
 public:
  using Ops = OpsT;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;
  using Owner = MirakMap<Ops>;
  using Store = ShadowStoreBase<Key, Value>;

  // Touches no file. `owner` outlives this object (it owns it, directly or
  // through a placeholder). `shadowFlags`: the bits of MirakShadowBase.h.
  MirakShadow(Lomi::Platform::DebugHandler& handler, std::string const& name, Ops const& ops,
              Owner* owner, uint32_t shadowFlags, Lomi::EventLoop* loop = nullptr)
      : MirakShadowBase(handler, Mem::NaoRootPath(handler, name, false), shadowFlags, loop),
        reader_(handler, name, ops),
        owner_(owner) {}
  // Deletes the copy, then the reader lets go of the files. Detaches nothing
  // else: a client that wants to hear the rows go detaches first.
  ~MirakShadow() override { store_.reset(); }

  // --- lifecycle ---------------------------------------------------------
  bool initialize(std::string const& event) override;
  void detach(bool forced) override;

  // --- MirakShadowBase ---------------------------------------------------
  bool doSlot(Tessel::BasicSlot slot, Tessel::Sequence seq, bool compare) override {
    if (!store_) return true;
    bool const used = store_->doSlot(slot, seq, compare);
    if (!used) FMTRACE(this->handler_, 8, "MirakShadow", "slot:{} seq:{} rejected", slot, seq);
    return used;
  }
  void doFlushSlot(unsigned slot) override {
    if (store_) store_->doFlushSlot(slot);
  }
  void prefetch(Tessel::BasicSlot slot) override {
    if (store_) store_->prefetch(slot);
  }
  void syncComplete() override;
  void flushComplete() override;
  void handleDisconnect() override;
  void handleQuiesced(bool quiesced) override { owner_->notify().quiescedFn(quiesced); }
  void corruptionDetected(std::string const& message) override {
    if (flushing_) return;
    owner_->doCorruptionDetected(message);
  }
  uint32_t sweepSlots() const override {
    // Local slots beyond a shrunk table are visited too: their rows went.
    reader_.resize();
    return std::max(reader_.capacity(), store_ ? store_->numSlots() : 0u);
  }
  bool sameTable() const override {
    if (reader_.reformatted()) return false;
    return Parcel::KestorFile(this->handler_, reader_.rootPath(), false).read() ==
           reader_.kestorId();
  }

  // --- data operations: the copy ------------------------------------------
  Value const* lookup(Key const& key, bool& found, void* buffer) const override {
    if (!store_) return absent(found, buffer);
    return store_->lookup(key, found, buffer);
  }
  Value const* directLookup(Key const& key, bool& found, void* buffer) const override {
    if (!store_) return absent(found, buffer);
    return store_->directLookup(key, found, buffer);
  }
  bool first(Value& value, IterHint& hint) const override {
    if (!store_) return end(value);
    return store_->first(0, value, hint);
  }
  bool next(Key const& key, Value& value, IterHint& hint) const override {
    if (!store_) return end(value);
    return store_->next(key, value, hint);
  }
  bool validateVersionAnchor() const override {
    if (!store_) throw Mem::VersionMismatchException();
    return store_->validateVersionAnchor();
  }
  Mem::CacheVersionAnchor getCacheVersionAnchor() const override {
    return store_ ? store_->getCacheVersionAnchor() : Mem::CacheVersionAnchor();
  }

  // --- accessors ---------------------------------------------------------
  uint32_t members() const override { return uint32_t(reader_.counters().members); }
  uint32_t buckets() const override { return reader_.buckets(); }
  uint32_t minSize() const override { return 0; }
  uint32_t maxSize() const override { return reader_.maxSize(); }
  uint32_t capacity() const override { return reader_.capacity(); }
  // Slots of the local array (the table's capacity when last grown).
  unsigned localCapacity() const { return store_ ? store_->numSlots() : 0; }
  // Follows the writer's growth and shrink now; true if anything was remapped.
  bool resize() const { return reader_.resize(); }
  bool runtime() const { return this->initialized(); }
  MirakType type() const override { return MirakType::shadow; }
  bool quiesced() const override { return this->tesselReader().quiesced(); }
  bool connected() const override { return this->ruskSm().connected(); }
  // The queue position taken in: the last change applied, or past it when the
  // entries after it changed nothing in the copy (a row whose move the copy
  // had followed already). A client waiting for "caught up to the writer's
  // sequence S" waits for this to reach S.
  Sequence sequence() const override {
    return std::max<Sequence>(reader_.counters().sequence, MirakShadowBase::sequence());
  }
  Reader::Counters readerCounters() const override;
  Mem::NaoRootPath rootPath() const override { return reader_.rootPath(); }
  std::string mirakName() const override { return reader_.rootPath().dirName(); }
  Mem::MountStatus mountStatus() const override;
  Parcel::KestorId kestorId() const override { return reader_.kestorId(); }
  void notifyingIs(bool notifying) override {
    FMTRACE(this->handler_, 5, "MirakShadow", "notifying:{}", notifying);
    MirakShadowBase::notifyingIs(notifying);
  }
  void yieldTimeIs(double const& seconds) override { MirakShadowBase::yieldTimeIs(seconds); }
  std::string dumpHeaders() const {
    return fmt::format("change queue of {}: seq:{} lastConsumed:{}\n{}", this->dir(),
                       this->tesselReader().head(), this->tesselReader().lastConsumed(),
                       reader_.dumpHeaders());
  }
  bool flushing() const { return flushing_; }

  // For tests.
  MirakReader<Ops> const& reader() const { return reader_; }
  Store const* store() const { return store_.get(); }

 private:
  Value const* absent(bool& found, void* buffer) const {
    found = false;
    Value const& none = Ops::defaultValue();
    if (buffer) std::memcpy(buffer, &none, sizeof(Value));
    return &none;
  }
  bool end(Value& value) const {
    value = Ops::defaultValue();
    return false;
  }

  MirakReader<Ops> reader_;
  Owner* owner_;
  std::unique_ptr<Store> store_;
  bool flushing_ = false;
};

// ---------------------------------------------------------------------------

template <TablePolicy OpsT>
bool MirakShadow<OpsT>::initialize(std::string const& event) {
  FMTRACE(this->handler_, 5, "MirakShadow", "doInitialize {} event:{}", reader_.rootPath(), event);
  try {
    // A second initialize only mends the connection.
    if (this->initialized()) {
      if (this->writerLost()) {
        this->rejoin();
      } else {
        this->maybeConnect();
      }
      return true;
    }
    // The copy being flushed is still this object's: a new one waits for
    // the flush to end (the front object keeps this shadow meanwhile).
    if (flushing_) {
      FMTRACE(this->handler_, 1, "MirakShadow", "{} still flushing", reader_.rootPath());
      return false;
    }
    // The reader maps and validates the table's files.
    if (!reader_.initialize(event)) {
      FMTRACE(this->handler_, 0, "MirakShadow", "mirak.initialize() Failed");
      return false;
    }
    // The private copy: keys only, or keys and values.
    bool const notifyOnFlush = this->shadowFlags() & shadowFlagNotifyOnFlush;
    if (this->shadowFlags() & shadowFlagKeyOnly) {
      store_ = std::make_unique<KeyShadowStore<Ops>>(this->handler_, reader_, this->tesselReader(),
                                                     owner_->notify(), notifyOnFlush);
    } else {
      store_ = std::make_unique<ShadowStore<ValueShadowSlot<Ops>>>(
          this->handler_, reader_, this->tesselReader(), owner_->notify(), notifyOnFlush);
    }
    if (!store_->initialize()) return false;
    // The queue, from which the first sweep and every change after it come.
    this->syncedIs(false);
    if (!this->initializeTessel(reader_.kestorId().value())) return false;
    this->initializedIs(true);
    return true;
  } catch (Lomi::CorruptionDetectedException const& e) {
    FMTRACE(this->handler_, 0, "MirakShadow", "corruption detected: {}", e.msg());
    corruptionDetected(e.msg());
    return false;
  }
}

template <TablePolicy OpsT>
void MirakShadow<OpsT>::syncComplete() {
  Reader::Counters& c = reader_.counters();
  c.syncSequence = c.sequence = MirakShadowBase::sequence();
  FMTRACE(this->handler_, 1, "MirakShadow", "Synchronization complete, seq:{}", c.sequence);
  // The first sweep of an asynchronous mount ran with the client's change
  // callbacks held back; from now on they are live.
  if (!this->synced()) {
    this->syncedIs(true);
    auto& n = owner_->notify();
    if (!n.notifyLive) {
      n.changeFn = n.deferredChangeFn;
      n.keyFn = n.deferredKeyFn;
      n.keyDelFn = n.deferredKeyDelFn;
      n.notifyLive = true;
    }
    n.mountStatusFn();
  }
  // The queue's changes flow from here on.
  this->maybeEnableTessel();
  handleQuiesced(quiesced());
}

template <TablePolicy OpsT>
void MirakShadow<OpsT>::detach(bool forced) {
  if (!this->initialized()) {
    FMTRACE(this->handler_, 5, "MirakShadow", "already detached");
    if (flushing_) {
      FMASSERT(this->syncer().mode() == SyncerMode::flush, this->handler_, "MirakShadow",
               "expected Syncer in flush mode during asynchronous flush");
      FMASSERT(forced, this->handler_, "MirakShadow",
               "expected only forced detach during asynchronous flush");
      this->syncer().forceSyncCompletion();
    }
    return;
  }
  // The table and the queue go before the flush, which works on the
  // copy alone.
  this->detachTessel();
  reader_.detach(false);
  // Forced, flushComplete runs inside and finds initialized() still
  // true, so it leaves the front object to go on by itself.
  flushing_ = true;
  this->syncedIs(false);
  this->syncer().sync(store_ ? store_->numSlots() : 0, SyncerMode::flush, !forced);
  this->initializedIs(false);
  FMTRACE(this->handler_, 2, "MirakShadow", "detached");
}

template <TablePolicy OpsT>
void MirakShadow<OpsT>::flushComplete() {
  FMTRACE(this->handler_, 1, "MirakShadow", "Flush complete");
  if (store_) store_->disable();
  flushing_ = false;
  // A forced detach is still running (it called the flush): it goes on.
  if (this->initialized()) return;
  // The placeholder takes this object over; the sentry's attach that
  // follows may delete it (with the placeholder), so nothing of `this` is
  // touched after the event.
  Owner* const owner = owner_;
  if (owner->back() == this) owner->installDummy();
  if (auto* mounter = owner->mounter()) {
    mounter->enabled = 1;
    mounter->event(Mem::Sentry::eventFlushComplete, false);
  }
  owner->notify().mountStatusFn();
}

template <TablePolicy OpsT>
void MirakShadow<OpsT>::handleDisconnect() {
  if (!this->notifying() && !this->syncFromTessel() && this->handler_.enabled(1)) {
    Lomi::fmtrace(this->handler_, 1, "MirakShadow", __func__,
                  "disconnected while rusk processing is disabled, syncer mode:{} done:{}",
                  int(this->syncer().mode()), this->syncer().done());
  }
  if (flushing_ || !this->initialized()) return;
  // The copy stays as it is and keeps answering; a writer that comes back
  // with the same files is rejoined (MirakShadowBase, step 6).
  this->writerLostIs();
  owner_->handleDisconnect();
}

template <TablePolicy OpsT>
Mem::MountStatus MirakShadow<OpsT>::mountStatus() const {
  if (flushing_) return Mem::mountStatusFlushing;
  Mem::MountStatus const s = !this->initialized() ? Mem::mountStatusNotMounted
                             : this->synced()     ? Mem::mountStatusSynchronized
                                                  : Mem::mountStatusMounted;
  FMTRACE(this->handler_, 5, "MirakShadow", "{}", s);
  return s;
}

template <TablePolicy OpsT>
Reader::Counters MirakShadow<OpsT>::readerCounters() const {
  // The reader fills in the sizes of its two mappings.
  Reader::Counters c = reader_.readerCounters();
  Reader::Counters& live = reader_.counters();
  live.shadowMappedSize = c.shadowMappedSize = store_ ? store_->shadowMappedSize() : 0;
  live.kestorMappedSize = c.kestorMappedSize = store_ ? store_->kestorMappedSize() : 0;
  live.tesselPrimaryMappedSize = c.tesselPrimaryMappedSize =
      this->tesselReader().primaryMappedSize();
  live.tesselSecondaryMappedSize = c.tesselSecondaryMappedSize =
      this->tesselReader().secondaryMappedSize();
  live.sequencesSent = c.sequencesSent = this->ruskSm().sequencesSent();
  return c;
}

}  // namespace Mirak

// The front object, which this file's operations call, completes the family.
#include "Mirak/MirakMap.h"
