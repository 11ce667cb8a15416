// The reader's mapping of the bucket file: attach checks, range errors, and
// following a writer that grows and shrinks the table in another process.
#include <csignal>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <vector>

#include "Lomi/Exception.h"
#include "Lomi/Thrown.h"
#include "Lomi/Trace.h"
#include "MirakCore/BucketReader.h"
#include "MirakCore/BucketTestUtil.h"

namespace {

using namespace BucketTest;
using Reader = MirakCore::BucketReader<MirakCore::SlotLink>;

constexpr uint32_t kKestor = 0x00010009;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("BucketReaderTest");
}

class BucketReaderTest : public ::testing::Test {
 protected:
  // Formats the file in this process and lets go of it, as a writer that has
  // finished its attach would leave it.
  void format(uint32_t initial = 1) {
    Writer w(handler(), dir.path());
    w.initialNumBucketsIs(initial);
    ASSERT_EQ(w.attach(kKestor), Mem::attachNew);
  }
  void expectFormatted(Reader const& r) {
    uint32_t const n = r.numBuckets();
    for (uint32_t i = 0; i < n; ++i)
      ASSERT_EQ(Mem::loadAcquire(r[i]).next, formattedNext(i, n)) << "bucket " << i << " of " << n;
  }
  TempDir dir;
};

TEST_F(BucketReaderTest, AttachNeedsAFileThatValidates) {
  Reader r(handler(), dir.path());
  std::string error;
  EXPECT_FALSE(r.attach(0, error));
  EXPECT_NE(error.find(dir.file("buckets")), std::string::npos) << error;
  EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
  EXPECT_FALSE(r.attached());
  EXPECT_FALSE(r.resize()) << "a detached reader has nothing to follow";

  format(16);
  EXPECT_FALSE(r.attach(kKestor + 1, error));
  EXPECT_EQ(error, dir.file("buckets") + ": bad kestor:9:1 wanted:10:1");
  EXPECT_FALSE(r.attached());
  ASSERT_TRUE(r.attach(kKestor, error)) << error;
  EXPECT_EQ(r.numBuckets(), 16u);
  EXPECT_EQ(r.bits(), 4u);
  EXPECT_TRUE(r.validate(kKestor, error)) << error;
  EXPECT_TRUE(r.validate(0, error)) << error;
  expectFormatted(r);
  EXPECT_NO_THROW(r.checkResize());
  EXPECT_FALSE(r.resize());
  EXPECT_LE(r.mappedBytes(), r.wrapper().memSize());
}

TEST_F(BucketReaderTest, IndexOutOfRangeOfThePrivateCount) {
  format(4);
  Reader r(handler(), dir.path());
  ASSERT_TRUE(r.attach(kKestor));
  EXPECT_EQ(LomiTest::thrown<Lomi::CorruptionDetectedException>([&] { r[4]; }),
            "out-of-range, index:4 max:3");
  r.detach();
  EXPECT_EQ(r.numBuckets(), 0u);
  EXPECT_EQ(LomiTest::thrown<Lomi::CorruptionDetectedException>([&] { r[0]; }),
            "out-of-range, index:0 max:-1");
  r.detach();  // twice is harmless
}

// A writer process grows the table from 1 to 64 buckets and later shrinks it
// to 4; the reader learns of each only through the header's pair.
TEST_F(BucketReaderTest, FollowsGrowAndShrinkOfAWriterProcess) {
  format();
  Reader r(handler(), dir.path());
  ASSERT_TRUE(r.attach(kKestor));
  ASSERT_EQ(r.numBuckets(), 1u);

  int status = runInChild([this] {
    Writer w(handler(), dir.path());
    if (w.attach(kKestor) != Mem::attachKept) return 1;
    while (w.numBuckets() < 64) growEmpty(w);
    return 0;
  });
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << describeStatus(status);
  EXPECT_EQ(r.numBuckets(), 1u) << "the private count moved by itself";
  EXPECT_EQ(LomiTest::thrown<Lomi::CorruptionDetectedException>([&] { r.checkResize(); }),
            "found mismatch, local numBuckets:0x0:1 header numBuckets:0x6:64");
  EXPECT_THROW(r[1], Lomi::CorruptionDetectedException) << "not mapped before the refresh";
  ASSERT_TRUE(r.refresh());
  EXPECT_EQ(r.numBuckets(), 64u);
  EXPECT_EQ(r.bits(), 6u);
  EXPECT_EQ(r.numBucketsRef(), (Mem::VersionedRef<unsigned int>{6, 64}));
  expectFormatted(r);
  EXPECT_FALSE(r.resize());
  EXPECT_EQ(r.remaps(), 1u);

  status = runInChild([this] {
    Writer w(handler(), dir.path());
    if (w.attach(kKestor) != Mem::attachKept) return 1;
    while (w.numBuckets() > 4) shrinkEmpty(w);
    return 0;
  });
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << describeStatus(status);
  ASSERT_TRUE(r.resize());
  EXPECT_EQ(r.numBucketsRef(), (Mem::VersionedRef<unsigned int>{10, 4}));
  expectFormatted(r);
  EXPECT_LE(r.mappedBytes(), r.wrapper().memSize()) << "mapped beyond the file";
  std::string error;
  EXPECT_TRUE(r.validate(kKestor, error)) << error;
}

