// Mirak::MirakMap<Ops>: the stable object in front of one collection, and its
// non-generic base Mirak::MirakMapBase.
//
// Clients (the typed adapter of an entity) see one object for the life of the
// collection; behind it exactly one back end, `back_`, is created, replaced
// and retired as the collection is made, mounted, detached and orphaned:
//
//   private table (Tmp)  ->  writer / reader / shadow  ->  placeholder
//
// The front object adds three things to the back end it forwards to:
//   - the corruption boundary: safeLookup, safeWrite, safeRemove and
//     directCommit catch Lomi::CorruptionDetectedException and hand its message
//     to doCorruptionDetected. A lookup then answers "not found"; a write,
//     remove or commit never returns normally (see doCorruptionDetected);
//   - the settings that outlive a back end (`notifying`, `yieldTime_`) and the
//     statistics of retired back ends, added to the live ones on every read;
//   - the order of teardown: detach (placeholder in, client told), then
//     controlDetach (sentry gone, uninitialised), then the destructor.
//
// Contract:
//   - A front object that has no back end yet answers no table operation: the
//     typed adapter installs a private table before a client can call.
//   - A back end is owned by exactly one owner: `back_`, or the placeholder
//     that replaced it (its `prevBack_`), so `cleanup` after a detach still
//     reaches the retired back end and removes its files.
//   - The callbacks in `notify()` are never empty; `detach` calls quiescedFn
//     and mountStatusFn unconditionally, in that order.
//   - Mounting (init, attach, tryAttach, owner) is not part of this header.
//
// Thread safety: none. The object, its back end and its callbacks are used on
// the owner's thread; the sentry's calls come on that thread too.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/CollectionDescriptor.h"
#include "Mem/Notify.h"
#include "Mem/RootPath.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/Counters.h"
#include "Mirak/MapDescriptor.h"
#include "Mirak/MirakDummy.h"
#include "Mirak/MirakInterface.h"
#include "Mirak/Tmp.h"
#include "Parcel/KestorId.h"

namespace Mirak {

// What a collection's control object calls on the collection it controls.
class ControlBase {
 public:
  virtual ~ControlBase();

  virtual std::string collName() const = 0;
  virtual Mem::MountStatus mountStatus() const = 0;
  virtual bool initialized() const = 0;
  virtual MirakType mode() const = 0;
  virtual void controlDetach() = 0;
  virtual void cleanupAndDetach() = 0;
  // The demangled type of the object that owns the collection; may be empty.
  virtual std::string classType() const = 0;

 protected:
  ControlBase() = default;
  ControlBase(ControlBase const&) = delete;
  ControlBase& operator=(ControlBase const&) = delete;
};

class MirakMapBase : public ControlBase {
 public:
  // The sentry of a mounted collection as the front object sees it: the
  // mounting code wraps its reader or writer sentry in one of these.
  class Mounter {
   public:
    virtual ~Mounter();
    // One of the event constants below; `arg` is always false from here.
    virtual void event(std::string const& name, bool arg) = 0;
    // Called at the end of every detach of the collection.
    virtual void onDetach() {}
    // Cleared while a detached shadow flushes, so the sentry starts nothing.
    uint8_t enabled = 1;
  };

  static constexpr char const* eventInit_ = "init";
  static constexpr char const* eventTryAttach_ = "tryAttach";
  static constexpr char const* eventNotifEnabled_ = "notificationsEnabled";
  static constexpr char const* eventDisconnect_ = "disconnect";
  static constexpr char const* eventFlushComplete_ = "flushComplete";

  ~MirakMapBase() override;

  // Mounted: initialised and the back end reports a mount status above 0.
  virtual bool ready() const;
  bool initialized() const override { return initialized_; }
  // The mode of the last accepted descriptor (writer before any mount).
  MirakType mode() const override { return descriptor_.type; }
  virtual bool localMem() const { return descriptor_.local; }
  virtual std::string modeStr() const { return formatMirakType(mode()); }

