// Mirak::Validator: the full consistency audit of one table, run by its writer
// before it adopts files it found, and whenever a reader reports damage.
//
// It cross-checks four views of the same slots and repairs nothing:
//   - the hash chains, walked with the writer hash map's own first/next, whose
//     visitor (visitSlot) checks the rhash of every slot they reach and calls
//     markOccupied for it;
//   - the free list, walked from the header's `freeSlots`;
//   - the header's counters (`occupiedSlots`, the capacity in `numSlots`);
//   - the change queue, where the table has a real one: each occupied slot's
//     back reference (`tesselSlots`) must name a notification of that slot,
//     each live notification must be claimed by its slot, and the corral of a
//     slot compaction must hold no slot's current position.
//
// Invariants proved by a passing doValidate:
//   1. Every slot is on exactly one of the two lists: occupied (reached by the
//      chain walk, OCCUPIED set, LOOKASIDE clear) or free (reached by the free
//      walk, OCCUPIED clear); occupied + free = capacity.
//   2. No slot is reached twice by either walk; hence neither has a cycle.
//   3. The header's `occupiedSlots` is the length of the chain walk.
//   4. No critical section was left open (bit 0 of `runtimeFlags`), and no
//      overwrite was left half done (LOOKASIDE).
//   5. With a real queue: each queue position is claimed by at most one
//      occupied slot; a live notification outside a corral is its slot's
//      current one; a notification that no occupied slot claims is not for an
//      occupied slot.
//
// Contract:
//   - Build one per check, on the writer's thread, while no write runs. It
//     reads the files and stores nothing into them, so readers attached to
//     the files are not disturbed. A validator is not reused.
//   - Failures: doValidate, walkOccupiedSlots, walkFreeSlots and
//     walkTesselQueue return false with the text in error(), traced at level
//     0. markOccupied, the hash map's own checks and out-of-range indices throw
//     Lomi::CorruptionDetectedException; an allocation failure of the flag
//     arrays throws Lomi::MemoryResourceException. The caller treats both as
//     a failed check.
//   - Memory: one byte of private memory per slot for each walk, one per
//     queue position.
//
// Tables whose queue writer is Tessel::DummyTesselWriter have no queue: no
// queue check, no tesselMarks, and markOccupied ends after the flag bits. A
// queue writer that says it has a queue but offers nothing to read (the
// recording writer of the write-path unit tests) is audited the same way.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Atomics.h"
#include "Mirak/IterHint.h"
#include "Mirak/SlotTable.h"
#include "Parcel/KestorId.h"
#include "Wend/Local.h"

namespace Mirak {

// A queue writer whose notifications the validator can read.
template <typename Q>
concept AuditableQueue = Q::hasQueue && requires(Q const& q, std::string& error) {
  { q.validate(uint32_t{}, uint32_t{}, error) } -> std::convertible_to<bool>;
  { q.entryCount() } -> std::convertible_to<uint32_t>;
  { q.entry(uint32_t{}).sequence } -> std::convertible_to<uint64_t>;
  { q.entry(uint32_t{}).slot } -> std::convertible_to<uint32_t>;
  { q.baseSequence() } -> std::convertible_to<uint64_t>;
  { q.tesselSlots(uint32_t{}) } -> std::convertible_to<uint32_t>;
  { q.corralStart() } -> std::convertible_to<uint64_t>;
  { q.corralEnd() } -> std::convertible_to<uint64_t>;
};

// `Writer` is the table's MirakWriter<Ops>: it offers slotTable(),
// hashMap() and tesselWriter().
template <typename Ops, typename Writer>
class Validator {
 public:
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;
  using Queue = typename Ops::TesselWriter;
  static constexpr bool kHasQueue = AuditableQueue<Queue>;
  static constexpr uint32_t kNoSlot = SlotTable::kNoSlot;
  // A queue position of no slot, and the slot of a tombstone.
  static constexpr uint32_t kNoPos = 0xffffffffu;

  // Sizes the two slot flag arrays by the writer's capacity, all false.
  // Throws Lomi::MemoryResourceException if they cannot be allocated.
  Validator(Lomi::Platform::DebugHandler& handler, Writer& writer)
      : debugHandler_(handler),
        writer_(&writer),
        occupiedMarks_(writer.slotTable().capacity(), false),
        freeMarks_(writer.slotTable().capacity(), false) {}
  Validator(Validator const&) = delete;
  Validator& operator=(Validator const&) = delete;

