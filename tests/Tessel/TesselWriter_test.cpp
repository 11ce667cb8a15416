// The queue writer: file layout, the invariants under random operations
// against a model, compaction, corrals, restart and validation.
#include "Tessel/TesselWriter.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "Lomi/Thrown.h"
#include "Tessel/DummyTesselWriter.h"
#include "Tessel/TesselReaderView.h"
#include "TesselTestUtil.h"

namespace {

using Tessel::TesselWriter;
using TesselTest::readAt;
using TesselTest::TempDir;
using TesselTest::writeAt;
using Writer = TesselWriter;

constexpr uint32_t kKestor = 0x00010007;

std::string table0(TempDir const& d) {
  return d.file("tessel.0");
}
std::string header(TempDir const& d) {
  return d.file("tessel");
}

// ---------------------------------------------------------------------------
// Layout: the bytes readers and the validator locate by offset.

TEST(TesselLayout, BytesOnDiskAreWhereReadersLookForThem) {
  TempDir dir;
  Writer w(dir.path(), TesselTest::handler());
  ASSERT_EQ(w.attach(kKestor, 100), Tessel::attachNew);
  w.notify(5);
  w.notify(7);
  w.notify(5);

  EXPECT_EQ(std::string(readAt<std::array<char, 8>>(header(dir), 0).data(), 7), "TESSELQ");
  EXPECT_EQ(readAt<uint32_t>(header(dir), 8), Tessel::kFormatVersion);
  EXPECT_EQ(readAt<uint32_t>(header(dir), 12), kKestor);
  EXPECT_EQ(readAt<uint64_t>(header(dir), 16), 3u);  // last sequence
  EXPECT_EQ(readAt<uint32_t>(header(dir), 40), w.generation());
  EXPECT_EQ(readAt<uint32_t>(header(dir), 44), 0u);           // current table
  EXPECT_EQ(readAt<uint32_t>(header(dir), 64), 100u);         // mostSlots
  EXPECT_EQ(readAt<uint32_t>(header(dir), 128 + 4 * 5), 2u);  // back reference of slot 5
  EXPECT_EQ(readAt<uint32_t>(header(dir), 128 + 4 * 7), 1u);
  EXPECT_EQ(readAt<uint32_t>(header(dir), 128 + 4 * 6), 0xffffffffu);

  EXPECT_EQ(readAt<uint32_t>(table0(dir), 0), w.generation());    // stamp
  EXPECT_EQ(readAt<uint32_t>(table0(dir), 4), 100u);              // capacity
  EXPECT_EQ(readAt<uint32_t>(table0(dir), 8), 3u);                // count
  EXPECT_EQ(readAt<uint32_t>(table0(dir), 12 + 0), 1u);           // entry 0: relative sequence
  EXPECT_EQ(readAt<uint32_t>(table0(dir), 12 + 4), 0xffffffffu);  // retired by the third notify
  EXPECT_EQ(readAt<uint32_t>(table0(dir), 20 + 0), 2u);
  EXPECT_EQ(readAt<uint32_t>(table0(dir), 20 + 4), 7u);
  EXPECT_EQ(readAt<uint32_t>(table0(dir), 28 + 0), 3u);
  EXPECT_EQ(readAt<uint32_t>(table0(dir), 28 + 4), 5u);
}

// ---------------------------------------------------------------------------
// Model-based: random notify / tombstone / shrink brackets / growth of
// mostSlots against a map of each slot's live sequence.

struct ModelParam {
  bool local;
  uint32_t mostSlots;
  uint64_t seed;
};

std::ostream& operator<<(std::ostream& os, ModelParam const& p) {
  return os << (p.local ? "local" : "file") << " mostSlots:" << p.mostSlots << " seed:" << p.seed;
}

class TesselModel : public ::testing::TestWithParam<ModelParam> {
 protected:
  // Checks every invariant of the writer against the model; returns the
  // number of live entries.
  void checkInvariants(Writer const& w, std::map<uint32_t, uint64_t> const& live,
                       uint64_t modelSequence, std::string const& where) {
    ASSERT_EQ(w.sequence(), modelSequence) << where;
    uint64_t previous = 0;
    size_t liveEntries = 0;
    for (uint32_t pos = 0; pos < w.entryCount(); pos++) {
      Tessel::TesselNotification const e = w.entry(pos);
      ASSERT_GT(e.sequence, previous) << where << " pos:" << pos << " not sorted";
      previous = e.sequence;
      if (e.isTombstone()) continue;
      liveEntries++;
      auto it = live.find(e.slot);
      ASSERT_TRUE(it != live.end())
          << where << " live entry for slot " << e.slot << " the model has retired";
      ASSERT_EQ(it->second, e.sequence) << where << " slot " << e.slot << " has a stale live entry";
      ASSERT_EQ(w.tesselSlots(e.slot), pos) << where << " back reference of slot " << e.slot;
    }
    ASSERT_EQ(liveEntries, live.size()) << where << " at most one live entry per slot";
    ASSERT_LE(liveEntries, w.mostSlots()) << where;
    for (uint32_t s = 0; s < w.mostSlots(); s++) {
      if (live.count(s) == 0) {
        ASSERT_EQ(w.tesselSlots(s), Tessel::noTesselPos) << where;
      }
    }
  }
};

TEST_P(TesselModel, RandomOperationsKeepEveryInvariant) {
  ModelParam const p = GetParam();
  std::printf("seed %llu\n", static_cast<unsigned long long>(p.seed));
  TempDir dir;
  Writer w(p.local ? std::string() : dir.path(), TesselTest::handler());
  ASSERT_EQ(w.attach(kKestor, p.mostSlots), Tessel::attachNew);
  TesselTest::SplitMix rng{p.seed};

  std::map<uint32_t, uint64_t> live;  // slot -> sequence of its live entry
  uint64_t seq = 0;
  bool shrinking = false;
  uint64_t corralStart = 0;
  uint64_t corrals = 0;
  uint32_t most = p.mostSlots;
  std::string error;

  for (int step = 0; step < 6000; step++) {
    std::string const where = "step " + std::to_string(step);
    uint32_t const r = rng.below(100);
    // A few hot slots, so that many entries turn into tombstones.
    uint32_t const slot = rng.below(4) == 0 ? rng.below(most) : rng.below(std::min(most, 8u));
    if (r < 75) {
      w.notify(slot);
      live[slot] = ++seq;
    } else if (r < 90) {
      w.tombstone(slot);
      live.erase(slot);
    } else if (r < 96) {
      if (!shrinking) {
        w.markShrinkStart();
        corralStart = seq + 1;
        shrinking = true;
        EXPECT_EQ(w.shrinkMarker(), corralStart);
      } else {
        w.markShrinkEnd();
        shrinking = false;
        EXPECT_EQ(w.shrinkMarker(), 0u);
        // The live entries issued inside the corral come again, in order.
        std::vector<std::pair<uint64_t, uint32_t>> inside;
        for (auto const& [s, q] : live) {
          if (q >= corralStart) inside.emplace_back(q, s);
        }
        std::sort(inside.begin(), inside.end());
        uint64_t const last = seq;
        for (auto const& [q, s] : inside) live[s] = ++seq;
        if (last >= corralStart) {
          corrals++;
          EXPECT_EQ(w.corralStart(), corralStart);
          EXPECT_EQ(w.corralEnd(), last);
          for (uint32_t pos = 0; pos < w.entryCount(); pos++) {
            auto const e = w.entry(pos);
            if (e.sequence >= corralStart && e.sequence <= last) {
              EXPECT_TRUE(e.isTombstone()) << where << " corral entry pos " << pos << " still live";
            }
          }
        } else {
          EXPECT_EQ(w.corralStart(), 0u) << "an empty corral is no corral";
        }
      }
    } else if (r < 97 && most < 4 * p.mostSlots) {
      most += 1 + rng.below(16);
      w.mostSlotsIs(most);
      ASSERT_EQ(w.mostSlots(), most);
    } else {
      // An idle step: only the checks below.
    }
    ASSERT_NO_FATAL_FAILURE(checkInvariants(w, live, seq, where));
    bool const valid = w.validate(kKestor, most, error);
    bool const openCorralHasCurrent =
        shrinking && std::any_of(live.begin(), live.end(),
                                 [&](auto const& kv) { return kv.second >= corralStart; });
    if (openCorralHasCurrent) {
      // A writer that died here left an open corral with current entries.
      EXPECT_FALSE(valid) << where;
      EXPECT_NE(error.find("inside the corral"), std::string::npos) << error;
    } else {
      EXPECT_TRUE(valid) << where << ": " << error;
    }
  }
  EXPECT_GT(w.compactions(), 0u) << "the compaction path was never taken";
  EXPECT_GT(corrals, 0u);
}

INSTANTIATE_TEST_SUITE_P(Configurations, TesselModel,
                         ::testing::Values(ModelParam{true, 8, 1}, ModelParam{false, 8, 2},
                                           ModelParam{true, 40, 3}, ModelParam{false, 100, 4},
                                           ModelParam{false, 200, 5}));

// ---------------------------------------------------------------------------
// Compaction specifics.

TEST(TesselCompaction, DoublesOnlyWhenMoreThanHalfAreLiveAndFlipsTables) {
  Writer w({}, TesselTest::handler());
  ASSERT_EQ(w.attach(kKestor, 200), Tessel::attachNew);
  uint32_t const capacity = w.entryCapacity();
  ASSERT_EQ(capacity, 200u);
  // 10 live slots, filled to the brim by rewrites: few live at compaction.
  for (uint32_t i = 0; i < capacity; i++) w.notify(i % 10);
  EXPECT_EQ(w.compactions(), 0u);
  uint32_t const generation = w.generation();
  w.notify(3);
  EXPECT_EQ(w.compactions(), 1u);
  EXPECT_EQ(w.currentTable(), 1u);
  EXPECT_EQ(w.generation(), generation + 1);
  EXPECT_EQ(w.entryCapacity(), capacity) << "10 of 200 live: no growth";
  EXPECT_EQ(w.entryCount(), 11u);

  // Now 150 distinct slots live: more than half of 200.
  for (uint32_t i = 0; w.compactions() == 1; i++) w.notify(i % 150);
  EXPECT_EQ(w.currentTable(), 0u);
  EXPECT_EQ(w.entryCapacity(), 2 * capacity);
  std::string error;
  EXPECT_TRUE(w.validate(kKestor, 200, error)) << error;
}

TEST(TesselCompaction, OldEntriesAreReissuedWhenSequencesOutgrowThirtyTwoBits) {
  TempDir dir;
  {
    Writer w(dir.path(), TesselTest::handler());
    ASSERT_EQ(w.attach(kKestor, 16), Tessel::attachNew);
    w.notify(1);
    w.notify(2);
  }
  // A queue that has run a long time: move the last sequence far ahead.
  uint64_t const far = 0xffffffffull - 5;
  writeAt<uint64_t>(header(dir), 16, far);
  Writer w(dir.path(), TesselTest::handler());
  ASSERT_EQ(w.attach(kKestor, 16), Tessel::attachKept);
  ASSERT_EQ(w.sequence(), far);
  for (int i = 0; i < 10; i++) w.notify(3);  // crosses 2^32 relative to base 0
  EXPECT_GE(w.compactions(), 1u);
  EXPECT_GT(w.baseSequence(), 0u);
  std::string error;
  ASSERT_TRUE(w.validate(kKestor, 16, error)) << error;
  // Slots 1 and 2 were issued at 1 and 2: still live, now after the newer ones.
  auto const e1 = w.entry(w.tesselSlots(1));
  auto const e2 = w.entry(w.tesselSlots(2));
  auto const e3 = w.entry(w.tesselSlots(3));
  EXPECT_GT(e1.sequence, far);
  EXPECT_EQ(e2.sequence, e1.sequence + 1) << "re-issued in their old order";
  EXPECT_EQ(e1.slot, 1u);
  EXPECT_EQ(e3.sequence, w.sequence());
}

// ---------------------------------------------------------------------------
// Bad input.

TEST(TesselWriterInput, NotifyBeyondMostSlotsGrowsTheReferences) {
  TempDir dir;
  Writer w(dir.path(), TesselTest::handler());
  w.attach(kKestor, 10);
  w.notify(10);  // the table grew and its mostSlotsIs could not follow then
  EXPECT_EQ(w.mostSlots(), 20u);
  EXPECT_EQ(w.tesselSlots(10), 0u);
  EXPECT_TRUE(w.mostSlotsIs(5000));  // grows the header file past its first page
  EXPECT_EQ(w.tesselSlots(4999), Tessel::noTesselPos);
  w.notify(4999);
  EXPECT_EQ(w.tesselSlots(4999), 1u);
  w.mostSlotsIs(20);  // a high-water mark: no shrink
  EXPECT_EQ(w.mostSlots(), 5000u);
  std::string error;
  EXPECT_TRUE(w.validate(kKestor, 5000, error)) << error;
}

TEST(TesselWriterInput, UnattachedWriterNamesItselfInValidation) {
  Writer w({}, TesselTest::handler());
  std::string error;
  EXPECT_FALSE(w.validate(kKestor, 1, error));
  EXPECT_EQ(error, "local tessel is not attached");
}

// ---------------------------------------------------------------------------
// Restart.

TEST(TesselRestart, SameKestorKeepsTheQueueAnotherReformats) {
  TempDir dir;
  uint32_t generation = 0;
  {
    Writer w(dir.path(), TesselTest::handler());
    ASSERT_EQ(w.attach(kKestor, 50), Tessel::attachNew);
    for (uint32_t i = 0; i < 100; i++) w.notify(i % 20);  // one compaction
    ASSERT_EQ(w.compactions(), 1u);
    w.tombstone(4);
    generation = w.generation();
  }
  {
    Writer w(dir.path(), TesselTest::handler());
    ASSERT_EQ(w.attach(kKestor, 80), Tessel::attachKept);
    EXPECT_EQ(w.sequence(), 100u);
    EXPECT_EQ(w.currentTable(), 1u);
    EXPECT_EQ(w.generation(), generation);
    EXPECT_EQ(w.mostSlots(), 80u) << "back references grow to the table's mostSlots";
    EXPECT_EQ(w.tesselSlots(4), Tessel::noTesselPos);
    EXPECT_EQ(w.entry(w.tesselSlots(9)).sequence, 90u);
    w.notify(9);
    EXPECT_EQ(w.sequence(), 101u);
  }
  {
    Writer w(dir.path(), TesselTest::handler());
    ASSERT_EQ(w.attach(kKestor + 0x10000, 80), Tessel::attachReformatted);
    EXPECT_EQ(w.sequence(), 0u);
    EXPECT_EQ(w.entryCount(), 0u);
    EXPECT_EQ(w.tesselSlots(9), Tessel::noTesselPos);
    EXPECT_GT(w.generation(), generation) << "readers of the old queue see the generation move";
    std::string error;
    EXPECT_TRUE(w.validate(kKestor + 0x10000, 80, error)) << error;
  }
}

TEST(TesselRestart, LocalQueueIsAlwaysNew) {
  Writer w({}, TesselTest::handler());
  EXPECT_EQ(w.attach(kKestor, 10), Tessel::attachNew);
  w.notify(1);
  EXPECT_EQ(w.attach(kKestor, 10), Tessel::attachNew);
  EXPECT_EQ(w.sequence(), 0u);
}

// Damage that must not be adopted: the attach formats and says so.
struct DamageCase {
  char const* name;
  char const* file;
  uint64_t offset;
  uint32_t value;
};

class TesselDamagedRestart : public ::testing::TestWithParam<DamageCase> {};

TEST_P(TesselDamagedRestart, IsReformatted) {
  TempDir dir;
  {
    Writer w(dir.path(), TesselTest::handler());
    w.attach(kKestor, 20);
    for (uint32_t i = 0; i < 10; i++) w.notify(i);
  }
  writeAt<uint32_t>(dir.file(GetParam().file), GetParam().offset, GetParam().value);
  Writer w(dir.path(), TesselTest::handler());
  EXPECT_EQ(w.attach(kKestor, 20), Tessel::attachReformatted) << GetParam().name;
  EXPECT_EQ(w.entryCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TesselDamagedRestart,
    ::testing::Values(DamageCase{"magic", "tessel", 0, 0x21212121},
                      DamageCase{"version", "tessel", 8, 9},
                      DamageCase{"current table", "tessel", 44, 2},
                      DamageCase{"stamp (died inside a compaction)", "tessel.0", 0, 12345},
                      DamageCase{"count beyond capacity", "tessel.0", 8, 1000},
                      DamageCase{"capacity beyond any file", "tessel.0", 4, 0xd2000000u},
                      DamageCase{"back reference", "tessel", 128 + 4 * 3, 7}),
    [](auto const& info) {
      std::string n = info.param.name;
      std::replace_if(
          n.begin(), n.end(), [](char c) { return !std::isalnum(c); }, '_');
      return n;
    });

TEST(TesselRestart, MissingTableFileIsReformatted) {
  TempDir dir;
  {
    Writer w(dir.path(), TesselTest::handler());
    w.attach(kKestor, 20);
    w.notify(1);
  }
  std::filesystem::remove(dir.file("tessel.1"));
  Writer w(dir.path(), TesselTest::handler());
  EXPECT_EQ(w.attach(kKestor, 20), Tessel::attachReformatted);
  EXPECT_TRUE(std::filesystem::exists(dir.file("tessel.1")));
}

// ---------------------------------------------------------------------------
// Validation messages: damage made while the writer is attached, through a
// second way to the bytes.

class TesselValidate : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(w.attach(kKestor, 10), Tessel::attachNew);
    w.notify(3);  // pos 0, seq 1
    w.notify(4);  // pos 1, seq 2
    w.notify(5);  // pos 2, seq 3
    ASSERT_TRUE(w.validate(kKestor, 10, error)) << error;
  }
  std::string expectInvalid() {
    EXPECT_FALSE(w.validate(kKestor, 10, error));
    return error;
  }
  TempDir dir;
  Writer w{dir.path(), TesselTest::handler()};
  std::string error;
  std::string prefix = "tessel " + dir.path();
};

