// The bucket file as the writer formats, adopts, re-formats, resizes and
// removes it, checked through the mapping. (Its layout is pinned by the
// static_asserts of BucketTable.h; the formatted walk by EmptyGrowAndShrink.)
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>

#include "Lomi/Exception.h"
#include "Lomi/Thrown.h"
#include "Lomi/Trace.h"
#include "MirakCore/BucketTestUtil.h"

namespace {

using namespace BucketTest;
using Header = Writer::Header;

constexpr uint32_t kKestor = 0x00030007;  // text form "7:3"
constexpr uint32_t kOtherKestor = 0x00040007;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("BucketWriterTest");
}

class BucketWriterTest : public ::testing::Test {
 protected:
  std::string path() const { return dir.file("buckets"); }
  TempDir dir;
};

TEST_F(BucketWriterTest, AttachKeepsSameKestorAndReformatsOther) {
  {
    Writer w(handler(), dir.path());
    ASSERT_EQ(w.attach(kKestor), Mem::attachNew);
    EXPECT_EQ(w.numBuckets(), Writer::kInitialNumBuckets);
    growEmpty(w);
    growEmpty(w);
    growEmpty(w);
    storeLink(w[5], 17);  // a chain now starts at slot 17
  }
  Writer w(handler(), dir.path());
  ASSERT_EQ(w.attach(kKestor), Mem::attachKept);
  EXPECT_EQ(w.numBuckets(), 8u);
  EXPECT_EQ(w.bucketFactor(), 3u);
  EXPECT_EQ(Mem::loadAcquire(w.header()->numBuckets), (Mem::VersionedRef<unsigned int>{3, 8}));
  EXPECT_EQ(Mem::loadAcquire(w[5]), (Link{8, 17}));
  EXPECT_EQ(w.wrapper().fileSize(), Header::mapSize(8));
  EXPECT_EQ(w.header()->toString(),
            "magic:0x544b424b4152494d version:1 kestor:7:3 numBuckets:0x3:8");
  w.detach();

  ASSERT_EQ(w.attach(kOtherKestor), Mem::attachReformatted);
  EXPECT_EQ(w.numBuckets(), Writer::kInitialNumBuckets);
  EXPECT_EQ(w.header()->id.kestor, kOtherKestor);
  EXPECT_EQ(Mem::loadAcquire(w[0]), (Link{0, 0xffffffffu}));
  // The count's version moves on across a re-format, so that a reader still
  // mapping the old generation sees its pair change.
  EXPECT_EQ(Mem::loadAcquire(w.header()->numBuckets), (Mem::VersionedRef<unsigned int>{4, 1}));
  std::string error;
  EXPECT_TRUE(w.validate(kOtherKestor, error)) << error;
}

TEST_F(BucketWriterTest, ValidateNamesFileAndProblem) {
  Writer w(handler(), dir.path());
  std::string error;
  EXPECT_FALSE(w.validate(kKestor, error));
  EXPECT_EQ(error, path() + ": bucket table is not attached");
  ASSERT_EQ(w.attach(kKestor), Mem::attachNew);
  EXPECT_TRUE(w.validate(0, error)) << "a wanted kestor of 0 takes any";
  EXPECT_FALSE(w.validate(kOtherKestor, error));
  EXPECT_EQ(error, path() + ": bad kestor:7:3 wanted:7:4");
  // The header's count disagrees with the mapping outside a grow or shrink.
  w.resize(4);
  EXPECT_FALSE(w.validate(kKestor, error));
  EXPECT_EQ(error, path() + ": header numBuckets:1 but 4 buckets are mapped");
}

// One named damage of a formatted file, the exact complaint of validateFile,
// and the re-format that attach does on it.
struct Damage {
  char const* name;
  std::function<void(int fd)> apply;
  std::string message;  // after "<path>: "
};

class BucketDamage : public ::testing::TestWithParam<Damage> {
 protected:
  TempDir dir;
};

void pwriteU32(int fd, off_t offset, uint32_t v) {
  ASSERT_EQ(::pwrite(fd, &v, 4, offset), 4);
}

TEST_P(BucketDamage, ValidateFileComplainsAndAttachReformats) {
  std::string const path = dir.file("buckets");
  {
    Writer w(handler(), dir.path());
    ASSERT_EQ(w.attach(kKestor), Mem::attachNew);
    growEmpty(w);
  }
  int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  GetParam().apply(fd);
  ::close(fd);

  Writer w(handler(), dir.path());
  EXPECT_EQ(LomiTest::thrown<Lomi::CorruptionDetectedException>([&] { w.validateFile(); }),
            path + ": " + GetParam().message);
  ASSERT_EQ(w.attach(kKestor), Mem::attachReformatted);
  std::string error;
  EXPECT_TRUE(w.validate(kKestor, error)) << error;
  EXPECT_TRUE(w.validateFile());
  EXPECT_EQ(Mem::loadAcquire(w[0]), (Link{0, 0xffffffffu}));
}

