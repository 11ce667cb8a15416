// Parcel::WriterLock: a writer that holds the directory's lifetime lock, in
// another process, refuses a second one; a dead one, a live pid that holds no
// lock (a reused pid, a record without a start time) or a damaged record do
// not; force takes over.
#include "Parcel/WriterLock.h"

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

using Parcel::OwnerFile;
using Parcel::TunnetInfo;
using Parcel::WriterLock;
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
  // record, listen), reports its socket name, and stays alive until killed.
  // Without `holdLock` it records itself but keeps no lifetime lock, as an
  // unrelated process that reuses a dead writer's pid would.
  std::unique_ptr<Child> startWriter(bool holdLock, std::string& socketName) {
    Pipe name;
    auto child = std::make_unique<Child>([&] {
      name.closeRead();
      Rusk::WriterRuskSm rusk(handler());
      WriterLock::Lifetime lifetime;
      {
        OwnerFile o(handler(), root_, false);
        o.lock();
        WriterLock::acquireWriterLock(handler(), root_, o, false, rusk.socketName(),
                                      holdLock ? &lifetime : nullptr);
        o.typeNameIs("FlowTracking::HoIpFlowStatus");
        o.parcelTypeIs(Parcel::ParcelType::mirak);
        o.tunnetInfoIs(TunnetInfo(rusk.socketName(), rusk.tableId()));
        rusk.doEnableListen();
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
  // With `lifetime`, the lock is taken into it as a writer does.
  std::string tryAcquire(bool force, std::string const& mySocket = "@flowtables-1-1",
                         WriterLock::Lifetime* lifetime = nullptr) {
    OwnerFile o(handler(), root_, false);
    o.lock();
    try {
      WriterLock::acquireWriterLock(handler(), root_, o, force, mySocket, lifetime);
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
  WriterLock::Lifetime mine;
  ASSERT_NE(tryAcquire(false, "@flowtables-1-1", &mine), "");
  EXPECT_FALSE(mine.held());
  EXPECT_EQ(tryAcquire(true, "@flowtables-1-1", &mine), "");
  EXPECT_TRUE(mine.held()) << "the old writer's lock does not stand in the way";
  // Another process now sees a held lock: this one's.
  EXPECT_TRUE(WriterLock::lifetimeHeld(root_.path()));
}

// The pid lives, and even listens, but holds no lifetime lock (as a process
// that reused a dead writer's pid would): not alive.
TEST_F(WriterLockTest, ALivePidThatHoldsNoWriterLockIsNotAlive) {
  std::string socket;
  std::unique_ptr<Child> writer = startWriter(false, socket);
  ASSERT_FALSE(socket.empty());
  ASSERT_TRUE(WriterLock::pidLives(writer->pid()));
  EXPECT_FALSE(WriterLock::ownerIsAlive(OwnerFile(handler(), root_, false)));
  EXPECT_EQ(tryAcquire(false), "");
}

// A record naming a live, unrelated process (our parent), with its true start
// time or none and no socket, names no owner: the table is taken.
TEST_F(WriterLockTest, ARecordNamingALiveUnrelatedPidIsNoOwner) {
  pid_t parent = ::getppid();
  ASSERT_TRUE(WriterLock::pidLives(parent));
  uint64_t parentStart = OwnerFile::processStartTime(parent);
  ASSERT_NE(parentStart, 0u);
  OwnerFile o(handler(), root_, false);
  o.lock();
  o.typeNameIs("T");
  o.parcelTypeIs(Parcel::ParcelType::mirak);
  o.tunnetInfoIs(TunnetInfo("", 7));
  for (uint64_t start : {parentStart, uint64_t(0)}) {
    forgeWriter(o.path(), parent, start);
    ASSERT_TRUE(o.validate());
    EXPECT_FALSE(WriterLock::ownerIsAlive(o)) << "start time " << start;
    WriterLock::Lifetime lifetime;
    EXPECT_NO_THROW(
        WriterLock::acquireWriterLock(handler(), root_, o, false, "@flowtables-1-1", &lifetime));
    EXPECT_TRUE(lifetime.held());
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
  WriterLock::Lifetime mineLock, otherLock;
  EXPECT_NO_THROW(
      WriterLock::acquireWriterLock(handler(), root_, o, false, mine.socketName(), &mineLock));
  EXPECT_THROW(
      WriterLock::acquireWriterLock(handler(), root_, o, false, other.socketName(), &otherLock),
      Lomi::InvalidInitializeException);
  EXPECT_FALSE(otherLock.held());
}

TEST_F(WriterLockTest, DetachedOrDamagedRecordNamesNoOwner) {
  Rusk::WriterRuskSm rusk(handler());
  rusk.doEnableListen();
  OwnerFile o(handler(), root_, false);
  o.lock();
  o.typeNameIs("T");
  o.parcelTypeIs(Parcel::ParcelType::mirak);
  o.tunnetInfoIs(TunnetInfo(rusk.socketName(), rusk.tableId()));
  WriterLock::Lifetime lifetime;
  ASSERT_NO_THROW(
      WriterLock::acquireWriterLock(handler(), root_, o, false, rusk.socketName(), &lifetime));
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
