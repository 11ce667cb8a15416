// Flow keys and records as values: defaults, equality and order, hashes,
// Inc/Dec arithmetic, trace texts, and the byte layout that tables share.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
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

template <typename F>
F readAt(std::vector<uint8_t> const& b, size_t off) {
  F v;
  std::memcpy(&v, b.data() + off, sizeof v);
  return v;
}

// ---- keys ----

TEST(HoIpFlowKey, DefaultsAndBool) {
  HoIpFlowKey const k;
  EXPECT_EQ(k.ipFlowKey().vrfId(), 0xffffffu);
  EXPECT_EQ(k.ipFlowKey().ipProtocol(), Nimbet::ipProtoUnknown);
  EXPECT_EQ(static_cast<uint32_t>(k.ipFlowKey().ipProtocol()), 255u);
  EXPECT_EQ(k.intfId(), Nimbet::IntfId());
  EXPECT_FALSE(k);

  // Each single field change makes the key true, the interface included.
  std::vector<IpFlowKey> changed(8);
  changed[0].vrfIdIs(0);
  changed[1].vlanIdIs(1);
  changed[2].srcAddrIs(Nimbet::IpAddr(1));
  changed[3].dstAddrIs(Nimbet::IpAddr(1));
  changed[4].ipProtocolIs(Nimbet::ipProtoTcp);
  changed[5].srcPortIs(1);
  changed[6].dstPortIs(1);
  changed[7].directionIs(Nimbet::trafficDirectionEgress);
  for (auto const& f : changed) EXPECT_TRUE(HoIpFlowKey(f, Nimbet::IntfId())) << f;
  EXPECT_TRUE(HoIpFlowKey(IpFlowKey(), Nimbet::IntfId(Nimbet::IntfKind::ethernet, 1)));
  EXPECT_TRUE(HoIp6FlowKey(Ip6FlowKey(), Nimbet::IntfId(0xffffffff, 1)));
  EXPECT_FALSE(HoIp6FlowKey());
}

TEST(HoIpFlowKey, EqualFlowKeysOrderByInterface) {
  IpFlowKey f;
  f.srcPortIs(7);
  HoIpFlowKey const a(f, Nimbet::IntfId(Nimbet::IntfKind::ethernet, 1));
  HoIpFlowKey const b(f, Nimbet::IntfId(Nimbet::IntfKind::ethernet, 2));
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(b < a);
  // The flow key decides first, whatever the interfaces.
  IpFlowKey g = f;
  g.srcPortIs(6);
  HoIpFlowKey const c(g, Nimbet::IntfId(Nimbet::IntfKind::ethernet, 9));
  EXPECT_TRUE(c < a);
  EXPECT_FALSE(a < c);
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
    for (auto const& b : keys) {
      int const n = int(a < b) + int(b < a) + int(a == b);
      ASSERT_EQ(n, 1) << a << " vs " << b;
    }
  }
}

TEST(HoIpFlowKey, HashFollowsTheTwoWordRecipe) {
  Rng rng(kSeed);
  for (int i = 0; i < 100; i++) {
    HoIp6FlowKey const k = Random<HoIp6FlowKey>::make(rng);
    for (uint32_t seed : {0u, 1u, 0xdeadbeefu}) {
      Zeb::Hash h(seed);
      uint32_t const inner = k.ipFlowKey().hash(0);
      uint32_t const intf = k.intfId().hash();
      h.hashMix<4>(&inner);
      h.hashMix<4>(&intf);
      EXPECT_EQ(k.hash(seed), h.result());
    }
    // Seeds 0 and 1 feed the same words into differently begun accumulators.
    EXPECT_NE(k.hash(0), k.hash(1));
  }
  HoIpFlowKey const k4 = Random<HoIpFlowKey>::make(rng);
  Zeb::Hash h(5);
  uint32_t const inner = k4.ipFlowKey().hash(0);
  uint32_t const intf = k4.intfId().hash();
  h.hashMix<4>(&inner);
  h.hashMix<4>(&intf);
  EXPECT_EQ(k4.hash(5), h.result());
}