INSTANTIATE_TEST_SUITE_P(
    Damages, BucketDamage,
    ::testing::Values(Damage{"MagicByte", [](int fd) { ASSERT_EQ(::pwrite(fd, "X", 1, 3), 1); },
                             "bad magic: 0x544b424b5852494d"},
                      Damage{"Version", [](int fd) { pwriteU32(fd, 8, 9); },
                             "bad version: 9 expecting: 1"},
                      Damage{"CountNotPowerOfTwo", [](int fd) { pwriteU32(fd, 20, 3); },
                             "bad numBuckets: 3 is not a power of two"},
                      Damage{"CountZero", [](int fd) { pwriteU32(fd, 20, 0); },
                             "bad numBuckets: 0 is not a power of two"},
                      Damage{"CountBeyondFile", [](int fd) { pwriteU32(fd, 20, 1u << 20); },
                             "bad file size:4096 wanted:8388632 for 1048576 buckets"},
                      Damage{"Truncated", [](int fd) { ASSERT_EQ(::ftruncate(fd, 10), 0); },
                             "file has 10 bytes, less than the 24 byte header"},
                      Damage{"Empty", [](int fd) { ASSERT_EQ(::ftruncate(fd, 0), 0); },
                             "file has 0 bytes, less than the 24 byte header"}),
    [](auto const& info) { return std::string(info.param.name); });

TEST_F(BucketWriterTest, IndexOutOfRange) {
  Writer w(handler(), dir.path());
  w.initialNumBucketsIs(8);
  ASSERT_EQ(w.attach(kKestor), Mem::attachNew);
  EXPECT_NO_THROW(w[7]);
  EXPECT_EQ(LomiTest::thrown<Lomi::CorruptionDetectedException>([&] { w[8]; }),
            "out-of-range, index:8 max:7");
  Writer const& cw = w;
  EXPECT_THROW(cw[0xffffffffu], Lomi::CorruptionDetectedException);
  w.detach();
  EXPECT_EQ(LomiTest::thrown<Lomi::CorruptionDetectedException>([&] { w[0]; }),
            "out-of-range, index:0 max:-1");
}

class BucketResize : public ::testing::TestWithParam<bool> {
 protected:
  // Local tables live in private memory.
  std::string directory() const { return GetParam() ? std::string() : dir.path(); }
  TempDir dir;
};

// resize alone makes the new entries addressable and zero, moves the cached
// count and bucketFactor_ at once, keeps every old entry, and leaves the
// header's pair to the hash map.
TEST_P(BucketResize, GrowKeepsEntriesAndZeroesTheNewHalf) {
  Writer w(handler(), directory());
  ASSERT_EQ(w.attach(kKestor), Mem::attachNew);
  auto const pair = Mem::loadAcquire(w.header()->numBuckets);
  for (uint32_t bits = 1; bits <= 13; ++bits) {
    uint32_t const n = 1u << bits;
    w.resize(n);
    EXPECT_EQ(w.numBuckets(), n);
    EXPECT_EQ(w.bucketFactor(), bits);
    EXPECT_EQ(w.wrapper().fileSize(), Header::mapSize(n));
    EXPECT_EQ(Mem::loadAcquire(w.header()->numBuckets), pair) << "resize stored the header's pair";
    for (uint32_t i = n / 2; i < n; ++i) {
      ASSERT_EQ(Mem::loadAcquire(w[i]), (Link{0, 0})) << "new entry " << i << " of " << n;
      Mem::storeRelease(w[i], Link{i, i * 3});
    }
    for (uint32_t i = 1; i < n / 2; ++i)
      ASSERT_EQ(Mem::loadAcquire(w[i]), (Link{i, i * 3})) << "old entry " << i << " of " << n;
  }
  EXPECT_EQ(Mem::loadAcquire(w[0]), (Link{0, 0xffffffffu}));
}

// A shrink after the pair is published cuts the mapping; a later grow finds
// zeros in every new entry, also those that shared a page with kept entries.
TEST_P(BucketResize, ShrinkThenRegrowGivesZeroEntries) {
  Writer w(handler(), directory());
  ASSERT_EQ(w.attach(kKestor), Mem::attachNew);
  uint32_t const big = 8192;
  w.resize(big);
  for (uint32_t i = 0; i < big; ++i) Mem::storeRelease(w[i], Link{4, i + 1});
  uint64_t const lengthBefore = w.wrapper().memSize();
  uint64_t const allocatedBefore = w.wrapper().allocatedBytes();
  w.resize(8);
  EXPECT_EQ(w.numBuckets(), 8u);
  EXPECT_EQ(w.bucketFactor(), 3u);
  EXPECT_EQ(w.wrapper().fileSize(), Header::mapSize(8));
  if (!GetParam()) {
    EXPECT_EQ(w.wrapper().memSize(), lengthBefore) << "a shrink shortened the file";
    EXPECT_LT(w.wrapper().allocatedBytes(), allocatedBefore) << "the tail was not given back";
  }
  for (uint32_t i = 0; i < 8; ++i) ASSERT_EQ(Mem::loadAcquire(w[i]), (Link{4, i + 1}));
  w.resize(big);
  for (uint32_t i = 8; i < big; ++i) ASSERT_EQ(Mem::loadAcquire(w[i]), (Link{0, 0})) << i;
}

