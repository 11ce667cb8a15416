// The table validator on the seven flow tables, with their real change
// queues: a sound table after a random workload (validator, queue, a reader
// that agrees with the writer's model, a restart that adopts); crash damage fails every table with its own message; and
// each rule that ties the queue to the slots is broken in the queue's files,
// one word at a time, and reported with its own message.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "FlowTracking/ReaderTestUtil.h"
#include "FlowTracking/TableRows.h"
#include "FlowTracking/TableWriters.h"
#include "Lomi/Exception.h"
#include "Lomi/Util.h"
#include "Mirak/TempRoot.h"
#include "Mirak/Validator.h"
#include "Mirak/ValidatorSteps.h"
#include "Tessel/TesselFormat.h"

namespace FlowTrackingTest {
namespace {

constexpr uint32_t kNone = 0xffffffffu;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("TableValidatorTest");
}

template <typename Ops>
std::unique_ptr<Mirak::MirakWriter<Ops>> makeWriter(uint32_t size, char const* name) {
  Mirak::MapDescriptor d(size);
  auto w = std::make_unique<Mirak::MirakWriter<Ops>>(handler(), name, d, Ops(0));
  w->initialize("test");
  return w;
}

template <typename Writer>
std::string validateError(Writer& w) {
  std::string error;
  bool const ok = w.validate(w.kestorId(), error, false);
  EXPECT_EQ(ok, error.empty()) << error;
  return ok ? std::string("passed") : error;
}

template <typename Writer>
struct Steps : MirakTest::ValidatorSteps<Writer> {
  explicit Steps(Writer& w) : MirakTest::ValidatorSteps<Writer>(handler(), w) {}
};
using MirakTest::thrown;

void pwriteWord(std::string const& path, off_t offset, uint64_t value, size_t width) {
  int fd = ::open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(::pwrite(fd, &value, width, offset), static_cast<ssize_t>(width)) << path;
  ::close(fd);
}

// ---------------------------------------------------------------------------
// All seven tables.

template <typename Record>
class TableValidatorTest : public ::testing::Test {
 protected:
  using Ops = typename OpsOf<Record>::type;
  using Writer = Mirak::MirakWriter<Ops>;
  using Value = typename Ops::Value;
  static constexpr bool kQueue = Ops::TesselWriter::hasQueue;

  // Random writes, overwrites and removes over a key space that makes the
  // slot file grow past its first size.
  void workload(Writer& w, uint32_t seed) {
    std::mt19937 rng(seed);
    uint32_t const space = std::min<uint32_t>(keySpace<Record>(), 600);
    for (int op = 0; op < 3000; op++) {
      uint32_t const i = rng() % space;
      if (rng() % 4 == 0) {
        Value removed;
        w.remove(row<Record>(i).key(), removed);
      } else {
        w.write(row<Record>(i, op), true);
      }
    }
  }

