// MirakCore::WriterHashMap: the writer's view of a table's index.
//
// THE SPLIT-ORDERED LIST
//
// All entries of a table form one singly linked list sorted by `rhash`, the
// key's 32-bit hash with its bits reversed (ties broken by Key::operator<).
// A bucket is an entry point into that list: bucket b (b = hash mod n, the low
// bits of the hash) holds the first entry whose low bits are b. Because the
// list is ordered by the *reversed* hash, all entries of one bucket stand
// together, and the buckets follow each other in bit-reversed order of their
// numbers. For n = 8 (3 bits) the walk is
//
//     0 (000) -> 4 (100) -> 2 (010) -> 6 (110) -> 1 (001) -> 5 (101) -> 3 (011) -> 7 (111)
//
// and the chain of each bucket ends in an end-of-chain link (bit 31 set) that
// names the bucket that comes next; the last one (7) ends in 0xffffffff.
// bitReversePermute(b, bits) computes that successor.
//
// Doubling n -> 2n never moves an entry. Bucket b splits into b (bit k of the
// hash clear) and b + n (bit k set). In reversed order bit k is the
// (k+1)-th most significant bit of rhash, so within chain b every entry that
// stays sorts before every entry that leaves: one cut suffices. Example, n = 2
// to 4, chain 0 holds hashes ...000, ...100, ...010, ...110 (rhash ascending:
// 000.., 001.., 010.., 011..): those ending in 00 stay in 0, those ending in
// 10 go to 2, and they are exactly the back half of the chain.
//
// growBuckets does it in two passes so that a reader never loses its way:
//   1. point the new head b + n into the tail of chain b (old chain untouched);
//   2. publish numBuckets = 2n (one 8-byte store, version + 1);
//   3. cut: the link before the first leaving entry becomes end-of-chain(b + n).
// Between 2 and 3 both chains are valid suffixes of the same list. A reader on
// the old count still finds everything until the cut; after it, the reader
// meets end-of-chain(b + n) or a new numBuckets version and restarts.
//
// shrinkBuckets mirrors it: join each high chain behind its low partner, then
// publish n/2, then release the upper half of the file. A reader is never told
// of buckets that are not there.
//
// Only the writer thread enters this class. Every store is one whole SlotLink
// or the numBuckets pair, as a release store.
//
// The map is generic: it knows keys only through `Access` and slots only
// through `SlotTableT`, the slot-table concept below. It runs no audit of its
// own; a validator walks it with first/next and a visitor that sees every slot
// the walk returns.
#pragma once

#include <cstdint>
#include <string>

#include <fmt/format.h>
#include <fmt/ostream.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Atomics.h"
#include "MirakCore/WriteStep.h"
#include "MirakCore/BitReverse.h"
#include "MirakCore/BucketWriter.h"
#include "MirakCore/CriticalTaskClock.h"
#include "MirakCore/IterHint.h"
#include "MirakCore/SlotLink.h"

namespace MirakCore {

// The visitor of a walk that audits nothing: first/next without a visitor
// compile to the plain walk.
struct NoSlotVisit {
  template <typename SlotT>
  void operator()(uint32_t, SlotT const&, uint32_t, bool) const {}
};

// `Access` supplies, for the table's key and value types:
//   using Key, Value;
//   static Key key(Value const&);
//   static std::string keyText(Key const&);
//   uint32_t hash(Key const&) const;   (with the table's seed)
//
// `SlotTableT`, the slot-table concept, supplies:
//   using SlotT;       a slot: `link` (a SlotLink, its first member, so that a
//                      link pointer is a slot pointer), `versionFlags`, `rhash`
//                      (the reversed hash), `value`
//   using Counters;    statistics with the u64 fields slowPathIterations,
//                      bucketGrows, bucketShrinks, last/longestBucketGrowTime,
//                      last/longestBucketShrinkTime
//   static bool occupied(uint32_t versionFlags);
//   slots()            indexable by slot index (throws past the capacity),
//                      with `base`, the address of slot 0
//   capacity(), versionAnchor(), base()
//
// A visitor, called by first/next with every slot the walk returns (after the
// walk's own checks), is `visit(index, slot, hash, slowPath)` with `hash` the
// hash of the slot's key and `slowPath` true on next's walk from the key's
// bucket; it may throw to stop the walk.
template <typename Access, typename SlotTableT>
class WriterHashMap {
 public:
  using Key = typename Access::Key;
  using Value = typename Access::Value;
  using Slots = SlotTableT;
  using SlotT = typename Slots::SlotT;
  using Counters = typename Slots::Counters;
  using Link = SlotLink;

