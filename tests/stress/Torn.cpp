// Mode "torn": one writer process inserts, overwrites and removes at random,
// with slot growth, compaction, bucket growth and bucket shrink, while reader
// processes look up and walk without pause. A set of pinned ids is never
// removed, only overwritten. Fails on any torn value, wrong key, absent pinned
// id, disordered walk, exception in a reader, or a child that did not exit
// cleanly; and on a run that never raced or never shrank.
#include <chrono>
#include <vector>

#include <fmt/format.h>

#include "Mirak/TempRoot.h"
#include "stress/Modes.h"
#include "stress/Stress.h"

namespace Stress {

namespace {

using namespace FlowTrackingTest;

constexpr char kTable[] = "stress/torn";
constexpr uint32_t kPinned = 64;

}  // namespace

int runTorn(Options const& o) {
  MirakTest::TempRoot root;
  fmt::print("torn: {} s, {} readers, ids {} high {} low {}, seed {}\n", o.seconds, o.readers,
             o.ids, o.high, o.low, o.seed);
  std::fflush(stdout);
  Child writer;
  writer.start([&](Child::Pipe const& down, Child::Pipe const& up) -> int {
    auto w = makeSharedWriter<Record>(kTable, workloadDescriptor(o.ids + kPinned));
    uint64_t writes = 0;
    writePinned(*w, kPinned, writes);
    uint32_t token = 1;
    up.send(token);
    if (!down.receive(token)) return 2;
    auto const end = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double>(o.seconds));
    up.send(cycleLiveSet(*w, o, kPinned, o.seed, writes, end));
    // The files stay as the writer left them until the readers are done.
    down.receive(token);
    return 0;
  });
  uint32_t token = 0;
  if (!writer.answers().receive(token)) {
    fmt::print("torn: FAIL the writer did not start\n");
    return 1;
  }
  RecordPipe readersReady;
  ReaderProcesses<ReaderFigures> readers(o.readers, [&](uint32_t r, RecordPipe const& stop) {
    uint32_t ready = 1;
    readersReady.send(ready);
    return readUntil(kTable, o.ids, kPinned, o.seed + 1 + r, [&] { return stop.readable(); });
  });
  for (size_t i = 0; i < readers.size(); i++) readersReady.receive(token);
  writer.commands().send(token);
  WriterFigures wf;
  bool const writerReported =
      writer.answers().receive(wf, kDeadlineMs + static_cast<int>(o.seconds * 1000));
  int crashed = 0;
  ReaderFigures all;
  std::vector<ReaderFigures> const reported = readers.stop(crashed);
  for (ReaderFigures const& f : reported) {
    if (o.verbose) fmt::print("reader: {}\n", f.toString());
    all.add(f);
  }
  crashed += writer.end(token, kDeadlineMs).empty() ? 0 : 1;

  fmt::print("torn: writer {}\n", wf.toString());
  fmt::print("torn: readers {}\n", all.toString());
  fmt::print("torn: crashes {} torn reads {} over {} reads and {} walked entries\n", crashed,
             all.torn, all.reads, all.walkEntries);

  std::vector<std::string> failures;
  if (!writerReported) failures.push_back("the writer did not report");
  if (reported.size() != readers.size()) failures.push_back("a reader did not report");
  if (crashed) failures.push_back(fmt::format("{} children crashed", crashed));
  for (auto const& f : all.faults()) failures.push_back(f);
  if (wf.validationsFailed) failures.push_back("the table failed validation");
  if (all.reads == 0 || all.walks == 0) failures.push_back("the readers did not read");
  if (all.retries + all.lookasideReads == 0) failures.push_back("readers and writer never raced");
  if (wf.cycles > 0 && !(wf.slotsMoved > 0 && wf.leastCapacityAfterGrowth < wf.mostCapacity)) {
    failures.push_back("compaction never made the capacity fall");
  }
  for (auto const& f : failures) fmt::print("torn: FAIL {}\n", f);
  std::fflush(stdout);
  return failures.empty() ? 0 : 1;
}

}  // namespace Stress
