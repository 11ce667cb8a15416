// Rusk::WriterRuskSm and connectProbe: names, listening and accepting.
#include "Rusk/WriterRuskSm.h"

#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "Rusk/RuskTestUtil.h"

namespace {

using Rusk::TunnetName;
using Rusk::WriterRuskSm;
using RuskTest::handler;

TEST(WriterRuskSm, TableIdsCountUpAndNamesCarryPidIdAndANonce) {
  WriterRuskSm a(handler());
  WriterRuskSm b(handler());
  EXPECT_EQ(b.tableId(), a.tableId() + 1);
  std::string const prefix = fmt::format("@flowtables-{}-{}-", ::getpid(), a.tableId());
  EXPECT_EQ(a.socketName().substr(0, prefix.size()), prefix);
  EXPECT_EQ(a.socketName().size(), prefix.size() + 16);
  std::optional<TunnetName> n = TunnetName::TunnetNameIs(b.socketName());
  ASSERT_TRUE(n.has_value());
  EXPECT_EQ(n->pid, ::getpid());
  EXPECT_EQ(n->tableId, b.tableId());
  EXPECT_EQ(n->str(), b.socketName());
  EXPECT_NE(TunnetName::TunnetNameIs(a.socketName())->nonce, n->nonce);
  // An older writer's name, without a nonce, still names its pid.
  EXPECT_EQ(TunnetName::TunnetNameIs("@flowtables-12-3")->pid, 12);
  EXPECT_FALSE(a.listening());
  EXPECT_EQ(a.fd(), -1);
}

// The abstract namespace is everyone's: a process that binds the name a
// writer would have used, had it been predictable, cannot stop its start.
TEST(WriterRuskSm, ANameBoundByAnotherProcessDoesNotStopTheWriter) {
  uint32_t const next = WriterRuskSm(handler()).tableId() + 1;
  std::vector<int> squatters;
  for (uint32_t id = next; id < next + 4; id++) {
    for (std::string const& name :
         {fmt::format("@flowtables-{}-{}", ::getpid(), id), TunnetName{::getpid(), id, 0}.str()}) {
      int const fd = RuskTest::rawListen(name);
      if (fd >= 0) squatters.push_back(fd);
    }
  }
  ASSERT_FALSE(squatters.empty());
  WriterRuskSm w(handler());
  EXPECT_NO_THROW(w.doEnableListen());
  EXPECT_TRUE(w.listening());
  for (int fd : squatters) ::close(fd);
}

class TunnetNameParse : public ::testing::TestWithParam<char const*> {};

TEST_P(TunnetNameParse, RejectsWhatIsNotAWakeUpSocketName) {
  EXPECT_FALSE(TunnetName::TunnetNameIs(GetParam()).has_value()) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(Malformed, TunnetNameParse,
                         ::testing::Values("", "@flowtables-", "@flowtables-12", "@flowtables-12-",
                                           "@flowtables-12-3-", "@flowtables-12-3-abc",
                                           "@flowtables-12-3-000000000000000g", "@flowtables--3",
                                           "@flowtables-0-3", "@flowtables-x-3",
                                           "@flowtables-12-3x", "flowtables-12-3",
                                           "@flowtables-12-99999999999", "@other-12-3"));

TEST(WriterRuskSm, ProbeFollowsTheListener) {
  for (std::string const& none : {std::string(), std::string("@flowtables-1-4000000000"),
                                  std::string("/nonexistent/dir/socket"),
                                  "@" + std::string(200, 'x')}) {
    EXPECT_FALSE(Rusk::connectProbe(none)) << none;
  }
  WriterRuskSm w(handler());
  EXPECT_FALSE(Rusk::connectProbe(w.socketName()));
  w.doEnableListen();
  EXPECT_TRUE(w.listening());
  int fd = w.fd();
  w.doEnableListen();
  EXPECT_EQ(w.fd(), fd) << "a second doEnableListen opened another socket";
  EXPECT_TRUE(Rusk::connectProbe(w.socketName()));
  w.close();
  EXPECT_FALSE(w.listening());
  EXPECT_FALSE(Rusk::connectProbe(w.socketName()));
  // The name is free again: listening anew works.
  w.doEnableListen();
  EXPECT_TRUE(Rusk::connectProbe(w.socketName()));
}

TEST(WriterRuskSm, AcceptKeepsLiveConnectionsAndDropsGoneOnes) {
  WriterRuskSm w(handler());
  EXPECT_EQ(w.acceptPending(), 0u) << "accept before listening";
  w.doEnableListen();
  ASSERT_TRUE(Rusk::connectProbe(w.socketName()));
  int c1 = RuskTest::rawConnect(w.socketName());
  int c2 = RuskTest::rawConnect(w.socketName());
  ASSERT_GE(c1, 0);
  ASSERT_GE(c2, 0);
  EXPECT_EQ(w.acceptPending(), 3u);
  EXPECT_EQ(w.connections().size(), 2u) << "the probe's closed connection was kept";
  ::close(c1);
  EXPECT_EQ(w.acceptPending(), 0u);
  EXPECT_EQ(w.connections().size(), 1u);
  w.close();
  EXPECT_TRUE(w.connections().empty());
  // The writer closed its end: the client sees its Hello, then end of file.
  char b[32];
  EXPECT_EQ(::read(c2, b, sizeof b), 16);
  EXPECT_EQ(::read(c2, b, sizeof b), 0);
  ::close(c2);
}

}  // namespace
