// Helpers of the queue tests: a temp directory per test and raw access to the
// queue's files (for layout checks and for damaging them on purpose).
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "Lomi/Trace.h"
#include "Mirak/TempRoot.h"

namespace TesselTest {

// A temp directory per test, with the names of the queue's files in it.
struct TempDir : MirakTest::TempRoot {
  std::string file(std::string const& name) const { return path() + "/" + name; }
  size_t fileCount() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(path()),
                                             std::filesystem::directory_iterator()));
  }
};

// Reads or writes `sizeof(T)` bytes at `offset` of a file, through the file
// descriptor: a second way to the bytes than the mappings under test.
template <typename T>
T readAt(std::string const& path, uint64_t offset) {
  T v{};
  int fd = ::open(path.c_str(), O_RDONLY);
  EXPECT_GE(fd, 0) << path;
  EXPECT_EQ(::pread(fd, &v, sizeof v, static_cast<off_t>(offset)), static_cast<ssize_t>(sizeof v));
  ::close(fd);
  return v;
}

template <typename T>
void writeAt(std::string const& path, uint64_t offset, T v) {
  int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(::pwrite(fd, &v, sizeof v, static_cast<off_t>(offset)), static_cast<ssize_t>(sizeof v));
  ::close(fd);
}

inline Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("TesselTest");
}

// A fixed-seed generator (splitmix64), so that every run reproduces.
struct SplitMix {
  uint64_t state;
  uint64_t operator()() {
    uint64_t z = (state += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
  }
  uint32_t below(uint32_t n) { return static_cast<uint32_t>((*this)() % n); }
};

}  // namespace TesselTest

#include <functional>

#include "Tessel/TesselWriter.h"

namespace TesselTest {

// Installs a writer step hook for the life of the object: the writer pauses
// at each step and runs `fn`, whose true makes a growth step fail.
class StepHook {
 public:
  explicit StepHook(std::function<bool(Tessel::WriterStep)> fn) {
    fn_() = std::move(fn);
    Tessel::writerStepHook = [](Tessel::WriterStep s) { return fn_()(s); };
  }
  ~StepHook() {
    Tessel::writerStepHook = nullptr;
    fn_() = nullptr;
  }
  StepHook(StepHook const&) = delete;
  StepHook& operator=(StepHook const&) = delete;

 private:
  static std::function<bool(Tessel::WriterStep)>& fn_() {
    static std::function<bool(Tessel::WriterStep)> fn;
    return fn;
  }
};

}  // namespace TesselTest