// The hash reads fields, not bytes: keys equal by == hash equal even when the
// bytes no field covers differ.
template <typename K>
void expectPaddingIgnored(size_t const* padOffsets, size_t n) {
  Rng rng(kSeed);
  for (int i = 0; i < 50; i++) {
    K const a = Random<K>::make(rng);
    alignas(K) unsigned char raw[sizeof(K)];
    std::memcpy(raw, &a, sizeof raw);
    for (size_t j = 0; j < n; j++) raw[padOffsets[j]] ^= 0xa5;
    K b;
    std::memcpy(&b, raw, sizeof b);
    ASSERT_NE(std::memcmp(&a, &b, sizeof a), 0);
    EXPECT_EQ(a, b);
    EXPECT_EQ(a.hash(77), b.hash(77));
  }
}

TEST(FlowKeyHash, PaddingBytesHaveNoMeaning) {
  size_t const pad4[] = {14, 15, 25, 26, 27};
  expectPaddingIgnored<IpFlowKey>(pad4, 5);
  expectPaddingIgnored<HoIpFlowKey>(pad4, 5);
  size_t const pad6[] = {38, 39, 49, 50, 51};
  expectPaddingIgnored<Ip6FlowKey>(pad6, 5);
  expectPaddingIgnored<HoIp6FlowKey>(pad6, 5);
}

TEST(FlowKeyHash, EveryFieldTakesPart) {
  IpFlowKey base;
  std::vector<IpFlowKey> changed(8, base);
  changed[0].vrfIdIs(1);
  changed[1].vlanIdIs(0x100);  // high byte only
  changed[2].srcAddrIs(Nimbet::IpAddr(1));
  changed[3].dstAddrIs(Nimbet::IpAddr(0x01000000));
  changed[4].ipProtocolIs(static_cast<Nimbet::IpProtocol>(0x1ff));
  changed[5].srcPortIs(1);
  changed[6].dstPortIs(0x100);
  changed[7].directionIs(Nimbet::trafficDirectionIngress);
  for (auto const& k : changed) EXPECT_NE(k.hash(3), base.hash(3)) << k;
  // Source and destination are not interchangeable.
  IpFlowKey a, b;
  a.srcAddrIs(Nimbet::IpAddr(1));
  b.dstAddrIs(Nimbet::IpAddr(1));
  EXPECT_NE(a.hash(0), b.hash(0));
}

TEST(IpFlowKey, ProtocolNumberIsTheLowByte) {
  IpFlowKey k;
  k.ipProtocolIs(static_cast<Nimbet::IpProtocol>(0x106));
  EXPECT_EQ(k.ipProtocolNumber(), 6);
  Ip6FlowKey k6;
  EXPECT_EQ(k6.ipProtocolNumber(), 255);
}

TEST(HosStateCounterKey, HashIsTheSingleByteRecipe) {
  for (unsigned s = 0; s < 256; s++) {
    HosStateCounterKey const k(static_cast<HoFlowState>(s));
    Zeb::Hash h(11);
    unsigned char const byte = static_cast<unsigned char>(s);
    h.hashMix<1>(&byte);
    EXPECT_EQ(mirakHash(k, 11), h.result());
  }
  EXPECT_TRUE(HosStateCounterKey(static_cast<HoFlowState>(1)) <
              HosStateCounterKey(static_cast<HoFlowState>(200)));
}

TEST(MirakString, Keys) {
  IpFlowKey f;
  f.vrfIdIs(1);
  f.srcAddrIs(Nimbet::IpAddr(0x0a000001));
  HoIpFlowKey const k(f, Nimbet::IntfId(Nimbet::IntfKind::ethernet, 4));
  EXPECT_EQ(k.mirakString().stdString(), f.str().stdString() + ", intf: Ethernet4");
  EXPECT_EQ(HosStateCounterKey(hoFlowStatePending).mirakString().stdString(),
            " HosStateCounterKey: hoFlowStatePending");
}

// ---- records ----

