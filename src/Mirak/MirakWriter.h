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
//
// The word, value, lookaside and link stores are SlotStore's (SlotStore.h,
// with the rewrite's own store order). The file is in parts: this one has the
// data operations; MirakWriterAttach.h the start, adoption, cleanup and audit;
// MirakWriterDirect.h the direct mode; SlotCompaction.h the shrink.
//
// INSERT (write of a key that is not in the table), inside a critical section:
//   1. a slot: with an empty free list the slot file grows (a grow may move
//      the mapping; the links found in the slot file are rebuilt after it).
//   2. the slot's rhash.
//   3. the slot leaves the free list; occupiedSlots + 1.
//   4. slot.link = (version + 4, prev.next): the new entry points into the
//      chain; nobody points at it yet.
//   5. defensive: a free slot is never OCCUPIED, but if it were, a reader
//      could be inside it; the value is staged in the lookaside first.
//   6. the value, by the rewrite (LOOKASIDE up, copy, LOOKASIDE down with
//      OCCUPIED set).
//   7. prev = (version + 4, slot): the entry is published (safety rule 1).
//   8. the buckets grow, after the entry is visible.
//   9. the queue hears of it last (safety rule 5).
//
// OVERWRITE (write of a key that is there, with overwrite), inside a critical
// section:
//   1. the whole new value and the slot's rhash are staged in the lookaside.
//   2. the rewrite of the slot's value (safety rule 2).
//   3. the queue hears of it.
//
// REMOVE:
//   1. find the key; a miss never touches runtimeFlags.
//   2. the critical section opens; the value is copied out for the caller.
//   3. prev = (version + 4, slot.next): the entry is unlinked. A reader
//      inside the slot still follows its old next (safety rule 3).
//   4. the slot goes on the free list (dealloc), which says whether a shrink
//      is due.
//   5. the queue hears of it.
//   6. the slots shrink (SlotCompaction), then the buckets.
#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ostream.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Atomics.h"
#include "Mem/RootPath.h"
#include "Mem/VersionAnchor.h"
#include "Parcel/WriterLock.h"
#include "Mirak/Counters.h"
#include "Mirak/MapDescriptor.h"
#include "Mirak/MirakInterface.h"
#include "Mirak/Operations.h"
#include "Mirak/SalvageFile.h"
#include "Mirak/SlotCompaction.h"
#include "Mirak/SlotStore.h"
#include "Mirak/SlotTable.h"
#include "Mirak/SlotWriter.h"
#include "Mirak/StartOutcome.h"
#include "MirakCore/CriticalTaskClock.h"
#include "MirakCore/WriteStep.h"
#include "MirakCore/WriterHashMap.h"
#include "Parcel/KestorId.h"
#include "Parcel/OwnerFile.h"
#include "Parcel/TunnetInfo.h"
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
  using Map = MirakCore::WriterHashMap<Ops, Slots>;
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
  // What the last start did with the files it found: new, adopted, salvaged
  // (with the records left behind, by reason) or re-formatted, and why the
  // files were not adopted. Kind none before the first start.
  StartOutcome startOutcome() const override { return startOutcome_; }

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
  friend class SlotCompaction<MirakWriter>;

  [[noreturn]] void assertUnbalanced(char const* what, Value const& value);
  [[noreturn]] void assertUnbalancedKey(Key const& key);
  // Insert steps 1-8 for a key that `find` did not find; `prev` and `curr`
  // are find's. Returns the slot; the caller announces it.
  uint32_t insertNew(Value const& value, uint32_t hash, Link* prev, Link* curr);
  // SALVAGE, the start's third way (see MirakWriterAttach.h): copies the
  // complete records of the attached, refused slot file into salvageImage_
  // and then into the side file, before the re-format reuses the files.
  // False, with the reason in startOutcome_, when the slot file was not kept
  // by the attach.
  bool collectSalvage();
  // A side file left by a salvaging start that did not finish: true if it
  // is the salvage of this start (loaded into salvageImage_, its target
  // raised, kestorId_ set so that the re-format goes past it); a stale,
  // refused or unwanted one is removed.
  bool resumeSalvage();
  // Builds salvageImage_ into the freshly formatted generation in bulk and
  // frees it.
  void carrySalvage();
  // Removes the side file (salvage store order step 5); a failure is traced.
  void removeSalvageFile();
  // Steps 1-3 of the insert: a free slot, its rhash, off the free list.
  // `prev` and `curr` are rebuilt if a grow moved the mapping.
  uint32_t allocSlot(uint32_t hash, Link*& prev, Link*& curr);
  // Where the direct mode builds the value of slot `s` (MirakWriterDirect.h).
  Value* directDestination(SlotT& s) {
    return (s.versionFlags & SlotTable::OCCUPIED)
               ? static_cast<Value*>(SlotStore::reuseLookaside(slots_.header()))
               : &s.value;
  }
  // Steps 1 and 2 of the overwrite.
  void overwrite(SlotT& s, Value const& value) {
    SlotStore::stageLookaside(slots_.header(), s.rhash, &value, sizeof(Value));
    if constexpr (kStepHook) {
      // Stopped with LOOKASIDE up and the slot's value half rewritten.
      SlotStore::beginRewrite(s.versionFlags);
      std::memcpy(static_cast<void*>(&s.value), &value, sizeof(Value) / 2);
      step(MirakCore::WriteStep::overwriteRewriting);
      std::memcpy(static_cast<void*>(&s.value), &value, sizeof(Value));
      SlotStore::endRewrite(s.versionFlags);
    } else {
      SlotStore::rewrite(s.versionFlags, &s.value, &value, sizeof(Value));
    }
  }
  // The test points of MirakCore/WriteStep.h: nothing unless the policy has
  // a hook.
  static constexpr bool kStepHook =
      requires { Ops::writeStepHook(MirakCore::WriteStep::insertLinked); };
  static void step(MirakCore::WriteStep s) { MirakCore::writeStep<Ops>(s); }
  // The queue hears of a changed slot, then the sleeping readers: notify
  // never throws for want of room (the queue counts a loss instead), and the
  // wake-up sends nothing when no reader sleeps.
  void announce(uint32_t index) {
    tessel_.notify(index);
    wakeReaders();
  }
  // Sleeping readers hear of the queue's last sequence. Also after a
  // compaction's corral re-issued its entries: else a reader asleep behind
  // the re-issued sequences stays behind the queue's head (its copy right,
  // but never caught up) until the next write.
  void wakeReaders() {
    if (rusk_) rusk_->notify(tessel_.sequence());
  }
  // The slot compaction, on this writer's pieces.
  SlotCompaction<MirakWriter> compaction() { return SlotCompaction<MirakWriter>(*this); }

  Ops ops_;
  bool localMem_;
  Mem::NaoRootPath rootPath_;
  // Why the last attach could not adopt the files, for the start's trace.
  std::string attachError_;
  // The slot file's part of the last attach(kestor): only a kept slot file
  // has records to salvage.
  int slotsAttach_ = 0;
  bool salvage_;
  StartOutcome startOutcome_;
  // The records a salvage carries over, between collectSalvage (or
  // resumeSalvage) and carrySalvage; empty otherwise.
  SalvageImage<Value> salvageImage_;
  // A side file of this start's salvage is in the directory.
  bool salvageFile_ = false;
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

