// Flow keys and records as values: defaults, equality and order, hashes,
// Inc/Dec arithmetic and trace texts. (The byte layout that tables share is
// pinned by the records' own static_asserts on offsetof.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <vector>

#include "FlowTracking/RandomValues.h"
#include "Zeb/Hash.h"

namespace FlowTracking {
namespace {

using FlowTrackingTest::Random;
using FlowTrackingTest::Rng;

constexpr uint64_t kSeed = 0x5eed0002;

// ---- keys ----

// One change of each flow key field away from the default: every one makes
// the key true and changes its hash (high bytes and the unnamed protocol
// bits included).
std::vector<std::function<void(IpFlowKey&)>> const kFieldChanges = {
    [](IpFlowKey& k) { k.vrfIdIs(1); },
    [](IpFlowKey& k) { k.vlanIdIs(0x100); },
    [](IpFlowKey& k) { k.srcAddrIs(Nimbet::IpAddr(1)); },
    [](IpFlowKey& k) { k.dstAddrIs(Nimbet::IpAddr(0x01000000)); },
    [](IpFlowKey& k) { k.ipProtocolIs(static_cast<Nimbet::IpProtocol>(0x1ff)); },
    [](IpFlowKey& k) { k.srcPortIs(1); },
    [](IpFlowKey& k) { k.dstPortIs(0x100); },
    [](IpFlowKey& k) { k.directionIs(Nimbet::trafficDirectionIngress); },
};

TEST(HoIpFlowKey, DefaultIsFalseAndEveryFieldCountsForTruthAndHash) {
  HoIpFlowKey const k;
  EXPECT_EQ(k.ipFlowKey().vrfId(), 0xffffffu);
  EXPECT_EQ(static_cast<uint32_t>(k.ipFlowKey().ipProtocol()), 255u);
  EXPECT_EQ(k.intfId(), Nimbet::IntfId());
  EXPECT_FALSE(k);
  EXPECT_FALSE(HoIp6FlowKey());
  for (auto const& change : kFieldChanges) {
    IpFlowKey f;
    change(f);
    EXPECT_TRUE(HoIpFlowKey(f, Nimbet::IntfId())) << f;
    EXPECT_NE(f.hash(3), IpFlowKey().hash(3)) << f;
  }
  EXPECT_TRUE(HoIpFlowKey(IpFlowKey(), Nimbet::IntfId(Nimbet::IntfKind::ethernet, 1)));
  EXPECT_TRUE(HoIp6FlowKey(Ip6FlowKey(), Nimbet::IntfId(0xffffffff, 1)));
  // Source and destination are not interchangeable.
  IpFlowKey a, b;
  a.srcAddrIs(Nimbet::IpAddr(1));
  b.dstAddrIs(Nimbet::IpAddr(1));
  EXPECT_NE(a.hash(0), b.hash(0));
}

TEST(HoIpFlowKey, TheFlowKeyOrdersFirstThenTheInterface) {
  IpFlowKey f;
  f.srcPortIs(7);
  HoIpFlowKey const a(f, Nimbet::IntfId(Nimbet::IntfKind::ethernet, 1));
  HoIpFlowKey const b(f, Nimbet::IntfId(Nimbet::IntfKind::ethernet, 2));
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a < b && !(b < a));
  IpFlowKey g = f;
  g.srcPortIs(6);
  HoIpFlowKey const c(g, Nimbet::IntfId(Nimbet::IntfKind::ethernet, 9));
  EXPECT_TRUE(c < a && !(a < c));
}

template <typename K>
class KeyOrderTest : public ::testing::Test {};
using OrderedKeys =
    ::testing::Types<IpFlowKey, Ip6FlowKey, HoIpFlowKey, HoIp6FlowKey, HosStateCounterKey>;
TYPED_TEST_SUITE(KeyOrderTest, OrderedKeys);

// == and < agree: exactly one of a<b, b<a, a==b holds, over random pairs that
// often share most fields.
TYPED_TEST(KeyOrderTest, StrictWeakOrderConsistentWithEquality) {
  Rng rng(kSeed);
  std::printf("[ seed     ] %#llx\n", static_cast<unsigned long long>(kSeed));
  std::vector<TypeParam> keys;
  for (int i = 0; i < 64; i++) keys.push_back(Random<TypeParam>::make(rng));
  keys.push_back(TypeParam());
  keys.push_back(keys.front());
  for (auto const& a : keys) {
    for (auto const& b : keys) ASSERT_EQ(int(a < b) + int(b < a) + int(a == b), 1) << a << " vs " << b;
  }
}

// A flow key with its interface hashes as two words, the inner key's hash and
// the interface's, into an accumulator begun with the seed.
template <typename K>
void expectTwoWordHash(Rng& rng) {
  for (int i = 0; i < 50; i++) {
    K const k = Random<K>::make(rng);
    for (uint32_t seed : {0u, 1u, 5u, 0xdeadbeefu}) {
      Zeb::Hash h(seed);
      uint32_t const inner = k.ipFlowKey().hash(0), intf = k.intfId().hash();
      h.hashMix<4>(&inner);
      h.hashMix<4>(&intf);
      EXPECT_EQ(k.hash(seed), h.result());
    }
    EXPECT_NE(k.hash(0), k.hash(1));
  }
}

TEST(FlowKeyHash, KeysWithAnInterfaceFollowTheTwoWordRecipe) {
  Rng rng(kSeed);
  expectTwoWordHash<HoIpFlowKey>(rng);
  expectTwoWordHash<HoIp6FlowKey>(rng);
}

// The hash reads fields, not bytes: keys equal by == hash equal even when the
// bytes no field covers differ.
template <typename K>
void expectPaddingIgnored(std::vector<size_t> const& padOffsets) {
  Rng rng(kSeed);
  for (int i = 0; i < 50; i++) {
    K const a = Random<K>::make(rng);
    alignas(K) unsigned char raw[sizeof(K)];
    std::memcpy(raw, &a, sizeof raw);
    for (size_t off : padOffsets) raw[off] ^= 0xa5;
    K b;
    std::memcpy(&b, raw, sizeof b);
    ASSERT_NE(std::memcmp(&a, &b, sizeof a), 0);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.hash(77), b.hash(77));
  }
}

