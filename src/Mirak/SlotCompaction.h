// Mirak::SlotCompaction: the writer's slot compaction (shrink), composed into
// MirakWriter and run on its thread.
//
// SLOT COMPACTION
//
// A table that emptied out moves the entries of its upper slots into free
// slots below a target size N and cuts the slot file down to N slots, while
// readers read and shadows follow the queue. Steps (run):
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
//
// THE PURGE (purgeFreeSlots)
//   1. N is below the capacity and the free list is not empty (asserted).
//   2. walk the free list; a list longer than the table has a cycle, which
//      the count check of step 5 reports.
//   3. a slot at or above N is unlinked (its predecessor's link, or the
//      header's freeSlots, skips it); the predecessor stays.
//   4. a slot below N becomes the predecessor.
//   5. the list's length plus occupiedSlots must be numSlots, or the table is
//      damaged and nothing has moved yet: CorruptionDetectedException.
// The free list is the writer's alone (readers never walk it); the link
// stores keep the version rule of every link all the same.
//
// THE MOVE of slot `from` to `to`, the head of the free list, while readers
// walk the chain:
//   1. to < from, and `to` is a slot (asserted).
//   2. to.rhash; header freeSlots = to.next (the slot leaves the free list).
//   3. the value into `to`, which no chain reaches yet.
//   4. to.versionFlags = (word + 4) | OCCUPIED, one store (SlotStore::occupy):
//      a reader that held `to` from an earlier life sees its word move.
//   5. to.link = (version + 4, from.next): the copy points into the chain.
//   6. prev = (version + 4, to): the chain runs through `to`. The entry is
//      reachable at both places for a reader in flight, with equal contents.
//   7. notify(to): shadows hear of the new place.
//   8. tombstone(from): the old place is retired in the queue, so the next
//      notification of `from` is not taken for a removal of the key.
//   9. from.link = (version + 4, from.next), then from.versionFlags loses
//      OCCUPIED. The link keeps its target, so a reader that passes through
//      `from` still reaches the rest of the chain; its version moves so that
//      a reader standing on `from` (it loaded from.link and will check that
//      version after reading the next slot) restarts when it comes back.
//      Without it, a later move of the next slot would retire that slot under
//      a reader whose link check still passes: a false "not marked as
//      occupied". A reader inside `from` sees its word move and restarts.
//  10. notify(from).
// `from` does not go back on the free list: it lies beyond the new size.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Atomics.h"
#include "MirakCore/WriteStep.h"
#include "Mirak/SlotStore.h"
#include "Mirak/SlotTable.h"
#include "MirakCore/CriticalTaskClock.h"

namespace Mirak {

// `Writer` is the MirakWriter that owns this object; it grants access to its
// slot table, hash map, queue, policy, counters and announce().
template <typename Writer>
class SlotCompaction {
 public:
  using Ops = typename Writer::Ops;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;
  using SlotT = typename Writer::SlotT;
  using Link = typename Writer::Link;
  static constexpr uint32_t kNoSlot = SlotTable::kNoSlot;

  explicit SlotCompaction(Writer& writer) : w_(writer) {}
  SlotCompaction(SlotCompaction const&) = delete;
  SlotCompaction& operator=(SlotCompaction const&) = delete;

  // The compaction with shrink threshold `threshold` (0: nothing to do).
  void run(uint32_t threshold);
  // Unlinks every slot at or above `newNumSlots` from the free list.
  void purgeFreeSlots(uint32_t newNumSlots);
  // Moves the entry of slot `from` to `to`, the head of the free list;
  // `prev` is the link that points at `from`.
  void move(uint32_t from, uint32_t to, Link* prev);

 private:
  // Step 3 of the compaction: the target size N.
  uint32_t targetSize() const;
  // The link that points at slot `from`, found by the key it holds.
  Link* linkTo(uint32_t from, SlotT const& s);