// ---------------------------------------------------------------------------

template <TablePolicy OpsT>
uint32_t MirakWriter<OpsT>::allocSlot(uint32_t hash, Link*& prev, Link*& curr) {
  SlotTable::Header* h = slots_.header();
  // Insert step 1: a grow may move the mapping. Links inside the slot file
  // become offsets and are rebuilt afterwards; bucket links do not move.
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
    step(MirakCore::WriteStep::slotsGrown);
    h = slots_.header();
    // The queue keeps one back reference per slot the table ever had. If its
    // header cannot grow now, the notify of a slot beyond it tries again and
    // tells the readers to sweep if that fails too: the write goes on.
    (void)tessel_.mostSlotsIs(h->mostSlots);
    if (slots_.base() != oldBase) {
      if (prevOffset >= 0) prev = reinterpret_cast<Link*>(slots_.base() + prevOffset);
      if (currOffset >= 0) curr = reinterpret_cast<Link*>(slots_.base() + currOffset);
    }
  }
  uint32_t const index = h->freeSlots;
  SlotT& s = slots_.slots()[index];
  // Insert step 2.
  Mem::storeRelease(s.rhash, Lomi::Util::reverse(hash));
  // Insert step 3.
  Mem::storeRelease(h->freeSlots, s.link.next);
  Mem::storeRelease(h->occupiedSlots, h->occupiedSlots + 1);
  counters_.slotsAllocated++;
  return index;
}