TEST(FlowKeyHash, PaddingBytesHaveNoMeaning) {
  expectPaddingIgnored<IpFlowKey>({14, 15, 25, 26, 27});
  expectPaddingIgnored<HoIpFlowKey>({14, 15, 25, 26, 27});
  expectPaddingIgnored<Ip6FlowKey>({38, 39, 49, 50, 51});
  expectPaddingIgnored<HoIp6FlowKey>({38, 39, 49, 50, 51});
}

TEST(FlowKeyHash, ProtocolNumberIsTheLowByteAndTheStateKeyHashesOneByte) {
  IpFlowKey k;
  k.ipProtocolIs(static_cast<Nimbet::IpProtocol>(0x106));
  EXPECT_EQ(k.ipProtocolNumber(), 6);
  EXPECT_EQ(Ip6FlowKey().ipProtocolNumber(), 255);
  for (unsigned s = 0; s < 256; s++) {
    Zeb::Hash h(11);
    unsigned char const byte = static_cast<unsigned char>(s);
    h.hashMix<1>(&byte);
    EXPECT_EQ(mirakHash(HosStateCounterKey(static_cast<HoFlowState>(s)), 11), h.result());
  }
}

// ---- records ----

TEST(HoIpFlowConfig, DefaultIsFalseAndItsTagsAreNotZero) {
  HoIpFlowConfig const c;
  EXPECT_FALSE(c);
  EXPECT_EQ(c.dot1qVlanTag().word(), 0x81000fffu);
  EXPECT_EQ(c.dot1qCustomerVlanTag().word(), 0x81000fffu);
  HoIpFlowConfig zeroed;
  std::memset(static_cast<void*>(&zeroed), 0, sizeof zeroed);
  EXPECT_FALSE(zeroed == c);
  EXPECT_TRUE(zeroed);
  HoIpFlowConfig tagged;
  Ovie::VlanTag t;
  t.vidIs(100);
  tagged.dot1qCustomerVlanTagIs(t);
  EXPECT_TRUE(tagged);
  EXPECT_TRUE(HoIpFlowConfig(HoIpFlowKey(IpFlowKey(), Nimbet::IntfId(Nimbet::IntfKind::vlan, 1))));
  // The cached interface counts for equality though the trace text leaves it out.
  HoIpFlowConfig a;
  a.createTimeIs(3.25);
  HoIpFlowConfig b = a;
  b.cachedIntfIdIs(Nimbet::IntfId(Nimbet::IntfKind::ethernet, 2));
  EXPECT_FALSE(a == b);
  EXPECT_EQ(a.mirakString(), b.mirakString());
}

