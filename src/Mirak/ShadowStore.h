// Mirak::ShadowStore<Slot> and Mirak::KeyShadowStore<Ops>: a shadow's private
// copy of a table, and how a change of a table slot becomes a change of the
// copy and a client callback.
//
// The copy is an array of local slots with the table's own slot indices (a
// change of table slot n lands in local slot n, no search) and a hash index
// over them (ShadowHashMap). Nothing of it is shared: slots, buckets, counters
// are this process's private memory (Mem::Local, one block each; nothing is
// allocated per entry). Two kinds:
//   - ShadowStore<ValueShadowSlot<Ops>> keeps whole rows: reads touch only
//     private memory;
//   - KeyShadowStore<Ops> keeps keys: a read finds the key locally and fetches
//     the value from the table, falling back on the table's own index when
//     the slot was rewritten and its change has not come yet.
//
// Change processing (doSlot). A queue entry names a slot and a sequence,
// never a value: the slot is read as it is now and compared with the local
// slot, so several writes of a slot collapse into one callback and a sweep
// (every slot with noSequence) converges the copy without having seen any
// step. The queue is asked (validateNotif) only where the copy would destroy
// an entry (a removal, or another key in the slot): a compaction moves a row
// by notify(new), tombstone(old), notify(old), so an entry that no longer
// counts means a newer entry for the slot is on its way, and the copy must not
// report a removal of a key that lives on elsewhere. Then doSlot returns false
// and changes nothing; the later entry for the new slot finds the key under
// its old slot and moves it (ShadowHashMap::write), with no gap a client could
// see. Outcomes, value kind (k: the local slot's key; the table slot as read):
//
//   local slot   table slot             callback                     queue asked
//   dead         empty                  none                         no
//   dead         key                    changeFn                     no
//   k            k, other value         changeFn                     no
//   k            k, same value+compare  none                         no
//   k            other key              keyDelFn(k), changeFn(new)   yes
//   k            empty                  keyDelFn(k)                  yes
//
// A keyshadow calls keyFn instead of changeFn, after each read (it has no
// value to compare). A slot beyond the table's capacity is dropped.
//
// Reentrancy: callbacks run inside doSlot and may call lookup (or disable).
// While keyDelFn runs, lookup of the key being removed answers absent and any
// other key goes by the index (the new key is not written yet); while changeFn
// or keyFn runs, lookup of the changed key answers the new value.
//
// Cost. The hot case, a change of a live row that keeps its key, reads the
// table's slot, compares, copies and calls back: the index is not touched
// (the slot keeps its place and its stored hash). The queue walk names the
// slot of an entry a few places ahead (prefetch), so the table's slot and
// the copy's are on their way before doSlot reads them. A sweep fills a
// fresh copy: the slot array takes the table's capacity with its pages
// faulted in by one call, the index takes the table's member count at once,
// and each slot's bucket is prefetched a few slots ahead from the table's
// stored rhash (a hint; the key's own hash places the entry, so a damaged
// rhash cannot misplace it).
//
// Thread safety: one thread, the shadow's event thread; no locks. The writer
// changes table slots all the while: each read is consistent by the slot's
// version word, and validateNotif comes after the read, so a compaction that
// began before or during it is caught.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Atomics.h"
#include "Mem/Notify.h"
#include "Mem/ParcelWrapper.h"
#include "Mem/RootPath.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/IterHint.h"
#include "Mirak/MirakReader.h"
#include "Mirak/ShadowHashMap.h"
#include "Mirak/ShadowSlot.h"
#include "Mirak/SlotCounters.h"
#include "Tessel/BasicSlot.h"
#include "Tessel/Sequence.h"
#include "Tessel/TesselReader.h"

