// Table directories where a hostile neighbour or a damaged disk has been:
// a writer follows no planted link and writes nothing through one, nor takes
// files another user could change; the corruption marker is written once,
// through no link, and never by an observer; a file cut under a reader is
// reported, never fatal. (FIFOs in place of table files and looped chains:
// the harness's hostile mode, stress.hostile, and the tool's tests.)
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "FlowTracking/ReaderTestUtil.h"
#include "FlowTracking/TableRows.h"
#include "Lomi/Exception.h"
#include "Lomi/Thrown.h"
#include "Mem/BusGuard.h"
#include "Mirak/TempRoot.h"
#include "Mirak/Util.h"

namespace FlowTrackingTest {
namespace {

namespace fs = std::filesystem;
using Record = FlowTracking::HoIpFlowConfig;
constexpr char kTable[] = "hostile/config";
constexpr char kMarker[] = "corruption-detected";

std::string slurp(std::string const& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

class HostileFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    victim_ = root_.path() + "/victim";
    std::ofstream(victim_) << "precious";
    dir_ = root_.path() + "/" + kTable;
  }
  void TearDown() override { EXPECT_EQ(slurp(victim_), "precious") << "a link was followed"; }

  // A table with `rows` rows whose writer has gone (its files stay).
  void makeTable(uint32_t rows) {
    auto w = makeSharedWriter<Record>(kTable, sharedDescriptor(1000));
    for (uint32_t i = 0; i < rows; i++) w->write(row<Record>(i), true);
    w->detach(false);
  }

  MirakTest::TempRoot root_;
  std::string victim_;
  std::string dir_;
};

TEST_F(HostileFiles, AWriterRefusesALinkPlantedForItsSlotFileOrItsDirectory) {
  fs::create_directories(dir_);
  fs::create_symlink(victim_, dir_ + "/slots");
  std::string const msg = LomiTest::thrown<Lomi::Exception>(
      [&] { makeSharedWriter<Record>(kTable, sharedDescriptor(1000)); });
  EXPECT_NE(msg.find(dir_ + "/slots is a symbolic link"), std::string::npos) << msg;
  fs::remove_all(dir_);
  std::string const elsewhere = root_.path() + "/elsewhere";
  fs::create_directories(elsewhere);
  fs::create_symlink(elsewhere, dir_);
  std::string const msg2 = LomiTest::thrown<Lomi::Exception>(
      [&] { makeSharedWriter<Record>(kTable, sharedDescriptor(1000)); });
  EXPECT_NE(msg2.find(dir_), std::string::npos) << msg2;
  EXPECT_NE(msg2.find("is a symbolic link"), std::string::npos) << msg2;
  EXPECT_TRUE(fs::is_empty(elsewhere)) << "nothing was made through the linked directory";
}

// Directories and files prepared by another user: a writer takes none of
// them, and says what to fix. Needs root, to give them away.
TEST_F(HostileFiles, AWriterRefusesDirectoriesAndFilesAnotherUserCouldChange) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to make files of another user";
  struct Case {
    char const* what;
    void (*prepare)(std::string const& dir, std::string const& parent);
    char const* message;
  };
  Case const cases[] = {
      {"a table directory of another user",
       [](auto const& dir, auto const&) { ASSERT_EQ(::chown(dir.c_str(), 65534, 65534), 0); },
       "is owned by uid 65534"},
      {"a parent that anyone may write",
       [](auto const&, auto const& parent) { fs::permissions(parent, fs::perms::all); },
       "anyone may write into it (mode 777)"},
      {"a slot file of another user",
       [](auto const& dir, auto const&) {
         std::ofstream(dir + "/slots") << "";
         ASSERT_EQ(::chown((dir + "/slots").c_str(), 65534, 65534), 0);
       },
       "slots is owned by uid 65534"},
      {"a bucket file that anyone may write",
       [](auto const& dir, auto const&) {
         std::ofstream(dir + "/buckets") << "";
         fs::permissions(dir + "/buckets", fs::perms::all);
       },
       "buckets may be written by anyone (mode 777)"},
  };
  std::string const parent = fs::path(dir_).parent_path().string();
  for (Case const& c : cases) {
    fs::remove_all(parent);
    fs::create_directories(dir_);
    c.prepare(dir_, parent);
    std::string const msg = LomiTest::thrown<Lomi::Exception>(
        [&] { makeSharedWriter<Record>(kTable, sharedDescriptor(1000)); });
    EXPECT_NE(msg.find(c.message), std::string::npos) << c.what << ": " << msg;
  }
  // A sticky directory that anyone may write into is fine, as /dev/shm is.
  fs::remove_all(parent);
  fs::create_directories(dir_);
  fs::permissions(parent, fs::perms::all | fs::perms::sticky_bit);
  EXPECT_NO_THROW(makeSharedWriter<Record>(kTable, sharedDescriptor(1000)));
}

