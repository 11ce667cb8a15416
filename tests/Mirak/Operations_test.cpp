// The policy parts of a table: hashing, key retrieval, the value wrapper,
// value copies; and the plain records beside them (descriptor, counters,
// iteration hint).
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>
#include <vector>

#include "Mirak/Counters.h"
#include "Mirak/IterHint.h"
#include "Mirak/MapDescriptor.h"
#include "Mirak/Operations.h"
#include "TestPolicy.h"

namespace {

using namespace MirakTest;

static_assert(Mirak::TablePolicy<TestOps>);
static_assert(Mirak::TablePolicy<MinimalOps>);
static_assert(!Mirak::TablePolicy<int>);
static_assert(std::is_same_v<TestOps::Key, TestKey> && std::is_same_v<TestOps::Value, TestValue>);
static_assert(sizeof(TestValue) == sizeof(TestRecord));
static_assert(sizeof(FieldKeyValue) == sizeof(FieldKeyRecord));
// The empty policy slots cost the policy object nothing beyond its seed.
static_assert(sizeof(TestOps) == sizeof(uint32_t));

constexpr uint32_t kSeed = 20240611;

// A table's hash is the key's own: its member hash, a free mirakHash found by
// argument-dependent lookup, or the single-attribute hash; the seed always
// takes part.
TEST(MirakHash, IsTheKeysOwnHashUnderTheSeed) {
  std::mt19937 rng(kSeed);
  std::printf("seed %u\n", kSeed);
  for (int i = 0; i < 200; ++i) {
    TestKey k{static_cast<uint32_t>(rng()), static_cast<uint16_t>(rng())};
    uint32_t const s = rng();
    uint32_t const h = Mirak::Hash<TestKey, false>::hash(k, s);
    ASSERT_EQ(h, k.hash(s));
    ASSERT_NE(h, (Mirak::Hash<TestKey, false>::hash(k, s + 1)));
    ASSERT_EQ((Mirak::Hash<ByteKey, false>::hash(ByteKey(i % 3), s)),
              Zeb::hashSingleAttr(s, ByteKey(i % 3)));
    ASSERT_EQ((Mirak::Hash<uint32_t, true>::hash(k.id, s)), Zeb::hashSingleAttr(s, k.id));
    ASSERT_EQ((Mirak::Hash<uint8_t, true>::hash(uint8_t(i), s)), Zeb::hashSingleAttr(s, uint8_t(i)));
  }
  EXPECT_NE((Mirak::Hash<ByteKey, false>::hash(ByteKey::low, 1)),
            (Mirak::Hash<ByteKey, false>::hash(ByteKey::high, 1)));
  // The policy hashes under its own seed, which a table may change.
  TestOps ops(1234);
  TestKey const k{9, 3};
  EXPECT_EQ(ops.hash(k), k.hash(1234));
  ops.hashSeedIs(99);
  EXPECT_EQ(ops.hash(k), k.hash(99));
}

TEST(MirakOps, KeyComesOutOfTheWrappedValueByReference) {
  TestRecord r;
  r.key_ = {77, 4};
  r.count = 1ull << 40;
  TestValue v(r);
  decltype(auto) key = TestOps::key(v);
  static_assert(std::is_same_v<decltype(key), TestKey const&>);
  EXPECT_EQ(&key, &v.key_) << "the stored key is the front of the stored value";
  EXPECT_EQ(static_cast<void const*>(&v.record()), static_cast<void const*>(&v));
  EXPECT_EQ(TestRecord(v), r);
  EXPECT_TRUE(TestOps::keyLess(TestKey{1, 9}, TestKey{2, 0}));
  EXPECT_TRUE(TestOps::keyLess(TestKey{2, 0}, TestKey{2, 1}));
  EXPECT_FALSE(TestOps::keyLess(TestKey{2, 1}, TestKey{2, 1}));
  // A record whose key is a data member.
  FieldKeyValue f(FieldKeyRecord{12, 34});
  EXPECT_EQ(f.fwkKey(), 12u);
  static_assert(std::is_same_v<decltype(f.fwkKey()), uint32_t const&>);
}

TEST(MirakValueOps, MarshallCopiesBytesAndNothingElse) {
  TestRecord r;
  r.key_ = {0xaabbccdd, 0x1122};
  r.count = 0x0102030405060708ull;
  r.flags = 0xfeedface;
  TestValue v(r);
  alignas(8) unsigned char slot[sizeof(TestValue) + 8];
  std::memset(slot, 0x5a, sizeof slot);
  TestOps::ValueOps::store(slot, v);
  EXPECT_EQ(std::memcmp(slot, &v, sizeof v), 0);
  for (size_t i = sizeof v; i < sizeof slot; ++i) EXPECT_EQ(slot[i], 0x5a) << "byte " << i;
  TestValue out;
  TestOps::ValueOps::load(out, slot);
  EXPECT_EQ(out, v);
  EXPECT_EQ(TestOps::valueSize, sizeof(TestRecord));
}

TEST(MirakText, FormatterThenStreamThenBytes) {
  EXPECT_EQ(TestOps::keyText(TestKey{3, 4}), "3/4");
  TestRecord r;
  r.key_ = {1, 2};
  r.count = 9;
  EXPECT_EQ(TestOps::valueText(TestValue(r)), "TestRecord(1/2 count 9)");
  FieldKeyRecord f{0x01020304, 0};
  EXPECT_EQ(Mirak::toText(f), "0x0403020100000000");
  EXPECT_EQ(fmt::format("{}", Mirak::IterHint{5, 6, 7}), "IterHint{ version 5, slot 6, bucket 7 }");
  EXPECT_EQ(Mirak::formatMirakType(Mirak::MirakType::keyshadow), "keyshadow");
  EXPECT_EQ(Mirak::formatMirakType(static_cast<Mirak::MirakType>(9)), "MirakType(9)");
}

TEST(MirakMapDescriptor, EveryFieldCounts) {
  Mirak::MapDescriptor d(100);
  EXPECT_EQ(d, Mirak::MapDescriptor(100));
  EXPECT_NE(d, Mirak::MapDescriptor(101));

  std::vector<bool Mirak::MapDescriptor::*> flags = {&Mirak::MapDescriptor::local,
                                                     &Mirak::MapDescriptor::fixedSize,
                                                     &Mirak::MapDescriptor::shrinkSlots,
                                                     &Mirak::MapDescriptor::shrinkBuckets_,
                                                     &Mirak::MapDescriptor::pruneQueue,
                                                     &Mirak::MapDescriptor::synchronous,
                                                     &Mirak::MapDescriptor::shadowOption,
                                                     &Mirak::MapDescriptor::heap,
                                                     &Mirak::MapDescriptor::trackMemory,
                                                     &Mirak::MapDescriptor::cleanupOnInit,
                                                     &Mirak::MapDescriptor::reattach,
                                                     &Mirak::MapDescriptor::assertOnOrphanAccess,
                                                     &Mirak::MapDescriptor::criticalTaskCheck,
                                                     &Mirak::MapDescriptor::prevValue};
  std::set<std::string> texts{d.toString()};
  for (auto flag : flags) {
    Mirak::MapDescriptor e(100);
    e.*flag = true;
    EXPECT_NE(e, d);
    EXPECT_TRUE(texts.insert(e.toString()).second) << e.toString();
  }
  Mirak::MapDescriptor shadow(100);
  shadow.type = Mirak::MirakType::shadow;
  EXPECT_NE(shadow, d);
  EXPECT_EQ(fmt::format("{}", shadow), shadow.toString());
  EXPECT_NE(shadow.toString().find("type:shadow"), std::string::npos);

  Mem::CollectionDescriptor const& base = d;
  EXPECT_EQ(dynamic_cast<Mirak::MapDescriptor const&>(base), d);
}

template <typename C>
class MirakCounters : public ::testing::Test {};
using CounterTypes = ::testing::Types<Mirak::Writer::Counters, Mirak::Reader::Counters>;
TYPED_TEST_SUITE(MirakCounters, CounterTypes);

TYPED_TEST(MirakCounters, EveryFieldPrintsAndAdds) {
  TypeParam a, b;
  EXPECT_EQ(a, TypeParam());
  uint64_t n = 1;
  for (auto const& f : TypeParam::fields()) {
    a.*(f.member) = n;
    b.*(f.member) = 1000 * n;
    ++n;
  }
  std::string text = a.toString();
  n = 1;
  size_t at = 0;
  for (auto const& f : TypeParam::fields()) {
    std::string part = fmt::format("{}:{}", f.name, n++);
    size_t found = text.find(part, at);
    ASSERT_NE(found, std::string::npos) << part << " in " << text;
    at = found + part.size();
  }
  EXPECT_EQ(fmt::format("{}", a), text);
  a += b;
  n = 1;
  for (auto const& f : TypeParam::fields()) {
    EXPECT_EQ(a.*(f.member), 1001 * n) << f.name;
    ++n;
  }
  EXPECT_NE(a, b);
}

}  // namespace