  MirakTest::TempRoot root_;
};

TYPED_TEST_SUITE(TableValidatorTest, AllRecords);

// A random workload on each table, then everything that must hold of a
// sound table: the validator passes with every slot and queue position
// accounted for; the queue holds exactly one live entry per occupied slot; a
// reader in another object with its own mappings agrees with the writer's
// model key by key (absent keys give the default in the buffer) and walks
// exactly the model's keys, each once, in strictly increasing (rhash, key)
// order; and a restart adopts the files and passes again.
TYPED_TEST(TableValidatorTest, ASoundTableAfterARandomWorkload) {
  using Record = TypeParam;
  using Value = typename TestFixture::Value;
  using Key = typename Record::Key;
  constexpr char kName[] = "flowtracking/validator";
  uint32_t const seed = 20240611;
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  std::mt19937 rng(seed);
  uint32_t const keys = std::min<uint32_t>(keySpace<Record>(), 1500);
  auto w = makeSharedWriter<Record>(kName, sharedDescriptor(4096, true));
  auto reader = makeReader<Record>(kName);
  ASSERT_TRUE(reader->initialize("test"));
  EXPECT_EQ(reader->capacity(), 0u) << "slots are mapped on the first read";
  std::map<Key, Value> model;
  for (int op = 0; op < 6000; op++) {
    Value const v = row<Record>(rng() % keys, rng());
    if (rng() % 4 == 0) {
      Value removed;
      w->remove(v.fwkKey(), removed);
      model.erase(v.fwkKey());
    } else {
      w->write(v, true);
      model[v.fwkKey()] = v;
    }
  }
  ASSERT_EQ(w->members(), model.size());
  EXPECT_EQ(validateError(*w), "passed");
  {
    Steps<typename TestFixture::Writer> steps(*w);
    ASSERT_TRUE(steps.audit.doValidate(w->kestorId())) << steps.audit.error();
    EXPECT_EQ(steps.audit.occupiedCount(), w->members());
    EXPECT_EQ(steps.audit.occupiedCount() + steps.audit.freeCount(), w->capacity());
    // Every write notifies its slot: each occupied slot claims one position.
    EXPECT_EQ(steps.audit.tesselCount(), TestFixture::kQueue ? w->members() : 0u);
  }
  auto const& q = w->tesselWriter();
  if constexpr (TestFixture::kQueue) {
    std::map<uint32_t, uint32_t> live;
    for (uint32_t pos = 0; pos < q.entryCount(); pos++) {
      if (!q.entry(pos).isTombstone()) live[q.entry(pos).slot]++;
    }
    auto const& slots = w->slotTable().slots();
    for (uint32_t i = 0; i < w->capacity(); i++) {
      if (slots[i].versionFlags & Mirak::SlotTable::OCCUPIED) {
        EXPECT_EQ(live[i], 1u) << "slot " << i;
      }
    }
    for (auto const& [slot, count] : live) EXPECT_EQ(count, 1u) << "slot " << slot;
  } else {
    EXPECT_EQ(q.entryCount(), 0u);
    EXPECT_FALSE(std::filesystem::exists(w->rootPath().filePath("tessel")));
  }

  for (uint32_t i = 0; i < keys; i++) {
    Value buffer = row<Record>(i, 77);
    bool found = true;
    Value const* p = reader->lookup(row<Record>(i).fwkKey(), found, &buffer);
    auto it = model.find(row<Record>(i).fwkKey());
    ASSERT_EQ(found, it != model.end()) << "key " << i;
    EXPECT_EQ(p, found ? &buffer : &OpsOf<Record>::type::defaultValue());
    EXPECT_TRUE(buffer == (found ? it->second : Value())) << "key " << i;
  }
  EXPECT_EQ(reader->members(), model.size());
  EXPECT_EQ(reader->buckets(), w->buckets());
  EXPECT_EQ(reader->readerCounters().lookups, keys);
  std::set<Key> seen;
  Value v;
  Mirak::IterHint hint;
  std::optional<std::pair<uint32_t, Key>> prev;
  for (bool ok = reader->first(v, hint); ok; ok = reader->next(v.fwkKey(), v, hint)) {
    std::pair<uint32_t, Key> const order{Lomi::Util::reverse(reader->ops().hash(v.fwkKey())),
                                         v.fwkKey()};
    ASSERT_TRUE(!prev || *prev < order) << "walk order must strictly increase";
    prev = order;
    auto it = model.find(v.fwkKey());
    ASSERT_NE(it, model.end());
    EXPECT_TRUE(v == it->second);
    EXPECT_TRUE(seen.insert(v.fwkKey()).second);
  }
  EXPECT_EQ(seen.size(), model.size());

  Parcel::KestorId const kestor = w->kestorId();
  uint32_t const hashSeed = w->ops().hashSeed();
  w->scratchpadIs(0xfeedface12345678ull);
  w.reset();
  w = makeSharedWriter<Record>(kName, sharedDescriptor(4096, true));
  ASSERT_EQ(w->kestorId(), kestor);
  ASSERT_EQ(w->members(), model.size()) << "the files were adopted";
  EXPECT_EQ(w->ops().hashSeed(), hashSeed);
  EXPECT_EQ(w->scratchpad(), 0xfeedface12345678ull) << "the agent's word is adopted too";
  EXPECT_EQ(validateError(*w), "passed");
}

// Crash damage, one at a time and undone again: a critical section left open
// (written through the file, as a crashed process leaves it), an overwrite
// that left its lookaside bit, a cycle in the free list.
TYPED_TEST(TableValidatorTest, CrashDamageFailsWithItsMessage) {
  auto w = makeWriter<typename TestFixture::Ops>(1000, "flowtracking/validator");
  this->workload(*w, 6);
  std::string const slots = w->rootPath().filePath("slots");
  pwriteWord(slots, offsetof(Mirak::SlotTable::Header, runtimeFlags), 1, 2);
  EXPECT_EQ(validateError(*w), "bad critical section runtimeFlags:1");
  pwriteWord(slots, offsetof(Mirak::SlotTable::Header, runtimeFlags), 0, 2);
  ASSERT_EQ(validateError(*w), "passed");

  typename TestFixture::Value v;
  Mirak::IterHint hint{};
  ASSERT_TRUE(w->first(v, hint));
  auto& s = w->slotTable().slots()[hint.slotIndex];
  uint32_t const word = s.versionFlags;
  s.versionFlags = word + Mirak::SlotTable::LOOKASIDE;
  EXPECT_EQ(validateError(*w),
            fmt::format("stuck LOOKASIDE bit: {:#x}", word + Mirak::SlotTable::LOOKASIDE));
  s.versionFlags = word;
  ASSERT_EQ(validateError(*w), "passed");

  uint32_t const head = w->slotTable().header()->freeSlots;
  ASSERT_NE(head, kNone);
  w->slotTable().slots()[head].link.next = head;
  EXPECT_EQ(validateError(*w), fmt::format("duplicate freeSlot detected: {}", head));
}

// ---------------------------------------------------------------------------
// The queue rules, on HoIpFlowConfig.

class QueueValidatorTest : public ::testing::Test {
 protected:
  using Writer = FlowTracking::HoIpFlowConfigWriter;
  using Value = Writer::Value;

