// LMDB in the peer benchmark: one environment in a tmpfs directory, written
// by this process with one write transaction per operation (so that each
// change is visible to readers at once, as in the flow table), read by
// forked processes that open the environment themselves (an LMDB
// environment must not cross a fork).
//
// Readers are measured two ways: with one long read transaction (renewed
// every kRenewEvery lookups, so that a full-speed writer can reuse pages
// instead of growing the file by gigabytes), and with one read transaction
// per lookup (reset/renew of one handle, LMDB's cheap way to do that).
#include <lmdb.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <string>

#include <fmt/format.h>

#include "Harness.h"

namespace Peers {

namespace {

constexpr char kSystem[] = "LMDB";
constexpr uint32_t kRenewEvery = 4096;
constexpr size_t kMapSize = size_t{4} << 30;

void check(int rc, char const* what) {
  if (rc != MDB_SUCCESS) fail(kSystem, fmt::format("{}: {}", what, ::mdb_strerror(rc)));
}

MDB_val valOf(void const* p, size_t size) {
  return MDB_val{size, const_cast<void*>(p)};
}

// One environment with its one unnamed database, opened in this process.
class Env {
 public:
  explicit Env(std::string const& dir, bool readOnly) {
    check(::mdb_env_create(&env_), "mdb_env_create");
    check(::mdb_env_set_mapsize(env_, kMapSize), "mdb_env_set_mapsize");
    unsigned const flags = MDB_NOSYNC | (readOnly ? MDB_RDONLY : 0u);
    check(::mdb_env_open(env_, dir.c_str(), flags, 0644), "mdb_env_open");
    MDB_txn* txn;
    check(::mdb_txn_begin(env_, nullptr, readOnly ? MDB_RDONLY : 0u, &txn), "mdb_txn_begin");
    check(::mdb_dbi_open(txn, nullptr, 0, &dbi_), "mdb_dbi_open");
    check(::mdb_txn_commit(txn), "mdb_txn_commit");
  }
  ~Env() { ::mdb_env_close(env_); }
  Env(Env const&) = delete;
  Env& operator=(Env const&) = delete;

  MDB_env* env() const { return env_; }
  MDB_dbi dbi() const { return dbi_; }

  // One write transaction around `op(txn)`.
  template <typename Op>
  void write(Op&& op) {
    MDB_txn* txn;
    check(::mdb_txn_begin(env_, nullptr, 0, &txn), "mdb_txn_begin");
    op(txn);
    check(::mdb_txn_commit(txn), "mdb_txn_commit");
  }
  void put(Value const& v) {
    write([&](MDB_txn* txn) {
      MDB_val k = valOf(&v.key(), sizeof(Key));
      MDB_val d = valOf(&v, sizeof(Value));
      check(::mdb_put(txn, dbi_, &k, &d, 0), "mdb_put");
    });
  }