template <typename R>
class TimedRecordTest : public ::testing::Test {};
using TimedRecords = ::testing::Types<HoIpFlowConfig, HoIp6FlowConfig, HoIpFlowStatus,
                                      HoIp6FlowStatus, HoIpFlowCounter, HoIp6FlowCounter>;
TYPED_TEST_SUITE(TimedRecordTest, TimedRecords);

TYPED_TEST(TimedRecordTest, KeyConstructorTimesAndNaN) {
  EXPECT_FALSE(TypeParam());
  Rng rng(kSeed);
  TypeParam const r = Random<TypeParam>::make(rng);
  TypeParam const fromKey(r.key());
  EXPECT_EQ(fromKey.key(), r.key());
  EXPECT_EQ(fromKey.createTime(), 0.0);
  EXPECT_EQ(fromKey.updateTime(), 0.0);
  EXPECT_TRUE(fromKey);
  TypeParam other = r;
  other.updateTimeIs(r.updateTime() + 1.0);
  EXPECT_FALSE(other == r);
  // A NaN time makes a record true and unequal to itself.
  TypeParam n;
  n.createTimeIs(std::nan(""));
  TypeParam const copy = n;
  EXPECT_FALSE(n == copy);
  EXPECT_TRUE(n);
  TypeParam u;
  u.updateTimeIs(std::nan(""));
  EXPECT_FALSE(u == u);
}

TEST(HoIpFlowCounter, IncAndDecAreModular) {
  HoIpFlowCounter c;
  c.packetsIs(0xffffffffffffffffull);
  EXPECT_EQ(c.packetsInc(1), 0u);
  EXPECT_EQ(c.packets(), 0u);
  EXPECT_EQ(c.bytesInc(5000000000ull), 5000000000ull);
  EXPECT_EQ(c.bytesInc(1), 5000000001ull);
  EXPECT_EQ(c.hosEntriesDec(1), 0xffffffffu);
  EXPECT_EQ(c.hosEntriesInc(2), 1u);
  HosStateCounterEntry e;
  e.hoFlowsIs(1);
  EXPECT_EQ(e.hoFlowsDec(2), 0xffffffffu);
  EXPECT_EQ(e.hoFlows(), 0xffffffffu);
  EXPECT_EQ(e.hoFlowsInc(3), 2u);
  EXPECT_TRUE(e);
  EXPECT_FALSE(HosStateCounterEntry());
}

TEST(MirakString, KeysAndRecords) {
  IpFlowKey f;
  f.vrfIdIs(1);
  f.srcAddrIs(Nimbet::IpAddr(0x0a000001));
  HoIpFlowKey const k(f, Nimbet::IntfId(Nimbet::IntfKind::ethernet, 4));
  std::string const key = k.mirakString().stdString();
  HoIpFlowConfig c(k);
  c.srcEthAddrIs(Nimbet::EthAddr(0, 1, 2, 3, 4, 5));
  c.createTimeIs(1234567.875);
  c.updateTimeIs(0.5);
  HoIpFlowStatus s(k);
  s.hoFlowStateIs(hoFlowStateFailed);
  s.updateTimeIs(2);
  HoIpFlowCounter n(f);
  n.packetsIs(5000000000ull);
  n.hosEntriesIs(3);
  HosStateCounterEntry e{HosStateCounterKey(hoFlowStateOffloaded)};
  e.hoFlowsIs(9);
  std::pair<Zeb::String, std::string> const cases[] = {
      {k.mirakString(), f.str().stdString() + ", intf: Ethernet4"},
      {HosStateCounterKey(hoFlowStatePending).mirakString(), " HosStateCounterKey: hoFlowStatePending"},
      {c.mirakString(), "[" + key +
                            "]  srcEth: 00:01:02:03:04:05, dstEth: 00:00:00:00:00:00, created: "
                            "1.23457e+06, updateTime: 0.5"},
      {s.mirakString(), "[" + key + "]  state: hoFlowStateFailed, created: 0, updated: 2"},
      {n.mirakString(), "[" + f.str().stdString() +
                            "] intf: intfNone, pkts: 5000000000, bytes: 0, hos: 3, created: 0, "
                            "updated: 0"},
      {e.mirakString(), "[hoFlowStateOffloaded] hoFlows: 9"},
  };
  for (auto const& [got, want] : cases) EXPECT_EQ(got.stdString(), want);
}

}  // namespace
}  // namespace FlowTracking
