#include "Mem/ParcelWrapper.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include "Mem/BusGuard.h"
#include "Mem/Error.h"
#include "Mem/SharedGround.h"

namespace Mem {

ParcelWrapper::ParcelWrapper(std::string path) : path_(std::move(path)) {}

ParcelWrapper::~ParcelWrapper() {
  detach();
}

void* ParcelWrapper::attach(uint64_t size, Mode mode, void* address) {
  detach();
  mode_ = mode;
  if (local()) {
    base_ = local_.attach(size);
    if (!base_) lastError_ = local_.lastError();
    mapped_ = base_ ? size : 0;
    return base_;
  }
  bool const rw = mode == Mode::ReadWrite;
  int fd = openSharedFile(path_, rw ? (O_RDWR | O_CREAT) : O_RDONLY, 0644, lastError_);
  if (fd < 0) return nullptr;
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    lastError_ = posixError(fmt::format("fstat {}", path_), errno);
    ::close(fd);
    return nullptr;
  }
  uint64_t length = static_cast<uint64_t>(st.st_size);
  if (!rw && size == 0) size = length;
  if (size == 0) {
    lastError_ = fmt::format("{}: cannot map an empty file", path_);
    ::close(fd);
    return nullptr;
  }
  if (length < size) {
    if (!rw) {
      lastError_ = fmt::format("{}: file has {} bytes, {} wanted", path_, length, size);
      ::close(fd);
      return nullptr;
    }
    if (::ftruncate(fd, static_cast<off_t>(size)) != 0) {
      lastError_ = posixError(fmt::format("ftruncate {} to {}", path_, size), errno);
      ::close(fd);
      return nullptr;
    }
  }
  void* p = ::mmap(address, size, rw ? (PROT_READ | PROT_WRITE) : PROT_READ, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    lastError_ = posixError(fmt::format("mmap {} bytes of {}", size, path_), errno);
    ::close(fd);
    return nullptr;
  }
  fd_ = fd;
  base_ = p;
  mapped_ = size;
  if (!rw) BusGuard::add(base_, mapped_);
  return base_;
}

void* ParcelWrapper::resize(uint64_t size, uint64_t keep) {
  if (!base_) {
    lastError_ = fmt::format("{}: resize of a detached mapping", path_.empty() ? "local" : path_);
    return nullptr;
  }
  if (size == 0) {
    lastError_ = fmt::format("{}: resize to 0 bytes", path_.empty() ? "local" : path_);
    return nullptr;
  }
  if (local()) {
    void* p = local_.resize(size);
    if (!p) {
      lastError_ = local_.lastError();
      return nullptr;
    }
    base_ = p;
    mapped_ = size;
    return base_;
  }
  if (size == mapped_) return base_;
  bool const rw = mode_ == Mode::ReadWrite;
  struct stat st;
  if (::fstat(fd_, &st) != 0) {
    lastError_ = posixError(fmt::format("fstat {}", path_), errno);
    return nullptr;
  }
  uint64_t const length = static_cast<uint64_t>(st.st_size);
  if (size > length) {
    if (!rw) {
      lastError_ = fmt::format("{}: file has {} bytes, {} wanted", path_, length, size);
      return nullptr;
    }
    // 1: lengthen the file before the mapping covers the new range.
    if (::ftruncate(fd_, static_cast<off_t>(size)) != 0) {
      lastError_ = posixError(fmt::format("ftruncate {} to {}", path_, size), errno);
      return nullptr;
    }
  }
  uint64_t const from = std::max(size, keep);
  if (rw && size < mapped_ && length > from) {
    // Give the tail's memory back without shortening the file (readers may
    // still map it). A file system that cannot punch holes keeps the memory;
    // that costs space, not correctness.
    if (::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(from),
                    static_cast<off_t>(length - from)) != 0 &&
        errno != EOPNOTSUPP) {
      lastError_ = posixError(fmt::format("punch hole in {} from {}", path_, from), errno);
      return nullptr;
    }
  }
  if (!rw) BusGuard::remove(base_);
  void* p = ::mremap(base_, mapped_, size, MREMAP_MAYMOVE);
  if (p == MAP_FAILED) {
    lastError_ =
        posixError(fmt::format("mremap {} from {} to {} bytes", path_, mapped_, size), errno);
    if (!rw) BusGuard::add(base_, mapped_);
    return nullptr;
  }
  base_ = p;
  mapped_ = size;
  if (!rw) BusGuard::add(base_, mapped_);
  return base_;
}

void ParcelWrapper::detach() {
  if (local()) {
    local_.detach();
  } else {
    if (base_) {
      if (mode_ == Mode::ReadOnly) BusGuard::remove(base_);
      ::munmap(base_, mapped_);
    }
    if (fd_ >= 0) ::close(fd_);
  }
  fd_ = -1;
  base_ = nullptr;
  mapped_ = 0;
}

bool ParcelWrapper::unlink() {
  if (local()) return true;
  if (::unlink(path_.c_str()) != 0 && errno != ENOENT) {
    lastError_ = posixError(fmt::format("unlink {}", path_), errno);
    return false;
  }
  return true;
}

uint64_t ParcelWrapper::memSize() const {
  if (local()) return local_.size();
  struct stat st;
  int rc = fd_ >= 0 ? ::fstat(fd_, &st) : ::stat(path_.c_str(), &st);
  return rc == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

uint64_t ParcelWrapper::allocatedBytes() const {
  if (local()) return local_.size();
  struct stat st;
  int rc = fd_ >= 0 ? ::fstat(fd_, &st) : ::stat(path_.c_str(), &st);
  return rc == 0 ? static_cast<uint64_t>(st.st_blocks) * 512u : 0;
}

}  // namespace Mem
