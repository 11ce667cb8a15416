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
#pragma once

#include <cstdint>
#include <string>

#include <fmt/format.h>
#include <fmt/ostream.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Atomics.h"
#include "Mirak/Counters.h"
#include "Mirak/IterHint.h"
#include "Mirak/SlotLink.h"
#include "Mirak/SlotWriter.h"
#include "MirakCore/BitReverse.h"
#include "MirakCore/BucketWriter.h"
#include "MirakCore/CriticalTaskClock.h"

namespace MirakCore {

// What a validator is told by the walk: each slot the walk met. Set on the map
// only while a validation runs.
class SlotMarker {
 public:
  virtual ~SlotMarker() = default;
  virtual void markOccupied(uint32_t slot) = 0;
};

// `Access` supplies, for the table's key and value types:
//   using Key, Value;
//   static Key const& key(Value const&);
//   uint32_t hash(Key const&) const;   (with the table's seed)
template <typename Access>
class WriterHashMap {
 public:
  using Key = typename Access::Key;
  using Value = typename Access::Value;
  using Slots = Mirak::SlotWriterTable<Value>;
  using SlotT = typename Slots::SlotT;
  using Link = Mirak::SlotLink;

  WriterHashMap(Lomi::Platform::DebugHandler& handler, std::string bucketDir, Access const& access,
                Slots& slots, Mirak::Writer::Counters& counters, bool const& criticalTaskCheck)
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
  void validatorIs(SlotMarker* validator) { validator_ = validator; }

  uint32_t bucketOf(uint32_t hash) const { return hash & (buckets_.numBuckets() - 1); }

  // Finds `key` in `bucket`. On true, *prev is the link that points at the
  // entry and *curr the entry's link (its slot). On false, *prev is the link
  // after which the key belongs, *curr the entry that stopped the walk or *prev.
  // No side effect. Throws Lomi::CorruptionDetectedException on a damaged chain.
  bool find(Key const& key, uint32_t bucket, Link** prev, Link** curr, uint32_t hash) const;

  bool first(uint32_t bucket, Value& value, Mirak::IterHint& hint) const;
  bool next(Key const& key, Value& value, Mirak::IterHint& hint) const;
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
  bool nextFast(Value& value, Mirak::IterHint& hint) const;
  bool nextSlow(Key const& key, Value& value, Mirak::IterHint& hint) const;
  // Copies slot `index` out as the walk's answer: anchor, value, hint.
  void take(uint32_t index, SlotT const& s, uint32_t bucket, Value& value,
            Mirak::IterHint& hint) const;
  void checkRhash(uint32_t index, SlotT const& s, uint32_t hash, bool slowPath) const;
  Link* lastLinkOf(uint32_t bucket);
  // The writer owns the bucket file; const walks hand out links to the chain.
  Link& bucketAt(uint32_t index) const { return const_cast<BucketWriter<Link>&>(buckets_)[index]; }

