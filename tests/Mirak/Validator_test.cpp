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
#include <cstdlib>
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
#include "Mirak/ValidatorSteps.h"
#include "Mirak/WriterTestPolicy.h"
#include "Tessel/DummyTesselWriter.h"

namespace MirakTest {
namespace {

using Writer = Mirak::MirakWriter<WriterOps>;
using Audit = Mirak::Validator<WriterOps, Writer>;
using Link = Mirak::SlotLink;
constexpr uint32_t kNoSlot = 0xffffffffu;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("ValidatorTest");
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

struct Steps : ValidatorSteps<Writer> {
  explicit Steps(Writer& w) : ValidatorSteps(handler(), w) {}
};

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

// A sound table passes with every slot on exactly one list, and validation
// leaves the files and the hash map as it found them.
TEST_P(ValidatorSoundTable, PassesWithEverySlotOnOneListAndChangesNothing) {
  TempRoot root;
  Shape const s = GetParam();
  uint32_t const seed = 4711;
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  auto w = makeTable(s);
  fill(*w, s, seed);
  std::string const before = w->dumpHeaders();
  std::vector<uint32_t> const order = walkOrder(*w);
  EXPECT_EQ(validateError(*w), "passed");
  EXPECT_TRUE(w->validate());
  EXPECT_EQ(validateError(*w, Parcel::KestorId()), "passed") << "kestor 0 takes any";
  EXPECT_EQ(w->dumpHeaders(), before);
  EXPECT_EQ(walkOrder(*w), order);

  size_t const freeSlots = freeList(*w).size();
  {
    Steps steps(*w);
    ASSERT_TRUE(steps.audit.doValidate(w->kestorId())) << steps.audit.error();
    EXPECT_EQ(steps.audit.occupiedCount(), s.rows - s.removes);
    EXPECT_EQ(steps.audit.occupiedCount(), order.size());
    EXPECT_EQ(steps.audit.freeCount(), freeSlots);
    EXPECT_EQ(steps.audit.occupiedCount() + steps.audit.freeCount(), w->capacity());
    EXPECT_EQ(steps.audit.tesselCount(), 0u) << "the recording queue has nothing to audit";
    EXPECT_TRUE(steps.audit.error().empty());
  }
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

// One damage of the sound table in SetUp and the message it must fail with.
// `kestor` is the generation validated against (the writer's own unless the
// damage changes it).
struct Damage {
  char const* name;
  std::function<std::string(Writer& w, std::vector<uint32_t> const& order,
                            std::vector<uint32_t> const& free, Parcel::KestorId& kestor)>
      apply;
};

std::ostream& operator<<(std::ostream& os, Damage const& d) {
  return os << d.name;
}

// A chain of two entries: the first and its successor.
std::pair<uint32_t, uint32_t> chainOfTwo(Writer& w, std::vector<uint32_t> const& order) {
  for (uint32_t s : order) {
    uint32_t const next = slotAt(w, s).link.next;
    if (!Link::isEndOfChain(next)) return {s, next};
  }
  ADD_FAILURE() << "no chain of two entries";
  return {order[0], order[0]};
}

std::string stuckLookaside(Writer& w, uint32_t victim) {
  uint32_t const word = slotAt(w, victim).versionFlags | Mirak::SlotTable::LOOKASIDE;
  slotAt(w, victim).versionFlags = word;
  return fmt::format("stuck LOOKASIDE bit: {:#x}", word);
}

// Takes the slot out of its chain; the counter still counts it.
void cutOut(Writer& w, uint32_t victim) {
  predecessorOf(w, slotAt(w, victim).value.key())->next = slotAt(w, victim).link.next;
}

const Damage kDamages[] = {
    {"CriticalSectionLeftOpenByACrash",
     [](Writer& w, auto&, auto&, auto&) {
       uint16_t const flags = 1;
       pwriteSlotFile(w, offsetof(Mirak::SlotTable::Header, runtimeFlags), &flags, sizeof flags);
       return std::string("bad critical section runtimeFlags:1");
     }},
    // One in the middle of the walk is reached by next(), whose slow path
    // meets the slot again; the first failure is the one reported.
    {"StuckLookasideBitMidWalk", [](Writer& w, auto& order, auto&,
                                    auto&) { return stuckLookaside(w, order[order.size() / 2]); }},
    {"StuckLookasideBitOnTheFirstSlotOfTheWalk",
     [](Writer& w, auto& order, auto&, auto&) { return stuckLookaside(w, order.front()); }},
    {"FreeListCycle",
     [](Writer& w, auto&, auto& free, auto&) {
       slotAt(w, free[2]).link.next = free[0];
       return fmt::format("duplicate freeSlot detected: {}", free[0]);
     }},
    {"ChainCycleOfOneSlot",
     [](Writer& w, auto& order, auto&, auto&) {
       uint32_t const victim = order[order.size() / 3];
       slotAt(w, victim).link.next = victim;
       return fmt::format("duplicate slot: {}", victim);
     }},
    {"ChainCycleBackToAnEarlierEntryOfTheChain",
     [](Writer& w, auto& order, auto&, auto&) {
       auto const [first, second] = chainOfTwo(w, order);
       slotAt(w, second).link.next = first;
       return fmt::format("duplicate slot: {}", first);
     }},
    {"OccupiedSlotOnTheFreeList",
     [](Writer& w, auto& order, auto&, auto&) {
       header(w).freeSlots = order[7];
       return fmt::format("corrupted free slot not marked as empty: {}", order[7]);
     }},
    {"OccupiedSlotJoinedToTheEndOfTheFreeList",
     [](Writer& w, auto& order, auto& free, auto&) {
       slotAt(w, free.back()).link.next = order[11];
       return fmt::format("corrupted free slot not marked as empty: {}", order[11]);
     }},
    {"SlotCutOutOfItsChain",
     [](Writer& w, auto& order, auto&, auto&) {
       cutOut(w, order[20]);
       return std::string("mismatch header->occupiedSlots:150 count:149");
     }},
    // With occupiedSlots made to agree with the chains, only the sum of the
    // two walks shows the lost slot.
    {"SlotOnNeitherListWithTheCounterToMatch",
     [](Writer& w, auto& order, auto& free, auto&) {
       cutOut(w, order[20]);
       header(w).occupiedSlots = 149;
       return fmt::format("bad slotCount:{} occupiedSlots:149 freeSlots:{} capacity:{}",
                          149 + free.size(), free.size(), w.capacity());
     }},
    {"FreeSlotLostFromTheFreeList",
     [](Writer& w, auto&, auto& free, auto&) {
       header(w).freeSlots = free[1];
       return fmt::format("bad slotCount:{} occupiedSlots:150 freeSlots:{} capacity:{}",
                          w.capacity() - 1, free.size() - 1, w.capacity());
     }},
    {"OccupiedSlotsBelowTheChains",
     [](Writer& w, auto&, auto&, auto&) {
       header(w).occupiedSlots = 149;
       return std::string("walkedSlots:150 is greater than header->occupiedSlots:149");
     }},
    {"OccupiedSlotsAboveTheChains",
     [](Writer& w, auto&, auto&, auto&) {
       header(w).occupiedSlots = 151;
       return std::string("mismatch header->occupiedSlots:151 count:150");
     }},
    {"FreeListIndexBeyondTheCapacity",
     [](Writer& w, auto&, auto& free, auto&) {
       slotAt(w, free[1]).link.next = w.capacity() + 1;
       return fmt::format("corrupted free slot detected with out of bound index: {}",
                          w.capacity() + 1);
     }},
    {"FreeListIndexEqualToTheCapacity",
     [](Writer& w, auto&, auto& free, auto&) {
       slotAt(w, free[1]).link.next = w.capacity();
       return fmt::format("out-of-range index: {} max:{}", w.capacity(), w.capacity() - 1);
     }},
    {"RhashOfASlot",
     [](Writer& w, auto& order, auto&, auto&) {
       uint32_t const good = slotAt(w, order.front()).rhash;
       slotAt(w, order.front()).rhash = good ^ 0x10u;
       return fmt::format("corrupt rhash detected, slotId: {} slot.rhash:{:08x} rhash:{:08x}",
                          order.front(), good ^ 0x10u, good);
     }},
    // A constant field of the slot header: its checksum runs first.
    {"SlotHeaderChecksum",
     [](Writer& w, auto&, auto&, auto&) {
       header(w).maxSlots += 1;
       return fmt::format("checksum fail: {:x} != {:x}", header(w).checksum(), header(w).hash);
     }},
    {"AnotherWritersKestor",
     [](Writer& w, auto&, auto&, Parcel::KestorId& kestor) {
       kestor = w.kestorId().reformatted();
       return fmt::format("bad kestor:{} wanted:{}", w.kestorId(), kestor);
     }},
    // The bucket count stored in the file no longer matches the mapping: the
    // bucket file's own message.
    {"BucketFileHeader",
     [](Writer& w, auto&, auto&, auto&) {
       w.hashMap().bucketWriter().header()->numBuckets.value = w.buckets() * 2;
       std::string expected;
       EXPECT_FALSE(w.hashMap().bucketWriter().validate(w.kestorId().value(), expected));
       EXPECT_FALSE(expected.empty());
       return expected;
     }},
};

class ValidatorDamageTable : public ValidatorDamage,
                             public ::testing::WithParamInterface<Damage> {};

// Every damage fails with its message, and validation stores nothing: the
// damage is still there, and so are the counters it compared.
TEST_P(ValidatorDamageTable, FailsWithItsMessageAndLeavesTheTableAsItWas) {
  Parcel::KestorId kestor = w_->kestorId();
  std::string const expected = GetParam().apply(*w_, order_, free_, kestor);
  std::string const before = w_->dumpHeaders();
  EXPECT_EQ(validateError(*w_, kestor), expected);
  EXPECT_EQ(w_->dumpHeaders(), before);
  if (kestor == w_->kestorId()) {
    EXPECT_FALSE(w_->validate());
  }
}

INSTANTIATE_TEST_SUITE_P(Damages, ValidatorDamageTable, ::testing::ValuesIn(kDamages),
                         [](auto const& info) { return std::string(info.param.name); });

TEST_F(ValidatorDamage, CriticalSectionOfAnEscapedExceptionFailsUntilLeft) {
  // The write path leaves the bit up when an exception escapes a critical
  // section; here an entered section that was never left.
  w_->slotTable().enterCriticalSection();
  EXPECT_EQ(validateError(*w_), "bad critical section runtimeFlags:1");
  w_->slotTable().leaveCriticalSection();
  EXPECT_EQ(validateError(*w_), "passed");
}

// ---------------------------------------------------------------------------
// markOccupied, called by hand: the checks the hash map's own walk never lets
// through.

TEST_F(ValidatorDamage, MarkingAFreeSlotASlotTwiceOrOneBeyondTheTable) {
  {
    Steps steps(*w_);
    uint32_t const word = slotAt(*w_, free_[0]).versionFlags;
    EXPECT_EQ(thrown([&] { steps.audit.markOccupied(free_[0]); }),
              fmt::format("missing OCCUPIED bit: {:#x}", word));
    EXPECT_EQ(steps.audit.error(), fmt::format("missing OCCUPIED bit: {:#x}", word));
  }
  {
    Steps steps(*w_);
    steps.audit.markOccupied(order_[3]);
    EXPECT_EQ(thrown([&] { steps.audit.markOccupied(order_[3]); }),
              fmt::format("duplicate slot: {}", order_[3]));
    EXPECT_EQ(steps.audit.occupiedCount(), 1u);
  }
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

// A writer that adopts damaged files on a strict device stops; its message
// must carry the table, the check that failed and its numbers, or the
// operator has a core file and no reason. (A table without a queue: the
// recording queue of WriterOps is new at every attach, so never adopted.)
TEST(ValidatorWriter, StrictStartOnDamagedFilesSaysWhichCheckFailed) {
  using PlainOps = TestOpsWith<Tessel::DummyTesselWriter>;
  using PlainWriter = Mirak::MirakWriter<PlainOps>;
  TempRoot root;
  Mirak::MapDescriptor const d(100);
  auto w = std::make_unique<PlainWriter>(handler(), "validator/strict", d, PlainOps(0));
  w->initialize("test");
  for (uint32_t i = 0; i < 10; i++) w->write(row(i), true);
  w->slotTable().header()->occupiedSlots = 11;
  w.reset();
  ::setenv("FLOWTABLES_PHYSICAL_DUT", "1", 1);
  ::setenv("FLOWTABLES_STRICT_VALIDATION", "1", 1);
  std::string message = "no exception";
  try {
    PlainWriter again(handler(), "validator/strict", d, PlainOps(0));
    again.initialize("test");
  } catch (Lomi::InvalidInitializeException const& e) {
    message = e.msg();
  }
  ::unsetenv("FLOWTABLES_PHYSICAL_DUT");
  ::unsetenv("FLOWTABLES_STRICT_VALIDATION");
  EXPECT_NE(message.find("validator/strict"), std::string::npos) << message;
  EXPECT_NE(message.find("mismatch header->occupiedSlots:11 count:10"), std::string::npos)
      << message;
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
