// Writer micro benchmarks: insert, overwrite, remove, lookup hit and miss,
// and a full walk of a HoIpFlowConfig table (36-byte key in an 84-byte
// record) in files under /dev/shm, at 10^4, 10^5 and 10^6 entries, with
// std::unordered_map measured on the same rows in the same run.
//
// Build: cmake --preset bench && cmake --build --preset bench
// Run:   build/bench/writer_bench --benchmark_counters_tabular=true
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchRows.h"
#include "FlowTracking/TableWriters.h"
#include "Mem/RootPath.h"

namespace {

using namespace FlowTracking;
using namespace BenchRows;
using Writer = HoIpFlowConfigWriter;

std::unique_ptr<Writer> freshWriter(uint32_t n) {
  benchRoot();
  static int tableNo = 0;
  std::string name = "bench/t" + std::to_string(tableNo++);
  Mirak::MapDescriptor d(n);
  d.shrinkBuckets_ = true;
  auto w = std::make_unique<Writer>(Lomi::Platform::getDebugHandler("bench"), name.c_str(), d,
                                    HoIpFlowConfigOps(0));
  w->initialize("bench");
  return w;
}

void cleanupWriter(std::unique_ptr<Writer>& w) {
  w->cleanup();
  w.reset();
}

// --- ours -------------------------------------------------------------------

void BM_TableInsert(benchmark::State& state) {
  uint32_t const n = state.range(0);
  auto order = shuffled(n);
  for (auto _ : state) {
    state.PauseTiming();
    auto w = freshWriter(n);
    state.ResumeTiming();
    for (uint32_t i : order) w->write(rowOf(i, 0), true);
    state.PauseTiming();
    cleanupWriter(w);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}

void BM_TableOverwrite(benchmark::State& state) {
  uint32_t const n = state.range(0);
  auto w = freshWriter(n);
  for (uint32_t i = 0; i < n; i++) w->write(rowOf(i, 0), true);
  auto order = shuffled(n);
  uint32_t v = 1;
  for (auto _ : state) {
    for (uint32_t i : order) w->write(rowOf(i, v), true);
    v++;
  }
  state.SetItemsProcessed(state.iterations() * n);
  cleanupWriter(w);
}

void BM_TableRemove(benchmark::State& state) {
  uint32_t const n = state.range(0);
  auto order = shuffled(n);
  for (auto _ : state) {
    state.PauseTiming();
    auto w = freshWriter(n);
    for (uint32_t i = 0; i < n; i++) w->write(rowOf(i, 0), true);
    Value removed;
    state.ResumeTiming();
    for (uint32_t i : order) w->remove(keyOf(i), removed);
    state.PauseTiming();
    cleanupWriter(w);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}

void BM_TableLookup(benchmark::State& state, bool hit) {
  uint32_t const n = state.range(0);
  auto w = freshWriter(n);
  for (uint32_t i = 0; i < n; i++) w->write(rowOf(i, 0), true);
  auto order = shuffled(n, hit ? 0 : n);
  std::vector<HoIpFlowKey> keys;
  for (uint32_t i : order) keys.push_back(keyOf(i));
  Value out;
  for (auto _ : state) {
    for (auto const& k : keys) {
      bool found;
      Value const* v = w->lookup(k, found, nullptr);
      out = *v;  // the value copied out, as a caller would
      benchmark::DoNotOptimize(out);
    }
  }
  state.SetItemsProcessed(state.iterations() * n);
  cleanupWriter(w);
}

void BM_TableWalk(benchmark::State& state) {
  uint32_t const n = state.range(0);
  auto w = freshWriter(n);
  for (uint32_t i = 0; i < n; i++) w->write(rowOf(i, 0), true);
  for (auto _ : state) {
    Value v;
    Mirak::IterHint hint{};
    uint32_t count = 0;
    for (bool ok = w->first(v, hint); ok; ok = w->next(v.key(), v, hint)) count++;
    benchmark::DoNotOptimize(count);
  }
  state.SetItemsProcessed(state.iterations() * n);
  cleanupWriter(w);
}

// --- std::unordered_map ------------------------------------------------------

void BM_StdInsert(benchmark::State& state) {
  uint32_t const n = state.range(0);
  auto order = shuffled(n);
  for (auto _ : state) {
    StdMap m;
    for (uint32_t i : order) {
      Value v = rowOf(i, 0);
      m.insert_or_assign(v.key(), v);
    }
    benchmark::DoNotOptimize(m);
    state.PauseTiming();
    m = StdMap();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}

void BM_StdOverwrite(benchmark::State& state) {
  uint32_t const n = state.range(0);
  StdMap m;
  for (uint32_t i = 0; i < n; i++) m.insert_or_assign(keyOf(i), rowOf(i, 0));
  auto order = shuffled(n);
  uint32_t v = 1;
  for (auto _ : state) {
    for (uint32_t i : order) {
      Value val = rowOf(i, v);
      m.insert_or_assign(val.key(), val);
    }
    v++;
  }
  state.SetItemsProcessed(state.iterations() * n);
}

void BM_StdRemove(benchmark::State& state) {
  uint32_t const n = state.range(0);
  auto order = shuffled(n);
  for (auto _ : state) {
    state.PauseTiming();
    StdMap m;
    for (uint32_t i = 0; i < n; i++) m.insert_or_assign(keyOf(i), rowOf(i, 0));
    state.ResumeTiming();
    for (uint32_t i : order) m.erase(keyOf(i));
    state.PauseTiming();
    m = StdMap();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}

void BM_StdLookup(benchmark::State& state, bool hit) {
  uint32_t const n = state.range(0);
  StdMap m;
  for (uint32_t i = 0; i < n; i++) m.insert_or_assign(keyOf(i), rowOf(i, 0));
  auto order = shuffled(n, hit ? 0 : n);
  std::vector<HoIpFlowKey> keys;
  for (uint32_t i : order) keys.push_back(keyOf(i));
  Value out;
  for (auto _ : state) {
    for (auto const& k : keys) {
      auto it = m.find(k);
      out = it != m.end() ? it->second : Value();
      benchmark::DoNotOptimize(out);
    }
  }
  state.SetItemsProcessed(state.iterations() * n);
}

void BM_StdWalk(benchmark::State& state) {
  uint32_t const n = state.range(0);
  StdMap m;
  for (uint32_t i = 0; i < n; i++) m.insert_or_assign(keyOf(i), rowOf(i, 0));
  for (auto _ : state) {
    Value v;
    uint32_t count = 0;
    for (auto const& [k, val] : m) {
      v = val;
      benchmark::DoNotOptimize(v);
      count++;
    }
    benchmark::DoNotOptimize(count);
  }
  state.SetItemsProcessed(state.iterations() * n);
}

void sizes(benchmark::internal::Benchmark* b) {
  b->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->MinTime(0.5);
}

BENCHMARK(BM_TableInsert)->Apply(sizes);
BENCHMARK(BM_StdInsert)->Apply(sizes);
BENCHMARK(BM_TableOverwrite)->Apply(sizes);
BENCHMARK(BM_StdOverwrite)->Apply(sizes);
BENCHMARK(BM_TableRemove)->Apply(sizes);
BENCHMARK(BM_StdRemove)->Apply(sizes);
BENCHMARK_CAPTURE(BM_TableLookup, hit, true)->Apply(sizes);
BENCHMARK_CAPTURE(BM_StdLookup, hit, true)->Apply(sizes);
BENCHMARK_CAPTURE(BM_TableLookup, miss, false)->Apply(sizes);
BENCHMARK_CAPTURE(BM_StdLookup, miss, false)->Apply(sizes);
BENCHMARK(BM_TableWalk)->Apply(sizes);
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
