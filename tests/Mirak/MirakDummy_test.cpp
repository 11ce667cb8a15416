// The placeholders MirakDummy and MirakStrictDummy, reached through the back
// end interface as the front object reaches them, over two policies: the
// test record's Ops and the hand-written minimal policy.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "Lomi/Thrown.h"
#include "Mem/RootPath.h"
#include "Mirak/MirakDummy.h"
#include "Mirak/ScriptedBackEnd.h"
#include "Mirak/TempRoot.h"
#include "TestPolicy.h"

namespace {

using namespace MirakTest;

// What the policies give the typed tests: a key, and a value that differs
// from the default.
template <typename O>
struct Sample;

template <>
struct Sample<TestOps> {
  static TestKey key() { return {42, 3}; }
  static TestValue value() {
    TestRecord r;
    r.key_ = key();
    r.count = 1000;
    return r;
  }
};

template <>
struct Sample<MinimalOps> {
  static uint32_t key() { return 42; }
  static uint32_t value() { return 42; }
};

// The writer a placeholder retired: records what reaches it.
template <typename O>
using Retired = ScriptedBackEnd<O>;

std::string escapeRegex(std::string const& s) {
  static std::regex const special(R"([.^$|()\[\]{}*+?\\])");
  return std::regex_replace(s, special, R"(\$&)");
}

constexpr char const* kName = "flowtracking/test/hwOffload/config";

template <typename O>
class MirakDummyTest : public ::testing::Test {
 protected:
  using Dummy = Mirak::MirakDummy<O>;
  using Strict = Mirak::MirakStrictDummy<O>;
  using Interface = Mirak::MirakInterface<O>;
  using Key = typename O::Key;
  using Value = typename O::Value;

  MirakDummyTest() : handler("MirakDummyTest") { ops.hashSeedIs(77); }

  std::unique_ptr<Interface> dummy(std::unique_ptr<Interface> prev = nullptr) {
    return std::make_unique<Dummy>(ops, handler, kName, std::move(prev));
  }
  std::unique_ptr<Interface> strict(std::unique_ptr<Interface> prev = nullptr) {
    return std::make_unique<Strict>(ops, handler, kName, std::move(prev), Strict::kOrphanSuffix);
  }
  std::string rootPathText() const { return base.path() + "/" + kName; }
  // The start of every strict message: name, root path.
  std::string strictPrefix() const {
    return escapeRegex(fmt::format("invoked, name:{} rootpath:{}", kName, rootPathText()));
  }
  std::string suffix() const { return escapeRegex(Strict::kOrphanSuffix); }

