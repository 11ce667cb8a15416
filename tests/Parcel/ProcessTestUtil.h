// Test helpers for the directory-ownership tests: a private base directory,
// whole-file reads and writes, pipes with deadlines, and forked children that are always reaped.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>

#include "Mem/RootPath.h"
#include "Mirak/TempRoot.h"

namespace ParcelTest {

// Every wait in these tests ends by this deadline: a hang becomes a failure.
inline constexpr int kDeadlineMs = 20000;

using TempRoot = MirakTest::TempRoot;

inline std::string readAll(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void writeAll(std::string const& path, std::string const& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

class Pipe {
 public:
  Pipe() {
    if (::pipe2(fds_, O_CLOEXEC) != 0) fds_[0] = fds_[1] = -1;
  }
  ~Pipe() {
    closeRead();
    closeWrite();
  }
  Pipe(Pipe const&) = delete;
  Pipe& operator=(Pipe const&) = delete;

  bool ok() const { return fds_[0] >= 0; }
  void closeRead() {
    if (fds_[0] >= 0) ::close(fds_[0]);
    fds_[0] = -1;
  }
  void closeWrite() {
    if (fds_[1] >= 0) ::close(fds_[1]);
    fds_[1] = -1;
  }
  int readFd() const { return fds_[0]; }

  // Writes `line` and a newline.
  bool send(std::string const& line) const {
    std::string s = line + "\n";
    return ::write(fds_[1], s.data(), s.size()) == static_cast<ssize_t>(s.size());
  }

  // One line, without its newline; nullopt at end of file or at the deadline.
  std::optional<std::string> receive(int timeoutMs = kDeadlineMs) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
      size_t nl = buffer_.find('\n');
      if (nl != std::string::npos) {
        std::string line = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        return line;
      }
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return std::nullopt;
      pollfd p{fds_[0], POLLIN, 0};
      int rc = ::poll(&p, 1, static_cast<int>(left.count()));
      if (rc < 0 && errno == EINTR) continue;
      if (rc <= 0) return std::nullopt;
      char chunk[256];
      ssize_t n = ::read(fds_[0], chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return std::nullopt;
      buffer_.append(chunk, static_cast<size_t>(n));
    }
  }

  // Whether a line or end of file is waiting, without blocking.
  bool readable() const {
    pollfd p{fds_[0], POLLIN, 0};
    return ::poll(&p, 1, 0) > 0;
  }

 private:
  int fds_[2];
  std::string buffer_;
};

// A forked child running `body`; its return value is the exit status. The
// destructor kills and reaps a child that is still there.
class Child {
 public:
  explicit Child(std::function<int()> body) {
    pid_ = ::fork();
    if (pid_ == 0) {
      int rc = 1;
      try {
        rc = body();
      } catch (...) {
        rc = 99;
      }
      ::_exit(rc);
    }
  }
  ~Child() {
    if (pid_ > 0 && !reaped_) {
      ::kill(pid_, SIGKILL);
      int st;
      ::waitpid(pid_, &st, 0);
    }
  }
  Child(Child const&) = delete;
  Child& operator=(Child const&) = delete;

  pid_t pid() const { return pid_; }

  // Waits for the exit within the deadline; the raw wait status, or nullopt
  // if the child did not end in time.
  std::optional<int> wait(int timeoutMs = kDeadlineMs) {
    int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    if (pidfd >= 0) {
      pollfd p{pidfd, POLLIN, 0};
      int rc;
      do {
        rc = ::poll(&p, 1, timeoutMs);
      } while (rc < 0 && errno == EINTR);
      ::close(pidfd);
      if (rc <= 0) return std::nullopt;
    }
    int st = 0;
    if (::waitpid(pid_, &st, 0) != pid_) return std::nullopt;
    reaped_ = true;
    return st;
  }

  // SIGKILL, then reap.
  bool killAndReap() {
    ::kill(pid_, SIGKILL);
    std::optional<int> st = wait();
    return st && WIFSIGNALED(*st);
  }

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
};

}  // namespace ParcelTest
