// Mem::Fd: a file descriptor closed when it goes out of scope, unless
// released. The one owner of a raw descriptor in the platform code.
#pragma once

#include <unistd.h>

namespace Mem {

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd const&) = delete;
  Fd& operator=(Fd const&) = delete;
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  int release() {
    int const fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

}  // namespace Mem
