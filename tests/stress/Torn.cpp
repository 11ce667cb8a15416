// Mode "torn": one writer process inserts, overwrites and removes at random,
// with slot growth, compaction, bucket growth and bucket shrink, while reader
// processes look up and walk without pause. A set of pinned ids is never
// removed, only overwritten. Fails on any torn value, wrong key, absent pinned
// id, disordered walk, exception in a reader, or a child that did not exit
// cleanly; and on a run that never raced or never shrank.
#include <chrono>
#include <random>
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

struct WriterFigures {
  uint64_t ops = 0;
  uint64_t cycles = 0;
  uint64_t slotGrows = 0;
  uint64_t slotsMoved = 0;
  uint64_t bucketGrows = 0;
  uint64_t bucketShrinks = 0;
  uint64_t mostCapacity = 0;
  uint64_t leastCapacityAfterGrowth = 0;
  uint64_t validationsFailed = 0;
};

WriterFigures runWriter(Writer& w, Options const& o, std::chrono::steady_clock::time_point end) {
  WriterFigures f;
  std::mt19937_64 rng(o.seed);
  std::vector<uint32_t> live;
  std::vector<int32_t> where(o.ids, -1);
  bool growing = true;
  f.leastCapacityAfterGrowth = ~0ull;
  for (;;) {
    if ((f.ops & 255) == 0 && std::chrono::steady_clock::now() >= end) break;
    f.ops++;
    uint64_t const r = rng() % 100;
    if (r < 30) {
      w.write(makeValue(static_cast<uint32_t>(rng() % kPinned), rng()), true);
    } else if (r < 45 && !live.empty()) {
      w.write(makeValue(live[rng() % live.size()], rng()), true);
    } else if (growing) {
      uint32_t const id = kPinned + static_cast<uint32_t>(rng() % (o.ids - kPinned));
      w.write(makeValue(id, rng()), true);
      if (where[id] < 0) {
        where[id] = static_cast<int32_t>(live.size());
        live.push_back(id);
      }
      if (live.size() >= o.high) {
        growing = false;
        f.mostCapacity = std::max<uint64_t>(f.mostCapacity, w.capacity());
      }
    } else if (!live.empty()) {
      size_t const at = rng() % live.size();
      uint32_t const id = live[at];
      Value removed;
      w.remove(ipFlowKey(id), removed);
      live[at] = live.back();
      where[live[at]] = static_cast<int32_t>(at);
      live.pop_back();
      where[id] = -1;
      if (live.size() <= o.low) {
        growing = true;
        f.cycles++;
        f.leastCapacityAfterGrowth = std::min<uint64_t>(f.leastCapacityAfterGrowth, w.capacity());
        // Every cycle ends with an audit of the table the readers read.
        if (!w.validate()) f.validationsFailed++;
      }
    }
  }
  Mirak::Writer::Counters const c = w.writerCounters();
  f.slotGrows = c.slotGrows;
  f.slotsMoved = c.slotsMoved;
  f.bucketGrows = c.bucketGrows;
  f.bucketShrinks = c.bucketShrinks;
  return f;
}

}  // namespace

int runTorn(Options const& o) {
  MirakTest::TempRoot root;
  fmt::print("torn: {} s, {} readers, ids {} high {} low {}, seed {}\n", o.seconds, o.readers,
             o.ids, o.high, o.low, o.seed);
  std::fflush(stdout);
  RecordPipe writerUp, writerDown, readersUp, stopPipe;
  pid_t writer = forkChild([&]() -> int {
    auto w = makeSharedWriter<Record>(kTable, workloadDescriptor(o.ids + kPinned));
    for (uint32_t i = 0; i < kPinned; i++) w->write(makeValue(i, i), true);
    uint32_t token = 1;
    writerUp.send(token);
    if (!writerDown.receive(token)) return 2;
    auto const end = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double>(o.seconds));
    WriterFigures const f = runWriter(*w, o, end);
    writerUp.send(f);
    // The files stay as the writer left them until the readers are done.
    writerDown.receive(token);
    return 0;
  });
  uint32_t token = 0;
  if (writer <= 0 || !writerUp.receive(token)) {
    fmt::print("torn: FAIL the writer did not start\n");
    return 1;
  }
  std::vector<pid_t> readers;
  for (uint32_t r = 0; r < o.readers; r++) {
    pid_t pid = forkChild([&, r]() -> int {
      uint32_t ready = 1;
      readersUp.send(ready);
      ReaderFigures const f =
          readUntil(kTable, o.ids, kPinned, o.seed + 1 + r, [&] { return stopPipe.readable(); });
      readersUp.send(f);
      return 0;
    });
    readers.push_back(pid);
  }
  for (size_t i = 0; i < readers.size(); i++) readersUp.receive(token);
  writerDown.send(token);
  WriterFigures wf;
  bool const writerReported =
      writerUp.receive(wf, kDeadlineMs + static_cast<int>(o.seconds * 1000));
  uint8_t stop = 1;
  stopPipe.send(stop);
  ReaderFigures all;
  size_t reported = 0;
  for (size_t i = 0; i < readers.size(); i++) {
    ReaderFigures f;
    if (!readersUp.receive(f)) break;
    reported++;
    if (o.verbose) fmt::print("reader: {}\n", f.toString());
    all.add(f);
  }
  writerDown.send(token);
  int crashed = 0;
  for (pid_t pid : readers) crashed += exitedWith(reap(pid), 0) ? 0 : 1;
  crashed += exitedWith(reap(writer), 0) ? 0 : 1;

  fmt::print(
      "torn: writer ops {} cycles {} slotGrows {} slotsMoved {} capacity {} -> {} bucketGrows {} "
      "bucketShrinks {} validationsFailed {}\n",
      wf.ops, wf.cycles, wf.slotGrows, wf.slotsMoved, wf.mostCapacity,
      wf.leastCapacityAfterGrowth == ~0ull ? 0 : wf.leastCapacityAfterGrowth, wf.bucketGrows,
      wf.bucketShrinks, wf.validationsFailed);
  fmt::print("torn: readers {}\n", all.toString());
  fmt::print("torn: crashes {} torn reads {} over {} reads and {} walked entries\n", crashed,
             all.torn, all.reads, all.walkEntries);

  std::vector<std::string> failures;
  if (!writerReported) failures.push_back("the writer did not report");
  if (reported != readers.size()) failures.push_back("a reader did not report");
  if (crashed) failures.push_back(fmt::format("{} children crashed", crashed));
  if (all.torn || all.wrongKey || all.pinnedAbsent || all.walkBadPinned || all.walkDisorder) {
    failures.push_back("readers saw wrong data");
  }
  if (all.corruptionExceptions || all.otherExceptions) failures.push_back("readers saw exceptions");
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
