// Reader micro benchmarks: lookup hit and miss (ns per lookup, value copied
// out) and a full walk (ns per entry) through a MirakReader on a
// HoIpFlowConfig table (36-byte key in an 84-byte record) in files under
// /dev/shm, at 10^4, 10^5 and 10^6 entries; each quiet, and again with a
// writer process overwriting random rows of the same table at full speed.
// std::unordered_map, in this process, on the same rows in the same run.
//
// Build: cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DFLOWTABLES_BENCH=ON
//        cmake --build build-bench --target reader_bench
// Run:   build-bench/reader_bench --benchmark_counters_tabular=true
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchRows.h"
#include "FlowTracking/TableReaders.h"
#include "FlowTracking/TableWriters.h"
#include "Mem/RootPath.h"
#include "Parcel/KestorFile.h"

namespace {

using namespace FlowTracking;
using namespace BenchRows;
using Writer = HoIpFlowConfigWriter;
using Reader = HoIpFlowConfigReader;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("bench");
}

// One table of n rows and a reader on its files. Built once per size; the
// writer that filled it lets go of the files (detach), so that the busy
// writer process below can claim them: a writer object belongs to the process
// that attached it, and one process writes a table at a time.
struct Table {
  std::string name;
  std::unique_ptr<Reader> reader;
};

Table& tableOf(uint32_t n) {
  static std::map<uint32_t, Table> tables;
  auto it = tables.find(n);
  if (it != tables.end()) return it->second;
  benchRoot();
  std::string const name = "bench/r" + std::to_string(n);
  Mirak::MapDescriptor d(n);
  Table t;
  t.name = name;
  {
    Writer writer(handler(), name.c_str(), d, HoIpFlowConfigOps(0));
    writer.initialize("bench");
    for (uint32_t i = 0; i < n; i++) writer.write(rowOf(i, 0), true);
  }
  t.reader = std::make_unique<Reader>(handler(), name, HoIpFlowConfigOps(0));
  if (!t.reader->initialize("bench")) std::abort();
  return tables.emplace(n, std::move(t)).first->second;
}

// A writer process overwriting random rows of the table at full speed, from
// construction to destruction. The child starts a writer of its own, which
// adopts the table's files, and lets go of them before it exits.
class BusyWriter {
 public:
  BusyWriter(Table& t, uint32_t n) {
    int fds[2];
    if (::pipe(fds) != 0) std::abort();
    int ready[2];
    if (::pipe(ready) != 0) std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(fds[1]);
      ::close(ready[0]);
      Writer writer(handler(), t.name.c_str(), Mirak::MapDescriptor(n), HoIpFlowConfigOps(0));
      writer.initialize("busy");
      std::mt19937 rng(7);
      uint32_t v = 1;
      char c = 1;
      if (::write(ready[1], &c, 1) != 1) ::_exit(2);
      for (uint64_t op = 0;; op++) {
        if ((op & 1023) == 0) {
          pollfd p{fds[0], POLLIN, 0};
          if (::poll(&p, 1, 0) > 0) break;
        }
        writer.write(rowOf(rng() % n, v++), true);
      }
      writer.detach(false);
      ::_exit(0);
    }
    ::close(fds[0]);
    ::close(ready[1]);
    stop_ = fds[1];
    char c;
    if (::read(ready[0], &c, 1) != 1) std::abort();
    ::close(ready[0]);
  }
  ~BusyWriter() {
    ::close(stop_);  // end of file: the child's poll wakes
    int status;
    ::waitpid(pid_, &status, 0);
  }

 private:
  pid_t pid_ = -1;
  int stop_ = -1;
};

