// Parcel::KestorFile: round trip, damage reads as "no kestor", whole-file
// replacement seen by inotify and by a concurrent reader process, local mode.
#include "Parcel/KestorFile.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "Lomi/Exception.h"
#include "Lomi/Thrown.h"
#include "Lomi/Trace.h"
#include "Parcel/ProcessTestUtil.h"

namespace {

using Parcel::KestorFile;
using Parcel::KestorId;
using ParcelTest::Child;
using ParcelTest::Pipe;
using ParcelTest::readAll;
using ParcelTest::TempRoot;
using ParcelTest::writeAll;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("test.KestorFile");
}

class KestorFileTest : public ::testing::Test {
 protected:
  KestorFileTest() : root_(handler(), "tables/t1", false) { root_.createDirectories(); }
  TempRoot temp_;
  Mem::NaoRootPath root_;
};

TEST_F(KestorFileTest, WriteReadRemoveRoundTripsWithTheFilesMtime) {
  KestorFile k(handler(), root_, false);
  EXPECT_EQ(k.path(), temp_.path() + "/tables/t1/kestor");
  EXPECT_TRUE(k.read().isZero());
  EXPECT_EQ(k.mtime(), 0.0);
  for (KestorId id : {KestorId(1, 0), KestorId(4242, 7), KestorId(0xffff, 0xffff)}) {
    k.write(id);
    EXPECT_EQ(KestorFile(handler(), root_, false).read(), id);
    std::string error;
    EXPECT_TRUE(k.validate(id, error)) << error;
  }
  EXPECT_EQ(readAll(k.path()).size(), 16u);
  struct stat st;
  ASSERT_EQ(::stat(k.path().c_str(), &st), 0);
  EXPECT_DOUBLE_EQ(k.mtime(), double(st.st_mtim.tv_sec) + double(st.st_mtim.tv_nsec) * 1e-9);
  k.remove();
  EXPECT_TRUE(k.read().isZero());
  EXPECT_FALSE(std::filesystem::exists(k.path()));
  EXPECT_NO_THROW(k.remove());
}

TEST_F(KestorFileTest, ValidationNamesTheFileAndBothIds) {
  KestorFile k(handler(), root_, false);
  std::string error;
  EXPECT_FALSE(k.validate(KestorId(3, 1), error));
  EXPECT_EQ(error, fmt::format("kestor file {} is missing, wanted kestor 3:1", k.path()));
  k.write(KestorId(5, 2));
  EXPECT_FALSE(k.validate(KestorId(5, 3), error));
  EXPECT_EQ(error, fmt::format("kestor file {} holds kestor 5:2, wanted 5:3", k.path()));
  EXPECT_EQ(LomiTest::thrown<Lomi::InvalidInitializeException>([&] { k.validate(KestorId(5, 3)); }),
            error);
  EXPECT_NO_THROW(k.validate(KestorId(5, 2)));
}

// Every truncation and every single-byte change of a good record reads as 0.
TEST_F(KestorFileTest, TornOrFlippedRecordReadsZero) {
  KestorFile k(handler(), root_, false);
  k.write(KestorId(77, 3));
  std::string const good = readAll(k.path());
  ASSERT_EQ(good.size(), 16u);
  for (size_t len = 0; len < good.size(); ++len) {
    writeAll(k.path(), good.substr(0, len));
    EXPECT_TRUE(k.read().isZero()) << "truncated to " << len;
    std::string error;
    EXPECT_FALSE(k.validate(KestorId(77, 3), error));
    EXPECT_NE(error.find(k.path()), std::string::npos) << error;
  }
  for (size_t i = 0; i < good.size(); ++i) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 0x10);
    writeAll(k.path(), bad);
    EXPECT_TRUE(k.read().isZero()) << "byte " << i << " flipped";
  }
  writeAll(k.path(), good + "x");
  EXPECT_TRUE(k.read().isZero()) << "one byte too long";
  writeAll(k.path(), good);
  EXPECT_EQ(k.read(), KestorId(77, 3));
}

