// The shadow store against a model: a writer runs random operations on a real
// table (inserts, overwrites, removes, slot growth and compaction, bucket
// growth and shrink, re-format) and on a std::map; a store follows it through
// the real change queue and sweeps (whole, cut into parts by changes, and
// after a queue that moved on). At every quiet point the store equals the
// map, its walk returns each key once, and its callbacks replayed onto an
// empty map give the same map. Both kinds of store.
//
// FLOWTABLES_SHADOW_SEEDS=N runs N seeds per kind (default: a CI-sized run).
#include "Mirak/ShadowStore.h"

#include <bit>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Mirak/MirakReader.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/TempRoot.h"
#include "Mirak/TestPolicy.h"
#include "Tessel/TesselReader.h"
#include "Tessel/TesselWriter.h"

namespace MirakTest {
namespace {

using QueueOps = TestOpsWith<Tessel::TesselWriter>;
using Writer = Mirak::MirakWriter<QueueOps>;
using Reader = Mirak::MirakReader<QueueOps>;
using ValueStore = Mirak::ShadowStore<Mirak::ValueShadowSlot<QueueOps>>;
using KeyStore = Mirak::KeyShadowStore<QueueOps>;
using Walk = Tessel::TesselReader<>::Walk;
constexpr char kTable[] = "test/shadowstore";

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("ShadowStoreTest");
}

// Keys with id % 8 == 7 are never removed by the writer (only moved by its
// compactions): a removal of one that the copy reports is false.
bool pinned(uint32_t id) {
  return id % 8 == 7;
}

std::unique_ptr<Writer> makeWriter() {
  Mirak::MapDescriptor d(16);
  d.local = false;
  d.shrinkSlots = true;
  d.shrinkBuckets_ = true;
  auto w = std::make_unique<Writer>(handler(), kTable, d, QueueOps(0));
  if (!w->initialize("test")) return nullptr;
  return w;
}

// A store fed by the real queue, and the client that listens to it.
template <typename Store>
class Follower : public Tessel::TesselReader<>::Client {
 public:
  static constexpr bool keepsValue = Store::Slot::keepsValue;

  Follower() : reader_(handler(), kTable, QueueOps(0)), tessel_(dir(), handler()) {
    notify_.changeFn = [this](TestValue const& v) { heard(v.key(), &v); };
    notify_.keyFn = [this](TestKey const& k) { heard(k, nullptr); };
    notify_.keyDelFn = [this](TestKey const& k) {
      // Inside the callback the key being removed is gone already.
      bool found = true;
      store_->lookup(k, found, nullptr);
      if (found) problems.insert("lookup finds the key being removed");
      if (pinned(k.id)) (sweeping_ ? sweepRemovals : falseRemovals)++;
      replay.erase(k.id);
    };
  }

  static std::string dir() { return Mem::NaoRootPath(handler(), kTable, false).path(); }

  // A fresh store on the table as it is now, filled by one sweep.
  void attach() {
    tessel_.detach();
    reader_.detach(false);
    replay.clear();
    ASSERT_TRUE(reader_.initialize("test"));
    std::string error;
    ASSERT_TRUE(tessel_.attach(reader_.kestorId().value(), error)) << error;
    store_ = std::make_unique<Store>(handler(), reader_, tessel_, notify_, true);
    ASSERT_TRUE(store_->initialize());
    sweep();
  }

  // A sweep: the head, then every slot, then on from the head. `between`
  // runs in the middle, as changes a real sweep meets.
  template <typename F = void (*)()>
  void sweep(F between = [] {}) {
    Tessel::Sequence const head = tessel_.head();
    sweeping_ = true;
    reader_.resize();
    // Local slots beyond a table that shrank are swept too.
    uint32_t const slots = std::max(reader_.capacity(), store_->numSlots());
    for (uint32_t i = 0; i < slots / 2; i++) store_->doSlot(i, Tessel::noSequence, true);
    between();
    for (uint32_t i = slots / 2; i < slots; i++) store_->doSlot(i, Tessel::noSequence, true);
    sweeping_ = false;
    tessel_.seek(head);
    sweeps++;
  }

