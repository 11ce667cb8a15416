// Mem::ParcelWrapper on real files: growth keeps content, a shrink gives
// memory back without shortening the file, and every error names the file.
// (A reader's older, longer mapping read after a shrink, and stores through
// read-only mappings: FlowTracking/Compaction and FlowTracking/Reader.)
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "Lomi/Util.h"
#include "Mem/ParcelWrapper.h"

namespace {

using Mem::ParcelWrapper;
using Mode = ParcelWrapper::Mode;

constexpr uint64_t kPage = 4096;
constexpr uint64_t kBig = 4u << 20;     // 4 MiB
constexpr uint64_t kSmall = 64u << 10;  // 64 KiB

// A fresh directory on tmpfs (which can punch holes), removed at the end.
class ParcelWrapperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char const* base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
    std::string pattern = std::string(base) + "/parcel-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  std::string file(std::string const& name) const { return dir_ + "/" + name; }

  std::string dir_;
};

// Word i of a mapping holds pattern(i), so that any lost or moved page shows.
uint64_t pattern(uint64_t i) {
  return i * 0x9e3779b97f4a7c15ull + 1;
}

void fill(void* base, uint64_t bytes) {
  auto* w = static_cast<uint64_t*>(base);
  for (uint64_t i = 0; i < bytes / 8; ++i) w[i] = pattern(i);
}

// The first word that differs, or bytes / 8 if all hold.
uint64_t firstMismatch(void const* base, uint64_t bytes) {
  auto const* w = static_cast<uint64_t const*>(base);
  for (uint64_t i = 0; i < bytes / 8; ++i)
    if (w[i] != pattern(i)) return i;
  return bytes / 8;
}