TEST_F(HostileFiles, TheMarkerIsWrittenOnceThroughNoLinkAndNeverByAnObserver) {
  makeTable(10);
  {
    // A checksum that fails: every attach fails validation.
    std::fstream f(dir_ + "/slots", std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(offsetof(Mirak::SlotTable::Header, hash));
    uint32_t const bad = 0xbadc0de;
    f.write(reinterpret_cast<char const*>(&bad), sizeof bad);
  }
  std::string const marker = dir_ + "/" + kMarker;
  Mirak::Util::corruptionMarkersIs(false);
  EXPECT_FALSE(makeReader<Record>(kTable)->initialize("observer"));
  Mirak::Util::corruptionMarkersIs(true);
  EXPECT_FALSE(fs::exists(marker)) << "an observer wrote into the table directory";

  fs::create_symlink(victim_, marker);
  EXPECT_FALSE(makeReader<Record>(kTable)->initialize("test"));
  EXPECT_TRUE(fs::is_symlink(marker));
  fs::remove(marker);

  EXPECT_FALSE(makeReader<Record>(kTable)->initialize("test"));
  struct stat first;
  ASSERT_EQ(::stat(marker.c_str(), &first), 0);
  std::string const text = slurp(marker);
  EXPECT_NE(text.find("checksum fail"), std::string::npos) << text;
  EXPECT_FALSE(makeReader<Record>(kTable)->initialize("test"));
  struct stat second;
  ASSERT_EQ(::stat(marker.c_str(), &second), 0);
  EXPECT_EQ(first.st_ino, second.st_ino) << "a failed attach rewrote the marker";
  EXPECT_EQ(slurp(marker), text);
}

// A file cut shorter under a reader that maps it: the reader reports damage
// or absence and lives on; each file and several lengths, each in a child
// whose death by a signal would be the failure. The guard takes only faults
// inside table mappings: one outside still ends the process as it would.
TEST_F(HostileFiles, AFileTruncatedUnderAReaderIsReportedNeverFatal) {
  makeTable(500);
  for (char const* file : {"slots", "buckets"}) {
    for (off_t length : {off_t(0), off_t(64), off_t(4096)}) {
      pid_t const child = forkChild([&]() -> int {
        auto reader = makeReader<Record>(kTable);
        if (!reader->initialize("test")) return 2;
        bool found = false;
        FlowTracking::TableValue<Record> v;
        reader->lookup(row<Record>(7).fwkKey(), found, &v);  // maps every slot
        if (!found) return 3;
        if (::truncate((dir_ + "/" + file).c_str(), length) != 0) return 4;
        uint64_t reports = 0;
        for (uint32_t i = 0; i < 500; i++) {
          try {
            reader->lookup(row<Record>(i).fwkKey(), found, &v);
            Mirak::IterHint hint;
            reader->first(v, hint);
          } catch (Lomi::Exception const&) {
            reports++;
          }
        }
        return reports > 0 || Mem::BusGuard::faults() > 0 ? 0 : 5;
      });
      int const status = reap(child);
      EXPECT_TRUE(exitedWith(status, 0)) << file << " cut to " << length << ": status " << status;
      makeTable(500);
    }
  }
  pid_t const child = forkChild([&]() -> int {
    auto reader = makeReader<Record>(kTable);
    if (!reader->initialize("test")) return 2;
    std::string const other = root_.path() + "/other";
    std::ofstream(other) << std::string(8192, 'x');
    int const fd = ::open(other.c_str(), O_RDONLY);
    auto const* p = static_cast<char const*>(::mmap(nullptr, 8192, PROT_READ, MAP_SHARED, fd, 0));
    if (::truncate(other.c_str(), 0) != 0) return 4;
    return p[100] == 'x' ? 6 : 7;
  });
  // Killed by SIGBUS, or stopped by a sanitizer's own handler: never a read
  // that returned.
  int const status = reap(child);
  EXPECT_TRUE(WIFSIGNALED(status) ? WTERMSIG(status) == SIGBUS
                                  : WIFEXITED(status) && WEXITSTATUS(status) != 0 &&
                                        WEXITSTATUS(status) != 6 && WEXITSTATUS(status) != 7)
      << "status " << status;
}

}  // namespace
}  // namespace FlowTrackingTest