  // Follows the queue until caught up; at most `seconds` per walk (0: one
  // cut of 64 entries). Returns how the last walk ended.
  Walk follow(double seconds = 10, bool once = false) {
    for (;;) {
      Walk const w = tessel_.walk(*this, seconds);
      if (w == Walk::overrun) {
        sweep();
        continue;
      }
      if (w == Walk::yielded && !once) continue;
      return w;
    }
  }

  bool doSlot(Tessel::BasicSlot slot, Tessel::Sequence seq, bool compare) override {
    return store_->doSlot(slot, seq, compare);
  }
  // The store's prefetch runs on every hint the walk gives, stale or not.
  void prefetch(Tessel::BasicSlot slot) override { store_->prefetch(slot); }

  // "" when the store, its walk and the replayed callbacks equal `model`.
  std::string differences(std::map<uint32_t, uint64_t> const& model) {
    std::map<uint32_t, uint64_t> walked;
    TestValue v;
    Mirak::IterHint hint;
    int steps = 0;
    for (bool ok = store_->first(0, v, hint); ok; ok = store_->next(v.key(), v, hint)) {
      if (!walked.emplace(v.key().id, v.count).second)
        return "walk repeats " + std::to_string(v.key().id);
      if (++steps > 1'000'000) return "walk does not end";
    }
    if (walked != model) {
      return "walk of " + std::to_string(walked.size()) + " rows, model of " +
             std::to_string(model.size());
    }
    for (auto const& [id, count] : model) {
      bool found = false;
      TestValue const* p = store_->lookup(TestKey{id, 0}, found, nullptr);
      if (!found || p->count != count) return "lookup of " + std::to_string(id);
    }
    bool absentFound = true;
    if (store_->lookup(TestKey{0xfffffff0u, 0}, absentFound, nullptr)->count !=
            TestRecord().count ||
        absentFound) {
      return "an absent key does not answer the default value";
    }
    std::set<uint32_t> modelKeys, replayKeys;
    for (auto const& e : model) modelKeys.insert(e.first);
    for (auto const& e : replay) replayKeys.insert(e.first);
    if (keepsValue ? replay != model : replayKeys != modelKeys) return "replayed callbacks differ";
    if (reader_.counters().members != model.size()) return "members counter";
    if (!problems.empty()) return *problems.begin();
    if (falseRemovals) return "a pinned key was reported removed";
    return "";
  }

  Store& store() { return *store_; }
  Reader& reader() { return reader_; }

  std::map<uint32_t, uint64_t> replay;
  std::set<std::string> problems;
  int falseRemovals = 0;
  // Pinned keys reported removed by a sweep, and re-added by the queue.
  int sweepRemovals = 0;
  int sweeps = 0;

 private:
  void heard(TestKey const& k, TestValue const* v) {
    // Inside the callback the changed key reads as it is now.
    bool found = false;
    TestValue const* now = store_->lookup(k, found, nullptr);
    if (!found || (v && now->count != v->count)) problems.insert("lookup misses the changed key");
    replay[k.id] = now->count;
    if (throwInCallback && *throwInCallback == k.id) throw std::runtime_error("client callback");
  }

 public:
  // The client's callback for this key throws once it took the row in.
  std::optional<uint32_t> throwInCallback;

 private:
  Reader reader_;
  Tessel::TesselReader<> tessel_;
  Mem::Notify<TestKey, TestValue> notify_;
  std::unique_ptr<Store> store_;
  bool sweeping_ = false;
};

int seedsPerKind() {
  char const* env = std::getenv("FLOWTABLES_SHADOW_SEEDS");
  return env ? std::max(1, std::atoi(env)) : 600;
}

// The set-up the cases share: a table on a fresh root, its model, and the
// writer that fills both.
template <typename Store>
class ShadowStoreModel : public ::testing::Test {
 protected:
  // A new table (the last one's files go) of rows 0 .. rows-1, row id at
  // count `base + id`: distinct values, so a copy that mixes rows differs.
  void newTable(uint32_t rows = 0, uint64_t base = 1) {
    if (w) w->cleanup();
    w = makeWriter();
    ASSERT_TRUE(w);
    model.clear();
    for (uint32_t id = 0; id < rows; id++) write(id, base + id);
  }
  void write(uint32_t id, uint64_t count) { w->write(row(id, model[id] = count), true); }
  void TearDown() override {
    if (w) w->cleanup();
  }