TEST_F(ParcelWrapperTest, CreateMapsAndLengthensTheFile) {
  ParcelWrapper p(file("t"));
  EXPECT_EQ(p.memSize(), 0u) << "no file yet";
  void* base = p.attach(2 * kPage, Mode::ReadWrite);
  ASSERT_NE(base, nullptr) << p.lastError();
  EXPECT_FALSE(p.local());
  EXPECT_EQ(p.fileSize(), 2 * kPage);
  EXPECT_EQ(p.memSize(), 2 * kPage);
  EXPECT_EQ(std::filesystem::file_size(file("t")), 2 * kPage);
  EXPECT_EQ(std::filesystem::status(file("t")).permissions() & std::filesystem::perms::owner_write,
            std::filesystem::perms::owner_write);
  fill(base, 2 * kPage);
  // What the mapping holds is in the file.
  std::ifstream in(file("t"), std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_EQ(bytes.size(), 2 * kPage);
  EXPECT_EQ(firstMismatch(bytes.data(), bytes.size()), 2 * kPage / 8);
  p.detach();
  EXPECT_FALSE(p.attached());
  EXPECT_EQ(p.memSize(), 2 * kPage) << "detach keeps the file";
  // Attaching again with a smaller size never shortens it.
  ASSERT_NE(p.attach(kPage, Mode::ReadWrite), nullptr);
  EXPECT_EQ(p.memSize(), 2 * kPage);
  EXPECT_EQ(firstMismatch(p.base(), kPage), kPage / 8);
}

// Grow keeps the content also when the mapping has to move: a page reserved
// right behind the mapping leaves mremap no room in place.
TEST_F(ParcelWrapperTest, GrowKeepsContentWhenTheBaseMoves) {
  // Reserve a range, free all but its last page, and map the file there.
  char* range = static_cast<char*>(
      ::mmap(nullptr, kSmall + kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(range, MAP_FAILED);
  ASSERT_EQ(::munmap(range, kSmall), 0);
  void* fence = range + kSmall;
  ParcelWrapper p(file("t"));
  void* base = p.attach(kSmall, Mode::ReadWrite, range);
  ASSERT_NE(base, nullptr) << p.lastError();
  ASSERT_EQ(base, range) << "the address hint was not taken";
  fill(base, kSmall);
  void* grown = p.resize(kBig);
  ASSERT_NE(grown, nullptr) << p.lastError();
  EXPECT_NE(grown, base) << "the mapping grew into a reserved page";
  EXPECT_EQ(p.fileSize(), kBig);
  EXPECT_EQ(p.memSize(), kBig);
  EXPECT_EQ(firstMismatch(grown, kSmall), kSmall / 8);
  fill(grown, kBig);
  EXPECT_EQ(firstMismatch(grown, kBig), kBig / 8);
  ::munmap(fence, kPage);
}

// A shrink gives the tail's memory back but leaves the file's length, and a
// reader keeps the older, longer range mapped (that it reads it without
// SIGBUS, zeros in the tail, is FlowTracking/Compaction's reader process).
TEST_F(ParcelWrapperTest, ShrinkPunchesTheTailAndOlderMappingsStayReadable) {
  ParcelWrapper writer(file("t"));
  void* base = writer.attach(kBig, Mode::ReadWrite);
  ASSERT_NE(base, nullptr) << writer.lastError();
  fill(base, kBig);
  uint64_t const allocatedFull = writer.allocatedBytes();
  EXPECT_GE(allocatedFull, kBig);

  ParcelWrapper reader(file("t"));
  void const* rbase = reader.attach(0, Mode::ReadOnly);
  ASSERT_NE(rbase, nullptr) << reader.lastError();
  EXPECT_EQ(reader.fileSize(), kBig) << "size 0 maps the whole file";

  void* shrunk = writer.resize(kSmall);
  ASSERT_NE(shrunk, nullptr) << writer.lastError();
  EXPECT_EQ(writer.fileSize(), kSmall);
  EXPECT_EQ(writer.memSize(), kBig) << "a shrink shortened the file";
  EXPECT_EQ(std::filesystem::file_size(file("t")), kBig);
  EXPECT_LE(writer.allocatedBytes(), kSmall + kPage) << "the tail was not given back";
  EXPECT_EQ(firstMismatch(shrunk, kSmall), kSmall / 8);

  // Growing back: the old tail reads as zeros, the kept head is intact.
  void* regrown = writer.resize(kBig);
  ASSERT_NE(regrown, nullptr) << writer.lastError();
  EXPECT_EQ(firstMismatch(regrown, kSmall), kSmall / 8);
  EXPECT_EQ(static_cast<uint64_t const*>(regrown)[kBig / 8 - 1], 0u);
}

// A reader follows a writer's growth within the file's length, and no further.
TEST_F(ParcelWrapperTest, ReadOnlyResizeStaysWithinTheFile) {
  ParcelWrapper writer(file("t"));
  ASSERT_NE(writer.attach(kPage, Mode::ReadWrite), nullptr);
  ParcelWrapper reader(file("t"));
  ASSERT_NE(reader.attach(0, Mode::ReadOnly), nullptr) << reader.lastError();
  void* grown = writer.resize(kSmall);
  ASSERT_NE(grown, nullptr);
  fill(grown, kSmall);
  void* rgrown = reader.resize(kSmall);
  ASSERT_NE(rgrown, nullptr) << reader.lastError();
  EXPECT_EQ(firstMismatch(rgrown, kSmall), kSmall / 8);
  EXPECT_EQ(reader.resize(2 * kSmall), nullptr);
  EXPECT_EQ(reader.lastError(), file("t") + ": file has 65536 bytes, 131072 wanted");
  EXPECT_EQ(reader.fileSize(), kSmall) << "a failed resize kept the old mapping";
  EXPECT_EQ(firstMismatch(reader.base(), kSmall), kSmall / 8);
  EXPECT_EQ(reader.memSize(), kSmall) << "a reader lengthened the file";
}

TEST_F(ParcelWrapperTest, ErrorsNameThePath) {
  std::string const missingDir = file("no-such-dir") + "/t";
  ParcelWrapper a(missingDir);
  EXPECT_EQ(a.attach(kPage, Mode::ReadWrite), nullptr);
  EXPECT_EQ(a.lastError(), "open " + missingDir + ": No such file or directory (errno " +
                               std::to_string(ENOENT) + ")");

  // A "directory" that is a plain file refuses every user, root included.
  std::ofstream(file("plain")) << "x";
  ParcelWrapper b(file("plain") + "/t");
  EXPECT_EQ(b.attach(kPage, Mode::ReadWrite), nullptr);
  EXPECT_NE(b.lastError().find(file("plain") + "/t"), std::string::npos) << b.lastError();
  EXPECT_NE(b.lastError().find("Not a directory"), std::string::npos) << b.lastError();

  if (::geteuid() != 0) {
    std::filesystem::create_directory(file("ro"));
    std::filesystem::permissions(
        file("ro"), std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    ParcelWrapper c(file("ro") + "/t");
    EXPECT_EQ(c.attach(kPage, Mode::ReadWrite), nullptr);
    EXPECT_NE(c.lastError().find(file("ro") + "/t"), std::string::npos) << c.lastError();
    EXPECT_NE(c.lastError().find("Permission denied"), std::string::npos) << c.lastError();
  }

  ParcelWrapper d(file("missing"));
  EXPECT_EQ(d.attach(0, Mode::ReadOnly), nullptr);
  EXPECT_EQ(d.lastError(), "open " + file("missing") + ": No such file or directory (errno " +
                               std::to_string(ENOENT) + ")");
  EXPECT_FALSE(std::filesystem::exists(file("missing"))) << "a reader created the file";

  std::ofstream(file("empty")).flush();
  ParcelWrapper e(file("empty"));
  EXPECT_EQ(e.attach(0, Mode::ReadOnly), nullptr);
  EXPECT_EQ(e.lastError(), file("empty") + ": cannot map an empty file");

  ParcelWrapper f(file("f"));
  EXPECT_EQ(f.resize(kPage), nullptr);
  EXPECT_EQ(f.lastError(), file("f") + ": resize of a detached mapping");
}

TEST_F(ParcelWrapperTest, UnlinkLeavesMappingsReadable) {
  ParcelWrapper p(file("t"));
  void* base = p.attach(kPage, Mode::ReadWrite);
  ASSERT_NE(base, nullptr);
  fill(base, kPage);
  EXPECT_TRUE(p.unlink()) << p.lastError();
  EXPECT_FALSE(std::filesystem::exists(file("t")));
  EXPECT_EQ(firstMismatch(p.base(), kPage), kPage / 8);
  EXPECT_TRUE(p.unlink()) << "removing an absent file is no error";
}

TEST_F(ParcelWrapperTest, LocalResizeKeepsContent) {
  ParcelWrapper p;
  EXPECT_TRUE(p.local());
  void* base = p.attach(kPage, Mode::ReadWrite);
  ASSERT_NE(base, nullptr) << p.lastError();
  fill(base, kPage);
  void* grown = p.resize(kBig);
  ASSERT_NE(grown, nullptr) << p.lastError();
  EXPECT_EQ(p.fileSize(), kBig);
  EXPECT_EQ(p.memSize(), kBig);
  EXPECT_EQ(firstMismatch(grown, kPage), kPage / 8);
  EXPECT_EQ(static_cast<uint64_t const*>(grown)[kBig / 8 - 1], 0u) << "growth is zero-filled";
  fill(grown, kBig);
  void* shrunk = p.resize(kSmall);
  ASSERT_NE(shrunk, nullptr) << p.lastError();
  EXPECT_EQ(p.fileSize(), kSmall);
  EXPECT_EQ(firstMismatch(shrunk, kSmall), kSmall / 8);
  EXPECT_EQ(p.resize(0), nullptr);
  EXPECT_EQ(p.lastError(), "local: resize to 0 bytes");
  EXPECT_EQ(p.fileSize(), kSmall);
  EXPECT_TRUE(p.unlink());
  p.detach();
  EXPECT_FALSE(p.attached());
  EXPECT_TRUE(std::filesystem::is_empty(dir_)) << "a local block touched the directory";
}

}  // namespace