namespace Mirak {

template <typename Key, typename Value>
class ShadowStoreBase {
 public:
  virtual ~ShadowStoreBase() = default;
  // Two empty buckets and no slots; enabled. False if memory (or, for a
  // keyshadow, the kestor file) cannot be had.
  virtual bool initialize() = 0;
  // One change of table slot `slot` (seq: the queue entry's sequence, or
  // noSequence in a sweep). False: the entry no longer counts and nothing
  // changed. See the header comment.
  virtual bool doSlot(Tessel::BasicSlot slot, Tessel::Sequence seq, bool compare) = 0;
  // One step of a flush: drops the local entry of `slot`, with keyDelFn when
  // the store notifies on flush.
  virtual void doFlushSlot(unsigned slot) = 0;
  // A change of `slot` is a few entries ahead in the queue: starts the loads
  // of the table's slot and of the copy's. A hint; changes nothing.
  virtual void prefetch(uint32_t slot) const = 0;
  virtual uint64_t shadowMappedSize() const = 0;
  virtual uint64_t kestorMappedSize() const = 0;
  // Reads through the copy; past it, straight from the table.
  virtual Value const* lookup(Key const& key, bool& found, void* out) const = 0;
  virtual Value const* directLookup(Key const& key, bool& found, void* out) const = 0;
  // A walk of the copy, in its index order: the first entry at or after
  // bucket `bucket`, and the entry after `key`.
  virtual bool first(unsigned bucket, Value& value, IterHint& hint) const = 0;
  virtual bool next(Key const& key, Value& value, IterHint& hint) = 0;
  virtual unsigned numSlots() const = 0;
  virtual uint32_t numBuckets() const = 0;
  virtual bool validateVersionAnchor() const = 0;
  virtual Mem::CacheVersionAnchor getCacheVersionAnchor() const = 0;
  // Ends the store's use: frees the slot array. A new attach builds a new store.
  virtual void disable() = 0;
  virtual bool enabled() const = 0;
};

template <typename SlotT>
class ShadowStore : public ShadowStoreBase<typename SlotT::Key, typename SlotT::Value> {
 public:
  using Slot = SlotT;
  using Ops = typename Slot::Ops;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;
  using TableReader = MirakReader<Ops>;
  using NotifyT = Mem::Notify<Key, Value>;

  // `reader`, `tessel` and `notify` outlive the store. The reader is attached
  // to the table the queue belongs to; its counters record is the store's.
  ShadowStore(Lomi::Platform::DebugHandler& handler, TableReader& reader,
              Tessel::TesselReader<>& tessel, NotifyT& notify, bool notifyOnFlush)
      : handler_(handler),
        reader_(reader),
        tessel_(tessel),
        notify_(notify),
        counters_(reader.counters()),
        slotCounters_(firstPageSlots()),
        hashMap_(handler, reader.ops(), counters_, slotCounters_, slots_),
        readerAnchor_(&reader.slotTable().anchor()),
        currentAnchor_(readerAnchor_),
        notifyOnFlush_(notifyOnFlush) {}
  ShadowStore(ShadowStore const&) = delete;
  ShadowStore& operator=(ShadowStore const&) = delete;

  bool initialize() override {
    if (enabled_) return true;
    std::string error;
    FMTRACE(handler_, 5, "ShadowStore", "size:{} elements", 2);
    if (!hashMap_.initialize(error)) {
      FMTRACE(handler_, 0, "ShadowStore", "bucketsMem_.attachAs() failed: {}", error);
      return false;
    }
    slotsMem_.detach();
    slots_ = nullptr;
    numSlots_ = 0;
    enabled_ = true;
    return true;
  }

  bool doSlot(Tessel::BasicSlot slotIndex, Tessel::Sequence seq, bool compare) override;
  void doFlushSlot(unsigned slotIndex) override;
  void prefetch(uint32_t slotIndex) const override {
    auto const& table = reader_.slotTable().slots();
    if (slotIndex < table.count) prefetchLines(&table.base[slotIndex], false);
    if (slotIndex < numSlots_) prefetchLines(&slots_[slotIndex], true);
  }

  Value const* lookup(Key const& key, bool& found, void* out) const override;
  Value const* directLookup(Key const& key, bool& found, void* out) const override {
    currentAnchor_ = readerAnchor_;
    return reader_.lookup(key, found, out);
  }
  bool first(unsigned bucket, Value& value, IterHint& hint) const override {
    currentAnchor_ = readerAnchor_;
    Slot* const s = numSlots_ && bucket < hashMap_.numBuckets() ? hashMap_.firstFrom(bucket) : nullptr;
    return answer(s, value, hint);
  }
  bool next(Key const& keyIn, Value& value, IterHint& hint) override {
    currentAnchor_ = readerAnchor_;
    // `keyIn` may lie inside `value`, which the answer overwrites.
    Key const key = keyIn;
    Slot* hintSlot = nullptr;
    if (hint.slotIndex < numSlots_) {
      hintSlot = &slots_[hint.slotIndex];
    } else {
      counters_.nextSlowPath++;
    }
    return answer(numSlots_ ? hashMap_.next(key, hintSlot) : nullptr, value, hint);
  }