  void SetUp() override {
    w_ = makeWriter<FlowTracking::HoIpFlowConfigOps>(1000, "flowtracking/queue");
    for (uint32_t i = 0; i < 100; i++) w_->write(row<HoIpFlowConfig>(i, 1), true);
    for (uint32_t i = 0; i < 10; i++) w_->write(row<HoIpFlowConfig>(i, 2), true);
    for (uint32_t i = 90; i < 100; i++) {
      Value removed;
      ASSERT_TRUE(w_->remove(row<HoIpFlowConfig>(i).key(), removed));
    }
    ASSERT_EQ(validateError(*w_), "passed");
    auto const& q = w_->tesselWriter();
    for (uint32_t pos = 0; pos < q.entryCount(); pos++) {
      auto const n = q.entry(pos);
      if (n.isTombstone()) {
        tombstones_.push_back(pos);
      } else if (w_->slotTable().slots()[n.slot].versionFlags & Mirak::SlotTable::OCCUPIED) {
        occupied_.push_back(n.slot);
      } else {
        freed_.push_back(n.slot);
      }
    }
    ASSERT_FALSE(tombstones_.empty());
    ASSERT_GE(occupied_.size(), 2u);
    ASSERT_FALSE(freed_.empty());
  }

  Writer::TesselWriter const& queue() const { return w_->tesselWriter(); }
  uint32_t posOf(uint32_t slot) const { return queue().tesselSlots(slot); }
  uint64_t seqAt(uint32_t pos) const { return queue().entry(pos).sequence; }
  // The slot field of entry `pos` of the current notification table.
  void entrySlotIs(uint32_t pos, uint32_t slot) {
    pwriteWord(Tessel::tableFilePath(queue().dir(), queue().currentTable()),
               sizeof(Tessel::TesselTableHeader) + 8 * pos + 4, slot, 4);
  }
  // The back reference of `slot` in the queue's header file.
  void backReferenceIs(uint32_t slot, uint32_t pos) {
    pwriteWord(Tessel::headerFilePath(queue().dir()), sizeof(Tessel::TesselHeader) + 4 * slot, pos,
               4);
  }
  void corralIs(uint64_t start, uint64_t end) {
    std::string const path = Tessel::headerFilePath(queue().dir());
    pwriteWord(path, offsetof(Tessel::TesselHeader, corralStart), start, 8);
    pwriteWord(path, offsetof(Tessel::TesselHeader, corralEnd), end, 8);
  }

