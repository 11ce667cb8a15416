// `flowtable demo`, run as the real binary: its writer and reader processes
// finish every step and it exits 0 with its summary; with --root the tables
// it leaves behind hold exactly the quarter of the flows it kept, compacted,
// and pass the tool's own ls, dump and check; bad --flows values are usage
// errors.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/RunTool.h"

namespace {

namespace fs = std::filesystem;

using CliTest::Result;

size_t lineCount(std::string const& text) {
  size_t n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

class Demo : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = (fs::temp_directory_path() / "flowtable-demo-test-XXXXXX").string();
    ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

  // Runs the tool with `args`, its output in files under the test directory.
  Result run(std::vector<std::string> const& args) const {
    return CliTest::runTool(args, (dir_ / "output").string());
  }

  fs::path dir_;
};

TEST_F(Demo, RunsEveryStepOnATemporaryRootAndSaysWhatHappened) {
  Result const r = run({"demo", "--flows", "2000"});
  ASSERT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("demo OK: 2000 flows written, read back, updated, removed and compacted"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("reader   checked 8000 rows by lookup and walk"), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("removed  1000 flows"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("compacted config slots 2000 -> "), std::string::npos) << r.out;
  // Not a terminal: the bars show once each, complete.
  EXPECT_NE(r.err.find("100% 2000/2000"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("100% 1000/1000"), std::string::npos) << r.err;
  // The temporary root is named in the first line and gone afterwards.
  std::string const first = r.out.substr(0, r.out.find('\n'));
  std::string const root = first.substr(first.rfind(' ') + 1);
  ASSERT_FALSE(root.empty()) << first;
  EXPECT_FALSE(fs::exists(root)) << root;
}

TEST_F(Demo, LeavesCompactedTablesUnderTheRootGivenForTheOtherCommands) {
  std::string const root = (dir_ / "tables").string();  // made by the demo
  Result const r = run({"--root", root, "demo", "--flows", "3000"});
  ASSERT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("the tables stay in " + root), std::string::npos) << r.out;

  for (std::string const table : {"demo/config/hoIpFlowConfig", "demo/status/hoIpFlowStatus"}) {
    Result const dump = run({"--root", root, "dump", table});
    ASSERT_EQ(dump.code, 0) << dump.err;
    // Every fourth of 3000 flows stays.
    EXPECT_EQ(lineCount(dump.out), 750u) << table;
    EXPECT_NE(dump.err.find("750 rows of " + table), std::string::npos) << dump.err;
    Result const check = run({"--root", root, "check", table});
    EXPECT_EQ(check.code, 0) << table << ": " << check.out << check.err;
    EXPECT_EQ(check.out, "OK\n") << table;
  }
  Result const statuses = run({"--root", root, "dump", "demo/status/hoIpFlowStatus"});
  EXPECT_EQ(statuses.out.find("hoFlowStatePending"), std::string::npos);

  Result const ls = run({"--root", root, "--json", "ls"});
  ASSERT_EQ(ls.code, 0) << ls.err;
  // Capacity after compaction is below the 3000 slots the writes grew to;
  // the writer has exited.
  for (std::string const table : {"demo/config/hoIpFlowConfig", "demo/status/hoIpFlowStatus"}) {
    size_t const at = ls.out.find("\"name\": \"" + table + "\"");
    ASSERT_NE(at, std::string::npos) << ls.out;
    std::string const entry = ls.out.substr(at, ls.out.find('}', at) - at);
    EXPECT_NE(entry.find("\"entries\": 750,"), std::string::npos) << entry;
    EXPECT_NE(entry.find("\"capacity\": 2048,"), std::string::npos) << entry;
    EXPECT_NE(entry.find("\"max\": 3000,"), std::string::npos) << entry;
    EXPECT_NE(entry.find("\"writerAlive\": false"), std::string::npos) << entry;
  }
}

TEST_F(Demo, BadFlowCountsAreUsageErrors) {
  for (auto const& args : std::vector<std::vector<std::string>>{
           {"demo", "--flows", "5"},
           {"demo", "--flows", "many"},
           {"demo", "--flows", "-3000"},
           {"demo", "--flows", "20000000"},
           {"demo", "extra"},
           {"demo", "--limit", "3"},
           {"--json", "demo", "--flows", "2000"},
       }) {
    Result const r = run(args);
    EXPECT_EQ(r.code, 2) << args[1] << ": " << r.out << r.err;
    EXPECT_NE(r.err.find("usage: flowtable [--root DIR] [--json] demo [--flows N]"),
              std::string::npos)
        << r.err;
    EXPECT_TRUE(r.out.empty()) << r.out;
  }
  Result const help = run({"demo", "--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_NE(help.out.find("a writer and a reader process"), std::string::npos) << help.out;
}

}  // namespace