  Lomi::Platform::DebugHandler& handler_;
  uint32_t growThreshold_ = 0;
  uint32_t shrinkThreshold_ = 0;
  BucketWriter<Link> buckets_;
  Access const& access_;
  Slots& slots_;
  Mirak::Writer::Counters& counters_;
  bool const& criticalTaskCheck_;
  SlotMarker* validator_ = nullptr;
};

// ---------------------------------------------------------------------------

template <typename Access>
bool WriterHashMap<Access>::find(Key const& key, uint32_t bucket, Link** prev, Link** curr,
                                 uint32_t hash) const {
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
    if (!(s.versionFlags & Mirak::SlotTable::OCCUPIED)) {
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

template <typename Access>
void WriterHashMap<Access>::verifyNextBucket(uint32_t bucket, uint32_t next) const {
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

template <typename Access>
void WriterHashMap<Access>::take(uint32_t index, SlotT const& s, uint32_t bucket, Value& value,
                                 Mirak::IterHint& hint) const {
  slots_.versionAnchor().set(s.versionFlags, &s.versionFlags, slots_.base());
  value = s.value;
  hint.versionFlags = s.versionFlags;
  hint.slotIndex = index;
  hint.bucket = bucket;
}

template <typename Access>
void WriterHashMap<Access>::checkRhash(uint32_t index, SlotT const& s, uint32_t hash,
                                       bool slowPath) const {
  uint32_t const r = Lomi::Util::reverse(hash);
  if (r != s.rhash) {
    if (slowPath) {
      throw Lomi::CorruptionDetectedException(
          "corrupt rhash detected, slotId: {} slot.rhash:{:08x} rhash:{:0x}", index, s.rhash, r);
    }
    throw Lomi::CorruptionDetectedException(
        "corrupt rhash detected, slotId: {} slot.rhash:{:08x} rhash:{:08x}", index, s.rhash, r);
  }
  validator_->markOccupied(index);
}

template <typename Access>
bool WriterHashMap<Access>::first(uint32_t bucket, Value& value, Mirak::IterHint& hint) const {
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
  SlotT const& s = slots_.slots()[index];
  if (!(s.versionFlags & Mirak::SlotTable::OCCUPIED)) {
    throw Lomi::CorruptionDetectedException("slotId: {} from bucket: {} not marked as occupied",
                                            index, b);
  }
  take(index, s, b, value, hint);
  uint32_t const hash = access_.hash(Access::key(value));
  if ((hash & (n - 1)) != b) {
    throw Lomi::CorruptionDetectedException("corrupt key detected, slotId: {}", index);
  }
  if (validator_) checkRhash(index, s, hash, false);
  return true;
}

template <typename Access>
bool WriterHashMap<Access>::next(Key const& key, Value& value, Mirak::IterHint& hint) const {
  uint32_t const n = buckets_.numBuckets();
  if (hint.slotIndex < slots_.capacity() && hint.bucket < n &&
      slots_.slots()[hint.slotIndex].versionFlags == hint.versionFlags) {
    try {
      return nextFast(value, hint);
    } catch (Lomi::CorruptionDetectedException const& e) {
      FMTRACE(handler_, 5, "WriterHashMap",
              "saw exception in fast path: {}. This might be okay, dropping to slow path to find "
              "out",
              e.msg());
    }
  }
  return nextSlow(key, value, hint);
}

template <typename Access>
bool WriterHashMap<Access>::nextFast(Value& value, Mirak::IterHint& hint) const {
  uint32_t const n = buckets_.numBuckets();
  uint32_t const next = slots_.slots()[hint.slotIndex].link.next;
  if (!Link::isEndOfChain(next)) {
    SlotT const& s = slots_.slots()[next];
    if (!(s.versionFlags & Mirak::SlotTable::OCCUPIED)) {
      throw Lomi::CorruptionDetectedException("slotId: {} not marked as occupied", next);
    }
    uint32_t const hash = access_.hash(Access::key(s.value));
    if ((hash & (n - 1)) != hint.bucket) {
      throw Lomi::CorruptionDetectedException("corrupt key detected, slotId: {}", next);
    }
    if (validator_) checkRhash(next, s, hash, false);
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
  return first(nb, value, hint);
}

template <typename Access>
bool WriterHashMap<Access>::nextSlow(Key const& key, Value& value, Mirak::IterHint& hint) const {
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
    if (!(s.versionFlags & Mirak::SlotTable::OCCUPIED)) {
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
      if (validator_) checkRhash(index, s, slotHash, true);
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
  return first(nb, value, hint);
}

template <typename Access>
typename WriterHashMap<Access>::Link* WriterHashMap<Access>::lastLinkOf(uint32_t bucket) {
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

template <typename Access>
void WriterHashMap<Access>::growBuckets() {
  uint32_t const n = buckets_.numBuckets();
  // 1
  FMTRACE(handler_, 2, "WriterHashMap", "growing from: {} to: {}", n, 2 * n);
  CriticalTaskClock clock(criticalTaskCheck_);
  // 2: the new half becomes addressable; readers do not know of it yet.
  buckets_.resize(2 * n);
  uint32_t const mask2 = 2 * n - 1;
  // 4: first pass. Head b + n points into the tail of chain b; chain b is
  // untouched.
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
    // 5
    clock.tick();
  }
  // 6: publish the doubled count.
  auto& count = buckets_.header()->numBuckets;
  Mem::storeRelease(count, Mem::VersionedRef<unsigned int>{count.version + 1, 2 * n});
  // 7: second pass. Cut each chain before its first leaving entry.
  for (uint32_t b = 0; b < n; b++) {
    Link* link = &buckets_[b];
    while (!Link::isEndOfChain(link->next)) {
      SlotT& s = slots_.slots()[link->next];
      if ((access_.hash(Access::key(s.value)) & mask2) != b) break;
      link = &s.link;
    }
    Mem::storeRelease(*link, Link{link->version + Link::kVersionStep, Link::endOfChainTo(b + n)});
    // 8
    clock.tick();
  }
  // 9
  uint64_t const elapsed = clock.elapsedNs();
  counters_.bucketGrows++;
  counters_.lastBucketGrowTime = elapsed;
  if (elapsed > counters_.longestBucketGrowTime) counters_.longestBucketGrowTime = elapsed;
  thresholdsIs();
}

template <typename Access>
void WriterHashMap<Access>::shrinkBuckets() {
  uint32_t const n = buckets_.numBuckets();
  uint32_t const half = n / 2;
  // 1
  CriticalTaskClock clock(criticalTaskCheck_);
  // 2: join each high chain behind its low partner. The high chain's
  // end-of-chain link names the bucket that follows in the smaller table too.
  for (uint32_t b = 0; b < half; b++) {
    Link* last = lastLinkOf(b);
    Link const high = buckets_[b + half];
    Mem::storeRelease(*last, Link{last->version + Link::kVersionStep, high.next});
    clock.tick();
  }
  // 3: publish the halved count.
  auto& count = buckets_.header()->numBuckets;
  Mem::storeRelease(count, Mem::VersionedRef<unsigned int>{count.version + 1, half});
  // 4: only now release the upper half.
  buckets_.resize(half);
  // 5
  uint64_t const elapsed = clock.elapsedNs();
  counters_.bucketShrinks++;
  counters_.lastBucketShrinkTime = elapsed;
  if (elapsed > counters_.longestBucketShrinkTime) counters_.longestBucketShrinkTime = elapsed;
  FMTRACE(handler_, 2, "WriterHashMap", "shrunk from:{} to:{} shrinkBuckets_:{} time:{}", n, half,
          true, elapsed);
  thresholdsIs();
}

}  // namespace MirakCore
