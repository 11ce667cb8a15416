#include "Mem/Local.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include <fmt/format.h>

#include "Mem/Error.h"

namespace Mem {

void* Local::attach(uint64_t size) {
  detach();
  if (size == 0 || size > maxMappingSize()) {
    lastError_ = fmt::format("bad private mapping size {}", size);
    return nullptr;
  }
  void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) {
    lastError_ = posixError(fmt::format("mmap of {} private bytes", size), errno);
    return nullptr;
  }
  base_ = p;
  size_ = size;
  return base_;
}

void* Local::resize(uint64_t size) {
  if (!base_) return attach(size);
  if (size == 0 || size > maxMappingSize()) {
    lastError_ = fmt::format("bad private mapping size {}", size);
    return nullptr;
  }
  if (size == size_) return base_;
  void* p = ::mremap(base_, size_, size, MREMAP_MAYMOVE);
  if (p == MAP_FAILED) {
    lastError_ =
        posixError(fmt::format("mremap of private memory from {} to {} bytes", size_, size), errno);
    return nullptr;
  }
  base_ = p;
  size_ = size;
  return base_;
}

bool Local::prefault(uint64_t from, uint64_t to) {
#ifndef MADV_POPULATE_WRITE
  constexpr int MADV_POPULATE_WRITE = 23;  // Linux 5.14
#endif
  if (!base_ || from >= to || to > size_) return false;
  uint64_t const page = uint64_t(::sysconf(_SC_PAGESIZE));
  uint64_t const start = from / page * page;
  return ::madvise(static_cast<char*>(base_) + start, to - start, MADV_POPULATE_WRITE) == 0;
}

bool Local::adviseHugePages() {
  if (!base_) return false;
  return ::madvise(base_, size_, MADV_HUGEPAGE) == 0;
}

void Local::detach() {
  if (base_) ::munmap(base_, size_);
  base_ = nullptr;
  size_ = 0;
}

}  // namespace Mem