  // The handling of a table that can't be trusted. Records the message
  // (lastCorruption, corruptionsDetected), reports it with a level-0 trace,
  // and leaves the "corruption-detected" marker in the table's directory if
  // it has one, so the writer's sentry validates the table. If this process
  // is the table's writer (the back end is a writer or private table), it
  // then stops the process: a writer's corrupt table has no defined result.
  // On a reader it returns.
  void doCorruptionDetected(std::string const& msg) const;
  uint64_t corruptionsDetected() const { return corruptionsDetected_; }
  std::string const& lastCorruption() const { return lastCorruption_; }

  // `current` plus the statistics of the back ends this object retired:
  // counts add up; the live values (mapped sizes, queue and socket figures,
  // last times) are those of `current`; "longest" times are the maximum.
  Reader::Counters mirakMapUpdateReaderCounters(Reader::Counters&& current) const;
  Writer::Counters mirakMapUpdateWriterCounters(Writer::Counters&& current) const;

  Lomi::Platform::DebugHandler& debugHandler() const { return *debugHandler_; }
  void debugHandlerIs(Lomi::Platform::DebugHandler& handler) { debugHandler_ = &handler; }
  MapDescriptor const& descriptor() const { return descriptor_; }
  // For the mounting code: the descriptor that a mount accepted.
  void descriptorIs(MapDescriptor const& descriptor) { descriptor_ = descriptor; }
  std::string const& name() const { return name_; }
  std::string const& traceName() const { return traceName_; }
  Mounter* mounter() const { return mounter_.get(); }
  // For the mounting code: the sentry of a mount, or none.
  void mounterIs(std::unique_ptr<Mounter> mounter) { mounter_ = std::move(mounter); }

 protected:
  MirakMapBase();

  // Folds the statistics of a back end that is being retired.
  void retiredCountersAdd(Writer::Counters const& writer, Reader::Counters const& reader);
  // Whether the back end is this process's writer side of the table.
  virtual bool writesTable() const = 0;
  // The root path of the current back end; throws Lomi::RuntimeException
  // naming the collection when it has none.
  virtual Mem::NaoRootPath rootPath() const = 0;

  Lomi::Platform::DebugHandler* debugHandler_;
  MapDescriptor descriptor_;
  std::unique_ptr<Mounter> mounter_;
  bool initialized_ = false;
  std::string name_;
  std::string traceName_;
  mutable bool notifying_ = false;

 private:
  Writer::Counters retiredWriter_;
  Reader::Counters retiredReader_;
  // The record of doCorruptionDetected, which lookups (const) reach too.
  mutable uint64_t corruptionsDetected_ = 0;
  mutable std::string lastCorruption_;
};

template <TablePolicy OpsT>
class MirakMap : public MirakMapBase {
 public:
  using Ops = OpsT;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;
  using Back = MirakInterface<Ops>;
  using NotifyT = Mem::Notify<Key, Value>;

  static constexpr double kDefaultYieldTime = 0.05;

  explicit MirakMap(Ops const& ops = Ops()) : ops_(ops) {}
  // Traces "deleting state" at level 2, deletes the back end (and with it
  // any back end a placeholder kept), then the callbacks; a sentry left over
  // goes with the base. Detaches nothing.
  ~MirakMap() override;
  MirakMap(MirakMap const&) = delete;
  MirakMap& operator=(MirakMap const&) = delete;

