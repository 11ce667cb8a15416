// The reader's bulk lookup against its single lookup, on real files over the
// seven tables: every group of keys (hits, misses, repeats, groups longer
// than one bulk step) gets the answers that as many single lookups give, and
// the writer's model of the table agrees; the writer grows and shrinks the
// table between groups, so that bulk lookups meet a reader whose mappings
// are behind and must follow them. Damage that no resize explains reaches
// the caller from a bulk lookup as from a single one.
#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/ReaderTestUtil.h"
#include "Lomi/Thrown.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/TempRoot.h"

namespace FlowTrackingTest {
namespace {

constexpr char kTable[] = "flowtracking/test/bulk";

template <typename Record>
class ReaderBulkTest : public ::testing::Test {};
TYPED_TEST_SUITE(ReaderBulkTest, AllRecords);

TYPED_TEST(ReaderBulkTest, AnswersAsSingleLookupsDoWhileTheTableGrowsAndShrinks) {
  using Record = TypeParam;
  using Value = TableValue<Record>;
  using Key = typename Record::Key;
  uint32_t const space = std::min<uint32_t>(keySpace<Record>(), 3000);
  for (uint32_t seed : {11u, 12u}) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    MirakTest::TempRoot root;
    auto writer = makeSharedWriter<Record>(kTable, sharedDescriptor(100000, true));
    // Attached to the empty table: its first bulk lookups run on mappings
    // that the growth left behind.
    auto reader = makeReader<Record>(kTable);
    ASSERT_TRUE(reader->initialize("test"));
    std::mt19937 rng(seed);
    std::map<uint32_t, uint32_t> model;  // id -> version
    uint64_t bulkResizes = 0, hits = 0, misses = 0;
    for (int round = 0; round < 24; round++) {
      // Rounds 0..11 fill, 12..23 empty: slots and buckets grow, then shrink.
      uint32_t const changes = 40 + rng() % 200;
      for (uint32_t c = 0; c < changes; c++) {
        uint32_t const id = rng() % space;
        if (round < 12 || rng() % 4 == 0) {
          uint32_t const version = rng() % 1000;
          writer->write(row<Record>(id, version), true);
          model[id] = version;
        } else {
          Value removed;
          writer->remove(keyOf<Key>(id), removed);
          model.erase(id);
        }
      }
      // Groups of 0 to 150 keys: beyond one bulk step of the reader, with
      // repeats, about half of them in the table.
      uint32_t const count = rng() % 151;
      std::vector<Key> keys;
      std::vector<uint32_t> ids;
      for (uint32_t i = 0; i < count; i++) {
        bool const wantHit = !model.empty() && rng() % 2;
        uint32_t id = rng() % space;
        if (wantHit) id = std::next(model.begin(), rng() % model.size())->first;
        ids.push_back(id);
        keys.push_back(keyOf<Key>(id));
      }
      std::vector<Value> values(count, row<Record>(7, 7));
      std::unique_ptr<bool[]> found(new bool[count + 1]);
      uint64_t const before = reader->readerCounters().resizesFollowed;
      uint32_t const n = reader->lookupBulk(keys.data(), count, values.data(), found.get());
      bulkResizes += reader->readerCounters().resizesFollowed - before;
      EXPECT_TRUE(reader->getCacheVersionAnchor().offset == Mem::CacheVersionAnchor::kNeverSet)
          << "a bulk lookup leaves no anchor";
      uint32_t counted = 0;
      for (uint32_t i = 0; i < count; i++) {
        bool single = false;
        Value buffer;
        reader->lookup(keys[i], single, &buffer);
        ASSERT_EQ(found[i], single) << "round " << round << " key " << i;
        EXPECT_TRUE(values[i] == buffer) << "round " << round << " key " << i;
        counted += found[i];
        (found[i] ? hits : misses)++;
      }
      EXPECT_EQ(n, counted);
      // And both agree with what the writer wrote.
      for (uint32_t i = 0; i < count; i++) {
        auto const it = model.find(ids[i]);
        EXPECT_EQ(found[i], it != model.end()) << "round " << round << " key " << i;
        if (it != model.end()) {
          EXPECT_TRUE(values[i] == row<Record>(it->first, it->second)) << "round " << round;
        } else {
          EXPECT_TRUE(values[i] == Value()) << "absent keys get the default value";
        }
      }
    }
    EXPECT_GT(hits, 100u);
    EXPECT_GT(misses, 100u);
    EXPECT_GT(bulkResizes, 0u) << "no bulk lookup had to follow a resize";
  }
}

using Record = HoIpFlowConfig;
using Value = TableValue<Record>;
using Key = HoIpFlowKey;

// Damage that no resize explains is the table's: a linked slot that is not
// occupied. A single lookup and a bulk lookup that reach it report it to the
// caller with the same words, each counted once.
TEST(ReaderBulkDamageTest, ADamagedChainReachesTheCallerAsFromASingleLookup) {
  MirakTest::TempRoot root;
  auto writer = makeSharedWriter<Record>(kTable, sharedDescriptor(1000));
  for (uint32_t i = 0; i < 20; i++) writer->write(row<Record>(i), true);
  auto reader = makeReader<Record>(kTable);
  ASSERT_TRUE(reader->initialize("test"));
  bool found = false;
  reader->lookup(keyOf<Key>(3), found, nullptr);
  ASSERT_TRUE(found);
  uint32_t const offset = reader->getCacheVersionAnchor().offset;
  auto* word = reinterpret_cast<uint32_t*>(writer->slotTable().base() + offset);
  *word &= ~Mirak::SlotTable::OCCUPIED;
  std::string const msg = LomiTest::thrown<Lomi::CorruptionDetectedException>(
      [&] { reader->lookup(keyOf<Key>(3), found, nullptr); });
  EXPECT_NE(msg.find("not marked as occupied key:"), std::string::npos) << msg;
  EXPECT_EQ(reader->readerCounters().corruptionsDetected, 1u);
  Key keys[3] = {keyOf<Key>(1), keyOf<Key>(3), keyOf<Key>(5)};
  Value values[3];
  bool hits[3];
  std::string const bulk = LomiTest::thrown<Lomi::CorruptionDetectedException>(
      [&] { reader->lookupBulk(keys, 3, values, hits); });
  EXPECT_NE(bulk.find("not marked as occupied key:"), std::string::npos) << bulk;
  EXPECT_EQ(reader->readerCounters().corruptionsDetected, 2u);
}

}  // namespace
}  // namespace FlowTrackingTest
