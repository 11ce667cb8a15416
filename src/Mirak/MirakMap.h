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
//   - the settings that outlive a back end (`notifying`, `yieldTime_`),
//     handed to every back end it makes or is given (handSettings), and the
//     statistics of retired back ends, added to the live ones on every read;
//   - the order of teardown: detach (placeholder in, client told), then
//     controlDetach (sentry gone, uninitialised), then the destructor;
//   - the mount: `init` chooses the back end by the descriptor and starts a
//     sentry; a reader's sentry brings the real back end with `attach`.
//
// Choosing a back end:
//   init, local                  MirakWriter in private memory, no sentry
//   init, writer                 MirakWriter on the shared files, then a
//                                Parcel::WriterSentry
//   init, reader/shadow/keyshad. MirakDummy, then a Parcel::ReaderSentry, which
//                                calls attach once the writer's files are
//                                complete (the kestor file is there)
//   attach, reader               a new MirakReader
//   attach, shadow/keyshadow     a new MirakShadow (newShadow), or the same
//                                shadow initialised again (it rejoins a
//                                writer it lost)
//   detach                       MirakStrictDummy if assertOnOrphanAccess,
//                                else MirakDummy; a flushing shadow stays
//
// Contract:
//   - A front object that has no back end yet answers no table operation: the
//     typed adapter installs a private table before a client can call.
//   - A back end is owned by exactly one owner: `back_`, or the placeholder
//     that replaced it (its `prevBack_`), so `cleanup` after a detach still
//     reaches the retired back end and removes its files.
//   - The callbacks in `notify()` are never empty; `detach` calls quiescedFn
//     and mountStatusFn unconditionally, in that order.
//   - A failed `init` (an exception) leaves the collection uninitialised, on
//     a placeholder that holds the back end it stood on, with no sentry.
//   - The client hears of a mount only once its back end works: quiescedFn
//     (true), then mountStatusFn(); a writer from `init`, a reader from the
//     sentry's `attach`.
//
// Thread safety: none. The object, its back end and its callbacks are used on
// the owner's thread; the sentry's calls come on that thread too.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include <sys/types.h>

#include <cstdlib>
#include <exception>
#include <functional>
#include <typeinfo>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/CollectionDescriptor.h"
#include "Mem/Notify.h"
#include "Parcel/ReaderSentry.h"
#include "Mem/RootPath.h"
#include "Mem/Sentry.h"
#include "Mem/VersionAnchor.h"
#include "Parcel/WriterLock.h"
#include "Parcel/WriterSentry.h"
#include "Mirak/Counters.h"
#include "Mirak/MapDescriptor.h"
#include "Mirak/MirakDummy.h"
#include "Mirak/MirakInterface.h"
#include "Mirak/MirakReader.h"
#include "Mirak/MirakShadowBase.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/Tmp.h"
#include "Parcel/KestorId.h"
#include "Parcel/OwnerFile.h"
#include "Rusk/WriterRuskSm.h"

namespace Mirak {

// What a collection's control object calls on the collection it controls.
class ControlBase {
 public:
  virtual ~ControlBase();

  // Mounts the collection (Mirak::MapDescriptor, see MirakMap::init).
  virtual void init(Mem::CollectionDescriptor const& descriptor) = 0;
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

class MirakMapBase : public ControlBase, public Parcel::ReaderSentry::Notifiee {
 public:
  // The sentry of a mounted collection as the front object sees it: a
  // Parcel::ReaderSentry or Parcel::WriterSentry (or a test's own). Its `enabled`
  // is cleared while a detached shadow flushes, so it starts nothing.
  using Mounter = Mem::Sentry;

  static constexpr char const* eventInit_ = Mem::Sentry::eventInit;
  static constexpr char const* eventTryAttach_ = Mem::Sentry::eventTryAttach;
  static constexpr char const* eventNotifEnabled_ = Mem::Sentry::eventNotifEnabled;
  static constexpr char const* eventDisconnect_ = Mem::Sentry::eventDisconnect;
  static constexpr char const* eventFlushComplete_ = Mem::Sentry::eventFlushComplete;

  ~MirakMapBase() override;

  using ControlBase::init;
  // init with MapDescriptor(size) of that type and locality, every other
  // option off.
  virtual void init(MirakType type, bool local, unsigned int size);