TEST_F(TesselValidate, DamagedHeader) {
  writeAt<uint32_t>(header(dir), 8, 7);
  EXPECT_EQ(expectInvalid(), prefix + " format version:7 expected:1");
  writeAt<uint32_t>(header(dir), 8, Tessel::kFormatVersion);
  writeAt<uint32_t>(header(dir), 44, 5);
  EXPECT_EQ(expectInvalid(), prefix + " bad current table index:5");
  writeAt<uint32_t>(header(dir), 44, 0);
  writeAt<uint32_t>(header(dir), 40, w.generation() + 1);
  EXPECT_EQ(expectInvalid(),
            prefix + " table 0 generation:" + std::to_string(w.generation() - 1) +
                " differs from header generation:" + std::to_string(w.generation()));
}

TEST_F(TesselValidate, WrongKestorAndShortBackReferences) {
  EXPECT_FALSE(w.validate(kKestor + 1, 10, error));
  EXPECT_EQ(error, prefix + " kestor:0x10007 expected:0x10008");
  EXPECT_FALSE(w.validate(kKestor, 11, error));
  EXPECT_EQ(error, prefix + " mostSlots:10 below the table's 11");
}

TEST_F(TesselValidate, TwoLiveEntriesForOneSlot) {
  writeAt<uint32_t>(table0(dir), 12 + 8 * 1 + 4, 3);  // pos 1 now names slot 3 as well
  EXPECT_EQ(expectInvalid(),
            prefix + " slot:3 has a second live entry at pos:1 seq:2; its back reference is pos:0");
}

