// The peer benchmark harness: the rows every system is measured on, the
// figures each system reports, and the measuring machinery they share
// (timing, reader processes, writer load, memory).
//
// Every system gets the same rows: HoIpFlowConfig records (36-byte key inside
// an 84-byte record), keys made by keyOf(i), inserted, overwritten, looked up
// and removed in one shuffled order per size (seed kOrderSeed). Miss keys are
// keyOf(n .. 2n-1). Keys are canonical: their bytes that no field covers are
// zero, so that peers that hash or compare raw key bytes (LMDB, DPDK) see one
// key where the field-wise systems see one key.
#pragma once

#include <sys/types.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "FlowTracking/TableWriters.h"

namespace Peers {

using Key = FlowTracking::HoIpFlowKey;
using Record = FlowTracking::HoIpFlowConfig;
// The record as our table stores it; also what the peers store, so that one
// copy-out costs the same everywhere.
using Value = FlowTracking::TableValue<Record>;

static_assert(sizeof(Key) == 36 && sizeof(Value) == 84);

inline constexpr uint32_t kOrderSeed = 42;
inline constexpr uint32_t kWriterSeed = 7;
// The paced writer's rate, writes per second.
inline constexpr double kPacedRate = 100000.0;

inline constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

// Keys per call of the systems that look up many keys at once.
inline constexpr uint32_t kBulk = 32;

// One system's figures at one size; NaN where a figure does not apply.
struct Figures {
  double insert = kNone;     // ns per insert into a growing table
  double overwrite = kNone;  // ns per overwrite of an existing key
  double remove = kNone;     // ns per remove
  double walk = kNone;       // ns per entry of a full walk, value copied out
  double bytes = kNone;      // bytes of memory per entry after filling
  double hit = kNone;        // reader lookup hit, ns, no writer
  double miss = kNone;       // reader lookup miss, ns, no writer
  double hitBusy = kNone;    // ... while a writer overwrites at full speed
  double missBusy = kNone;
  double hitPaced = kNone;  // ... while a writer overwrites 100,000 rows/s
  double missPaced = kNone;
  double hitBulk = kNone;   // ... per key, looked up kBulk keys at a time, no writer
  double missBulk = kNone;
  double hitTxn = kNone;  // LMDB only: one read transaction per lookup
  double missTxn = kNone;
  double hitTxnBusy = kNone;
};

// The run's settings.
struct Config {
  bool quick = false;
  int reps = 3;
  // Lower bound of one lookup measurement: passes over the keys are
  // repeated until this much time has gone.
  double minLookupSeconds = 0.2;
  std::string shmDir;  // a fresh directory under /dev/shm for this run
};

// The keys and rows of one size, built once and shared by every system
// (readers in forked processes inherit them).
struct Workload {
  uint32_t n = 0;
  std::vector<Key> keys;        // keyOf(i), i < n
  std::vector<Value> rows;      // rowOf(i, 0)
  std::vector<uint32_t> order;  // 0..n-1 shuffled
  std::vector<Key> hitKeys;     // keys in `order`
  std::vector<Key> missKeys;    // keyOf(n + order[i])
};

Key keyOf(uint32_t i);
Value rowOf(uint32_t i, uint32_t version);
Workload makeWorkload(uint32_t n);

// Field-wise hash of the table itself, for the hash maps that take a
// hasher (std::unordered_map, boost::unordered_map).
struct KeyHash {
  size_t operator()(Key const& k) const noexcept { return k.hash(0); }
};

// --- timing ------------------------------------------------------------------

uint64_t nowNs();
double median(std::vector<double> v);

// ns per op of `body(i)` for i in [0, count), repeated in whole passes until
// at least `minSeconds` have gone.
template <typename F>
double timePasses(uint32_t count, double minSeconds, F&& body) {
  uint64_t const start = nowNs();
  uint64_t const until = start + static_cast<uint64_t>(minSeconds * 1e9);
  uint64_t ops = 0;
  uint64_t end;
  do {
    for (uint32_t i = 0; i < count; i++) body(i);
    ops += count;
    end = nowNs();
  } while (end < until);
  return static_cast<double>(end - start) / static_cast<double>(ops);
}

template <typename F>
double timeOnce(uint32_t count, F&& body) {
  uint64_t const start = nowNs();
  for (uint32_t i = 0; i < count; i++) body(i);
  return static_cast<double>(nowNs() - start) / static_cast<double>(count);
}

// Throws Lomi::RuntimeException naming `system` and what went wrong: the
// harness checks every lookup's result, so a peer that loses rows fails the
// run instead of looking fast.
[[noreturn]] void fail(std::string const& system, std::string const& what);

// --- processes -------------------------------------------------------------

// What a reader reports: ns per hit, ns per miss, and the lookups whose
// result was wrong (a hit that missed, a miss that hit, a copied value whose
// key is not the key looked up).
struct ReaderResult {
  double hit = kNone;
  double miss = kNone;
  double wrong = 0;
  // Per key, of lookups kBulk keys at a time (systems that have them).
  double hitBulk = kNone;
  double missBulk = kNone;
  // Private bytes per entry of a reader that keeps a copy (the shadows).
  double bytes = kNone;
};

// A reader in a forked process. The body runs in the child (which inherits
// the workload) and its result comes back through a pipe; an exception in
// the child comes back as its message.
class ReaderProcess {
 public:
  explicit ReaderProcess(std::function<ReaderResult()> body);
  ~ReaderProcess();
  ReaderProcess(ReaderProcess const&) = delete;
  ReaderProcess& operator=(ReaderProcess const&) = delete;