  // Mounted: initialised and the back end reports a mount status above 0.
  virtual bool ready() const;
  bool initialized() const override { return initialized_; }
  // The mode of the last accepted descriptor (writer before any mount).
  MirakType mode() const override { return descriptor_.type; }
  bool localMem() const override { return descriptor_.local; }
  std::string modeStr() const override { return formatMirakType(mode()); }
  // The back end stands on the table's files: mount status 1 or 2. This is
  // what the reader sentry asks before it attaches.
  bool readerFullyAttached() const override;
  // A reader whose writer went away while it was attached: a shadow that
  // keeps serving its copy (see MirakMap).
  bool disconnectedActiveReader() const override { return false; }

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
class MirakShadow;

template <TablePolicy OpsT>
class MirakMap : public MirakMapBase, public Parcel::WriterSentry::Notifiee {
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
  Parcel::KestorId kestorId() const override { return back_->kestorId(); }
  Mem::MountStatus mountStatus() const override;
  virtual Reader::Counters readerCounters() const;
  virtual Writer::Counters writerCounters() const;
  // What the writer's last start did with the files it found (adopted,
  // salvaged with the records left behind, re-formatted and why; see
  // Mirak/StartOutcome.h). Kind none when no writer stands behind the
  // collection (a reader, a shadow, a placeholder).
  StartOutcome startOutcome() const;
  // Removes the table's files (through the placeholder after a detach), then
  // controlDetach. Asserts "{} trying to cleanup uninitialized mirak." when
  // the collection was never initialised.
  void cleanupAndDetach() override;
  virtual void cleanup();
  Mem::NaoRootPath rootPath() const override;
  bool validate() override;
  // Both arguments are ignored.
  bool validateFiles(std::string const& path, unsigned int mask) override;
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
  bool notifying() const override { return notifying_; }
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
  void detach(bool force) override;
  // Empty here; the typed adapter gives its entity's type.
  std::string classType() const override { return std::string(); }

  // --- mounting -----------------------------------------------------------
  // Mounts the collection as the descriptor (a Mirak::MapDescriptor, else
  // std::bad_cast) says. A writer's back end is ready on return, and the
  // client has heard quiescedFn(true), then mountStatusFn(). A reader,
  // shadow or keyshadow returns on a placeholder (mount status 0, no
  // callback) and its sentry attaches when the writer's files are complete.
  // A repeated init with an equal descriptor does nothing (but cleanupOnInit
  // has cleaned the table first). Throws Lomi::InvalidInitializeException:
  //   "name:{} already initialized, old {}, new {}"
  //   "cannot initialize collection {} heap allocation in non-local mode not allowed"
  //   "0 is not a valid initialization size for collection {} in writer mode"
  //   "cannot initialize collection {} with {}" (counter tables as shadows)
  //   "failed to initialize collection {}"
  // and what the writer's start or the sentry throw (a live second writer, a
  // directory that can't be made or watched). A reader's sentry failure is
  // ignored when the environment has Q7_CHROOT. Asserts on an orphan with
  // assertOnOrphanAccess, a left-over sentry, prevValue, an asynchronous
  // shadow without notifications, and a type outside the four.
  using MirakMapBase::init;
  void init(Mem::CollectionDescriptor const& descriptor) override;
  // From the reader sentry, when the files may be usable; `event` names the
  // cause. On success the new back end stands and the client hears
  // quiescedFn(true) (a reader) and mountStatusFn(); on failure the
  // placeholder stays and nothing is heard. Asserts on a writer.
  void attach(std::string const& event) override;
  // From a shadow whose writer went away: traced at level 1, and the sentry
  // hears eventDisconnect_ (it keeps the shadow, which serves its copy, and
  // waits for a writer). Asserts "wrong type:{}" unless the mode is shadow or
  // keyshadow.
  void handleDisconnect();
  // The back end is a shadow that lost its writer and serves its copy.
  bool disconnectedActiveReader() const override;
  // The client's "try now": asks the sentry, which attaches if the files are
  // ready. Nothing for a writer, without a sentry, or when mounted.
  virtual void tryAttach() const;
  // "{command}:{pid}" of the table's live writer, ":0" when none lives.
  // Asserts "corruption detected: {}" when the owner file is damaged.
  virtual std::string owner() const;

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
  // attached and initialised, with this object's settings; the caller owns it.
  std::unique_ptr<Back> createDefaultLocalWriter(Lomi::Platform::DebugHandler& handler);
  // Replaces the back end, handing it this object's settings; the old one is
  // deleted after its statistics were kept. For the mounting code and for
  // tests.
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
  // Hands yieldTime_ and notifying_ to `back`, a back end this object has
  // just made or been given. Every back end passes here before it serves
  // (a writer of init is initialised after, a reader of attach too), so none
  // runs on its own defaults once the front object was set.
  void handSettings(Back& back) const;