  TempRoot base;
  Lomi::Platform::DebugHandler handler;
  O ops;
};

using Policies = ::testing::Types<TestOps, MinimalOps>;
TYPED_TEST_SUITE(MirakDummyTest, Policies);

TYPED_TEST(MirakDummyTest, AnswersEveryOperationAsAnEmptyReader) {
  auto back = this->dummy();
  typename TestFixture::Interface& table = *back;
  Mirak::MirakInterfaceBase& base = table;

  EXPECT_TRUE(table.initialize("init"));
  EXPECT_TRUE(table.validate());
  EXPECT_TRUE(table.validateFiles());
  table.cleanup();
  EXPECT_EQ(table.members(), 0u);
  EXPECT_EQ(table.buckets(), 0u);
  EXPECT_EQ(table.minSize(), 0u);
  EXPECT_EQ(table.maxSize(), 0u);
  EXPECT_EQ(table.capacity(), 0u);
  EXPECT_EQ(table.type(), Mirak::MirakType::reader);
  EXPECT_FALSE(table.quiesced());
  EXPECT_FALSE(table.connected());
  EXPECT_EQ(table.writerCounters(), Mirak::Writer::Counters());
  EXPECT_EQ(table.readerCounters(), Mirak::Reader::Counters());
  table.notifyingIs(true);
  table.yieldTimeIs(0.25);
  EXPECT_EQ(table.sequence(), 0u);
  EXPECT_FALSE(table.clientQuiesced("reader-1"));
  EXPECT_EQ(table.rootPath().path(), this->rootPathText());
  EXPECT_FALSE(table.rootPath().isLocal());
  EXPECT_EQ(table.mirakName(), "config");
  EXPECT_EQ(table.mountStatus(), Mem::mountStatusNotMounted);
  EXPECT_EQ(table.kestorId(), Parcel::KestorId());
  Mirak::VersionAnchorHook hook = [](Mem::VersionAnchor const&) {};
  table.validateVersionAnchorHookIs(hook);
  EXPECT_EQ(base.validateVersionAnchorHook(), hook);
  EXPECT_EQ(table.getCacheVersionAnchor().offset, Mem::CacheVersionAnchor::kNeverSet);
  table.criticalTaskCheckIs(true);
  EXPECT_FALSE(table.criticalTaskCheck());
  table.scratchpadIs(0x1234);
  EXPECT_EQ(table.scratchpad(), 0u);

  using O = TypeParam;
  // A lookup leaves the caller's buffer alone; first and next overwrite the
  // caller's value with the default.
  auto key = Sample<O>::key();
  alignas(16) unsigned char buffer[sizeof(typename O::Value)];
  std::memset(buffer, 0xab, sizeof buffer);
  bool found = true;
  EXPECT_EQ(table.lookup(key, found, buffer), &O::defaultValue());
  EXPECT_FALSE(found);
  for (unsigned char b : buffer) ASSERT_EQ(b, 0xab);
  found = true;
  EXPECT_EQ(table.directLookup(key, found, nullptr), &O::defaultValue());
  EXPECT_FALSE(found);
  typename O::Value v = Sample<O>::value();
  ASSERT_FALSE(v == O::defaultValue());
  Mirak::IterHint hint{5, 6, 7};
  EXPECT_FALSE(table.first(v, hint));
  EXPECT_TRUE(v == O::defaultValue());
  v = Sample<O>::value();
  EXPECT_FALSE(table.next(key, v, hint));
  EXPECT_TRUE(v == O::defaultValue());
  table.detach(false);
  table.detach(true);
  EXPECT_FALSE(base.initialized()) << "a placeholder is never an attached table";
}

TYPED_TEST(MirakDummyTest, WritesAndRemovesAreRefused) {
  using O = TypeParam;
  std::vector<std::unique_ptr<typename TestFixture::Interface>> backs;
  backs.push_back(this->dummy());
  backs.push_back(this->strict());
  for (auto& back : backs) {
    auto& table = *back;
    auto value = Sample<O>::value();
    auto key = Sample<O>::key();
    auto expectRefused = [](auto&& op, char const* text) {
      EXPECT_EQ(LomiTest::thrown<Lomi::NoPermissionException>([&] { op(); }), text);
    };
    expectRefused([&] { table.write(value, true); }, "write to read-only Mirak table");
    expectRefused([&] { table.write(value, false); }, "write to read-only Mirak table");
    expectRefused([&] { table.directWrite(value); }, "write to read-only Mirak table");
    expectRefused([&] { table.directUpdate(key); }, "write to read-only Mirak table");
    expectRefused([&] { table.directCommit(); }, "write to read-only Mirak table");
    typename O::Value removed = value;
    expectRefused([&] { table.remove(key, removed); }, "remove to read-only Mirak table");
    EXPECT_TRUE(removed == value) << "a refused remove gives nothing back";
  }
}

TYPED_TEST(MirakDummyTest, CleanupReachesTheRetiredBackEndWhichLivesAsLongAsThePlaceholder) {
  this->dummy()->cleanup();  // nothing retired: must simply return
  for (bool strict : {false, true}) {
    BackEndLog log;
    {
      auto retired = std::make_unique<Retired<TypeParam>>(log, Mirak::MirakType::writer, false);
      auto back = strict ? this->strict(std::move(retired)) : this->dummy(std::move(retired));
      back->cleanup();
      back->cleanup();
      EXPECT_EQ(log.calls, (std::vector<std::string>{"cleanup", "cleanup"}));
      EXPECT_EQ(log.destroyed, 0);
      auto* asDummy = dynamic_cast<Mirak::MirakDummy<TypeParam>*>(back.get());
      ASSERT_NE(asDummy, nullptr);
      EXPECT_NE(asDummy->prevBack(), nullptr);
    }
    EXPECT_EQ(log.destroyed, 1) << "strict:" << strict;
  }
}

TYPED_TEST(MirakDummyTest, DirectLookupGoesThroughTheTablesLookup) {
  BackEndLog log;
  Retired<TypeParam> back(log, Mirak::MirakType::writer, false);
  Mirak::MirakInterface<TypeParam>& table = back;
  bool found = true;
  EXPECT_EQ(table.directLookup(Sample<TypeParam>::key(), found, nullptr),
            &TypeParam::defaultValue());
  EXPECT_FALSE(found);
  EXPECT_EQ(log.calls, (std::vector<std::string>{"lookup"}));
}

TYPED_TEST(MirakDummyTest, StrictAllowsTheTeardown) {
  BackEndLog log;
  auto back =
      this->strict(std::make_unique<Retired<TypeParam>>(log, Mirak::MirakType::writer, false));
  back->detach(false);
  EXPECT_TRUE(back->validate());
  EXPECT_TRUE(back->validateFiles());
  back->cleanup();
  EXPECT_EQ(log.calls, (std::vector<std::string>{"cleanup"}));
  EXPECT_EQ(back->mountStatus(), Mem::mountStatusNotMounted);
  EXPECT_EQ(back->rootPath().path(), this->rootPathText());
  EXPECT_EQ(back->mirakName(), "config");
  EXPECT_FALSE(back->quiesced());
  EXPECT_EQ(back->sequence(), 0u);
  auto* s = dynamic_cast<typename TestFixture::Strict*>(back.get());
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->orphanSuffix(), TestFixture::Strict::kOrphanSuffix);
}

