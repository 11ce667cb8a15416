// Slot compaction of the writer on private tables: the target size and its
// traces at the edges (threshold 512 at 1024 slots, the shrink at 255 entries,
// the SUPER SHRINK after skipped shrinks, the empty table), tables that never
// shrink, the free-list purge and its corruption check, the exact place and
// order of every move with its queue calls, and the critical tasks between
// moves. (Random fills and drains with shrinking slots, against a map:
// MirakWriter_test's model run.)
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Lomi/Rdtsc.h"
#include "Lomi/TaskScheduler.h"
#include "Lomi/Thrown.h"
#include "Lomi/TraceCapture.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/TempRoot.h"
#include "Mirak/WriterTestPolicy.h"

namespace MirakTest {
namespace {

using Writer = Mirak::MirakWriter<WriterOps>;
using Slots = Writer::Slots;
constexpr uint32_t kNoSlot = Mirak::SlotTable::kNoSlot;
constexpr uint32_t kOccupied = Mirak::SlotTable::OCCUPIED;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("CompactionTest");
}

Mirak::MapDescriptor descriptor(bool shrinkSlots = true, bool fixedSize = false,
                                uint32_t size = 1u << 20) {
  Mirak::MapDescriptor d(size);
  d.local = true;
  d.shrinkSlots = shrinkSlots;
  d.fixedSize = fixedSize;
  return d;
}

std::unique_ptr<Writer> makeWriter(Mirak::MapDescriptor const& d) {
  auto w = std::make_unique<Writer>(handler(), "test/compaction", d, WriterOps(0));
  w->initialize("test");
  return w;
}

void expectValid(Writer& w) {
  std::string error;
  EXPECT_TRUE(w.validate(w.kestorId(), error, false)) << error;
}

using LomiTest::level;

// The lines of the trace while it lives, with the given levels of the test's
// handler on.
struct TraceCapture : LomiTest::TraceCapture {
  explicit TraceCapture(uint16_t mask) : LomiTest::TraceCapture(handler(), mask) {}
};

// The moves a compaction to `n` slots must make, foretold from the table as
// it stands but for `removed`, the slot of the remove that will start it:
// the occupied slots at or above n in ascending order, each to the next free
// slot below n in free-list order; and the word each target has.
struct Move {
  uint32_t from;
  uint32_t to;
  uint32_t toWord;
  TestValue value;
};

std::vector<Move> foretellMoves(Writer const& w, uint32_t n, uint32_t removed = kNoSlot) {
  auto const& slots = w.slotTable().slots();
  std::vector<uint32_t> targets;
  for (uint32_t i = w.slotTable().header()->freeSlots; i != kNoSlot; i = slots[i].link.next) {
    if (i < n) targets.push_back(i);
  }
  std::vector<Move> moves;
  for (uint32_t f = n; f < w.capacity(); f++) {
    if (f == removed || !(slots[f].versionFlags & kOccupied)) continue;
    uint32_t const to = targets.at(moves.size());
    moves.push_back(Move{f, to, slots[to].versionFlags, slots[f].value});
  }
  return moves;
}

// Checks that the foretold moves happened: the value at its new place with
// the word of the target moved by 4 and OCCUPIED, and, in the queue, between
// the shrink marks, notify(to), tombstone(from), notify(from) for each move
// in order, and nothing else.
void expectMoved(Writer const& w, std::vector<Move> const& moves, size_t eventsBefore) {
  auto const& slots = w.slotTable().slots();
  for (Move const& m : moves) {
    Slots::SlotT const& s = slots[m.to];
    EXPECT_EQ(s.value, m.value) << "slot " << m.to;
    EXPECT_EQ(s.versionFlags, (m.toWord + 4) | kOccupied) << "slot " << m.to;
    bool found = false;
    TestValue const* got = w.lookup(m.value.key(), found, nullptr);
    EXPECT_TRUE(found);
    EXPECT_EQ(got, &s.value) << "the key is found at its new slot";
  }
  auto const& events = w.tesselWriter().events;
  std::vector<std::pair<char, uint32_t>> expected{{'s', 0}};
  for (Move const& m : moves) {
    expected.push_back({'n', m.to});
    expected.push_back({'t', m.from});
    expected.push_back({'n', m.from});
  }
  expected.push_back({'e', 0});
  ASSERT_GE(events.size(), eventsBefore);
  std::vector<std::pair<char, uint32_t>> const tail(events.begin() + eventsBefore, events.end());
  // The remove that started the shrink notified its own slot first.
  ASSERT_FALSE(tail.empty());
  std::vector<std::pair<char, uint32_t>> const shrink(tail.begin() + (tail[0].first == 'n'),
                                                      tail.end());
  EXPECT_EQ(shrink, expected);
}

// A table of exactly 1024 slots holding ids [0, 1024), id i in slot i.
std::unique_ptr<Writer> tableOf1024(Mirak::MapDescriptor const& d) {
  auto w = makeWriter(d);
  for (uint32_t id = 0; id < 1024; id++) w->write(row(id), true);
  EXPECT_EQ(w->capacity(), 1024u);
  for (uint32_t id = 0; id < 1024; id += 97) {
    EXPECT_EQ(w->slotTable().slots()[id].value, row(id)) << "ids are not in their own slots";
  }
  return w;
}

void removeIds(Writer& w, uint32_t from, uint32_t to) {
  for (uint32_t id = from; id < to; id++) {
    TestValue removed;
    ASSERT_TRUE(w.remove(key(id), removed)) << id;
  }
}

// ---------------------------------------------------------------------------

TEST(CompactionEdges, ThresholdOf1024SlotsIs512AndTheShrinkComesAt255Entries) {
  auto w = tableOf1024(descriptor());
  EXPECT_EQ(w->slotTable().currentShrinkThreshold(), 512u);
  // 256 left, in slots 768..1023: not yet.
  removeIds(*w, 0, 768);
  EXPECT_EQ(w->capacity(), 1024u);
  EXPECT_EQ(w->writerCounters().slotShrinks, 0u);

  auto const moves = foretellMoves(*w, 512, 768);
  ASSERT_EQ(moves.size(), 255u);
  size_t const eventsBefore = w->tesselWriter().events.size();
  TraceCapture trace(level(2) | level(5));
  TestValue removed;
  ASSERT_TRUE(w->remove(key(768), removed));

  EXPECT_EQ(w->capacity(), 512u);
  EXPECT_EQ(w->slotTable().header()->numSlots.value, 512u);
  EXPECT_EQ(w->slotTable().header()->mostSlots, 1024u) << "mostSlots is a high-water mark";
  EXPECT_EQ(w->slotTable().currentShrinkThreshold(), 256u);
  EXPECT_EQ(w->writerCounters().slotShrinks, 1u);
  EXPECT_EQ(w->writerCounters().slotsMoved, 255u);
  EXPECT_TRUE(trace.has("threshold:512 shrinkThreshold:512"));
  EXPECT_FALSE(trace.has("SUPER SHRINK"));
  EXPECT_TRUE(trace.has("newNumSlots:512"));
  EXPECT_TRUE(trace.has("from 1024 slots to 512"));
  EXPECT_TRUE(trace.has("at threshold:512 done"));
  expectMoved(*w, moves, eventsBefore);
  EXPECT_FALSE(w->slotTable().inCriticalSection());
  expectValid(*w);
  for (uint32_t id = 769; id < 1024; id++) {
    bool found = false;
    EXPECT_EQ(*w->lookup(key(id), found, nullptr), row(id));
    EXPECT_TRUE(found);
  }
}

TEST(CompactionEdges, SkippedShrinksEndInASuperShrinkAt100Entries) {
  auto w = tableOf1024(descriptor());
  removeIds(*w, 0, 768);
  // A shrink marked as running in the queue: every remove below the threshold
  // skips with its trace, and nothing moves.
  w->tesselWriter().markShrinkStart();
  {
    TraceCapture trace(level(5));
    removeIds(*w, 768, 924);  // 256 -> 100 entries: each of the 156 ends below 256
    EXPECT_EQ(trace.count("shrink started, ignoring shrinkThreshold:512"), 156u);
  }
  EXPECT_EQ(w->capacity(), 1024u);
  EXPECT_EQ(w->members(), 100u);
  w->tesselWriter().markShrinkEnd();

  // The next remove tries again: 99 entries, target 256, two steps at once.
  auto const moves = foretellMoves(*w, 256, 924);
  size_t const eventsBefore = w->tesselWriter().events.size();
  TraceCapture trace(level(5));
  removeIds(*w, 924, 925);
  EXPECT_TRUE(trace.has("threshold:256 shrinkThreshold:512 SUPER SHRINK!"));
  EXPECT_EQ(w->capacity(), 256u);
  EXPECT_EQ(w->writerCounters().slotsMoved, 99u);
  expectMoved(*w, moves, eventsBefore);
  expectValid(*w);
}

TEST(CompactionEdges, ShrinkOnRequestWorksOnlyBelowHalfTheThreshold) {
  auto w = tableOf1024(descriptor());
  removeIds(*w, 0, 512);
  w->shrink();
  EXPECT_EQ(w->capacity(), 1024u) << "512 entries are not below 256";
  EXPECT_EQ(w->writerCounters().slotShrinks, 0u);

  w->tesselWriter().markShrinkStart();
  removeIds(*w, 512, 924);
  w->shrink();
  EXPECT_EQ(w->capacity(), 1024u) << "the marker holds every shrink";
  w->tesselWriter().markShrinkEnd();

  TraceCapture trace(level(5));
  w->shrink();
  EXPECT_TRUE(trace.has("threshold:256 shrinkThreshold:512 SUPER SHRINK!"));
  EXPECT_EQ(w->capacity(), 256u);
  EXPECT_EQ(w->members(), 100u);
  expectValid(*w);
  // The call left no critical section open, and a write works.
  EXPECT_FALSE(w->slotTable().inCriticalSection());
  EXPECT_EQ(*w->write(row(5000), true), row(5000));
}

TEST(CompactionEdges, AnEmptyTableShrinksToMinSlotsAndMovesNothing) {
  auto w = tableOf1024(descriptor());
  uint32_t const minSlots = w->minSize();
  ASSERT_LT(minSlots, 256u);
  w->tesselWriter().markShrinkStart();
  removeIds(*w, 0, 1023);
  w->tesselWriter().markShrinkEnd();
  TraceCapture trace(level(5));
  removeIds(*w, 1023, 1024);
  EXPECT_EQ(w->members(), 0u);
  EXPECT_EQ(w->capacity(), minSlots);
  EXPECT_TRUE(trace.has(fmt::format("threshold:{} shrinkThreshold:512 SUPER SHRINK!", minSlots)));
  EXPECT_EQ(w->writerCounters().slotsMoved, 0u);
  EXPECT_EQ(w->slotTable().currentShrinkThreshold(), 0u) << "minSlots never shrinks";
  // The free list holds exactly the slots below minSlots.
  std::set<uint32_t> free;
  auto const& slots = w->slotTable().slots();
  for (uint32_t i = w->slotTable().header()->freeSlots; i != kNoSlot; i = slots[i].link.next) {
    EXPECT_LT(i, minSlots);
    EXPECT_TRUE(free.insert(i).second) << "slot " << i << " twice on the free list";
  }
  EXPECT_EQ(free.size(), minSlots);
  expectValid(*w);
  // And it grows again by the usual rule.
  for (uint32_t id = 0; id <= minSlots; id++) w->write(row(id), true);
  EXPECT_EQ(w->capacity(), 2 * minSlots);
  expectValid(*w);
}

struct NeverCase {
  char const* name;
  bool shrinkSlots;
  bool fixedSize;
};

class CompactionNever : public ::testing::TestWithParam<NeverCase> {};

TEST_P(CompactionNever, TableKeepsItsCapacity) {
  NeverCase const c = GetParam();
  auto w = makeWriter(descriptor(c.shrinkSlots, c.fixedSize, c.fixedSize ? 1024 : 1u << 20));
  for (uint32_t id = 0; id < 1024; id++) w->write(row(id), true);
  ASSERT_EQ(w->capacity(), 1024u);
  EXPECT_EQ(w->slotTable().currentShrinkThreshold(), 0u);
  TraceCapture trace(level(5));
  removeIds(*w, 0, 1024);
  w->shrink();
  EXPECT_EQ(w->capacity(), 1024u);
  EXPECT_EQ(w->writerCounters().slotShrinks, 0u);
  EXPECT_FALSE(trace.has("threshold:"));
  expectValid(*w);
}

INSTANTIATE_TEST_SUITE_P(Tables, CompactionNever,
                         ::testing::Values(NeverCase{"FixedSize", true, true},
                                           NeverCase{"ShrinkSlotsOff", false, false}),
                         [](auto const& info) { return std::string(info.param.name); });

TEST(CompactionEdges, AVersionAnchorOnAMovedSlotIsNoLongerCurrent) {
  auto w = tableOf1024(descriptor());
  removeIds(*w, 0, 768);
  bool found = false;
  w->lookup(key(1000), found, nullptr);
  ASSERT_TRUE(found);
  EXPECT_TRUE(w->validateVersionAnchor());
  removeIds(*w, 768, 769);
  ASSERT_EQ(w->capacity(), 512u);
  // The anchor's word was cut off with the tail: a mismatch, not a fault.
  EXPECT_THROW(w->validateVersionAnchor(), Mem::VersionMismatchException);
  w->lookup(key(1000), found, nullptr);
  ASSERT_TRUE(found);
  EXPECT_TRUE(w->validateVersionAnchor());
}

TEST(CompactionEdges, AFreeListThatDoesNotAddUpIsCorruptionAndNothingMoves) {
  auto w = tableOf1024(descriptor());
  removeIds(*w, 0, 768);
  // Cut the free list after its second slot.
  auto& slots = w->slotTable().slots();
  uint32_t const head = w->slotTable().header()->freeSlots;
  uint32_t const second = slots[head].link.next;
  slots[second].link.next = kNoSlot;
  TestValue removed;
  // The removed slot joined the list: 3 on it, 255 in use.
  EXPECT_EQ(LomiTest::thrown<Lomi::CorruptionDetectedException>(
                [&] { w->remove(key(768), removed); }),
            "numSlots mismatch, length of freeList: 3, occupiedSlots: 255 do not add up to "
            "numSlots: 1024");
  EXPECT_EQ(w->capacity(), 1024u);
  EXPECT_EQ(w->writerCounters().slotsMoved, 0u);
  EXPECT_TRUE(w->slotTable().inCriticalSection()) << "the table may be half-changed";
  std::string error;
  EXPECT_FALSE(w->validate(w->kestorId(), error, false));
  EXPECT_EQ(error, "bad critical section runtimeFlags:1");
}

TEST(CompactionDeathTest, AnOccupiedSlotThatNoChainReachesStopsTheProcess) {
  auto w = tableOf1024(descriptor());
  removeIds(*w, 0, 768);
  // Slot 700 is free and holds the stale row of id 700: marking it OCCUPIED
  // makes an entry that the index does not know. Moving it would invent a
  // row; the compaction stops instead.
  auto& s = w->slotTable().slots()[700];
  s.versionFlags |= kOccupied;
  TestValue removed;
  EXPECT_DEATH(w->remove(key(768), removed), "fromSlot:700 key not found");
}

TEST(CompactionEdges, CriticalTasksRunBetweenMovesWithinTheCriticalSection) {
  auto d = descriptor();
  d.criticalTaskCheck = true;
  auto w = tableOf1024(d);
  removeIds(*w, 0, 768);
  struct Run {
    size_t movesTraced;
    bool critical;
  };
  std::vector<Run> runs;
  TraceCapture trace(level(7));
  size_t movesTraced = 0;
  // The first move takes longer than the 10 ms of the task clock: it spins
  // on the clock's own counter, so the clock is past its deadline at the
  // first tick, without a sleep.
  trace.onLine = [&](std::string const& line) {
    if (line.find("fromSlotId:") == std::string::npos) return;
    if (movesTraced++ != 0) return;
    uint64_t const until =
        Lomi::Rdtsc::now() + static_cast<uint64_t>(Lomi::Rdtsc::calibrationRate() / 50);
    while (Lomi::Rdtsc::now() < until) {
    }
  };
  auto task = Lomi::TaskSchedulerRoot::root().criticalTaskIs("compaction test", [&] {
    runs.push_back(Run{movesTraced, w->slotTable().inCriticalSection()});
  });
  removeIds(*w, 768, 769);
  task.reset();
  EXPECT_EQ(w->writerCounters().slotsMoved, 255u);
  ASSERT_FALSE(runs.empty()) << "the clock never ran the critical tasks";
  EXPECT_EQ(runs[0].movesTraced, 1u) << "the first run comes right after the first move";
  for (size_t i = 0; i < runs.size(); i++) {
    EXPECT_TRUE(runs[i].critical) << "a shrink inside remove keeps the critical section marked";
    // Runs come only between moves, at most one between two of them.
    if (i > 0) {
      EXPECT_GT(runs[i].movesTraced, runs[i - 1].movesTraced);
    }
  }
  expectValid(*w);
}

}  // namespace
}  // namespace MirakTest
