// Mem::WriterLock: a live writer in another process refuses a second one; a
// dead one, a reused pid, a closed socket or a damaged record do not; force
// takes over.
#include "Mem/WriterLock.h"

#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Lomi/Exception.h"
#include "Lomi/HashMix.h"
#include "Lomi/Trace.h"
#include "Parcel/OwnerFile.h"
#include "Parcel/ProcessTestUtil.h"
#include "Rusk/WriterRuskSm.h"

namespace {

using Mem::WriterLock;
using Parcel::OwnerFile;
using Parcel::TunnetInfo;
using ParcelTest::Child;
using ParcelTest::Pipe;
using ParcelTest::readAll;
using ParcelTest::TempRoot;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("test.WriterLock");
}

// Rewrites the owner record's writer pid and start time (offsets 12 and 16)
// and its check (offset 508), as if another process had written it.
void forgeWriter(std::string const& path, int32_t pid, uint64_t startTime) {
  std::string bytes = readAll(path);
  ASSERT_EQ(bytes.size(), 512u);
  std::memcpy(bytes.data() + 12, &pid, sizeof pid);
  std::memcpy(bytes.data() + 16, &startTime, sizeof startTime);
  Lomi::Impl::HashMix<unsigned int> h(0x811c9dc5u);
  h.mix(bytes.data(), 508);
  uint32_t check = h.value();
  std::memcpy(bytes.data() + 508, &check, sizeof check);
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), 512);
}

class WriterLockTest : public ::testing::Test {
 protected:
  WriterLockTest() : root_(handler(), "flowtracking/ip/status", false) {}

  // A child that becomes the directory's writer the way a writer does (lock,
  // record, listen unless `listen` is false), reports its socket name, and
  // stays alive until killed.
  std::unique_ptr<Child> startWriter(bool listen, std::string& socketName) {
    Pipe name;
    auto child = std::make_unique<Child>([&] {
      name.closeRead();
      Rusk::WriterRuskSm rusk(handler());
      {
        OwnerFile o(handler(), root_, false);
        o.lock();
        WriterLock::acquireWriterLock(handler(), root_, o, false, rusk.socketName());
        o.typeNameIs("FlowTracking::HoIpFlowStatus");
        o.parcelTypeIs(Parcel::ParcelType::mirak);
        o.tunnetInfoIs(TunnetInfo(rusk.socketName(), rusk.tableId()));
        if (listen) rusk.doEnableListen();
      }
      name.send(rusk.socketName());
      for (;;) ::pause();
      return 0;
    });
    name.closeWrite();
    std::optional<std::string> line = name.receive();
    socketName = line.value_or("");
    return child;
  }

  // acquireWriterLock's refusal text, or "" if it took the directory.
  std::string tryAcquire(bool force, std::string const& mySocket = "@flowtables-1-1") {
    OwnerFile o(handler(), root_, false);
    o.lock();
    try {
      WriterLock::acquireWriterLock(handler(), root_, o, force, mySocket);
      return "";
    } catch (Lomi::InvalidInitializeException const& e) {
      return e.msg();
    }
  }

  TempRoot temp_;
  Mem::NaoRootPath root_;
};

TEST_F(WriterLockTest, EmptyDirectoryIsTaken) {
  EXPECT_EQ(tryAcquire(false), "");
  EXPECT_FALSE(WriterLock::ownerIsAlive(OwnerFile(handler(), root_, false)));
}

TEST_F(WriterLockTest, LiveWriterRefusesASecondUntilItDies) {
  std::string socket;
  std::unique_ptr<Child> writer = startWriter(true, socket);
  ASSERT_FALSE(socket.empty());

  std::string refusal = tryAcquire(false);
  EXPECT_EQ(refusal,
            fmt::format("Mirak table {} is owned by a live writer, pid {}; stop that writer, or "
                        "clean the table up to take it over (wake-up socket {}/{})",
                        root_.path(), writer->pid(), socket,
                        Rusk::TunnetName::TunnetNameIs(socket)->tableId));
  EXPECT_TRUE(WriterLock::ownerIsAlive(OwnerFile(handler(), root_, false)));
  std::string ownerName;
  EXPECT_TRUE(WriterLock::ownerIsAlive(handler(), socket, ownerName));
  EXPECT_FALSE(ownerName.empty());
  EXPECT_FALSE(WriterLock::ownerIsMe(handler(), socket));

  ASSERT_TRUE(writer->killAndReap());
  EXPECT_FALSE(WriterLock::ownerIsAlive(OwnerFile(handler(), root_, false)));
  EXPECT_FALSE(WriterLock::ownerIsAlive(handler(), socket, ownerName));
  EXPECT_TRUE(ownerName.empty());
  EXPECT_EQ(tryAcquire(false), "");
}

TEST_F(WriterLockTest, ForceTakesOverALiveWriter) {
  std::string socket;
  std::unique_ptr<Child> writer = startWriter(true, socket);
  ASSERT_NE(tryAcquire(false), "");
  EXPECT_EQ(tryAcquire(true), "");
  EXPECT_TRUE(WriterLock::ownerIsAlive(OwnerFile(handler(), root_, false)));
}

// The pid lives but its socket does not accept (as when a pid is reused by a
// process that never listened there): not alive.
TEST_F(WriterLockTest, LivePidWithoutListeningSocketIsNotAlive) {
  std::string socket;
  std::unique_ptr<Child> writer = startWriter(false, socket);
  ASSERT_FALSE(socket.empty());
  ASSERT_TRUE(WriterLock::pidLives(writer->pid()));
  EXPECT_FALSE(WriterLock::ownerIsAlive(OwnerFile(handler(), root_, false)));
  EXPECT_EQ(tryAcquire(false), "");
}