  MirakTest::TempRoot root_;
  std::unique_ptr<Writer> w_;
  std::vector<uint32_t> tombstones_;  // positions
  std::vector<uint32_t> occupied_;    // slots with their live entry, in queue order
  std::vector<uint32_t> freed_;       // removed slots with their removal's entry
};

TEST_F(QueueValidatorTest, TwoLiveEntriesForAnOccupiedSlot) {
  uint32_t const slot = occupied_.back();
  uint32_t const stale = tombstones_.front();
  entrySlotIs(stale, slot);
  // The queue's own check sees it first.
  EXPECT_EQ(validateError(*w_),
            fmt::format("{} slot:{} has a second live entry at pos:{} seq:{}; its back reference "
                        "is pos:{}",
                        queue().name(), slot, stale, seqAt(stale), posOf(slot)));
  // The validator's queue walk, run by hand, finds the stale one unclaimed.
  Steps<Writer> steps(*w_);
  ASSERT_TRUE(steps.audit.walkOccupiedSlots()) << steps.audit.error();
  ASSERT_TRUE(steps.audit.walkFreeSlots()) << steps.audit.error();
  EXPECT_FALSE(steps.audit.walkTesselQueue());
  EXPECT_EQ(steps.audit.error(),
            fmt::format("occupied slot:{} on deleted notification:{}", slot, stale));
}

TEST_F(QueueValidatorTest, TwoLiveEntriesForAFreeSlot) {
  uint32_t const slot = freed_.front();
  uint32_t const stale = tombstones_.front();
  entrySlotIs(stale, slot);
  EXPECT_NE(validateError(*w_), "passed");
  Steps<Writer> steps(*w_);
  ASSERT_TRUE(steps.audit.walkOccupiedSlots()) << steps.audit.error();
  ASSERT_TRUE(steps.audit.walkFreeSlots()) << steps.audit.error();
  EXPECT_FALSE(steps.audit.walkTesselQueue());
  EXPECT_EQ(steps.audit.error(),
            fmt::format("tessel pos:{} has slot:{} seq:{} with wrong tesselSlot:{}", stale, slot,
                        seqAt(stale), posOf(slot)));
}

TEST_F(QueueValidatorTest, OccupiedSlotWithoutItsNotification) {
  uint32_t const slot = occupied_.front();
  uint32_t const pos = posOf(slot);
  backReferenceIs(slot, kNone);
  EXPECT_NE(validateError(*w_), "passed");
  Steps<Writer> steps(*w_);
  // A slot without a position is fine to the chain walk ...
  ASSERT_TRUE(steps.audit.walkOccupiedSlots()) << steps.audit.error();
  EXPECT_EQ(steps.audit.tesselCount(), occupied_.size() - 1);
  ASSERT_TRUE(steps.audit.walkFreeSlots()) << steps.audit.error();
  // ... but its live notification is claimed by nobody.
  EXPECT_FALSE(steps.audit.walkTesselQueue());
  EXPECT_EQ(steps.audit.error(),
            fmt::format("occupied slot:{} on deleted notification:{}", slot, pos));
}

TEST_F(QueueValidatorTest, BackReferenceBeyondTheQueue) {
  uint32_t const slot = occupied_[1];
  uint32_t const pos = posOf(slot);
  uint32_t const size = queue().entryCount();
  backReferenceIs(slot, size + 5);
  // The queue's own check meets the notification that lost its claim first.
  EXPECT_EQ(validateError(*w_),
            fmt::format("{} slot:{} has a second live entry at pos:{} seq:{}; its back reference "
                        "is pos:{}",
                        queue().name(), slot, pos, seqAt(pos), size + 5));
  Steps<Writer> steps(*w_);
  EXPECT_EQ(thrown([&] { steps.audit.walkOccupiedSlots(); }),
            fmt::format("slot:{} bad tessel index:{} size:{}", slot, size + 5, size));
}

TEST_F(QueueValidatorTest, BackReferenceToAnotherSlotsNotification) {
  uint32_t const slot = occupied_[0];
  uint32_t const other = occupied_[1];
  uint32_t const theirs = posOf(other);
  backReferenceIs(slot, theirs);
  EXPECT_NE(validateError(*w_), "passed");
  Steps<Writer> steps(*w_);
  EXPECT_EQ(thrown([&] { steps.audit.walkOccupiedSlots(); }),
            fmt::format("slot:{} bad notification:{} slot:{}", slot, theirs, other));
}

TEST_F(QueueValidatorTest, FreeSlotWithAPositionBeyondTheQueue) {
  uint32_t const slot = freed_.front();
  uint32_t const size = queue().entryCount();
  backReferenceIs(slot, size + 3);
  EXPECT_NE(validateError(*w_), "passed");
  Steps<Writer> steps(*w_);
  ASSERT_TRUE(steps.audit.walkOccupiedSlots()) << steps.audit.error();
  EXPECT_FALSE(steps.audit.walkFreeSlots());
  EXPECT_EQ(steps.audit.error(),
            fmt::format("slot index:{} has out of range tessel slot: {}", slot, size + 3));
}

TEST_F(QueueValidatorTest, FreeSlotWithAnotherSlotsPosition) {
  uint32_t const slot = freed_.front();
  uint32_t const other = occupied_.front();
  uint32_t const theirs = posOf(other);
  backReferenceIs(slot, theirs);
  EXPECT_NE(validateError(*w_), "passed");
  Steps<Writer> steps(*w_);
  ASSERT_TRUE(steps.audit.walkOccupiedSlots()) << steps.audit.error();
  EXPECT_FALSE(steps.audit.walkFreeSlots());
  EXPECT_EQ(steps.audit.error(), fmt::format("slot index:{} has slot:{} with wrong tessel slot:{}",
                                             slot, other, theirs));
}

TEST_F(QueueValidatorTest, OpenCorralHoldingACurrentPosition) {
  // A compaction of slots that never finished: its corral is open, and the
  // notification at its start is still its slot's current one.
  uint32_t const slot = occupied_.back();
  uint32_t const pos = posOf(slot);
  uint64_t const seq = seqAt(pos);
  corralIs(seq, 0);
  EXPECT_EQ(validateError(*w_),
            fmt::format("{} pos:{} seq:{} slot:{} is current inside the corral [{}, {}]",
                        queue().name(), pos, seq, slot, seq, 0));
  Steps<Writer> steps(*w_);
  ASSERT_TRUE(steps.audit.walkOccupiedSlots()) << steps.audit.error();
  ASSERT_TRUE(steps.audit.walkFreeSlots()) << steps.audit.error();
  EXPECT_FALSE(steps.audit.walkTesselQueue());
  EXPECT_EQ(steps.audit.error(),
            fmt::format("corral pos:{} seq:{} slot:{} tesselPos:{}", pos, seq, slot, pos));
}

TEST_F(QueueValidatorTest, ClosedCorralPassesAndAnOpenOneFails) {
  // The queue's side of a slot compaction, driven through the writer's own
  // queue: moves notify the new place and tombstone the old.
  auto& q = w_->tesselWriter();
  q.markShrinkStart();
  for (uint32_t i = 10; i < 20; i++) w_->write(row<HoIpFlowConfig>(i, 3), true);
  EXPECT_NE(validateError(*w_), "passed") << "an open corral is a crash inside a compaction";
  q.markShrinkEnd();
  EXPECT_EQ(validateError(*w_), "passed");
}

TEST_F(QueueValidatorTest, ActiveTombstone) {
  // The queue changing under a validator between its walks: a claimed
  // position turned into a tombstone.
  uint32_t const slot = occupied_.front();
  uint32_t const pos = posOf(slot);
  Steps<Writer> steps(*w_);
  ASSERT_TRUE(steps.audit.walkOccupiedSlots()) << steps.audit.error();
  ASSERT_TRUE(steps.audit.walkFreeSlots()) << steps.audit.error();
  entrySlotIs(pos, kNone);
  EXPECT_FALSE(steps.audit.walkTesselQueue());
  EXPECT_EQ(steps.audit.error(), fmt::format("active tombstone pos:{}", pos));
}

}  // namespace
}  // namespace FlowTrackingTest
