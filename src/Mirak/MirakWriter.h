// Mirak::MirakWriter: the one writer of a table.
//
// It owns the slot file (SlotWriterTable), the index (WriterHashMap with its
// bucket file) and the change queue writer, and performs the data operations
// `write`, `remove`, `lookup` and the direct mode in store orders on which
// lock-free readers rest.
//
// Safety (one writer thread; readers in other processes map read-only):
//  1. An entry becomes visible to readers at the store of its predecessor's
//     link, and not before; everything in its slot is complete by then.
//  2. A slot's value changes only between two stores of its `versionFlags`:
//     either while LOOKASIDE is up (the whole new value is in the header's
//     lookaside slot first, so a reader always has one complete value to copy)
//     or while the slot is unreachable.
//  3. A removed slot keeps its rhash, value and `next` until it goes on the
//     free list; a reader inside it sees OCCUPIED fall or the word move, and
//     restarts.
//  4. Every publishing store (links, versionFlags, numSlots, numBuckets) is a
//     release store of the whole word or pair; no locked instruction, no
//     fence instruction on x86.
//  5. The queue hears of a change only after it is complete in the files.
//  6. Bit 0 of runtimeFlags is up while the table may be inconsistent; an
//     exception that escapes leaves it up, and the next validation fails.
#pragma once

#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include <fmt/format.h>
#include <fmt/ostream.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Atomics.h"
#include "Mem/CloneControl.h"
#include "Mem/RootPath.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/Counters.h"
#include "Mirak/MapDescriptor.h"
#include "Mirak/MirakInterface.h"
#include "Mirak/Operations.h"
#include "Mirak/SlotTable.h"
#include "Mirak/SlotWriter.h"
#include "Mirak/Util.h"
#include "Mirak/Validator.h"
#include "MirakCore/CriticalTaskClock.h"
#include "MirakCore/WriterHashMap.h"
#include "Parcel/KestorFile.h"
#include "Parcel/KestorId.h"
#include "Parcel/OwnerFile.h"
#include "Parcel/TunnetInfo.h"
#include "Parcel/WriterLock.h"
#include "Rusk/WriterRuskSm.h"
#include "Tessel/TesselFormat.h"

namespace Mirak {

template <TablePolicy OpsT>
class MirakWriter : public MirakInterface<OpsT> {
 public:
  using Ops = OpsT;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;
  using TesselWriter = typename Ops::TesselWriter;
  using Slots = SlotWriterTable<Value>;
  using SlotT = typename Slots::SlotT;
  using Map = MirakCore::WriterHashMap<Ops>;
  using Link = SlotLink;
  using QuiesceHandler = std::function<void(bool)>;
  static constexpr uint32_t kNoSlot = SlotTable::kNoSlot;

  // No file work here; that is left to initialize/attach.
  MirakWriter(Lomi::Platform::DebugHandler& handler, char const* name, MapDescriptor const& desc,
              Ops const& ops, QuiesceHandler quiesceHandler = {});
  ~MirakWriter() override;

  // --- lifecycle ---------------------------------------------------------
  //
  // Constructed (no files) -> initialize -> attached and serving -> detach
  // (files stay) -> constructed. cleanup ends a table: it removes the files.
  //
  // A restarted writer adopts the files it finds only if all of them exist,
  // carry its kestor, and validate; whatever can't be proved sound is
  // formatted again under a new generation (kestor high half + 1), which
  // tells readers that every file was made anew.

  // Checks the CPU (shared tables), then attach(). True, or throws
  // Lomi::InvalidInitializeException (a second live writer, a directory that
  // cannot be made, a failed re-format) or Lomi::MemoryResourceException.
  bool initialize(std::string const& event) override;
  // The whole start: holds the owner file's lock throughout, claims the
  // directory, adopts or re-formats, removes a stale "corruption-detected"
  // marker, opens the wake-up socket, and writes the kestor file last.
  void attach();
  // Adopts (reformat false) or re-formats the files and proves them sound;
  // on success records this writer in the owner file.
  bool attachAndValidate(bool reformat, Parcel::OwnerFile& ownerFile,
                         Parcel::TunnetInfo const& tunnetInfo);
  // Attaches the table's files under `kestor`: slots, then buckets, then the
  // queue. True exactly when all were new or all were kept: the files of one
  // table are only trusted together.
  bool attach(Parcel::KestorId kestor);
  // Checks that every file of the table exists in sane form, without
  // attaching; a failed check throws from the callee.
  bool validateFiles() override;
  // Lets go of the files; they stay for the next writer or the readers.
  void detach(bool force) override;
  // Removes every file of the table, also with a damaged owner file. Needs
  // (and takes, by force) the directory's writer rights.
  void cleanup() override;
  bool quiesced() const override { return true; }
  void handleQuiesced(bool quiesced) {
    if (quiesceHandler_) quiesceHandler_(quiesced);
  }
  bool clientQuiesced(std::string const& name) const override {
    return !name.empty() && tessel_.clientQuiesced(name) != 0;
  }
  // The wake-up socket's name, empty for tables without a queue and local
  // tables.
  std::string socketName() const { return rusk_ ? rusk_->socketName() : std::string(); }
  bool owner() const { return owner_; }

  // Audits the attached table with a Validator (chains, free list, counters,
  // queue) against `kestor` (0: any). True if the table is sound; false with
  // the reason in `error`, traced at level 0. Nothing is stored into the
  // files. A damaged table is reported, never thrown: corruption and failed
  // allocations of the audit end as false. Call on the writer's thread while
  // no write is open (not in direct mode).
  bool validate(Parcel::KestorId kestor, std::string& error, bool checkOwner);
  // validate(kestorId(), error, false); the reason of a failure is traced.
  bool validate() override;
  // The slot and bucket headers as text, for failure reports.
  std::string dumpHeaders() const;

  // --- data operations ---------------------------------------------------
  Value const* write(Value const& value, bool overwrite) override;
  bool remove(Key const& key, Value& removed) override;
  Value const* lookup(Key const& key, bool& found, void* destination) const override;
  bool first(Value& value, IterHint& hint) const override;
  bool next(Key const& key, Value& value, IterHint& hint) const override;
  Value* directWrite(Value const& value) override;
  Value* directUpdate(Key const& key) override;
  void directCommit() override;

  // Slot compaction on request: compacts to the target size of a shrink (two
  // to four times the occupancy, at least minSize()) if fewer than half of
  // the shrink threshold's slots are in use, and does nothing otherwise, or
  // for a fixed-size table, a table without shrinkSlots, or while the queue
  // marks a shrink that is still open. Runs outside a critical section.
  // Readers keep reading throughout. Precondition: attached, not in direct
  // mode (asserted). Throws Lomi::CorruptionDetectedException if the free
  // list and the counters disagree (nothing was moved then), and
  // Lomi::MemoryResourceException if the file cannot be remapped.
  void shrink();