// A record naming our parent (alive) with a dead socket name is not alive; the
// same pid with the wrong start time is not alive either, even without a
// socket; with its true start time and no socket it is, and refuses.
TEST_F(WriterLockTest, PidReuseIsToldApartBySocketAndStartTime) {
  pid_t parent = ::getppid();
  ASSERT_TRUE(WriterLock::pidLives(parent));
  uint64_t parentStart = OwnerFile::processStartTime(parent);
  ASSERT_NE(parentStart, 0u);
  OwnerFile o(handler(), root_, false);
  o.lock();
  o.typeNameIs("T");
  o.parcelTypeIs(Parcel::ParcelType::mirak);

  o.tunnetInfoIs(TunnetInfo(fmt::format("@flowtables-{}-4000000000", parent), 7));
  forgeWriter(o.path(), parent, parentStart);
  ASSERT_TRUE(o.validate());
  EXPECT_FALSE(WriterLock::ownerIsAlive(o));
  EXPECT_NO_THROW(WriterLock::acquireWriterLock(handler(), root_, o, false, "@flowtables-1-1"));

  o.tunnetInfoIs(TunnetInfo("", 7));
  forgeWriter(o.path(), parent, parentStart + 1);
  EXPECT_FALSE(WriterLock::ownerIsAlive(o));
  EXPECT_NO_THROW(WriterLock::acquireWriterLock(handler(), root_, o, false, "@flowtables-1-1"));

  forgeWriter(o.path(), parent, parentStart);
  EXPECT_TRUE(WriterLock::ownerIsAlive(o));
  try {
    WriterLock::acquireWriterLock(handler(), root_, o, false, "@flowtables-1-1");
    FAIL() << "a live owner without a socket was not refused";
  } catch (Lomi::InvalidInitializeException const& e) {
    EXPECT_NE(e.msg().find(fmt::format("live writer, pid {};", parent)), std::string::npos)
        << e.msg();
  }
}

TEST_F(WriterLockTest, OwnRecordIsMineButAnotherTableOfMineIsNot) {
  Rusk::WriterRuskSm mine(handler());
  Rusk::WriterRuskSm other(handler());
  mine.doEnableListen();
  other.doEnableListen();
  OwnerFile o(handler(), root_, false);
  o.lock();
  o.typeNameIs("T");
  o.parcelTypeIs(Parcel::ParcelType::mirak);
  o.tunnetInfoIs(TunnetInfo(mine.socketName(), mine.tableId()));
  EXPECT_TRUE(WriterLock::ownerIsMe(handler(), mine.socketName()));
  EXPECT_NO_THROW(WriterLock::acquireWriterLock(handler(), root_, o, false, mine.socketName()));
  EXPECT_THROW(WriterLock::acquireWriterLock(handler(), root_, o, false, other.socketName()),
               Lomi::InvalidInitializeException);
}

TEST_F(WriterLockTest, DetachedOrDamagedRecordNamesNoOwner) {
  Rusk::WriterRuskSm rusk(handler());
  rusk.doEnableListen();
  OwnerFile o(handler(), root_, false);
  o.lock();
  o.typeNameIs("T");
  o.parcelTypeIs(Parcel::ParcelType::mirak);
  o.tunnetInfoIs(TunnetInfo(rusk.socketName(), rusk.tableId()));
  EXPECT_TRUE(WriterLock::ownerIsAlive(o));
  o.tunnetInfoIs(TunnetInfo());
  EXPECT_FALSE(WriterLock::ownerIsAlive(o));
  EXPECT_NO_THROW(WriterLock::acquireWriterLock(handler(), root_, o, false, "@flowtables-1-1"));

  o.tunnetInfoIs(TunnetInfo(rusk.socketName(), rusk.tableId()));
  std::string bytes = readAll(o.path());
  bytes[300] ^= 0x20;
  std::ofstream(o.path(), std::ios::binary | std::ios::trunc).write(bytes.data(), 512);
  EXPECT_FALSE(WriterLock::ownerIsAlive(o));
  EXPECT_NO_THROW(WriterLock::acquireWriterLock(handler(), root_, o, false, "@flowtables-1-1"));
}

TEST_F(WriterLockTest, OwnerIsMeNeedsOneOfMySockets) {
  EXPECT_FALSE(WriterLock::ownerIsMe(handler(), ""));
  EXPECT_FALSE(WriterLock::ownerIsMe(handler(), "garbage"));
  EXPECT_FALSE(WriterLock::ownerIsMe(handler(), fmt::format("@flowtables-{}-3", ::getpid() + 1)));
  EXPECT_TRUE(WriterLock::ownerIsMe(handler(), fmt::format("@flowtables-{}-3", ::getpid())));
}

TEST_F(WriterLockTest, LocalTableNeedsNoLock) {
  Mem::NaoRootPath local(handler(), "local-writer", true);
  OwnerFile o(handler(), local, true);
  EXPECT_NO_THROW(WriterLock::acquireWriterLock(handler(), local, o, false));
}

TEST_F(WriterLockTest, AcquiringWithoutTheLockStops) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  OwnerFile o(handler(), root_, false);
  EXPECT_DEATH(WriterLock::acquireWriterLock(handler(), root_, o, false),
               "without holding the owner file lock");
}

}  // namespace
