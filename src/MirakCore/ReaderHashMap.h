// MirakCore::ReaderHashMap<Reader>: the lock-free read side of a table's
// index (the split-ordered list of WriterHashMap.h, walked without a lock
// while the one writer changes it).
//
// A reader process walks the bucket and slot files, takes no lock, stores
// nothing into either file, and never returns a torn value, a key that is not
// in the table, or a false report of absence. What proves each step:
//
//  1. A value is copied under its slot's `versionFlags` (SlotReaderTable::
//     getValue): key and value are taken whole or not at all.
//  2. The link that led to a slot (a bucket head or the previous slot's link)
//     is loaded as one 8-byte pair before the slot is read and its version is
//     compared after: an unchanged version proves that the slot was still in
//     this chain when it was read. Removal, re-use and a cut of the chain all
//     store into that link (version + 4), so the walk restarts from the
//     bucket head and counts a retry. Each restart needs a fresh store by the
//     writer into exactly the link being followed.
//  3. A slot reached over an unchanged link is OCCUPIED, and its key belongs
//     to the bucket under the private bucket count n, or n/2 or 2n (a walk
//     may overlap a halving or doubling). Anything else is an exception.
//  4. `slotCount` (bounded by the capacity) and `bucketCount` (bounded by the
//     bucket count) turn any loop that a racing change may form into an
//     exception.
//  5. Absence is reported only after `checkResize`: a walk that ended on a
//     bucket count the header has left behind throws instead, and the reader
//     object (MirakReader) remaps and runs the operation again. Every
//     exception here is Lomi::CorruptionDetectedException, and it is the
//     normal way a resize shows up; only MirakReader decides whether it is
//     damage.
//
// Loads: links and the header's pairs are 8-byte acquire loads, `versionFlags`
// acquire loads; their program order is part of the protocol.
//
// `Reader` supplies: `Ops` (Key, Value, key(), keyLess(), keyText(),
// defaultValue(), and `hash` through `ops()`), `Slots`, `slotTable()` (a
// Slots&), `counters()` (statistics with the u64 fields retries, nextSlowPath
// and slowPathSteps) and `valueBuffer()`. `Slots`, the reader's side of the
// slot-table concept, supplies `SlotT` (whose first member is its SlotLink
// `link`, then `versionFlags`), `slots()`, `capacity()`, `static bool
// occupied(uint32_t versionFlags)` and `getValue(index, value)`, the copy under
// the slot's sequence word returning the word and the rhash it was read with.
// One thread per object: the internal value buffer and the version anchor
// belong to the reader object.
#pragma once

#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Atomics.h"
#include "MirakCore/BitReverse.h"
#include "MirakCore/BucketReader.h"
#include "MirakCore/IterHint.h"
#include "MirakCore/SlotLink.h"

namespace MirakCore {

template <typename Reader>
class ReaderHashMap {
 public:
  using Ops = typename Reader::Ops;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;
  using Slots = typename Reader::Slots;
  using SlotT = typename Slots::SlotT;
  using Link = SlotLink;
  using Buckets = BucketReader<Link>;

  // `directory` is the table's root directory; nothing is mapped here.
  ReaderHashMap(Lomi::Platform::DebugHandler& handler, std::string const& directory, Reader* reader)
      : handler_(handler), buckets_(handler, directory), reader_(reader) {}
  ReaderHashMap(ReaderHashMap const&) = delete;
  ReaderHashMap& operator=(ReaderHashMap const&) = delete;