  WriterHashMap(Lomi::Platform::DebugHandler& handler, std::string bucketDir, Access const& access,
                Slots& slots, Counters& counters, bool const& criticalTaskCheck)
      : handler_(handler),
        buckets_(handler, std::move(bucketDir)),
        access_(access),
        slots_(slots),
        counters_(counters),
        criticalTaskCheck_(criticalTaskCheck) {}

  BucketWriter<Link>& bucketWriter() { return buckets_; }
  BucketWriter<Link> const& bucketWriter() const { return buckets_; }
  uint32_t numBuckets() const { return buckets_.numBuckets(); }
  uint32_t growThreshold() const { return growThreshold_; }
  uint32_t shrinkThreshold() const { return shrinkThreshold_; }
  // Sets the load-factor thresholds from the current bucket count: grow past
  // one entry per bucket, shrink below a quarter.
  void thresholdsIs() {
    growThreshold_ = buckets_.numBuckets();
    shrinkThreshold_ = buckets_.numBuckets() >> 2;
  }

  uint32_t bucketOf(uint32_t hash) const { return hash & (buckets_.numBuckets() - 1); }

  // Finds `key` in `bucket`. On true, *prev is the link that points at the
  // entry and *curr the entry's link (its slot). On false, *prev is the link
  // after which the key belongs, *curr the entry that stopped the walk or *prev.
  // No side effect. Throws Lomi::CorruptionDetectedException on a damaged chain.
  bool find(Key const& key, uint32_t bucket, Link** prev, Link** curr, uint32_t hash) const;

  template <typename Visit = NoSlotVisit>
  bool first(uint32_t bucket, Value& value, IterHint& hint, Visit&& visit = {}) const;
  template <typename Visit = NoSlotVisit>
  bool next(Key const& key, Value& value, IterHint& hint, Visit&& visit = {}) const;
  void verifyNextBucket(uint32_t bucket, uint32_t next) const;

  void growBuckets();
  void shrinkBuckets();

  // The slot of a link pointer returned by find (a slot's link is its first
  // member).
  static SlotT* slotOf(Link* link) { return reinterpret_cast<SlotT*>(link); }
  uint32_t indexOf(SlotT const* slot) const {
    return static_cast<uint32_t>(slot - slots_.slots().base);
  }

 private:
  template <typename Visit>
  bool nextFast(Value& value, IterHint& hint, Visit& visit) const;
  template <typename Visit>
  bool nextSlow(Key const& key, Value& value, IterHint& hint, Visit& visit) const;
  // Copies slot `index` out as the walk's answer: anchor, value, hint.
  void take(uint32_t index, SlotT const& s, uint32_t bucket, Value& value, IterHint& hint) const;
  Link* lastLinkOf(uint32_t bucket);
  // A walk that reaches `bucket` asks for the lines it will need a few
  // buckets on: the bucket entry 2 * kWalkAhead steps ahead, and the first
  // slot of the bucket kWalkAhead steps ahead (whose entry the call of
  // kWalkAhead steps before asked for). A walk meets one slot per bucket or
  // so, each a miss of its own in a large table, and these requests let the
  // misses of coming steps overlap the current one. Hints only: nothing read
  // here decides anything.
  void prefetchAhead(uint32_t bucket) const {
    uint32_t const n = buckets_.numBuckets();
    if (n < 4 * kWalkAhead) return;
    uint32_t const bits = log2OfPowerOfTwo(n);
    __builtin_prefetch(&bucketAt(bucketAhead(bucket, bits, 2 * kWalkAhead)));
    uint32_t const first = bucketAt(bucketAhead(bucket, bits, kWalkAhead)).next;
    if (Link::isEndOfChain(first) || first >= slots_.capacity()) return;
    char const* const s = reinterpret_cast<char const*>(&slots_.slots()[first]);
    __builtin_prefetch(s);
    __builtin_prefetch(s + sizeof(SlotT) / 2);
    __builtin_prefetch(s + sizeof(SlotT) - 1);
  }
  static constexpr uint32_t kWalkAhead = 8;
  // The writer owns the bucket file; const walks hand out links to the chain.
  Link& bucketAt(uint32_t index) const { return const_cast<BucketWriter<Link>&>(buckets_)[index]; }