// The record appears by rename: a watcher of the directory sees IN_MOVED_TO
// for "kestor" and never a creation or write of "kestor" itself.
TEST_F(KestorFileTest, WriteAppearsWholeByRename) {
  int ino = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(ino, 0);
  ASSERT_GE(::inotify_add_watch(ino, root_.path().c_str(),
                                IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO),
            0);
  KestorFile k(handler(), root_, false);
  k.write(KestorId(9, 9));
  k.write(KestorId(9, 10));
  alignas(inotify_event) char buf[4096];
  ssize_t n = ::read(ino, buf, sizeof buf);
  ::close(ino);
  ASSERT_GT(n, 0);
  int movedTo = 0, otherOnKestor = 0;
  for (char* p = buf; p < buf + n;) {
    auto* ev = reinterpret_cast<inotify_event*>(p);
    std::string name = ev->len ? ev->name : "";
    if (name == KestorFile::KESTOR_NAME) {
      if (ev->mask & IN_MOVED_TO) {
        ++movedTo;
      } else {
        ++otherOnKestor;
      }
    }
    p += sizeof(inotify_event) + ev->len;
  }
  EXPECT_EQ(movedTo, 2);
  EXPECT_EQ(otherOnKestor, 0);
  // No temporary file is left behind.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root_.path()),
                          std::filesystem::directory_iterator()), 1);
}

// A reader process reading while the writer rewrites never sees a torn or
// missing record; it reports once it has seen the id change 50 times.
TEST_F(KestorFileTest, ConcurrentReaderNeverSeesATornRecord) {
  KestorFile k(handler(), root_, false);
  k.write(KestorId(1, 1));
  Pipe report;
  Child reader([&] {
    report.closeRead();
    KestorFile r(handler(), root_, false);
    uint32_t last = 0;
    int changes = 0, bad = 0;
    for (long reads = 0; changes < 50 && reads < 5'000'000; ++reads) {
      KestorId id = r.read();
      if (id.isZero() || id.low() != 1) ++bad;
      if (id.value() != last) ++changes;
      last = id.value();
    }
    report.send(fmt::format("{} {}", changes, bad));
    return 0;
  });
  report.closeWrite();
  uint16_t gen = 1;
  for (int writes = 0; writes < 200'000 && !report.readable(); ++writes) {
    k.write(KestorId(1, ++gen));
  }
  std::optional<std::string> line = report.receive();
  ASSERT_TRUE(line.has_value());
  int changes = -1, bad = -1;
  ASSERT_EQ(std::sscanf(line->c_str(), "%d %d", &changes, &bad), 2);
  EXPECT_EQ(bad, 0);
  EXPECT_GE(changes, 50) << "the reader did not see the record change often enough";
  std::optional<int> st = reader.wait();
  ASSERT_TRUE(st.has_value());
  EXPECT_TRUE(WIFEXITED(*st) && WEXITSTATUS(*st) == 0);
}

TEST_F(KestorFileTest, WriteWithoutDirectoryNamesTheFile) {
  Mem::NaoRootPath absent(handler(), "tables/absent", false);
  KestorFile k(handler(), absent, false);
  std::string const msg =
      LomiTest::thrown<Lomi::InvalidInitializeException>([&] { k.write(KestorId(1, 1)); });
  EXPECT_NE(msg.find(k.path()), std::string::npos) << msg;
  EXPECT_NE(msg.find("No such file or directory"), std::string::npos) << msg;
}

TEST_F(KestorFileTest, LocalRecordIsSharedByNameAndTouchesNoFile) {
  Mem::NaoRootPath localA(handler(), "local-kestor-a", true);
  Mem::NaoRootPath localB(handler(), "local-kestor-b", true);
  KestorFile a1(handler(), localA, true);
  EXPECT_TRUE(a1.path().empty());
  EXPECT_TRUE(a1.read().isZero());
  a1.write(KestorId(8, 0));
  EXPECT_EQ(KestorFile(handler(), localA, true).read(), KestorId(8, 0));
  EXPECT_TRUE(KestorFile(handler(), localB, true).read().isZero());
  EXPECT_GT(a1.mtime(), 0.0);
  std::string error;
  EXPECT_FALSE(a1.validate(KestorId(8, 1), error));
  EXPECT_EQ(error, "kestor record of local:local-kestor-a holds kestor 8:0, wanted 8:1");
  a1.remove();
  EXPECT_TRUE(KestorFile(handler(), localA, true).read().isZero());
  EXPECT_TRUE(std::filesystem::is_empty(temp_.path() + "/tables/t1"));
}

}  // namespace
