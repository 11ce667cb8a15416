// The lock-free read protocol against a writer on the same files, with the
// reader and the writer paused at chosen steps: a reader standing on a slot
// that a compaction retires, hints and version anchors held across a
// compaction and the regrowth of the slots it cut, hints held across bucket
// doublings, and readers that meet a re-format (while attaching, and while
// attached). Each case is made deterministic by a pause, never by timing:
// the key hash (a reader hashes the key of each slot it passes right after
// loading that slot's link) and the queue writer (which hears of each step of
// a compaction) are the pause points.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/MirakReader.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/TempRoot.h"
#include "Mirak/WriterTestPolicy.h"

namespace MirakTest {
namespace {

// The policy of the reader that meets a re-format while it attaches: it runs
// a hook when the reader takes the hash seed from the slot header.
inline thread_local std::function<void()> seedHook;
struct SeedHookOps : WriterOps {
  using WriterOps::WriterOps;
  void hashSeedIs(uint32_t seed) {
    WriterOps::hashSeedIs(seed);
    if (auto hook = std::exchange(seedHook, nullptr)) hook();
  }
};

using Writer = Mirak::MirakWriter<WriterOps>;
using Reader = Mirak::MirakReader<WriterOps>;
constexpr char kTable[] = "test/protocol";
constexpr uint32_t kOccupied = Mirak::SlotTable::OCCUPIED;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("ReaderProtocolTest");
}

std::unique_ptr<Writer> makeWriter(bool shrinkBuckets = false) {
  Mirak::MapDescriptor d(1u << 16);
  d.local = false;
  d.shrinkSlots = true;
  d.shrinkBuckets_ = shrinkBuckets;
  auto w = std::make_unique<Writer>(handler(), kTable, d, WriterOps(0));
  w->initialize("test");
  return w;
}

template <typename Ops = WriterOps>
std::unique_ptr<Mirak::MirakReader<Ops>> attachReader() {
  auto r = std::make_unique<Mirak::MirakReader<Ops>>(handler(), kTable, Ops(0));
  EXPECT_TRUE(r->initialize("test"));
  return r;
}

// A writer that died inside a critical section: the next writer re-formats
// its table (new kestor, new hash seed).
std::unique_ptr<Writer> reformat(std::unique_ptr<Writer> w) {
  w->slotTable().header()->runtimeFlags |= Mirak::SlotTable::kRuntimeFlagCritical;
  w->detach(false);
  w.reset();
  return makeWriter();
}

// One side waits until the other says go; a missed signal fails the test
// instead of hanging it.
class Baton {
 public:
  void post() {
    std::lock_guard<std::mutex> lock(m_);
    posted_ = true;
    cv_.notify_all();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(m_);
    bool const ok = cv_.wait_for(lock, std::chrono::seconds(30), [&] { return posted_; });
    ASSERT_TRUE(ok) << "the other thread never reached its pause point";
    posted_ = false;
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  bool posted_ = false;
};

// The next entry after `key` in table order, found without a hint.
template <typename Map>
std::pair<bool, uint32_t> successorOf(Map& map, TestKey const& k) {
  TestValue v;
  Mirak::IterHint none;
  bool const found = map.next(k, v, none);
  return {found, found ? v.fwkKey().id : 0};
}

// A table of 256 slots whose 64 entries (ids 192..255, one insert each, so
// each slot's word is 5) sit above slot 128, the size a compaction of 63
// entries cuts the table to. Removing `trigger` starts that compaction.
struct UpperHalfTable {
  static constexpr uint32_t kTrigger = 192;
  std::unique_ptr<Writer> writer = makeWriter();

