// Nimbet value types: interface ids, Ethernet and IP addresses, protocols and
// directions: defaults, order, hashes, and text forms that parse back and stop
// at the end of their own field.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <sstream>

#include "Nimbet/EthAddr.h"
#include "Nimbet/IntfId.h"
#include "Nimbet/IpAddr.h"
#include "Nimbet/IpProtocol.h"
#include "Zeb/Hash.h"

namespace Nimbet {
namespace {

constexpr uint64_t kSeed = 0x5eed0004;

// Parses `text` followed by a field separator, as inside a strep, and checks
// that the parser stopped exactly before the separator.
template <typename T>
T parseInField(std::string const& text) {
  Zeb::String const s(text + ", 'next'");
  auto it = s.begin();
  T v = sequenceToValue(it, s.end(), static_cast<T*>(nullptr));
  EXPECT_EQ(it.rest(s.end()), ", 'next'") << text;
  return v;
}

template <typename T>
void expectRejected(std::initializer_list<char const*> texts) {
  for (char const* text : texts) {
    EXPECT_THROW(Zeb::strepToValue(Zeb::String(text), static_cast<T*>(nullptr)),
                 Zeb::RangeException)
        << "'" << text << "'";
  }
}

// Random values print and parse back inside a field.
template <typename T, typename Make>
void expectRoundTrips(int n, Make make) {
  std::mt19937_64 rng(kSeed);
  for (int i = 0; i < n; i++) {
    T const v = make(rng, i);
    ASSERT_EQ(parseInField<T>(v.str().stdString()), v) << v;
  }
}

TEST(IntfId, DefaultIsNoneAndInitialisationParsesANameOrKeepsIt) {
  IntfId const d;
  EXPECT_EQ(d.id(), 0xffffffffu);
  EXPECT_EQ(d.sub(), 0u);
  EXPECT_TRUE(d.isNone());
  IntfId e = d;
  e.handleInitialized(Zeb::String());
  EXPECT_EQ(e, d);
  e.handleInitialized(Zeb::String("Ethernet12.3"));
  EXPECT_EQ(e, IntfId(IntfKind::ethernet, 12, 3));
  EXPECT_THROW(e.handleInitialized(Zeb::String("Bogus1")), Zeb::RangeException);
  EXPECT_EQ(e, IntfId(IntfKind::ethernet, 12, 3));
  EXPECT_EQ(IntfId("Loopback0"), IntfId(IntfKind::loopback, 0));
  EXPECT_THROW(IntfId(IntfKind::ethernet, 0x1000000), Zeb::RangeException);
}

TEST(IntfId, TextsRoundTripAndBadTextsAreRejected) {
  std::ostringstream os;
  os << IntfId(IntfKind::tunnel, 5);
  std::pair<IntfId, std::string> const named[] = {
      {IntfId(), "intfNone"},
      {IntfId(IntfKind::ethernet, 1), "Ethernet1"},
      {IntfId(IntfKind::portChannel, 20, 7), "Port-Channel20.7"},
      {IntfId(IntfKind::vlan, 4094), "Vlan4094"},
      {IntfId(0x12000001, 0), "intf:0x12000001:0x00000000"},
      {IntfId(0xffffffff, 1), "intf:0xffffffff:0x00000001"},
      {IntfId(IntfKind::tunnel, 5), os.str()},
  };
  for (auto const& [id, text] : named) EXPECT_EQ(id.str().stdString(), text);
  expectRoundTrips<IntfId>(5000, [](std::mt19937_64& rng, int i) {
    return (i % 2) ? IntfId(static_cast<uint32_t>(rng()), static_cast<uint32_t>(rng()))
                   : IntfId(static_cast<IntfKind>(1 + rng() % 6),
                            static_cast<uint32_t>(rng() % 0x1000000),
                            (rng() & 1) ? static_cast<uint32_t>(rng()) : 0);
  });
  expectRejected<IntfId>({"", "Ethernet", "Ethernet 1", "ethernet1", "Ethernet1.0",
                          "Ethernet16777216", "intf:0x1234567:0x00000000",
                          "intf:0x12345678:00000000", "intfnone", "Ethernet-1"});
}

TEST(IntfId, HashAndOrderReadBothWords) {
  IntfId const a(1, 2), b(2, 1), c(1, 3);
  Zeb::Hash h(0);
  uint32_t w0 = 1, w1 = 2;
  h.hashMix<4>(&w0);
  h.hashMix<4>(&w1);
  EXPECT_EQ(a.hash(), h.result());
  EXPECT_NE(a.hash(), b.hash());
  EXPECT_TRUE(a < c && c < b);
  EXPECT_FALSE(a == c);
}

TEST(EthAddr, TextForm) {
  EthAddr const a(0x00, 0x1c, 0x73, 0x0a, 0xbb, 0xff);
  EXPECT_EQ(a.str().stdString(), "00:1c:73:0a:bb:ff");
  EXPECT_EQ(parseInField<EthAddr>("00:1C:73:0A:BB:FF"), a);
  EXPECT_TRUE(EthAddr().isZero());
  EXPECT_TRUE(EthAddr(0, 0, 0, 0, 0, 1) < EthAddr(0, 0, 0, 0, 1, 0));
  expectRoundTrips<EthAddr>(1000, [](std::mt19937_64& rng, int) {
    return EthAddr(uint8_t(rng()), uint8_t(rng()), uint8_t(rng()), uint8_t(rng()),
                   uint8_t(rng()), uint8_t(rng()));
  });
  expectRejected<EthAddr>({"", "00:1c:73:0a:bb", "00:1c:73:0a:bb:f", "00-1c-73-0a-bb-ff",
                           "00:1c:73:0a:bb:fg", "00:1c:73:0a:bb:ff:", " 00:1c:73:0a:bb:ff"});
}

TEST(IpAddr, DottedQuad) {
  IpAddr const a(0x0a000001);
  EXPECT_EQ(a.str().stdString(), "10.0.0.1");
  EXPECT_EQ(a.bytes()[0], 10);
  EXPECT_EQ(parseInField<IpAddr>("255.255.255.255"), IpAddr(0xffffffff));
  EXPECT_EQ(parseInField<IpAddr>("0.0.0.0"), IpAddr());
  expectRoundTrips<IpAddr>(2000,
                           [](std::mt19937_64& rng, int) { return IpAddr(uint32_t(rng())); });
  expectRejected<IpAddr>(
      {"", "1.2.3", "1.2.3.256", "1.2.3.04", "1..2.3", "1.2.3.4.", " 1.2.3.4", "1.2.3.-4"});
}

TEST(Ip6Addr, CompressedFormRoundTrips) {
  Ip6Addr::Bytes b{};
  b[15] = 1;
  EXPECT_EQ(Ip6Addr(b).str().stdString(), "::1");
  EXPECT_EQ(Ip6Addr().str().stdString(), "::");
  Ip6Addr::Bytes doc{0x20, 0x01, 0x0d, 0xb8};
  doc[15] = 0x42;
  EXPECT_EQ(Ip6Addr(doc).str().stdString(), "2001:db8::42");
  EXPECT_EQ(parseInField<Ip6Addr>("2001:DB8:0::42"), Ip6Addr(doc));
  expectRoundTrips<Ip6Addr>(3000, [](std::mt19937_64& rng, int i) {
    Ip6Addr::Bytes r{};
    if (i % 5 == 0) {  // IPv4-mapped
      r[10] = r[11] = 0xff;
      for (size_t j = 12; j < 16; j++) r[j] = static_cast<uint8_t>(rng());
    } else {
      for (auto& x : r) x = ((rng() % 3) == 0) ? 0 : static_cast<uint8_t>(rng());
    }
    return Ip6Addr(r);
  });
  expectRejected<Ip6Addr>({"", ":", "1:2", "::g", "1::2::3", " ::1", "12345::"});
}

TEST(IpProtocolAndDirection, NamesAndNumbers) {
  EXPECT_EQ(valueToStrep(ipProtoTcp).stdString(), "ipProtoTcp");
  EXPECT_EQ(valueToStrep(ipProtoUnknown).stdString(), "ipProtoUnknown");
  EXPECT_EQ(valueToStrep(static_cast<IpProtocol>(0x106)).stdString(), "262");
  EXPECT_EQ(fmt::format("{}", ipProtoIcmp), "ipProtoIcmp");
  EXPECT_EQ(parseInField<IpProtocol>("ipProtoUdp"), ipProtoUdp);
  EXPECT_EQ(parseInField<IpProtocol>("4294967295"), static_cast<IpProtocol>(0xffffffffu));
  expectRejected<IpProtocol>({"4294967296", "ipProtoTcpx", "tcp"});
  EXPECT_EQ(valueToStrep(trafficDirectionEgress).stdString(), "trafficDirectionEgress");
  EXPECT_EQ(parseInField<TrafficDirection>("trafficDirectionIngress"), trafficDirectionIngress);
  EXPECT_EQ(parseInField<TrafficDirection>("77"), static_cast<TrafficDirection>(77));
  expectRejected<TrafficDirection>({"256", "ingress"});
}

}  // namespace
}  // namespace Nimbet