  // --- forwards to the back end ---------------------------------------
  virtual bool validateVersionAnchor() const { return back_->validateVersionAnchor(); }
  virtual Mem::CacheVersionAnchor getCacheVersionAnchor() const {
    return back_->getCacheVersionAnchor();
  }
  // Whether `cached` is still the anchor of the latest read: both words equal.
  virtual bool compareVersionAnchor(Mem::CacheVersionAnchor const& cached) const;
  virtual void validateVersionAnchorHookIs(VersionAnchorHook hook) {
    back_->validateVersionAnchorHookIs(hook);
  }
  std::string collName() const override { return back_->mirakName(); }
  virtual Parcel::KestorId kestorId() const { return back_->kestorId(); }
  Mem::MountStatus mountStatus() const override;
  virtual Reader::Counters readerCounters() const;
  virtual Writer::Counters writerCounters() const;
  // Removes the table's files (through the placeholder after a detach), then
  // controlDetach. Asserts "{} trying to cleanup uninitialized mirak." when
  // the collection was never initialised.
  void cleanupAndDetach() override;
  virtual void cleanup();
  Mem::NaoRootPath rootPath() const override;
  virtual bool validate();
  // Both arguments are ignored.
  virtual bool validateFiles(std::string const& path, unsigned int mask);
  virtual Sequence sequence() const;
  // detach(true); the sentry is deleted; not initialised any more. Nothing
  // re-attaches the collection by itself afterwards.
  void controlDetach() override;
  virtual uint32_t maxSize() const { return back_->maxSize(); }
  virtual uint32_t capacity() const { return back_->capacity(); }
  // Stored here and handed to the back end and to every later one. With true
  // and a sentry present, the sentry hears eventNotifEnabled_. Asserts while
  // an asynchronous shadow holds its change callbacks back.
  virtual void notifyingIs(bool value) const;
  bool notifying() const { return notifying_; }
  // Seconds a sweep may run before it yields; kept for every later back end.
  virtual void yieldTimeIs(double const& seconds) const;
  virtual bool clientQuiesced(std::string const& readerName) const;
  virtual bool quiesced() const;
  virtual bool connected() const { return back_->connected(); }
  virtual void criticalTaskCheckIs(bool check) const { back_->criticalTaskCheckIs(check); }
  virtual bool criticalTaskCheck() const { return back_->criticalTaskCheck(); }
  virtual void scratchpadIs(uint64_t value) { back_->scratchpadIs(value); }
  virtual uint64_t scratchpad() const { return back_->scratchpad(); }
  // The back end lets go of the table (force is its business); a placeholder
  // takes its place, except for a flushing shadow under a sentry, which stays
  // with the sentry disabled. Then quiescedFn(false), mountStatusFn(), and the
  // sentry's detach hook.
  virtual void detach(bool force);
  // Empty here; the typed adapter gives its entity's type.
  std::string classType() const override { return std::string(); }

  // --- data operations --------------------------------------------------
  // The lookup of the back end. On corruption: doCorruptionDetected, and the
  // default value with `found` false. Other exceptions pass.
  Value const* safeLookup(Key const& key, bool& found, void* buffer) const;
  // back_->write(value, true). On corruption doCorruptionDetected, which
  // must not return here; if it does, the process stops ("in no man's land").
  // Other exceptions (a full table, a read-only back end) pass.
  Value const* safeWrite(Value const& value);
  // back_->remove; false and `removed` untouched when the key is absent.
  // Corruption as in safeWrite.
  bool safeRemove(Key const& key, Value& removed);
  // back_->directCommit(). Corruption as in safeWrite.
  void directCommit();
  Value* directWrite(Value const& value) { return back_->directWrite(value); }
  Value* directUpdate(Key const& key) { return back_->directUpdate(key); }
  uint32_t members() const { return back_->members(); }

  // --- back ends ---------------------------------------------------------
  // Puts a placeholder in front of the current back end, which it keeps:
  // MirakStrictDummy when assertOnOrphanAccess is set, else MirakDummy.
  // Throws Lomi::InvalidInitializeException, changing nothing, when the name
  // cannot be a table's directory.
  void installDummy();
  // A new private table of capacity 100 under this collection's name,
  // attached and initialised; the caller owns it.
  std::unique_ptr<Back> createDefaultLocalWriter(Lomi::Platform::DebugHandler& handler);
  // Replaces the back end; the old one is deleted after its statistics were
  // kept. For the mounting code and for tests.
  void backIs(std::unique_ptr<Back> back);
  Back* back() const { return back_.get(); }

  Ops const& ops() const { return ops_; }
  NotifyT& notify() { return notify_; }
  NotifyT const& notify() const { return notify_; }
  double yieldTime() const { return yieldTime_; }
  bool assertOnOrphanAccess() const { return assertOnOrphanAccess_; }
  void assertOnOrphanAccessIs(bool value) { assertOnOrphanAccess_ = value; }
  Value const& defaultValue() const { return default_; }

 protected:
  bool writesTable() const override;
  // Level-5 trace of the root path under `func`.
  void traceRoot(char const* func) const;
  // The back end is one of the two placeholders.
  static bool isPlaceholder(Back const* back) {
    return dynamic_cast<MirakDummy<Ops> const*>(back) != nullptr;
  }
  // Keeps the statistics of the current back end before it leaves `back_`.
  void retireCounters();