TEST(HoIpFlowConfig, DefaultIsFalseAndTagsAreNotZero) {
  HoIpFlowConfig const c;
  EXPECT_FALSE(c);
  EXPECT_EQ(c.dot1qVlanTag().word(), 0x81000fffu);
  EXPECT_EQ(c.dot1qCustomerVlanTag().word(), 0x81000fffu);
  auto const b = bytesOf(c);
  EXPECT_EQ(readAt<uint32_t>(b, 64), 0x81000fffu);
  EXPECT_EQ(readAt<uint16_t>(b, 68), 0u);
  EXPECT_EQ(readAt<uint32_t>(b, 70), 0x81000fffu);
  EXPECT_EQ(readAt<uint16_t>(b, 74), 0u);

  HoIpFlowConfig zeroed;
  std::memset(static_cast<void*>(&zeroed), 0, sizeof zeroed);
  EXPECT_FALSE(zeroed == c);
  EXPECT_TRUE(zeroed);

  HoIpFlowConfig tagged;
  Ovie::VlanTag t;
  t.vidIs(100);
  tagged.dot1qCustomerVlanTagIs(t);
  EXPECT_TRUE(tagged);
  HoIpFlowKey k(IpFlowKey(), Nimbet::IntfId(Nimbet::IntfKind::vlan, 1));
  EXPECT_TRUE(HoIpFlowConfig(k));
}

