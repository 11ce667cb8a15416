// Slot compaction on the real table files of the seven flow tables, with
// real queues and real processes:
//   - every table shrinks when it empties, keeps its rows, passes validation
//     (queue rules and the corral included), and its slot file gives memory
//     back (st_blocks falls) while the file keeps its length;
//   - a reader process that still maps the older, longer file reads it whole
//     without a fault, finds zeros in the released tail, and then follows.
// (The torture run of compaction under readers is Torture_test.cpp.)
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/ReaderTestUtil.h"
#include "Lomi/Util.h"
#include "Mirak/TempRoot.h"

namespace FlowTrackingTest {
namespace {

struct FileSpace {
  uint64_t length = 0;     // st_size
  uint64_t allocated = 0;  // st_blocks * 512
};

FileSpace spaceOf(std::string const& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return {};
  return FileSpace{static_cast<uint64_t>(st.st_size), static_cast<uint64_t>(st.st_blocks) * 512u};
}

template <typename W>
std::string slotFileOf(W const& w) {
  return w.rootPath().filePath("slots");
}

Mirak::MapDescriptor shrinkingDescriptor(uint32_t size, bool shrinkBuckets = false) {
  Mirak::MapDescriptor d = sharedDescriptor(size, shrinkBuckets);
  d.shrinkSlots = true;
  return d;
}

template <typename W>
void expectValid(W& w) {
  std::string error;
  EXPECT_TRUE(w.validate(w.kestorId(), error, false)) << error;
}

// With a real queue: the last shrink's corral is closed, and every entry
// inside it is a tombstone (its live notifications were re-issued after it).
template <typename W>
void expectClosedCorral(W const& w) {
  if constexpr (W::TesselWriter::hasQueue) {
    auto const& q = w.tesselWriter();
    EXPECT_EQ(q.shrinkMarker(), 0u);
    ASSERT_NE(q.corralStart(), 0u);
    ASSERT_GE(q.corralEnd(), q.corralStart());
    uint32_t inside = 0;
    for (uint32_t pos = 0; pos < q.entryCount(); pos++) {
      auto const n = q.entry(pos);
      if (n.sequence < q.corralStart() || n.sequence > q.corralEnd()) continue;
      inside++;
      EXPECT_EQ(n.slot, Tessel::tombstoneSlot) << "pos " << pos << " seq " << n.sequence;
    }
    EXPECT_GT(inside, 0u) << "the moves left no trace in the queue";
  }
}

// ---------------------------------------------------------------------------
// The seven tables.

template <typename Record>
class CompactionTables : public ::testing::Test {};
TYPED_TEST_SUITE(CompactionTables, AllRecords);

TYPED_TEST(CompactionTables, EmptyingTableShrinksKeepsRowsAndGivesMemoryBack) {
  using Record = TypeParam;
  MirakTest::TempRoot root;
  auto w = makeSharedWriter<Record>("flowtracking/test/compaction", shrinkingDescriptor(1u << 20));
  uint32_t const n = std::min<uint32_t>(keySpace<Record>(), 4096);
  uint32_t const keep = 3;
  for (uint32_t i = 0; i < n; i++) w->write(row<Record>(i, 1), true);
  uint32_t const peak = w->capacity();
  ASSERT_GE(peak, 2 * w->minSize()) << "the table never grew far enough to shrink";
  FileSpace const before = spaceOf(slotFileOf(*w));

  // Keep the rows of the highest slots: they have to move.
  for (uint32_t i = 0; i < n - keep; i++) {
    TableValue<Record> removed;
    ASSERT_TRUE(w->remove(row<Record>(i).fwkKey(), removed)) << i;
    EXPECT_EQ(removed, row<Record>(i, 1));
  }
  Mirak::Writer::Counters const c = w->writerCounters();
  FileSpace const after = spaceOf(slotFileOf(*w));
  std::printf(
      "capacity %u -> %u, shrinks %llu, moved %llu, slot file %llu bytes, allocated %llu -> %llu\n",
      peak, w->capacity(), (unsigned long long)c.slotShrinks, (unsigned long long)c.slotsMoved,
      (unsigned long long)after.length, (unsigned long long)before.allocated,
      (unsigned long long)after.allocated);
  EXPECT_EQ(w->capacity(), w->minSize());
  EXPECT_GT(c.slotShrinks, 0u);
  EXPECT_EQ(c.slotsMoved > 0, true);
  EXPECT_EQ(after.length, before.length) << "the slot file must never be shortened";
  EXPECT_LT(after.allocated, before.allocated) << "the released tail still holds memory";
  EXPECT_EQ(w->members(), keep);
  for (uint32_t i = n - keep; i < n; i++) {
    bool found = false;
    EXPECT_EQ(*w->lookup(row<Record>(i).fwkKey(), found, nullptr), row<Record>(i, 1));
    EXPECT_TRUE(found);
  }
  expectValid(*w);
  expectClosedCorral(*w);
  // A table that shrank grows again, and the rows written then are sound.
  for (uint32_t i = 0; i < n - keep; i++) w->write(row<Record>(i, 2), true);
  EXPECT_EQ(w->capacity(), peak);
  expectValid(*w);
}

// ---------------------------------------------------------------------------
// A reader on the older mapping.

using ConfigRecord = HoIpFlowConfig;

struct OldMappingReport {
  uint64_t mappedBefore = 0;
  uint64_t tailBytes = 0;
  uint64_t tailNonZero = 0;
  uint64_t checksum = 0;
  uint64_t keptFound = 0;
  uint64_t removedFound = 0;
  uint64_t capacityAfter = 0;
  uint64_t resizesFollowed = 0;
};

TEST(CompactionFiles, AReaderOnTheOlderMappingNeverFaultsAndThenFollows) {
  MirakTest::TempRoot root;
  constexpr char kName[] = "flowtracking/test/oldmapping";
  constexpr uint32_t kRows = 20000;
  constexpr uint32_t kKeep = 100;
  auto w = makeSharedWriter<ConfigRecord>(kName, shrinkingDescriptor(1u << 20));
  for (uint32_t i = 0; i < kRows; i++) w->write(row<ConfigRecord>(i, 1), true);
  uint32_t const peak = w->capacity();
  FileSpace const before = spaceOf(slotFileOf(*w));

  RecordPipe up, down;
  pid_t reader = forkChild([&]() -> int {
    auto r = makeReader<ConfigRecord>(kName);
    if (!r->initialize("old mapping")) return 2;
    bool found = false;
    r->lookup(row<ConfigRecord>(0).fwkKey(), found, nullptr);
    if (!found) return 3;
    OldMappingReport rep;
    rep.mappedBefore = r->slotTable().mapping().fileSize();
    up.send(rep);
    uint32_t token = 0;
    if (!down.receive(token)) return 4;
    // The writer has shrunk the file; this process still maps all of it and
    // reads every byte, the released tail included.
    auto const* bytes = static_cast<unsigned char const*>(r->slotTable().mapping().base());
    uint64_t const keptBytes = token;
    for (uint64_t i = 0; i < rep.mappedBefore; i++) {
      unsigned char const b = *static_cast<unsigned char const volatile*>(bytes + i);
      rep.checksum += b;
      if (i >= keptBytes) {
        rep.tailBytes++;
        if (b != 0) rep.tailNonZero++;
      }
    }
    // Now the reader follows the shrink.
    for (uint32_t i = 0; i < kRows; i++) {
      TableValue<ConfigRecord> buffer;
      r->lookup(row<ConfigRecord>(i).fwkKey(), found, &buffer);
      if (!found) continue;
      if (i >= kRows - kKeep && buffer == row<ConfigRecord>(i, 1)) {
        rep.keptFound++;
      } else {
        rep.removedFound++;
      }
    }
    rep.capacityAfter = r->capacity();
    rep.resizesFollowed = r->readerCounters().resizesFollowed;
    up.send(rep);
    return 0;
  });
  ASSERT_GT(reader, 0);
  OldMappingReport rep;
  ASSERT_TRUE(up.receive(rep)) << "the reader did not attach";
  EXPECT_GE(rep.mappedBefore, spaceOf(slotFileOf(*w)).length - 4096);

  for (uint32_t i = 0; i < kRows - kKeep; i++) {
    TableValue<ConfigRecord> removed;
    ASSERT_TRUE(w->remove(row<ConfigRecord>(i).fwkKey(), removed));
  }
  ASSERT_LT(w->capacity(), peak);
  FileSpace const after = spaceOf(slotFileOf(*w));
  EXPECT_EQ(after.length, before.length);
  EXPECT_LT(after.allocated, before.allocated / 8);
  // Whole pages past the writer's mapping were given back.
  uint64_t const page = Lomi::Util::pageSize();
  uint32_t const keptBytes =
      static_cast<uint32_t>((w->slotTable().usedBytes() + page - 1) / page * page);
  down.send(keptBytes);

  ASSERT_TRUE(up.receive(rep)) << "the reader did not finish";
  int const status = reap(reader);
  EXPECT_TRUE(exitedWith(status, 0))
      << "reader status " << status << (WIFSIGNALED(status) ? " (killed by a signal)" : "");
  std::printf("reader mapped %llu bytes, tail %llu bytes (%llu non-zero); allocated %llu -> %llu\n",
              (unsigned long long)rep.mappedBefore, (unsigned long long)rep.tailBytes,
              (unsigned long long)rep.tailNonZero, (unsigned long long)before.allocated,
              (unsigned long long)after.allocated);
  EXPECT_GT(rep.tailBytes, 0u);
  EXPECT_EQ(rep.tailNonZero, 0u) << "the released tail does not read as zeros";
  EXPECT_EQ(rep.keptFound, kKeep);
  EXPECT_EQ(rep.removedFound, 0u);
  EXPECT_EQ(rep.capacityAfter, w->capacity());
  EXPECT_GT(rep.resizesFollowed, 0u);
}

}  // namespace
}  // namespace FlowTrackingTest
