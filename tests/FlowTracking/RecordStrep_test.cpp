// Text forms of every flow key and record: round trips over random values,
// strictness (a blank more or less anywhere), and what a failure says.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>

#include "FlowTracking/RandomValues.h"

namespace FlowTracking {
namespace {

using FlowTrackingTest::Random;
using FlowTrackingTest::Rng;

constexpr uint64_t kSeed = 0x5eed0001;

template <typename T>
struct TypeName;
#define TYPE_NAME(T)                                          \
  template <>                                                 \
  struct TypeName<T> {                                        \
    static constexpr char const* kName = "FlowTracking::" #T; \
  }
TYPE_NAME(IpFlowKey);
TYPE_NAME(Ip6FlowKey);
TYPE_NAME(HoIpFlowKey);
TYPE_NAME(HoIp6FlowKey);
TYPE_NAME(HosStateCounterKey);
TYPE_NAME(HoIpFlowConfig);
TYPE_NAME(HoIp6FlowConfig);
TYPE_NAME(HoIpFlowStatus);
TYPE_NAME(HoIp6FlowStatus);
TYPE_NAME(HoIpFlowCounter);
TYPE_NAME(HoIp6FlowCounter);
TYPE_NAME(HosStateCounterEntry);
#undef TYPE_NAME

template <typename T>
class StrepTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::printf("[ seed     ] %s: %#llx\n", TypeName<T>::kName,
                static_cast<unsigned long long>(kSeed));
  }
  Rng rng_{kSeed};
};

using AllTypes =
    ::testing::Types<IpFlowKey, Ip6FlowKey, HoIpFlowKey, HoIp6FlowKey, HosStateCounterKey,
                     HoIpFlowConfig, HoIp6FlowConfig, HoIpFlowStatus, HoIp6FlowStatus,
                     HoIpFlowCounter, HoIp6FlowCounter, HosStateCounterEntry>;
TYPED_TEST_SUITE(StrepTest, AllTypes);

TYPED_TEST(StrepTest, RoundTripOfRandomValues) {
  for (int i = 0; i < 2000; i++) {
    TypeParam const v = Random<TypeParam>::make(this->rng_);
    Zeb::String const text = valueToStrep(v);
    TypeParam const back = Zeb::strepToValue(text, static_cast<TypeParam*>(nullptr));
    ASSERT_EQ(back, v) << "iteration " << i << ": " << text;
    // The printed form is stable: printing the parsed value gives the same text.
    ASSERT_EQ(valueToStrep(back), text);
  }
}

TYPED_TEST(StrepTest, DefaultRoundTrips) {
  TypeParam const v{};
  EXPECT_EQ(Zeb::strepToValue(valueToStrep(v), static_cast<TypeParam*>(nullptr)), v);
}

TYPED_TEST(StrepTest, StreamAndFmtPrintTheStrep) {
  TypeParam const v = Random<TypeParam>::make(this->rng_);
  std::ostringstream os;
  os << v;
  EXPECT_EQ(os.str(), valueToStrep(v).stdString());
  EXPECT_EQ(fmt::format("{}", v), valueToStrep(v).stdString());
}

TYPED_TEST(StrepTest, CompositeFormStartsWithItsTypeName) {
  std::string const text = valueToStrep(Random<TypeParam>::make(this->rng_)).stdString();
  if constexpr (std::is_same_v<TypeParam, HosStateCounterKey>) {
    EXPECT_EQ(text.find("Value("), std::string::npos) << text;
  } else {
    EXPECT_EQ(text.rfind(std::string("Value('") + TypeName<TypeParam>::kName + "', ** {", 0), 0u)
        << text;
    EXPECT_EQ(text.substr(text.size() - 2), "})");
  }
}

// A strep with one blank inserted at any position, or any one of its blanks
// removed, must not parse.
TYPED_TEST(StrepTest, BlankMoreOrLessAnywhereThrows) {
  for (int i = 0; i < 8; i++) {
    std::string const text = valueToStrep(Random<TypeParam>::make(this->rng_)).stdString();
    for (size_t pos = 0; pos <= text.size(); pos++) {
      std::string more = text;
      more.insert(pos, 1, ' ');
      EXPECT_THROW(Zeb::strepToValue(Zeb::String(more), static_cast<TypeParam*>(nullptr)),
                   Zeb::RangeException)
          << "blank inserted at " << pos << ": " << more;
      if (pos < text.size() && text[pos] == ' ') {
        std::string less = text;
        less.erase(pos, 1);
        EXPECT_THROW(Zeb::strepToValue(Zeb::String(less), static_cast<TypeParam*>(nullptr)),
                     Zeb::RangeException)
            << "blank removed at " << pos << ": " << less;
      }
    }
  }
}

TYPED_TEST(StrepTest, EveryProperPrefixThrows) {
  std::string const text = valueToStrep(Random<TypeParam>::make(this->rng_)).stdString();
  for (size_t n = 0; n < text.size(); n++) {
    EXPECT_THROW(
        Zeb::strepToValue(Zeb::String(text.substr(0, n)), static_cast<TypeParam*>(nullptr)),
        Zeb::RangeException)
        << "prefix of " << n << ": " << text.substr(0, n);
  }
}

TYPED_TEST(StrepTest, TrailingTextIsRejected) {
  std::string const text = valueToStrep(Random<TypeParam>::make(this->rng_)).stdString();
  for (char const* tail : {"x", ")", "}", ",", "0"}) {
    EXPECT_THROW(Zeb::strepToValue(Zeb::String(text + tail), static_cast<TypeParam*>(nullptr)),
                 Zeb::RangeException)
        << text << tail;
  }
}

