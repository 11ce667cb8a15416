// Text forms and sums of the statistics records.
#include "Mirak/Counters.h"

#include <array>
#include <iterator>

namespace Mirak {

template <typename C>
std::string CountersRecord<C>::toString() const {
  std::string out;
  for (auto const& f : C::fields()) {
    if (!out.empty()) out += ' ';
    fmt::format_to(std::back_inserter(out), "{}:{}", f.name,
                   static_cast<C const&>(*this).*(f.member));
  }
  return out;
}

template <typename C>
C& CountersRecord<C>::operator+=(C const& other) {
  C& self = static_cast<C&>(*this);
  for (auto const& f : C::fields()) self.*(f.member) += other.*(f.member);
  return self;
}

template struct CountersRecord<Writer::Counters>;
template struct CountersRecord<Reader::Counters>;

// An entry of a fields() table, written where `Counters` names the record.
#define MIRAK_FIELD(n) \
  Counters::Field {    \
#n, &Counters::n   \
  }

namespace Writer {

std::span<Counters::Field const> Counters::fields() {
  static constexpr std::array table{
      MIRAK_FIELD(lookups),
      MIRAK_FIELD(inserts),
      MIRAK_FIELD(overwrites),
      MIRAK_FIELD(removes),
      MIRAK_FIELD(slotsAllocated),
      MIRAK_FIELD(slotsFreed),
      MIRAK_FIELD(slotGrows),
      MIRAK_FIELD(slotShrinks),
      MIRAK_FIELD(remaps),
      MIRAK_FIELD(slotsMoved),
      MIRAK_FIELD(directWrites),
      MIRAK_FIELD(directUpdates),
      MIRAK_FIELD(directCommits),
      MIRAK_FIELD(slowPathIterations),
      MIRAK_FIELD(bucketGrows),
      MIRAK_FIELD(bucketShrinks),
      MIRAK_FIELD(lastBucketGrowTime),
      MIRAK_FIELD(longestBucketGrowTime),
      MIRAK_FIELD(lastBucketShrinkTime),
      MIRAK_FIELD(longestBucketShrinkTime),
      MIRAK_FIELD(ruskCount),
      MIRAK_FIELD(sequencesProcessed),
      MIRAK_FIELD(readers),
      MIRAK_FIELD(sleepingReaders),
      MIRAK_FIELD(slotMappedSize),
      MIRAK_FIELD(bucketMappedSize),
      MIRAK_FIELD(tesselMappedSize),
  };
  static_assert(sizeof(Counters) == table.size() * sizeof(uint64_t),
                "every Writer::Counters field needs its entry in fields()");
  return table;
}

}  // namespace Writer

namespace Reader {

std::span<Counters::Field const> Counters::fields() {
  static constexpr std::array table{
      MIRAK_FIELD(lookups),        MIRAK_FIELD(retries),
      MIRAK_FIELD(lookasideReads), MIRAK_FIELD(nextSlowPath),
      MIRAK_FIELD(slowPathSteps),  MIRAK_FIELD(resizesFollowed),
      MIRAK_FIELD(slotResizes),    MIRAK_FIELD(bucketResizes),
      MIRAK_FIELD(remaps),         MIRAK_FIELD(corruptionsDetected),
      MIRAK_FIELD(reformatsSeen),  MIRAK_FIELD(walks),
      MIRAK_FIELD(slotMappedSize), MIRAK_FIELD(bucketMappedSize),
      MIRAK_FIELD(sequence),       MIRAK_FIELD(syncSequence),
      MIRAK_FIELD(members),        MIRAK_FIELD(shadowBucketGrows),
      MIRAK_FIELD(shadowBucketShrinks), MIRAK_FIELD(shadowSlotGrows),
      MIRAK_FIELD(shadowSlotShrinks), MIRAK_FIELD(shadowPatches),
      MIRAK_FIELD(shadowKeyMismatches), MIRAK_FIELD(shadowWrites),
      MIRAK_FIELD(shadowKeyMoves), MIRAK_FIELD(pendingLookupHits),
      MIRAK_FIELD(pendingLookupMisses), MIRAK_FIELD(failedNotifications),
      MIRAK_FIELD(shadowMappedSize), MIRAK_FIELD(kestorMappedSize),
      MIRAK_FIELD(tesselPrimaryMappedSize), MIRAK_FIELD(tesselSecondaryMappedSize),
      MIRAK_FIELD(sequencesSent),
  };
  static_assert(sizeof(Counters) == table.size() * sizeof(uint64_t),
                "every Reader::Counters field needs its entry in fields()");
  return table;
}

}  // namespace Reader

#undef MIRAK_FIELD

}  // namespace Mirak