void reportNs(benchmark::State& state, uint64_t perIteration) {
  state.SetItemsProcessed(state.iterations() * perIteration);
  state.counters["ns_per_item"] =
      benchmark::Counter(static_cast<double>(state.iterations() * perIteration),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// --- the reader ----------------------------------------------------------------

void BM_ReaderLookup(benchmark::State& state, bool hit, bool busy) {
  uint32_t const n = state.range(0);
  Table& t = tableOf(n);
  std::vector<HoIpFlowKey> keys;
  for (uint32_t i : shuffled(n, hit ? 0 : n)) keys.push_back(keyOf(i));
  std::unique_ptr<BusyWriter> writer = busy ? std::make_unique<BusyWriter>(t, n) : nullptr;
  Value out;
  uint64_t misses = 0;
  for (auto _ : state) {
    for (auto const& k : keys) {
      bool found;
      t.reader->lookup(k, found, &out);
      misses += !found;
      benchmark::DoNotOptimize(out);
    }
  }
  writer.reset();
  if (hit && misses) state.SkipWithError("a hit lookup missed");
  reportNs(state, n);
  Mirak::Reader::Counters const c = t.reader->readerCounters();
  state.counters["retries"] = static_cast<double>(c.retries);
  state.counters["lookaside"] = static_cast<double>(c.lookasideReads);
}

void BM_ReaderWalk(benchmark::State& state, bool busy) {
  uint32_t const n = state.range(0);
  Table& t = tableOf(n);
  std::unique_ptr<BusyWriter> writer = busy ? std::make_unique<BusyWriter>(t, n) : nullptr;
  uint64_t entries = 0;
  for (auto _ : state) {
    Value v;
    Mirak::IterHint hint{};
    uint32_t count = 0;
    for (bool ok = t.reader->first(v, hint); ok; ok = t.reader->next(v.key(), v, hint)) count++;
    entries += count;
    benchmark::DoNotOptimize(count);
  }
  writer.reset();
  if (entries != uint64_t(state.iterations()) * n) state.SkipWithError("a walk lost entries");
  reportNs(state, n);
}

// --- std::unordered_map ------------------------------------------------------

StdMap& stdMapOf(uint32_t n) {
  static std::map<uint32_t, StdMap> maps;
  auto it = maps.find(n);
  if (it != maps.end()) return it->second;
  StdMap& m = maps[n];
  for (uint32_t i = 0; i < n; i++) m.insert_or_assign(keyOf(i), rowOf(i, 0));
  return m;
}

void BM_StdLookup(benchmark::State& state, bool hit) {
  uint32_t const n = state.range(0);
  StdMap& m = stdMapOf(n);
  std::vector<HoIpFlowKey> keys;
  for (uint32_t i : shuffled(n, hit ? 0 : n)) keys.push_back(keyOf(i));
  Value out;
  for (auto _ : state) {
    for (auto const& k : keys) {
      auto it = m.find(k);
      out = it != m.end() ? it->second : Value();
      benchmark::DoNotOptimize(out);
    }
  }
  reportNs(state, n);
}

void BM_StdWalk(benchmark::State& state) {
  uint32_t const n = state.range(0);
  StdMap& m = stdMapOf(n);
  for (auto _ : state) {
    Value v;
    for (auto const& [k, val] : m) {
      v = val;
      benchmark::DoNotOptimize(v);
    }
  }
  reportNs(state, n);
}

void sizes(benchmark::internal::Benchmark* b) {
  b->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->MinTime(0.5);
}

BENCHMARK_CAPTURE(BM_ReaderLookup, hit, true, false)->Apply(sizes);
BENCHMARK_CAPTURE(BM_ReaderLookup, hit_busy_writer, true, true)->Apply(sizes);
BENCHMARK_CAPTURE(BM_StdLookup, hit, true)->Apply(sizes);
BENCHMARK_CAPTURE(BM_ReaderLookup, miss, false, false)->Apply(sizes);
BENCHMARK_CAPTURE(BM_ReaderLookup, miss_busy_writer, false, true)->Apply(sizes);
BENCHMARK_CAPTURE(BM_StdLookup, miss, false)->Apply(sizes);
BENCHMARK_CAPTURE(BM_ReaderWalk, quiet, false)->Apply(sizes);
BENCHMARK_CAPTURE(BM_ReaderWalk, busy_writer, true)->Apply(sizes);
BENCHMARK(BM_StdWalk)->Apply(sizes);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ec;
  std::filesystem::remove_all(benchRoot(), ec);
  return 0;
}