// The parsing constructor stops at the end of its value and leaves the
// iterator there, so it can stand inside a larger text.
TYPED_TEST(StrepTest, ParserStopsBehindItsValue) {
  TypeParam const v = Random<TypeParam>::make(this->rng_);
  Zeb::String const text(valueToStrep(v).stdString() + ", 'next': 1");
  auto it = text.begin();
  TypeParam const back(it, text.end());
  EXPECT_EQ(back, v);
  EXPECT_EQ(it.rest(text.end()), ", 'next': 1");
}

TEST(StrepErrors, StatusReadAsIp6StatusFailsAtTheFirstLiteral) {
  Rng rng(kSeed);
  Zeb::String const text = valueToStrep(Random<HoIpFlowStatus>::make(rng));
  try {
    Zeb::strepToValue(text, static_cast<HoIp6FlowStatus*>(nullptr));
    FAIL() << "parsed an IPv4 status as IPv6";
  } catch (Zeb::RangeException const& e) {
    EXPECT_NE(e.msg().find("\"Value('FlowTracking::HoIp6FlowStatus', ** {\" at offset 0"),
              std::string::npos)
        << e.msg();
  }
  // And the other way round.
  Zeb::String const text6 = valueToStrep(Random<HoIp6FlowStatus>::make(rng));
  EXPECT_THROW(Zeb::strepToValue(text6, static_cast<HoIpFlowStatus*>(nullptr)),
               Zeb::RangeException);
}

TEST(StrepErrors, NestedFieldFailureNamesThePath) {
  HoIpFlowConfig c;
  std::string text = valueToStrep(c).stdString();
  // Break the source address inside the key's flow key.
  std::string const addr = "'srcAddr': 0.0.0.0";
  size_t const at = text.find(addr);
  ASSERT_NE(at, std::string::npos) << text;
  text.replace(at, addr.size(), "'srcAddr': 0.0.0.256");
  try {
    Zeb::strepToValue(Zeb::String(text), static_cast<HoIpFlowConfig*>(nullptr));
    FAIL() << "parsed " << text;
  } catch (Zeb::RangeException const& e) {
    EXPECT_EQ(e.msg().rfind("field 'key': field 'ipFlowKey': field 'srcAddr': ", 0), 0u) << e.msg();
  }
}

TEST(StrepErrors, FieldOfRecordIsNamed) {
  HoIpFlowCounter c;
  std::string text = valueToStrep(c).stdString();
  std::string const packets = "'packets': 0";
  size_t const at = text.find(packets);
  ASSERT_NE(at, std::string::npos);
  text.replace(at, packets.size(), "'packets': 18446744073709551616");  // 2^64
  try {
    Zeb::strepToValue(Zeb::String(text), static_cast<HoIpFlowCounter*>(nullptr));
    FAIL() << "parsed " << text;
  } catch (Zeb::RangeException const& e) {
    EXPECT_EQ(e.msg().rfind("field 'packets': ", 0), 0u) << e.msg();
  }
}

TEST(StrepExact, HosStateCounterKeyIsTheBareState) {
  HosStateCounterKey const k(hoFlowStateOffloaded);
  EXPECT_EQ(valueToStrep(k).stdString(), "hoFlowStateOffloaded");
  HosStateCounterEntry e(k);
  e.hoFlowsIs(7);
  EXPECT_EQ(valueToStrep(e).stdString(),
            "Value('FlowTracking::HosStateCounterEntry', ** {'key': hoFlowStateOffloaded, "
            "'hoFlows': 7})");
  // A state without a name is its number, and still parses.
  HosStateCounterKey const odd(static_cast<HoFlowState>(200));
  EXPECT_EQ(valueToStrep(odd).stdString(), "200");
  EXPECT_EQ(Zeb::strepToValue(Zeb::String("200"), static_cast<HosStateCounterKey*>(nullptr)), odd);
  EXPECT_THROW(Zeb::strepToValue(Zeb::String("256"), static_cast<HosStateCounterKey*>(nullptr)),
               Zeb::RangeException);
  EXPECT_THROW(
      Zeb::strepToValue(Zeb::String("hoFlowStateNope"), static_cast<HosStateCounterKey*>(nullptr)),
      Zeb::RangeException);
}

TEST(StrepExact, CounterWithKnownValues) {
  IpFlowKey k;
  k.vrfIdIs(1);
  k.vlanIdIs(10);
  k.srcAddrIs(Nimbet::IpAddr(0x0a000001));
  k.dstAddrIs(Nimbet::IpAddr(0x0a000002));
  k.ipProtocolIs(Nimbet::ipProtoTcp);
  k.srcPortIs(80);
  k.dstPortIs(443);
  k.directionIs(Nimbet::trafficDirectionIngress);
  HoIpFlowCounter c(k);
  c.intfIdIs(Nimbet::IntfId(Nimbet::IntfKind::ethernet, 3));
  c.packetsIs(5000000000ull);
  c.bytesIs(1);
  c.createTimeIs(1.5);
  c.updateTimeIs(0.1);
  c.hosEntriesIs(2);
  EXPECT_EQ(valueToStrep(c).stdString(),
            "Value('FlowTracking::HoIpFlowCounter', ** {'key': Value('FlowTracking::IpFlowKey', "
            "** {'vrfId': 1, 'vlanId': 10, 'srcAddr': 10.0.0.1, 'dstAddr': 10.0.0.2, "
            "'ipProtocol': ipProtoTcp, 'srcPort': 80, 'dstPort': 443, 'direction': "
            "trafficDirectionIngress}), 'intfId': Ethernet3, 'packets': 5000000000, 'bytes': 1, "
            "'createTime': 1.5, 'updateTime': 0.1, 'hosEntries': 2})");
}

}  // namespace
}  // namespace FlowTracking