  // Sets `found` and returns the value's address: `buffer` if given, else the
  // reader's value buffer, or the default value when absent.
  Value const* lookup(Key const& key, bool& found, void* buffer) const;
  // The most keys one lookupBulk takes (bits of its result).
  static constexpr uint32_t kBulkMax = 64;
  // Looks up `count` (at most kBulkMax) keys at once and returns a mask: bit
  // i set if keys[i] was found, its value then in values[i]. values[i] of a
  // key not found holds whatever was read last. The answers are those of
  // `count` lookups, with their checks and restarts; what differs is the
  // order of the loads: all hashes and bucket heads first, then each walk, so
  // that the cache misses of different keys overlap. `keys` and `values`
  // must not overlap.
  uint64_t lookupBulk(Key const* keys, uint32_t count, Value* values) const;
  // The first entry at or after `bucket` in walk order. `rhash`, if given,
  // receives the entry's rhash.
  bool first(uint32_t bucket, Value& value, IterHint& hint, uint32_t* rhash = nullptr) const;
  // The entry after `key` (the key of the entry last returned, with its hint).
  bool next(Key const& key, Value& value, IterHint& hint) const;
  // Throws unless `next` may follow `bucket` in the walk under the private
  // count n, n/2 or 2n.
  void verifyNextBucket(uint32_t bucket, uint32_t next) const;

  Buckets& bucketReader() { return buckets_; }
  Buckets const& bucketReader() const { return buckets_; }
  uint32_t numBuckets() const { return buckets_.numBuckets(); }

 private:
  enum class KeyCheck { lookup, first, next };
  // How one walk of a chain for lookup ended.
  enum class Walk { found, absent, restart };
  // lookup's walk of `bucket`'s chain for `key` (whose rhash is `target`)
  // from the head link `link`, loaded as one pair before the call. The value
  // read last is in `out`. `restart`: a link moved under the walk (counted
  // as a retry); the caller loads the head again. `absent` has not asked
  // checkResize: the caller does before it reports absence.
  Walk walkChain(Key const& key, uint32_t bucket, uint32_t target, Link link, Value& out) const;
  // Safety rule 3; throws with the message of the walk that asks.
  void keyCheck(Key const& key, uint32_t bucket, KeyCheck which) const;
  // The tests behind keyCheck and verifyNextBucket, without the throw.
  bool keyFits(Key const& key, uint32_t bucket) const;
  bool nextBucketFits(uint32_t bucket, uint32_t next) const;
  // Table order: (rhash, key), both ascending.
  static bool after(uint32_t rhash, Key const& key, uint32_t thanRhash, Key const& thanKey) {
    return rhash > thanRhash || (rhash == thanRhash && Ops::keyLess(thanKey, key));
  }
  // Whether `key` lies after `than` in table order, by the hashes of the keys
  // themselves: the rhash words of a damaged file may say anything, and a
  // walk that trusted them could come back on itself.
  bool keyAfter(Key const& key, uint32_t thanRhash, Key const& than) const {
    return after(Lomi::Util::reverse(hashOf(key)), key, thanRhash, than);
  }
  bool nextSlow(Key const& key, Value& value, IterHint& hint) const;
  // A walk that reaches `bucket` asks for the lines it will need a few
  // buckets on: the bucket entry 2 * kWalkAhead steps ahead, and the first
  // slot of the bucket kWalkAhead steps ahead (whose entry the call of
  // kWalkAhead steps before asked for), so that the misses of coming steps
  // overlap the current one. Hints only: the link loaded here is a relaxed
  // load that decides nothing; every slot the walk returns is read and
  // proved as before.
  void prefetchAhead(uint32_t bucket) const {
    uint32_t const n = buckets_.numBuckets();
    if (n < 4 * kWalkAhead) return;
    uint32_t const bits = buckets_.bits();
    __builtin_prefetch(&buckets_[bucketAhead(bucket, bits, 2 * kWalkAhead)]);
    uint32_t const first =
        Mem::loadRelaxed(buckets_[bucketAhead(bucket, bits, kWalkAhead)]).next;
    auto const& table = slots();
    if (Link::isEndOfChain(first) || first >= table.capacity()) return;
    char const* const s = reinterpret_cast<char const*>(table.slots().base + first);
    __builtin_prefetch(s);
    __builtin_prefetch(s + sizeof(SlotT) / 2);
    __builtin_prefetch(s + sizeof(SlotT) - 1);
  }
  static constexpr uint32_t kWalkAhead = 8;
  Slots& slots() const { return reader_->slotTable(); }
  auto& counters() const { return reader_->counters(); }
  uint32_t hashOf(Key const& key) const { return reader_->ops().hash(key); }
  static std::string keyHex(Key const& key) { return Lomi::Util::dumpHex(&key, sizeof(Key)); }
  static bool occupied(uint32_t word) { return Slots::occupied(word); }