  NotifyT notify_;
  Ops ops_;
  std::unique_ptr<Back> back_;
  mutable double yieldTime_ = kDefaultYieldTime;
  Value default_{};
  bool assertOnOrphanAccess_ = false;
};

// ---------------------------------------------------------------------------

template <TablePolicy OpsT>
MirakMap<OpsT>::~MirakMap() {
  FMTRACE(*debugHandler_, 2, "MirakMap", "deleting state");
  back_.reset();
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::traceRoot(char const* func) const {
  if (!debugHandler_->enabled(5)) return;
  Lomi::Platform::emit(*debugHandler_, 5, "MirakMap", func,
                       back_ ? back_->rootPath().str() : name_);
}

template <TablePolicy OpsT>
bool MirakMap<OpsT>::compareVersionAnchor(Mem::CacheVersionAnchor const& cached) const {
  Mem::CacheVersionAnchor const now = getCacheVersionAnchor();
  return now.word == cached.word && now.offset == cached.offset;
}

template <TablePolicy OpsT>
Mem::MountStatus MirakMap<OpsT>::mountStatus() const {
  traceRoot(__func__);
  return back_->mountStatus();
}

template <TablePolicy OpsT>
Reader::Counters MirakMap<OpsT>::readerCounters() const {
  return mirakMapUpdateReaderCounters(back_->readerCounters());
}

template <TablePolicy OpsT>
Writer::Counters MirakMap<OpsT>::writerCounters() const {
  return mirakMapUpdateWriterCounters(back_->writerCounters());
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::cleanupAndDetach() {
  traceRoot(__func__);
  if (!initialized_) {
    Lomi::fmassert(*debugHandler_, "MirakMap", __func__,
                   "{} trying to cleanup uninitialized mirak.",
                   back_ ? back_->rootPath().str() : name_);
  }
  cleanup();
  controlDetach();
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::cleanup() {
  traceRoot(__func__);
  back_->cleanup();
}

template <TablePolicy OpsT>
Mem::NaoRootPath MirakMap<OpsT>::rootPath() const {
  if (!back_) {
    throw Lomi::RuntimeException("collection {} has no table: it was never given a back end",
                                 name_);
  }
  return back_->rootPath();
}

template <TablePolicy OpsT>
bool MirakMap<OpsT>::validate() {
  traceRoot(__func__);
  return back_->validate();
}

template <TablePolicy OpsT>
bool MirakMap<OpsT>::validateFiles(std::string const&, unsigned int) {
  traceRoot(__func__);
  return back_->validateFiles();
}

template <TablePolicy OpsT>
Sequence MirakMap<OpsT>::sequence() const {
  traceRoot(__func__);
  return back_->sequence();
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::controlDetach() {
  detach(true);
  mounter_.reset();
  initialized_ = false;
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::notifyingIs(bool value) const {
  FMTRACE(*debugHandler_, 5, "MirakMap", "{} notifying:{}", name_, value);
  // An asynchronous shadow holds the change callbacks back; switching
  // notifications under it would leave them in the wrong place.
  if (initialized_ && !notify_.notifyLive) {
    Lomi::fmassert(*debugHandler_, "MirakMap", __func__,
                   "not allowed at this time, initialized:{} keyNotifications:{}", initialized_,
                   notify_.notifyLive);
  }
  notifying_ = value;
  if (back_) back_->notifyingIs(value);
  // A shadow whose notifications were off needs its sentry to get going.
  if (value && mounter_) mounter_->event(eventNotifEnabled_, false);
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::yieldTimeIs(double const& seconds) const {
  FMTRACE(*debugHandler_, 5, "MirakMap", "{} yieldTime:{}", name_, seconds);
  yieldTime_ = seconds;
  if (back_) back_->yieldTimeIs(seconds);
}

template <TablePolicy OpsT>
bool MirakMap<OpsT>::clientQuiesced(std::string const& readerName) const {
  FMTRACE(*debugHandler_, 5, "MirakMap", "{} readerName:{}", name_, readerName);
  return back_->clientQuiesced(readerName);
}

template <TablePolicy OpsT>
bool MirakMap<OpsT>::quiesced() const {
  if (debugHandler_->enabled(5)) {
    // A strict placeholder refuses type(); its trace must not stop the process.
    std::string const type = isPlaceholder(back_.get()) && assertOnOrphanAccess_
                                 ? std::string("placeholder")
                                 : formatMirakType(back_->type());
    Lomi::fmtrace(*debugHandler_, 5, "MirakMap", __func__, "{} type:{}", back_->rootPath(), type);
  }
  return back_->quiesced();
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::detach(bool force) {
  FMTRACE(*debugHandler_, 1, "MirakMap", "{}", back_ ? back_->rootPath().str() : name_);
  if (back_) back_->detach(force);
  if (back_ && back_->mountStatus() == Mem::mountStatusFlushing && mounter_) {
    // A shadow still flushing its copy stays until its flush completes; the
    // sentry must not start another attach meanwhile.
    mounter_->enabled = 0;
  } else {
    installDummy();
  }
  notify_.quiescedFn(false);
  notify_.mountStatusFn();
  if (mounter_) mounter_->onDetach();
}

template <TablePolicy OpsT>
auto MirakMap<OpsT>::safeLookup(Key const& key, bool& found, void* buffer) const -> Value const* {
  try {
    return back_->lookup(key, found, buffer);
  } catch (Lomi::CorruptionDetectedException const& e) {
    std::string msg = e.msg();
    doCorruptionDetected(msg);
    found = false;
    return &Allocator<Value>::type_default();
  }
}

template <TablePolicy OpsT>
auto MirakMap<OpsT>::safeWrite(Value const& value) -> Value const* {
  try {
    return back_->write(value, true);
  } catch (Lomi::CorruptionDetectedException const& e) {
    std::string msg = e.msg();
    doCorruptionDetected(msg);
  }
  Lomi::fmassert(*debugHandler_, "MirakMap", __func__, "in no man's land");
}

template <TablePolicy OpsT>
bool MirakMap<OpsT>::safeRemove(Key const& key, Value& removed) {
  try {
    return back_->remove(key, removed);
  } catch (Lomi::CorruptionDetectedException const& e) {
    std::string msg = e.msg();
    doCorruptionDetected(msg);
  }
  Lomi::fmassert(*debugHandler_, "MirakMap", __func__, "in no man's land");
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::directCommit() {
  try {
    back_->directCommit();
    return;
  } catch (Lomi::CorruptionDetectedException const& e) {
    std::string msg = e.msg();
    doCorruptionDetected(msg);
  }
  Lomi::fmassert(*debugHandler_, "MirakMap", __func__, "in no man's land");
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::retireCounters() {
  // Placeholders keep no statistics (and a strict one refuses to be asked).
  if (!back_ || isPlaceholder(back_.get())) return;
  retiredCountersAdd(back_->writerCounters(), back_->readerCounters());
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::installDummy() {
  // Checked before the back end moves: the placeholder's root path is built
  // from the name, and a throw inside its construction would delete the
  // back end it was to keep.
  Mem::NaoRootPath const probe(*debugHandler_, name_, false);
  (void)probe;
  retireCounters();
  if (assertOnOrphanAccess_) {
    back_ = std::make_unique<MirakStrictDummy<Ops>>(ops_, *debugHandler_, name_, std::move(back_),
                                                    MirakStrictDummy<Ops>::kOrphanSuffix);
  } else {
    back_ = std::make_unique<MirakDummy<Ops>>(ops_, *debugHandler_, name_, std::move(back_));
  }
}

template <TablePolicy OpsT>
auto MirakMap<OpsT>::createDefaultLocalWriter(Lomi::Platform::DebugHandler& handler)
    -> std::unique_ptr<Back> {
  MapDescriptor desc(Tmp<Ops>::kCapacity);
  desc.local = true;
  auto tmp = std::make_unique<Tmp<Ops>>(handler, name_.c_str(), desc, ops_, [](bool) {});
  // A local table takes no writer lock and has no files: it always formats.
  if (!tmp->initialized()) tmp->initialize("none");
  return tmp;
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::backIs(std::unique_ptr<Back> back) {
  retireCounters();
  back_ = std::move(back);
}

template <TablePolicy OpsT>
bool MirakMap<OpsT>::writesTable() const {
  return back_ && !isPlaceholder(back_.get()) && back_->type() == MirakType::writer;
}

}  // namespace Mirak
