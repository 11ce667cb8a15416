// What a table's upkeep costs: validating a full HoIpFlowConfig table (the
// check a writer start runs before it adopts the files), a whole writer start
// on a table of 10^6 rows that adopts it and one that salvages it (the last
// writer died inside a critical section), and compacting a
// table emptied from 10^6 rows to 10^3, with the memory the slot file gives
// back (allocated blocks, st_blocks * 512) before and after.
//
// Build: cmake --preset bench && cmake --build --preset bench
// Run:   build/bench/maintenance_bench --benchmark_counters_tabular=true
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "BenchRows.h"
#include "FlowTracking/TableWriters.h"
#include "Mem/RootPath.h"

namespace {

using namespace FlowTracking;
using namespace BenchRows;
using Writer = HoIpFlowConfigWriter;

// Files in /dev/shm, as a switch keeps them; one directory for the run.
std::unique_ptr<Writer> startWriter(std::string const& name, uint32_t size, bool shrinkSlots) {
  Mirak::MapDescriptor d(size);
  d.shrinkSlots = shrinkSlots;
  auto w = std::make_unique<Writer>(Lomi::Platform::getDebugHandler("bench"), name.c_str(), d,
                                    HoIpFlowConfigOps(0));
  w->initialize("bench");
  return w;
}

std::unique_ptr<Writer> freshWriter(uint32_t size, bool shrinkSlots) {
  benchRoot();
  static int tableNo = 0;
  return startWriter("maintenance/t" + std::to_string(tableNo++), size, shrinkSlots);
}

uint64_t allocatedBytes(Writer const& w) {
  struct stat st {};
  if (::stat(w.rootPath().filePath("slots").c_str(), &st) != 0) return 0;
  return static_cast<uint64_t>(st.st_blocks) * 512u;
}

void BM_Validate(benchmark::State& state) {
  auto const rows = static_cast<uint32_t>(state.range(0));
  auto w = freshWriter(rows, false);
  for (uint32_t i = 0; i < rows; i++) w->write(rowOf(i), true);
  std::string error;
  for (auto _ : state) {
    if (!w->validate(w->kestorId(), error, false)) {
      state.SkipWithError(error.c_str());
      break;
    }
  }
  state.counters["rows"] = rows;
  state.counters["ns_per_row"] = benchmark::Counter(
      rows, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  w->cleanup();
}
BENCHMARK(BM_Validate)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// A writer start on the files of a table of 10^6 rows, the whole of
// initialize(): with `crashed`, the last writer left its critical section
// open, and the start salvages every row into a new generation; otherwise
// it adopts the files after the full validation. The writer is let go
// (detach, files kept) outside the timing.
void restartBench(benchmark::State& state, bool crashed) {
  constexpr uint32_t kRows = 1000000;
  benchRoot();
  std::string name;
  {
    auto w = freshWriter(kRows, false);
    name = w->rootPath().name();
    for (uint32_t i = 0; i < kRows; i++) w->write(rowOf(i), true);
  }
  uint32_t rows = 0;
  for (auto _ : state) {
    if (crashed) {
      state.PauseTiming();
      {
        auto w = startWriter(name, kRows, false);
        w->slotTable().header()->runtimeFlags |= Mirak::SlotTable::kRuntimeFlagCritical;
      }
      state.ResumeTiming();
    }
    auto w = startWriter(name, kRows, false);
    state.PauseTiming();
    auto const kind = w->startOutcome().kind;
    rows = w->members();
    if (kind != (crashed ? Mirak::StartOutcome::Kind::salvaged : Mirak::StartOutcome::Kind::adopted)) {
      state.SkipWithError(w->startOutcome().toString().c_str());
    } else if (rows != kRows) {
      state.SkipWithError("rows lost in the start");
    }
    w.reset();
    state.ResumeTiming();
  }
  state.counters["rows"] = rows;
  startWriter(name, kRows, false)->cleanup();
}
void BM_StartAdopt(benchmark::State& state) { restartBench(state, false); }
void BM_StartSalvage(benchmark::State& state) { restartBench(state, true); }
BENCHMARK(BM_StartAdopt)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StartSalvage)->Iterations(3)->Unit(benchmark::kMillisecond);

// Removes all but the last 10^3 rows written (they lie at the top of the
// slot file, so every one of them moves), then compacts in one step: the
// time is that of the shrink alone.
void BM_CompactMillionToThousand(benchmark::State& state) {
  constexpr uint32_t kRows = 1000000;
  constexpr uint32_t kKeep = 1000;
  uint64_t full = 0, emptied = 0, shrunk = 0, capacityBefore = 0, capacityAfter = 0, moved = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto w = freshWriter(1u << 20, true);
    for (uint32_t i = 0; i < kRows; i++) w->write(rowOf(i), true);
    full = allocatedBytes(*w);
    capacityBefore = w->capacity();
    w->tesselWriter().markShrinkStart();
    Value removed;
    for (uint32_t i = 0; i < kRows - kKeep; i++) w->remove(rowOf(i).fwkKey(), removed);
    w->tesselWriter().markShrinkEnd();
    emptied = allocatedBytes(*w);
    state.ResumeTiming();
    w->shrink();
    state.PauseTiming();
    shrunk = allocatedBytes(*w);
    capacityAfter = w->capacity();
    moved = w->writerCounters().slotsMoved;
    if (w->members() != kKeep) state.SkipWithError("rows lost in the compaction");
    w->cleanup();
    state.ResumeTiming();
  }
  state.counters["capacity_before"] = static_cast<double>(capacityBefore);
  state.counters["capacity_after"] = static_cast<double>(capacityAfter);
  state.counters["slots_moved"] = static_cast<double>(moved);
  state.counters["bytes_full"] = static_cast<double>(full);
  state.counters["bytes_emptied"] = static_cast<double>(emptied);
  state.counters["bytes_after"] = static_cast<double>(shrunk);
}
BENCHMARK(BM_CompactMillionToThousand)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

// The run's table root goes with the run, as in the other benchmarks.
int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ec;
  std::filesystem::remove_all(BenchRows::benchRoot(), ec);
  return 0;
}
