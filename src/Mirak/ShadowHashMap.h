// Mirak::ShadowHashMap<Slot>: the index of a shadow's private copy.
//
// A bucket array in private memory whose chains run through the copy's own
// local slots (ShadowSlot.h): a slot is its own chain node, so the map keeps
// no nodes and allocates nothing per entry. One thread writes and reads it;
// there are no readers to protect, so it links by plain pointers and grows and
// shrinks in one pass.
//
// Order: hash = reverse(key hash under the table's seed). The bucket of a key
// is the top `bucketFactor` bits of that hash, a chain is sorted by (hash,
// key), and so buckets and chains form one list sorted by reversed hash. A
// doubling splits each chain at one point into two neighbouring buckets; a
// halving joins neighbours; neither changes the order. That makes a walk by
// key safe across any change between two steps: the successor of a key is
// the first entry that sorts after it, whether the key is still there or not.
//
// Load: one entry per bucket on average. The array doubles when members pass
// numBuckets and halves when they fall to a quarter, never below 2 buckets.
// A copy about to take in a whole table reserves its size first: one resize
// instead of a doubling at each power of 2 on the way, each over all entries.
// Only a new key is hashed: a slot rewritten with its own key keeps its place
// (rewrite).
//
// Invariants: every live slot is in exactly one chain and its `prev` points to
// the location that points to it; a chain's first slot's `prev` is its bucket
// entry; members = the number of live slots; each live index is counted once
// in the slot counters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Local.h"
#include "Mirak/Counters.h"
#include "Mirak/SlotCounters.h"

namespace Mirak {

template <typename SlotT>
class ShadowHashMap {
 public:
  using Slot = SlotT;
  using Ops = typename Slot::Ops;
  using Key = typename Ops::Key;

  // `ops` gives the table's hash seed; `slots` is the store's slot array
  // pointer (read for the index of a slot in traces and counters).
  ShadowHashMap(Lomi::Platform::DebugHandler& handler, Ops const& ops,
                Reader::Counters& counters, SlotCounters& slotCounters, Slot* const& slots)
      : handler_(handler),
        ops_(ops),
        counters_(counters),
        slotCounters_(slotCounters),
        slots_(slots) {}
  ShadowHashMap(ShadowHashMap const&) = delete;
  ShadowHashMap& operator=(ShadowHashMap const&) = delete;

  // Two empty buckets, no members. False with `error` if memory is refused.
  bool initialize(std::string& error) {
    bucketFactor_ = 1;
    numBuckets_ = 2;
    buckets_ = static_cast<Slot**>(mem_.resize(numBuckets_ * sizeof(Slot*)));
    if (!buckets_) {
      error = mem_.lastError();
      return false;
    }
    std::memset(buckets_, 0, numBuckets_ * sizeof(Slot*));
    counters_.members = 0;
    return true;
  }

  uint32_t hashOf(Key const& key) const { return Lomi::Util::reverse(ops_.hash(key)); }
  uint32_t bucketOf(uint32_t hash) const { return hash >> (32 - bucketFactor_); }

  // Enters `slot` (its key, and value, in place) under `slotIndex`. True if
  // the client is to hear of it: a new entry, a moved key whose value changed
  // (always, for key slots), or `updated` when the slot already held the key.
  bool write(uint32_t slotIndex, Slot& slot, bool updated) {
    slot.hash = hashOf(slot.key());
    counters_.shadowWrites++;
    FMTRACE(handler_, 8, "ShadowHashMap", "slotIndex:{} key:{}", slotIndex,
            Ops::keyText(slot.key()));
    Slot** at = &buckets_[bucketOf(slot.hash)];
    while (*at && before(**at, slot.hash, slot.key())) at = &(*at)->next;
    Slot* const c = *at;
    if (c && c->hash == slot.hash && Ops::keyEqual(c->key(), slot.key())) {
      if (c == &slot) {
        FMTRACE(handler_, 8, "ShadowHashMap", "no index update needed");
        return updated;
      }
      // The row moved between slots (the writer compacted): `slot` takes
      // c's place in the chain, c dies; members stay.
      bool changed = true;
      if constexpr (Slot::keepsValue) {
        changed = std::memcmp(&slot.value, &c->value, sizeof(slot.value)) != 0;
      }
      counters_.shadowKeyMoves++;
      slot.next = c->next;
      slot.prev = c->prev;
      *slot.prev = &slot;
      if (slot.next) slot.next->prev = &slot.next;
      slotCounters_.remove(indexOf(c));
      slotCounters_.add(slotIndex);
      c->makeDead();
      FMTRACE(handler_, 8, "ShadowHashMap", "value updated");
      return changed;
    }
    // A new entry, in front of c (or at the chain's end).
    slot.next = c;
    slot.prev = at;
    if (c) c->prev = &slot.next;
    *at = &slot;
    FMTRACE(handler_, 8, "ShadowHashMap", "value inserted");
    counters_.members++;
    slotCounters_.add(slotIndex);
    if (counters_.members > numBuckets_) grow();
    return true;
  }