// Counts shared between the reader and writer children and the test.
struct Shared {
  std::atomic<uint32_t> readerReady;
  std::atomic<uint32_t> stop;
  std::atomic<uint64_t> writerCycles;
  std::atomic<uint64_t> stableSnapshots;
  std::atomic<uint64_t> stableWide;
  std::atomic<uint64_t> discarded;
  std::atomic<uint64_t> refreshes;
  std::atomic<uint64_t> badHeads;
  std::atomic<uint32_t> firstBad[3];  // count, bucket, next
};

// Whether `next` may stand in head `i` of a table of `n` buckets whose pair
// did not move while it was read: the walk of n buckets, or, for the low half,
// the walk of n/2 (a grow between publish and cut, or a shrink before it
// publishes).
bool validHead(uint32_t i, uint32_t next, uint32_t n) {
  if (next == 0xffffffffu) return i == n - 1 || (n > 1 && i == n / 2 - 1);
  if (!Link::isEndOfChain(next) || n == 1) return false;
  uint32_t const b = Link::indexOf(next);
  uint32_t const bits = MirakCore::log2OfPowerOfTwo(n);
  if (b == MirakCore::bitReversePermute(i, bits)) return true;
  return i < n / 2 && n > 2 && b == MirakCore::bitReversePermute(i, bits - 1);
}

// Writer and reader in two processes: the writer grows 1 -> 256 -> 1 over and
// over in the hash map's store orders; the reader refreshes and reads every
// head. A snapshot whose pair did not move must be a valid walk; nothing may
// fault. The test goes on until the reader has seen enough of both kinds.
TEST_F(BucketReaderTest, ConcurrentGrowAndShrinkNeverShowsABadStableSnapshot) {
  format();
  auto* shared = static_cast<Shared*>(
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(shared, MAP_FAILED);
  new (shared) Shared{};

  std::fflush(nullptr);
  pid_t writer = ::fork();
  if (writer == 0) {
    ::alarm(120);
    int rc = 0;
    try {
      Writer w(handler(), dir.path());
      if (w.attach(kKestor) != Mem::attachKept) ::_exit(1);
      while (!shared->readerReady.load()) sched_yield();
      while (!shared->stop.load()) {
        while (w.numBuckets() < 256) growEmpty(w);
        while (w.numBuckets() > 1) shrinkEmpty(w);
        shared->writerCycles.fetch_add(1);
      }
    } catch (std::exception const& e) {
      std::fprintf(stderr, "writer threw: %s\n", e.what());
      rc = 2;
    }
    ::_exit(rc);
  }
  int const readerStatus = runInChild([this, shared] {
    Reader r(handler(), dir.path());
    if (!r.attach(kKestor)) return 1;
    shared->readerReady.store(1);
    std::vector<uint32_t> heads;
    // Enough evidence that reads overlapped every phase of the writer.
    while (shared->stableWide.load() < 2000 || shared->discarded.load() < 50 ||
           shared->writerCycles.load() < 20) {
      if (r.refresh()) shared->refreshes.fetch_add(1);
      auto const pair = r.numBucketsRef();
      heads.resize(pair.value);
      for (uint32_t i = 0; i < pair.value; ++i) heads[i] = Mem::loadAcquire(r[i]).next;
      if (r.headerNumBuckets().version != pair.version) {
        shared->discarded.fetch_add(1);
        continue;
      }
      shared->stableSnapshots.fetch_add(1);
      if (pair.value > 1) shared->stableWide.fetch_add(1);
      for (uint32_t i = 0; i < pair.value; ++i) {
        if (!validHead(i, heads[i], pair.value) && shared->badHeads.fetch_add(1) == 0) {
          shared->firstBad[0] = pair.value;
          shared->firstBad[1] = i;
          shared->firstBad[2] = heads[i];
        }
      }
      if (r.mappedBytes() > r.wrapper().memSize()) return 3;
    }
    return 0;
  });
  shared->stop.store(1);
  int writerStatus = 0;
  ::waitpid(writer, &writerStatus, 0);

  EXPECT_TRUE(WIFEXITED(readerStatus) && WEXITSTATUS(readerStatus) == 0)
      << "reader " << describeStatus(readerStatus);
  EXPECT_TRUE(WIFEXITED(writerStatus) && WEXITSTATUS(writerStatus) == 0)
      << "writer " << describeStatus(writerStatus);
  std::printf(
      "writer cycles %lu, stable snapshots %lu (%lu wider than 1), discarded %lu, refreshes %lu\n",
      static_cast<unsigned long>(shared->writerCycles.load()),
      static_cast<unsigned long>(shared->stableSnapshots.load()),
      static_cast<unsigned long>(shared->stableWide.load()),
      static_cast<unsigned long>(shared->discarded.load()),
      static_cast<unsigned long>(shared->refreshes.load()));
  EXPECT_GE(shared->stableWide.load(), 2000u);
  EXPECT_GE(shared->discarded.load(), 50u) << "no read overlapped a resize";
  EXPECT_EQ(shared->badHeads.load(), 0u)
      << "first bad head: count " << shared->firstBad[0] << " bucket " << shared->firstBad[1]
      << " next " << std::hex << shared->firstBad[2];
  ::munmap(shared, sizeof(Shared));
}

}  // namespace