  // The steps of init, in its order.
  void assertNotOrphan() const;
  // True for a repeated init with the same descriptor; throws
  // Lomi::InvalidInitializeException for one with another.
  bool alreadyMounted(MapDescriptor const& desc) const;
  // Throws Lomi::InvalidInitializeException for a descriptor no back end
  // can serve; changes nothing.
  void refuseBadDescriptor(MapDescriptor const& desc) const;
  void deferChangesOfAsyncShadow(MapDescriptor const& desc);
  // Takes `desc` and returns the old back end.
  std::unique_ptr<Back> takeDescriptor(MapDescriptor const& desc);
  // Make and start the back end; a failure leaves a placeholder holding
  // `previous` (initFailed) and throws.
  void mountWriter(std::unique_ptr<Back> previous);
  void mountReader(std::unique_ptr<Back> previous);

  // The back end of a writer mount (mountWriter), not yet initialised.
  // Tests of the mounting steps replace it.
  virtual std::unique_ptr<Back> newWriter(std::string const& classType,
                                          std::function<void(bool)> quiesced);
  // The shadow of a shadow or keyshadow mount, with its option word (bit 1
  // keyshadow, bit 2 re-attach, bit 4 shadowOption: shadowFlags of
  // MirakShadowBase.h). Null keeps the collection on its placeholder.
  virtual std::unique_ptr<Back> newShadow(uint32_t options);
  // After a failed init: a placeholder holding `previous`, or `previous`
  // itself when no placeholder can be made for the name.
  void initFailed(std::unique_ptr<Back> previous);

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
StartOutcome MirakMap<OpsT>::startOutcome() const {
  return back_ ? back_->startOutcome() : StartOutcome();
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
  handSettings(*back_);
}

template <TablePolicy OpsT>
auto MirakMap<OpsT>::createDefaultLocalWriter(Lomi::Platform::DebugHandler& handler)
    -> std::unique_ptr<Back> {
  MapDescriptor desc(Tmp<Ops>::kCapacity);
  desc.local = true;
  auto tmp = std::make_unique<Tmp<Ops>>(handler, name_.c_str(), desc, ops_, [](bool) {});
  handSettings(*tmp);
  // A local table takes no writer lock and has no files: it always formats.
  if (!tmp->initialized()) tmp->initialize("none");
  return tmp;
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::backIs(std::unique_ptr<Back> back) {
  if (back) handSettings(*back);
  retireCounters();
  back_ = std::move(back);
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::handSettings(Back& back) const {
  back.yieldTimeIs(yieldTime_);
  back.notifyingIs(notifying_);
}

template <TablePolicy OpsT>
bool MirakMap<OpsT>::writesTable() const {
  return back_ && !isPlaceholder(back_.get()) && back_->type() == MirakType::writer;
}

// ---------------------------------------------------------------------------
// Mounting

// The mount, in order: the descriptor is checked before anything of the
// object changes (a refused mount leaves it as it was), then the object takes
// the descriptor, then the back end is made and started.
template <TablePolicy OpsT>
void MirakMap<OpsT>::init(Mem::CollectionDescriptor const& collectionDescriptor) {
  assertNotOrphan();
  MapDescriptor const& desc = dynamic_cast<MapDescriptor const&>(collectionDescriptor);
  // Also on a repeated init, before the comparison of alreadyMounted.
  if (desc.cleanupOnInit && back_) back_->cleanup();
  if (alreadyMounted(desc)) return;
  FMTRACE(*debugHandler_, 1, "MirakMap", "name:{} {}", name_, desc);
  refuseBadDescriptor(desc);
  deferChangesOfAsyncShadow(desc);
  std::unique_ptr<Back> previous = takeDescriptor(desc);
  if (desc.local || desc.type == MirakType::writer) {
    mountWriter(std::move(previous));
  } else {
    mountReader(std::move(previous));
  }
  initialized_ = true;
  // A reader hears these from attach, once its back end works.
  if (desc.type == MirakType::writer) {
    notify_.quiescedFn(true);
    notify_.mountStatusFn();
  }
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::assertNotOrphan() const {
  if (assertOnOrphanAccess_) {
    Lomi::fmassert(*debugHandler_, "MirakMap", "init",
                   "Re-initializing a collection that has already become an orphan and has "
                   "assertOnOrphanAccess set");
  }
}

template <TablePolicy OpsT>
bool MirakMap<OpsT>::alreadyMounted(MapDescriptor const& desc) const {
  if (!initialized_) return false;
  if (descriptor_ == desc) {
    FMTRACE(*debugHandler_, 5, "MirakMap", "name:{} already initialized, new {}", name_, desc);
    return true;
  }
  std::string const text =
      fmt::format("name:{} already initialized, old {}, new {}", name_, descriptor_, desc);
  FMTRACE(*debugHandler_, 0, "MirakMap", "{}", text);
  throw Lomi::InvalidInitializeException(text);
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::refuseBadDescriptor(MapDescriptor const& desc) const {
  if (desc.heap && !desc.local) {
    throw Lomi::InvalidInitializeException(
        "cannot initialize collection {} heap allocation in non-local mode not allowed", name_);
  }
  if (desc.type == MirakType::writer && desc.size == 0) {
    throw Lomi::InvalidInitializeException(
        "0 is not a valid initialization size for collection {} in writer mode", name_);
  }
  // A table without a change queue can't be followed by a shadow. Refused
  // before deferChangesOfAsyncShadow moves the change callbacks: a refused
  // mount must leave the object as it was, or every later notifyingIs would
  // assert.
  if constexpr (!Ops::TesselWriter::hasQueue) {
    if (desc.type == MirakType::shadow || desc.type == MirakType::keyshadow) {
      throw Lomi::InvalidInitializeException(
          "cannot initialize collection {} with {}", name_,
          desc.type == MirakType::shadow ? "DummyTesselWriter not supported in shadow mode"
                                         : "DummyTesselWriter not supported in keyshadow mode");
    }
  }
}

// An asynchronous shadow delivers changes through the deferred set. The move
// happens once in the object's life.
template <TablePolicy OpsT>
void MirakMap<OpsT>::deferChangesOfAsyncShadow(MapDescriptor const& desc) {
  bool const shadowType = desc.type == MirakType::shadow || desc.type == MirakType::keyshadow;
  if (desc.synchronous || desc.local || !shadowType) return;
  notify_.deferChanges();
  if (!notifying_) {
    Lomi::fmassert(*debugHandler_, "MirakMap", "init",
                   "notifications unexpectedly disabled prior to initialization with "
                   "asynchronous mode: collection {} is mounted as {} with synchronous false, "
                   "whose changes arrive only as notifications; call notifyingIs(true) on it "
                   "before init, or mount it with synchronous set",
                   name_, desc.type);
  }
}

// The old back end leaves `back_` here and is returned; it is deleted once
// the new one stands, and kept by the placeholder of a failed mount.
template <TablePolicy OpsT>
auto MirakMap<OpsT>::takeDescriptor(MapDescriptor const& desc) -> std::unique_ptr<Back> {
  retireCounters();
  std::unique_ptr<Back> previous = std::move(back_);
  descriptor_ = desc;
  // The collection's own handler, named by the collection, so that its
  // traces can be switched on by name before or after the mount.
  debugHandler_ = &Lomi::Platform::getDebugHandler(name_, true);
  if (mounter_) {
    Lomi::fmassert(*debugHandler_, "MirakMap", "init", "Mirak mounter should not exist");
  }
  if (desc.prevValue) {
    Lomi::fmassert(*debugHandler_, "MirakMap", "init",
                   "prevValue mount-time option enabled without prevValueSupport ZEBO attribute "
                   "enabled");
  }
  return previous;
}

// The sentry comes before the files are published: a process that can't
// watch the table (the kernel's inotify limits) fails its start before any
// reader could attach to a writer that then lets go.
template <TablePolicy OpsT>
void MirakMap<OpsT>::mountWriter(std::unique_ptr<Back> previous) {
  bool ok;
  try {
    std::string const type = classType();
    back_ = newWriter(type, notify_.quiescedFn);
    handSettings(*back_);
    if (!descriptor_.local) {
      mounter_ = std::make_unique<Parcel::WriterSentry>(*debugHandler_, this, back_->rootPath());
      mounter_->event(eventInit_, false);
    }
    ok = back_->initialize("none");
  } catch (...) {
    mounter_.reset();
    back_.reset();
    initFailed(std::move(previous));
    throw;
  }
  if (!ok) {
    mounter_.reset();
    back_.reset();
    initFailed(std::move(previous));
    throw Lomi::InvalidInitializeException("failed to initialize collection {}", name_);
  }
}

// A reader, shadow or keyshadow starts on a placeholder; its sentry attaches
// the real back end once the writer's files are there.
template <TablePolicy OpsT>
void MirakMap<OpsT>::mountReader(std::unique_ptr<Back> previous) {
  MirakType const type = descriptor_.type;
  if (type != MirakType::shadow && type != MirakType::keyshadow && type != MirakType::reader) {
    Lomi::fmassert(*debugHandler_, "MirakMap", "init", "not a valid reader type:{}", type);
  }
  try {
    back_ = std::make_unique<MirakDummy<Ops>>(ops_, *debugHandler_, name_);
    handSettings(*back_);
  } catch (...) {
    initFailed(std::move(previous));
    throw;
  }
  previous.reset();
  try {
    Mem::NaoRootPath const root = rootPath();
    mounter_ = std::make_unique<Parcel::ReaderSentry>(*debugHandler_, root, this);
    mounter_->event(eventInit_, false);
  } catch (std::exception const& e) {
    if (std::getenv("Q7_CHROOT") == nullptr) {
      mounter_.reset();
      throw;
    }
    // Where the files can't be watched (a chroot without them), the
    // collection stays on its placeholder; tryAttach may still attach it.
    FMTRACE(*debugHandler_, 0, "MirakMap", "{} ignoring reader sentry failure (Q7_CHROOT): {}",
            name_, e.what());
  }
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::initFailed(std::unique_ptr<Back> previous) {
  try {
    Mem::NaoRootPath const probe(*debugHandler_, name_, false);
    (void)probe;
    back_ = std::make_unique<MirakDummy<Ops>>(ops_, *debugHandler_, name_, std::move(previous));
  } catch (Lomi::Exception const&) {
    back_ = std::move(previous);
  }
  if (back_) handSettings(*back_);
}

template <TablePolicy OpsT>
auto MirakMap<OpsT>::newWriter(std::string const& classType, std::function<void(bool)> quiesced)
    -> std::unique_ptr<Back> {
  if (descriptor_.local) {
    FMTRACE(*debugHandler_, 5, "MirakMap", "creating local MirakWriter {}", name_);
  }
  FMTRACE(*debugHandler_, 5, "MirakMap", "{} writer for {}", name_, classType);
  return std::make_unique<MirakWriter<Ops>>(*debugHandler_, name_.c_str(), descriptor_, ops_,
                                            std::move(quiesced));
}

template <TablePolicy OpsT>
auto MirakMap<OpsT>::newShadow(uint32_t options) -> std::unique_ptr<Back> {
  FMTRACE(*debugHandler_, 5, "MirakMap", "{} shadow options:{:#x}", name_, options);
  return std::make_unique<MirakShadow<Ops>>(*debugHandler_, name_, ops_, this, options);
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::handleDisconnect() {
  FMTRACE(*debugHandler_, 1, "MirakMap", "{} writer disconnected", name_);
  if (mode() != MirakType::shadow && mode() != MirakType::keyshadow) {
    Lomi::fmassert(*debugHandler_, "MirakMap", __func__, "wrong type:{}", mode());
  }
  if (mounter_) mounter_->event(eventDisconnect_, false);
}

template <TablePolicy OpsT>
bool MirakMap<OpsT>::disconnectedActiveReader() const {
  if (!back_ || isPlaceholder(back_.get())) return false;
  auto const* shadow = dynamic_cast<MirakShadowBase const*>(back_.get());
  return shadow && shadow->writerLost();
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::attach(std::string const& event) {
  if (mode() == MirakType::writer) {
    Lomi::fmassert(*debugHandler_, "MirakMap", __func__, "invoked for a writer");
  }
  // The back end in place (usually the placeholder) is the fallback of a
  // failed attempt.
  std::unique_ptr<Back> fallback = std::move(back_);
  // The new back end: a reader, the shadow that was already there, or a new
  // shadow.
  bool const shadowType =
      descriptor_.type == MirakType::shadow || descriptor_.type == MirakType::keyshadow;
  if (!shadowType) {
    back_ = std::make_unique<MirakReader<Ops>>(*debugHandler_, name_, ops_);
  } else if (fallback && !isPlaceholder(fallback.get()) &&
             (fallback->type() == MirakType::shadow || fallback->type() == MirakType::keyshadow)) {
    back_ = std::move(fallback);
    fallback = std::make_unique<MirakDummy<Ops>>(ops_, *debugHandler_, name_);
    handSettings(*fallback);
  } else {
    uint32_t options = 0;
    if (descriptor_.type == MirakType::keyshadow) options |= shadowFlagKeyOnly;
    if (descriptor_.reattach || event != eventInit_) options |= shadowFlagResume;
    if (descriptor_.shadowOption) options |= shadowFlagNotifyOnFlush;
    back_ = newShadow(options);
    if (!back_) {
      back_ = std::move(fallback);
      return;
    }
  }
  FMTRACE(*debugHandler_, 2, "MirakMap", "attempting to attach {} as {}", back_->rootPath(),
          descriptor_.type);
  bool ok;
  try {
    handSettings(*back_);
    ok = back_->initialize(event);
  } catch (...) {
    // The placeholder comes back, as after a failed attempt.
    back_ = std::move(fallback);
    throw;
  }
  if (ok) {
    // The client hears of the mount only now that its back end works.
    FMTRACE(*debugHandler_, 2, "MirakMap", "successful");
    fallback.reset();
    if (back_->type() == MirakType::reader) notify_.quiescedFn(true);
    notify_.mountStatusFn();
    return;
  }
  // A failed attempt: the fallback comes back, unless a shadow still flushes.
  FMTRACE(*debugHandler_, 1, "MirakMap", "initialize failed for {}", back_->rootPath());
  if (back_->mountStatus() != Mem::mountStatusFlushing) {
    back_ = std::move(fallback);
  } else {
    FMTRACE(*debugHandler_, 0, "MirakMap", "not deleting Mirak, waiting for flush to complete");
    fallback.reset();
  }
}

template <TablePolicy OpsT>
void MirakMap<OpsT>::tryAttach() const {
  traceRoot(__func__);
  if (!mounter_ || mode() == MirakType::writer) return;
  Mem::MountStatus const before = back_->mountStatus();
  if (before != Mem::mountStatusNotMounted) {
    FMTRACE(*debugHandler_, 5, "MirakMap", "{} is already mounted, mountStatus:{}", name_, before);
    return;
  }
  mounter_->event(eventTryAttach_, false);
  Mem::MountStatus const after = back_->mountStatus();
  if (after != before) {
    Lomi::Util::emitCanaryLog(*debugHandler_,
                              fmt::format("mounted {} mountStatus:{}", rootPath(), after));
  }
}

template <TablePolicy OpsT>
std::string MirakMap<OpsT>::owner() const {
  Mem::NaoRootPath const root = rootPath();
  std::string socketName;
  try {
    socketName = Parcel::OwnerFile(*debugHandler_, root, false).tunnetInfo().socketName();
  } catch (Lomi::Exception const& e) {
    Lomi::fmassert(*debugHandler_, "MirakMap", __func__, "corruption detected: {}", e.msg());
  }
  std::string ownerName;
  pid_t pid = 0;
  if (Parcel::WriterLock::ownerIsAlive(*debugHandler_, socketName, ownerName)) {
    if (auto name = Rusk::TunnetName::TunnetNameIs(socketName)) pid = name->pid;
  }
  return fmt::format("{}:{}", ownerName, pid);
}

}  // namespace Mirak

// The shadow back end that attach creates; it calls back into this file.
#include "Mirak/MirakShadow.h"