  // `slot` already holds its key, in its chain under `slotIndex` (its value
  // may be new): the index needs no change, so neither the hash nor the
  // chain is looked at. What write() yields for that case.
  bool rewrite(uint32_t slotIndex, Slot const& slot, bool updated) {
    counters_.shadowWrites++;
    FMTRACE(handler_, 8, "ShadowHashMap", "slotIndex:{} key:{} no index update needed",
            slotIndex, Ops::keyText(slot.key()));
    return updated;
  }

  // Makes room for `members` entries at the load limit: doubles the array
  // until they fit, so that entering them grows nothing. A copy that is to
  // take in a table of n rows does this once before, instead of doubling
  // about log2(n) times while it fills, each time over all entries so far.
  void reserve(uint32_t members) {
    uint32_t target = numBuckets_;
    while (target < members && target < kMaxBuckets) target *= 2;
    if (target == numBuckets_) return;
    if (counters_.members != 0) {
      // Entries are in: each doubling splits the chains in order.
      while (numBuckets_ < target) grow();
      return;
    }
    // Empty: one resize to the size, all entries null. The entries are
    // written at random as the copy fills: huge pages where the kernel has
    // them (a hint) spare most of the TLB misses.
    FMTRACE(handler_, 2, "ShadowHashMap", "buckets growing from:{} to:{}", numBuckets_, target);
    resizeBuckets(numBuckets_, target);
    mem_.adviseHugePages();
    std::memset(buckets_, 0, uint64_t(target) * sizeof(Slot*));
    while (numBuckets_ < target) {
      numBuckets_ *= 2;
      bucketFactor_++;
      counters_.shadowBucketGrows++;
    }
  }

  // Starts the load of the bucket entry that `hash` falls in (a hint: a key
  // still to be entered, whose hash may be stale).
  void prefetchBucket(uint32_t hash) const { __builtin_prefetch(&buckets_[bucketOf(hash)], 1); }
  // The same for the first slot of that bucket's chain, whose hash an entry
  // compares with and whose `prev` it may rewrite. Reads the bucket entry:
  // its line should have been prefetched a little earlier.
  void prefetchChain(uint32_t hash) const {
    if (Slot const* const head = buckets_[bucketOf(hash)]) __builtin_prefetch(head, 1);
  }

  // Unlinks `slot`. False for a dead slot. Halves the buckets at a load of
  // a quarter.
  bool remove(uint32_t slotIndex, Slot& slot) {
    if (!slot.prev) {
      FMTRACE(handler_, 9, "ShadowHashMap", "dead slot {}", slotIndex);
      return false;
    }
    FMTRACE(handler_, 8, "ShadowHashMap", "slot:{} next:{} members:{} key:{}", slotIndex,
            slot.next ? indexOf(slot.next) : 0, counters_.members, Ops::keyText(slot.key()));
    *slot.prev = slot.next;
    if (slot.next) slot.next->prev = slot.prev;
    slot.next = nullptr;
    slot.prev = nullptr;
    slotCounters_.remove(slotIndex);
    counters_.members--;
    if (counters_.members <= (numBuckets_ >> 2) && bucketFactor_ >= 2) shrink();
    return true;
  }

  // The live slot holding `key`, or null.
  Slot* find(Key const& key) const {
    uint32_t const hash = hashOf(key);
    for (Slot* s = buckets_[bucketOf(hash)]; s; s = s->next) {
      if (!before(*s, hash, key)) {
        return s->hash == hash && Ops::keyEqual(s->key(), key) ? s : nullptr;
      }
    }
    return nullptr;
  }

  // The first live slot in bucket `bucket` or above, null if none.
  Slot* firstFrom(uint32_t bucket) const {
    for (uint32_t b = bucket; b < numBuckets_; b++) {
      if (buckets_[b]) return buckets_[b];
    }
    return nullptr;
  }

  // The entry after `key` in list order, null at the end. `hint`, the slot
  // last returned or null, is used only while it still holds `key`.
  Slot* next(Key const& key, Slot* hint) const {
    if (hint && !hint->dead() && Ops::keyEqual(hint->key(), key)) {
      if (hint->next) return hint->next;
      return firstFrom(bucketOf(hint->hash) + 1);
    }
    counters_.nextSlowPath++;
    uint32_t const hash = hashOf(key);
    uint32_t const bucket = bucketOf(hash);
    for (Slot* s = buckets_[bucket]; s; s = s->next) {
      if (after(*s, hash, key)) return s;
    }
    return firstFrom(bucket + 1);
  }

  // Repairs the chains after the slot array moved by `offset` bytes. A
  // chain's first `prev` points into the bucket array, which did not move.
  void patch(std::ptrdiff_t offset) {
    FMTRACE(handler_, 5, "ShadowHashMap", "address offset is {}", offset);
    for (uint32_t b = 0; b < numBuckets_; b++) {
      if (!buckets_[b]) continue;
      buckets_[b] = moved(buckets_[b], offset);
      for (Slot* s = buckets_[b]; s; s = s->next) {
        if (s->next) {
          s->next = moved(s->next, offset);
          s->next->prev = &s->next;
        }
      }
    }
    counters_.shadowPatches++;
  }