  // The whole audit of the table, formatted for `kestor` (0: any). True if the
  // table is sound; false with the first failure in error().
  bool doValidate(Parcel::KestorId kestor);

  // The chain walk: marks every slot that the hash map's walk reaches, lets
  // each marked slot claim its queue position (claimTesselPositions), then
  // compares the count with the header's occupiedSlots.
  bool walkOccupiedSlots();
  // The free-list walk from the header's freeSlots.
  bool walkFreeSlots();
  // The queue walk of doValidate (step 9); needs the marks of the chain walk.
  // True at once for a table without a queue.
  bool walkTesselQueue();
  // doValidate's step 5: makes tesselMarks as long as the queue (new bytes
  // false). Whoever runs the walks one by one calls it before the chain walk.
  void fitTesselMarks();

  // The chain walk's visitor, called by the hash map's walk for every slot it
  // reaches: the slot's rhash must be its key's reversed hash `hash`, then
  // markOccupied. Throws Lomi::CorruptionDetectedException on the first
  // failure, whose text stays in error() (a bad rhash throws without it).
  template <typename AnySlot>
  void visitSlot(uint32_t slotIndex, AnySlot const& s, uint32_t hash, bool slowPath);
  // The marks and flag checks of one occupied slot; its queue position is
  // claimed later, by claimTesselPositions.
  void markOccupied(uint32_t slotIndex);

  std::string const& error() const { return error_; }
  uint32_t occupiedCount() const { return occupiedCount_; }
  uint32_t freeCount() const { return freeCount_; }
  uint32_t tesselCount() const { return tesselCount_; }

 private:
  using Slots = typename Writer::Slots;
  using SlotT = typename Slots::SlotT;

  SlotTable::Header const& header() const { return *writer_->slotTable().header(); }
  SlotT const& slot(uint32_t index) const { return writer_->slotTable().slots()[index]; }
  Queue const& queue() const { return writer_->tesselWriter(); }
  uint32_t capacity() const { return writer_->slotTable().capacity(); }

  // The walk's memory pipeline: it visits the buckets in bit-reversed order,
  // each at a random place in the bucket file, and each chain's first slot at
  // a random place in the slot file, so a table larger than the caches waits
  // on memory at every step. Standing at `bucket`, it asks for the bucket
  // entry kFarBuckets ahead in the walk, and for the head slot of the one
  // kNearBuckets ahead, whose entry it asked for earlier. Only hints: nothing read here is trusted or
  // checked, and an index out of range is simply not prefetched.
  static constexpr uint32_t kFarBuckets = 24;
  static constexpr uint32_t kNearBuckets = 12;
  void prefetchAhead(uint32_t bucket) const;
  // Each slot the chain walk marked claims the queue position its back
  // reference names: the position must lie in the queue, its notification
  // must name the slot, and no other slot may claim it. Run in slot order
  // after the walk, not per slot inside it: the walk meets slots in hash
  // order, where the back references and the notifications they name lie at
  // random places (two misses a slot at 10^6 rows), while in slot order both
  // are read nearly in sequence (slots and positions are both handed out in
  // write order). Throws Lomi::CorruptionDetectedException on the first
  // failure, its text kept in error().
  void claimTesselPositions();

  // A walk's failure: keeps the first text, traces it, answers false.
  template <typename... Args>
  bool fail(fmt::format_string<Args...> f, Args&&... args) {
    std::string text = fmt::format(f, std::forward<Args>(args)...);
    FMTRACE(debugHandler_, 0, "Validator", "{}", text);
    if (error_.empty()) error_ = std::move(text);
    return false;
  }
  // markOccupied's failure: keeps the first text and throws it.
  template <typename... Args>
  [[noreturn]] void markFailed(fmt::format_string<Args...> f, Args&&... args) {
    std::string text = fmt::format(f, std::forward<Args>(args)...);
    if (error_.empty()) error_ = text;
    throw Lomi::CorruptionDetectedException(std::move(text));
  }