TEST_F(TesselValidate, BackReferenceToAnotherSlotsEntry) {
  writeAt<uint32_t>(header(dir), 128 + 4 * 7, 2);  // slot 7 claims slot 5's entry
  EXPECT_EQ(expectInvalid(), prefix + " slot:7 back reference:2 names slot:5");
  writeAt<uint32_t>(header(dir), 128 + 4 * 7, 9);
  EXPECT_EQ(expectInvalid(), prefix + " slot:7 back reference:9 beyond count:3");
}

TEST_F(TesselValidate, UnsortedSequencesAndFutureSequences) {
  writeAt<uint32_t>(table0(dir), 12 + 8 * 2, 1);
  EXPECT_EQ(expectInvalid(), prefix + " pos:2 seq:1 not after the previous seq:2");
  writeAt<uint32_t>(table0(dir), 12 + 8 * 2, 9);
  EXPECT_EQ(expectInvalid(), prefix + " pos:2 seq:9 beyond the last sequence issued:3");
}

TEST_F(TesselValidate, OpenCorralWithCurrentEntriesFailsClosedOnePasses) {
  w.markShrinkStart();
  w.notify(6);  // seq 4, a move's new place
  w.tombstone(3);
  w.notify(3);  // seq 5, the old place emptied
  EXPECT_EQ(expectInvalid(), prefix + " pos:3 seq:4 slot:6 is current inside the corral [4, 0]");
  w.markShrinkEnd();
  EXPECT_TRUE(w.validate(kKestor, 10, error)) << error;
  EXPECT_EQ(w.corralStart(), 4u);
  EXPECT_EQ(w.corralEnd(), 5u);
  EXPECT_EQ(w.entry(w.tesselSlots(6)).sequence, 6u) << "re-issued after the corral, in order";
  EXPECT_EQ(w.entry(w.tesselSlots(3)).sequence, 7u);
  // The next shrink may start: the marker is clear.
  EXPECT_EQ(w.shrinkMarker(), 0u);
}

