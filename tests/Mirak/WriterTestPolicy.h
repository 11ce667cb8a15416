// A table policy for the writer tests: the test record of TestPolicy.h with
// a queue writer that records what the table tells it, so the tests can check
// the queue rules (one live entry per notified slot) without files.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Lomi/Trace.h"
#include "Mirak/TestPolicy.h"
#include "Parcel/KestorId.h"
#include "Tessel/TesselFormat.h"

namespace MirakTest {

struct RecordingQueueWriter {
  static constexpr bool hasQueue = true;

  RecordingQueueWriter(std::string const&, Lomi::Platform::DebugHandler&) {}
  int attach(uint32_t, uint32_t) { return 1; }
  bool mostSlotsIs(uint32_t) { return true; }
  void pruneModeIs(Tessel::PruneMode) {}
  void notify(uint32_t slot) {
    ++sequence_;
    lastSequence[slot] = sequence_;
    notified.push_back(slot);
    event('n', slot);
  }
  void tombstone(uint32_t slot) {
    lastSequence.erase(slot);
    event('t', slot);
  }
  // A slot compaction's corral: the marker is the sequence it opened at, and
  // 0 while no shrink runs.
  void markShrinkStart() {
    marker = sequence_ + 1;
    event('s', 0);
  }
  void markShrinkEnd() {
    marker = 0;
    event('e', 0);
  }
  uint64_t shrinkMarker() const { return marker; }
  uint64_t sequence() const { return sequence_; }
  uint64_t headerMappedSize() const { return 0; }
  uint64_t primaryMappedSize() const { return 0; }
  uint64_t secondaryMappedSize() const { return 0; }
  void onDetach() {}
  void cleanup() {}
  bool validateFile() const { return true; }
  uint32_t clientQuiesced(std::string const&) const { return 0; }

  uint64_t sequence_ = 0;
  std::map<uint32_t, uint64_t> lastSequence;  // the one live entry of each slot
  std::vector<uint32_t> notified;
  uint64_t marker = 0;
  // Every call in order: 'n' notify, 't' tombstone (with the slot), 's' and
  // 'e' the shrink marks.
  std::vector<std::pair<char, uint32_t>> events;
  // Runs after each call is recorded: the writer is paused there, at a known
  // step of its store order (the queue hears of a change last).
  std::function<void(char, uint32_t)> onEvent;

 private:
  void event(char what, uint32_t slot) {
    events.push_back({what, slot});
    if (onEvent) onEvent(what, slot);
  }
};

using WriterOps = TestOpsWith<RecordingQueueWriter>;

}  // namespace MirakTest
