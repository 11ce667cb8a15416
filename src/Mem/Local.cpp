#include "Mem/Local.h"

#include <sys/mman.h>

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

void Local::detach() {
  if (base_) ::munmap(base_, size_);
  base_ = nullptr;
  size_ = 0;
}

}  // namespace Mem
