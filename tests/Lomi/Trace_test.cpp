// Trace handlers, masks, the trace macro, the sink, trace specs and
// assertions.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "Lomi/Trace.h"
#include "Lomi/TraceCapture.h"

namespace {

using Lomi::Platform::DebugHandler;

class TraceTest : public ::testing::Test {
 protected:
  LomiTest::TraceCapture capture;
  std::vector<std::string>& lines = capture.lines;
};

TEST(DebugHandler, LevelNIsOnExactlyWhenBitNIsSet) {
  DebugHandler h("maskLevels");
  for (uint16_t mask :
       {uint16_t(0), uint16_t(1), uint16_t(0x200), uint16_t(0x155), uint16_t(0x3ff)}) {
    h.maskIs(mask);
    for (int level = 0; level <= 9; ++level) {
      EXPECT_EQ(h.enabled(level), bool((mask >> level) & 1))
          << "mask " << mask << " level " << level;
    }
  }
  h.maskIs(0xffff);
  EXPECT_EQ(h.mask(), DebugHandler::kAllLevels) << "only ten levels exist";
  EXPECT_FALSE(h.enabled(-1));
  EXPECT_FALSE(h.enabled(10));
  EXPECT_FALSE(h.enabled(15));
}

TEST(DebugHandler, RegistrySharesByNameAndMakesPrivateOnesOnRequest) {
  DebugHandler& a = Lomi::Platform::getDebugHandler("registryShared");
  DebugHandler& b = Lomi::Platform::getDebugHandler("registryShared", true);
  DebugHandler& c = Lomi::Platform::getDebugHandler("registryShared", false);
  DebugHandler& d = Lomi::Platform::getDebugHandler("registryShared", false);
  EXPECT_EQ(&a, &b);
  EXPECT_NE(&a, &c);
  EXPECT_NE(&c, &d);
  EXPECT_EQ(c.name(), "registryShared");
  a.maskIs(0x3);
  EXPECT_EQ(b.mask(), 0x3);
  EXPECT_EQ(c.mask(), 0);
}

TEST_F(TraceTest, MacroDoesNotEvaluateItsArgumentsWhenTheLevelIsOff) {
  DebugHandler h("lazyArgs", 1u << 2);
  int evaluated = 0;
  auto costly = [&] { return ++evaluated; };
  FMTRACE(h, 3, "Probe", "value {}", costly());
  FMTRACE(h, 9, "Probe", "value {} {}", costly(), costly());
  EXPECT_EQ(evaluated, 0);
  EXPECT_TRUE(lines.empty());
  FMTRACE(h, 2, "Probe", "value {}", costly());
  EXPECT_EQ(evaluated, 1);
  ASSERT_EQ(lines.size(), 1u);
}

TEST_F(TraceTest, SinkGetsOneLineWithTimeHandlerLevelClassFunctionAndText) {
  DebugHandler& h = Lomi::Platform::getDebugHandler("sinkLine");
  h.maskIs(1u << 5);
  FMTRACE(h, 5, "MirakMap", "growing from: {} to: {}", 8, 16);
  Lomi::fmtrace(h, 5, "Other", "fn", "plain {}", "text");
  Lomi::fmtrace(h, 4, "Other", "fn", "not emitted");
  ASSERT_EQ(lines.size(), 2u);
  std::regex const line(R"(^\d+\.\d{6} sinkLine 5 MirakMap::TestBody growing from: 8 to: 16$)");
  EXPECT_TRUE(std::regex_match(lines[0], line)) << lines[0];
  EXPECT_EQ(lines[0].find('\n'), std::string::npos);
  EXPECT_TRUE(lines[1].ends_with(" sinkLine 5 Other::fn plain text")) << lines[1];
}

TEST(TraceSpec, ParsesLevelsRangesListsAndAll) {
  struct Case {
    char const* levels;
    uint16_t mask;
  };
  for (Case c :
       {Case{"0", 0x001}, Case{"9", 0x200}, Case{"0-3", 0x00f}, Case{"0-3,5", 0x02f},
        Case{"1,3,5-7", 0x0ea}, Case{"4-4", 0x010}, Case{"all", 0x3ff}, Case{"0-9", 0x3ff}}) {
    std::string name = std::string("setting_") + c.levels;
    DebugHandler& h = Lomi::Platform::getDebugHandler(name);
    ASSERT_TRUE(Lomi::Platform::traceSettingIs(name + "=" + c.levels)) << c.levels;
    EXPECT_EQ(h.mask(), c.mask) << c.levels;
  }
}

TEST(TraceSpec, RefusesBadSpecsAndChangesNothing) {
  DebugHandler& h = Lomi::Platform::getDebugHandler("settingBad");
  h.maskIs(0x011);
  for (char const* bad : {"settingBad", "=3", "settingBad=", "settingBad=a", "settingBad=3-1",
                          "settingBad=1,", "settingBad=1-", "settingBad=10", "settingBad=1,,2",
                          "settingBad=-1", "settingBad= 1", "settingBad=ALL"}) {
    EXPECT_FALSE(Lomi::Platform::traceSettingIs(bad)) << bad;
  }
  EXPECT_EQ(h.mask(), 0x011);
}

TEST(TraceSpec, AppliesToHandlersMadeLaterAndStarToAll) {
  ASSERT_TRUE(Lomi::Platform::traceSettingIs("settingLater=2"));
  EXPECT_EQ(Lomi::Platform::getDebugHandler("settingLater").mask(), 0x004);
  DebugHandler& existing = Lomi::Platform::getDebugHandler("settingStarExisting");
  ASSERT_TRUE(Lomi::Platform::traceSettingIs("*=0"));
  EXPECT_EQ(existing.mask(), 0x001);
  EXPECT_EQ(Lomi::Platform::getDebugHandler("settingStarNew").mask(), 0x001);
  EXPECT_EQ(Lomi::Platform::getDebugHandler("settingLater").mask(), 0x001);
  Lomi::Platform::traceMaskIs("*", 0);
  EXPECT_EQ(existing.mask(), 0);
  EXPECT_EQ(Lomi::Platform::getDebugHandler("settingStarNew2").mask(), 0);
}

TEST(AssertDeathTest, FmassertLogsTheMessageAndAborts) {
  DebugHandler h("assertHandler");
  EXPECT_DEATH(Lomi::fmassert(h, "MirakMap", "safeWrite", "in no man's land {}", 7),
               "assertHandler 0 MirakMap::safeWrite ASSERT: in no man's land 7");
  EXPECT_DEATH(FMASSERT(1 + 1 == 3, h, "Slot", "slot {} broken", 12),
               "assertHandler 0 Slot::TestBody ASSERT: slot 12 broken");
}

TEST(Assert, MacroBuildsNoMessageWhenTheConditionHolds) {
  DebugHandler h("assertQuiet");
  int built = 0;
  FMASSERT(true, h, "Probe", "{}", ++built);
  EXPECT_EQ(built, 0);
}

}  // namespace