  bool validateVersionAnchor() const override;
  void validateVersionAnchorHookIs(VersionAnchorHook hook) override { hook_ = hook; }
  Mem::CacheVersionAnchor getCacheVersionAnchor() const override {
    auto const& a = slots_.versionAnchor();
    return Mem::CacheVersionAnchor{a.word, a.offset};
  }
  void scratchpadIs(uint64_t value) override {
    Mem::storeRelease(slots_.header()->scratchpad, value);
  }
  uint64_t scratchpad() const override { return slots_.header()->scratchpad; }
  void criticalTaskCheckIs(bool check) override { criticalTaskCheck_ = check; }
  bool criticalTaskCheck() const override { return criticalTaskCheck_; }

  // --- accessors ---------------------------------------------------------
  uint32_t members() const override { return slots_.header() ? slots_.header()->occupiedSlots : 0; }
  uint32_t buckets() const override { return map_.numBuckets(); }
  uint32_t minSize() const override { return slots_.minSlots(); }
  uint32_t maxSize() const override { return slots_.maxSlots(); }
  uint32_t capacity() const override { return slots_.capacity(); }
  MirakType type() const override { return MirakType::writer; }
  Sequence sequence() const override { return tessel_.sequence(); }
  Mem::NaoRootPath rootPath() const override { return rootPath_; }
  std::string mirakName() const override { return rootPath_.dirName(); }
  Mem::MountStatus mountStatus() const override;
  Parcel::KestorId kestorId() const override { return kestorId_; }
  Writer::Counters writerCounters() const override;

  // The pieces, for the validator, tests and tools.
  Slots& slotTable() { return slots_; }
  Slots const& slotTable() const { return slots_; }
  Map& hashMap() { return map_; }
  Map const& hashMap() const { return map_; }
  TesselWriter& tesselWriter() { return tessel_; }
  TesselWriter const& tesselWriter() const { return tessel_; }
  Ops const& ops() const { return ops_; }
  bool inDirectMode() const { return directSlot_ != kNoSlot || directNew_; }

 protected:
  Lomi::Platform::DebugHandler& handler_;

 private:
  static std::string slotFilePath(Mem::NaoRootPath const& root) {
    return root.isLocal() ? std::string() : root.filePath("slots");
  }
  static typename Slots::Config slotConfig(MapDescriptor const& desc) {
    typename Slots::Config c;
    c.maxSlots = desc.size;
    c.fixedSize = desc.fixedSize;
    c.shrinkSlots = desc.shrinkSlots;
    c.constFlags = TesselWriter::hasQueue ? SlotTable::kConstFlagQueue : 0;
    c.valueTypeName = std::string(Ops::ValueOps::typeName());
    return c;
  }
  [[noreturn]] void assertUnbalanced(char const* what, Value const& value);
  [[noreturn]] void assertUnbalancedKey(Key const& key);
  // Allocates a free slot for an insert (steps 1-4 of the insert): grows the
  // slot file if need be and rebuilds the link pointers if the mapping moved.
  uint32_t allocSlot(uint32_t hash, Link*& prev, Link*& curr);
  SlotTable::SlotHead* reuseLookaside();
  // The overwrite of an occupied slot through the lookaside slot.
  void overwrite(SlotT& s, Value const& value);
  // The queue hears of a changed slot, then the sleeping readers: notify
  // never throws for want of room (the queue counts a loss instead), and the
  // wake-up sends nothing when no reader sleeps.
  void announce(uint32_t index) {
    tessel_.notify(index);
    if (rusk_) rusk_->notify(tessel_.sequence());
  }
  // Slot compaction with shrink threshold `threshold` (0: nothing to do).
  void doMaybeShrinkSlots(uint32_t threshold);
  // Unlinks every slot at or above `newNumSlots` from the free list.
  void purgeFreeSlots(uint32_t newNumSlots);
  // Moves the entry of slot `from` to `to`, the head of the free list;
  // `prev` is the link that points at `from`.
  void move(uint32_t from, uint32_t to, Link* prev);

