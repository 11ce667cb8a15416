// The table validator on the write-path test table, on real files: sound
// tables of every shape pass with every slot accounted for; each kind of
// damage that a crash or a stray store can leave in the slot and bucket files
// is made by changing one named word, and fails with its own message. (The
// queue rules are tested on the flow tables, whose queue is real:
// tests/FlowTracking/TableValidator_test.cpp.)
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/TempRoot.h"
#include "Mirak/Validator.h"
#include "Mirak/WriterTestPolicy.h"

namespace MirakTest {
namespace {

using Writer = Mirak::MirakWriter<WriterOps>;
using Audit = Mirak::Validator<WriterOps, Writer>;
using Link = Mirak::SlotLink;
constexpr uint32_t kNoSlot = 0xffffffffu;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("ValidatorTest");
}

TestValue row(uint32_t id, uint64_t count = 1) {
  TestRecord r;
  r.key_.id = id;
  r.count = count;
  r.flags = id * 3;
  return TestValue(r);
}

struct Shape {
  char const* name;
  bool local;
  bool fixedSize;
  uint32_t size;
  uint32_t rows;     // written first
  uint32_t removes;  // then removed, chosen at random
};

std::ostream& operator<<(std::ostream& os, Shape const& s) {
  return os << s.name;
}

std::unique_ptr<Writer> makeTable(Shape const& s, char const* name = "validator/table") {
  Mirak::MapDescriptor d(s.size);
  d.local = s.local;
  d.fixedSize = s.fixedSize;
  auto w = std::make_unique<Writer>(handler(), name, d, WriterOps(0));
  w->initialize("test");
  return w;
}

// Fills a table by the shape: `rows` rows, then `removes` of them removed at
// random (seed printed by the caller's trace).
void fill(Writer& w, Shape const& s, uint32_t seed) {
  for (uint32_t i = 0; i < s.rows; i++) w.write(row(i, i), true);
  std::mt19937 rng(seed);
  std::vector<uint32_t> ids(s.rows);
  for (uint32_t i = 0; i < s.rows; i++) ids[i] = i;
  std::shuffle(ids.begin(), ids.end(), rng);
  for (uint32_t i = 0; i < s.removes; i++) {
    TestValue gone;
    ASSERT_TRUE(w.remove(row(ids[i]).key(), gone));
  }
}

std::string validateError(Writer& w, Parcel::KestorId kestor) {
  std::string error;
  bool const ok = w.validate(kestor, error, false);
  EXPECT_EQ(ok, error.empty()) << "a failure comes with a reason, a pass without: " << error;
  return ok ? std::string("passed") : error;
}
std::string validateError(Writer& w) {
  return validateError(w, w.kestorId());
}

// A validator run step by step, made known to the hash map while it lives.
struct Steps {
  explicit Steps(Writer& w) : writer(w), audit(handler(), w) {
    writer.hashMap().validatorIs(&audit);
    audit.fitTesselMarks();
  }
  ~Steps() { writer.hashMap().validatorIs(nullptr); }
  Writer& writer;
  Audit audit;
};

// The text of the Lomi::CorruptionDetectedException that `f` throws.
std::string thrown(std::function<void()> const& f) {
  try {
    f();
  } catch (Lomi::CorruptionDetectedException const& e) {
    return e.msg();
  }
  return "nothing thrown";
}

Mirak::SlotTable::Header& header(Writer& w) {
  return *w.slotTable().header();
}
Writer::SlotT& slotAt(Writer& w, uint32_t i) {
  return w.slotTable().slots()[i];
}

// Slot indices in walk order.
std::vector<uint32_t> walkOrder(Writer& w) {
  std::vector<uint32_t> out;
  TestValue v;
  Mirak::IterHint hint{};
  for (bool ok = w.first(v, hint); ok; ok = w.next(TestKey(v.key()), v, hint)) {
    out.push_back(hint.slotIndex);
  }
  return out;
}

std::vector<uint32_t> freeList(Writer& w) {
  std::vector<uint32_t> out;
  for (uint32_t i = header(w).freeSlots; i != kNoSlot; i = slotAt(w, i).link.next) out.push_back(i);
  return out;
}

// The link that points at the entry of `key`: a bucket head or a slot's link.
Link* predecessorOf(Writer& w, TestKey const& key) {
  uint32_t const hash = w.ops().hash(key);
  Link* prev;
  Link* curr;
  EXPECT_TRUE(w.hashMap().find(key, w.hashMap().bucketOf(hash), &prev, &curr, hash));
  return prev;
}

// Writes `bytes` at `offset` of the table's slot file, as another process
// would: the writer sees it through its shared mapping.
void pwriteSlotFile(Writer& w, off_t offset, void const* bytes, size_t n) {
  int fd = ::open(w.slotTable().wrapper().getFilename().c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::pwrite(fd, bytes, n, offset), static_cast<ssize_t>(n));
  ::close(fd);
}

// ---------------------------------------------------------------------------
// Sound tables of every shape pass, and the walks account for every slot.

class ValidatorSoundTable : public ::testing::TestWithParam<Shape> {};

TEST_P(ValidatorSoundTable, PassesWithEverySlotOnExactlyOneList) {
  TempRoot root;
  Shape const s = GetParam();
  uint32_t const seed = 4711;
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  auto w = makeTable(s);
  fill(*w, s, seed);
  EXPECT_EQ(validateError(*w), "passed");
  EXPECT_TRUE(w->validate());
  EXPECT_EQ(validateError(*w, Parcel::KestorId()), "passed") << "kestor 0 takes any";

  size_t const walked = walkOrder(*w).size();
  size_t const freeSlots = freeList(*w).size();
  Steps steps(*w);
  ASSERT_TRUE(steps.audit.doValidate(w->kestorId())) << steps.audit.error();
  EXPECT_EQ(steps.audit.occupiedCount(), s.rows - s.removes);
  EXPECT_EQ(steps.audit.occupiedCount(), walked);
  EXPECT_EQ(steps.audit.freeCount(), freeSlots);
  EXPECT_EQ(steps.audit.occupiedCount() + steps.audit.freeCount(), w->capacity());
  EXPECT_EQ(steps.audit.tesselCount(), 0u) << "the recording queue has nothing to audit";
  EXPECT_TRUE(steps.audit.error().empty());
}

TEST_P(ValidatorSoundTable, LeavesTheFilesAndTheHashMapAsItFoundThem) {
  TempRoot root;
  Shape const s = GetParam();
  auto w = makeTable(s);
  fill(*w, s, 99);
  std::string const before = w->dumpHeaders();
  std::vector<uint32_t> const order = walkOrder(*w);
  ASSERT_EQ(validateError(*w), "passed");
  EXPECT_EQ(w->dumpHeaders(), before);
  EXPECT_EQ(walkOrder(*w), order);
  // Still writable (an overwrite, or an insert into an emptied table): the
  // validator was taken away from the map and the critical bit is clear.
  w->write(row(0, 5), true);
  EXPECT_EQ(validateError(*w), "passed");
}

INSTANTIATE_TEST_SUITE_P(Shapes, ValidatorSoundTable,
                         ::testing::Values(Shape{"Empty", false, false, 100, 0, 0},
                                           Shape{"EmptyLocal", true, false, 100, 0, 0},
                                           Shape{"Grown", false, false, 1000, 700, 0},
                                           Shape{"GrownThenThinned", false, false, 1000, 900, 450},
                                           Shape{"FullFixed", false, true, 64, 64, 0},
                                           Shape{"FixedEmptiedAgain", true, true, 64, 64, 64},
                                           Shape{"PastMaxSlots", false, false, 50, 300, 10}),
                         [](auto const& info) { return std::string(info.param.name); });

TEST(ValidatorSoundTable, FullTableHasNoFreeList) {
  TempRoot root;
  auto w = makeTable(Shape{"", false, true, 32, 32, 0});
  fill(*w, Shape{"", false, true, 32, 32, 0}, 1);
  ASSERT_EQ(header(*w).freeSlots, kNoSlot);
  Steps steps(*w);
  EXPECT_TRUE(steps.audit.walkFreeSlots());
  EXPECT_EQ(steps.audit.freeCount(), 0u);
}

// ---------------------------------------------------------------------------
// Damage. Each test changes one named word of a sound table.

class ValidatorDamage : public ::testing::Test {
 protected:
  void SetUp() override {
    w_ = makeTable(Shape{"", false, false, 1000, 0, 0});
    fill(*w_, Shape{"", false, false, 1000, 200, 50}, 2024);
    ASSERT_EQ(validateError(*w_), "passed");
    order_ = walkOrder(*w_);
    free_ = freeList(*w_);
    ASSERT_EQ(order_.size(), 150u);
    ASSERT_GT(free_.size(), 3u);
  }

