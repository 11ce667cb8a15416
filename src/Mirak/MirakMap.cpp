// The non-generic base of the front object: corruption handling and the
// statistics kept across back ends.
#include "Mirak/MirakMap.h"

#include <algorithm>
#include <exception>
#include <string_view>

#include "Mirak/Util.h"

namespace Mirak {

namespace {

// Counts of `newer` are added to `kept`; what is not a count is taken from
// `newer` (live values, last times) or is the larger of the two (longest).
void mergeWriter(Writer::Counters& kept, Writer::Counters const& newer) {
  Writer::Counters const old = kept;
  kept += newer;
  kept.ruskCount = newer.ruskCount;
  kept.sequencesProcessed = newer.sequencesProcessed;
  kept.readers = newer.readers;
  kept.sleepingReaders = newer.sleepingReaders;
  kept.slotMappedSize = newer.slotMappedSize;
  kept.bucketMappedSize = newer.bucketMappedSize;
  kept.tesselMappedSize = newer.tesselMappedSize;
  kept.lastBucketGrowTime = newer.lastBucketGrowTime;
  kept.lastBucketShrinkTime = newer.lastBucketShrinkTime;
  kept.longestBucketGrowTime = std::max(old.longestBucketGrowTime, newer.longestBucketGrowTime);
  kept.longestBucketShrinkTime =
      std::max(old.longestBucketShrinkTime, newer.longestBucketShrinkTime);
}

void mergeReader(Reader::Counters& kept, Reader::Counters const& newer) {
  kept += newer;
  kept.slotMappedSize = newer.slotMappedSize;
  kept.bucketMappedSize = newer.bucketMappedSize;
  // A shadow's positions, size and mappings are states, not counts.
  kept.sequence = newer.sequence;
  kept.syncSequence = newer.syncSequence;
  kept.members = newer.members;
  kept.shadowMappedSize = newer.shadowMappedSize;
  kept.kestorMappedSize = newer.kestorMappedSize;
  kept.tesselPrimaryMappedSize = newer.tesselPrimaryMappedSize;
  kept.tesselSecondaryMappedSize = newer.tesselSecondaryMappedSize;
}

}  // namespace

ControlBase::~ControlBase() = default;

MirakMapBase::MirakMapBase() : debugHandler_(&Lomi::Platform::getDebugHandler("MirakTemp", true)) {}

MirakMapBase::~MirakMapBase() = default;

// The reader sentry and the writer's table agree on the marker's name.
static_assert(std::string_view(Parcel::WriterSentry::kMarkerName) ==
              std::string_view(Util::CORRUPTION_FILENAME));

void MirakMapBase::init(MirakType type, bool local, unsigned int size) {
  MapDescriptor descriptor(size);
  descriptor.type = type;
  descriptor.local = local;
  init(descriptor);
}

bool MirakMapBase::readerFullyAttached() const {
  Mem::MountStatus const status = mountStatus();
  return status == Mem::mountStatusMounted || status == Mem::mountStatusSynchronized;
}

bool MirakMapBase::ready() const {
  return initialized_ && mountStatus() != Mem::mountStatusNotMounted;
}

void MirakMapBase::doCorruptionDetected(std::string const& msg) const {
  ++corruptionsDetected_;
  lastCorruption_ = msg;
  Lomi::fmtrace(*debugHandler_, 0, "MirakMap", __func__, "{} corruption detected: {}", name_, msg);
  // The marker is a courtesy to the writer's sentry; failing to leave it must
  // not hide the corruption itself.
  try {
    Util::writeCorruptionFile(*debugHandler_, rootPath(), msg);
  } catch (std::exception const& e) {
    Lomi::fmtrace(*debugHandler_, 0, "MirakMap", __func__, "{} no corruption marker: {}", name_,
                  e.what());
  }
  if (writesTable()) {
    Lomi::fmassert(*debugHandler_, "MirakMap", __func__,
                   "{} corruption detected in this process's own table: {}", name_, msg);
  }
}

void MirakMapBase::retiredCountersAdd(Writer::Counters const& writer,
                                      Reader::Counters const& reader) {
  mergeWriter(retiredWriter_, writer);
  mergeReader(retiredReader_, reader);
}

Reader::Counters MirakMapBase::mirakMapUpdateReaderCounters(Reader::Counters&& current) const {
  Reader::Counters result = retiredReader_;
  mergeReader(result, current);
  return result;
}

Writer::Counters MirakMapBase::mirakMapUpdateWriterCounters(Writer::Counters&& current) const {
  Writer::Counters result = retiredWriter_;
  mergeWriter(result, current);
  return result;
}

}  // namespace Mirak
