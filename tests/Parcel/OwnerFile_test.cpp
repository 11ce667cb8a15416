// Parcel::OwnerFile: the record's round trip and damage detection, and the
// directory lock serialising two processes.
#include "Parcel/OwnerFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "Lomi/Exception.h"
#include "Lomi/Thrown.h"
#include "Lomi/Trace.h"
#include "Parcel/ProcessTestUtil.h"

namespace {

using Parcel::OwnerFile;
using Parcel::ParcelType;
using Parcel::TunnetInfo;
using ParcelTest::Child;
using ParcelTest::Pipe;
using ParcelTest::readAll;
using ParcelTest::TempRoot;
using ParcelTest::writeAll;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("test.OwnerFile");
}

class OwnerFileTest : public ::testing::Test {
 protected:
  OwnerFileTest() : root_(handler(), "flowtracking/ip/config", false) {}

  // A complete record as a writer leaves it.
  void writeGood(OwnerFile& o) {
    o.typeNameIs("FlowTracking::HoIpFlowConfig");
    o.parcelTypeIs(ParcelType::mirak);
    o.tunnetInfoIs(TunnetInfo("@flowtables-123-4", 4));
  }

  TempRoot temp_;
  Mem::NaoRootPath root_;
};

TEST_F(OwnerFileTest, MissingRecordIsInvalidAndNamesTheFile) {
  OwnerFile o(handler(), root_, false);
  EXPECT_EQ(o.path(), temp_.path() + "/flowtracking/ip/config/owner");
  std::string error;
  EXPECT_FALSE(o.validate(error));
  EXPECT_EQ(error, fmt::format("owner file {} is missing", o.path()));
  EXPECT_FALSE(o.validate());
  EXPECT_TRUE(o.tunnetInfo().empty());
  EXPECT_FALSE(o.record().has_value());
  EXPECT_EQ(o.headerToString(), fmt::format("owner file {}: missing", o.path()));
  EXPECT_EQ(LomiTest::thrown<Lomi::CorruptionDetectedException>([&] { o.validateFile(); }), error);
}

TEST_F(OwnerFileTest, FieldsRoundTripAndNameThisProcess) {
  OwnerFile o(handler(), root_, false);
  o.lock();
  writeGood(o);
  std::string error;
  EXPECT_TRUE(o.validate(error)) << error;
  EXPECT_NO_THROW(o.validateFile());
  OwnerFile again(handler(), root_, false);
  std::optional<OwnerFile::Record> r = again.record();
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r->typeName, "FlowTracking::HoIpFlowConfig");
  EXPECT_EQ(r->parcelType, ParcelType::mirak);
  EXPECT_EQ(r->tunnetInfo, TunnetInfo("@flowtables-123-4", 4));
  EXPECT_EQ(r->writerPid, ::getpid());
  EXPECT_EQ(r->writerStartTime, OwnerFile::processStartTime(::getpid()));
  EXPECT_NE(r->writerStartTime, 0u);
  EXPECT_EQ(OwnerFile::processStartTime(0), 0u) << "no such process";
  EXPECT_EQ(OwnerFile::processStartTime(-5), 0u);
  EXPECT_EQ(again.typeName(), r->typeName);
  EXPECT_EQ(readAll(o.path()).size(), 512u);
  EXPECT_EQ(o.headerToString(),
            fmt::format("owner file {}: typeName:\"FlowTracking::HoIpFlowConfig\" parcelType:1 "
                        "writerPid:{} writerStartTime:{} tunnetInfo:@flowtables-123-4/4",
                        o.path(), ::getpid(), r->writerStartTime));
  // An empty TunnetInfo records no writer.
  o.tunnetInfoIs(TunnetInfo());
  EXPECT_TRUE(o.validate());
  r = o.record();
  EXPECT_TRUE(r->writerPid == 0 && r->writerStartTime == 0 && r->tunnetInfo.empty());
  o.remove();
  EXPECT_FALSE(std::filesystem::exists(o.path()));
  EXPECT_FALSE(o.validate());
  EXPECT_NO_THROW(o.remove());
}

TEST_F(OwnerFileTest, RecordWithoutParcelTypeIsInconsistent) {
  OwnerFile o(handler(), root_, false);
  o.lock();
  o.typeNameIs("X");
  std::string error;
  EXPECT_FALSE(o.validate(error));
  EXPECT_EQ(error, fmt::format("owner file {} is damaged: bad parcelType: 0 wanted:1", o.path()));
}

// Any one flipped byte fails validation, with a message naming the file; the
// typed accessors then throw rather than hand out a damaged field.
TEST_F(OwnerFileTest, EveryFlippedByteFailsValidation) {
  OwnerFile o(handler(), root_, false);
  o.lock();
  writeGood(o);
  std::string const good = readAll(o.path());
  ASSERT_EQ(good.size(), 512u);
  std::string const prefix = fmt::format("owner file {} is damaged: ", o.path());
  for (size_t i = 0; i < good.size(); ++i) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 0x01);
    writeAll(o.path(), bad);
    std::string error;
    ASSERT_FALSE(o.validate(error)) << "byte " << i;
    EXPECT_EQ(error.rfind(prefix, 0), 0u) << error;
    EXPECT_THROW(o.tunnetInfo(), Lomi::CorruptionDetectedException) << "byte " << i;
  }
  std::string bad = good;
  bad[0] ^= 0x01;
  writeAll(o.path(), bad);
  std::string error;
  o.validate(error);
  EXPECT_EQ(error, prefix + "bad magic: 0x524e574e");
  bad = good;
  bad[40] ^= 0x01;  // inside typeName
  writeAll(o.path(), bad);
  o.validate(error);
  EXPECT_EQ(error.rfind(prefix + "checksum fail: ", 0), 0u) << error;
  EXPECT_NE(o.headerToString().find(" invalid: checksum fail: "), std::string::npos);
}