  Writer& w_;
};

// ---------------------------------------------------------------------------

template <typename Writer>
uint32_t SlotCompaction<Writer>::targetSize() const {
  // O < threshold / 2 <= 2^30, so the shift stays below 32.
  uint32_t const occupied = w_.slots_.header()->occupiedSlots;
  uint32_t const p = occupied == 0 ? 0 : uint32_t(1) << (std::bit_width(occupied) + 1);
  return std::max(w_.slots_.minSlots(), p);
}

template <typename Writer>
auto SlotCompaction<Writer>::linkTo(uint32_t from, SlotT const& s) -> Link* {
  Key const key = Ops::key(s.value);
  uint32_t const hash = w_.ops_.hash(key);
  uint32_t const bucket = w_.map_.bucketOf(hash);
  Link* prev = nullptr;
  Link* curr = nullptr;
  bool const found = w_.map_.find(key, bucket, &prev, &curr, hash);
  FMASSERT(found, w_.handler_, "MirakWriter", "fromSlot:{} key not found", from);
  // The key found must be this slot's: relinking a link that points
  // elsewhere would lose an entry.
  FMASSERT(prev != nullptr && prev->next == from, w_.handler_, "MirakWriter",
           "fromSlot:{} not referenced", from);
  return prev;
}

template <typename Writer>
void SlotCompaction<Writer>::run(uint32_t threshold) {
  auto& handler = w_.handler_;
  auto& slots = w_.slots_;
  auto& tessel = w_.tessel_;
  // Step 1 of the compaction.
  if (threshold == 0) return;
  // Step 2: an open shrink of the queue is not run over.
  if constexpr (Writer::TesselWriter::hasQueue) {
    if (tessel.shrinkMarker() != 0) {
      FMTRACE(handler, 5, "MirakWriter", "shrink started, ignoring shrinkThreshold:{}", threshold);
      return;
    }
  }
  SlotTable::Header* const h = slots.header();
  // Step 3.
  uint32_t const n = targetSize();
  FMTRACE(handler, 5, "MirakWriter", "threshold:{} shrinkThreshold:{}{}", n, threshold,
          threshold > n ? " SUPER SHRINK!" : "");
  uint32_t const oldCapacity = slots.capacity();
  // Step 4.
  purgeFreeSlots(n);
  // Step 5.
  tessel.markShrinkStart();
  // The table is consistent between two moves; if a critical task throws
  // between them, the corral still closes on the way out, or every later
  // shrink would find the marker set and skip.
  struct CorralCloser {
    typename Writer::TesselWriter& tessel;
    bool open = true;
    ~CorralCloser() {
      if (open) tessel.markShrinkEnd();
    }
  } corral{tessel};
  // Step 6.
  MirakCore::CriticalTaskClock clock(w_.criticalTaskCheck_);
  // Step 7: the mapping does not move before step 10.
  uint64_t moved = 0;
  for (uint32_t from = n; from < oldCapacity; from++) {
    SlotT& s = slots.slots()[from];
    if (!(s.versionFlags & SlotTable::OCCUPIED)) {
      FMTRACE(handler, 9, "MirakWriter", "skipping not occupied slot:{}", from);
      continue;
    }
    slots.versionAnchor().set(s.versionFlags, &s.versionFlags, slots.base());
    move(from, h->freeSlots, linkTo(from, s));
    moved++;
    clock.tick();
  }
  // Step 8.
  corral.open = false;
  tessel.markShrinkEnd();
  w_.wakeReaders();
  // Steps 9 and 10.
  FMTRACE(handler, 5, "MirakWriter", "newNumSlots:{}", n);
  slots.shrinkTo(n);
  // Step 11.
  FMTRACE(handler, 2, "MirakWriter", "{} from {} slots to {}", slots.name(), oldCapacity, n);
  FMTRACE(handler, 5, "MirakWriter", "at threshold:{} done", threshold);
  w_.counters_.slotsMoved += moved;
}

template <typename Writer>
void SlotCompaction<Writer>::purgeFreeSlots(uint32_t newNumSlots) {
  auto& handler = w_.handler_;
  auto& slots = w_.slots_;
  SlotTable::Header* const h = slots.header();
  uint32_t const capacity = slots.capacity();
  // Step 1 of the purge.
  FMASSERT(newNumSlots < capacity, handler, "MirakWriter", "bad threshold: {} numSlots:{}",
           newNumSlots, capacity);
  FMASSERT(h->freeSlots != kNoSlot, handler, "MirakWriter", "free-list is empty");
  // Step 2.
  uint32_t count = 0;
  uint32_t prevIndex = kNoSlot;
  for (uint32_t index = h->freeSlots; index != kNoSlot && count <= capacity;) {
    count++;
    SlotT& s = slots.slots()[index];
    uint32_t const next = s.link.next;
    if (index >= newNumSlots) {
      // Step 3.
      FMTRACE(handler, 7, "MirakWriter", "removing slot id {} from free-list", index);
      if (prevIndex != kNoSlot) {
        SlotStore::relink(slots.slots()[prevIndex].link, next);
      } else {
        Mem::storeRelease(h->freeSlots, next);
      }
    } else {
      // Step 4.
      prevIndex = index;
    }
    index = next;
  }
  // Step 5.
  uint32_t const stored = h->numSlots.value;
  if (count + h->occupiedSlots != stored) {
    throw Lomi::CorruptionDetectedException(
        "numSlots mismatch, length of freeList: {}, occupiedSlots: {} do not add up to numSlots: "
        "{}",
        count, h->occupiedSlots, stored);
  }
}

template <typename Writer>
void SlotCompaction<Writer>::move(uint32_t from, uint32_t to, Link* prev) {
  auto& handler = w_.handler_;
  auto& slots = w_.slots_;
  // Step 1 of the move: an empty list fails the first test already; the
  // second is a guard.
  FMASSERT(to < from, handler, "MirakWriter",
           "should always move entries to lower section fromSlotId:{} toSlotId:{}", from, to);
  FMASSERT(to != kNoSlot, handler, "MirakWriter", "not valid toSlotId:{}", to);
  SlotTable::Header* const h = slots.header();
  SlotT& src = slots.slots()[from];
  SlotT& dst = slots.slots()[to];
  // Step 2.
  Mem::storeRelease(dst.rhash, src.rhash);
  Mem::storeRelease(h->freeSlots, dst.link.next);
  // Step 3.
  std::memcpy(static_cast<void*>(&dst.value), &src.value, sizeof(Value));
  // Step 4.
  if (dst.versionFlags & SlotTable::OCCUPIED) {
    // Defensive, as in the insert: a free slot is never OCCUPIED. The value
    // is in place already; the word moves by 4 as in a rewrite.
    SlotStore::beginRewrite(dst.versionFlags);
    SlotStore::endRewrite(dst.versionFlags);
  } else {
    SlotStore::occupy(dst.versionFlags);
  }
  // Step 5.
  SlotStore::relink(dst.link, src.link.next);
  FMTRACE(handler, 7, "MirakWriter", "fromSlotId:{} toSlotId:{}", from, to);
  FMTRACE(handler, 9, "MirakWriter", "moving fromSlot:{} toSlot:{}", from, to);
  // Step 6: from here on the chain runs through the new slot.
  SlotStore::relink(*prev, to);
  MirakCore::writeStep<typename Writer::Ops>(MirakCore::WriteStep::moveLinked);
  // Step 7.
  w_.announce(to);
  // Step 8.
  w_.tessel_.tombstone(from);
  // Step 9: the retired slot looks changed to every reader that stands on it.
  SlotStore::relink(src.link, src.link.next);
  SlotStore::vacate(src.versionFlags);
  // Step 10.
  w_.announce(from);
}

}  // namespace Mirak