  TempRoot root;
  std::unique_ptr<Writer> w;
  std::map<uint32_t, uint64_t> model;
};
using StoreKinds = ::testing::Types<ValueStore, KeyStore>;
struct KindName {
  template <typename T>
  static std::string GetName(int) {
    return T::Slot::keepsValue ? "Value" : "Key";
  }
};
TYPED_TEST_SUITE(ShadowStoreModel, StoreKinds, KindName);

TYPED_TEST(ShadowStoreModel, EqualsTheTableAtEveryQuietPointWhateverTheWriterDid) {
  auto& w = this->w;
  auto& model = this->model;
  int const seeds = seedsPerKind();
  uint64_t compactions = 0, reformats = 0, moves = 0, bucketShrinks = 0, slotShrinks = 0,
           failed = 0;
  for (int seed = 1; seed <= seeds; seed++) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    auto pick = [&](uint32_t n) { return uint32_t(rng() % n); };
    ASSERT_NO_FATAL_FAILURE(this->newTable());
    uint32_t nextId = 0;
    uint64_t count = 100;
    auto insert = [&](uint32_t n) {
      for (uint32_t i = 0; i < n; i++) {
        w->write(row(nextId, count), true);
        model[nextId++] = count++;
      }
    };
    auto removeSome = [&](uint32_t percent) {
      TestValue gone;
      for (auto it = model.begin(); it != model.end();) {
        if (!pinned(it->first) && pick(100) < percent) {
          w->remove(TestKey{it->first, 0}, gone);
          it = model.erase(it);
        } else {
          ++it;
        }
      }
    };
    auto writerStep = [&] {
      switch (pick(10)) {
        case 0:
        case 1:
          insert(1 + pick(4));
          break;
        case 2:
        case 3:
          if (!model.empty()) {
            auto it = std::next(model.begin(), pick(uint32_t(model.size())));
            w->write(row(it->first, count), true);
            it->second = count++;
          }
          break;
        case 4:
          removeSome(10);
          break;
        case 5:
          insert(40 + pick(60));  // slots and buckets grow
          break;
        case 6: {
          // Most rows go: the buckets halve and the slots compact, moving
          // pinned rows down under the follower.
          removeSome(95);
          w->shrink();
          break;
        }
        default:
          if (!model.empty()) {
            auto it = std::next(model.begin(), pick(uint32_t(model.size())));
            if (!pinned(it->first)) {
              TestValue gone;
              w->remove(TestKey{it->first, 0}, gone);
              model.erase(it);
            }
          }
      }
    };

    Follower<TypeParam> f;
    f.attach();
    ASSERT_EQ(f.differences(model), "");
    for (int round = 0; round < 12; round++) {
      // A client walks the copy half-way, the copy changes (and may shrink
      // under the walk), then the walk goes on from its key and hint.
      std::map<uint32_t, int> seen;
      std::set<uint32_t> pinnedAtStart;
      for (auto const& e : model) {
        if (pinned(e.first)) pinnedAtStart.insert(e.first);
      }
      TestValue v;
      Mirak::IterHint hint;
      bool more = f.store().first(0, v, hint);
      for (size_t i = 0; more && i < model.size() / 2; i++) {
        seen[v.key().id]++;
        more = f.store().next(v.key(), v, hint);
      }
      int const steps = 1 + int(pick(12));
      for (int i = 0; i < steps; i++) writerStep();
      f.follow();
      for (; more; more = f.store().next(v.key(), v, hint)) seen[v.key().id]++;
      for (auto const& [id, n] : seen) ASSERT_EQ(n, 1) << "walk repeats " << id;
      for (uint32_t id : pinnedAtStart) ASSERT_EQ(seen.count(id), 1u) << "walk skips " << id;

      switch (pick(6)) {
        case 0:
          // A cut walk, then more changes before the rest.
          f.follow(0, true);
          writerStep();
          break;
        case 1:
          // A sweep that changes cut in two, then the queue from its head.
          f.sweep([&] {
            writerStep();
            writerStep();
          });
          break;
        case 2:
          if (pick(4) == 0) {
            // Re-format: the table starts anew under a new kestor and seed.
            ASSERT_NO_FATAL_FAILURE(this->newTable());
            insert(pick(30));
            EXPECT_EQ(f.follow(), Walk::reformatted);
            f.attach();
            reformats++;
          }
          break;
        default:
          break;
      }
      ASSERT_NE(f.follow(), Walk::reformatted);
      ASSERT_EQ(f.differences(model), "") << "round " << round;
    }
    Mirak::Reader::Counters const& c = f.reader().counters();
    compactions += w->writerCounters().slotsMoved > 0;
    moves += c.shadowKeyMoves;
    bucketShrinks += c.shadowBucketShrinks;
    slotShrinks += c.shadowSlotShrinks;
    failed += c.failedNotifications;
  }
  // A run that never met what it is for proves nothing.
  EXPECT_GT(compactions, 0u);
  EXPECT_GT(moves, 0u);
  EXPECT_GT(bucketShrinks, 0u);
  EXPECT_GT(slotShrinks, 0u);
  if (seeds >= 50) {
    EXPECT_GT(reformats, 0u);
  }
  std::printf(
      "%d seeds: %llu with compactions, %llu re-formats, %llu key moves, %llu bucket shrinks, "
      "%llu slot shrinks, %llu entries that no longer counted\n",
      seeds, (unsigned long long)compactions, (unsigned long long)reformats,
      (unsigned long long)moves, (unsigned long long)bucketShrinks, (unsigned long long)slotShrinks,
      (unsigned long long)failed);
}