TEST_F(OwnerFileTest, TruncatedRecordReportsItsSizeAndASetterStartsAfresh) {
  OwnerFile o(handler(), root_, false);
  o.lock();
  writeGood(o);
  writeAll(o.path(), readAll(o.path()).substr(0, 100));
  std::string error;
  EXPECT_FALSE(o.validate(error));
  EXPECT_EQ(error, fmt::format("owner file {} is damaged: is 100 bytes, wanted 512", o.path()));
  EXPECT_THROW(o.validateFile(), Lomi::CorruptionDetectedException);
  EXPECT_NE(o.headerToString().find("first 64 bytes"), std::string::npos);
  // A setter on a damaged record starts afresh.
  o.typeNameIs("T");
  o.parcelTypeIs(ParcelType::mirak);
  EXPECT_TRUE(o.validate());
  EXPECT_TRUE(o.tunnetInfo().empty());
  EXPECT_EQ(o.record()->writerPid, 0);
}

TEST_F(OwnerFileTest, OversizedNamesAreRefusedWithTheTable) {
  OwnerFile o(handler(), root_, false);
  o.lock();
  std::string const msg = LomiTest::thrown<Lomi::InvalidInitializeException>(
      [&] { o.typeNameIs(std::string(OwnerFile::kTypeNameMax + 1, 'x')); });
  EXPECT_NE(msg.find(root_.path()), std::string::npos) << msg;
  EXPECT_NO_THROW(o.typeNameIs(std::string(OwnerFile::kTypeNameMax, 'x')));
  EXPECT_THROW(o.tunnetInfoIs(TunnetInfo(std::string(OwnerFile::kSocketNameMax + 1, 's'), 1)),
               Lomi::InvalidInitializeException);
  EXPECT_EQ(o.typeName(), std::string(OwnerFile::kTypeNameMax, 'x'));
}

TEST_F(OwnerFileTest, LocalRecordLivesInPrivateMemory) {
  Mem::NaoRootPath local(handler(), "local-owner", true);
  OwnerFile o(handler(), local, true);
  o.lock();
  EXPECT_TRUE(o.locked());
  EXPECT_TRUE(o.path().empty());
  EXPECT_FALSE(o.validate());
  o.typeNameIs("L");
  o.parcelTypeIs(ParcelType::mirak);
  EXPECT_TRUE(OwnerFile(handler(), local, true).validate());
  EXPECT_EQ(OwnerFile(handler(), local, true).typeName(), "L");
  o.remove();
  EXPECT_FALSE(OwnerFile(handler(), local, true).validate());
  EXPECT_TRUE(std::filesystem::is_empty(temp_.path()));
}

// Whether /proc/locks shows process `pid` waiting for an flock on inode `ino`.
bool waitsForFlock(pid_t pid, ino_t ino) {
  std::ifstream locks("/proc/locks");
  std::string line;
  std::string const who = fmt::format(" {} ", pid);
  std::string const what = fmt::format(":{} ", ino);
  while (std::getline(locks, line)) {
    if (line.find("-> FLOCK") != std::string::npos && line.find(who) != std::string::npos &&
        line.find(what) != std::string::npos) {
      return true;
    }
  }
  return false;
}

// The second process's lock() blocks while the first holds the lock: the
// child is seen queued on the lock, the parent then changes the record and
// releases, and the child, once through, reads the parent's last change. The
// child is forked before the parent locks: a child forked later would share
// the parent's locked descriptor, and with it the lock.
TEST_F(OwnerFileTest, LockSerialisesTwoProcesses) {
  root_.createDirectories();
  struct stat dir;
  ASSERT_EQ(::stat(root_.path().c_str(), &dir), 0);

  Pipe go, ready, seen;
  Child waiter([&] {
    go.closeWrite();
    ready.closeRead();
    seen.closeRead();
    if (go.receive() != "go") return 2;
    OwnerFile o(handler(), root_, false);
    ready.send("locking");
    o.lock();
    seen.send(o.typeName());
    return 0;
  });
  go.closeRead();
  ready.closeWrite();
  seen.closeWrite();

  auto holder = std::make_unique<OwnerFile>(handler(), root_, false);
  holder->lock();
  holder->typeNameIs("before");
  go.send("go");
  ASSERT_EQ(ready.receive(), "locking");

  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  bool queued = false;
  while (!(queued = waitsForFlock(waiter.pid(), dir.st_ino)) &&
         std::chrono::steady_clock::now() < deadline && !seen.readable()) {
    std::this_thread::yield();
  }
  ASSERT_TRUE(queued) << "the child was never seen waiting for the lock";
  EXPECT_FALSE(seen.readable()) << "the child got through a held lock";

  holder->typeNameIs("after");
  holder.reset();
  EXPECT_EQ(seen.receive(), "after");
  std::optional<int> st = waiter.wait();
  ASSERT_TRUE(st.has_value());
  EXPECT_TRUE(WIFEXITED(*st) && WEXITSTATUS(*st) == 0);
}

}  // namespace