  uint64_t shadowMappedSize() const override { return slotsMem_.size() + hashMap_.mappedSize(); }
  uint64_t kestorMappedSize() const override { return 0; }
  unsigned numSlots() const override { return numSlots_; }
  uint32_t numBuckets() const override { return hashMap_.numBuckets(); }
  bool enabled() const override { return enabled_; }

  // True while the value last handed out is its slot's current one; else
  // Mem::VersionMismatchException. After a read that found nothing, an
  // assertion: there is nothing to compare.
  bool validateVersionAnchor() const override {
    Mem::VersionAnchor const& a = *currentAnchor_;
    FMASSERT(!a.neverSet(), handler_, "ShadowStore",
             "should not be called on a default-constructed VersionAnchor");
    if (anchorCurrent(a)) return true;
    throw Mem::VersionMismatchException();
  }
  Mem::CacheVersionAnchor getCacheVersionAnchor() const override {
    return currentAnchor_->cache();
  }

  void disable() override {
    enabled_ = false;
    // A store disabled with entries left (no flush before) drops its index
    // too, so that no chain points into the freed array.
    if (counters_.members != 0) {
      std::string error;
      hashMap_.initialize(error);
      slotCounters_ = SlotCounters(firstPageSlots());
    }
    shrink(0);
  }

  // For tests: the local slot array.
  Slot const* slots() const { return slots_; }

 protected:
  Lomi::Platform::DebugHandler& handler_;
  TableReader& reader_;

 private:
  // Clears the change in progress on every way out of doSlot.
  struct PendingReset {
    ShadowStore& store;
    ~PendingReset() {
      store.pendingValue_ = nullptr;
      store.pendingRemovedKey_ = nullptr;
    }
  };

  static uint32_t firstPageSlots() {
    using Geometry = typename TableReader::Slots::Geometry;
    long const page = ::sysconf(_SC_PAGESIZE);
    uint64_t const pageSize = page > 0 ? uint64_t(page) : 4096;
    return pageSize > Geometry::headerSize
               ? uint32_t((pageSize - Geometry::headerSize) / Geometry::slotSize)
               : 0;
  }

  // The table's capacity as its slot file's header says now; 0 unmapped.
  uint32_t sharedCapacity() const {
    auto const* header = reader_.slotTable().header();
    return header ? Mem::loadAcquire(header->numSlots.value) : 0;
  }

  // The table's read of `slotIndex`; a damaged slot counts as empty (the
  // decisions above still ask the queue before they destroy anything).
  bool fetch(uint32_t slotIndex, Value& target) const {
    try {
      return reader_.getValue(slotIndex, target, nullptr);
    } catch (Lomi::CorruptionDetectedException const& e) {
      FMTRACE(handler_, 5, "ShadowStore", "unable to retrieve slotIndex:{}: {}", slotIndex,
              e.msg());
      return false;
    }
  }

  // An anchor is compared at the reader's current mapping: the cached one
  // may have been taken before a remap moved the base.
  bool anchorCurrent(Mem::VersionAnchor a) const {
    if (a.neverSet() || a.isGone() || !a.base) return false;
    void const* const base = reader_.slotTable().header();
    if (!base) return false;
    if (a.base != base) {
      if (uint64_t(a.offset) + sizeof(uint32_t) > reader_.slotTable().mapping().fileSize()) {
        return false;
      }
      a.base = base;
    }
    return a.current();
  }

