// DPDK's rte_hash in the peer benchmark, in one process (its shared mode
// needs hugepages and a primary/secondary set-up that this machine does not
// offer): a cuckoo hash with lock-free read/write concurrency keyed by the
// 36 key bytes (CRC32 hash), whose data pointers point at records in an
// rte_malloc'd pool. The environment runs without hugepages and PCI.
//
// Concurrency as rte_hash gives it: the writer thread publishes a new record
// by swapping the data pointer; the record it last replaced is the one it
// overwrites next time (two records per key), with no grace period, so a
// reader's copy may be torn. Safe reclamation (RCU) would only add to the
// writer's cost; lookups are what is measured here.
#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_hash.h>
#include <rte_hash_crc.h>
#include <rte_lcore.h>
#include <rte_malloc.h>

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "Harness.h"

namespace Peers {

namespace {

constexpr char kSystem[] = "DPDK rte_hash";

uint32_t crcHash(void const* key, uint32_t len, uint32_t seed) {
  return rte_hash_crc(key, len, seed);
}

uint64_t heapAllocated() {
  rte_malloc_socket_stats st{};
  uint64_t total = 0;
  for (unsigned s = 0; s < rte_socket_count(); s++) {
    if (rte_malloc_get_socket_stats(rte_socket_id_by_idx(s), &st) == 0) {
      total += st.heap_allocsz_bytes;
    }
  }
  return total;
}

}  // namespace

bool dpdkInit(std::string& error) {
  static int state = 0;  // 0 not tried, 1 up, -1 failed
  static std::string lastError;
  if (state == 0) {
    // --no-huge takes the legacy memory mode, which rules out --in-memory;
    // --no-shconf and a per-process prefix keep two runs apart.
    std::vector<std::string> args = {"flowtables-peers",
                                     "--no-huge",
                                     "--no-pci",
                                     "--no-telemetry",
                                     "--no-shconf",
                                     fmt::format("--file-prefix=peers{}", ::getpid()),
                                     "-m",
                                     "1536",
                                     "-l",
                                     "0",
                                     "--log-level=4"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    int const rc = rte_eal_init(static_cast<int>(argv.size()), argv.data());
    state = rc < 0 ? -1 : 1;
    if (rc < 0) lastError = fmt::format("rte_eal_init: {}", rte_strerror(rte_errno));
  }
  error = lastError;
  return state == 1;
}

Figures runDpdkHash(Config const& c, Workload const& w, int rep) {
  Figures f;
  auto step = [&](char const* s) { progress(kSystem, w.n, rep, c.reps, s); };
  uint32_t const n = w.n;
  auto* pool = static_cast<Value*>(rte_malloc("peers-pool", sizeof(Value) * 2 * n, 64));
  if (!pool) fail(kSystem, fmt::format("rte_malloc of {} records", 2 * n));

  uint64_t const heapBefore = heapAllocated();
  std::string const name = fmt::format("peers-{}-{}", n, rep);
  rte_hash_parameters p{};
  p.name = name.c_str();
  p.entries = n;
  p.key_len = sizeof(Key);
  p.hash_func = crcHash;
  p.hash_func_init_val = 0;
  p.socket_id = static_cast<int>(rte_socket_id());
  p.extra_flag = RTE_HASH_EXTRA_FLAGS_RW_CONCURRENCY_LF | RTE_HASH_EXTRA_FLAGS_EXT_TABLE;
  rte_hash* h = rte_hash_create(&p);
  if (!h) {
    rte_free(pool);
    fail(kSystem, fmt::format("rte_hash_create: {}", rte_strerror(rte_errno)));
  }
  auto cleanup = [&] {
    rte_hash_free(h);
    rte_free(pool);
  };

  try {
    step("insert");
    int failed = 0;
    f.insert = timeOnce(n, [&](uint32_t i) {
      uint32_t const r = w.order[i];
      pool[r] = w.rows[r];
      failed += rte_hash_add_key_data(h, &w.keys[r], &pool[r]) != 0;
    });
    if (failed || rte_hash_count(h) != static_cast<int32_t>(n)) {
      fail(kSystem,
           fmt::format("{} failed inserts, {} members after {}", failed, rte_hash_count(h), n));
    }
    // The hash's own allocations plus one record per key: the second record
    // of each key exists only for the concurrent overwrite.
    f.bytes = static_cast<double>(heapAllocated() - heapBefore) / n + sizeof(Value);

    // Overwrites go to the key's other record, then swap the pointer.
    std::vector<uint8_t> which(n, 0);
    auto overwrite = [&](uint32_t r, uint32_t version) {
      which[r] ^= 1;
      Value& slot = pool[r + (which[r] ? n : 0)];
      slot = w.rows[r];
      slot.updateTimeIs(version);
      return rte_hash_add_key_data(h, &w.keys[r], &slot);
    };
    step("overwrite");
    f.overwrite = timeOnce(n, [&](uint32_t i) { failed += overwrite(w.order[i], 1) != 0; });
    if (failed) fail(kSystem, fmt::format("{} failed overwrites", failed));

    step("walk");
    uint64_t walked = 0;
    f.walk = timePasses(1, c.minLookupSeconds, [&](uint32_t) {
      void const* key;
      void* data;
      uint32_t next = 0;
      Value v;
      while (rte_hash_iterate(h, &key, &data, &next) >= 0) {
        v = *static_cast<Value const*>(data);
        walked += v.createTime() < n;
      }
    });
    if (walked % n)
      fail(kSystem, fmt::format("a walk met {} entries, not a multiple of {}", walked, n));
    f.walk /= n;

    auto lookups = [&](bool bulk) {
      ReaderResult r = measureLookups(w, c.minLookupSeconds, [h](Key const& k, Value& out) {
        void* data;
        if (rte_hash_lookup_data(h, &k, &data) < 0) return false;
        out = *static_cast<Value const*>(data);
        return true;
      });
      if (!bulk) return r;
      // rte_hash_lookup_bulk_data: up to RTE_HASH_LOOKUP_BULK_MAX keys, a hit
      // mask and one data pointer per key; the records are copied out as in
      // the single lookups.
      measureBulkLookups(w, c.minLookupSeconds, r,
                         [h](Key const* keys, uint32_t count, Value* out, bool* found) {
                           void const* keyPtrs[kBulk];
                           void* data[kBulk];
                           uint64_t hits = 0;
                           for (uint32_t i = 0; i < count; i++) keyPtrs[i] = &keys[i];
                           rte_hash_lookup_bulk_data(h, keyPtrs, count, &hits, data);
                           for (uint32_t i = 0; i < count; i++) {
                             found[i] = (hits >> i) & 1;
                             if (found[i]) out[i] = *static_cast<Value const*>(data[i]);
                           }
                         });
      return r;
    };
    for (Load load : {Load::idle, Load::busy, Load::paced}) {
      step(loadName(load));
      std::atomic<bool> stop{false};
      std::atomic<uint64_t> writes{0};
      std::thread writer;
      if (load != Load::idle) {
        writer = std::thread([&, load] {
          std::mt19937 rng(kWriterSeed);
          uint32_t version = 2;
          uint64_t const perTick = static_cast<uint64_t>(kPacedRate / 1000.0);
          uint64_t const start = nowNs();
          uint64_t done = 0;
          while (!stop.load(std::memory_order_relaxed)) {
            if (load == Load::paced && done >= perTick * ((nowNs() - start) / 1000000 + 1)) {
              std::this_thread::sleep_for(std::chrono::microseconds(200));
              continue;
            }
            overwrite(rng() % n, version++);
            done++;
          }
          writes = done;
        });
      }
      ReaderResult const r = lookups(load == Load::idle);
      stop = true;
      if (writer.joinable()) writer.join();
      if (r.wrong) fail(kSystem, fmt::format("{} wrong lookups with {}", r.wrong, loadName(load)));
      if (load != Load::idle && writes == 0)
        fail(kSystem, "the writer wrote nothing during the read");
      (load == Load::idle ? f.hit : load == Load::busy ? f.hitBusy : f.hitPaced) = r.hit;
      (load == Load::idle ? f.miss : load == Load::busy ? f.missBusy : f.missPaced) = r.miss;
      if (load == Load::idle) {
        f.hitBulk = r.hitBulk;
        f.missBulk = r.missBulk;
      }
    }

    step("remove");
    int missing = 0;
    f.remove = timeOnce(n, [&](uint32_t i) {
      int32_t const pos = rte_hash_del_key(h, &w.hitKeys[i]);
      if (pos < 0) {
        missing++;
        return;
      }
      // Under lock-free concurrency a deleted key's position is kept until
      // the writer frees it; with no reader left it is freed at once.
      rte_hash_free_key_with_position(h, pos);
    });
    if (missing) fail(kSystem, fmt::format("{} removes found no row", missing));
  } catch (...) {
    cleanup();
    throw;
  }
  cleanup();
  return f;
}

}  // namespace Peers