  uint32_t numBuckets() const { return numBuckets_; }
  uint32_t bucketFactor() const { return bucketFactor_; }
  uint64_t mappedSize() const { return mem_.size(); }

 private:
  // Whether `s` sorts before (hash, key) / after it.
  static bool before(Slot const& s, uint32_t hash, Key const& key) {
    return s.hash < hash || (s.hash == hash && Ops::keyLess(s.key(), key));
  }
  static bool after(Slot const& s, uint32_t hash, Key const& key) {
    return s.hash > hash || (s.hash == hash && Ops::keyLess(key, s.key()));
  }
  static Slot* moved(Slot* s, std::ptrdiff_t offset) {
    return reinterpret_cast<Slot*>(reinterpret_cast<char*>(s) + offset);
  }
  uint32_t indexOf(Slot const* s) const { return uint32_t(s - slots_); }

  // The bucket array resized from `from` to `to` entries (the first
  // min(from, to) kept, the rest unset), its new base in buckets_; on
  // refusal Lomi::MemoryResourceException, and the old array stays.
  Slot** resizeBuckets(uint32_t from, uint32_t to) {
    auto* const resized = static_cast<Slot**>(mem_.resize(uint64_t(to) * sizeof(Slot*)));
    if (!resized) {
      throw Lomi::MemoryResourceException("failed to resize {} from {} to {} buckets : {}",
                                          "private memory", from, to, mem_.lastError());
    }
    return buckets_ = resized;
  }

  // Doubles the buckets: old bucket i becomes 2i and 2i + 1, split at the
  // first slot whose new bucket is 2i + 1. Going from the top down lets the
  // array be rewritten in place: entries 2i and 2i + 1 lie above all that is
  // still to be read.
  void grow() {
    uint32_t const from = numBuckets_;
    uint32_t const to = from * 2;
    FMTRACE(handler_, 2, "ShadowHashMap", "buckets growing from:{} to:{}", from, to);
    resizeBuckets(from, to);
    std::memset(buckets_ + from, 0, from * sizeof(Slot*));
    uint32_t const factor = bucketFactor_ + 1;
    for (uint32_t i = from; i-- > 0;) {
      Slot* const head = buckets_[i];
      if (!head) continue;
      buckets_[i] = nullptr;
      buckets_[2 * i] = head;
      head->prev = &buckets_[2 * i];
      for (Slot* s = head; s; s = s->next) {
        if ((s->hash >> (32 - factor)) == 2 * i + 1) {
          FMTRACE(handler_, 8, "ShadowHashMap", "splitting bucket {} to buckets {} and {}", i,
                  2 * i, 2 * i + 1);
          *s->prev = nullptr;
          buckets_[2 * i + 1] = s;
          s->prev = &buckets_[2 * i + 1];
          break;
        }
      }
    }
    numBuckets_ = to;
    bucketFactor_ = factor;
    counters_.shadowBucketGrows++;
  }

  // Halves the buckets: 2k and 2k + 1 join into k, 2k's chain first.
  void shrink() {
    uint32_t const from = numBuckets_;
    uint32_t const to = from / 2;
    for (uint32_t k = 0; k < to; k++) {
      Slot* const low = buckets_[2 * k];
      Slot* const high = buckets_[2 * k + 1];
      if (low) {
        buckets_[k] = low;
        low->prev = &buckets_[k];
        Slot* last = low;
        while (last->next) last = last->next;
        last->next = high;
        if (high) high->prev = &last->next;
      } else {
        buckets_[k] = high;
        if (high) high->prev = &buckets_[k];
      }
    }
    Slot** const old = buckets_;
    Slot** const smaller = resizeBuckets(from, to);
    if (smaller != old) {
      FMTRACE(handler_, 2, "ShadowHashMap", "base address moved from {} to {}",
              static_cast<void*>(old), static_cast<void*>(smaller));
      for (uint32_t k = 0; k < to; k++) {
        if (smaller[k]) smaller[k]->prev = &smaller[k];
      }
    }
    bucketFactor_--;
    numBuckets_ = to;
    counters_.shadowBucketShrinks++;
    FMTRACE(handler_, 2, "ShadowHashMap", "shrunk to numBuckets_:{} bucketFactor_:{}", numBuckets_,
            bucketFactor_);
  }

  // 2^31 buckets of 8 bytes: more than any slot count (u32) can fill at a
  // load of 1, and the largest power of 2 a u32 count holds.
  static constexpr uint32_t kMaxBuckets = 1u << 31;

  Lomi::Platform::DebugHandler& handler_;
  Ops const& ops_;
  Reader::Counters& counters_;
  SlotCounters& slotCounters_;
  Slot* const& slots_;
  uint32_t bucketFactor_ = 1;
  uint32_t numBuckets_ = 2;
  Slot** buckets_ = nullptr;
  Mem::Local mem_;
};

}  // namespace Mirak