  // Both ends of an object of a slot's size: its lines, whatever its place.
  template <typename T>
  static void prefetchLines(T const* p, bool forWrite) {
    char const* const first = reinterpret_cast<char const*>(p);
    char const* const last = first + sizeof(T) - 1;
    if (forWrite) {
      __builtin_prefetch(first, 1);
      __builtin_prefetch(last, 1);
    } else {
      __builtin_prefetch(first, 0);
      __builtin_prefetch(last, 0);
    }
  }
  // How far ahead of its slot a sweep prefetches the bucket entry of a
  // slot, and the first slot of that bucket's chain.
  static constexpr uint32_t kBucketAhead = 16;
  static constexpr uint32_t kChainAhead = 8;
  // A sweep reads the slots in order (the hardware prefetches those) and
  // enters each key at a random place of the bucket array, in front of or
  // behind the chain's first slot, a random slot of the copy. The rhash of
  // a table slot further on, read without its version word, names both
  // early: the bucket entry 16 slots ahead, then, once that entry is in,
  // the chain's first slot 8 ahead. A hint only, a wrong or stale rhash
  // costs a useless prefetch; the entry itself is placed by the hash of the
  // key that was read.
  void prefetchAhead(uint32_t slotIndex) const {
    auto const& table = reader_.slotTable().slots();
    uint32_t const bucketAt = slotIndex + kBucketAhead, chainAt = slotIndex + kChainAhead;
    if (bucketAt < table.count) {
      hashMap_.prefetchBucket(Mem::loadRelaxed(table.base[bucketAt].rhash));
    }
    if (chainAt < table.count) {
      hashMap_.prefetchChain(Mem::loadRelaxed(table.base[chainAt].rhash));
    }
  }

  // doSlot for a dead local slot (nearly every slot of a sweep of a fresh
  // copy): apply() with what it decides for a dead slot and nothing else
  // (no key to compare, nothing to remove, no queue to ask).
  bool enterDead(uint32_t slotIndex, Tessel::Sequence seq);
  // doSlot at relocation depth `depth`.
  bool apply(uint32_t slotIndex, Tessel::Sequence seq, bool compare, int depth);
  // Before the copy reports `key` gone from slot `from`: if the table has it
  // in another slot (a compaction moved it and the entry of its new slot was
  // overtaken by a later write there, so the old slot's entry comes first),
  // the copy moves it there now. True if it tried: the caller must read its
  // slot again. False: the table has the key nowhere else.
  bool relocate(Key const& key, uint32_t from, int depth);
  // A chain of stale slots followed this far is given up: the removal is
  // reported, and the entries still to come put the key back.
  static constexpr int kMaxRelocations = 4;

  // Brings the array to the table's capacity. False if `slotIndex` lies
  // beyond it (a slot the table no longer has).
  bool grow(uint32_t slotIndex);
  // Releases the array beyond `newNumSlots` (all of it for 0).
  void shrink(uint32_t newNumSlots);
  // After a removal: shrinks when occupancy is at most a quarter and the
  // table itself has come down to the slots still in use (or the copy is
  // empty).
  void tryShrink();

  // A removal the client hears of, with the key pending for lookups.
  void tellRemoved(Key const& key) {
    pendingRemovedKey_ = &key;
    notify_.keyDelFn(key);
    pendingRemovedKey_ = nullptr;
  }
  // The queue entry being acted on still counts; false traced and counted.
  bool entryCounts(Tessel::Sequence seq) {
    if (tessel_.validateNotif()) {
      counters_.sequence = seq;
      return true;
    }
    FMTRACE(handler_, 5, "ShadowStore", "failed because sequence:{} may have been tombstoned",
            seq);
    counters_.failedNotifications++;
    return false;
  }

  // The value of local slot `s` for a read: its own (value kind), or the
  // table's (key kind; see KeyShadowStore).
  Value const* valueOf(Slot& s, bool& found, void* out) const;
  // Puts the candidate `c` (or the first entry after it that the table still
  // has, for a keyshadow) into `value` and `hint`.
  bool answer(Slot* c, Value& value, IterHint& hint) const;

  Tessel::TesselReader<>& tessel_;
  NotifyT& notify_;
  Mirak::Reader::Counters& counters_;
  SlotCounters slotCounters_;
  Slot* slots_ = nullptr;
  uint32_t numSlots_ = 0;
  Mem::Local slotsMem_;
  ShadowHashMap<Slot> hashMap_;
  Value const* pendingValue_ = nullptr;
  Key const* pendingRemovedKey_ = nullptr;
  // Key kind: the value of the change in progress, read from the table.
  Value valueBuffer_{};
  uint32_t valueBufferSize_ = 0;
  // The reader's anchor (its last read) and the anchor of the change in
  // progress; validateVersionAnchor consults the one the last read used.
  Mem::VersionAnchor* readerAnchor_;
  Mem::VersionAnchor cacheAnchor_;
  mutable Mem::VersionAnchor const* currentAnchor_;
  bool notifyOnFlush_;
  bool enabled_ = false;
};

// The key kind: maps the table's kestor file beside the copy (its size is
// reported with the shadow's memory) and reads values from the table.
template <TablePolicy OpsT>
class KeyShadowStore : public ShadowStore<KeyShadowSlot<OpsT>> {
 public:
  using Base = ShadowStore<KeyShadowSlot<OpsT>>;