TEST_F(TesselValidate, FileChecks) {
  EXPECT_TRUE(w.validateFile());
  writeAt<uint32_t>(table0(dir), 8, 100000);  // count beyond capacity and file
  std::string const msg =
      LomiTest::thrown<Lomi::CorruptionDetectedException>([&] { w.validateFile(); });
  EXPECT_NE(msg.find(table0(dir) + " of 4096 bytes is no table"), std::string::npos) << msg;
  std::filesystem::remove(dir.file("tessel"));
  EXPECT_THROW(w.validateFile(), Lomi::CorruptionDetectedException);
}

// ---------------------------------------------------------------------------
// What a reader of the queue may see while the writer is between two stores.
// The writer pauses at its step hooks; a reader view in this process reads
// the real files there.

using Tessel::TesselReaderView;
using Tessel::WriterStep;
using TesselTest::StepHook;

std::unique_ptr<TesselReaderView> viewAfter(TempDir const& dir, Tessel::Sequence after) {
  auto r = std::make_unique<TesselReaderView>(dir.path(), TesselTest::handler());
  std::string error;
  EXPECT_TRUE(r->attach(kKestor, error)) << error;
  r->seek(after);
  return r;
}

// A shadow reduced to keys and slots, acting on one entry as the shadow's
// slot handler does: it reads the slot as it is now; an empty slot whose
// local key would be removed is removed only if the entry still counts.
struct MiniShadow {
  std::map<uint32_t, int> local;  // slot -> key
  int falseRemovals = 0;

