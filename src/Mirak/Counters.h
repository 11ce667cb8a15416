// Statistics of one table object: Mirak::Writer::Counters and
// Mirak::Reader::Counters.
//
// Plain records of u64 counts, private to the process that keeps them and
// returned by value. No decision of the table reads them: a counter that is
// wrong misleads an operator, never a reader. Counters restart at zero with
// every attach of a writer; the front object adds what it kept across back
// ends with `operator+=`.
//
// Every field is a u64 and is listed in the matching `fields()` table, which
// drives `toString()` and `operator+=`; a static_assert below ties the size of
// each record to the length of its table, so a field added without its entry
// fails to compile.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include <fmt/format.h>

namespace Mirak {

// What Writer::Counters and Reader::Counters share, driven by the record's
// `C::fields()` table: the table's entry type, the text form and the sum.
// Empty, so each record keeps its size of one u64 per field.
template <typename C>
struct CountersRecord {
  struct Field {
    char const* name;
    uint64_t C::*member;
  };

  // "lookups:0 inserts:0 ...", every field in declaration order.
  std::string toString() const;
  // Adds every field of `other`: counts accumulate. For the live values and
  // the "last"/"longest" times the sum has no meaning; callers that merge
  // records take those from the newest record instead.
  C& operator+=(C const& other);
  bool operator==(CountersRecord const&) const = default;
};

namespace Writer {

struct Counters : CountersRecord<Counters> {
  // Data operations.
  uint64_t lookups = 0;
  uint64_t inserts = 0;
  uint64_t overwrites = 0;
  uint64_t removes = 0;
  // Slot table.
  uint64_t slotsAllocated = 0;
  uint64_t slotsFreed = 0;
  uint64_t slotGrows = 0;
  uint64_t slotShrinks = 0;
  uint64_t remaps = 0;
  uint64_t slotsMoved = 0;
  // Direct mode.
  uint64_t directWrites = 0;
  uint64_t directUpdates = 0;
  uint64_t directCommits = 0;
  // Hash map: iteration steps that could not use their hint, and bucket
  // resizes. Times are nanoseconds of wall time.
  uint64_t slowPathIterations = 0;
  uint64_t bucketGrows = 0;
  uint64_t bucketShrinks = 0;
  uint64_t lastBucketGrowTime = 0;
  uint64_t longestBucketGrowTime = 0;
  uint64_t lastBucketShrinkTime = 0;
  uint64_t longestBucketShrinkTime = 0;
  // Live values that `writerCounters()` fills in from the queue and the
  // wake-up sockets when the record is handed out.
  uint64_t ruskCount = 0;
  uint64_t sequencesProcessed = 0;
  uint64_t readers = 0;
  uint64_t sleepingReaders = 0;
  uint64_t slotMappedSize = 0;
  uint64_t bucketMappedSize = 0;
  uint64_t tesselMappedSize = 0;

  static std::span<Field const> fields();
  friend bool operator==(Counters const&, Counters const&) = default;
};

}  // namespace Writer

namespace Reader {

struct Counters : CountersRecord<Counters> {
  uint64_t lookups = 0;
  // Restarts of a chain walk, after a link or word moved under the reader.
  uint64_t retries = 0;
  // Passes through a slot that found LOOKASIDE set.
  uint64_t lookasideReads = 0;
  // `next` calls that could not use their hint.
  uint64_t nextSlowPath = 0;
  // Steps taken on the slow path of `next`.
  uint64_t slowPathSteps = 0;
  // Operations retried because the writer grew or shrank a file under them.
  uint64_t resizesFollowed = 0;
  uint64_t slotResizes = 0;
  uint64_t bucketResizes = 0;
  uint64_t remaps = 0;
  // Damage that was still there after every resize had been followed.
  uint64_t corruptionsDetected = 0;
  // Failed reads explained by a re-format of the files under this reader;
  // it answers as a detached reader from then on.
  uint64_t reformatsSeen = 0;
  // `first` calls: the starts of a walk.
  uint64_t walks = 0;
  // Refreshed by `readerCounters()` from the mappings.
  uint64_t slotMappedSize = 0;
  uint64_t bucketMappedSize = 0;
  // A shadow's copy. `sequence`: the last queue sequence taken in;
  // `syncSequence`: the queue's head at the last completed sweep; `members`:
  // entries in the copy.
  uint64_t sequence = 0;
  uint64_t syncSequence = 0;
  uint64_t members = 0;
  // Doublings and halvings of the copy's buckets, resizes of its slot array,
  // and repairs of its chains after the array moved.
  uint64_t shadowBucketGrows = 0;
  uint64_t shadowBucketShrinks = 0;
  uint64_t shadowSlotGrows = 0;
  uint64_t shadowSlotShrinks = 0;
  uint64_t shadowPatches = 0;
  // A keyshadow read found another key in the table's slot than the copy's.
  uint64_t shadowKeyMismatches = 0;
  // Entries written into the copy, and those that found their key in another
  // slot (a row moved by the writer's compaction).
  uint64_t shadowWrites = 0;
  uint64_t shadowKeyMoves = 0;
  // Lookups from a change callback answered, or passed on, by the change in
  // progress.
  uint64_t pendingLookupHits = 0;
  uint64_t pendingLookupMisses = 0;
  // Queue entries that no longer counted when a change was about to remove
  // something (a newer entry for the slot is on its way).
  uint64_t failedNotifications = 0;
  // Refreshed by `readerCounters()`: the copy's private memory, the kestor
  // mapping of a keyshadow, the queue's two tables, Sleeping messages sent.
  uint64_t shadowMappedSize = 0;
  uint64_t kestorMappedSize = 0;
  uint64_t tesselPrimaryMappedSize = 0;
  uint64_t tesselSecondaryMappedSize = 0;
  uint64_t sequencesSent = 0;

  static std::span<Field const> fields();
  friend bool operator==(Counters const&, Counters const&) = default;
};

}  // namespace Reader

extern template struct CountersRecord<Writer::Counters>;
extern template struct CountersRecord<Reader::Counters>;

// "{}" prints a record's toString().
struct CountersFormatter : fmt::formatter<std::string_view> {
  template <typename C, typename Ctx>
  auto format(C const& c, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "{}", c.toString());
  }
};

}  // namespace Mirak

template <>
struct fmt::formatter<Mirak::Writer::Counters> : Mirak::CountersFormatter {};
template <>
struct fmt::formatter<Mirak::Reader::Counters> : Mirak::CountersFormatter {};
