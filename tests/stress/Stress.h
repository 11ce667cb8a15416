// Shared pieces of the reliability harness: the options of a run, the
// self-checking rows every mode writes, a reader loop that follows a table
// through writer restarts and re-formats, and the figures a mode prints.
//
// A row is a HoIpFlowCounter whose `bytes` is a checksum of its key, packets,
// hosEntries and createTime: a reader that copies half of one write and half
// of another sees a wrong checksum, so torn reads are counted, not guessed.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "FlowTracking/ReaderTestUtil.h"
#include "FlowTracking/TableRows.h"

namespace Stress {

using Record = FlowTracking::HoIpFlowCounter;
using Value = FlowTracking::TableValue<Record>;
using Key = Record::Key;
using Writer = FlowTrackingTest::WriterOf<Record>;
using Reader = FlowTrackingTest::ReaderOf<Record>;

// Every option of every mode; a mode reads the ones it knows. Anything not
// given keeps the CI-sized default.
struct Options {
  double seconds = 3.0;
  uint32_t trials = 20;
  uint32_t cases = 200;
  uint32_t readers = 2;
  // Live entries swing between `low` and `high` ids out of `ids`, so the
  // table grows and, with compaction on, shrinks again.
  uint32_t ids = 20000;
  uint32_t high = 6000;
  uint32_t low = 40;
  uint64_t seed = 20240611;
  bool verbose = false;
  // Output directory of the corpus mode.
  std::string dir;
};

// Parses "--name value" pairs; throws Lomi::RuntimeException naming a bad
// option or value.
Options parseOptions(int argc, char** argv, int first);

uint64_t checksumOf(Record const& r);
Value makeValue(uint32_t id, uint64_t packets);
inline bool intact(Value const& v) {
  return v.bytes() == checksumOf(v);
}
// The id a row was made from (its source address).
inline uint32_t idOf(Key const& k) {
  return k.srcAddr().value() - 0x0a000000u;
}

// The table settings of the torn and crash workloads: shared, with slot
// compaction and bucket shrink on.
Mirak::MapDescriptor workloadDescriptor(uint32_t size);

// What a reader process saw; sent up a pipe, so plain data only.
struct ReaderFigures {
  uint64_t reads = 0;
  uint64_t walks = 0;
  uint64_t walkEntries = 0;
  uint64_t attaches = 0;
  uint64_t retries = 0;
  uint64_t lookasideReads = 0;
  uint64_t resizesFollowed = 0;
  uint64_t torn = 0;
  uint64_t wrongKey = 0;
  uint64_t walkDisorder = 0;
  uint64_t pinnedAbsent = 0;
  uint64_t walkBadPinned = 0;
  uint64_t corruptionExceptions = 0;
  uint64_t otherExceptions = 0;
  char lastError[200] = {};
  void note(std::string const& text);
  void add(ReaderFigures const& o);
  std::string toString() const;
};

// Reads `name` until `stop()`: lookups of random ids in [0, ids), and a walk
// every 4096 reads checked for order. When the table's kestor file names
// another generation than the one attached (a re-format), or the reader
// cannot attach yet, it attaches again. Pinned ids (below `pinned`) must
// never be absent while the reader is attached, when `pinned` > 0.
ReaderFigures readUntil(std::string const& name, uint32_t ids, uint32_t pinned, uint64_t seed,
                        std::function<bool()> const& stop);

// Collects the lines the table handler traces at levels 0 and 1 while it
// lives: a writer's start says there whether it adopted and why it did not.
class TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  TraceCapture(TraceCapture const&) = delete;
  TraceCapture& operator=(TraceCapture const&) = delete;
  bool contains(std::string const& text) const;
  // The text after "validation failed: " or the line "failed to attach ..."
  // of a start that would not adopt; empty if none was traced.
  std::string reformatReason() const;
  std::string all() const;

 private:
  std::vector<std::string> lines_;
};

}  // namespace Stress