  Ops ops_;
  bool localMem_;
  Mem::NaoRootPath rootPath_;
  // Why the last attach could not adopt the files, for the start's trace.
  std::string attachError_;
  Parcel::KestorId kestorId_;
  uint32_t directSlot_ = kNoSlot;
  Link* directPrevLink_ = nullptr;
  bool directNew_ = false;
  // Statistics, not table state: a const lookup still counts itself.
  mutable Writer::Counters counters_;
  QuiesceHandler quiesceHandler_;
  bool criticalTaskCheck_;
  bool shrinkBuckets_;
  Slots slots_;
  Map map_;
  TesselWriter tessel_;
  bool owner_ = false;
  // Held from the take of the directory to detach: it says that this writer lives.
  Parcel::WriterLock::Lifetime lifetime_;
  std::string typeName_;
  VersionAnchorHook hook_ = nullptr;
  // Readers of tables with a queue connect here to be woken; absent for
  // tables without a queue and for local tables.
  std::unique_ptr<Rusk::WriterRuskSm> rusk_;
};

namespace Impl {
// The high half of the kestor ids a process makes: two tables of one process
// get different ids.
inline std::atomic<uint16_t> kestorCounter{0};
}  // namespace Impl

// ---------------------------------------------------------------------------

template <TablePolicy OpsT>
MirakWriter<OpsT>::MirakWriter(Lomi::Platform::DebugHandler& handler, char const* name,
                               MapDescriptor const& desc, Ops const& ops,
                               QuiesceHandler quiesceHandler)
    : handler_(handler),
      ops_(ops),
      localMem_(desc.local),
      rootPath_(handler, name, desc.local),
      quiesceHandler_(std::move(quiesceHandler)),
      criticalTaskCheck_(desc.criticalTaskCheck),
      shrinkBuckets_(desc.shrinkBuckets_),
      slots_(handler, rootPath_.str(), slotFilePath(rootPath_), slotConfig(desc),
             ops_.keyOps.hashSeed, counters_),
      map_(handler, rootPath_.isLocal() ? std::string() : rootPath_.path(), ops_, slots_, counters_,
           criticalTaskCheck_),
      tessel_(rootPath_.isLocal() ? std::string() : rootPath_.path(), handler),
      typeName_(Ops::ValueOps::typeName()) {
  if (TesselWriter::hasQueue && !localMem_) rusk_ = std::make_unique<Rusk::WriterRuskSm>(handler);
  // Given, negated: pruneQueue asks for PruneMode::prune (0).
  tessel_.pruneModeIs(static_cast<Tessel::PruneMode>(!desc.pruneQueue));
  // What a pruning queue may drop: what every reader that keeps up has read.
  if constexpr (requires(TesselWriter& t) { t.pruneFloorIs([] { return Tessel::Sequence(); }); }) {
    if (rusk_) tessel_.pruneFloorIs([r = rusk_.get()] { return r->pruneFloor(); });
  }
}

template <TablePolicy OpsT>
MirakWriter<OpsT>::~MirakWriter() {
  detach(false);
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::initialize(std::string const& event) {
  FMTRACE(handler_, 5, "MirakWriter", "{} event:{}", rootPath_, event);
  if (!localMem_) {
    std::string why;
    FMASSERT(Mem::Atomics::checkCpuSupport(why), handler_, "MirakWriter",
             "Hardware does not support Atomics");
  }
  if (this->initialized()) return true;
  attach();
  this->initializedIs(true);
  return true;
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::attach() {
  // 1: from here to the end the directory is held.
  FMTRACE(handler_, 5, "MirakWriter", "localMem_:{} rootPath:{}", localMem_, rootPath_);
  Parcel::KestorFile kestorFile(handler_, rootPath_, localMem_);
  Parcel::OwnerFile ownerFile(handler_, rootPath_, localMem_);
  ownerFile.lock();
  Parcel::TunnetInfo tunnetInfo;
  if (localMem_) {
    // 2
    kestorId_ = Parcel::KestorId(static_cast<uint16_t>(::getpid()), 0);
  } else {
    // 3
    Parcel::WriterLock::acquireWriterLock(handler_, rootPath_, ownerFile, false, socketName(),
                                          &lifetime_);
    if (rusk_) tunnetInfo = Parcel::TunnetInfo(rusk_->socketName(), rusk_->tableId());
    kestorId_ = kestorFile.read();
    if (kestorId_.isZero()) {
      kestorId_ = Parcel::KestorId(static_cast<uint16_t>(::getpid()), Impl::kestorCounter++);
    }
  }
  // 4
  bool const reformat = !ownerFile.validate();
  if (reformat) {
    FMTRACE(handler_, 1, "MirakWriter",
            "owner file validation failed, dumping owner file string: {}",
            ownerFile.headerToString());
  }
  // 5
  ownerFile.typeNameIs(typeName_);
  ownerFile.parcelTypeIs(Parcel::ParcelType::mirak);
  // 6
  if (!attachAndValidate(reformat, ownerFile, tunnetInfo)) {
    FMASSERT(!reformat, handler_, "MirakWriter", "failed to attach to and validate new files");
    attachAndValidate(true, ownerFile, tunnetInfo);
  }
  // 7: a marker left by a reader is stale once the table proved sound.
  Mirak::Util::removeCorruptionFile(handler_, rootPath_);
  // 8: readers can connect from now on.
  if (rusk_) rusk_->doEnableListen();
  // 9: the last step of the file work. A writer that dies before it leaves a
  // kestor file that doesn't match the files, or none.
  kestorFile.write(kestorId_);
  // 10
  if (!localMem_) {
    FMTRACE(handler_, 1, "MirakWriter", "success {} capacity:{} kestorId:{} mtime:{} tunnetInfo:{}",
            rootPath_, capacity(), kestorId_, kestorFile.mtime(), tunnetInfo);
  }
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::attachAndValidate(bool reformat, Parcel::OwnerFile& ownerFile,
                                          Parcel::TunnetInfo const& tunnetInfo) {
  std::string error;
  if (!reformat) {
    // 1
    if (!attach(kestorId_)) {
      FMTRACE(handler_, 0, "MirakWriter", "failed to attach to existing files of {}: {}", rootPath_,
              attachError_);
      FMTRACE(handler_, 0, "MirakWriter", "{}", dumpHeaders());
      FMTRACE(handler_, 0, "MirakWriter", "owner file: {}", ownerFile.headerToString());
      return false;
    }
    // 2
    if (!validate(kestorId_, error, false)) {
      if (Mirak::Util::runningOnPhysicalDut() && Mirak::Util::strictValidation()) {
        // Keep the evidence: the table goes into a core file, and the next
        // start begins afresh because the kestor file is gone.
        Parcel::KestorFile(handler_, rootPath_, localMem_).remove();
        Lomi::Util::includeShmemInCore(slots_.wrapper().base(), slots_.wrapper().fileSize(), true);
        throw Lomi::InvalidInitializeException(
            "failed initial validation of {} after re-attaching: {}", rootPath_, error);
      }
      // The reason names the check and its numbers; without it the operator
      // learns only that the table was started afresh.
      FMTRACE(handler_, 0, "MirakWriter", "failed to validate existing files of {}: {}", rootPath_,
              error);
      FMTRACE(handler_, 0, "MirakWriter", "{}", dumpHeaders());
      FMTRACE(handler_, 0, "MirakWriter", "owner file: {}", ownerFile.headerToString());
      return false;
    }
  } else {
    // 1 - 3: a new generation; every file formats itself since the stored
    // kestor differs.
    FMTRACE(handler_, 1, "MirakWriter", "all entries from {} will be lost", rootPath_);
    kestorId_ = kestorId_.reformatted();
    attach(kestorId_);
    // 4
    if (!validate(kestorId_, error, false)) {
      throw Lomi::InvalidInitializeException("failed validation of new files of {}: {}", rootPath_,
                                             error);
    }
  }
  // The finish.
  if (localMem_) return true;
  ownerFile.tunnetInfoIs(tunnetInfo);
  bool const ok = ownerFile.validate(error);
  FMASSERT(ok, handler_, "MirakWriter", "wrote to owner file but validation failed: {}", error);
  owner_ = true;
  if (reformat) FMTRACE(handler_, 1, "MirakWriter", "re-formatted successfully");
  return ok;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::attach(Parcel::KestorId kestor) {
  counters_ = Writer::Counters();
  int const a = slots_.attach(kestor);
  int const b = map_.bucketWriter().attach(kestor.value());
  map_.thresholdsIs();
  // A table without a queue has no third file: the dummy answers 0, which
  // leaves the OR of the results alone.
  int const c = tessel_.attach(kestor.value(), slots_.header()->mostSlots);
  int const all = a | b | c;
  if (all == Slots::kNewFile || all == Slots::kExistingFile) return true;
  // Files only count together: say which were adopted, which made anew and
  // which re-formatted, so a refused adoption names its file.
  auto const what = [](int r) {
    return r == Slots::kNewFile        ? "new"
           : r == Slots::kExistingFile ? "adopted"
           : r == Slots::kReformatted  ? "re-formatted"
           : r == 0                    ? "none"
                                       : "mixed";
  };
  attachError_ = fmt::format("slots {}, buckets {}, queue {} (with kestor {})", what(a), what(b),
                             what(c), kestor);
  return false;
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::detach(bool) {
  FMTRACE(handler_, 5, "MirakWriter", "owner:{} localMem_:{} rootPath:{}", owner_, localMem_,
          rootPath_);
  if (directNew_) {
    Lomi::fmassert(handler_, "MirakWriter", __func__,
                   "unbalanced directSlot:{} containing value:{} - Make sure the DirectIs/Commit "
                   "are properly paired!",
                   directSlot_, Ops::valueText(slots_.slots()[directSlot_].value));
  }
  tessel_.onDetach();
  if (owner_) {
    // Clear the owner record, but only if it still names this process: a
    // writer that took the directory over (by cleanup's force) keeps its own.
    try {
      Parcel::OwnerFile ownerFile(handler_, rootPath_, localMem_);
      auto const record = ownerFile.record();
      std::string const name = record ? record->tunnetInfo.socketName() : std::string();
      bool const mine = Parcel::WriterLock::ownerIsMe(handler_, name) ||
                        (name.empty() && record && record->writerPid == ::getpid());
      if (mine) {
        FMTRACE(handler_, 5, "MirakWriter", "clearing tunnetInfo");
        ownerFile.tunnetInfoIs(Parcel::TunnetInfo());
      }
    } catch (Lomi::CorruptionDetectedException const& e) {
      FMTRACE(handler_, 0, "MirakWriter", "ignoring owner file corruption:{}", e.msg());
    }
    owner_ = false;
  }
  if (rusk_) rusk_->close();
  slots_.detach();
  map_.bucketWriter().detach();
  // Last: from here on another writer may take the directory.
  lifetime_.release();
  this->initializedIs(false);
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::cleanup() {
  // 1
  FMTRACE(handler_, 5, "MirakWriter", "owner:{} localMem_:{} rootPath:{}", owner_, localMem_,
          rootPath_);
  // 2
  Parcel::OwnerFile ownerFile(handler_, rootPath_, localMem_);
  ownerFile.lock();
  if (!localMem_) {
    Parcel::WriterLock::acquireWriterLock(handler_, rootPath_, ownerFile, true, socketName());
  }
  // 3: a damaged owner file does not stop the cleaning.
  owner_ = ownerFile.validate();
  if (!owner_) {
    FMTRACE(handler_, 1, "MirakWriter",
            "owner file corruption detected but continuing with cleanup, dumped owner file: {}",
            ownerFile.headerToString());
  }
  // 4
  FMTRACE(handler_, 1, "MirakWriter", "removing Mirak files in {}", rootPath_);
  // 5
  Mirak::Util::removeCorruptionFile(handler_, rootPath_);
  tessel_.cleanup();
  map_.bucketWriter().cleanup();
  if (!localMem_) {
    FMTRACE(handler_, 3, "MirakWriter", "removing file: {}", slots_.wrapper().getFilename());
    if (!slots_.wrapper().unlink()) {
      throw Lomi::InvalidInitializeException("cannot remove the slot file of {}: {}", rootPath_,
                                             slots_.wrapper().lastError());
    }
  }
  Parcel::KestorFile(handler_, rootPath_, localMem_).remove();
  if (!localMem_) {
    for (char const* name :
         {Mem::Util::Clone::CONTROL_FILENAME, Parcel::WriterLock::kLifetimeFile}) {
      std::string const path = rootPath_.filePath(name);
      if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        throw Lomi::InvalidInitializeException("cannot remove {}: {}", path, std::strerror(errno));
      }
    }
    lifetime_.release();
  }
  ownerFile.remove();
  // 6
  owner_ = false;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::validateFiles() {
  map_.bucketWriter().validateFile();
  if (!localMem_) {
    Mirak::Util::validateFile(handler_, slots_.wrapper().getFilename(),
                              Slots::Geometry::headerSize);
  }
  tessel_.validateFile();
  Parcel::KestorFile(handler_, rootPath_, localMem_).validate(kestorId_);
  Parcel::OwnerFile(handler_, rootPath_, localMem_).validateFile();
  Mirak::Util::removeCorruptionFile(handler_, rootPath_);
  return true;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::validate(Parcel::KestorId kestor, std::string& error, bool checkOwner) {
  // 1
  Validator<Ops, MirakWriter> validator(handler_, *this);
  // 2: first and next check rhash and mark each slot while it is known.
  // 6 is the guard's: the map never keeps a pointer to a dead validator, also
  // when an exception that is not a failed check leaves.
  struct Known {
    Map& map;
    ~Known() { map.validatorIs(nullptr); }
  } known{map_};
  map_.validatorIs(&validator);
  bool ok;
  try {
    // 3
    ok = validator.doValidate(kestor);
    error = validator.error();
  } catch (Lomi::CorruptionDetectedException const& e) {
    error = e.msg();
    FMTRACE(handler_, 0, "MirakWriter", "caught: {}", error);
    ok = false;
  } catch (Lomi::MemoryResourceException const& e) {
    error = e.msg();
    FMTRACE(handler_, 0, "MirakWriter", "caught: {}", error);
    ok = false;
  }
  // 4
  if (!ok) FMTRACE(handler_, 0, "MirakWriter", "Mirak {} validation failed: {}", rootPath_, error);
  // 5
  if (checkOwner) ok = Parcel::OwnerFile(handler_, rootPath_, localMem_).validate() && ok;
  return ok;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::validate() {
  std::string error;
  bool const ok = validate(kestorId_, error, false);
  if (!ok) FMTRACE(handler_, 0, "MirakWriter", "{}: {}", rootPath_, error);
  return ok;
}

template <TablePolicy OpsT>
std::string MirakWriter<OpsT>::dumpHeaders() const {
  SlotTable::Header const* h = slots_.header();
  // The queue's place at the end stays empty, also in a table with a queue:
  // its headers have a dump of their own (TesselWriter::headersToString).
  return fmt::format("Mirak table \"{}\"\n\n\n{}\n\n{}\n\n", rootPath_.name(),
                     h ? h->toString() : std::string("slot table: not attached"),
                     map_.bucketWriter().toString());
}

template <TablePolicy OpsT>
Mem::MountStatus MirakWriter<OpsT>::mountStatus() const {
  Mem::MountStatus status = this->initialized() ? Mem::MountStatus(1) : Mem::MountStatus(0);
  FMTRACE(handler_, 5, "MirakWriter", "{} mountStatus:{}", rootPath_, int(status));
  return status;
}

template <TablePolicy OpsT>
Writer::Counters MirakWriter<OpsT>::writerCounters() const {
  Writer::Counters c = counters_;
  c.slotMappedSize = slots_.wrapper().fileSize();
  c.bucketMappedSize = map_.bucketWriter().wrapper().fileSize();
  c.sequencesProcessed = tessel_.sequence();
  if (rusk_) {
    c.ruskCount = rusk_->ruskCount();
    c.readers = rusk_->readers();
    c.sleepingReaders = rusk_->sleepingReaders();
  }
  c.tesselMappedSize = tessel_.headerMappedSize() + tessel_.primaryMappedSize() +
                       tessel_.secondaryMappedSize();
  return c;
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::assertUnbalanced(char const* what, Value const& value) {
  SlotT const& s = slots_.slots()[directSlot_ == kNoSlot ? 0 : directSlot_];
  slots_.versionAnchor().set(s.versionFlags, &s.versionFlags, slots_.base());
  Lomi::fmassert(handler_, "MirakWriter", what,
                 "unbalanced directSlot:{} containing value:{} when {} value:{} - Make sure the "
                 "DirectIs/Commit are properly paired!",
                 directSlot_, Ops::valueText(s.value), what, Ops::valueText(value));
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::assertUnbalancedKey(Key const& key) {
  SlotT const& s = slots_.slots()[directSlot_ == kNoSlot ? 0 : directSlot_];
  Lomi::fmassert(handler_, "MirakWriter", "remove",
                 "unbalanced directSlot:{} containing value:{} when removing key:{} - Make sure "
                 "the DirectIs/Commit are properly paired!",
                 directSlot_, Ops::valueText(s.value), Ops::keyText(key));
}

template <TablePolicy OpsT>
uint32_t MirakWriter<OpsT>::allocSlot(uint32_t hash, Link*& prev, Link*& curr) {
  SlotTable::Header* h = slots_.header();
  // 1: a grow may move the mapping. Links inside the slot file become offsets
  // and are rebuilt afterwards; bucket links do not move.
  if (h->freeSlots == kNoSlot) {
    char* const oldBase = slots_.base();
    uint64_t const used = slots_.usedBytes();
    auto toOffset = [&](Link* l) -> int64_t {
      char* p = reinterpret_cast<char*>(l);
      return (p >= oldBase + Slots::Geometry::headerSize && p < oldBase + used) ? p - oldBase : -1;
    };
    int64_t const prevOffset = toOffset(prev);
    int64_t const currOffset = toOffset(curr);
    if (!slots_.grow()) slots_.alloc();
    h = slots_.header();
    // The queue keeps one back reference per slot the table ever had. If its
    // header cannot grow now, the notify of a slot beyond it tries again and
    // tells the readers to sweep if that fails too: the write goes on.
    (void)tessel_.mostSlotsIs(h->mostSlots);
    // 4
    if (slots_.base() != oldBase) {
      if (prevOffset >= 0) prev = reinterpret_cast<Link*>(slots_.base() + prevOffset);
      if (currOffset >= 0) curr = reinterpret_cast<Link*>(slots_.base() + currOffset);
    }
  }
  uint32_t const index = h->freeSlots;
  SlotT& s = slots_.slots()[index];
  // 2
  Mem::storeRelease(s.rhash, Lomi::Util::reverse(hash));
  // 3: take the slot off the free list.
  Mem::storeRelease(h->freeSlots, s.link.next);
  Mem::storeRelease(h->occupiedSlots, h->occupiedSlots + 1);
  counters_.slotsAllocated++;
  return index;
}

// The lookaside slot, ready for a new value. The release fence orders the
// last store of its previous use, the store that lowered LOOKASIDE in that
// slot's word (overwrite step 4, directCommit step 4), before the stores that
// follow into the lookaside: a reader still copying the earlier value out of
// it must be able to see that word move once it can see a new byte here, or
// it would take a torn copy for a whole one. A release store orders only what
// precedes it, so without the fence a weakly ordered processor may let the
// new bytes overtake it. On x86 the fence is a compiler barrier.
template <TablePolicy OpsT>
SlotTable::SlotHead* MirakWriter<OpsT>::reuseLookaside() {
  Mem::releaseFence();
  return slots_.header()->lookaside();
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::overwrite(SlotT& s, Value const& value) {
  SlotTable::SlotHead* const look = reuseLookaside();
  // 1: the whole new value goes to the lookaside slot first.
  Mem::storeRelease(look->rhash, s.rhash);
  std::memcpy(reinterpret_cast<char*>(look) + sizeof(SlotTable::SlotHead), &value, sizeof(Value));
  // 2: LOOKASIDE rises; readers take the value from the header from here on.
  // The fence keeps the copy of step 3 from becoming visible before this word
  // on a weakly ordered processor (a release store orders only what precedes
  // it); on x86 it is a compiler barrier.
  Mem::storeRelease(s.versionFlags, s.versionFlags + 2);
  Mem::releaseFence();
  // 3: the slot may be torn while LOOKASIDE is up.
  std::memcpy(&s.value, &value, sizeof(Value));
  // 4: LOOKASIDE falls; the word has moved by 4.
  Mem::storeRelease(s.versionFlags, (s.versionFlags + 2) | SlotTable::OCCUPIED);
}

template <TablePolicy OpsT>
auto MirakWriter<OpsT>::write(Value const& value, bool overwriteIt) -> Value const* {
  Key const key = Ops::key(value);
  uint32_t const hash = ops_.hash(key);
  uint32_t const bucket = map_.bucketOf(hash);
  if (inDirectMode()) assertUnbalanced("writing", value);
  typename Slots::CriticalSectionAnchor anchor(&slots_);
  Link* prev;
  Link* curr;
  if (map_.find(key, bucket, &prev, &curr, hash)) {
    uint32_t const index = prev->next;
    SlotT& s = *Map::slotOf(curr);
    FMTRACE(handler_, 9, "MirakWriter", "existing {} bucket:{} slot:{} next:{}", Ops::keyText(key),
            bucket, index, s.link.next);
    if (!overwriteIt) return &s.value;
    overwrite(s, value);
    counters_.overwrites++;
    // 5
    announce(index);
    return &s.value;
  }
  // Insert. 1-4: a free slot, rhash, off the free list.
  uint32_t const index = allocSlot(hash, prev, curr);
  SlotT& s = slots_.slots()[index];
  // 5: the new entry points into the chain; nobody points at it yet.
  Mem::storeRelease(s.link, Link{s.link.version + Link::kVersionStep, prev->next});
  // 6: defensive: a free slot is never OCCUPIED.
  if (s.versionFlags & SlotTable::OCCUPIED) {
    SlotTable::SlotHead* const look = reuseLookaside();
    Mem::storeRelease(look->rhash, s.rhash);
    std::memcpy(reinterpret_cast<char*>(look) + sizeof(SlotTable::SlotHead), &value, sizeof(Value));
  }
  // 7: the value, inside the seqlock of its word (fence: as in overwrite).
  Mem::storeRelease(s.versionFlags, s.versionFlags + 2);
  Mem::releaseFence();
  std::memcpy(&s.value, &value, sizeof(Value));
  Mem::storeRelease(s.versionFlags, (s.versionFlags + 2) | SlotTable::OCCUPIED);
  // 8: publish the entry.
  Mem::storeRelease(*prev, Link{prev->version + Link::kVersionStep, index});
  FMTRACE(handler_, 9, "MirakWriter", "new {} bucket:{} slot:{} next:{}", Ops::keyText(key), bucket,
          index, s.link.next);
  counters_.inserts++;
  // 9: buckets grow after the entry is visible.
  if (members() > map_.growThreshold()) map_.growBuckets();
  // 10: the queue hears of it last.
  announce(index);
  return &slots_.slots()[index].value;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::remove(Key const& key, Value& removed) {
  // 1
  uint32_t const hash = ops_.hash(key);
  uint32_t const bucket = map_.bucketOf(hash);
  if (inDirectMode()) assertUnbalancedKey(key);
  // 2: a miss never touches runtimeFlags.
  Link* prev;
  Link* curr;
  if (!map_.find(key, bucket, &prev, &curr, hash)) {
    FMTRACE(handler_, 9, "MirakWriter", "{} bucket:{} not found", Ops::keyText(key), bucket);
    return false;
  }
  // 3
  typename Slots::CriticalSectionAnchor anchor(&slots_);
  uint32_t const index = prev->next;
  SlotT& s = *Map::slotOf(curr);
  // 4
  removed = s.value;
  // 5: unlink. A reader inside the slot still follows its old next.
  Mem::storeRelease(*prev, Link{prev->version + Link::kVersionStep, s.link.next});
  // 6
  uint32_t const threshold = slots_.dealloc(index);
  counters_.removes++;
  // 7
  announce(index);
  // 8
  FMTRACE(handler_, 9, "MirakWriter", "{} bucket:{} slot:{}", Ops::keyText(key), bucket, index);
  // 9: slots shrink before buckets.
  doMaybeShrinkSlots(threshold);
  // 10
  if (shrinkBuckets_ && members() < map_.shrinkThreshold()) map_.shrinkBuckets();
  // 11
  return true;
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::shrink() {
  SlotTable::Header const* h = slots_.header();
  if (!h) throw Lomi::RuntimeException("{}: shrink of a table that is not attached", rootPath_);
  FMASSERT(!inDirectMode(), handler_, "MirakWriter",
           "shrink in direct mode, directSlot:{} - Make sure the DirectIs/Commit are properly "
           "paired!",
           directSlot_);
  uint32_t const threshold = slots_.currentShrinkThreshold();
  doMaybeShrinkSlots(h->occupiedSlots < threshold / 2 ? threshold : 0);
}

// SLOT COMPACTION
//
// A table that emptied out moves the entries of its upper slots into free
// slots below a target size N and cuts the slot file down to N slots, while
// readers read and shadows follow the queue. Steps:
//   1. threshold 0: nothing to do.
//   2. a shrink that the queue still marks as running (one that was cut short
//      by an exception) is not run over: skip, the next remove tries again.
//   3. N = max(minSlots, 2^(floor(log2 O) + 2)) for O occupied slots (0 for
//      an empty table): two to four times the occupancy, so the table can
//      grow at once without bouncing back. N < threshold: a SUPER SHRINK, the
//      table fell past the next power of two in one step (shrinks skipped).
//   4. purgeFreeSlots(N): the free list keeps only slots below N, in their
//      order, so every move goes strictly down.
//   5. the queue opens its corral: index changes from here on are moves, not
//      key changes.
//   6. the 10 ms deadline of the critical tasks.
//   7. every OCCUPIED slot F >= N, ascending, moves to the head of the free
//      list (move, below). Between two moves the table is consistent, and
//      the critical tasks may run; they must not call into this table.
//   8. the queue closes the corral and re-issues the moved entries' live
//      notifications after it.
//   9. numSlots = (version + 1, N) in one store, before the cut: readers stop
//      using the tail before it goes (SlotWriterTable::shrinkTo).
//  10. the mapping shrinks; the tail's memory goes back as a hole in the file,
//      which keeps its length: a reader on an older mapping reads zeros there
//      and never faults.
//  11. counters. `mostSlots` stays: it is a high-water mark.
// Cost: linear in capacity - N, paid in one call.
template <TablePolicy OpsT>
void MirakWriter<OpsT>::doMaybeShrinkSlots(uint32_t threshold) {
  // 1
  if (threshold == 0) return;
  // 2
  if constexpr (TesselWriter::hasQueue) {
    if (tessel_.shrinkMarker() != 0) {
      FMTRACE(handler_, 5, "MirakWriter", "shrink started, ignoring shrinkThreshold:{}", threshold);
      return;
    }
  }
  SlotTable::Header* const h = slots_.header();
  // 3: O < threshold / 2 <= 2^30, so the shift stays below 32.
  uint32_t const occupied = h->occupiedSlots;
  uint32_t const p = occupied == 0 ? 0 : uint32_t(1) << (std::bit_width(occupied) + 1);
  uint32_t const n = std::max(slots_.minSlots(), p);
  FMTRACE(handler_, 5, "MirakWriter", "threshold:{} shrinkThreshold:{}{}", n, threshold,
          threshold > n ? " SUPER SHRINK!" : "");
  uint32_t const oldCapacity = slots_.capacity();
  // 4
  purgeFreeSlots(n);
  // 5
  tessel_.markShrinkStart();
  // The table is consistent between two moves; if a critical task throws
  // between them, the corral still closes on the way out, or every later
  // shrink would find the marker set and skip.
  struct CorralCloser {
    TesselWriter& tessel;
    bool open = true;
    ~CorralCloser() {
      if (open) tessel.markShrinkEnd();
    }
  } corral{tessel_};
  // 6
  MirakCore::CriticalTaskClock clock(criticalTaskCheck_);
  // 7: the mapping does not move before step 10.
  uint64_t moved = 0;
  for (uint32_t from = n; from < oldCapacity; from++) {
    SlotT& s = slots_.slots()[from];
    if (!(s.versionFlags & SlotTable::OCCUPIED)) {
      FMTRACE(handler_, 9, "MirakWriter", "skipping not occupied slot:{}", from);
      continue;
    }
    slots_.versionAnchor().set(s.versionFlags, &s.versionFlags, slots_.base());
    Key const key = Ops::key(s.value);
    uint32_t const hash = ops_.hash(key);
    uint32_t const bucket = map_.bucketOf(hash);
    Link* prev = nullptr;
    Link* curr = nullptr;
    bool const found = map_.find(key, bucket, &prev, &curr, hash);
    FMASSERT(found, handler_, "MirakWriter", "fromSlot:{} key not found", from);
    // The key found must be this slot's: relinking a link that points
    // elsewhere would lose an entry.
    FMASSERT(prev != nullptr && prev->next == from, handler_, "MirakWriter",
             "fromSlot:{} not referenced", from);
    move(from, h->freeSlots, prev);
    moved++;
    clock.tick();
  }
  // 8
  corral.open = false;
  tessel_.markShrinkEnd();
  // 9, 10
  FMTRACE(handler_, 5, "MirakWriter", "newNumSlots:{}", n);
  slots_.shrinkTo(n);
  // 11
  FMTRACE(handler_, 2, "MirakWriter", "{} from {} slots to {}", slots_.name(), oldCapacity, n);
  FMTRACE(handler_, 5, "MirakWriter", "at threshold:{} done", threshold);
  counters_.slotsMoved += moved;
}

// The free list is the writer's alone (readers never walk it); the link
// stores keep the version rule of every link all the same.
template <TablePolicy OpsT>
void MirakWriter<OpsT>::purgeFreeSlots(uint32_t newNumSlots) {
  SlotTable::Header* const h = slots_.header();
  uint32_t const capacity = slots_.capacity();
  // 1
  FMASSERT(newNumSlots < capacity, handler_, "MirakWriter", "bad threshold: {} numSlots:{}",
           newNumSlots, capacity);
  FMASSERT(h->freeSlots != kNoSlot, handler_, "MirakWriter", "free-list is empty");
  // 2: a list longer than the table has a cycle; the count check below
  // reports it.
  uint32_t count = 0;
  uint32_t prevIndex = kNoSlot;
  for (uint32_t index = h->freeSlots; index != kNoSlot && count <= capacity;) {
    count++;
    SlotT& s = slots_.slots()[index];
    uint32_t const next = s.link.next;
    if (index >= newNumSlots) {
      // 3: unlinked; the predecessor stays.
      FMTRACE(handler_, 7, "MirakWriter", "removing slot id {} from free-list", index);
      if (prevIndex != kNoSlot) {
        Link& p = slots_.slots()[prevIndex].link;
        Mem::storeRelease(p, Link{p.version + Link::kVersionStep, next});
      } else {
        Mem::storeRelease(h->freeSlots, next);
      }
    } else {
      // 4
      prevIndex = index;
    }
    index = next;
  }
  // 5
  uint32_t const stored = h->numSlots.value;
  if (count + h->occupiedSlots != stored) {
    throw Lomi::CorruptionDetectedException(
        "numSlots mismatch, length of freeList: {}, occupiedSlots: {} do not add up to numSlots: "
        "{}",
        count, h->occupiedSlots, stored);
  }
}

// Store order of a move (readers walk the chain throughout):
//   2: to.rhash; header freeSlots = to.next (the slot leaves the free list)
//   3: the value into `to`, which no chain reaches yet
//   4: to.versionFlags = (word + 4) | OCCUPIED, one store: a reader that held
//      `to` from an earlier life sees its word move
//   5: to.link = (version + 4, from.next): the copy points into the chain
//   6: prev = (version + 4, to): the chain runs through `to`. The entry is
//      reachable at both places for a reader in flight, with equal contents
//   7: notify(to): shadows hear of the new place
//   8: tombstone(from): the old place is retired in the queue, so the next
//      notification of `from` is not taken for a removal of the key
//   9: from.link = (version + 4, from.next), then from.versionFlags loses
//      OCCUPIED. The link keeps its target, so a reader that passes through
//      `from` still reaches the rest of the chain; its version moves so that
//      a reader standing on `from` (it loaded from.link and will check that
//      version after reading the next slot) restarts when it comes back. Without
//      it, a later move of the next slot would retire that slot under a reader
//      whose link check still passes: a false "not marked as occupied".
//      A reader inside `from` sees its word move and restarts.
//  10: notify(from)
// `from` does not go back on the free list: it lies beyond the new size.
template <TablePolicy OpsT>
void MirakWriter<OpsT>::move(uint32_t from, uint32_t to, Link* prev) {
  // 1: an empty list fails the first test already; the second is a guard.
  FMASSERT(to < from, handler_, "MirakWriter",
           "should always move entries to lower section fromSlotId:{} toSlotId:{}", from, to);
  FMASSERT(to != kNoSlot, handler_, "MirakWriter", "not valid toSlotId:{}", to);
  SlotTable::Header* const h = slots_.header();
  SlotT& src = slots_.slots()[from];
  SlotT& dst = slots_.slots()[to];
  // 2
  Mem::storeRelease(dst.rhash, src.rhash);
  Mem::storeRelease(h->freeSlots, dst.link.next);
  // 3
  std::memcpy(static_cast<void*>(&dst.value), &src.value, sizeof(Value));
  // 4: the release store keeps the copy before the word.
  if (dst.versionFlags & SlotTable::OCCUPIED) {
    // Defensive, as in the insert: a free slot is never OCCUPIED.
    Mem::storeRelease(dst.versionFlags, dst.versionFlags + 2);
    Mem::storeRelease(dst.versionFlags, dst.versionFlags + 2);
  } else {
    Mem::storeRelease(dst.versionFlags, (dst.versionFlags + 4) | SlotTable::OCCUPIED);
  }
  // 5
  Mem::storeRelease(dst.link, Link{dst.link.version + Link::kVersionStep, src.link.next});
  FMTRACE(handler_, 7, "MirakWriter", "fromSlotId:{} toSlotId:{}", from, to);
  FMTRACE(handler_, 9, "MirakWriter", "moving fromSlot:{} toSlot:{}", from, to);
  // 6: from here on the chain runs through the new slot.
  Mem::storeRelease(*prev, Link{prev->version + Link::kVersionStep, to});
  // 7
  announce(to);
  // 8
  tessel_.tombstone(from);
  // 9: the retired slot looks changed to every reader that stands on it.
  Mem::storeRelease(src.link, Link{src.link.version + Link::kVersionStep, src.link.next});
  Mem::storeRelease(src.versionFlags, src.versionFlags & ~SlotTable::OCCUPIED);
  // 10
  announce(from);
}

template <TablePolicy OpsT>
auto MirakWriter<OpsT>::lookup(Key const& key, bool& found, void* destination) const
    -> Value const* {
  counters_.lookups++;
  found = false;
  uint32_t const hash = ops_.hash(key);
  uint32_t const bucket = map_.bucketOf(hash);
  Link* prev;
  Link* curr;
  if (map_.find(key, bucket, &prev, &curr, hash)) {
    SlotT const& s = *Map::slotOf(curr);
    auto& anchor = const_cast<Slots&>(slots_).versionAnchor();
    anchor.set(s.versionFlags, &s.versionFlags, slots_.base());
    found = true;
    return &s.value;
  }
  FMTRACE(handler_, 8, "MirakWriter", "{} not found bucket:{}", Ops::keyText(key), bucket);
  const_cast<Slots&>(slots_).versionAnchor().reset();
  Value const& def = Ops::ValueOps::defaultValue();
  if (destination) std::memcpy(destination, &def, sizeof(Value));
  return &def;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::first(Value& value, IterHint& hint) const {
  return map_.first(0, value, hint);
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::next(Key const& key, Value& value, IterHint& hint) const {
  return map_.next(key, value, hint);
}

template <TablePolicy OpsT>
auto MirakWriter<OpsT>::directWrite(Value const& value) -> Value* {
  // 1
  Key const key = Ops::key(value);
  uint32_t const hash = ops_.hash(key);
  uint32_t const bucket = map_.bucketOf(hash);
  if (inDirectMode()) assertUnbalanced("writing", value);
  // 2: the critical section stays open until directCommit.
  slots_.enterCriticalSection();
  // 3
  Link* curr;
  bool const existing = map_.find(key, bucket, &directPrevLink_, &curr, hash);
  uint32_t index;
  if (existing) {
    index = directPrevLink_->next;
  } else {
    // 4
    index = allocSlot(hash, directPrevLink_, curr);
  }
  // 5
  counters_.directWrites++;
  // 6: an occupied slot is built in the lookaside slot; a new one in place.
  SlotT& s = slots_.slots()[index];
  Value* destination = (s.versionFlags & SlotTable::OCCUPIED)
                           ? reinterpret_cast<Value*>(reinterpret_cast<char*>(reuseLookaside()) +
                                                      sizeof(SlotTable::SlotHead))
                           : &s.value;
  std::memcpy(static_cast<void*>(destination), &value, sizeof(Value));
  FMTRACE(handler_, 9, "MirakWriter", "{}{} bucket:{} slot:{} next:{}",
          existing ? " existing " : " new ", Ops::keyText(key), bucket, index, s.link.next);
  // 7
  directSlot_ = index;
  directNew_ = !existing;
  return destination;
}

template <TablePolicy OpsT>
auto MirakWriter<OpsT>::directUpdate(Key const& key) -> Value* {
  // 1
  if (inDirectMode()) {
    SlotT const& s = slots_.slots()[directSlot_ == kNoSlot ? 0 : directSlot_];
    Lomi::fmassert(handler_, "MirakWriter", "directUpdate",
                   "unbalanced directSlot:{} containing value:{} when modifying key:{} - Make "
                   "sure the DirectIs/Commit are properly paired!",
                   directSlot_, Ops::valueText(s.value), Ops::keyText(key));
  }
  // 2
  slots_.enterCriticalSection();
  uint32_t const hash = ops_.hash(key);
  uint32_t const bucket = map_.bucketOf(hash);
  Link* curr;
  bool found;
  try {
    found = map_.find(key, bucket, &directPrevLink_, &curr, hash);
  } catch (...) {
    throw;  // the critical bit stays up: the chain is damaged
  }
  // 3
  if (!found) {
    slots_.leaveCriticalSection();
    return nullptr;
  }
  // 4
  counters_.directUpdates++;
  uint32_t const index = directPrevLink_->next;
  directSlot_ = index;
  directNew_ = false;
  SlotT& s = slots_.slots()[index];
  Value* destination = (s.versionFlags & SlotTable::OCCUPIED)
                           ? reinterpret_cast<Value*>(reinterpret_cast<char*>(reuseLookaside()) +
                                                      sizeof(SlotTable::SlotHead))
                           : &s.value;
  // 5: the mode stays open without the marker.
  slots_.leaveCriticalSection();
  return destination;
}

template <TablePolicy OpsT>
void MirakWriter<OpsT>::directCommit() {
  // 1
  FMTRACE(handler_, 9, "MirakWriter", "slot: {}", directSlot_);
  FMASSERT(directSlot_ != kNoSlot, handler_, "MirakWriter",
           "not in direct mode! Make sure the DirectIs/Commit are properly paired!");
  uint32_t const index = directSlot_;
  SlotT& s = slots_.slots()[index];
  // directUpdate left the critical section while the client filled the
  // lookaside slot. The stores below change a visible slot and the notify
  // comes after them: a death between the two would leave a change that no
  // reader of the queue hears of. The marker covers them, so that a restart
  // refuses the table like any death inside a write.
  if (!slots_.inCriticalSection()) slots_.enterCriticalSection();
  // 2: a new entry points into the chain; nobody points at it yet.
  if (directNew_) {
    Mem::storeRelease(s.link, Link{s.link.version + Link::kVersionStep, directPrevLink_->next});
  }
  // 3
  counters_.directCommits++;
  // 4
  if (s.versionFlags & SlotTable::OCCUPIED) {
    SlotTable::SlotHead* const look = slots_.header()->lookaside();
    Mem::storeRelease(look->rhash, s.rhash);
    Mem::storeRelease(s.versionFlags, s.versionFlags + 2);
    Mem::releaseFence();
    std::memcpy(&s.value, reinterpret_cast<char*>(look) + sizeof(SlotTable::SlotHead),
                sizeof(Value));
    Mem::storeRelease(s.versionFlags, s.versionFlags + 2);
  } else {
    Mem::storeRelease(s.versionFlags, (s.versionFlags + 4) | SlotTable::OCCUPIED);
  }
  // 5
  directSlot_ = kNoSlot;
  // 6: publish a new entry.
  if (directNew_) {
    Mem::storeRelease(*directPrevLink_, Link{directPrevLink_->version + Link::kVersionStep, index});
    directNew_ = false;
  }
  // 7
  if (members() > map_.growThreshold()) map_.growBuckets();
  // 8
  announce(index);
  // 9
  slots_.leaveCriticalSection();
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::validateVersionAnchor() const {
  Mem::VersionAnchor const a = slots_.versionAnchor();
  if (hook_) hook_(a);
  FMASSERT(!a.neverSet(), handler_, "MirakWriter",
           "should not be called on a default-constructed VersionAnchor");
  if (!a.isGone()) {
    uint32_t const now = Mem::loadAcquire(
        *reinterpret_cast<uint32_t const*>(static_cast<char const*>(a.base) + a.offset));
    if (now == a.word) return true;
  }
  throw Mem::VersionMismatchException();
}

}  // namespace Mirak
