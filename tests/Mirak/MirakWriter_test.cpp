// The writer's data operations: model-based runs against std::map (one with
// slot compaction), the growth rules of the slot file, table-full and
// critical-section behaviour, the direct mode, and the assertions that
// protect a table from misuse.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Lomi/Thrown.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/TempRoot.h"
#include "Mirak/WriterTestPolicy.h"

namespace MirakTest {
namespace {

using Writer = Mirak::MirakWriter<WriterOps>;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("MirakWriterTest");
}

Mirak::MapDescriptor descriptor(uint32_t size, bool local = true) {
  Mirak::MapDescriptor d(size);
  d.local = local;
  return d;
}

std::unique_ptr<Writer> makeWriter(Mirak::MapDescriptor const& d, char const* name = "test/table") {
  auto w = std::make_unique<Writer>(handler(), name, d, WriterOps(0));
  w->initialize("test");
  return w;
}

// Every entry of a full walk, in walk order.
std::vector<TestValue> walk(Writer const& w) {
  std::vector<TestValue> out;
  TestValue v;
  Mirak::IterHint hint{};
  for (bool ok = w.first(v, hint); ok; ok = w.next(v.key(), v, hint)) out.push_back(v);
  return out;
}

// ---------------------------------------------------------------------------
// Model-based: random writes, overwrites and removes against std::map.

struct ModelCase {
  bool local;
  bool shrinkBuckets;
  uint32_t keySpace;
  bool shrinkSlots = false;
};

class WriterModelTest : public ::testing::TestWithParam<ModelCase> {};

TEST_P(WriterModelTest, AgreesWithAMapAndKeepsItsInvariants) {
  TempRoot root;
  ModelCase const c = GetParam();
  auto d = descriptor(64, c.local);
  d.shrinkBuckets_ = c.shrinkBuckets;
  d.shrinkSlots = c.shrinkSlots;
  auto w = makeWriter(d);
  uint32_t const seed = 20261121;
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  std::mt19937 rng(seed);
  std::map<TestKey, TestValue> model;
  uint32_t bucketHigh = 0;
  uint64_t shrinks = 0;
  for (int op = 0; op < 100000; op++) {
    uint32_t const id = rng() % c.keySpace;
    uint16_t const zone = static_cast<uint16_t>(rng() % 3);
    // Phases: fill, churn, drain; so that buckets grow and shrink.
    int const phase = op * 3 / 100000;
    uint32_t const dice = rng() % 10;
    bool const doRemove = phase == 0 ? dice < 2 : phase == 1 ? dice < 5 : dice < 8;
    if (doRemove) {
      TestValue removed;
      bool const found = w->remove(key(id, zone), removed);
      auto it = model.find(key(id, zone));
      ASSERT_EQ(found, it != model.end()) << "op " << op;
      if (found) {
        EXPECT_EQ(removed, it->second);
        model.erase(it);
      }
    } else {
      TestValue const v = row(id, rng(), zone);
      TestValue const* stored = w->write(v, true);
      ASSERT_EQ(*stored, v);
      model[key(id, zone)] = v;
    }
    bucketHigh = std::max(bucketHigh, w->buckets());
    ASSERT_EQ(w->members(), model.size());
    if (w->writerCounters().slotShrinks == shrinks) continue;
    // After a slot shrink: at most half full, every entry where the map
    // says, and a sound table.
    shrinks = w->writerCounters().slotShrinks;
    EXPECT_LE(2 * w->members(), w->capacity());
    EXPECT_GE(w->capacity(), w->minSize());
    for (TestValue const& v : walk(*w)) ASSERT_EQ(model.at(v.key()), v);
    std::string error;
    ASSERT_TRUE(w->validate(w->kestorId(), error, false)) << "op " << op << ": " << error;
  }
  EXPECT_EQ(shrinks > 0, c.shrinkSlots) << "slot shrinks: " << shrinks;
  EXPECT_GT(bucketHigh, 64u) << "the run never grew the buckets";
  if (c.shrinkBuckets) {
    EXPECT_LT(w->buckets(), bucketHigh) << "the run never shrank the buckets";
  }
  EXPECT_GT(w->writerCounters().slotGrows, 0u);

  // Every key present is found, with its value; absent keys are not.
  for (auto const& [k, v] : model) {
    bool found;
    TestValue const* got = w->lookup(k, found, nullptr);
    ASSERT_TRUE(found);
    EXPECT_EQ(*got, v);
  }
  // A miss returns the default value and fills the caller's buffer with it.
  for (uint32_t id = c.keySpace; id < c.keySpace + 1000; id++) {
    bool found = true;
    TestValue buffer = row(1, 55);
    EXPECT_EQ(w->lookup(key(id), found, nullptr), &WriterOps::ValueOps::defaultValue());
    EXPECT_FALSE(found);
    w->lookup(key(id), found, &buffer);
    EXPECT_EQ(buffer, WriterOps::ValueOps::defaultValue());
  }

  // A full walk returns each entry exactly once, in (rhash, key) order.
  auto const entries = walk(*w);
  ASSERT_EQ(entries.size(), model.size());
  std::set<TestKey> seen;
  for (size_t i = 0; i < entries.size(); i++) {
    EXPECT_TRUE(seen.insert(entries[i].key()).second) << "walked twice";
    EXPECT_EQ(model.at(entries[i].key()), entries[i]);
    if (i > 0) {
      uint32_t const a = Lomi::Util::reverse(w->ops().hash(entries[i - 1].key()));
      uint32_t const b = Lomi::Util::reverse(w->ops().hash(entries[i].key()));
      EXPECT_TRUE(a < b || (a == b && entries[i - 1].key() < entries[i].key()))
          << "walk out of order at " << i;
    }
  }

  // The queue has exactly one live entry per slot it was told of, and every
  // occupied slot was told.
  auto const& queue = w->tesselWriter().lastSequence;
  auto const& slots = w->slotTable().slots();
  for (uint32_t i = 0; i < w->capacity(); i++) {
    if (slots[i].versionFlags & Mirak::SlotTable::OCCUPIED) {
      EXPECT_TRUE(queue.count(i)) << i;
    }
  }
  EXPECT_EQ(w->slotTable().header()->runtimeFlags, 0);
}

INSTANTIATE_TEST_SUITE_P(Tables, WriterModelTest,
                         ::testing::Values(ModelCase{true, false, 3000},
                                           ModelCase{true, true, 3000},
                                           ModelCase{false, true, 5000},
                                           ModelCase{true, true, 5000, true}));

// ---------------------------------------------------------------------------
// Growth of the slot file.

TEST(SlotGrowth, DoublesUpToMaxSlotsThenCreepsByATenth) {
  using Slots = Mirak::SlotWriterTable<TestValue>;
  EXPECT_EQ(Slots::nextCapacity(10, 15), 15u);
  EXPECT_EQ(Slots::nextCapacity(15, 15), 17u);  // 16.5 rounded up
  EXPECT_EQ(Slots::nextCapacity(1, 1), 2u);
  EXPECT_EQ(Slots::nextCapacity(100, 100), 110u);
  EXPECT_EQ(Slots::nextCapacity(64, 1000), 128u);
  EXPECT_EQ(Slots::nextCapacity(512, 1000), 1000u);
}

TEST(SlotGrowth, ATableGrowsByTheRuleWhenItsFreeListRunsOut) {
  TempRoot root;
  auto w = makeWriter(descriptor(100));
  uint32_t const first = w->capacity();
  EXPECT_EQ(first, w->minSize()) << "a table starts at minSlots";
  std::vector<uint32_t> capacities{first};
  for (uint32_t id = 0; capacities.size() < 4; id++) {
    w->write(row(id), true);
    if (w->capacity() != capacities.back()) capacities.push_back(w->capacity());
  }
  for (size_t i = 1; i < capacities.size(); i++) {
    EXPECT_EQ(capacities[i],
              Mirak::SlotWriterTable<TestValue>::nextCapacity(capacities[i - 1], 100));
  }
  EXPECT_GT(capacities.back(), 100u) << "growth goes on past maxSlots";
  EXPECT_EQ(w->slotTable().header()->mostSlots, capacities.back());
  EXPECT_EQ(w->slotTable().header()->numSlots.version, 3u) << "one version step per grow";
}

TEST(SlotGrowth, FixedTableReportsFullAndClearsTheCriticalBit) {
  TempRoot root;
  auto d = descriptor(8);
  d.fixedSize = true;
  auto w = makeWriter(d);
  EXPECT_EQ(w->capacity(), 8u);
  for (uint32_t i = 0; i < 8; i++) w->write(row(i), true);
  EXPECT_EQ(LomiTest::thrown<Mirak::TableFullException>([&] { w->write(row(100), true); }),
            "Mirak table full (occupancy:8 tableSize:8) local:test/table");
  EXPECT_EQ(w->slotTable().header()->runtimeFlags, 0);
  EXPECT_EQ(w->members(), 8u);
  // Overwrites still work on a full table.
  w->write(row(3, 99), true);
  bool found;
  EXPECT_EQ(w->lookup(key(3), found, nullptr)->count, 99u);
}

TEST(SlotGrowth, AFailedGrowLeavesTheCriticalBitSet) {
  TempRoot root;
  // The child lowers its file size limit so that ftruncate fails with EFBIG
  // on a shared table's growth.
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::signal(SIGXFSZ, SIG_IGN);
    auto w = makeWriter(descriptor(1u << 20, false), "test/limited");
    rlimit lim{64 * 1024, 64 * 1024};
    ::setrlimit(RLIMIT_FSIZE, &lim);
    uint32_t i = 0;
    try {
      for (;; i++) w->write(row(i), true);
    } catch (Lomi::MemoryResourceException const& e) {
      bool const bitSet = w->slotTable().header()->runtimeFlags & 1;
      bool const textOk =
          e.msg().find("failed to resize") == 0 && e.msg().find("Reason:") != std::string::npos;
      // The failed insert is not in the table; everything before it is.
      bool found;
      w->lookup(key(i), found, nullptr);
      bool const notStored = !found && w->members() == i;
      ::_exit(bitSet && textOk && notStored ? 0 : 1);
    }
    ::_exit(2);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// ---------------------------------------------------------------------------
// Operations and their edge cases.

TEST(WriterOperations, OverwriteMovesTheWordByFourAndNotifiesOnce) {
  auto w = makeWriter(descriptor(100));
  TestValue const v = row(5, 1);
  w->write(v, true);
  bool found;
  w->lookup(key(5), found, nullptr);
  uint32_t const slot = w->tesselWriter().notified.back();
  uint32_t const before = w->slotTable().slots()[slot].versionFlags;
  size_t const notes = w->tesselWriter().notified.size();
  w->write(v, true);
  EXPECT_EQ(w->slotTable().slots()[slot].versionFlags, before + 4);
  EXPECT_EQ(w->tesselWriter().notified.size(), notes + 1);
  EXPECT_EQ(w->tesselWriter().notified.back(), slot) << "the entry moved";
  EXPECT_EQ(w->members(), 1u);
}

TEST(WriterOperations, WriteWithoutOverwriteKeepsTheStoredValue) {
  auto w = makeWriter(descriptor(100));
  w->write(row(5, 1), true);
  size_t const notes = w->tesselWriter().notified.size();
  TestValue const* got = w->write(row(5, 2), false);
  EXPECT_EQ(got->count, 1u);
  EXPECT_EQ(w->tesselWriter().notified.size(), notes);
}

TEST(WriterOperations, RemoveOfAnAbsentKeyLeavesRuntimeFlagsAlone) {
  auto w = makeWriter(descriptor(100));
  w->write(row(1), true);
  TestValue removed;
  // A critical section marked by an earlier failure stays marked; a miss
  // neither asserts nor clears it.
  w->slotTable().enterCriticalSection();
  EXPECT_FALSE(w->remove(key(2), removed));
  EXPECT_EQ(w->slotTable().header()->runtimeFlags, 1);
}

TEST(WriterOperations, RemovingTheLastOfAChainHandsOnItsEndLink) {
  auto w = makeWriter(descriptor(100));
  for (uint32_t i = 0; i < 40; i++) w->write(row(i), true);
  auto all = walk(*w);
  ASSERT_EQ(all.size(), 40u);
  // Remove every entry in walk order: each removal keeps the rest walkable.
  for (size_t i = 0; i < all.size(); i++) {
    TestValue removed;
    ASSERT_TRUE(w->remove(all[i].key(), removed));
    auto rest = walk(*w);
    ASSERT_EQ(rest.size(), all.size() - i - 1);
    if (!rest.empty()) {
      EXPECT_EQ(rest.front(), all[i + 1]);
    }
  }
}

// ---------------------------------------------------------------------------
// Direct mode.

TEST(DirectMode, NewEntryIsInvisibleUntilCommit) {
  auto w = makeWriter(descriptor(100));
  TestValue* dst = w->directWrite(row(7, 1));
  dst->count = 42;
  bool found = true;
  w->lookup(key(7), found, nullptr);
  EXPECT_FALSE(found);
  EXPECT_EQ(w->slotTable().header()->runtimeFlags, 1) << "direct write holds the critical bit";
  w->directCommit();
  EXPECT_EQ(w->slotTable().header()->runtimeFlags, 0);
  EXPECT_EQ(w->lookup(key(7), found, nullptr)->count, 42u);
  EXPECT_TRUE(found);
}

TEST(DirectMode, ExistingEntryChangesAtCommitThroughTheLookaside) {
  auto w = makeWriter(descriptor(100));
  w->write(row(7, 1), true);
  TestValue* dst = w->directUpdate(key(7));
  ASSERT_NE(dst, nullptr);
  EXPECT_EQ(w->slotTable().header()->runtimeFlags, 0) << "directUpdate leaves the bit clear";
  *dst = row(7, 9);
  bool found;
  EXPECT_EQ(w->lookup(key(7), found, nullptr)->count, 1u) << "changed before commit";
  // The commit stores the value and then tells the queue: a death between
  // the two must be refused at restart, so the critical bit covers them.
  int notifies = 0;
  w->tesselWriter().onEvent = [&](char what, uint32_t) {
    if (what != 'n') return;
    notifies++;
    EXPECT_EQ(w->slotTable().header()->runtimeFlags, 1) << "the change is visible, unannounced";
  };
  w->directCommit();
  w->tesselWriter().onEvent = nullptr;
  EXPECT_EQ(notifies, 1);
  EXPECT_EQ(w->slotTable().header()->runtimeFlags, 0);
  EXPECT_EQ(w->lookup(key(7), found, nullptr)->count, 9u);
}

TEST(DirectMode, MissedUpdateLeavesTheModeClosed) {
  auto w = makeWriter(descriptor(100));
  EXPECT_EQ(w->directUpdate(key(3)), nullptr);
  EXPECT_FALSE(w->inDirectMode());
  w->write(row(3), true);
  EXPECT_EQ(w->members(), 1u);
}

using DirectModeDeathTest = ::testing::Test;

TEST(DirectModeDeathTest, UnpairedCallsStopTheProcess) {
  auto w = makeWriter(descriptor(100));
  EXPECT_DEATH(w->directCommit(),
               "not in direct mode! Make sure the DirectIs/Commit are properly paired!");
  w->directWrite(row(1));
  EXPECT_DEATH(w->write(row(2), true), "unbalanced directSlot:.* when writing value:");
  TestValue removed;
  EXPECT_DEATH(w->remove(key(2), removed), "unbalanced directSlot:.* when removing key:");
  EXPECT_DEATH(w->directUpdate(key(1)), "unbalanced directSlot:.* when modifying key:");
  w->directCommit();
}

TEST(DirectModeDeathTest, ReentrancyStopsTheProcess) {
  auto w = makeWriter(descriptor(100));
  w->slotTable().enterCriticalSection();
  EXPECT_DEATH(w->write(row(1), true), "Mirak reentrancy detected: local:test/table");
}

}  // namespace
}  // namespace MirakTest