  void doSlot(uint32_t slot, std::map<uint32_t, int> const& table, TesselReaderView& r) {
    if (auto t = table.find(slot); t != table.end()) {
      std::erase_if(local, [&](auto const& e) { return e.second == t->second; });
      local[slot] = t->second;
      return;
    }
    auto l = local.find(slot);
    if (l == local.end() || !r.validateNotif()) return;
    // Every key of these tests stays in the table: a removal is false.
    falseRemovals++;
    local.erase(l);
  }
  // Takes in every entry the reader yields.
  void drain(std::map<uint32_t, int> const& table, TesselReaderView& r) {
    Tessel::TesselNotification n;
    while (r.next(n)) {
      doSlot(n.slot, table, r);
      r.consumed();
    }
  }
};

TEST(TesselReaderSees, NoEntryRetiredInTheNewTableCountsForAReaderThatRefoundDuringACompaction) {
  TempDir dir;
  Writer w(dir.path(), TesselTest::handler());
  ASSERT_EQ(w.attach(kKestor, 64), Tessel::attachNew);
  for (uint32_t i = 0; i < w.entryCapacity(); i++) w.notify(i % 8);
  // The reader re-finds its place while the writer has filled the other
  // table and not yet flipped: it must stand in the table of the generation
  // it read, and a retirement after the flip must reach it.
  std::unique_ptr<TesselReaderView> r;
  Tessel::TesselNotification standing;
  {
    StepHook hook([&](WriterStep step) {
      if (step == WriterStep::compactionFilled) {
        r = viewAfter(dir, 0);
        EXPECT_TRUE(r->next(standing));
        EXPECT_TRUE(r->validateNotif());
      }
      return false;
    });
    w.notify(3);
  }
  ASSERT_NE(r, nullptr);
  w.notify(standing.slot);  // retires the copy of the entry in the new table
  EXPECT_FALSE(r->validateNotif()) << "the reader trusts an entry of the table left behind";
  r->rejected();
  Tessel::TesselNotification n;
  std::vector<uint32_t> seen;
  while (r->next(n)) {
    seen.push_back(n.slot);
    r->consumed();
  }
  EXPECT_EQ(seen.back(), standing.slot) << "the newer entry of the slot is met";
}

