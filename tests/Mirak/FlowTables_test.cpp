// The seven flow tables through the back end interface, on their
// placeholders: what a front object sees of a collection that waits for its
// writer, was detached, or became an orphan.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "FlowTracking/Tables.h"
#include "Lomi/Trace.h"
#include "Mem/RootPath.h"

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

// Stands for the writer that a placeholder retired.
template <typename O>
class RetiredBackEnd : public Mirak::MirakInterface<O> {
 public:
  using Key = typename O::Key;
  using Value = typename O::Value;
  RetiredBackEnd(int& cleanups, int& destroyed) : cleanups_(cleanups), destroyed_(destroyed) {}
  ~RetiredBackEnd() override { ++destroyed_; }
  bool initialize(std::string const&) override { return true; }
  void detach(bool) override {}
  void cleanup() override { ++cleanups_; }
  uint32_t members() const override { return 0; }
  uint32_t buckets() const override { return 0; }
  uint32_t minSize() const override { return 0; }
  uint32_t maxSize() const override { return 0; }
  uint32_t capacity() const override { return 0; }
  Mirak::MirakType type() const override { return Mirak::MirakType::writer; }
  Mem::NaoRootPath rootPath() const override {
    return Mem::NaoRootPath(Lomi::Platform::getDebugHandler("retired"), "retired", true);
  }
  std::string mirakName() const override { return "retired"; }
  Mem::MountStatus mountStatus() const override { return Mem::mountStatusNotMounted; }
  bool validateVersionAnchor() const override { return true; }
  Value const* lookup(Key const&, bool& found, void*) const override {
    found = false;
    return &O::defaultValue();
  }
  bool first(Value&, Mirak::IterHint&) const override { return false; }
  bool next(Key const&, Value&, Mirak::IterHint&) const override { return false; }

 private:
  int& cleanups_;
  int& destroyed_;
};