// The hash map's own store orders on top of resize give back a formatted
// table at every size, and validate (header pair == mapped count) holds.
TEST_P(BucketResize, EmptyGrowAndShrinkKeepTheWalk) {
  Writer w(handler(), directory());
  ASSERT_EQ(w.attach(kKestor), Mem::attachNew);
  auto expectFormatted = [&w] {
    uint32_t const n = w.numBuckets();
    for (uint32_t i = 0; i < n; ++i)
      ASSERT_EQ(Mem::loadAcquire(w[i]).next, formattedNext(i, n)) << "bucket " << i << " of " << n;
    std::string error;
    EXPECT_TRUE(w.validate(kKestor, error)) << error;
  };
  for (int i = 0; i < 10; ++i) {
    growEmpty(w);
    expectFormatted();
  }
  for (int i = 0; i < 10; ++i) {
    shrinkEmpty(w);
    expectFormatted();
  }
  EXPECT_EQ(w.numBuckets(), 1u);
  EXPECT_EQ(Mem::loadAcquire(w.header()->numBuckets).version, 20u);
}

INSTANTIATE_TEST_SUITE_P(FileAndLocal, BucketResize, ::testing::Bool(),
                         [](auto const& info) { return info.param ? "Local" : "File"; });

TEST_F(BucketWriterTest, ResizeRejectsBadCountsAndKeepsTheTable) {
  Writer w(handler(), dir.path());
  EXPECT_THROW(w.resize(2), Lomi::RuntimeException) << "resize of a detached table";
  ASSERT_EQ(w.attach(kKestor), Mem::attachNew);
  growEmpty(w);
  for (uint32_t bad : {0u, 3u, 12u, 0x80000001u}) {
    EXPECT_EQ(LomiTest::thrown<Lomi::RuntimeException>([&] { w.resize(bad); }),
              fmt::format("{}: resize: {} buckets is not a power of two up to {}", path(), bad,
                          0x80000000u));
  }
  // A power of two whose file would not fit the format's 32-bit sizes.
  EXPECT_THROW(w.resize(1u << 30), Lomi::RuntimeException);
  EXPECT_EQ(w.numBuckets(), 2u);
  std::string error;
  EXPECT_TRUE(w.validate(kKestor, error)) << error;
  EXPECT_THROW(w.initialNumBucketsIs(6), Lomi::RuntimeException);
}

TEST_F(BucketWriterTest, ErrorsNameThePath) {
  std::string const missing = dir.file("no-such-dir");
  Writer w(handler(), missing);
  std::string const msg =
      LomiTest::thrown<Lomi::MemoryResourceException>([&] { w.attach(kKestor); });
  EXPECT_NE(msg.find(missing + "/buckets"), std::string::npos) << msg;
  EXPECT_NE(msg.find("No such file or directory"), std::string::npos) << msg;
  EXPECT_THROW(w.validateFile(), Lomi::CorruptionDetectedException);

  // A "directory" that is a plain file: fails for every user, root included.
  std::string const plain = dir.file("plain");
  std::ofstream(plain) << "x";
  Writer p(handler(), plain);
  std::string const msg2 =
      LomiTest::thrown<Lomi::InvalidInitializeException>([&] { p.attach(kKestor); });
  EXPECT_NE(msg2.find(plain + "/buckets"), std::string::npos) << msg2;
  EXPECT_NE(msg2.find("Not a directory"), std::string::npos) << msg2;
}

TEST_F(BucketWriterTest, CleanupRemovesTheFile) {
  Writer w(handler(), dir.path());
  ASSERT_EQ(w.attach(kKestor), Mem::attachNew);
  w.cleanup();
  EXPECT_FALSE(w.attached());
  EXPECT_EQ(w.numBuckets(), 0u);
  EXPECT_FALSE(std::filesystem::exists(path()));
  std::string const msg =
      LomiTest::thrown<Lomi::CorruptionDetectedException>([&] { w.validateFile(); });
  EXPECT_NE(msg.find(path()), std::string::npos) << msg;
  EXPECT_NO_THROW(w.cleanup()) << "cleanup of an absent file";
  EXPECT_EQ(w.attach(kKestor), Mem::attachNew);
}

TEST_F(BucketWriterTest, LocalTableAlwaysFormatsAndTouchesNoFile) {
  Writer w(handler(), "");
  EXPECT_EQ(w.attach(kKestor), Mem::attachNew);
  growEmpty(w);
  EXPECT_EQ(w.attach(kKestor), Mem::attachNew) << "a local table has nothing to adopt";
  EXPECT_EQ(w.numBuckets(), 1u);
  EXPECT_TRUE(w.validateFile());
  EXPECT_EQ(w.name(), "local bucket table");
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
  w.cleanup();
  EXPECT_FALSE(w.attached());
}

}  // namespace
