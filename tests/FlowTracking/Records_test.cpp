// Flow keys and records as values: defaults, equality and order, hashes,
// Inc/Dec arithmetic, trace texts, and the byte layout that tables share.
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

template <typename T>
std::vector<uint8_t> bytesOf(T const& v) {
  std::vector<uint8_t> b(sizeof v);
  std::memcpy(b.data(), &v, sizeof v);
  return b;
}

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

// ---- layout: fields written through the API land at their table offsets ----

// A field's bytes at an offset of a value, little-endian, `width` bytes.
struct Field {
  size_t offset, width;
  uint64_t value;
};

void expectFields(std::vector<uint8_t> const& b, std::vector<Field> const& fields) {
  for (Field const& f : fields) {
    uint64_t v = 0;
    ASSERT_LE(f.offset + f.width, b.size());
    std::memcpy(&v, b.data() + f.offset, f.width);
    EXPECT_EQ(v, f.value) << "at offset " << f.offset;
  }
}

uint64_t bitsOf(double d) {
  uint64_t v;
  std::memcpy(&v, &d, sizeof v);
  return v;
}

template <typename K>
K layoutFlowKey() {
  K k;
  k.vrfIdIs(0x01020304);
  k.vlanIdIs(0x0506);
  typename K::Addr::Bytes src{}, dst{};
  src.front() = 10;
  src.back() = 0x11;
  dst.front() = 20;
  dst.back() = 0x22;
  k.srcAddrIs(typename K::Addr(src));
  k.dstAddrIs(typename K::Addr(dst));
  k.ipProtocolIs(static_cast<Nimbet::IpProtocol>(0x106));
  k.srcPortIs(0x1234);
  k.dstPortIs(0x4321);
  k.directionIs(Nimbet::trafficDirectionEgress);
  return k;
}

// layoutFlowKey's fields; addresses in network order.
std::vector<Field> flowKeyFields(size_t addrSize) {
  size_t const dst = 6 + addrSize, proto = dst + addrSize + 2;
  return {{0, 4, 0x01020304},  {4, 2, 0x0506},         {6, 1, 10},
          {5 + addrSize, 1, 0x11}, {dst, 1, 20},       {dst + addrSize - 1, 1, 0x22},
          {proto, 4, 0x106},   {proto + 4, 2, 0x1234}, {proto + 6, 2, 0x4321},
          {proto + 8, 1, 2}};
}

std::vector<Field> operator+(std::vector<Field> a, std::vector<Field> const& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Nimbet::IntfId const kIntf(Nimbet::IntfKind::ethernet, 7, 9);
std::vector<Field> intfAt(size_t off) {
  return {{off, 4, 0x01000007u}, {off + 4, 4, 9}};  // Ethernet7, sub-interface 9
}

template <typename R, typename FK>
void expectConfigLayout(size_t keySize, size_t addrSize) {
  R r(typename R::Key(layoutFlowKey<FK>(), kIntf));
  r.createTimeIs(1.5);
  r.updateTimeIs(-2.25);
  r.srcEthAddrIs(Nimbet::EthAddr(1, 2, 3, 4, 5, 6));
  r.dstEthAddrIs(Nimbet::EthAddr(7, 8, 9, 10, 11, 12));
  r.dot1qVlanTagIs(Ovie::VlanTag(0x88a8e064, 0x5a));
  r.dot1qCustomerVlanTagIs(Ovie::VlanTag(0x8100200a, 0x01));
  r.cachedIntfIdIs(kIntf);
  size_t const k = keySize;
  expectFields(bytesOf(r), flowKeyFields(addrSize) + intfAt(k - 8) + intfAt(k + 40) +
                               std::vector<Field>{{k, 8, bitsOf(1.5)},
                                                  {k + 8, 8, bitsOf(-2.25)},
                                                  {k + 16, 1, 1},
                                                  {k + 21, 1, 6},
                                                  {k + 22, 1, 7},
                                                  {k + 27, 1, 12},
                                                  {k + 28, 4, 0x88a8e064},
                                                  {k + 32, 1, 0x5a},
                                                  {k + 34, 4, 0x8100200a},
                                                  {k + 38, 1, 0x01}});
  EXPECT_EQ(sizeof(R), k + 48);
  // A default config's tags are the untagged word, with zeroed padding after.
  expectFields(bytesOf(R()), {{k + 28, 4, 0x81000fffu}, {k + 32, 2, 0}, {k + 34, 4, 0x81000fffu},
                              {k + 38, 2, 0}});
}

template <typename R, typename FK>
void expectStatusLayout(size_t k, size_t addrSize) {
  R r(typename R::Key(layoutFlowKey<FK>(), kIntf));
  r.hoFlowStateIs(hoFlowStateRemoving);
  r.createTimeIs(3.5);
  r.updateTimeIs(4.75);
  expectFields(bytesOf(r), flowKeyFields(addrSize) + intfAt(k - 8) +
                               std::vector<Field>{{k, 1, 4}, {k + 4, 8, bitsOf(3.5)},
                                                  {k + 12, 8, bitsOf(4.75)}});
  EXPECT_EQ(sizeof(R), k + 20);
}

template <typename R, typename FK>
void expectCounterLayout(size_t k, size_t addrSize) {
  R r(layoutFlowKey<FK>());
  r.intfIdIs(kIntf);
  r.packetsIs(0x1122334455667788ull);
  r.bytesIs(0x99aabbccddeeff00ull);
  r.createTimeIs(5.5);
  r.updateTimeIs(6.5);
  r.hosEntriesIs(0xcafef00d);
  expectFields(bytesOf(r), flowKeyFields(addrSize) + intfAt(k) +
                               std::vector<Field>{{k + 8, 8, 0x1122334455667788ull},
                                                  {k + 16, 8, 0x99aabbccddeeff00ull},
                                                  {k + 24, 8, bitsOf(5.5)},
                                                  {k + 32, 8, bitsOf(6.5)},
                                                  {k + 40, 4, 0xcafef00d}});
  EXPECT_EQ(sizeof(R), k + 44);
}

TEST(Layout, EveryRecordsFieldsSitAtTheirTableOffsets) {
  expectConfigLayout<HoIpFlowConfig, IpFlowKey>(36, 4);
  expectConfigLayout<HoIp6FlowConfig, Ip6FlowKey>(60, 16);
  expectStatusLayout<HoIpFlowStatus, IpFlowKey>(36, 4);
  expectStatusLayout<HoIp6FlowStatus, Ip6FlowKey>(60, 16);
  expectCounterLayout<HoIpFlowCounter, IpFlowKey>(28, 4);
  expectCounterLayout<HoIp6FlowCounter, Ip6FlowKey>(52, 16);
  HosStateCounterEntry e{HosStateCounterKey(hoFlowStateOffloaded)};
  e.hoFlowsIs(0x01020304);
  expectFields(bytesOf(e), {{0, 1, 2}, {4, 4, 0x01020304}});
  // The default key's words: vrf, protocol and the "no interface" id.
  expectFields(bytesOf(HoIpFlowKey()), {{0, 4, 0xffffff}, {16, 4, 255}, {28, 4, 0xffffffff}, {32, 4, 0}});
}

}  // namespace
}  // namespace FlowTracking