  KeyShadowStore(Lomi::Platform::DebugHandler& handler, typename Base::TableReader& reader,
                 Tessel::TesselReader<>& tessel, typename Base::NotifyT& notify,
                 bool notifyOnFlush)
      : Base(handler, reader, tessel, notify, notifyOnFlush),
        kestor_(reader.rootPath().filePath("kestor")) {}

  bool initialize() override {
    if (this->enabled()) return true;
    if (!kestor_.attached() && !kestor_.attach(0, Mem::ParcelWrapper::Mode::ReadOnly)) {
      FMTRACE(this->handler_, 0, "ShadowStore", "failed to map kestor: {} {}",
              kestor_.getFilename(), kestor_.lastError());
      return false;
    }
    return Base::initialize();
  }
  uint64_t kestorMappedSize() const override { return kestor_.fileSize(); }
  void disable() override {
    FMTRACE(this->handler_, 5, "ShadowStore", "");
    kestor_.detach();
    Base::disable();
  }

 private:
  Mem::ParcelWrapper kestor_;
};

// ---------------------------------------------------------------------------

template <typename SlotT>
bool ShadowStore<SlotT>::doSlot(Tessel::BasicSlot slotIndex, Tessel::Sequence seq, bool compare) {
  if (slotIndex < numSlots_ && slots_[slotIndex].dead()) return enterDead(slotIndex, seq);
  return apply(slotIndex, seq, compare, 0);
}

template <typename SlotT>
bool ShadowStore<SlotT>::enterDead(uint32_t slotIndex, Tessel::Sequence seq) {
  PendingReset const reset{*this};
  bool const real = seq != Tessel::noSequence;
  if (!real) prefetchAhead(slotIndex);
  Slot& slot = slots_[slotIndex];
  cacheAnchor_.reset();
  Value* target;
  if constexpr (Slot::keepsValue) {
    target = &slot.value;
  } else {
    target = &valueBuffer_;
    valueBufferSize_ = sizeof(Value);
  }
  // A read that finds nothing may leave what it copied in the dead slot:
  // nothing reads a dead slot's value.
  if (!fetch(slotIndex, *target)) return true;
  if (real) counters_.sequence = seq;
  cacheAnchor_ = *readerAnchor_;
  if constexpr (!Slot::keepsValue) slot.slotKey = Ops::key(valueBuffer_);
  pendingValue_ = target;
  if (hashMap_.write(slotIndex, slot, true)) {
    if constexpr (Slot::keepsValue) {
      notify_.changeFn(slot.value);
    } else {
      notify_.keyFn(slot.slotKey);
    }
  }
  return true;
}

template <typename SlotT>
bool ShadowStore<SlotT>::apply(uint32_t slotIndex, Tessel::Sequence seq, bool compare, int depth) {
  PendingReset const reset{*this};
  // Range: a slot beyond the array grows it to the table's capacity, unless
  // the table has shrunk below the slot again.
  if (slotIndex >= numSlots_) {
    uint32_t const capacity = sharedCapacity();
    if (capacity <= slotIndex) {
      FMTRACE(handler_, 5, "ShadowStore",
              "skip growing of shadow table to accomodate slotIndex:{} because shared memory has "
              "shrunk to {} slots",
              slotIndex, capacity);
      return true;
    }
    if (!grow(slotIndex)) {
      FMTRACE(handler_, 5, "ShadowStore", "discarding notification for slotIndex:{}", slotIndex);
      return true;
    }
  }
  bool const real = seq != Tessel::noSequence;
  if (!real) prefetchAhead(slotIndex);
  Slot& slot = slots_[slotIndex];
  bool const wasDead = slot.dead();
  Key const oldKey = slot.key();
  cacheAnchor_.reset();

  // Fetch. A dead value slot takes the read in place; a live one is compared
  // with a copy on the stack first. The copy is built only then: a value's
  // default construction is a tenth of a sweep's work per slot, and in a
  // sweep nearly every slot is dead.
  std::optional<Value> scratch;
  Value* target;
  if constexpr (Slot::keepsValue) {
    target = wasDead ? &slot.value : &scratch.emplace();
  } else {
    target = &valueBuffer_;
    valueBufferSize_ = sizeof(Value);
  }
  bool const found = fetch(slotIndex, *target);
  FMTRACE(handler_, 9, "ShadowStore", "compare: {} slotIndex:{}{} {}", compare, slotIndex,
          found ? " found" : " not found", found ? Ops::keyText(Ops::key(*target)) : "");

  if (wasDead && !found) return true;  // the copy never had it
  Mem::VersionAnchor const anchor = *readerAnchor_;
  bool const sameKey = !wasDead && found && Ops::keyEqual(Ops::key(*target), oldKey);
  if (!wasDead && !sameKey) {
    // The slot's entry went: removed, or moved by a compaction. Only a queue
    // entry that still counts may destroy it.
    if (real && !entryCounts(seq)) return false;
    if (relocate(oldKey, slotIndex, depth)) {
      // It lives on in another slot, where the copy now has it: this slot
      // is read again and takes what the table holds in it now. (The copy
      // changed under `slot` and `target`: the array may have moved, and a
      // keyshadow's value buffer took the other slot's read.)
      if (!enabled_) return true;
      return apply(slotIndex, seq, compare, depth + 1);
    }
    if (hashMap_.remove(slotIndex, slot)) {
      tellRemoved(oldKey);
      if (!enabled_) return true;
    }
    if (!found) {
      slot.makeDead();
      if (depth == 0) tryShrink();
      return true;
    }
  } else if (real) {
    counters_.sequence = seq;
  }

  pendingValue_ = target;
  bool updated = true;
  if constexpr (Slot::keepsValue) {
    if (target != &slot.value) {
      if (compare && std::memcmp(&slot.value, target, sizeof(Value)) == 0) {
        updated = false;
      } else {
        slot.value = *target;
      }
      pendingValue_ = &slot.value;
    }
  } else {
    slot.slotKey = Ops::key(valueBuffer_);
  }
  cacheAnchor_ = anchor;
  // A live slot that kept its key stays where it is in the index: its hash
  // is the one stored when it was entered, and the chain walk would only
  // find the slot itself. Only a new key is hashed and placed.
  bool const tell = sameKey ? hashMap_.rewrite(slotIndex, slot, updated)
                            : hashMap_.write(slotIndex, slot, updated);
  if (tell) {
    if constexpr (Slot::keepsValue) {
      notify_.changeFn(slot.value);
    } else {
      notify_.keyFn(slot.slotKey);
    }
  }
  return true;
}

template <typename SlotT>
bool ShadowStore<SlotT>::relocate(Key const& key, uint32_t from, int depth) {
  if (depth >= kMaxRelocations) return false;
  bool found = false;
  Value where;
  try {
    reader_.lookup(key, found, &where);
  } catch (Lomi::CorruptionDetectedException const&) {
    return false;
  }
  if (!found) return false;
  // The lookup's anchor names the slot's version word: its slot index.
  using Geometry = typename TableReader::Slots::Geometry;
  Mem::VersionAnchor const& a = *readerAnchor_;
  if (a.neverSet() || a.isGone() || a.offset < Geometry::headerSize) return false;
  uint32_t const to = (a.offset - Geometry::headerSize) / Geometry::slotSize;
  if (to == from) return false;
  FMTRACE(handler_, 5, "ShadowStore", "key:{} moved from slotIndex:{} to {}", Ops::keyText(key),
          from, to);
  // Brings local slot `to` to the table's state: the key moves there (and a
  // stale key found there goes, or moves on in its turn). Whether or not the
  // key moved (the writer may have gone on meanwhile), the caller reads its
  // slot again: depth bounds the rounds.
  apply(to, Tessel::noSequence, true, depth + 1);
  return true;
}

template <typename SlotT>
void ShadowStore<SlotT>::doFlushSlot(unsigned slotIndex) {
  if (slotIndex >= numSlots_) return;
  Slot& slot = slots_[slotIndex];
  if (slot.dead()) return;
  Key const key = slot.key();
  FMTRACE(handler_, 9, "ShadowStore", "slotIndex {} key:{}", slotIndex, Ops::keyText(key));
  hashMap_.remove(slotIndex, slot);
  if (notifyOnFlush_) notify_.keyDelFn(key);
}

template <typename SlotT>
bool ShadowStore<SlotT>::grow(uint32_t slotIndex) {
  FMTRACE(handler_, 5, "ShadowStore", "for slotIndex:{}", slotIndex);
  reader_.resize();
  uint32_t const capacity = reader_.capacity();
  if (slotIndex >= capacity) {
    FMTRACE(handler_, 5, "ShadowStore",
            "complete. Never learned of slotIndex:{} so it is safe to ignore.", slotIndex);
    return false;
  }
  FMTRACE(handler_, 2, "ShadowStore", "resize shadow slots from {} to {} due to out of range slot {}",
          numSlots_, capacity, slotIndex);
  Slot* const old = slots_;
  auto* const grown = static_cast<Slot*>(slotsMem_.resize(uint64_t(capacity) * sizeof(Slot)));
  if (!grown) {
    throw Lomi::MemoryResourceException("failed to resize {} from {} to {} slots - {}",
                                        "private memory", numSlots_, capacity,
                                        slotsMem_.lastError());
  }
  slots_ = grown;
  // The new slots are written soon (a sweep fills them in order): huge
  // pages where the kernel has them, faulted in by one call rather than one
  // trap per page (hints both; refused, the writes fault as they come).
  slotsMem_.adviseHugePages();
  slotsMem_.prefault(uint64_t(numSlots_) * sizeof(Slot), uint64_t(capacity) * sizeof(Slot));
  // Pages the mapping gains are zero-filled: null links, dead slots
  // (ShadowSlot.h). They are not written here, which would be one more pass
  // over the whole array, through the cache, before the sweep's own. The
  // one exception is the page the old end fell in: it stayed mapped through
  // any earlier shrink, with the slots that shrink cut off. A shrink cuts
  // only dead slots (at largestOccupied), but a grow that trusted that
  // would rest on another function's invariant: those few are made dead.
  uint64_t const page = Lomi::Util::pageSize();
  uint64_t const pageEnd = (uint64_t(numSlots_) * sizeof(Slot) + page - 1) / page * page;
  uint32_t const stale = static_cast<uint32_t>(
      std::min<uint64_t>(capacity, (pageEnd + sizeof(Slot) - 1) / sizeof(Slot)));
  for (uint32_t i = numSlots_; i < stale; i++) slots_[i].makeDead();
  numSlots_ = capacity;
  if (old && grown != old) {
    hashMap_.patch(reinterpret_cast<char*>(grown) - reinterpret_cast<char*>(old));
  }
  // The index takes the table's member count now, once, rather than
  // doubling its way there as the copy fills. The header's count is only a
  // size hint; bounded by the capacity, a damaged one cannot ask for more
  // than the slots just mapped.
  hashMap_.reserve(std::min(reader_.members(), capacity));
  counters_.shadowSlotGrows++;
  FMTRACE(handler_, 5, "ShadowStore", "complete.");
  return true;
}

template <typename SlotT>
void ShadowStore<SlotT>::shrink(uint32_t newNumSlots) {
  FMTRACE(handler_, 2, "ShadowStore", "resize shadow slots from {} to {}", numSlots_,
          newNumSlots);
  Slot* const old = slots_;
  if (newNumSlots == 0) {
    slotsMem_.detach();
    slots_ = nullptr;
  } else {
    auto* const shrunk =
        static_cast<Slot*>(slotsMem_.resize(uint64_t(newNumSlots) * sizeof(Slot)));
    if (!shrunk) {
      throw Lomi::MemoryResourceException("failed to resize {} from {} to {} slots - {}",
                                          "private memory", numSlots_, newNumSlots,
                                          slotsMem_.lastError());
    }
    slots_ = shrunk;
    if (old && shrunk != old) {
      hashMap_.patch(reinterpret_cast<char*>(shrunk) - reinterpret_cast<char*>(old));
    }
  }
  numSlots_ = newNumSlots;
  counters_.shadowSlotShrinks++;
}

template <typename SlotT>
void ShadowStore<SlotT>::tryShrink() {
  if (counters_.members > (numSlots_ >> 2)) return;
  uint32_t const n = slotCounters_.largestOccupied();
  if (n >= numSlots_) return;
  FMTRACE(handler_, 5, "ShadowStore",
          "shadow slot occupancy <= 25% and can shrink to {} slots.", n);
  uint32_t const capacity = sharedCapacity();
  if (n < capacity && n != 0) {
    FMTRACE(handler_, 5, "ShadowStore",
            "skip shrinking of shadow table to {} slots because shared memory has grown to {} "
            "slots",
            n, capacity);
    return;
  }
  shrink(n);
}

template <typename SlotT>
auto ShadowStore<SlotT>::lookup(Key const& key, bool& found, void* out) const -> Value const* {
  counters_.lookups++;
  found = false;
  // The change in progress comes first: a callback reads what it is told of.
  if (pendingRemovedKey_) {
    if (Ops::keyEqual(*pendingRemovedKey_, key)) {
      counters_.pendingLookupHits++;
      currentAnchor_ = &cacheAnchor_;
      if (!Slot::keepsValue && out) std::memcpy(out, &Ops::defaultValue(), sizeof(Value));
      return &Ops::defaultValue();
    }
    counters_.pendingLookupMisses++;
  } else if (pendingValue_) {
    if (Ops::keyEqual(Ops::key(*pendingValue_), key)) {
      found = true;
      counters_.pendingLookupHits++;
      currentAnchor_ = &cacheAnchor_;
      if constexpr (Slot::keepsValue) {
        return pendingValue_;
      } else {
        Value* const to = out ? static_cast<Value*>(out) : &reader_.valueBuffer();
        std::memcpy(static_cast<void*>(to), &valueBuffer_, valueBufferSize_);
        return to;
      }
    }
    counters_.pendingLookupMisses++;
  }
  currentAnchor_ = readerAnchor_;
  Slot* const s = numSlots_ ? hashMap_.find(key) : nullptr;
  if (!s) {
    if (!Slot::keepsValue && out) std::memcpy(out, &Ops::defaultValue(), sizeof(Value));
    return &Ops::defaultValue();
  }
  return valueOf(*s, found, out);
}

template <typename SlotT>
auto ShadowStore<SlotT>::valueOf(Slot& s, bool& found, void* out) const -> Value const* {
  if constexpr (Slot::keepsValue) {
    (void)out;
    found = true;
    return &s.value;
  } else {
    // The table's slot may hold another key by now (the change is on its
    // way): then the table's own index knows where the key went, if anywhere.
    uint32_t const index = uint32_t(&s - slots_);
    Value* const to = out ? static_cast<Value*>(out) : &reader_.valueBuffer();
    if (fetch(index, *to)) {
      if (Ops::keyEqual(Ops::key(*to), s.slotKey)) {
        found = true;
        return to;
      }
      counters_.shadowKeyMismatches++;
    } else {
      FMTRACE(handler_, 5, "ShadowStore", "slotIndex:{} shmemCapacity:{}, returning not found",
              index, reader_.capacity());
    }
    Key const key = s.slotKey;
    Value const* const v = reader_.lookup(key, found, out);
    return found ? v : &Ops::defaultValue();
  }
}

template <typename SlotT>
bool ShadowStore<SlotT>::answer(Slot* c, Value& value, IterHint& hint) const {
  if constexpr (Slot::keepsValue) {
    if (!c) {
      value = Ops::defaultValue();
      return false;
    }
    hint.slotIndex = uint32_t(c - slots_);
    if (&value != &c->value) value = c->value;
    return true;
  } else {
    // A key the table no longer has is passed over (its removal is on its
    // way); the walk goes on from its place.
    for (; c; c = hashMap_.next(c->slotKey, c)) {
      hint.slotIndex = uint32_t(c - slots_);
      bool found = false;
      Value const* const v = valueOf(*c, found, &value);
      if (found) {
        if (v != &value) value = *v;
        return true;
      }
    }
    value = Ops::defaultValue();
    return false;
  }
}

}  // namespace Mirak