using MirakDummyDeathTest = MirakDummyTest<TestOps>;

TEST_F(MirakDummyDeathTest, DummyRefusesToValidateAnAnchor) {
  auto back = dummy();
  EXPECT_DEATH(back->validateVersionAnchor(),
               "ASSERT: should never be called since it's impossible for a lookup to succeed");
}

TEST_F(MirakDummyDeathTest, StrictStopsEveryContentAccess) {
  auto back = strict();
  std::string const plain = strictPrefix() + suffix();
  EXPECT_DEATH(back->members(), plain);
  EXPECT_DEATH(back->buckets(), plain);
  EXPECT_DEATH(back->minSize(), plain);
  EXPECT_DEATH(back->maxSize(), plain);
  EXPECT_DEATH(back->capacity(), plain);
  EXPECT_DEATH(back->type(), plain);
  EXPECT_DEATH(back->readerCounters(), plain);
  EXPECT_DEATH(back->validateVersionAnchor(), plain);
  TestValue v;
  Mirak::IterHint hint;
  EXPECT_DEATH(back->first(v, hint), plain);

  std::string const withKey = strictPrefix() + escapeRegex(" key:42/3") + suffix();
  bool found;
  EXPECT_DEATH(back->lookup(TestKey{42, 3}, found, nullptr), withKey);
  EXPECT_DEATH(back->directLookup(TestKey{42, 3}, found, nullptr), withKey);
  EXPECT_DEATH(back->next(TestKey{42, 3}, v, hint), withKey);

  EXPECT_DEATH(
      back->initialize("eventTryAttach"),
      escapeRegex(fmt::format("{} rootPath:{} event:eventTryAttach", kName, rootPathText())) +
          suffix());
}

TEST_F(MirakDummyDeathTest, StrictWithoutSuffixEndsAtTheRootPath) {
  Mirak::MirakStrictDummy<TestOps> back(ops, handler, kName);
  EXPECT_EQ(back.orphanSuffix(), "");
  EXPECT_DEATH(back.capacity(), strictPrefix() + "\n");
}

}  // namespace