template <TablePolicy OpsT>
uint32_t MirakWriter<OpsT>::insertNew(Value const& value, uint32_t hash, Link* prev, Link* curr) {
  // Insert steps 1-3.
  uint32_t const index = allocSlot(hash, prev, curr);
  SlotT& s = slots_.slots()[index];
  // Insert step 4.
  SlotStore::relink(s.link, prev->next);
  // Insert step 5.
  if (s.versionFlags & SlotTable::OCCUPIED) {
    SlotStore::stageLookaside(slots_.header(), s.rhash, &value, sizeof(Value));
  }
  step(MirakCore::WriteStep::insertSlotTaken);
  // Insert step 6.
  SlotStore::beginRewrite(s.versionFlags);
  if constexpr (kStepHook) {
    // Half the value, so a stop here leaves the slot torn.
    std::memcpy(static_cast<void*>(&s.value), &value, sizeof(Value) / 2);
    step(MirakCore::WriteStep::insertRewriting);
  }
  std::memcpy(static_cast<void*>(&s.value), &value, sizeof(Value));
  SlotStore::endRewrite(s.versionFlags);
  // Insert step 7.
  SlotStore::relink(*prev, index);
  step(MirakCore::WriteStep::insertLinked);
  FMTRACE(handler_, 9, "MirakWriter", "new {} slot:{} next:{}", Ops::keyText(Ops::key(value)),
          index, s.link.next);
  counters_.inserts++;
  // Insert step 8.
  if (members() > map_.growThreshold()) map_.growBuckets();
  return index;
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
    // Overwrite step 3.
    announce(index);
    return &s.value;
  }
  uint32_t const index = insertNew(value, hash, prev, curr);
  // Insert step 9.
  announce(index);
  return &slots_.slots()[index].value;
}

template <TablePolicy OpsT>
bool MirakWriter<OpsT>::remove(Key const& key, Value& removed) {
  uint32_t const hash = ops_.hash(key);
  uint32_t const bucket = map_.bucketOf(hash);
  if (inDirectMode()) assertUnbalancedKey(key);
  // Remove step 1.
  Link* prev;
  Link* curr;
  if (!map_.find(key, bucket, &prev, &curr, hash)) {
    FMTRACE(handler_, 9, "MirakWriter", "{} bucket:{} not found", Ops::keyText(key), bucket);
    return false;
  }
  // Remove step 2.
  typename Slots::CriticalSectionAnchor anchor(&slots_);
  uint32_t const index = prev->next;
  SlotT& s = *Map::slotOf(curr);
  removed = s.value;
  // Remove step 3.
  SlotStore::relink(*prev, s.link.next);
  step(MirakCore::WriteStep::removeUnlinked);
  // Remove step 4.
  uint32_t const threshold = slots_.dealloc(index);
  counters_.removes++;
  // Remove step 5.
  announce(index);
  FMTRACE(handler_, 9, "MirakWriter", "{} bucket:{} slot:{}", Ops::keyText(key), bucket, index);
  // Remove step 6: slots shrink before buckets.
  if (threshold != 0) compaction().run(threshold);
  if (shrinkBuckets_ && members() < map_.shrinkThreshold()) map_.shrinkBuckets();
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
  compaction().run(h->occupiedSlots < threshold / 2 ? threshold : 0);
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

#include "Mirak/MirakWriterAttach.h"
#include "Mirak/MirakWriterDirect.h"
