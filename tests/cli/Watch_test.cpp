// `flowtable watch` against a live writer process: the rows its shadow's
// first sweep finds, then each change the writer makes afterwards, in the
// writer's order and with rising sequences, then the summary. Both modes, in
// JSON (the form a program reads); the text form prints the same records.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/TableWriters.h"
#include "Lomi/EventLoop.h"
#include "Lomi/Trace.h"
#include "Mem/RootPath.h"
#include "Parcel/ProcessTestUtil.h"
#include "cli/RunTool.h"

namespace {

namespace fs = std::filesystem;
using FlowTracking::HoIpFlowConfig;

constexpr char kTable[] = "watched/config";
constexpr int kFirst = 5;  // rows before the watch starts

HoIpFlowConfig row(int i, double updated = 0) {
  FlowTracking::IpFlowKey flow;
  flow.srcPortIs(static_cast<uint16_t>(2000 + i));
  flow.dstPortIs(443);
  HoIpFlowConfig r(FlowTracking::HoIpFlowKey(flow, Nimbet::IntfId()));
  r.updateTimeIs(100 + i + updated);
  return r;
}

std::vector<std::string> linesOf(std::string const& path) {
  std::vector<std::string> out;
  std::ifstream f(path);
  for (std::string l; std::getline(f, l);) out.push_back(l);
  return out;
}

bool has(std::string const& line, std::string const& part) {
  return line.find(part) != std::string::npos;
}

// The writer: kFirst rows, then, on "go", rows kFirst..kFirst+4 added, row 0
// changed, rows 1 and 2 removed; it runs its event loop throughout (it
// answers the shadow's wake-up socket) and ends when its pipe closes.
int writerProcess(std::string const& root, ParcelTest::Pipe& ready, ParcelTest::Pipe& go) {
  go.closeWrite();
  Mem::RootPath::baseIs(root);
  Mirak::MapDescriptor d(1000);
  d.local = false;
  FlowTracking::HoIpFlowConfigWriter w(Lomi::Platform::getDebugHandler("watchTest"), kTable, d,
                                       FlowTracking::HoIpFlowConfigOps(0));
  if (!w.initialize("test")) return 3;
  for (int i = 0; i < kFirst; ++i) w.write(row(i), true);
  ready.send("ready");
  Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
  for (;;) {
    loop.runOnce(0.005);
    if (!go.readable()) continue;
    if (!go.receive()) return 0;  // the test is done
    for (int i = kFirst; i < kFirst + 5; ++i) w.write(row(i), true);
    w.write(row(0, 0.5), true);
    for (int i : {1, 2}) {
      FlowTracking::HoIpFlowConfigOps::Value gone;
      if (!w.remove(row(i).key(), gone)) return 6;
    }
  }
}

class Watch : public ::testing::TestWithParam<bool> {};

TEST_P(Watch, PrintsTheSweepThenEachChangeInOrderAndASummary) {
  bool const keyOnly = GetParam();
  char tmpl[] = "/tmp/flowtable-watch-XXXXXX";
  std::string const root = ::mkdtemp(tmpl);
  ParcelTest::Pipe ready, go;
  ParcelTest::Child writer([&] { return writerProcess(root, ready, go); });
  ASSERT_EQ(ready.receive().value_or("the writer failed"), "ready");

  // The tool runs beside the test, which tells the writer to go once the
  // sweep is printed.
  std::string const out = root + ".out";
  std::vector<std::string> args{"--root", root, "--json", "watch", kTable, "--count",
                                std::to_string(kFirst + 8), "--for", "30"};
  if (keyOnly) args.push_back("--keyshadow");
  pid_t const tool = CliTest::startTool(args, out, out + ".err");
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (linesOf(out).size() < size_t(kFirst) && std::chrono::steady_clock::now() < deadline) {
    ::usleep(2000);
  }
  ASSERT_EQ(linesOf(out).size(), size_t(kFirst)) << "the sweep was not printed";
  ASSERT_TRUE(go.send("go"));
  int status = 0;
  ASSERT_EQ(::waitpid(tool, &status, 0), tool);
  go.closeWrite();
  std::optional<int> const writerStatus = writer.wait();
  EXPECT_TRUE(writerStatus && WIFEXITED(*writerStatus) && WEXITSTATUS(*writerStatus) == 0);
  std::vector<std::string> const lines = linesOf(out);
  std::error_code ec;
  fs::remove_all(root, ec);
  std::string const err = CliTest::slurp(out + ".err");
  fs::remove(out, ec);
  fs::remove(out + ".err", ec);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << ": " << err;

  ASSERT_EQ(lines.size(), size_t(kFirst + 8 + 1));
  for (int i = 0; i < kFirst; ++i) {
    EXPECT_TRUE(has(lines[i], "\"sequence\": null, \"change\": \"changed\"")) << lines[i];
  }
  // After the sweep, the writer's order: five rows added, row 0 changed,
  // rows 1 and 2 removed.
  int const after[] = {5, 6, 7, 8, 9, 0, 1, 2};
  uint64_t last = 0;
  for (int k = 0; k < 8; ++k) {
    std::string const& l = lines[kFirst + k];
    std::string const port = "'srcPort': " + std::to_string(2000 + after[k]);
    EXPECT_TRUE(has(l, port)) << k << ": " << l;
    EXPECT_TRUE(has(l, k < 6 ? "\"change\": \"changed\"" : "\"change\": \"removed\"")) << l;
    // A shadow prints the row of its copy with the key; a keyshadow the key.
    EXPECT_EQ(has(l, "\"row\": "), !keyOnly && k < 6) << l;
    if (!keyOnly && k == 5) {
      EXPECT_TRUE(has(l, "'updateTime': 100.5")) << l;
    }
    uint64_t const seq = std::strtoull(l.c_str() + l.find(':') + 1, nullptr, 10);
    EXPECT_GT(seq, last) << l;
    last = seq;
  }
  std::string const& summary = lines.back();
  EXPECT_TRUE(has(summary, "\"summary\": ")) << summary;
  EXPECT_TRUE(has(summary, keyOnly ? "\"mode\": \"keyshadow\"" : "\"mode\": \"shadow\"")) << summary;
  EXPECT_TRUE(has(summary, "\"printed\": " + std::to_string(kFirst + 8))) << summary;
  EXPECT_TRUE(has(summary, "\"mounted\": true")) << summary;
}

INSTANTIATE_TEST_SUITE_P(Modes, Watch, ::testing::Values(false, true),
                         [](auto const& info) { return info.param ? "keyshadow" : "shadow"; });

}  // namespace