  UpperHalfTable() {
    for (uint32_t id = 0; id < 256; id++) writer->write(row(id), true);
    TestValue removed;
    for (uint32_t id = 0; id < 192; id++) writer->remove(key(id), removed);
    EXPECT_EQ(writer->capacity(), 256u);
    EXPECT_EQ(writer->members(), 64u);
  }
  void compact() {
    TestValue removed;
    writer->remove(key(kTrigger), removed);
    EXPECT_EQ(writer->capacity(), 128u);
  }
  // Inserts new rows until the slots the compaction cut are all in use again.
  // Each cut slot that held a row (slot = id) takes a new row of the same
  // bucket: a hint that mistook it for its old row would find a successor
  // that fits its bucket, and follow it.
  void regrow() {
    uint32_t const n = writer->buckets();
    auto bucketOf = [&](uint32_t id) { return writer->ops().hash(key(id)) & (n - 1); };
    uint32_t next = 1000;
    while (writer->members() < 256) {
      uint32_t const slot = writer->slotTable().header()->freeSlots;
      uint32_t id = next++;
      if (slot != Mirak::SlotTable::kNoSlot && slot > kTrigger && slot < 256) {
        while (bucketOf(id) != bucketOf(slot)) id = next++;
      }
      writer->write(row(id), true);
    }
    EXPECT_EQ(writer->capacity(), 256u);
    EXPECT_EQ(writer->buckets(), n);
  }
};

// ---------------------------------------------------------------------------
// Compaction under a reader in flight.

TEST(ReaderProtocol, AReaderStandingOnASlotThatACompactionRetiresRestartsAndFindsItsKey) {
  TempRoot root;
  UpperHalfTable table;
  auto reader = attachReader();
  // Two entries that follow each other in one chain, both above the cut:
  // the compaction moves both.
  auto const& slots = table.writer->slotTable().slots();
  uint32_t first = 0, second = 0;
  for (uint32_t s = 193; s < 256 && second == 0; s++) {
    uint32_t const next = slots[s].link.next;
    if (!Mirak::SlotLink::isEndOfChain(next) && next > 192 &&
        (slots[next].versionFlags & kOccupied)) {
      first = s;
      second = next;
    }
  }
  ASSERT_NE(second, 0u) << "no chain of two entries above the cut";
  TestKey const firstKey = slots[first].value.fwkKey();
  TestKey const wanted = slots[second].value.fwkKey();

  Baton readerOnFirst, writerPaused, readerDone;
  bool found = false;
  std::string error;
  std::thread readerThread([&] {
    // The reader hashes the first entry's key after it loaded its link: it
    // stands on the first entry, about to follow its link to the second.
    bool armed = true;
    testKeyHashHook = [&](TestKey const& k) {
      if (!armed || !(k == firstKey)) return;
      armed = false;
      readerOnFirst.post();
      writerPaused.wait();
    };
    try {
      TestValue out;
      reader->lookup(wanted, found, &out);
    } catch (Lomi::CorruptionDetectedException const& e) {
      error = e.msg();
    }
    testKeyHashHook = nullptr;
    readerDone.post();
  });
  readerOnFirst.wait();
  // The writer stops after its last move, before it publishes the smaller
  // size: the reader's walk overlaps no resize that would excuse a failure.
  table.writer->tesselWriter().onEvent = [&](char what, uint32_t) {
    if (what != 'e') return;
    writerPaused.post();
    readerDone.wait();
  };
  table.compact();
  readerThread.join();
  table.writer->tesselWriter().onEvent = nullptr;
  EXPECT_EQ(error, "");
  EXPECT_TRUE(found) << "a row present throughout was reported absent";
  EXPECT_GT(reader->readerCounters().retries, 0u) << "the reader did not meet the compaction";
}

// ---------------------------------------------------------------------------
// Hints and anchors held across a compaction and the regrowth of the slots it
// cut: a regrown slot holds another row, and its word must say so.

TEST(ReaderProtocol, HintsHeldAcrossCompactionAndRegrowthNeverSkipRows) {
  TempRoot root;
  UpperHalfTable table;
  auto reader = attachReader();
  struct Held {
    TestKey key;
    Mirak::IterHint readerHint;
    Mirak::IterHint writerHint;
  };
  std::vector<Held> held;
  TestValue v, wv;
  Mirak::IterHint rh, wh;
  bool more = reader->first(v, rh);
  bool const writerMore = table.writer->first(wv, wh);
  ASSERT_EQ(more, writerMore);
  while (more) {
    ASSERT_TRUE(v.fwkKey() == wv.fwkKey());
    held.push_back({v.fwkKey(), rh, wh});
    more = reader->next(v.fwkKey(), v, rh);
    ASSERT_EQ(table.writer->next(wv.fwkKey(), wv, wh), more);
  }
  ASSERT_EQ(held.size(), 64u);
  table.compact();
  table.regrow();
  reader->resize();  // follows the compaction and the regrowth

  uint32_t checked = 0;
  for (Held const& h : held) {
    if (h.key == key(UpperHalfTable::kTrigger)) continue;
    auto const wanted = successorOf(*reader, h.key);
    Mirak::IterHint hint = h.readerHint;
    TestValue got;
    bool const gotMore = reader->next(h.key, got, hint);
    ASSERT_EQ(gotMore, wanted.first) << "reader, after id " << h.key.id;
    if (gotMore) {
      EXPECT_EQ(got.fwkKey().id, wanted.second) << "reader, after id " << h.key.id;
    }
    hint = h.writerHint;
    bool const writerGot = table.writer->next(h.key, got, hint);
    ASSERT_EQ(writerGot, wanted.first) << "writer, after id " << h.key.id;
    if (writerGot) {
      EXPECT_EQ(got.fwkKey().id, wanted.second) << "writer, after id " << h.key.id;
    }
    checked++;
  }
  EXPECT_EQ(checked, 63u);
}

TEST(ReaderProtocol, AnAnchorOnASlotThatWasCutAndRegrownIsNoLongerCurrent) {
  TempRoot root;
  UpperHalfTable table;
  auto reader = attachReader();
  bool found = false;
  TestValue out;
  reader->lookup(key(200), found, &out);
  ASSERT_TRUE(found);
  ASSERT_TRUE(reader->validateVersionAnchor());
  table.compact();
  table.regrow();
  // The row moved and another took its old slot: the value read is not the
  // current one of that slot, whichever mapping the reader still has.
  EXPECT_THROW(reader->validateVersionAnchor(), Mem::VersionMismatchException);
}

// ---------------------------------------------------------------------------
// Bucket doublings under a held hint.

TEST(ReaderProtocol, AHintFromBeforeTwoBucketDoublingsFallsBackToTheSlowPath) {
  TempRoot root;
  auto writer = makeWriter();
  for (uint32_t id = 0; id < 8; id++) writer->write(row(id), true);
  auto reader = attachReader();
  std::vector<std::pair<TestKey, Mirak::IterHint>> held;
  TestValue v;
  Mirak::IterHint hint;
  for (bool more = reader->first(v, hint); more; more = reader->next(v.fwkKey(), v, hint)) {
    held.push_back({v.fwkKey(), hint});
  }
  uint32_t const bucketsBefore = writer->buckets();
  // New rows only: the held slots keep their words, so every hint still
  // matches its slot and the fast path is taken.
  for (uint32_t id = 100; id < 150; id++) writer->write(row(id), true);
  ASSERT_GE(writer->buckets(), 4 * bucketsBefore);
  reader->resize();  // follows the doublings
  uint64_t const slowBefore = reader->readerCounters().nextSlowPath;
  for (auto const& [k, h] : held) {
    auto const wanted = successorOf(*reader, k);
    Mirak::IterHint hint2 = h;
    TestValue got;
    bool more = false;
    EXPECT_NO_THROW(more = reader->next(k, got, hint2)) << "after id " << k.id;
    ASSERT_EQ(more, wanted.first) << "after id " << k.id;
    if (more) {
      EXPECT_EQ(got.fwkKey().id, wanted.second) << "after id " << k.id;
    }
  }
  // Some hint named a bucket the doublings split; it took the slow path.
  EXPECT_GT(reader->readerCounters().nextSlowPath - slowBefore, held.size());
}

// ---------------------------------------------------------------------------
// Re-formats.

TEST(ReaderProtocol, AReaderAttachingWhileTheTableIsReformattedHashesWithTheNewSeed) {
  TempRoot root;
  auto writer = makeWriter();
  for (uint32_t id = 0; id < 100; id++) writer->write(row(id), true);
  uint32_t const oldSeed = writer->slotTable().header()->hashSeed;
  auto reader =
      std::make_unique<Mirak::MirakReader<SeedHookOps>>(handler(), kTable, SeedHookOps(0));
  // The reader has mapped the slot header and taken its seed; before it reads
  // the kestor file, the table is re-formatted and filled again.
  seedHook = [&] {
    writer = reformat(std::move(writer));
    for (uint32_t id = 0; id < 100; id++) writer->write(row(id), true);
  };
  bool const attached = reader->initialize("test");
  seedHook = nullptr;
  ASSERT_NE(writer->slotTable().header()->hashSeed, oldSeed);
  if (!attached) {
    ASSERT_TRUE(reader->initialize("test"));
  }
  EXPECT_EQ(reader->kestorId(), writer->kestorId());
  uint32_t absent = 0;
  for (uint32_t id = 0; id < 100; id++) {
    bool found = false;
    TestValue out;
    EXPECT_NO_THROW(reader->lookup(key(id), found, &out)) << "id " << id;
    absent += found ? 0 : 1;
  }
  EXPECT_EQ(absent, 0u);
}

TEST(ReaderProtocol, ATableReformattedUnderAnAttachedReaderReadsAsDetachedNeverAsCorrupt) {
  TempRoot root;
  auto writer = makeWriter();
  for (uint32_t id = 0; id < 300; id++) writer->write(row(id), true);
  auto reader = attachReader();
  bool found = false;
  reader->lookup(key(1), found, nullptr);
  ASSERT_TRUE(found);
  auto const slotVersion = writer->slotTable().header()->numSlots.version;
  auto const bucketVersion = writer->hashMap().bucketWriter().header()->numBuckets.version;
  ASSERT_GT(slotVersion, 0u);
  writer = reformat(std::move(writer));
  for (uint32_t id = 1000; id < 1300; id++) writer->write(row(id), true);
  // Readers on the old generation see both size versions move on, never
  // come back to one they knew.
  EXPECT_GT(writer->slotTable().header()->numSlots.version, slotVersion);
  EXPECT_GT(writer->hashMap().bucketWriter().header()->numBuckets.version, bucketVersion);

  EXPECT_TRUE(reader->reformatted());
  for (uint32_t id = 0; id < 1300; id += 7) {
    TestValue out;
    EXPECT_NO_THROW(reader->lookup(key(id), found, &out)) << "id " << id;
  }
  TestValue v;
  Mirak::IterHint hint;
  EXPECT_NO_THROW(EXPECT_FALSE(reader->first(v, hint)));
  EXPECT_EQ(reader->mountStatus(), Mem::mountStatusNotMounted);
  // A reader attached now sees the new generation.
  auto fresh = attachReader();
  fresh->lookup(key(1000), found, nullptr);
  EXPECT_TRUE(found);
  EXPECT_FALSE(fresh->reformatted());
}

// A lookup (single or bulk) stands on a row it has copied, its walk complete,
// while the writer re-formats the slot file under it; the bucket file's own
// re-format, which the writer's start does next, has not come yet. The copy
// cannot prove that it was not torn: a re-format rewrites the lookaside before
// the slots, and a slot whose overwrite was in flight still names the
// lookaside until its own turn. Only the slot header's size version, which
// the re-format moves before it formats anything, tells; so the lookup must
// drop what it read, and it answers as a detached reader.
TEST(ReaderProtocol, ALookupOverlappedByAReformatOfTheSlotFileDropsWhatItRead) {
  for (bool const bulk : {false, true}) {
    SCOPED_TRACE(bulk ? "lookupBulk" : "lookup");
    TempRoot root;
    auto writer = makeWriter();
    for (uint32_t id = 1; id <= 64; id++) writer->write(row(id, 100 + id), true);
    auto reader = attachReader();
    reader->resize();  // maps the slots
    // Rows that head their chains: after the slot file's re-format the walk
    // still reaches them over an unchanged link, the bucket file's head.
    auto& buckets = reader->hashMap().bucketReader();
    auto const& slots = reader->slotTable().slots();
    std::vector<TestKey> heads;
    for (uint32_t b = 0; b < buckets.numBuckets() && heads.size() < 4; b++) {
      uint32_t const first = buckets[b].next;
      if (!Mirak::SlotLink::isEndOfChain(first)) heads.push_back(slots[first].value.fwkKey());
    }
    ASSERT_EQ(heads.size(), 4u);
    // The pause: the last key's slot, copied and compared.
    TestKey const paused = heads.back();

    Baton readerRead, slotsFormatted;
    bool hookRan = false;
    uint32_t found = 0;
    std::vector<TestValue> out(heads.size());
    std::string error;
    std::thread readerThread([&] {
      testKeyCompareHook = [&](TestKey const& k) {
        // Fields, not ==, which would call this hook again.
        if (hookRan || k.id != paused.id || k.zone != paused.zone) return;
        hookRan = true;
        readerRead.post();
        slotsFormatted.wait();
      };
      try {
        if (bulk) {
          bool hit[4] = {};
          found = reader->lookupBulk(heads.data(), 4, out.data(), hit);
        } else {
          bool hit = false;
          reader->lookup(paused, hit, &out.back());
          found = hit;
        }
      } catch (std::exception const& e) {
        error = e.what();
      }
      testKeyCompareHook = nullptr;
    });
    readerRead.wait();
    uint64_t const followed = reader->readerCounters().resizesFollowed;
    writer->slotTable().attach(writer->kestorId().reformatted());
    slotsFormatted.post();
    readerThread.join();

    ASSERT_TRUE(hookRan);
    EXPECT_EQ(error, "");
    EXPECT_EQ(found, 0u) << "a row read across the re-format was returned";
    for (TestValue const& v : out) EXPECT_EQ(v.fwkKey(), TestKey{}) << "not the default value";
    EXPECT_TRUE(reader->reformatted());
    EXPECT_GT(reader->readerCounters().resizesFollowed, followed)
        << "the check after the operation never saw the re-format";
    EXPECT_EQ(reader->mountStatus(), Mem::mountStatusNotMounted);
  }
}

TEST(ReaderProtocol, AWriterAnchorAfterAnOverwriteOrDetachIsNoLongerCurrent) {
  TempRoot root;
  auto writer = makeWriter();
  writer->write(row(1), true);
  bool found = false;
  writer->lookup(key(1), found, nullptr);
  ASSERT_TRUE(writer->validateVersionAnchor());
  writer->write(row(1, 2), true);
  EXPECT_THROW(writer->validateVersionAnchor(), Mem::VersionMismatchException);
  writer->lookup(key(1), found, nullptr);
  ASSERT_TRUE(writer->validateVersionAnchor());
  writer->detach(false);
  EXPECT_THROW(writer->validateVersionAnchor(), Mem::VersionMismatchException);
}

}  // namespace
}  // namespace MirakTest
