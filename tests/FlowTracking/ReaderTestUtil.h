// Helpers of the reader tests: writers and readers of real table files,
// pipes with deadlines, forked children that are always reaped.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "FlowTracking/TableReaders.h"
#include "FlowTracking/TableRows.h"
#include "FlowTracking/TableWriters.h"
#include "Lomi/Trace.h"
#include "Mirak/MapDescriptor.h"
#include "Parcel/KestorFile.h"

namespace FlowTrackingTest {

// Every wait of these tests ends by this deadline: a hang becomes a failure.
inline constexpr int kDeadlineMs = 60000;

inline Lomi::Platform::DebugHandler& readerTestHandler() {
  return Lomi::Platform::getDebugHandler("ReaderTest");
}

template <typename Record>
using WriterOf = Mirak::MirakWriter<typename OpsOf<Record>::type>;
template <typename Record>
using ReaderOf = Mirak::MirakReader<typename OpsOf<Record>::type>;

inline Mirak::MapDescriptor sharedDescriptor(uint32_t size, bool shrinkBuckets = false) {
  Mirak::MapDescriptor d(size);
  d.local = false;
  d.shrinkBuckets_ = shrinkBuckets;
  return d;
}

// A writer on the shared files of `name`, initialised: its start ends by
// writing the kestor file, which tells readers that the files are complete.
template <typename Record>
std::unique_ptr<WriterOf<Record>> makeSharedWriter(std::string const& name,
                                                   Mirak::MapDescriptor const& d) {
  using Ops = typename OpsOf<Record>::type;
  auto w = std::make_unique<WriterOf<Record>>(readerTestHandler(), name.c_str(), d, Ops(0));
  w->initialize("test");
  return w;
}

template <typename Record>
std::unique_ptr<ReaderOf<Record>> makeReader(std::string const& name,
                                             Mirak::Reader::Counters* counters = nullptr) {
  using Ops = typename OpsOf<Record>::type;
  return std::make_unique<ReaderOf<Record>>(readerTestHandler(), name, Ops(0), counters);
}

// A pipe that carries fixed-size records between processes.
class RecordPipe {
 public:
  RecordPipe() {
    if (::pipe(fds_) != 0) fds_[0] = fds_[1] = -1;
  }
  ~RecordPipe() {
    closeRead();
    closeWrite();
  }
  RecordPipe(RecordPipe const&) = delete;
  RecordPipe& operator=(RecordPipe const&) = delete;

  void closeRead() {
    if (fds_[0] >= 0) ::close(fds_[0]);
    fds_[0] = -1;
  }
  void closeWrite() {
    if (fds_[1] >= 0) ::close(fds_[1]);
    fds_[1] = -1;
  }
  int readFd() const { return fds_[0]; }

  template <typename T>
  bool send(T const& record) const {
    return ::write(fds_[1], &record, sizeof(T)) == static_cast<ssize_t>(sizeof(T));
  }
  // False at end of file or at the deadline.
  template <typename T>
  bool receive(T& record, int timeoutMs = kDeadlineMs) const {
    size_t got = 0;
    auto* p = reinterpret_cast<char*>(&record);
    while (got < sizeof(T)) {
      pollfd pfd{fds_[0], POLLIN, 0};
      if (::poll(&pfd, 1, timeoutMs) <= 0) return false;
      ssize_t n = ::read(fds_[0], p + got, sizeof(T) - got);
      if (n <= 0) return false;
      got += static_cast<size_t>(n);
    }
    return true;
  }
  // Whether something (or the end of file) is waiting to be read, without
  // blocking.
  bool readable() const {
    pollfd pfd{fds_[0], POLLIN, 0};
    return ::poll(&pfd, 1, 0) > 0;
  }

 private:
  int fds_[2];
};

// Runs `body` in a child process, which exits with body's result (0 = good).
// An exception escaping `body` is exit code 99.
inline pid_t forkChild(std::function<int()> body) {
  pid_t pid = ::fork();
  if (pid == 0) {
    int rc = 99;
    try {
      rc = body();
    } catch (std::exception const& e) {
      std::fprintf(stderr, "child %d: exception: %s\n", ::getpid(), e.what());
    }
    std::fflush(stderr);
    ::_exit(rc);
  }
  return pid;
}

// Waits for `pid` until the deadline, then kills it. Returns the wait status,
// or -1 if the child had to be killed.
inline int reap(pid_t pid, int timeoutMs = kDeadlineMs) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  int status = 0;
  for (;;) {
    pid_t r = ::waitpid(pid, &status, WNOHANG);
    if (r == pid) return status;
    if (r < 0) return -1;
    if (std::chrono::steady_clock::now() > end) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return -1;
    }
    // A child that has not exited yet: block on it briefly through poll's
    // timeout rather than spin.
    ::poll(nullptr, 0, 5);
  }
}

inline bool exitedWith(int status, int code) {
  return status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == code;
}

}  // namespace FlowTrackingTest