// A fresh copy sizes its index for the table once, when its slot array first
// takes the table's capacity, and is the table after the sweep; an index that
// already holds entries when the table grows under it is enlarged in order.
TYPED_TEST(ShadowStoreModel, ASweepSizesTheIndexForTheTableAndEqualsIt) {
  for (uint32_t rows : {0u, 1u, 2u, 3u, 100u, 3000u}) {
    SCOPED_TRACE("rows " + std::to_string(rows));
    ASSERT_NO_FATAL_FAILURE(this->newTable(rows, 100));
    Follower<TypeParam> f;
    f.attach();
    EXPECT_EQ(f.store().numBuckets(), std::max(2u, std::bit_ceil(rows)));
    EXPECT_EQ(f.differences(this->model), "");
    // The table grows under a filled copy: its capacity, then its index.
    for (uint32_t id = rows; id < 3 * rows + 40; id++) this->write(id, id + 100);
    f.follow();
    EXPECT_EQ(f.differences(this->model), "");
    EXPECT_GE(f.store().numBuckets(), std::bit_ceil(uint32_t(this->model.size())));
  }
}

// A sweep of a fresh copy broken off by an exception, before the row's entry
// is linked (its key's hash throws) or after (the client's callback throws):
// the copy holds exactly the rows it reported, each findable, the broken
// row only if it was linked; no lookup answers from the abandoned change.
// A new sweep, with rows changed meanwhile, then makes it the table.
TYPED_TEST(ShadowStoreModel, ASweepBrokenOffByAThrowLeavesAConsistentCopy) {
  constexpr uint32_t kRows = 300, kBroken = 150;
  for (bool inCallback : {false, true}) {
    SCOPED_TRACE(inCallback ? "the callback throws" : "the hash throws");
    ASSERT_NO_FATAL_FAILURE(this->newTable(kRows, 10));
    Follower<TypeParam> f;
    if (inCallback) {
      f.throwInCallback = kBroken;
    } else {
      testKeyHashHook = [](TestKey const& k) {
        if (k.id == kBroken) throw std::runtime_error("hash");
      };
    }
    EXPECT_THROW(f.attach(), std::runtime_error);
    testKeyHashHook = nullptr;
    f.throwInCallback.reset();

    std::map<uint32_t, uint64_t> walked;
    TestValue v;
    Mirak::IterHint hint;
    for (bool ok = f.store().first(0, v, hint); ok; ok = f.store().next(v.key(), v, hint)) {
      EXPECT_TRUE(walked.emplace(v.key().id, v.count).second) << "walk repeats " << v.key().id;
    }
    EXPECT_EQ(walked, f.replay);
    EXPECT_EQ(walked.count(kBroken), inCallback ? 1u : 0u);
    EXPECT_GT(walked.size(), 0u);
    EXPECT_LT(walked.size(), size_t(kRows));
    EXPECT_EQ(f.reader().counters().members, walked.size());
    for (uint32_t id = 0; id < kRows; id++) {
      bool found = false;
      TestValue const* p = f.store().lookup(TestKey{id, 0}, found, nullptr);
      EXPECT_EQ(found, walked.count(id) == 1) << "lookup of " << id;
      if (found) {
        EXPECT_EQ(p->count, this->model[id]) << "lookup of " << id;
      }
    }

    // Rows on both sides of the break change before the sweep that ends it.
    for (uint32_t id : {0u, kBroken - 1, kBroken, kBroken + 1, kRows - 1}) this->write(id, 7);
    f.sweep();
    f.follow();
    EXPECT_EQ(f.differences(this->model), "");
  }
}