  // True once the child has written its result (never blocks).
  bool done();
  // Waits for the child; throws with the child's message if it failed.
  ReaderResult result(std::string const& system);

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  bool done_ = false;
};

// The three loads a reader is measured under.
enum class Load { idle, busy, paced };
char const* loadName(Load load);

// Runs `reader` (in a child process) while this process applies `load`
// through `overwrite(i, version)`, which overwrites row i. Full speed
// overwrites back to back; paced overwrites kPacedRate rows a second in
// batches of one millisecond and sleeps between them.
ReaderResult readUnderLoad(std::string const& system, Load load, uint32_t n,
                           std::function<ReaderResult()> reader,
                           std::function<void(uint32_t, uint32_t)> const& overwrite);

// The lookups of one reader pass, checked: `lookup(key, out)` returns found
// and copies the value into out.
template <typename Lookup>
ReaderResult measureLookups(Workload const& w, double minSeconds, Lookup&& lookup) {
  ReaderResult r;
  Value out;
  uint64_t wrong = 0;
  r.hit = timePasses(w.n, minSeconds, [&](uint32_t i) {
    Key const& k = w.hitKeys[i];
    bool const found = lookup(k, out);
    wrong += !found || !(out.key() == k);
  });
  r.miss = timePasses(w.n, minSeconds, [&](uint32_t i) { wrong += lookup(w.missKeys[i], out); });
  r.wrong = static_cast<double>(wrong);
  return r;
}

// The bulk lookups of one reader pass, checked, into `r`: `lookupBulk(keys,
// count, out, found)` looks up keys[0..count), count <= kBulk, copying each
// found value into out[i] and setting found[i]. Passes go over the keys in
// groups of kBulk in the order of measureLookups; the figure is per key.
template <typename LookupBulk>
void measureBulkLookups(Workload const& w, double minSeconds, ReaderResult& r,
                        LookupBulk&& lookupBulk) {
  Value out[kBulk];
  bool found[kBulk];
  uint32_t const groups = w.n / kBulk;
  uint64_t wrong = 0;
  auto pass = [&](std::vector<Key> const& keys, bool hits) {
    return timePasses(groups, minSeconds, [&](uint32_t g) {
      Key const* k = keys.data() + g * kBulk;
      lookupBulk(k, kBulk, out, found);
      for (uint32_t i = 0; i < kBulk; i++) {
        wrong += hits ? (!found[i] || !(out[i].key() == k[i])) : found[i];
      }
    }) / kBulk;
  };
  r.hitBulk = pass(w.hitKeys, true);
  r.missBulk = pass(w.missKeys, false);
  r.wrong += static_cast<double>(wrong);
}

// --- memory ------------------------------------------------------------------

// Allocated blocks of every file under `dir` (recursively), bytes.
uint64_t allocatedBytesUnder(std::string const& dir);
// Allocated blocks of one file, bytes.
uint64_t allocatedBytesOf(std::string const& path);
// Bytes the heap hands out (malloc chunks with their headers, and mmapped
// blocks) while `fill` runs and keeps what it builds.
uint64_t heapGrowth(std::function<void()> const& fill);

// --- progress ----------------------------------------------------------------

// One line per step on stderr ("\r"-rewritten on a terminal).
void progress(std::string const& system, uint32_t n, int rep, int reps, char const* step);
void progressDone();

// --- the systems -------------------------------------------------------------

// Each measures one repetition at one size; rep 0 may do one-time set-up.
Figures runOurs(Config const& c, Workload const& w, int rep);
// The private copies: value shadow and keyshadow, read in a forked process.
Figures runValueShadow(Config const& c, Workload const& w, int rep);
Figures runKeyShadow(Config const& c, Workload const& w, int rep);
Figures runStdUnorderedMap(Config const& c, Workload const& w, int rep);
Figures runAbslFlatHashMap(Config const& c, Workload const& w, int rep);
Figures runLmdb(Config const& c, Workload const& w, int rep);
Figures runBoostInterprocess(Config const& c, Workload const& w, int rep);
// DPDK's environment is set up once per process, before any fork; false with
// the reason if it cannot start here.
bool dpdkInit(std::string& error);
Figures runDpdkHash(Config const& c, Workload const& w, int rep);

// ns per dependent load of random cache lines in a `bytes` array (pointer
// chase over one random cycle), the machine's memory latency.
double randomAccessLatencyNs(uint64_t bytes, uint64_t loads);

}  // namespace Peers