  Lomi::Platform::DebugHandler& debugHandler_;
  Writer* writer_;
  uint32_t occupiedCount_ = 0;
  uint32_t freeCount_ = 0;
  uint32_t tesselCount_ = 0;
  Wend::Local<bool> occupiedMarks_;
  Wend::Local<bool> freeMarks_;
  Wend::Local<bool> tesselMarks_;
  std::string error_;
};

// ---------------------------------------------------------------------------

// The audit's steps:
//   1. the bucket file's header;
//   2. the slot file's header, and no critical section left open;
//   3. the queue's headers (tables with a queue);
//   4. any failure of 1-3 ends the audit;
//   5. fitTesselMarks;
//   6. the chain walk (walkOccupiedSlots);
//   7. the free-list walk (walkFreeSlots);
//   8. occupied + free = capacity;
//   9. the queue walk (walkTesselQueue).
template <typename Ops, typename Writer>
bool Validator<Ops, Writer>::doValidate(Parcel::KestorId kestor) {
  // Steps 1-3 all run, whatever an earlier one said; each may overwrite
  // error_.
  bool const buckets = writer_->hashMap().bucketWriter().validate(kestor.value(), error_);
  bool slots;
  SlotTable::Header const* h = writer_->slotTable().header();
  if (!h) {
    error_ = fmt::format("{}: slot table is not attached", writer_->slotTable().name());
    FMTRACE(debugHandler_, 0, "Validator", "{}", error_);
    slots = false;
  } else if (uint16_t const flags = Mem::loadAcquire(h->runtimeFlags);
             flags & SlotTable::kRuntimeFlagCritical) {
    // The last writer died inside a critical section: the table may be
    // half-changed, whatever the walks would find.
    error_ = fmt::format("bad critical section runtimeFlags:{:x}", flags);
    FMTRACE(debugHandler_, 0, "Validator", "{}", error_);
    slots = false;
  } else {
    slots = h->validate(debugHandler_, writer_->slotTable().wrapper().memSize(), kestor, error_,
                        Slots::Geometry::slotSize);
  }
  bool tessel = true;
  if constexpr (kHasQueue) {
    tessel = queue().validate(kestor.value(), h ? h->mostSlots : 0, error_);
  }
  // Step 4.
  if (!buckets || !slots || !tessel) return false;
  error_.clear();
  // Steps 5-7.
  fitTesselMarks();
  if (!walkOccupiedSlots()) return false;
  if (!walkFreeSlots()) return false;
  // Step 8: every slot is on exactly one of the two lists.
  uint32_t const numSlots = Mem::loadAcquire(h->numSlots).value;
  if (occupiedCount_ + freeCount_ != numSlots) {
    return fail("bad slotCount:{} occupiedSlots:{} freeSlots:{} capacity:{}",
                occupiedCount_ + freeCount_, occupiedCount_, freeCount_, numSlots);
  }
  // Step 9.
  return walkTesselQueue();
}

template <typename Ops, typename Writer>
void Validator<Ops, Writer>::fitTesselMarks() {
  if constexpr (kHasQueue) {
    uint32_t const size = queue().entryCount();
    if (tesselMarks_.size() < size) tesselMarks_.resize(size, false);
  }
}

template <typename Ops, typename Writer>
bool Validator<Ops, Writer>::walkOccupiedSlots() {
  FMTRACE(debugHandler_, 5, "Validator", "starting");
  uint32_t const occupied = Mem::loadAcquire(header().occupiedSlots);
  auto& map = writer_->hashMap();
  Value value{};
  IterHint hint{};
  uint32_t walked = 0;
  auto visit = [this](uint32_t index, SlotT const& s, uint32_t hash, bool slowPath) {
    visitSlot(index, s, hash, slowPath);
  };
  uint32_t lastBucket = kNoSlot;
  try {
    for (bool more = map.first(0, value, hint, visit); more;) {
      // A cycle that the marks do not catch ends here.
      if (++walked > occupied) {
        return fail("walkedSlots:{} is greater than header->occupiedSlots:{}", walked, occupied);
      }
      if (hint.bucket != lastBucket) {
        lastBucket = hint.bucket;
        prefetchAhead(hint.bucket);
      }
      Key const key = Ops::key(value);
      more = map.next(key, value, hint, visit);
    }
  } catch (Lomi::CorruptionDetectedException const&) {
    // next() takes a failure in its fast path for a possible concurrent change
    // and retries on its slow path, which meets the damage again in another
    // form (a slot already marked, a chain that does not end). The first
    // failure is the one that names the damage.
    if (!error_.empty()) throw Lomi::CorruptionDetectedException(error_);
    throw;
  }
  // A mark failure that the slow path walked around is still a failure.
  if (!error_.empty()) {
    FMTRACE(debugHandler_, 0, "Validator", "{}", error_);
    return false;
  }
  claimTesselPositions();
  FMTRACE(debugHandler_, 5, "Validator", "marked {} slots", occupiedCount_);
  if (occupied != occupiedCount_) {
    return fail("mismatch header->occupiedSlots:{} count:{}", occupied, occupiedCount_);
  }
  return true;
}

template <typename Ops, typename Writer>
void Validator<Ops, Writer>::prefetchAhead(uint32_t bucket) const {
  auto const& buckets = writer_->hashMap().bucketWriter();
  uint32_t const bits = buckets.bucketFactor();
  uint32_t const n = buckets.numBuckets();
  if (bits == 0 || n <= kFarBuckets || bucket >= n) return;
  // Position in the walk <-> bucket: the bits reversed within `bits`.
  auto const flip = [bits](uint32_t x) { return Lomi::Util::reverse(x) >> (32 - bits); };
  uint32_t const pos = flip(bucket);
  if (pos + kFarBuckets < n) __builtin_prefetch(&buckets[flip(pos + kFarBuckets)]);
  if (pos + kNearBuckets < n) {
    uint32_t const head = Mem::loadAcquire(buckets[flip(pos + kNearBuckets)]).next;
    if (head < capacity()) {
      auto const* p = reinterpret_cast<char const*>(&slot(head));
      __builtin_prefetch(p);
      __builtin_prefetch(p + sizeof(SlotT) - 1);
    }
  }
}

template <typename Ops, typename Writer>
template <typename AnySlot>
void Validator<Ops, Writer>::visitSlot(uint32_t slotIndex, AnySlot const& s, uint32_t hash,
                                       bool slowPath) {
  uint32_t const r = Lomi::Util::reverse(hash);
  if (r != s.rhash) {
    if (slowPath) {
      throw Lomi::CorruptionDetectedException(
          "corrupt rhash detected, slotId: {} slot.rhash:{:08x} rhash:{:0x}", slotIndex, s.rhash,
          r);
    }
    throw Lomi::CorruptionDetectedException(
        "corrupt rhash detected, slotId: {} slot.rhash:{:08x} rhash:{:08x}", slotIndex, s.rhash, r);
  }
  markOccupied(slotIndex);
}

template <typename Ops, typename Writer>
void Validator<Ops, Writer>::markOccupied(uint32_t slotIndex) {
  FMTRACE(debugHandler_, 9, "Validator", "slotIndex: {}", slotIndex);
  if (occupiedMarks_[slotIndex]) markFailed("duplicate slot: {}", slotIndex);
  occupiedCount_++;
  occupiedMarks_[slotIndex] = true;
  uint32_t const word = Mem::loadAcquire(slot(slotIndex).versionFlags);
  if (!(word & SlotTable::OCCUPIED)) markFailed("missing OCCUPIED bit: {:#x}", word);
  // No write runs during validation: only a crash leaves LOOKASIDE up.
  if (word & SlotTable::LOOKASIDE) markFailed("stuck LOOKASIDE bit: {:#x}", word);
}

template <typename Ops, typename Writer>
void Validator<Ops, Writer>::claimTesselPositions() {
  if constexpr (kHasQueue) {
    uint32_t const size = queue().entryCount();
    uint32_t const cap = capacity();
    for (uint32_t slotIndex = 0; slotIndex < cap; slotIndex++) {
      if (!occupiedMarks_[slotIndex]) continue;
      uint32_t const pos = queue().tesselSlots(slotIndex);
      if (pos == kNoPos) {
        FMTRACE(debugHandler_, 9, "Validator",
                "no notification in tessel queue for occupied slotId:{}", slotIndex);
        continue;
      }
      if (pos >= size) markFailed("slot:{} bad tessel index:{} size:{}", slotIndex, pos, size);
      uint32_t const named = queue().entry(pos).slot;
      if (named != slotIndex)
        markFailed("slot:{} bad notification:{} slot:{}", slotIndex, pos, named);
      if (tesselMarks_[pos]) markFailed("slot:{} duplicate tessel position:{}", slotIndex, pos);
      tesselMarks_[pos] = true;
      tesselCount_++;
    }
  }
}

template <typename Ops, typename Writer>
bool Validator<Ops, Writer>::walkFreeSlots() {
  FMTRACE(debugHandler_, 5, "Validator", "starting");
  uint32_t index = Mem::loadAcquire(header().freeSlots);
  uint32_t const numSlots = Mem::loadAcquire(header().numSlots).value;
  while (index != kNoSlot) {
    FMTRACE(debugHandler_, 9, "Validator", "walking slotIndex: {}", index);
    // Strictly greater: an index equal to the capacity passes here and the
    // slot lookup below refuses it as out of range.
    if (index > numSlots) {
      return fail("corrupted free slot detected with out of bound index: {}", index);
    }
    // Taken before the marks, so that a bad index is reported as a slot
    // index, not as an index into the validator's own array.
    SlotT const& s = slot(index);
    // The marks are what ends a walk round a cycle.
    if (freeMarks_[index]) return fail("duplicate freeSlot detected: {}", index);
    freeCount_++;
    freeMarks_[index] = true;
    if constexpr (kHasQueue) {
      // A free slot may keep one queue position: its removal's notification.
      uint32_t const pos = queue().tesselSlots(index);
      if (pos != kNoPos) {
        if (pos >= queue().entryCount()) {
          return fail("slot index:{} has out of range tessel slot: {}", index, pos);
        }
        uint32_t const named = queue().entry(pos).slot;
        if (named != index) {
          return fail("slot index:{} has slot:{} with wrong tessel slot:{}", index, named, pos);
        }
      }
    }
    if (Mem::loadAcquire(s.versionFlags) & SlotTable::OCCUPIED) {
      return fail("corrupted free slot not marked as empty: {}", index);
    }
    index = Mem::loadAcquire(s.link).next;
  }
  FMTRACE(debugHandler_, 5, "Validator", "marked {} free slots", freeCount_);
  return true;
}

template <typename Ops, typename Writer>
bool Validator<Ops, Writer>::walkTesselQueue() {
  if constexpr (kHasQueue) {
    Queue const& q = queue();
    uint32_t const count = q.entryCount();
    uint64_t const start = q.corralStart();
    uint64_t const end = q.corralEnd();
    uint32_t const cap = capacity();
    for (uint32_t pos = 0; pos < count; pos++) {
      auto const n = q.entry(pos);
      uint32_t const slotIndex = n.slot;
      uint64_t const seq = n.sequence;
      // A position the chain walk marked was claimed by an occupied slot whose
      // back reference is `pos` and whose notification here names it
      // (markOccupied), so its back reference is known without the load: in
      // a table as its writer left it nearly every position is marked, and
      // that load, at a random place of the back references, was the walk's
      // one miss a position.
      uint32_t const tesselSlot = tesselMarks_[pos] ? pos : q.tesselSlots(slotIndex);
      // Inside a slot compaction's corral, entries were moved and their
      // slots' real positions lie behind it; none may be current here.
      if (start != 0 && seq >= start && (end == 0 || seq <= end)) {
        if (tesselSlot == pos) {
          return fail("corral pos:{} seq:{} slot:{} tesselPos:{}", pos, seq, slotIndex, tesselSlot);
        }
        continue;
      }
      // A tombstone: no occupied slot may claim it.
      if (slotIndex == kNoPos) {
        if (tesselMarks_[pos]) return fail("active tombstone pos:{}", pos);
        continue;
      }
      // A notification that no occupied slot claims must be a removal's.
      if (!tesselMarks_[pos] && slotIndex < cap &&
          (Mem::loadAcquire(slot(slotIndex).versionFlags) & SlotTable::OCCUPIED)) {
        return fail("occupied slot:{} on deleted notification:{}", slotIndex, pos);
      }
      // Any other live notification is its slot's current one.
      if (pos != tesselSlot) {
        return fail("tessel pos:{} has slot:{} seq:{} with wrong tesselSlot:{}", pos, slotIndex,
                    seq, tesselSlot);
      }
    }
  }
  return true;
}

}  // namespace Mirak
