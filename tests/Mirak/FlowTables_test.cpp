// The seven flow tables' policies against their table format, and their
// placeholders' answers in each table's value type.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "FlowTracking/Tables.h"
#include "Lomi/Trace.h"
#include "Mem/RootPath.h"
#include "Mirak/TempRoot.h"

namespace {

using namespace FlowTracking;

// A key that differs from the default key of its type.
template <typename Key>
Key sampleKey() {
  if constexpr (requires(Key k) { k.srcPortIs(uint16_t{1}); }) {
    Key k;
    k.srcPortIs(4789);
    k.dstPortIs(443);
    return k;
  } else if constexpr (requires { typename Key::FlowKey; }) {
    return Key(sampleKey<typename Key::FlowKey>(), Nimbet::IntfId());
  } else {
    return Key(hoFlowStateOffloaded);
  }
}

template <typename O>
typename O::Value sampleValue() {
  return typename O::Value::Record(sampleKey<typename O::Key>());
}

template <typename O>
struct TableFacts;

#define TABLE_FACTS(O, typeName, size, queue)          \
  template <>                                          \
  struct TableFacts<O> {                               \
    static constexpr char const* valueType = typeName; \
    static constexpr uint32_t valueSize = size;        \
    static constexpr bool changeQueue = queue;         \
  }

TABLE_FACTS(HoIpFlowConfigOps, "FlowTracking::HoIpFlowConfig", 84, true);
TABLE_FACTS(HoIp6FlowConfigOps, "FlowTracking::HoIp6FlowConfig", 108, true);
TABLE_FACTS(HoIpFlowStatusOps, "FlowTracking::HoIpFlowStatus", 56, true);
TABLE_FACTS(HoIp6FlowStatusOps, "FlowTracking::HoIp6FlowStatus", 80, true);
TABLE_FACTS(HoIpFlowCounterOps, "FlowTracking::HoIpFlowCounter", 72, false);
TABLE_FACTS(HoIp6FlowCounterOps, "FlowTracking::HoIp6FlowCounter", 96, false);
TABLE_FACTS(HosStateCounterOps, "FlowTracking::HosStateCounterEntry", 8, false);

#undef TABLE_FACTS

template <typename O>
class FlowTableTest : public ::testing::Test {
 protected:
  using Dummy = Mirak::MirakDummy<O>;
  static constexpr char const* kName = "flowtracking/test/hwOffload/table";

  FlowTableTest() : handler("FlowTableTest") { ops.hashSeedIs(0x5eed); }

  MirakTest::TempRoot root;
  Lomi::Platform::DebugHandler handler;
  O ops;
};

using FlowTablePolicies =
    ::testing::Types<HoIpFlowConfigOps, HoIp6FlowConfigOps, HoIpFlowStatusOps, HoIp6FlowStatusOps,
                     HoIpFlowCounterOps, HoIp6FlowCounterOps, HosStateCounterOps>;
TYPED_TEST_SUITE(FlowTableTest, FlowTablePolicies);

TYPED_TEST(FlowTableTest, PolicyMatchesTheTableFormat) {
  using O = TypeParam;
  using Facts = TableFacts<O>;
  static_assert(Mirak::TablePolicy<O>);
  EXPECT_EQ(O::valueSize, Facts::valueSize);
  EXPECT_EQ(sizeof(typename O::Value), sizeof(typename O::Value::Record));
  EXPECT_EQ(O::valueTypeName(), Facts::valueType);
  constexpr bool realQueue = std::is_same_v<typename O::TesselWriter, ChangeQueueWriter>;
  constexpr bool noQueue = std::is_same_v<typename O::TesselWriter, NoChangeQueueWriter>;
  EXPECT_EQ(realQueue, Facts::changeQueue);
  EXPECT_EQ(noQueue, !Facts::changeQueue);
  static_assert(std::is_same_v<typename O::PrevValueAnchor, Mirak::NullPrevValueAnchor>);

  auto key = sampleKey<typename O::Key>();
  auto value = sampleValue<O>();
  EXPECT_TRUE(O::keyEqual(O::key(value), key));
  EXPECT_EQ(static_cast<void const*>(&O::key(value)), static_cast<void const*>(&value))
      << "the stored key is the front of the stored value";
  // The table's hash is the key's own hash under the table's seed.
  uint32_t expected;
  if constexpr (std::is_same_v<O, HosStateCounterOps>) {
    expected = mirakHash(key, 0x5eed);
  } else {
    expected = key.hash(0x5eed);
  }
  EXPECT_EQ(this->ops.hash(key), expected);
  O other = this->ops;
  other.hashSeedIs(0x5eee);
  EXPECT_NE(other.hash(key), this->ops.hash(key)) << "the seed takes part in the hash";
  EXPECT_FALSE(O::keyEqual(key, typename O::Key()));
  // Messages show keys and values in their text forms.
  EXPECT_EQ(O::keyText(key), fmt::format("{}", key));
  EXPECT_EQ(O::valueText(value), fmt::format("{}", value.record()));
}

// The placeholder's template code is tested over the test policies in
// MirakDummy_test.cpp; here only what depends on each table's value type:
// a lookup leaves the caller's buffer alone, first and next hand out the
// table's default value.
TYPED_TEST(FlowTableTest, DummyAnswersWithTheTablesDefaultValue) {
  using O = TypeParam;
  typename TestFixture::Dummy dummy(this->ops, this->handler, TestFixture::kName);
  Mirak::MirakInterface<O>& table = dummy;
  auto key = sampleKey<typename O::Key>();
  alignas(8) unsigned char buffer[sizeof(typename O::Value)];
  std::memset(buffer, 0xcd, sizeof buffer);
  bool found = true;
  EXPECT_EQ(table.lookup(key, found, buffer), &O::defaultValue());
  EXPECT_FALSE(found);
  for (unsigned char b : buffer) ASSERT_EQ(b, 0xcd);
  auto value = sampleValue<O>();
  ASSERT_FALSE(value == O::defaultValue());
  Mirak::IterHint hint;
  EXPECT_FALSE(table.first(value, hint));
  EXPECT_TRUE(value == O::defaultValue());
  value = sampleValue<O>();
  EXPECT_FALSE(table.next(key, value, hint));
  EXPECT_TRUE(value == O::defaultValue());
}

}  // namespace
