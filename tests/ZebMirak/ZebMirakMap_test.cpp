// The typed adapter on its own concerns: names that follow the entity's
// place, the trace of the move into the tree, the once-only parent, and the
// delegation of the sentry's file check.
#include "ZebMirak/ZebMirakMap.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/Factories.h"
#include "Lomi/Trace.h"

namespace {

using FlowTracking::hoFlowConfigFactory;

class TraceCapture {
 public:
  TraceCapture() {
    Lomi::Platform::getDebugHandler("MirakTemp").maskIs(1u << 5);
    Lomi::Platform::traceSinkIs([this](std::string_view l) { lines.emplace_back(l); });
  }
  ~TraceCapture() {
    Lomi::Platform::traceSinkIs({});
    Lomi::Platform::getDebugHandler("MirakTemp").maskIs(0);
  }
  bool saw(std::string const& text) const {
    for (auto const& l : lines) {
      if (l.find(text) != std::string::npos) return true;
    }
    return false;
  }
  std::vector<std::string> lines;
};

TEST(ZebMirakMap, NamesFollowTheEntityAndTheMoveIsTraced) {
  TraceCapture trace;
  auto e = hoFlowConfigFactory("flows");
  EXPECT_TRUE(trace.saw("creating local MirakWriter flows/hoIp6FlowConfig"));
  EXPECT_EQ(e->hoIp6FlowConfig().name(), "flows/hoIp6FlowConfig");
  EXPECT_EQ(e->hoIp6FlowConfig().traceName(), "hoIp6FlowConfig");
  EXPECT_FALSE(e->hoIp6FlowConfig().parentSeen());

  auto top = hoFlowConfigFactory("top");
  auto mid = hoFlowConfigFactory("mid");
  mid->parentIs(top.get());
  e->parentIs(mid.get());
  EXPECT_EQ(e->hoIpFlowConfig().name(), "top/mid/flows/hoIpFlowConfig");
  EXPECT_TRUE(trace.saw("old:flows/hoIpFlowConfig new:top/mid/flows/hoIpFlowConfig"));
  // IPv6 moves first.
  size_t ip6 = 0, ip = 0;
  for (size_t i = 0; i < trace.lines.size(); i++) {
    if (trace.lines[i].find("new:top/mid/flows/hoIp6FlowConfig") != std::string::npos) ip6 = i;
    if (trace.lines[i].find("new:top/mid/flows/hoIpFlowConfig") != std::string::npos) ip = i;
  }
  EXPECT_LT(ip6, ip);
}

TEST(ZebMirakMap, ASecondAndThirdParentAreRefusedAfterTheRenaming) {
  auto e = hoFlowConfigFactory("flows");
  auto a = hoFlowConfigFactory("a");
  auto b = hoFlowConfigFactory("b");
  e->parentIs(a.get());
  auto* back = e->hoIp6FlowConfig().back();
  EXPECT_THROW(e->parentIs(b.get()), Lomi::InvalidInitializeException);
  EXPECT_EQ(e->hoIp6FlowConfig().name(), "b/flows/hoIp6FlowConfig");
  EXPECT_EQ(e->hoIp6FlowConfig().back(), back);
  // IPv6 threw, so IPv4 was not reached.
  EXPECT_EQ(e->hoIpFlowConfig().name(), "a/flows/hoIpFlowConfig");
  EXPECT_THROW(e->parentIs(a.get()), Lomi::InvalidInitializeException);

  // Losing the parent is always allowed and keeps parentSeen.
  e->parentIs(nullptr);
  EXPECT_TRUE(e->hoIp6FlowConfig().parentSeen());
  EXPECT_EQ(e->hoIp6FlowConfig().name(), "flows/hoIp6FlowConfig");
  EXPECT_EQ(e->hoIp6FlowConfig().mountStatus(), 0u);
}

TEST(ZebMirakMap, ValidateFilesDelegatesAndClassTypeNamesTheEntity) {
  TraceCapture trace;
  auto e = hoFlowConfigFactory("flows");
  EXPECT_TRUE(e->hoIpFlowConfig().validateFiles("ignored", 7));
  EXPECT_TRUE(trace.saw("delegating to MirakMap::validateFiles"));
  EXPECT_EQ(e->hoIpFlowConfig().classType(), "FlowTracking::HoFlowConfig");
  FlowTracking::HoFlowConfig::HoIpFlowConfigMap unbound;
  EXPECT_THROW(unbound.classType(), std::bad_typeid);
}

}  // namespace