TEST(TesselReaderSees, AMovedKeyNeverLooksRemovedWhileACorralCloses) {
  TempDir dir;
  Writer w(dir.path(), TesselTest::handler());
  ASSERT_EQ(w.attach(kKestor, 64), Tessel::attachNew);
  w.notify(40);  // key 1 at slot 40
  w.notify(41);  // key 2 at slot 41
  std::map<uint32_t, int> const before = {{40, 1}, {41, 2}};
  // A slot compaction moves them down: notify(to), tombstone(from), notify(from).
  w.markShrinkStart();
  for (auto [from, to] : {std::pair<uint32_t, uint32_t>{40, 3}, {41, 4}}) {
    w.notify(to);
    w.tombstone(from);
    w.notify(from);
  }
  std::map<uint32_t, int> const table = {{3, 1}, {4, 2}};
  // A reader that walks step by step as the corral closes, and fresh readers
  // that walk everything at each pause: none may remove a key.
  auto stepping = viewAfter(dir, 2);
  MiniShadow steppingShadow{before};
  int pauses = 0;
  auto check = [&](char const* where) {
    pauses++;
    Tessel::TesselNotification n;
    if (stepping->next(n)) {
      steppingShadow.doSlot(n.slot, table, *stepping);
      stepping->consumed();
    }
    auto fresh = viewAfter(dir, 2);
    MiniShadow shadow{before};
    shadow.drain(table, *fresh);
    EXPECT_EQ(shadow.falseRemovals, 0) << where;
    EXPECT_EQ(shadow.local, table) << where;
  };
  check("before the close");
  {
    StepHook hook([&](WriterStep step) {
      if (step == WriterStep::corralCopied) check("copies appended");
      if (step == WriterStep::corralRetired) check("an old entry retired");
      return false;
    });
    w.markShrinkEnd();
  }
  EXPECT_EQ(pauses, 1 + 1 + 4);
  steppingShadow.drain(table, *stepping);
  EXPECT_EQ(steppingShadow.falseRemovals, 0);
  EXPECT_EQ(steppingShadow.local, table);
  std::string error;
  EXPECT_TRUE(w.validate(kKestor, 64, error)) << error;
}