std::string escapeRegex(std::string const& s) {
  static std::regex const special(R"([.^$|()\[\]{}*+?\\])");
  return std::regex_replace(s, special, R"(\$&)");
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
  using Interface = Mirak::MirakInterface<O>;
  using Dummy = Mirak::MirakDummy<O>;
  using Strict = Mirak::MirakStrictDummy<O>;
  static constexpr char const* kName = "flowtracking/test/hwOffload/table";

  FlowTableTest() : handler("FlowTableTest") {
    char tmpl[] = "/tmp/mirak-flowtables-XXXXXX";
    dir = ::mkdtemp(tmpl);
    Mem::RootPath::baseIs(dir);
    ops.hashSeedIs(0x5eed);
  }
  ~FlowTableTest() override {
    ::rmdir(dir.c_str());
    Mem::RootPath::baseIs(Mem::RootPath::kDefaultBase);
  }

  std::string dir;
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

TYPED_TEST(FlowTableTest, DummyIsAnEmptyReadOnlyReader) {
  using O = TypeParam;
  auto back =
      std::make_unique<typename TestFixture::Dummy>(this->ops, this->handler, TestFixture::kName);
  typename TestFixture::Interface& table = *back;
  auto key = sampleKey<typename O::Key>();

  EXPECT_TRUE(table.initialize("init"));
  EXPECT_TRUE(table.validate());
  EXPECT_TRUE(table.validateFiles());
  table.cleanup();
  EXPECT_EQ(
      table.members() + table.buckets() + table.minSize() + table.maxSize() + table.capacity(), 0u);
  EXPECT_EQ(static_cast<int>(table.type()), 2);
  EXPECT_FALSE(table.quiesced());
  EXPECT_FALSE(table.connected());
  EXPECT_EQ(table.writerCounters(), Mirak::Writer::Counters());
  EXPECT_EQ(table.readerCounters(), Mirak::Reader::Counters());
  table.notifyingIs(true);
  table.yieldTimeIs(0.05);
  EXPECT_EQ(table.sequence(), 0u);
  EXPECT_FALSE(table.clientQuiesced("shadow"));
  EXPECT_EQ(table.rootPath().path(), this->dir + "/" + TestFixture::kName);
  EXPECT_EQ(table.mirakName(), "table");
  EXPECT_EQ(table.mountStatus(), 0u);
  EXPECT_EQ(table.kestorId().value(), 0u);
  table.validateVersionAnchorHookIs(nullptr);
  EXPECT_EQ(table.getCacheVersionAnchor().offset, Mem::CacheVersionAnchor::kNeverSet);
  table.criticalTaskCheckIs(true);
  EXPECT_FALSE(table.criticalTaskCheck());
  table.scratchpadIs(1);
  EXPECT_EQ(table.scratchpad(), 0u);

  // Lookup with a buffer: the buffer stays as it was, the result is the
  // default value's address.
  alignas(8) unsigned char buffer[sizeof(typename O::Value)];
  std::memset(buffer, 0xcd, sizeof buffer);
  bool found = true;
  EXPECT_EQ(table.lookup(key, found, buffer), &O::defaultValue());
  EXPECT_FALSE(found);
  for (unsigned char b : buffer) ASSERT_EQ(b, 0xcd);
  found = true;
  EXPECT_EQ(table.directLookup(key, found, nullptr), &O::defaultValue());
  EXPECT_FALSE(found);

  // first and next overwrite the caller's value with the default.
  auto value = sampleValue<O>();
  ASSERT_FALSE(value == O::defaultValue());
  Mirak::IterHint hint;
  EXPECT_FALSE(table.first(value, hint));
  EXPECT_TRUE(value == O::defaultValue());
  value = sampleValue<O>();
  EXPECT_FALSE(table.next(key, value, hint));
  EXPECT_TRUE(value == O::defaultValue());
  table.detach(false);
}

TYPED_TEST(FlowTableTest, WritesAndRemovesAreRefused) {
  using O = TypeParam;
  typename TestFixture::Dummy table(this->ops, this->handler, TestFixture::kName);
  auto value = sampleValue<O>();
  auto key = sampleKey<typename O::Key>();
  auto refusal = [](auto&& op) -> std::string {
    try {
      op();
    } catch (Lomi::NoPermissionException const& e) {
      return e.msg();
    }
    return "<no exception>";
  };
  EXPECT_EQ(refusal([&] { table.write(value, true); }), "write to read-only Mirak table");
  EXPECT_EQ(refusal([&] { table.directWrite(value); }), "write to read-only Mirak table");
  EXPECT_EQ(refusal([&] { table.directUpdate(key); }), "write to read-only Mirak table");
  EXPECT_EQ(refusal([&] { table.directCommit(); }), "write to read-only Mirak table");
  typename O::Value removed;
  EXPECT_EQ(refusal([&] { table.remove(key, removed); }), "remove to read-only Mirak table");
}

TYPED_TEST(FlowTableTest, PlaceholdersOwnAndCleanTheRetiredBackEnd) {
  using O = TypeParam;
  int cleanups = 0, destroyed = 0;
  {
    auto retired = std::make_unique<RetiredBackEnd<O>>(cleanups, destroyed);
    typename TestFixture::Strict table(this->ops, this->handler, TestFixture::kName,
                                       std::move(retired), TestFixture::Strict::kOrphanSuffix);
    table.detach(true);
    table.cleanup();
    EXPECT_EQ(cleanups, 1);
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
  {
    typename TestFixture::Dummy table(this->ops, this->handler, TestFixture::kName,
                                      std::make_unique<RetiredBackEnd<O>>(cleanups, destroyed));
    table.cleanup();
    EXPECT_EQ(cleanups, 2);
  }
  EXPECT_EQ(destroyed, 2);
}

TYPED_TEST(FlowTableTest, StrictPlaceholderStopsWithTheKeyInItsMessage) {
  using O = TypeParam;
  typename TestFixture::Strict table(this->ops, this->handler, TestFixture::kName, nullptr,
                                     TestFixture::Strict::kOrphanSuffix);
  auto key = sampleKey<typename O::Key>();
  std::string const expected =
      fmt::format("invoked, name:{} rootpath:{}/{} key:{}{}", TestFixture::kName, this->dir,
                  TestFixture::kName, fmt::format("{}", key), TestFixture::Strict::kOrphanSuffix);
  bool found;
  EXPECT_DEATH(table.lookup(key, found, nullptr), escapeRegex(expected));
  EXPECT_DEATH(
      table.members(),
      escapeRegex(fmt::format("invoked, name:{} rootpath:{}/{}{}", TestFixture::kName, this->dir,
                              TestFixture::kName, TestFixture::Strict::kOrphanSuffix)));
}

}  // namespace
