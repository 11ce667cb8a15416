// Tessel::DummyTesselWriter: the queue writer of tables that nobody follows
// (counters): the interface of TesselWriter, doing nothing, with no files.
//
// A table built with it records no changes, so it cannot be mounted as a
// shadow; `hasQueue` is false so that generic code (the validator, slot
// compaction) can leave out what concerns the queue at compile time.
#pragma once

#include <cstdint>
#include <string>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Tessel/BasicSlot.h"
#include "Tessel/Sequence.h"
#include "Tessel/TesselFormat.h"
#include "Tessel/TesselPos.h"

namespace Tessel {

class DummyTesselWriter {
 public:
  static constexpr bool hasQueue = false;
  static constexpr TesselPos noPos = noTesselPos;

  DummyTesselWriter() = default;
  // Same construction as the real writer; both arguments are ignored.
  DummyTesselWriter(std::string const& dir, Lomi::Platform::DebugHandler& handler) {
    (void)dir;
    (void)handler;
  }

  // 0: no file; neutral in the OR of the table's attach results.
  int attach(uint32_t kestor, uint32_t mostSlots) {
    (void)kestor;
    (void)mostSlots;
    return 0;
  }
  void notify(BasicSlot) {}
  void tombstone(BasicSlot) {}
  void markShrinkStart() {}
  void markShrinkEnd() {}
  uint64_t shrinkMarker() const { return 0; }
  bool mostSlotsIs(uint32_t) { return true; }
  void pruneModeIs(PruneMode) {}
  void detach() {}
  void onDetach() {}
  void cleanup() {}
  bool validate(uint32_t, uint32_t, std::string&) const { return true; }
  bool validateFile() const { return true; }
  uint32_t clientQuiesced(std::string const&) const { return 0; }

  bool attached() const { return false; }
  uint32_t entryCount() const { return 0; }
  uint32_t entryCapacity() const { return 0; }
  // There is no entry to read: always throws, as an index beyond the count.
  TesselNotification entry(uint32_t pos) const {
    throw Lomi::CorruptionDetectedException("DummyTesselWriter: entry index:{} beyond count:0",
                                            pos);
  }
  Sequence baseSequence() const { return 0; }
  Sequence sequence() const { return 0; }
  TesselPos tesselSlots(BasicSlot) const { return noPos; }
  uint32_t mostSlots() const { return 0; }
  uint64_t corralStart() const { return 0; }
  uint64_t corralEnd() const { return 0; }
  uint64_t lostSequence() const { return 0; }
  uint64_t losses() const { return 0; }
  uint32_t generation() const { return 0; }
  uint64_t compactions() const { return 0; }
  uint64_t headerMappedSize() const { return 0; }
  uint64_t primaryMappedSize() const { return 0; }
  uint64_t secondaryMappedSize() const { return 0; }
  std::string headersToString() const { return {}; }
};

}  // namespace Tessel