TEST(TesselReaderSees, ACapacityOfZeroIsDamageNotAHang) {
  TempDir dir;
  {
    Writer w(dir.path(), TesselTest::handler());
    ASSERT_EQ(w.attach(kKestor, 10), Tessel::attachNew);
    w.notify(1);
    writeAt<uint32_t>(table0(dir), 4, 0);
    std::string error;
    EXPECT_FALSE(w.validate(kKestor, 10, error));
    EXPECT_EQ(error, "tessel " + dir.path() + " table 0 capacity:0");
  }
  Writer w(dir.path(), TesselTest::handler());
  EXPECT_EQ(w.attach(kKestor, 10), Tessel::attachReformatted);
  for (uint32_t i = 0; i < 200; i++) w.notify(i % 10);
  EXPECT_GT(w.compactions(), 0u);
}

// A compaction whose table cannot grow: with few live entries it compacts
// into the room the file has; with too many it issues the sequence without
// an entry and raises lostSequence. Either way the queue stays valid. A table
// of 510 entries fills its page exactly: the file holds no spare room.
struct FailedGrowthCase {
  uint32_t liveSlots;
  bool lost;
};
class TesselFailedGrowth : public ::testing::TestWithParam<FailedGrowthCase> {};

TEST_P(TesselFailedGrowth, LeavesTheQueueValidAndTheChangeFindable) {
  TempDir dir;
  Writer w(dir.path(), TesselTest::handler());
  ASSERT_EQ(w.attach(kKestor, 510), Tessel::attachNew);
  uint32_t const capacity = w.entryCapacity();
  ASSERT_EQ(Tessel::tableFileSize(capacity, "t"), 4096u);
  for (uint32_t i = 0; i < capacity; i++) w.notify(i % GetParam().liveSlots);
  auto r = viewAfter(dir, 0);
  {
    StepHook hook([](WriterStep step) { return step == WriterStep::tableGrowth; });
    w.notify(0);
  }
  std::string error;
  EXPECT_TRUE(w.validate(kKestor, 510, error)) << error;
  EXPECT_EQ(w.sequence(), capacity + 1u);
  Tessel::TesselNotification n;
  Tessel::Sequence last = 0;
  while (r->next(n)) {
    last = n.sequence;
    r->consumed();
  }
  if (GetParam().lost) {
    EXPECT_EQ(w.lostSequence(), capacity + 1u);
    EXPECT_EQ(w.losses(), 1u);
    EXPECT_TRUE(r->overrun()) << "a caught-up reader must learn that it missed a change";
  } else {
    EXPECT_EQ(w.lostSequence(), 0u);
    EXPECT_EQ(w.entryCapacity(), capacity) << "compacted into the room the file had";
    EXPECT_EQ(last, w.sequence());
    EXPECT_FALSE(r->overrun());
  }
  // The next notify grows the table as usual.
  for (uint32_t i = 0; i < capacity; i++) w.notify(i);
  EXPECT_TRUE(w.validate(kKestor, 510, error)) << error;
}

