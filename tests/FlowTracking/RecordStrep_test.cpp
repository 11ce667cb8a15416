// Text forms of every flow key and record: round trips over random values,
// strictness (a blank more or less anywhere), and what a failure says.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>

#include "FlowTracking/RandomValues.h"
#include "Lomi/Thrown.h"

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

// The default and random values print and parse back; the printed form is
// stable, and it is what streams and fmt print.
TYPED_TEST(StrepTest, RoundTripOfRandomValues) {
  for (int i = 0; i < 2000; i++) {
    TypeParam const v = i == 0 ? TypeParam{} : Random<TypeParam>::make(this->rng_);
    Zeb::String const text = valueToStrep(v);
    TypeParam const back = Zeb::strepToValue(text, static_cast<TypeParam*>(nullptr));
    ASSERT_EQ(back, v) << "iteration " << i << ": " << text;
    ASSERT_EQ(valueToStrep(back), text);
    // A copy of the bytes, as a table slot holds it, is the same value.
    static_assert(std::is_trivially_copyable_v<TypeParam>);
    alignas(8) unsigned char slot[sizeof(TypeParam) + 8];
    std::memcpy(slot + 4, &v, sizeof v);  // deliberately misaligned, as in a packed slot
    TypeParam copied;
    std::memcpy(static_cast<void*>(&copied), slot + 4, sizeof copied);
    ASSERT_EQ(copied, v);
    if (i % 100 != 1) continue;
    std::ostringstream os;
    os << v;
    EXPECT_EQ(os.str(), text.stdString());
    EXPECT_EQ(fmt::format("{}", v), text.stdString());
  }
}

// The composite form starts with its type name; the parsing constructor stops
// at the end of its value and leaves the iterator there, so it can stand
// inside a larger text.
TYPED_TEST(StrepTest, FormNamesItsTypeAndParserStopsBehindItsValue) {
  TypeParam const v = Random<TypeParam>::make(this->rng_);
  std::string const text = valueToStrep(v).stdString();
  if constexpr (std::is_same_v<TypeParam, HosStateCounterKey>) {
    EXPECT_EQ(text.find("Value("), std::string::npos) << text;
  } else {
    EXPECT_EQ(text.rfind(std::string("Value('") + TypeName<TypeParam>::kName + "', ** {", 0), 0u)
        << text;
    EXPECT_EQ(text.substr(text.size() - 2), "})");
  }
  Zeb::String const embedded(text + ", 'next': 1");
  auto it = embedded.begin();
  TypeParam const back(it, embedded.end());
  EXPECT_EQ(back, v);
  EXPECT_EQ(it.rest(embedded.end()), ", 'next': 1");
}

// Strictness: a strep with one blank inserted at any position or any one of
// its blanks removed, every proper prefix, and trailing text must not parse.
TYPED_TEST(StrepTest, MalformedTextsThrow) {
  auto expectRefused = [](std::string const& text, std::string const& what) {
    EXPECT_THROW(Zeb::strepToValue(Zeb::String(text), static_cast<TypeParam*>(nullptr)),
                 Zeb::RangeException)
        << what << ": " << text;
  };
  for (int i = 0; i < 8; i++) {
    std::string const text = valueToStrep(Random<TypeParam>::make(this->rng_)).stdString();
    for (size_t pos = 0; pos <= text.size(); pos++) {
      std::string more = text;
      expectRefused(more.insert(pos, 1, ' '), fmt::format("blank inserted at {}", pos));
      if (pos < text.size() && text[pos] == ' ') {
        std::string less = text;
        expectRefused(less.erase(pos, 1), fmt::format("blank removed at {}", pos));
      }
      if (i == 0 && pos < text.size()) expectRefused(text.substr(0, pos), "proper prefix");
    }
    // Trailing text on the first value only: a numeric state followed by a
    // digit is another state, and the seed's first state is a named one.
    if (i > 0) continue;
    for (char const* tail : {"x", ")", "}", ",", "0"}) expectRefused(text + tail, "trailing");
  }
}

TEST(StrepErrors, StatusReadAsIp6StatusFailsAtTheFirstLiteral) {
  Rng rng(kSeed);
  Zeb::String const text = valueToStrep(Random<HoIpFlowStatus>::make(rng));
  std::string const msg = LomiTest::thrown<Zeb::RangeException>(
      [&] { Zeb::strepToValue(text, static_cast<HoIp6FlowStatus*>(nullptr)); });
  EXPECT_NE(msg.find("\"Value('FlowTracking::HoIp6FlowStatus', ** {\" at offset 0"),
            std::string::npos)
      << msg;
  // And the other way round.
  Zeb::String const text6 = valueToStrep(Random<HoIp6FlowStatus>::make(rng));
  EXPECT_THROW(Zeb::strepToValue(text6, static_cast<HoIpFlowStatus*>(nullptr)),
               Zeb::RangeException);
}

// A failure inside a field names the path of fields down to it.
template <typename T>
void expectFailurePath(std::string const& from, std::string const& to, std::string const& path) {
  std::string text = valueToStrep(T()).stdString();
  size_t const at = text.find(from);
  ASSERT_NE(at, std::string::npos) << text;
  text.replace(at, from.size(), to);
  std::string const msg = LomiTest::thrown<Zeb::RangeException>(
      [&] { Zeb::strepToValue(Zeb::String(text), static_cast<T*>(nullptr)); });
  EXPECT_EQ(msg.rfind(path, 0), 0u) << msg;
}

TEST(StrepErrors, AFieldFailureNamesItsPath) {
  expectFailurePath<HoIpFlowConfig>("'srcAddr': 0.0.0.0", "'srcAddr': 0.0.0.256",
                                    "field 'key': field 'ipFlowKey': field 'srcAddr': ");
  expectFailurePath<HoIpFlowCounter>("'packets': 0", "'packets': 18446744073709551616",  // 2^64
                                     "field 'packets': ");
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
