// Ovie::VlanTag: default bytes, field accessors over the tag word, equality
// over the five value bytes, and a text form that parses back.
#include "Ovie/VlanTag.h"
#include "Lomi/Thrown.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>

namespace Ovie {
namespace {

TEST(VlanTag, DefaultBytes) {
  VlanTag const t;
  unsigned char b[6];
  std::memcpy(b, &t, 6);
  unsigned char const want[6] = {0xff, 0x0f, 0x00, 0x81, 0x00, 0x00};
  EXPECT_EQ(std::memcmp(b, want, 6), 0);
  EXPECT_EQ(t.word(), 0x81000fffu);
  EXPECT_EQ(t.tpid(), 0x8100);
  EXPECT_EQ(t.vid(), 4095);
  EXPECT_EQ(t.pcp(), 0);
  EXPECT_EQ(t.dei(), 0);
  EXPECT_EQ(t.str().stdString(), "VlanTag(tpid=0x8100,pcp=0,dei=0,vid=4095,flags=0x00)");
}

TEST(VlanTag, FieldWritersTouchOnlyTheirBits) {
  VlanTag t;
  t.pcpIs(5);
  t.deiIs(1);
  t.vidIs(100);
  t.tpidIs(0x88a8);
  t.flagsIs(0x3c);
  EXPECT_EQ(t.word(), 0x88a8u << 16 | 5u << 13 | 1u << 12 | 100u);
  EXPECT_EQ(t.pcp(), 5);
  EXPECT_EQ(t.dei(), 1);
  EXPECT_EQ(t.vid(), 100);
  EXPECT_EQ(t.tpid(), 0x88a8);
  EXPECT_EQ(t.flags(), 0x3c);
  t.vidIs(0xffff);  // only 12 bits are the VID
  EXPECT_EQ(t.vid(), 0xfff);
  EXPECT_EQ(t.dei(), 1);
}

TEST(VlanTag, SixthByteHasNoMeaning) {
  VlanTag a(0x81000064, 7);
  unsigned char raw[6];
  std::memcpy(raw, &a, 6);
  raw[5] = 0x99;
  VlanTag b;
  std::memcpy(&b, raw, 6);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.str(), b.str());
  EXPECT_FALSE(a == VlanTag(0x81000064, 8));
  EXPECT_TRUE(VlanTag(0x81000064, 7) < VlanTag(0x81000064, 8));
}

TEST(VlanTag, RandomRoundTrip) {
  constexpr uint64_t kSeed = 0x5eed0005;
  std::printf("[ seed     ] %#llx\n", static_cast<unsigned long long>(kSeed));
  std::mt19937_64 rng(kSeed);
  for (int i = 0; i < 5000; i++) {
    VlanTag const t(static_cast<uint32_t>(rng()), static_cast<uint8_t>(rng()));
    Zeb::String const text(t.str().stdString() + ", 'x'");
    auto it = text.begin();
    VlanTag const back(it, text.end());
    ASSERT_EQ(back, t) << text;
    ASSERT_EQ(it.rest(text.end()), ", 'x'");
    ASSERT_EQ(Zeb::deserializeAttr<VlanTag>(it = text.begin(), text.end(), "tag"), t);
  }
}

TEST(VlanTag, BadTexts) {
  for (char const* bad : {"", "VlanTag(tpid=0x8100,pcp=8,dei=0,vid=1,flags=0x00)",
                          "VlanTag(tpid=0x8100,pcp=0,dei=2,vid=1,flags=0x00)",
                          "VlanTag(tpid=0x8100,pcp=0,dei=0,vid=4096,flags=0x00)",
                          "VlanTag(tpid=0x810,pcp=0,dei=0,vid=1,flags=0x00)",
                          "VlanTag(tpid=0x8100,pcp=0,dei=0,vid=1,flags=0x0)",
                          "VlanTag(tpid=0x8100, pcp=0,dei=0,vid=1,flags=0x00)",
                          "VlanTag(tpid=0x8100,pcp=0,dei=0,vid=1,flags=0x00",
                          "vlantag(tpid=0x8100,pcp=0,dei=0,vid=1,flags=0x00)"}) {
    EXPECT_THROW(Zeb::strepToValue(Zeb::String(bad), static_cast<VlanTag*>(nullptr)),
                 Zeb::RangeException)
        << bad;
  }
  Zeb::String const s("VlanTag(tpid=0x8100,pcp=9,dei=0,vid=1,flags=0x00)");
  auto it = s.begin();
  std::string const msg = LomiTest::thrown<Zeb::RangeException>(
      [&] { Zeb::deserializeAttr<VlanTag>(it, s.end(), "dot1qVlanTag"); });
  EXPECT_EQ(msg.rfind("field 'dot1qVlanTag': bad VLAN tag: ", 0), 0u) << msg;
  EXPECT_TRUE(it == s.begin());
}

}  // namespace
}  // namespace Ovie