 private:
  MDB_env* env_ = nullptr;
  MDB_dbi dbi_ = 0;
};

bool getInto(MDB_txn* txn, MDB_dbi dbi, Key const& key, Value& out) {
  MDB_val k = valOf(&key, sizeof(Key));
  MDB_val d;
  int const rc = ::mdb_get(txn, dbi, &k, &d);
  if (rc == MDB_NOTFOUND) return false;
  check(rc, "mdb_get");
  if (d.mv_size != sizeof(Value)) fail(kSystem, fmt::format("a value of {} bytes", d.mv_size));
  std::memcpy(static_cast<void*>(&out), d.mv_data, sizeof(Value));
  return true;
}

// The reader body: its own environment, then the checked lookups with a
// long transaction (perLookup false) or one per lookup.
ReaderResult readerLookups(std::string const& dir, Workload const& w, double minSeconds,
                           bool perLookup) {
  Env env(dir, true);
  MDB_txn* txn;
  check(::mdb_txn_begin(env.env(), nullptr, MDB_RDONLY, &txn), "mdb_txn_begin");
  uint32_t sinceRenew = 0;
  ReaderResult r = measureLookups(w, minSeconds, [&](Key const& k, Value& out) {
    if (perLookup || ++sinceRenew == kRenewEvery) {
      ::mdb_txn_reset(txn);
      check(::mdb_txn_renew(txn), "mdb_txn_renew");
      sinceRenew = 0;
    }
    return getInto(txn, env.dbi(), k, out);
  });
  ::mdb_txn_abort(txn);
  return r;
}

}  // namespace

Figures runLmdb(Config const& c, Workload const& w, int rep) {
  std::string const dir = fmt::format("{}/lmdb-{}-{}", c.shmDir, w.n, rep);
  std::filesystem::create_directories(dir);
  Figures f;
  auto step = [&](char const* s) { progress(kSystem, w.n, rep, c.reps, s); };
  {
    Env env(dir, false);
    step("insert");
    f.insert = timeOnce(w.n, [&](uint32_t i) { env.put(w.rows[w.order[i]]); });
    MDB_stat st;
    env.write([&](MDB_txn* txn) { check(::mdb_stat(txn, env.dbi(), &st), "mdb_stat"); });
    if (st.ms_entries != w.n)
      fail(kSystem, fmt::format("{} entries after {} inserts", st.ms_entries, w.n));
    f.bytes = static_cast<double>(allocatedBytesUnder(dir)) / w.n;

    step("overwrite");
    Value row;
    f.overwrite = timeOnce(w.n, [&](uint32_t i) {
      row = w.rows[w.order[i]];
      row.updateTimeIs(1);
      env.put(row);
    });

    step("walk");
    uint64_t walked = 0;
    f.walk = timePasses(1, c.minLookupSeconds, [&](uint32_t) {
      MDB_txn* txn;
      check(::mdb_txn_begin(env.env(), nullptr, MDB_RDONLY, &txn), "mdb_txn_begin");
      MDB_cursor* cur;
      check(::mdb_cursor_open(txn, env.dbi(), &cur), "mdb_cursor_open");
      MDB_val k, d;
      Value v;
      for (int rc = ::mdb_cursor_get(cur, &k, &d, MDB_FIRST); rc == MDB_SUCCESS;
           rc = ::mdb_cursor_get(cur, &k, &d, MDB_NEXT)) {
        std::memcpy(static_cast<void*>(&v), d.mv_data, sizeof(Value));
        walked++;
      }
      ::mdb_cursor_close(cur);
      ::mdb_txn_abort(txn);
    });
    if (walked % w.n)
      fail(kSystem, fmt::format("a walk met {} entries, not a multiple of {}", walked, w.n));
    f.walk /= w.n;

    auto overwrite = [&](uint32_t i, uint32_t version) {
      row = w.rows[i];
      row.updateTimeIs(version);
      env.put(row);
    };
    auto measure = [&](Load load, bool perLookup) {
      step(fmt::format("{}{}", loadName(load), perLookup ? ", txn per lookup" : "").c_str());
      ReaderResult const r = readUnderLoad(
          kSystem, load, w.n, [&] { return readerLookups(dir, w, c.minLookupSeconds, perLookup); },
          overwrite);
      if (r.wrong) fail(kSystem, fmt::format("{} wrong lookups with {}", r.wrong, loadName(load)));
      return r;
    };
    ReaderResult r = measure(Load::idle, false);
    f.hit = r.hit;
    f.miss = r.miss;
    r = measure(Load::busy, false);
    f.hitBusy = r.hit;
    f.missBusy = r.miss;
    r = measure(Load::paced, false);
    f.hitPaced = r.hit;
    f.missPaced = r.miss;
    r = measure(Load::idle, true);
    f.hitTxn = r.hit;
    f.missTxn = r.miss;
    r = measure(Load::busy, true);
    f.hitTxnBusy = r.hit;

    step("remove");
    uint32_t missing = 0;
    f.remove = timeOnce(w.n, [&](uint32_t i) {
      env.write([&](MDB_txn* txn) {
        MDB_val k = valOf(&w.hitKeys[i], sizeof(Key));
        int const rc = ::mdb_del(txn, env.dbi(), &k, nullptr);
        if (rc == MDB_NOTFOUND) {
          missing++;
          return;
        }
        check(rc, "mdb_del");
      });
    });
    if (missing) fail(kSystem, fmt::format("{} removes found no row", missing));
  }
  std::filesystem::remove_all(dir);
  return f;
}

}  // namespace Peers