  Lomi::Platform::DebugHandler& handler_;
  Buckets buckets_;
  Reader* reader_;
};

// ---------------------------------------------------------------------------

template <typename Reader>
bool ReaderHashMap<Reader>::keyFits(Key const& key, uint32_t bucket) const {
  uint64_t const n = buckets_.numBuckets();
  uint32_t const h = hashOf(key);
  if (h % n == bucket) return true;
  // With n = 1 the test above always passed, so n / 2 is never 0 here.
  return h % (n / 2) == bucket || h % (2 * n) == bucket;
}

template <typename Reader>
void ReaderHashMap<Reader>::keyCheck(Key const& key, uint32_t bucket, KeyCheck which) const {
  if (keyFits(key, bucket)) return;
  switch (which) {
    case KeyCheck::lookup:
      throw Lomi::CorruptionDetectedException("corrupt key detected. key:{} bucketIndex:{}",
                                              keyHex(key), bucket);
    case KeyCheck::first:
      throw Lomi::CorruptionDetectedException("corrupt key detected, key:{} bucket:{}", keyHex(key),
                                              bucket);
    case KeyCheck::next:
      break;
  }
  throw Lomi::CorruptionDetectedException("corrupt key detected. key:{} bucketIndex {}",
                                          keyHex(key), bucket);
}

template <typename Reader>
bool ReaderHashMap<Reader>::nextBucketFits(uint32_t bucket, uint32_t next) const {
  uint64_t const n = buckets_.numBuckets();
  uint32_t const bits = buckets_.bits();
  if (n == 0) return false;
  if (next == bitReversePermute(bucket, bits) % n) return true;
  if (n >= 2 && next == bitReversePermute(bucket, bits - 1) % (n / 2)) return true;
  return next == bitReversePermute(bucket, bits + 1) % (2 * n);
}

template <typename Reader>
void ReaderHashMap<Reader>::verifyNextBucket(uint32_t bucket, uint32_t next) const {
  if (nextBucketFits(bucket, next)) return;
  throw Lomi::CorruptionDetectedException("has bucket: {} with next bucket: {} and numBuckets: {}",
                                          bucket, next, buckets_.numBuckets());
}

template <typename Reader>
auto ReaderHashMap<Reader>::walkChain(Key const& key, uint32_t bucket, uint32_t target, Link link,
                                      Value& out) const -> Walk {
  auto& table = slots();
  // Safety rule 2: `link` is the bucket's head as one pair, loaded by the
  // caller before any slot of the chain is read.
  Link const* prevLink = &buckets_[bucket];
  uint32_t const capacity = table.capacity();
  uint32_t slotCount = 0;
  auto linkMoved = [&](uint32_t version) {
    if (Mem::loadAcquire(*prevLink).version == version) return false;
    counters().retries++;
    return true;
  };
  uint32_t prevVersion = link.version;
  uint32_t curr = link.next;
  while (!Link::isEndOfChain(curr)) {
    if (++slotCount > capacity) {
      throw Lomi::CorruptionDetectedException(
          "hash chain cycle detected, slotCount:{} capacity:{}", slotCount, capacity);
    }
    // Safety rule 1: the slot, under its sequence word.
    auto const read = table.getValue(curr, out);
    // The key inside the copy, which stays put until the next getValue.
    Key const& slotKey = Ops::key(out);
    // Safety rule 2: still reached over the same link?
    if (linkMoved(prevVersion)) return Walk::restart;
    // Safety rule 3.
    if (!occupied(read.word)) {
      throw Lomi::CorruptionDetectedException("slot:{} not marked as occupied key:{}", curr,
                                              keyHex(slotKey));
    }
    // On the key itself: one equality test where the order needed two.
    if (read.rhash == target && Ops::keyEqual(slotKey, key)) {
      if (linkMoved(prevVersion)) return Walk::restart;
      return Walk::found;
    }
    // Past the key's place in table order.
    if (read.rhash > target || (read.rhash == target && Ops::keyLess(key, slotKey))) {
      if (linkMoved(prevVersion)) return Walk::restart;
      keyCheck(slotKey, bucket, KeyCheck::lookup);
      return Walk::absent;
    }
    // Safety rule 2 for the next step: this slot's link, as one pair, then
    // the link that led here once more.
    Link const* const nextLink = &table.slots()[curr].link;
    Link const step = Mem::loadAcquire(*nextLink);
    if (linkMoved(prevVersion)) return Walk::restart;
    keyCheck(slotKey, bucket, KeyCheck::lookup);
    prevLink = nextLink;
    prevVersion = step.version;
    curr = step.next;
  }
  if (curr != Link::kEndOfTable) (void)buckets_[Link::indexOf(curr)];
  return Walk::absent;
}

template <typename Reader>
auto ReaderHashMap<Reader>::lookup(Key const& key, bool& found, void* buffer) const
    -> Value const* {
  found = false;
  uint32_t const n = buckets_.numBuckets();
  if (n == 0) {
    FMTRACE(handler_, 5, "ReaderHashMap", "bucket table detached");
    return &Ops::defaultValue();
  }
  Value& out = buffer ? *static_cast<Value*>(buffer) : reader_->valueBuffer();
  // Computed once: a restart after a resize keeps the old bucket, and the
  // end of the walk (checkResize) or the reader object's check sends the
  // lookup round again with a new one.
  uint32_t const hash = hashOf(key);
  uint32_t const bucket = hash & (n - 1);
  uint32_t const target = Lomi::Util::reverse(hash);
  for (;;) {
    Walk const walk = walkChain(key, bucket, target, Mem::loadAcquire(buckets_[bucket]), out);
    if (walk == Walk::restart) continue;
    if (walk == Walk::found) {
      found = true;
      return &out;
    }
    // Absence is never reported on a bucket count the header has left.
    buckets_.checkResize();
    return &Ops::defaultValue();
  }
}

template <typename Reader>
uint64_t ReaderHashMap<Reader>::lookupBulk(Key const* keys, uint32_t count, Value* values) const {
  FMASSERT(count <= kBulkMax, handler_, "ReaderHashMap", "lookupBulk of {} keys, at most {}",
           count, kBulkMax);
  uint32_t const n = buckets_.numBuckets();
  if (n == 0) {
    FMTRACE(handler_, 5, "ReaderHashMap", "bucket table detached");
    return 0;
  }
  auto& table = slots();
  uint32_t bucket[kBulkMax];
  uint32_t target[kBulkMax];
  Link head[kBulkMax];
  // Stage 1: every key's hash and bucket; the bucket entries' lines are
  // requested together, so that their misses overlap.
  for (uint32_t i = 0; i < count; i++) {
    uint32_t const hash = hashOf(keys[i]);
    bucket[i] = hash & (n - 1);
    target[i] = Lomi::Util::reverse(hash);
    __builtin_prefetch(&buckets_[bucket[i]]);
  }
  // Stage 2: every head link, one 8-byte pair each (safety rule 2 starts
  // here, as in lookup), and the lines of each chain's first slot. A
  // prefetch proves nothing and stores nothing; stage 3 reads and checks
  // each slot as lookup does, however long ago its head was loaded: a link
  // that moved in between shows as a changed version, and the walk restarts.
  uint32_t const capacity = table.capacity();
  SlotT const* const base = table.slots().base;
  for (uint32_t i = 0; i < count; i++) {
    head[i] = Mem::loadAcquire(buckets_[bucket[i]]);
    uint32_t const first = head[i].next;
    if (Link::isEndOfChain(first) || first >= capacity) continue;
    char const* const s = reinterpret_cast<char const*>(base + first);
    __builtin_prefetch(s);
    __builtin_prefetch(s + sizeof(SlotT) / 2);
    __builtin_prefetch(s + sizeof(SlotT) - 1);
  }
  // Stage 2b: a chain whose first slot lies before the key goes on to a
  // second slot, a miss of its own after the first. Its index is read from
  // the first slot (whose lines stage 2 requested; waiting for the first of
  // them is waiting for them all) and its lines requested too. Relaxed loads
  // that decide nothing: stage 3 reads both slots again, under their words.
  for (uint32_t i = 0; i < count; i++) {
    uint32_t const first = head[i].next;
    if (Link::isEndOfChain(first) || first >= capacity) continue;
    SlotT const& s = base[first];
    if (Mem::loadRelaxed(s.rhash) > target[i]) continue;
    uint32_t const second = Mem::loadRelaxed(s.link).next;
    if (Link::isEndOfChain(second) || second >= capacity) continue;
    char const* const p = reinterpret_cast<char const*>(base + second);
    __builtin_prefetch(p);
    __builtin_prefetch(p + sizeof(SlotT) / 2);
    __builtin_prefetch(p + sizeof(SlotT) - 1);
  }
  // Stage 3: each key's walk, exactly lookup's, from its head.
  uint64_t found = 0;
  bool anyAbsent = false;
  for (uint32_t i = 0; i < count; i++) {
    Link link = head[i];
    for (;;) {
      Walk const walk = walkChain(keys[i], bucket[i], target[i], link, values[i]);
      if (walk == Walk::restart) {
        link = Mem::loadAcquire(buckets_[bucket[i]]);
        continue;
      }
      if (walk == Walk::found) {
        found |= uint64_t{1} << i;
      } else {
        anyAbsent = true;
      }
      break;
    }
  }
  // Absence is never reported on a bucket count the header has left. One
  // check after the last walk covers every walk before it: a size version
  // never comes back to a value it had.
  if (anyAbsent) buckets_.checkResize();
  return found;
}

template <typename Reader>
bool ReaderHashMap<Reader>::first(uint32_t bucket, Value& value, IterHint& hint,
                                  uint32_t* rhash) const {
  uint32_t const n = buckets_.numBuckets();
  if (n == 0) {
    FMTRACE(handler_, 5, "ReaderHashMap", "bucket table detached");
    return false;
  }
  auto& table = slots();
  uint32_t bucketCount = 0;
  for (;;) {
    Link link = Mem::loadAcquire(buckets_[bucket]);
    while (Link::isEndOfChain(link.next)) {
      if (link.next == Link::kEndOfTable) {
        verifyNextBucket(bucket, 0);
        FMTRACE(handler_, 8, "ReaderHashMap", "none found!");
        return false;
      }
      if (++bucketCount >= n) {
        throw Lomi::CorruptionDetectedException(
            "has bucket cycle detected, bucketCount: {} numBuckets: {}", bucketCount, n);
      }
      uint32_t const nextBucket = Link::indexOf(link.next);
      verifyNextBucket(bucket, nextBucket);
      bucket = nextBucket;
      link = Mem::loadAcquire(buckets_[bucket]);
    }
    uint32_t const curr = link.next;
    prefetchAhead(bucket);
    auto const read = table.getValue(curr, value);
    if (Mem::loadAcquire(buckets_[bucket]).version != link.version) {
      counters().retries++;
      continue;
    }
    Key const slotKey = Ops::key(value);
    if (!occupied(read.word)) {
      throw Lomi::CorruptionDetectedException("slot:{} not marked as occupied key:{}", curr,
                                              keyHex(slotKey));
    }
    keyCheck(slotKey, bucket, KeyCheck::first);
    if (rhash) *rhash = read.rhash;
    hint = IterHint{read.word, curr, bucket};
    FMTRACE(handler_, 9, "ReaderHashMap", "{} found at bucket {}, saving {}", Ops::keyText(slotKey),
            bucket, hint);
    return true;
  }
}

template <typename Reader>
bool ReaderHashMap<Reader>::next(Key const& keyIn, Value& value, IterHint& hint) const {
  uint32_t const n = buckets_.numBuckets();
  if (n == 0) {
    FMTRACE(handler_, 5, "ReaderHashMap", "bucket table detached");
    return false;
  }
  // The caller may pass the key of `value` itself, which the walk overwrites.
  Key const key = keyIn;
  auto& table = slots();
  // The fast path trusts the hint only as far as it can be checked: its slot
  // must still hold the entry the caller saw (the word; a word never repeats
  // for a slot, see SlotTable.h), and its bucket must still fit the successor
  // it leads to. A hint may be older than any number of bucket doublings or
  // halvings, and then its bucket says nothing under the count of today: a
  // successor or next bucket that does not fit it sends the step to the slow
  // path, which finds its place from the key. Only the slow path's checks
  // stand as corruption.
  //
  // Every entry `next` returns lies strictly after `key` in table order, by
  // the hashes of both keys (keyAfter), whatever the rhash words say. A walk can therefore
  // not come back on itself, whatever the links of a damaged file say: it
  // returns at most as many entries as the table holds, then ends or throws.
  if (hint.slotIndex < table.capacity() && hint.bucket < n) {
    SlotT const& from = table.slots()[hint.slotIndex];
    // The hint's slot still holds the entry the caller saw.
    Link const link = Mem::loadAcquire(from.link);
    if (Mem::loadAcquire(from.versionFlags) == hint.versionFlags) {
      uint32_t const keyRhash = Lomi::Util::reverse(hashOf(key));
      // The hint's slot ends its chain: the walk goes on in the next bucket.
      if (Link::isEndOfChain(link.next)) {
        uint32_t const nextBucket = link.next == Link::kEndOfTable ? 0 : Link::indexOf(link.next);
        if (nextBucketFits(hint.bucket, nextBucket)) {
          if (link.next == Link::kEndOfTable) {
            FMTRACE(handler_, 9, "ReaderHashMap", "{} failed", Ops::keyText(key));
            return false;
          }
          FMTRACE(handler_, 9, "ReaderHashMap", "{} next bucket {} using {}", Ops::keyText(key),
                  nextBucket, hint);
          IterHint const before = hint;
          uint32_t rhash = 0;
          if (!first(nextBucket, value, hint, &rhash)) return false;
          if (keyAfter(Ops::key(value), keyRhash, key)) return true;
          hint = before;
        }
        return nextSlow(key, value, hint);
      }
      // The successor, under its word (safety rule 1), read while the hint's
      // slot still led to it (safety rule 2).
      auto const read = table.getValue(link.next, value);
      if (Mem::loadAcquire(table.slots()[hint.slotIndex].link).version == link.version) {
        Key const slotKey = Ops::key(value);
        // Safety rule 3.
        if (!occupied(read.word)) {
          throw Lomi::CorruptionDetectedException("slot:{} not marked as occupied key:{}",
                                                  link.next, keyHex(slotKey));
        }
        // A successor that does not fit the hint's bucket, or not after the key,
        // sends the step to the slow path.
        if (!keyFits(slotKey, hint.bucket) || !keyAfter(slotKey, keyRhash, key)) {
          return nextSlow(key, value, hint);
        }
        IterHint const old = hint;
        hint.versionFlags = read.word;
        hint.slotIndex = link.next;
        FMTRACE(handler_, 9, "ReaderHashMap", "{} success {} using {}, saving new slot hint {}",
                Ops::keyText(key), Ops::keyText(slotKey), old, hint);
        return true;
      }
    }
  }
  return nextSlow(key, value, hint);
}

template <typename Reader>
bool ReaderHashMap<Reader>::nextSlow(Key const& key, Value& value, IterHint& hint) const {
  counters().nextSlowPath++;
  uint32_t const n = buckets_.numBuckets();
  uint32_t const hash = hashOf(key);
  uint32_t const bucket = hash & (n - 1);
  uint32_t const target = Lomi::Util::reverse(hash);
  auto& table = slots();
  for (;;) {
    // The walk of lookup, from the bucket's head.
    Link const* prevLink = &buckets_[bucket];
    Link link = Mem::loadAcquire(*prevLink);
    uint32_t prevVersion = link.version;
    uint32_t curr = link.next;
    uint32_t const capacity = table.capacity();
    uint32_t slotCount = 0;
    bool restart = false;
    auto linkMoved = [&](uint32_t version) {
      if (Mem::loadAcquire(*prevLink).version == version) return false;
      counters().retries++;
      restart = true;
      return true;
    };
    while (!Link::isEndOfChain(curr)) {
      if (++slotCount > capacity) {
        throw Lomi::CorruptionDetectedException(
            "hash chain cycle detected, slotCount:{} capacity:{}", slotCount, capacity);
      }
      counters().slowPathSteps++;
      auto const read = table.getValue(curr, value);
      Key const slotKey = Ops::key(value);
      if (linkMoved(prevVersion)) break;
      // Safety rule 3.
      if (!occupied(read.word)) {
        throw Lomi::CorruptionDetectedException(
            "slow-path slot:{} not marked as occupied key:{} slotCount:{}", curr, keyHex(slotKey),
            slotCount);
      }
      // The first entry after `key` in table order; `key` itself, and
      // anything before it, is passed over, so a removed `key` loses nothing.
      if (read.rhash > target || (read.rhash == target && Ops::keyLess(key, slotKey))) {
        if (read.rhash == target && linkMoved(prevVersion)) break;
        keyCheck(slotKey, bucket, KeyCheck::next);
        if (!keyAfter(slotKey, target, key)) {
          throw Lomi::CorruptionDetectedException("walk order broken: key:{} slot {} after key:{}",
                                                  keyHex(slotKey), curr, keyHex(key));
        }
        hint = IterHint{read.word, curr, bucket};
        FMTRACE(handler_, 9, "ReaderHashMap", "{} success {}, saving {}", Ops::keyText(key),
                Ops::keyText(slotKey), hint);
        return true;
      }
      Link const* const nextLink = &table.slots()[curr].link;
      Link const step = Mem::loadAcquire(*nextLink);
      if (linkMoved(prevVersion)) break;
      keyCheck(slotKey, bucket, KeyCheck::next);
      prevLink = nextLink;
      prevVersion = step.version;
      curr = step.next;
    }
    if (restart) continue;
    // The chain ended: the end of the table, or the walk goes on in the next
    // bucket.
    if (curr == Link::kEndOfTable) {
      verifyNextBucket(bucket, 0);
      FMTRACE(handler_, 9, "ReaderHashMap", "{} failed", Ops::keyText(key));
      return false;
    }
    uint32_t const nextBucket = Link::indexOf(curr);
    verifyNextBucket(bucket, nextBucket);
    FMTRACE(handler_, 9, "ReaderHashMap", "{} next bucket {}", Ops::keyText(key), nextBucket);
    uint32_t rhash = 0;
    if (!first(nextBucket, value, hint, &rhash)) return false;
    if (!keyAfter(Ops::key(value), target, key)) {
      throw Lomi::CorruptionDetectedException("walk order broken: key:{} bucket {} after key:{}",
                                              keyHex(Ops::key(value)), nextBucket, keyHex(key));
    }
    return true;
  }
}

}  // namespace MirakCore