  TempRoot root_;
  std::unique_ptr<Writer> w_;
  std::vector<uint32_t> order_;  // occupied slots in walk order
  std::vector<uint32_t> free_;   // the free list in order
};

TEST_F(ValidatorDamage, CriticalSectionLeftOpenByACrash) {
  uint16_t const flags = 1;
  pwriteSlotFile(*w_, offsetof(Mirak::SlotTable::Header, runtimeFlags), &flags, sizeof flags);
  EXPECT_EQ(validateError(*w_), "bad critical section runtimeFlags:1");
  EXPECT_FALSE(w_->validate());
}

TEST_F(ValidatorDamage, CriticalSectionOfAnEscapedExceptionFailsToo) {
  // The write path leaves the bit up when an exception escapes a critical
  // section; here an entered section that was never left.
  w_->slotTable().enterCriticalSection();
  EXPECT_EQ(validateError(*w_), "bad critical section runtimeFlags:1");
  w_->slotTable().leaveCriticalSection();
  EXPECT_EQ(validateError(*w_), "passed");
}

TEST_F(ValidatorDamage, StuckLookasideBit) {
  // One in the middle of the walk: reached by next(), whose slow path meets
  // the slot again; the first failure is the one reported.
  uint32_t const victim = order_[order_.size() / 2];
  uint32_t const word = slotAt(*w_, victim).versionFlags | Mirak::SlotTable::LOOKASIDE;
  slotAt(*w_, victim).versionFlags = word;
  EXPECT_EQ(validateError(*w_), fmt::format("stuck LOOKASIDE bit: {:#x}", word));
}

TEST_F(ValidatorDamage, StuckLookasideBitOnTheFirstSlotOfTheWalk) {
  uint32_t const victim = order_.front();
  uint32_t const word = slotAt(*w_, victim).versionFlags | Mirak::SlotTable::LOOKASIDE;
  slotAt(*w_, victim).versionFlags = word;
  EXPECT_EQ(validateError(*w_), fmt::format("stuck LOOKASIDE bit: {:#x}", word));
}

TEST_F(ValidatorDamage, FreeListCycle) {
  // The third free slot points back at the first.
  slotAt(*w_, free_[2]).link.next = free_[0];
  EXPECT_EQ(validateError(*w_), fmt::format("duplicate freeSlot detected: {}", free_[0]));
}

TEST_F(ValidatorDamage, ChainCycleOfOneSlot) {
  uint32_t const victim = order_[order_.size() / 3];
  slotAt(*w_, victim).link.next = victim;
  EXPECT_EQ(validateError(*w_), fmt::format("duplicate slot: {}", victim));
}

TEST_F(ValidatorDamage, ChainCycleBackToAnEarlierEntryOfTheChain) {
  // Two neighbours of one chain; the second points back at the first.
  uint32_t first = kNoSlot, second = kNoSlot;
  for (uint32_t s : order_) {
    uint32_t const next = slotAt(*w_, s).link.next;
    if (!Link::isEndOfChain(next)) {
      first = s;
      second = next;
      break;
    }
  }
  ASSERT_NE(first, kNoSlot) << "no chain of two entries";
  slotAt(*w_, second).link.next = first;
  EXPECT_EQ(validateError(*w_), fmt::format("duplicate slot: {}", first));
}

TEST_F(ValidatorDamage, OccupiedSlotOnTheFreeList) {
  uint32_t const occupied = order_[7];
  header(*w_).freeSlots = occupied;
  EXPECT_EQ(validateError(*w_),
            fmt::format("corrupted free slot not marked as empty: {}", occupied));
}

TEST_F(ValidatorDamage, OccupiedSlotJoinedToTheEndOfTheFreeList) {
  uint32_t const occupied = order_[11];
  slotAt(*w_, free_.back()).link.next = occupied;
  EXPECT_EQ(validateError(*w_),
            fmt::format("corrupted free slot not marked as empty: {}", occupied));
}

TEST_F(ValidatorDamage, SlotCutOutOfItsChain) {
  uint32_t const victim = order_[20];
  Link* prev = predecessorOf(*w_, slotAt(*w_, victim).value.key());
  prev->next = slotAt(*w_, victim).link.next;
  EXPECT_EQ(validateError(*w_), "mismatch header->occupiedSlots:150 count:149");
}

TEST_F(ValidatorDamage, SlotOnNeitherListWithTheCounterToMatch) {
  // A slot in no chain, and occupiedSlots made to agree with the chains: only
  // the sum of the two walks shows the lost slot.
  uint32_t const victim = order_[20];
  Link* prev = predecessorOf(*w_, slotAt(*w_, victim).value.key());
  prev->next = slotAt(*w_, victim).link.next;
  header(*w_).occupiedSlots = 149;
  uint32_t const capacity = w_->capacity();
  uint32_t const freeCount = static_cast<uint32_t>(free_.size());
  EXPECT_EQ(validateError(*w_),
            fmt::format("bad slotCount:{} occupiedSlots:149 freeSlots:{} capacity:{}",
                        149 + freeCount, freeCount, capacity));
}

TEST_F(ValidatorDamage, FreeSlotLostFromTheFreeList) {
  header(*w_).freeSlots = free_[1];
  uint32_t const capacity = w_->capacity();
  uint32_t const freeCount = static_cast<uint32_t>(free_.size()) - 1;
  EXPECT_EQ(validateError(*w_),
            fmt::format("bad slotCount:{} occupiedSlots:150 freeSlots:{} capacity:{}", capacity - 1,
                        freeCount, capacity));
}

TEST_F(ValidatorDamage, OccupiedSlotsBelowTheChains) {
  header(*w_).occupiedSlots = 149;
  EXPECT_EQ(validateError(*w_), "walkedSlots:150 is greater than header->occupiedSlots:149");
}

TEST_F(ValidatorDamage, OccupiedSlotsAboveTheChains) {
  header(*w_).occupiedSlots = 151;
  EXPECT_EQ(validateError(*w_), "mismatch header->occupiedSlots:151 count:150");
}

TEST_F(ValidatorDamage, FreeListIndexBeyondTheCapacity) {
  uint32_t const capacity = w_->capacity();
  slotAt(*w_, free_[1]).link.next = capacity + 1;
  EXPECT_EQ(validateError(*w_),
            fmt::format("corrupted free slot detected with out of bound index: {}", capacity + 1));
}

TEST_F(ValidatorDamage, FreeListIndexEqualToTheCapacity) {
  uint32_t const capacity = w_->capacity();
  slotAt(*w_, free_[1]).link.next = capacity;
  EXPECT_EQ(validateError(*w_),
            fmt::format("out-of-range index: {} max:{}", capacity, capacity - 1));
}

TEST_F(ValidatorDamage, RhashOfASlot) {
  uint32_t const victim = order_.front();
  uint32_t const good = slotAt(*w_, victim).rhash;
  slotAt(*w_, victim).rhash = good ^ 0x10u;
  EXPECT_EQ(validateError(*w_),
            fmt::format("corrupt rhash detected, slotId: {} slot.rhash:{:08x} rhash:{:08x}", victim,
                        good ^ 0x10u, good));
}

TEST_F(ValidatorDamage, SlotHeaderChecksRunFirst) {
  // Part of the constant fields: the checksum no longer matches.
  header(*w_).maxSlots += 1;
  uint32_t const computed = header(*w_).checksum();
  EXPECT_EQ(validateError(*w_),
            fmt::format("checksum fail: {:x} != {:x}", computed, header(*w_).hash));
}

TEST_F(ValidatorDamage, AnotherWritersKestor) {
  Parcel::KestorId const other = w_->kestorId().reformatted();
  EXPECT_EQ(validateError(*w_, other),
            fmt::format("bad kestor:{} wanted:{}", w_->kestorId(), other));
}

TEST_F(ValidatorDamage, BucketFileHeader) {
  // The bucket count stored in the file no longer matches the mapping.
  auto& count = w_->hashMap().bucketWriter().header()->numBuckets;
  uint32_t const mapped = w_->buckets();
  count.value = mapped * 2;
  std::string const error = validateError(*w_);
  EXPECT_NE(error, "passed");
  std::string expected;
  EXPECT_FALSE(w_->hashMap().bucketWriter().validate(w_->kestorId().value(), expected));
  EXPECT_EQ(error, expected) << "the bucket file's own message";
}

TEST_F(ValidatorDamage, DamagedTableIsLeftAsItWas) {
  // Validation stores nothing: the damage is still there, and so are the
  // counters it compared.
  header(*w_).occupiedSlots = 151;
  std::string const before = w_->dumpHeaders();
  EXPECT_NE(validateError(*w_), "passed");
  EXPECT_EQ(w_->dumpHeaders(), before);
}

// ---------------------------------------------------------------------------
// markOccupied, called by hand: the checks the hash map's own walk never lets
// through.

TEST_F(ValidatorDamage, MarkingAFreeSlotFindsNoOccupiedBit) {
  Steps steps(*w_);
  uint32_t const word = slotAt(*w_, free_[0]).versionFlags;
  EXPECT_EQ(thrown([&] { steps.audit.markOccupied(free_[0]); }),
            fmt::format("missing OCCUPIED bit: {:#x}", word));
  EXPECT_EQ(steps.audit.error(), fmt::format("missing OCCUPIED bit: {:#x}", word));
}

TEST_F(ValidatorDamage, MarkingASlotTwice) {
  Steps steps(*w_);
  steps.audit.markOccupied(order_[3]);
  EXPECT_EQ(thrown([&] { steps.audit.markOccupied(order_[3]); }),
            fmt::format("duplicate slot: {}", order_[3]));
  EXPECT_EQ(steps.audit.occupiedCount(), 1u);
}

TEST_F(ValidatorDamage, MarkingASlotBeyondTheTable) {
  Steps steps(*w_);
  uint32_t const capacity = w_->capacity();
  EXPECT_EQ(thrown([&] { steps.audit.markOccupied(capacity); }),
            fmt::format("local array index {} is out of range, size {}", capacity, capacity));
}

// ---------------------------------------------------------------------------
// The writer's side.

TEST(ValidatorWriter, DetachedTableFailsWithAReason) {
  TempRoot root;
  auto w = makeTable(Shape{"", false, false, 100, 0, 0});
  w->detach(false);
  std::string error;
  EXPECT_FALSE(w->validate(w->kestorId(), error, false));
  EXPECT_NE(error.find("not attached"), std::string::npos) << error;
}

TEST(ValidatorWriter, DumpHeadersNamesTheTableAndShowsBothHeaders) {
  TempRoot root;
  auto w = makeTable(Shape{"", false, false, 100, 0, 0}, "validator/dump");
  w->write(row(1), true);
  std::string const dump = w->dumpHeaders();
  EXPECT_EQ(dump, fmt::format("Mirak table \"validator/dump\"\n\n\n{}\n\n{}\n\n",
                              header(*w).toString(), w->hashMap().bucketWriter().toString()));
  EXPECT_NE(dump.find("occupiedSlots:1 "), std::string::npos) << dump;
}

}  // namespace
}  // namespace MirakTest