  Lomi::Platform::DebugHandler& handler_;
  uint32_t growThreshold_ = 0;
  uint32_t shrinkThreshold_ = 0;
  BucketWriter<Link> buckets_;
  Access const& access_;
  Slots& slots_;
  Counters& counters_;
  bool const& criticalTaskCheck_;
};

// ---------------------------------------------------------------------------

template <typename Access, typename SlotTableT>
bool WriterHashMap<Access, SlotTableT>::find(Key const& key, uint32_t bucket, Link** prev,
                                             Link** curr, uint32_t hash) const {
  Link* const head = &bucketAt(bucket);
  *prev = *curr = head;
  uint32_t const t = Lomi::Util::reverse(hash);
  if (Link::isEndOfChain(head->next)) return false;
  uint32_t const capacity = slots_.capacity();
  uint32_t const mask = buckets_.numBuckets() - 1;
  for (uint32_t count = 1;; count++) {
    if (count > capacity) {
      throw Lomi::CorruptionDetectedException("hash chain cycle detected, slotCount:{} capacity:{}",
                                              count, capacity);
    }
    uint32_t const index = Link::indexOf((*prev)->next);
    SlotT& s = slots_.slots()[index];
    *curr = &s.link;
    if (!Slots::occupied(s.versionFlags)) {
      throw Lomi::CorruptionDetectedException("slotId: {} not marked as occupied", index);
    }
    // Rehash every visited key: a damaged slot must not send the walk astray.
    Key const slotKey = Access::key(s.value);
    if ((access_.hash(slotKey) & mask) != bucket) {
      throw Lomi::CorruptionDetectedException("corrupt key detected, slotId: {}", index);
    }
    uint32_t const r = s.rhash;
    if (t < r) return false;
    if (t == r) {
      if (!(slotKey < key)) return !(key < slotKey);
    }
    *prev = &s.link;
    if (Link::isEndOfChain(s.link.next)) return false;
  }
}

template <typename Access, typename SlotTableT>
void WriterHashMap<Access, SlotTableT>::verifyNextBucket(uint32_t bucket, uint32_t next) const {
  uint32_t const n = buckets_.numBuckets();
  uint32_t const half = n / 2;
  bool ok;
  if (bucket < half) {
    ok = next == bucket + half;
  } else {
    ok = next == bitReversePermute(bucket, buckets_.bucketFactor()) % n;
  }
  if (!ok) {
    throw Lomi::CorruptionDetectedException(
        "has bucket: {} with next bucket: {} and numBuckets: {}", bucket, next, n);
  }
}

template <typename Access, typename SlotTableT>
void WriterHashMap<Access, SlotTableT>::take(uint32_t index, SlotT const& s, uint32_t bucket,
                                             Value& value, IterHint& hint) const {
  slots_.versionAnchor().set(s.versionFlags, &s.versionFlags, slots_.base());
  value = s.value;
  hint.versionFlags = s.versionFlags;
  hint.slotIndex = index;
  hint.bucket = bucket;
}

template <typename Access, typename SlotTableT>
template <typename Visit>
bool WriterHashMap<Access, SlotTableT>::first(uint32_t bucket, Value& value, IterHint& hint,
                                              Visit&& visit) const {
  uint32_t const n = buckets_.numBuckets();
  uint32_t b = bucket;
  Link link = bucketAt(b);
  for (uint32_t count = 1; Link::isEndOfChain(link.next); count++) {
    if (link.next == Link::kEndOfTable) {
      if (b != n - 1) {
        throw Lomi::CorruptionDetectedException(
            "thinks we've reached the end of the table, but we're in bucket {} when there are "
            "numBuckets: {}",
            b, n);
      }
      FMTRACE(handler_, 8, "WriterHashMap", "none found!");
      return false;
    }
    if (count >= n || n < 2) {
      throw Lomi::CorruptionDetectedException(
          "has bucket cycle detected, bucketCount: {} numBuckets: {}", count, n);
    }
    uint32_t const nb = Link::indexOf(link.next);
    verifyNextBucket(b, nb);
    b = nb;
    link = bucketAt(b);
  }
  uint32_t const index = link.next;
  prefetchAhead(b);
  SlotT const& s = slots_.slots()[index];
  if (!Slots::occupied(s.versionFlags)) {
    throw Lomi::CorruptionDetectedException("slotId: {} from bucket: {} not marked as occupied",
                                            index, b);
  }
  take(index, s, b, value, hint);
  uint32_t const hash = access_.hash(Access::key(value));
  if ((hash & (n - 1)) != b) {
    throw Lomi::CorruptionDetectedException("corrupt key detected, slotId: {}", index);
  }
  visit(index, s, hash, false);
  return true;
}

template <typename Access, typename SlotTableT>
template <typename Visit>
bool WriterHashMap<Access, SlotTableT>::next(Key const& key, Value& value, IterHint& hint,
                                             Visit&& visit) const {
  uint32_t const n = buckets_.numBuckets();
  if (hint.slotIndex < slots_.capacity() && hint.bucket < n &&
      slots_.slots()[hint.slotIndex].versionFlags == hint.versionFlags) {
    try {
      return nextFast(value, hint, visit);
    } catch (Lomi::CorruptionDetectedException const& e) {
      FMTRACE(handler_, 5, "WriterHashMap",
              "saw exception in fast path: {}. This might be okay, dropping to slow path to find "
              "out",
              e.msg());
    }
  }
  return nextSlow(key, value, hint, visit);
}

template <typename Access, typename SlotTableT>
template <typename Visit>
bool WriterHashMap<Access, SlotTableT>::nextFast(Value& value, IterHint& hint, Visit& visit) const {
  uint32_t const n = buckets_.numBuckets();
  uint32_t const next = slots_.slots()[hint.slotIndex].link.next;
  if (!Link::isEndOfChain(next)) {
    SlotT const& s = slots_.slots()[next];
    if (!Slots::occupied(s.versionFlags)) {
      throw Lomi::CorruptionDetectedException("slotId: {} not marked as occupied", next);
    }
    uint32_t const hash = access_.hash(Access::key(s.value));
    if ((hash & (n - 1)) != hint.bucket) {
      throw Lomi::CorruptionDetectedException("corrupt key detected, slotId: {}", next);
    }
    visit(next, s, hash, false);
    take(next, s, hint.bucket, value, hint);
    return true;
  }
  if (next == Link::kEndOfTable) {
    if (hint.bucket != n - 1) {
      throw Lomi::CorruptionDetectedException(
          "thinks we've reached the end of the table, but we're in bucket {} when there are "
          "numBuckets: {}",
          hint.bucket, n);
    }
    FMTRACE(handler_, 8, "WriterHashMap", "{} failed", hint.slotIndex);
    return false;
  }
  uint32_t const nb = Link::indexOf(next);
  verifyNextBucket(hint.bucket, nb);
  return first(nb, value, hint, visit);
}

template <typename Access, typename SlotTableT>
template <typename Visit>
bool WriterHashMap<Access, SlotTableT>::nextSlow(Key const& key, Value& value, IterHint& hint,
                                                 Visit& visit) const {
  counters_.slowPathIterations++;
  uint32_t const hash = access_.hash(key);
  uint32_t const n = buckets_.numBuckets();
  uint32_t const bucket = hash & (n - 1);
  uint32_t const t = Lomi::Util::reverse(hash);
  uint32_t const capacity = slots_.capacity();
  Link link = bucketAt(bucket);
  for (uint32_t count = 1; !Link::isEndOfChain(link.next); count++) {
    if (count > capacity) {
      throw Lomi::CorruptionDetectedException("hash chain cycle detected, slotCount:{} capacity:{}",
                                              count, capacity);
    }
    uint32_t const index = link.next;
    SlotT const& s = slots_.slots()[index];
    if (!Slots::occupied(s.versionFlags)) {
      throw Lomi::CorruptionDetectedException(
          "slow-path slot:{} not marked as occupied key:{} slotCount:{}", index,
          Access::keyText(key), count);
    }
    Key const slotKey = Access::key(s.value);
    uint32_t const slotHash = access_.hash(slotKey);
    if ((slotHash & (n - 1)) != bucket) {
      throw Lomi::CorruptionDetectedException("corrupt key detected, slotId: {}", index);
    }
    bool const above = s.rhash > t || (s.rhash == t && key < slotKey);
    if (above) {
      visit(index, s, slotHash, true);
      take(index, s, bucket, value, hint);
      return true;
    }
    link = s.link;
  }
  if (link.next == Link::kEndOfTable) {
    FMTRACE(handler_, 8, "WriterHashMap", "{} failed", Access::keyText(key));
    return false;
  }
  uint32_t const nb = Link::indexOf(link.next);
  verifyNextBucket(bucket, nb);
  return first(nb, value, hint, visit);
}

template <typename Access, typename SlotTableT>
auto WriterHashMap<Access, SlotTableT>::lastLinkOf(uint32_t bucket) -> Link* {
  Link* link = &buckets_[bucket];
  uint32_t const capacity = slots_.capacity();
  for (uint32_t count = 1; !Link::isEndOfChain(link->next); count++) {
    if (count > capacity) {
      throw Lomi::CorruptionDetectedException("hash chain cycle detected, slotCount:{} capacity:{}",
                                              count, capacity);
    }
    link = &slots_.slots()[link->next].link;
  }
  return link;
}

template <typename Access, typename SlotTableT>
void WriterHashMap<Access, SlotTableT>::growBuckets() {
  uint32_t const n = buckets_.numBuckets();
  FMTRACE(handler_, 2, "WriterHashMap", "growing from: {} to: {}", n, 2 * n);
  CriticalTaskClock clock(criticalTaskCheck_);
  // Before grow step 1: the new half becomes addressable; readers do not know
  // of it yet.
  buckets_.resize(2 * n);
  uint32_t const mask2 = 2 * n - 1;
  // Grow step 1 (the essay above), the first pass: head b + n points into the
  // tail of chain b; chain b is untouched.
  for (uint32_t b = 0; b < n; b++) {
    Link const* link = &buckets_[b];
    uint32_t const capacity = slots_.capacity();
    uint32_t count = 0;
    while (!Link::isEndOfChain(link->next)) {
      if (++count > capacity) {
        throw Lomi::CorruptionDetectedException(
            "hash chain cycle detected, slotCount:{} capacity:{}", count, capacity);
      }
      SlotT const& s = slots_.slots()[link->next];
      if ((access_.hash(Access::key(s.value)) & mask2) != b) break;
      link = &s.link;
    }
    Link& head = buckets_[b + n];
    Mem::storeRelease(head, Link{head.version + Link::kVersionStep, link->next});
    clock.tick();
  }
  writeStep<Access>(WriteStep::bucketsSplitting);
  // Grow step 2: publish the doubled count.
  auto& count = buckets_.header()->numBuckets;
  Mem::storeRelease(count, Mem::VersionedRef<unsigned int>{count.version + 1, 2 * n});
  // Grow step 3, the second pass: cut each chain before its first leaving
  // entry.
  for (uint32_t b = 0; b < n; b++) {
    Link* link = &buckets_[b];
    while (!Link::isEndOfChain(link->next)) {
      SlotT& s = slots_.slots()[link->next];
      if ((access_.hash(Access::key(s.value)) & mask2) != b) break;
      link = &s.link;
    }
    Mem::storeRelease(*link, Link{link->version + Link::kVersionStep, Link::endOfChainTo(b + n)});
    clock.tick();
  }
  uint64_t const elapsed = clock.elapsedNs();
  counters_.bucketGrows++;
  counters_.lastBucketGrowTime = elapsed;
  if (elapsed > counters_.longestBucketGrowTime) counters_.longestBucketGrowTime = elapsed;
  thresholdsIs();
}

template <typename Access, typename SlotTableT>
void WriterHashMap<Access, SlotTableT>::shrinkBuckets() {
  uint32_t const n = buckets_.numBuckets();
  uint32_t const half = n / 2;
  CriticalTaskClock clock(criticalTaskCheck_);
  // Shrink step 1 (the essay above): join each high chain behind its low
  // partner. The high chain's end-of-chain link names the bucket that follows
  // in the smaller table too.
  for (uint32_t b = 0; b < half; b++) {
    Link* last = lastLinkOf(b);
    Link const high = buckets_[b + half];
    Mem::storeRelease(*last, Link{last->version + Link::kVersionStep, high.next});
    clock.tick();
  }
  // Shrink step 2: publish the halved count.
  auto& count = buckets_.header()->numBuckets;
  Mem::storeRelease(count, Mem::VersionedRef<unsigned int>{count.version + 1, half});
  // Shrink step 3: only now release the upper half.
  buckets_.resize(half);
  uint64_t const elapsed = clock.elapsedNs();
  counters_.bucketShrinks++;
  counters_.lastBucketShrinkTime = elapsed;
  if (elapsed > counters_.longestBucketShrinkTime) counters_.longestBucketShrinkTime = elapsed;
  FMTRACE(handler_, 2, "WriterHashMap", "shrunk from:{} to:{} shrinkBuckets_:{} time:{}", n, half,
          true, elapsed);
  thresholdsIs();
}

}  // namespace MirakCore