// An overwrite of a row that keeps its key leaves the index as it is: no key
// is hashed on the way from the queue to the callback. A slot that takes
// another key is hashed and placed.
TYPED_TEST(ShadowStoreModel, AnOverwriteInPlaceHashesNoKey) {
  ASSERT_NO_FATAL_FAILURE(this->newTable(500, 10));
  auto& w = this->w;
  auto& model = this->model;
  Follower<TypeParam> f;
  f.attach();
  for (auto& [id, count] : model) w->write(row(id, count = 2), true);
  uint64_t hashes = 0;
  testKeyHashHook = [&](TestKey const&) { hashes++; };
  f.follow();
  testKeyHashHook = nullptr;
  EXPECT_EQ(hashes, 0u);
  EXPECT_EQ(f.differences(model), "");

  // Row 10 goes and a new key takes a free slot (its own, or one above).
  TestValue gone;
  w->remove(key(10), gone);
  model.erase(10);
  w->write(row(1000, 3), true);
  model[1000] = 3;
  testKeyHashHook = [&](TestKey const&) { hashes++; };
  f.follow();
  testKeyHashHook = nullptr;
  EXPECT_GE(hashes, 1u);
  EXPECT_EQ(f.differences(model), "");
}

// The walk names, with each entry it hands over, the slot of the entry
// kPrefetchAhead places further on, while the table holds one; every entry
// still reaches doSlot once, in order.
template <typename Store>
class Hinted : public Follower<Store> {
 public:
  bool doSlot(Tessel::BasicSlot slot, Tessel::Sequence seq, bool compare) override {
    if (seq != Tessel::noSequence) handed.push_back(slot);
    return Follower<Store>::doSlot(slot, seq, compare);
  }
  void prefetch(Tessel::BasicSlot slot) override {
    hints.emplace_back(handed.size(), slot);
    Follower<Store>::prefetch(slot);
  }
  std::vector<Tessel::BasicSlot> handed;
  // (entries handed before the hint, the slot hinted)
  std::vector<std::pair<size_t, Tessel::BasicSlot>> hints;
};

TYPED_TEST(ShadowStoreModel, AWalkHintsTheSlotsOfTheEntriesAhead) {
  ASSERT_NO_FATAL_FAILURE(this->newTable(300, 10));
  auto& model = this->model;
  Hinted<TypeParam> f;
  f.attach();
  // Distinct rows in a scattered order: each change is a live entry.
  std::vector<uint32_t> order;
  for (uint32_t i = 0; i < 300; i++) order.push_back(i * 7 % 300);
  for (uint32_t id : order) this->write(id, 2);
  f.follow();
  EXPECT_EQ(f.differences(model), "");
  ASSERT_EQ(f.handed.size(), order.size());
  constexpr uint32_t ahead = Tessel::TesselReader<>::kPrefetchAhead;
  // One hint before each entry that has one kPrefetchAhead places on.
  ASSERT_EQ(f.hints.size(), order.size() - ahead);
  for (auto const& [before, slot] : f.hints) {
    ASSERT_LT(before + ahead, f.handed.size());
    EXPECT_EQ(slot, f.handed[before + ahead]) << "hint before entry " << before;
  }
}

}  // namespace
}  // namespace MirakTest
