// Helpers of the bucket file tests: a per-test directory, forked children with
// a deadline, and the writer hash map's grow and shrink store orders for an
// empty table (the only table this layer can build without slots).
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

#include "Mem/Atomics.h"
#include "MirakCore/BitReverse.h"
#include "MirakCore/BucketWriter.h"
#include "MirakCore/SlotLink.h"

namespace BucketTest {

using Writer = MirakCore::BucketWriter<MirakCore::SlotLink>;
using Link = MirakCore::SlotLink;

// A fresh directory on tmpfs (which can punch holes), removed at the end.
class TempDir {
 public:
  TempDir() {
    char const* base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
    std::string pattern = std::string(base) + "/buckets-test-XXXXXX";
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  std::string const& path() const { return path_; }
  std::string file(std::string const& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Runs `body` in a forked child that dies by SIGALRM if it hangs past the
// deadline; returns the waitpid status. The child's exit code is `body`'s
// result, 100 if it threw.
inline int runInChild(std::function<int()> body, unsigned deadlineSeconds = 60) {
  std::fflush(nullptr);
  pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(deadlineSeconds);
    int rc = 100;
    try {
      rc = body();
    } catch (std::exception const& e) {
      std::fprintf(stderr, "child threw: %s\n", e.what());
    }
    std::fflush(nullptr);
    ::_exit(rc);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status;
}

inline std::string describeStatus(int status) {
  if (WIFEXITED(status)) return "exit " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
  return "status " + std::to_string(status);
}

// The head of bucket i in a table of n empty buckets.
inline uint32_t formattedNext(uint32_t i, uint32_t n) {
  if (i == n - 1) return 0xffffffffu;
  return Link::endOfChainTo(MirakCore::bitReversePermute(i, MirakCore::log2OfPowerOfTwo(n)));
}

inline void storeLink(Link& at, uint32_t next) {
  Link const old = Mem::loadAcquire(at);
  Mem::storeRelease(at, Link{old.version + Link::kVersionStep, next});
}

// Doubling an empty table in the hash map's order: resize, point each new
// bucket at its low twin's end-of-chain link, publish, then cut the low chains.
inline void growEmpty(Writer& w) {
  uint32_t const n = w.numBuckets();
  w.resize(2 * n);
  for (uint32_t b = 0; b < n; ++b) storeLink(w[b + n], Mem::loadAcquire(w[b]).next);
  auto const pair = Mem::loadAcquire(w.header()->numBuckets);
  Mem::storeRelease(w.header()->numBuckets,
                    Mem::VersionedRef<unsigned int>{pair.version + 1, 2 * n});
  for (uint32_t b = 0; b < n; ++b) storeLink(w[b], Link::endOfChainTo(b + n));
}

// Halving an empty table in the hash map's order: join each high chain behind
// its low twin, publish, then cut the mapping.
inline void shrinkEmpty(Writer& w) {
  uint32_t const half = w.numBuckets() / 2;
  for (uint32_t b = 0; b < half; ++b) storeLink(w[b], Mem::loadAcquire(w[b + half]).next);
  auto const pair = Mem::loadAcquire(w.header()->numBuckets);
  Mem::storeRelease(w.header()->numBuckets,
                    Mem::VersionedRef<unsigned int>{pair.version + 1, half});
  w.resize(half);
}

}  // namespace BucketTest
