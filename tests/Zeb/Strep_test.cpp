// The strep helpers: literals, numbers, times, enumerations, the end check
// and the attribute-naming rethrow.
#include "Zeb/Strep.h"
#include "Lomi/Thrown.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>

namespace Zeb {
namespace {

template <typename F>
F parseAll(char const* text) {
  String const s(text);
  auto it = s.begin();
  F const v = deserializeAttr<F>(it, s.end(), "f");
  strepToValueEnd(s, it);
  return v;
}

TEST(NeedString, ConsumesExactlyTheLiteral) {
  String const s("Value('X', ** {rest");
  auto it = s.begin();
  needString(it, s.end(), "Value('X', ** {");
  EXPECT_EQ(it.rest(s.end()), "rest");
  // A mismatch leaves the iterator where it was and says what it wanted where.
  EXPECT_EQ(LomiTest::thrown<RangeException>([&] { needString(it, s.end(), "rust"); }),
            "expected \"rust\" at offset 15, found 'rest'");
  EXPECT_EQ(it.rest(s.end()), "rest");
  EXPECT_THROW(needString(it, s.end(), "rest!"), RangeException);
  needString(it, s.end(), "");
  needString(it, s.end(), "rest");
  EXPECT_TRUE(it == s.end());
}

TEST(DeserializeAttr, UnsignedBounds) {
  EXPECT_EQ(parseAll<unsigned int>("0"), 0u);
  EXPECT_EQ(parseAll<unsigned int>("4294967295"), 4294967295u);
  EXPECT_THROW(parseAll<unsigned int>("4294967296"), RangeException);
  EXPECT_EQ(parseAll<unsigned long long>("18446744073709551615"), ~0ull);
  EXPECT_THROW(parseAll<unsigned long long>("18446744073709551616"), RangeException);
  EXPECT_EQ(parseAll<unsigned short>("65535"), 65535u);
  EXPECT_THROW(parseAll<unsigned short>("65536"), RangeException);
  EXPECT_EQ(parseAll<unsigned char>("255"), 255u);
  EXPECT_THROW(parseAll<unsigned char>("256"), RangeException);
  for (char const* bad : {"", " 1", "+1", "-1", "0x10", "a"}) {
    EXPECT_THROW(parseAll<unsigned int>(bad), RangeException) << "'" << bad << "'";
  }
  // The number ends where the digits end; the end check sees the rest.
  EXPECT_THROW(parseAll<unsigned int>("12 "), RangeException);
}

// A field's failure is named by its attribute, and names nest outward.
TEST(DeserializeAttr, FailureIsNamedByTheAttributePath) {
  String const s("x");
  auto it = s.begin();
  std::string const msg = LomiTest::thrown<RangeException>(
      [&] { deserializeAttr<unsigned int>(it, s.end(), "hoFlows"); });
  EXPECT_EQ(msg.rfind("field 'hoFlows': expected ", 0), 0u) << msg;
  try {
    try {
      rethrowFromDeserializeAttr(RangeException("inner problem"), "srcAddr");
    } catch (RangeException const& e) {
      rethrowFromDeserializeAttr(e, "key");
    }
    FAIL();
  } catch (RangeException const& outer) {
    EXPECT_EQ(outer.msg(), "field 'key': field 'srcAddr': inner problem");
  }
}

TEST(Seconds, RoundTripIsExact) {
  constexpr uint64_t kSeed = 0x5eed0003;
  std::printf("[ seed     ] %#llx\n", static_cast<unsigned long long>(kSeed));
  std::mt19937_64 rng(kSeed);
  int checked = 0;
  for (int i = 0; i < 20000; i++) {
    double d;
    if (i % 2) {
      uint64_t const bits = rng();
      std::memcpy(&d, &bits, sizeof d);
      if (std::isnan(d)) continue;
    } else {
      d = std::uniform_real_distribution<double>(0, 2e9)(rng);
    }
    String const text = valueToStrep(d);
    double const back = parseAll<Seconds>(text.c_str());
    uint64_t a, b;
    std::memcpy(&a, &d, 8);
    std::memcpy(&b, &back, 8);
    ASSERT_EQ(a, b) << text;
    checked++;
  }
  EXPECT_GT(checked, 15000);
  for (double d : {0.0, -0.0, 0.1, 1e-300, 5e-324, 1.7976931348623157e308,
                   std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(parseAll<Seconds>(valueToStrep(d).c_str()), d) << valueToStrep(d);
  }
  EXPECT_TRUE(std::isnan(parseAll<Seconds>(valueToStrep(std::nan("")).c_str())));
  EXPECT_EQ(valueToStrep(1.5).stdString(), "1.5");
  EXPECT_EQ(valueToStrep(0.0).stdString(), "0");
}

TEST(Seconds, StrictText) {
  for (char const* bad : {"", " 1", "+1", "1e", ".", "x", "1.5 "}) {
    EXPECT_THROW(parseAll<Seconds>(bad), RangeException) << "'" << bad << "'";
  }
  EXPECT_THROW(parseAll<Seconds>("1e999"), RangeException);
  EXPECT_EQ(parseAll<Seconds>("-2.5e-3"), -2.5e-3);
}

TEST(StrepToValue, TheWholeTextAndNothingAfterIt) {
  String const s("12x");
  auto it = s.begin();
  EXPECT_EQ(deserializeAttr<unsigned int>(it, s.end(), "n"), 12u);
  EXPECT_EQ(LomiTest::thrown<RangeException>([&] { strepToValueEnd(s, it); }),
            "unexpected text after the value at offset 2: 'x'");
  ++it;
  strepToValueEnd(s, it);
  EXPECT_EQ(strepToValue(String("42"), static_cast<unsigned int*>(nullptr)), 42u);
  EXPECT_THROW(strepToValue(String("42 "), static_cast<unsigned int*>(nullptr)), RangeException);
  EXPECT_EQ(strepToValue(String("0.25"), static_cast<Seconds*>(nullptr)), 0.25);
}

enum Color : unsigned char { red = 1, green = 2 };
constexpr EnumName<Color> kColors[] = {{red, "red"}, {green, "green"}};

TEST(EnumText, NamesNumbersAndStrictness) {
  EXPECT_EQ(enumText(red, kColors), "red");
  EXPECT_EQ(enumText(static_cast<Color>(9), kColors), "9");
  auto parse = [](char const* text) {
    String const s(text);
    auto it = s.begin();
    Color const c = parseEnum(it, s.end(), kColors, "a color");
    strepToValueEnd(s, it);
    return c;
  };
  EXPECT_EQ(parse("green"), green);
  EXPECT_EQ(parse("9"), static_cast<Color>(9));
  EXPECT_EQ(parse("255"), static_cast<Color>(255));
  for (char const* bad : {"256", "gree", "greenish", "Red", " red", ""}) {
    EXPECT_THROW(parse(bad), RangeException) << "'" << bad << "'";
  }
}

}  // namespace
}  // namespace Zeb