INSTANTIATE_TEST_SUITE_P(Cases, TesselFailedGrowth,
                         ::testing::Values(FailedGrowthCase{300, false},
                                           FailedGrowthCase{510, true}));

TEST(TesselReaderSees, ARemovedQueueAsGoneNotAsCaughtUp) {
  TempDir dir;
  Writer w(dir.path(), TesselTest::handler());
  ASSERT_EQ(w.attach(kKestor, 10), Tessel::attachNew);
  w.notify(1);
  auto r = viewAfter(dir, 0);
  Tessel::TesselNotification n;
  ASSERT_TRUE(r->next(n));
  r->consumed();
  ASSERT_FALSE(r->next(n));
  w.cleanup();
  EXPECT_FALSE(r->next(n));
  EXPECT_TRUE(r->reformatted()) << "a reader still mapping a removed queue must re-attach";
}

TEST(TesselReaderSees, PrunedEntriesSendOnlyReadersThatHadNotPassedThemToASweep) {
  TempDir dir;
  Writer w(dir.path(), TesselTest::handler());
  ASSERT_EQ(w.attach(kKestor, 64), Tessel::attachNew);
  w.pruneModeIs(Tessel::PruneMode::prune);
  Tessel::Sequence floor = 0;
  w.pruneFloorIs([&] { return floor; });
  auto behind = viewAfter(dir, 0);
  auto ahead = viewAfter(dir, 0);
  for (uint32_t i = 0; i < 40; i++) w.notify(i);
  MiniShadow none;
  none.drain({}, *ahead);
  floor = ahead->lastConsumed();
  for (uint32_t i = 0; w.compactions() == 0; i++) w.notify(40 + i % 8);
  EXPECT_EQ(w.pruned(), 40u) << "the 40 entries every reader passed";
  EXPECT_EQ(w.lostSequence(), 40u);
  std::string error;
  EXPECT_TRUE(w.validate(kKestor, 64, error)) << error;
  none.drain({}, *ahead);
  EXPECT_FALSE(ahead->overrun());
  none.drain({}, *behind);
  EXPECT_TRUE(behind->overrun());
}

// ---------------------------------------------------------------------------
// Files: cleanup and the dummy.

TEST(TesselFiles, CleanupRemovesTheFiles) {
  TempDir dir;
  Writer w(dir.path(), TesselTest::handler());
  w.attach(kKestor, 10);
  EXPECT_EQ(dir.fileCount(), 3u);
  w.cleanup();
  EXPECT_EQ(dir.fileCount(), 0u);
  EXPECT_FALSE(w.attached());
  w.cleanup();  // nothing left: harmless
}

TEST(TesselFiles, DummyWriterCreatesNoFilesAndRecordsNothing) {
  TempDir dir;
  Tessel::DummyTesselWriter d(dir.path(), TesselTest::handler());
  static_assert(!Tessel::DummyTesselWriter::hasQueue && Writer::hasQueue);
  EXPECT_EQ(d.attach(kKestor, 10), 0);
  d.notify(1);
  d.tombstone(1);
  d.markShrinkStart();
  EXPECT_EQ(d.shrinkMarker(), 0u);
  d.markShrinkEnd();
  d.mostSlotsIs(100);
  std::string error;
  EXPECT_TRUE(d.validate(kKestor, 10, error));
  EXPECT_TRUE(d.validateFile());
  EXPECT_EQ(d.entryCount(), 0u);
  EXPECT_EQ(d.sequence(), 0u);
  EXPECT_EQ(d.tesselSlots(1), Tessel::noTesselPos);
  EXPECT_THROW(d.entry(0), Lomi::CorruptionDetectedException);
  d.onDetach();
  d.cleanup();
  EXPECT_EQ(dir.fileCount(), 0u);
}

}  // namespace