TEST(HoIpFlowConfig, CachedIntfIdCountsThoughMirakStringIgnoresIt) {
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

TYPED_TEST(TimedRecordTest, NaNTimeIsUnequalToItself) {
  TypeParam r;
  r.createTimeIs(std::nan(""));
  TypeParam const copy = r;
  EXPECT_FALSE(r == copy);
  EXPECT_TRUE(r);
  TypeParam u;
  u.updateTimeIs(std::nan(""));
  EXPECT_FALSE(u == u);
}

TYPED_TEST(TimedRecordTest, DefaultFalseAndKeyConstructor) {
  EXPECT_FALSE(TypeParam());
  Rng rng(kSeed);
  TypeParam const r = Random<TypeParam>::make(rng);
  TypeParam const fromKey(r.key());
  EXPECT_EQ(fromKey.key(), r.key());
  EXPECT_EQ(fromKey.createTime(), 0.0);
  EXPECT_EQ(fromKey.updateTime(), 0.0);
  EXPECT_TRUE(fromKey);
  EXPECT_TRUE(r == r);
  TypeParam other = r;
  other.updateTimeIs(r.updateTime() + 1.0);
  EXPECT_FALSE(other == r);
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

TEST(MirakString, Records) {
  IpFlowKey f;
  HoIpFlowKey const k(f, Nimbet::IntfId(Nimbet::IntfKind::ethernet, 1));
  HoIpFlowConfig c(k);
  c.srcEthAddrIs(Nimbet::EthAddr(0, 1, 2, 3, 4, 5));
  c.createTimeIs(1234567.875);
  c.updateTimeIs(0.5);
  EXPECT_EQ(c.mirakString().stdString(),
            "[" + k.mirakString().stdString() +
                "]  srcEth: 00:01:02:03:04:05, dstEth: 00:00:00:00:00:00, created: 1.23457e+06,"
                " updateTime: 0.5");

  HoIpFlowStatus s(k);
  s.hoFlowStateIs(hoFlowStateFailed);
  s.updateTimeIs(2);
  EXPECT_EQ(s.mirakString().stdString(), "[" + k.mirakString().stdString() +
                                             "]  state: hoFlowStateFailed, created: 0,"
                                             " updated: 2");

  HoIpFlowCounter n(f);
  n.packetsIs(5000000000ull);
  n.hosEntriesIs(3);
  EXPECT_EQ(n.mirakString().stdString(), "[" + f.str().stdString() +
                                             "] intf: intfNone, pkts: 5000000000, bytes: 0,"
                                             " hos: 3, created: 0, updated: 0");

  HosStateCounterEntry e{HosStateCounterKey(hoFlowStateOffloaded)};
  e.hoFlowsIs(9);
  EXPECT_EQ(e.mirakString().stdString(), "[hoFlowStateOffloaded] hoFlows: 9");
}

// ---- layout: fields written through the API land at their table offsets ----

template <typename K>
void expectFlowKeyBytes(std::vector<uint8_t> const& b, size_t base, size_t addrSize) {
  size_t const dst = 6 + addrSize;
  size_t const proto = dst + addrSize + 2;
  EXPECT_EQ(readAt<uint32_t>(b, base + 0), 0x01020304u);
  EXPECT_EQ(readAt<uint16_t>(b, base + 4), 0x0506u);
  EXPECT_EQ(b[base + 6], 10);  // network order: first byte of the address
  EXPECT_EQ(b[base + 6 + addrSize - 1], 0x11);
  EXPECT_EQ(b[base + dst], 20);
  EXPECT_EQ(b[base + dst + addrSize - 1], 0x22);
  EXPECT_EQ(readAt<uint32_t>(b, base + proto), 0x106u);
  EXPECT_EQ(readAt<uint16_t>(b, base + proto + 4), 0x1234u);
  EXPECT_EQ(readAt<uint16_t>(b, base + proto + 6), 0x4321u);
  EXPECT_EQ(b[base + proto + 8], 2);
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

void expectIntfAt(std::vector<uint8_t> const& b, size_t off) {
  EXPECT_EQ(readAt<uint32_t>(b, off), 0x01000007u);  // Ethernet7
  EXPECT_EQ(readAt<uint32_t>(b, off + 4), 9u);
}

TEST(Layout, FlowKeys) {
  expectFlowKeyBytes<IpFlowKey>(bytesOf(layoutFlowKey<IpFlowKey>()), 0, 4);
  expectFlowKeyBytes<Ip6FlowKey>(bytesOf(layoutFlowKey<Ip6FlowKey>()), 0, 16);
  Nimbet::IntfId const intf(Nimbet::IntfKind::ethernet, 7, 9);
  auto const b4 = bytesOf(HoIpFlowKey(layoutFlowKey<IpFlowKey>(), intf));
  expectFlowKeyBytes<IpFlowKey>(b4, 0, 4);
  expectIntfAt(b4, 28);
  auto const b6 = bytesOf(HoIp6FlowKey(layoutFlowKey<Ip6FlowKey>(), intf));
  expectFlowKeyBytes<Ip6FlowKey>(b6, 0, 16);
  expectIntfAt(b6, 52);
  // The default interface's words.
  auto const d = bytesOf(HoIpFlowKey());
  EXPECT_EQ(readAt<uint32_t>(d, 0), 0xffffffu);
  EXPECT_EQ(readAt<uint32_t>(d, 16), 255u);
  EXPECT_EQ(readAt<uint32_t>(d, 28), 0xffffffffu);
  EXPECT_EQ(readAt<uint32_t>(d, 32), 0u);
}

template <typename R, typename FK>
void expectConfigLayout(size_t keySize, size_t addrSize) {
  Nimbet::IntfId const intf(Nimbet::IntfKind::ethernet, 7, 9);
  R r(typename R::Key(layoutFlowKey<FK>(), intf));
  r.createTimeIs(1.5);
  r.updateTimeIs(-2.25);
  r.srcEthAddrIs(Nimbet::EthAddr(1, 2, 3, 4, 5, 6));
  r.dstEthAddrIs(Nimbet::EthAddr(7, 8, 9, 10, 11, 12));
  r.dot1qVlanTagIs(Ovie::VlanTag(0x88a8e064, 0x5a));
  r.dot1qCustomerVlanTagIs(Ovie::VlanTag(0x8100200a, 0x01));
  r.cachedIntfIdIs(intf);
  auto const b = bytesOf(r);
  expectFlowKeyBytes<FK>(b, 0, addrSize);
  expectIntfAt(b, keySize - 8);
  EXPECT_EQ(readAt<double>(b, keySize), 1.5);
  EXPECT_EQ(readAt<double>(b, keySize + 8), -2.25);
  EXPECT_EQ(b[keySize + 16], 1);
  EXPECT_EQ(b[keySize + 21], 6);
  EXPECT_EQ(b[keySize + 22], 7);
  EXPECT_EQ(b[keySize + 27], 12);
  EXPECT_EQ(readAt<uint32_t>(b, keySize + 28), 0x88a8e064u);
  EXPECT_EQ(b[keySize + 32], 0x5a);
  EXPECT_EQ(readAt<uint32_t>(b, keySize + 34), 0x8100200au);
  EXPECT_EQ(b[keySize + 38], 0x01);
  expectIntfAt(b, keySize + 40);
  EXPECT_EQ(sizeof(R), keySize + 48);
}

TEST(Layout, Configs) {
  expectConfigLayout<HoIpFlowConfig, IpFlowKey>(36, 4);
  expectConfigLayout<HoIp6FlowConfig, Ip6FlowKey>(60, 16);
}

template <typename R, typename FK>
void expectStatusLayout(size_t keySize) {
  R r(typename R::Key(layoutFlowKey<FK>(), Nimbet::IntfId()));
  r.hoFlowStateIs(hoFlowStateRemoving);
  r.createTimeIs(3.5);
  r.updateTimeIs(4.75);
  auto const b = bytesOf(r);
  EXPECT_EQ(b[keySize], 4);
  EXPECT_EQ(readAt<double>(b, keySize + 4), 3.5);
  EXPECT_EQ(readAt<double>(b, keySize + 12), 4.75);
  EXPECT_EQ(sizeof(R), keySize + 20);
}

TEST(Layout, Statuses) {
  expectStatusLayout<HoIpFlowStatus, IpFlowKey>(36);
  expectStatusLayout<HoIp6FlowStatus, Ip6FlowKey>(60);
}

template <typename R, typename FK>
void expectCounterLayout(size_t keySize, size_t addrSize) {
  R r(layoutFlowKey<FK>());
  r.intfIdIs(Nimbet::IntfId(Nimbet::IntfKind::ethernet, 7, 9));
  r.packetsIs(0x1122334455667788ull);
  r.bytesIs(0x99aabbccddeeff00ull);
  r.createTimeIs(5.5);
  r.updateTimeIs(6.5);
  r.hosEntriesIs(0xcafef00d);
  auto const b = bytesOf(r);
  expectFlowKeyBytes<FK>(b, 0, addrSize);
  expectIntfAt(b, keySize);
  EXPECT_EQ(readAt<uint64_t>(b, keySize + 8), 0x1122334455667788ull);
  EXPECT_EQ(readAt<uint64_t>(b, keySize + 16), 0x99aabbccddeeff00ull);
  EXPECT_EQ(readAt<double>(b, keySize + 24), 5.5);
  EXPECT_EQ(readAt<double>(b, keySize + 32), 6.5);
  EXPECT_EQ(readAt<uint32_t>(b, keySize + 40), 0xcafef00du);
  EXPECT_EQ(sizeof(R), keySize + 44);
}

TEST(Layout, Counters) {
  expectCounterLayout<HoIpFlowCounter, IpFlowKey>(28, 4);
  expectCounterLayout<HoIp6FlowCounter, Ip6FlowKey>(52, 16);
}

TEST(Layout, HosStateCounterEntry) {
  HosStateCounterEntry e{HosStateCounterKey(hoFlowStateOffloaded)};
  e.hoFlowsIs(0x01020304);
  auto const b = bytesOf(e);
  EXPECT_EQ(b[0], 2);
  EXPECT_EQ(readAt<uint32_t>(b, 4), 0x01020304u);
}

// A record copied as bytes (as a table slot does) is the same record.
template <typename R>
class ByteCopyTest : public ::testing::Test {};
using AllRecords =
    ::testing::Types<HoIpFlowConfig, HoIp6FlowConfig, HoIpFlowStatus, HoIp6FlowStatus,
                     HoIpFlowCounter, HoIp6FlowCounter, HosStateCounterEntry>;
TYPED_TEST_SUITE(ByteCopyTest, AllRecords);

TYPED_TEST(ByteCopyTest, CopyOfBytesIsEqual) {
  static_assert(std::is_trivially_copyable_v<TypeParam>);
  Rng rng(kSeed);
  for (int i = 0; i < 200; i++) {
    TypeParam const r = Random<TypeParam>::make(rng);
    alignas(8) unsigned char slot[sizeof(TypeParam) + 8];
    std::memcpy(slot + 4, &r, sizeof r);  // deliberately misaligned, as in a packed slot
    TypeParam back;
    std::memcpy(&back, slot + 4, sizeof back);
    ASSERT_EQ(back, r);
  }
}

}  // namespace
}  // namespace FlowTracking
