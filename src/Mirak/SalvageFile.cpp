// The salvage side file on disk: read, write, raise the target, remove.
#include "Mirak/SalvageFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <utility>

#include "Mem/Error.h"
#include "Mem/Fd.h"
#include "Mem/SharedGround.h"

namespace Mirak {

uint32_t salvageChecksum(void const* data, size_t length, uint32_t seed) {
  constexpr uint64_t kMul = 0x9e3779b97f4a7c15ull;
  auto const* p = static_cast<unsigned char const*>(data);
  uint64_t h = (uint64_t(seed) << 32 | seed) ^ (length * kMul);
  auto step = [&h](uint64_t w) {
    h ^= w;
    h *= kMul;
    h ^= h >> 29;
  };
  size_t i = 0;
  for (; i + 8 <= length; i += 8) {
    uint64_t w;
    std::memcpy(&w, p + i, 8);
    step(w);
  }
  if (i < length) {
    uint64_t w = 0;
    std::memcpy(&w, p + i, length - i);
    step(w);
  }
  h ^= h >> 32;
  return static_cast<uint32_t>(h);
}

namespace {

std::string sidePath(std::string const& dir) { return dir + "/" + SALVAGE_FILENAME; }

}  // namespace

SalvageFileState readSalvageFile(std::string const& dir, std::vector<uint64_t>& bytes,
                                 uint64_t& length, std::string& error) {
  std::string const path = sidePath(dir);
  Mem::Fd fd(Mem::openSharedFile(path, O_RDONLY, 0, error));
  if (fd.get() < 0) return errno == ENOENT ? SalvageFileState::absent : SalvageFileState::refused;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) {
    error = Mem::posixError("fstat " + path, errno);
    return SalvageFileState::refused;
  }
  // Ours, and bounded, before a byte of it is read.
  if (st.st_uid != ::geteuid()) {
    error = fmt::format("{} is owned by uid {}, not by this process's user", path, st.st_uid);
    return SalvageFileState::refused;
  }
  // Its rows go into the table as they are: a file that another user could
  // have written is not taken (the writer makes it 0600).
  if (st.st_mode & (S_IWGRP | S_IWOTH)) {
    error = fmt::format("{} is writable by others (mode {:o}); chmod go-w", path, st.st_mode & 07777);
    return SalvageFileState::refused;
  }
  length = static_cast<uint64_t>(st.st_size);
  if (length > kMaxSalvageFileSize) {
    error = fmt::format("{} has {} bytes, more than any salvage", path, length);
    return SalvageFileState::refused;
  }
  try {
    bytes.assign((length + 7) / 8, 0);
  } catch (std::bad_alloc const&) {
    error = fmt::format("no memory to read the {} bytes of {}", length, path);
    return SalvageFileState::refused;
  }
  auto* to = reinterpret_cast<char*>(bytes.data());
  uint64_t got = 0;
  while (got < length) {
    ssize_t const n = ::read(fd.get(), to + got, length - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = Mem::posixError("read " + path, errno);
      return SalvageFileState::refused;
    }
    if (n == 0) break;
    got += static_cast<uint64_t>(n);
  }
  if (got != length) {
    error = fmt::format("{}: read {} of {} bytes", path, got, length);
    return SalvageFileState::refused;
  }
  return SalvageFileState::read;
}

SalvageTemp& SalvageTemp::operator=(SalvageTemp&& o) noexcept {
  if (this != &o) {
    reset();
    std::swap(dir_, o.dir_);
    std::swap(fd_, o.fd_);
    std::swap(data_, o.data_);
    std::swap(size_, o.size_);
    std::swap(name_, o.name_);
  }
  return *this;
}

void SalvageTemp::reset() {
  if (data_) ::munmap(data_, size_);
  if (fd_ >= 0) ::close(fd_);
  if (dir_ >= 0) {
    if (!name_.empty()) ::unlinkat(dir_, name_.c_str(), 0);
    ::close(dir_);
  }
  dir_ = -1;
  fd_ = -1;
  data_ = nullptr;
  size_ = 0;
  name_.clear();
}

bool SalvageTemp::create(std::string const& dir, uint64_t bytes, std::string& error) {
  reset();
  Mem::Fd d(Mem::openSharedDirectory(dir, 0, error));
  if (d.get() < 0) return false;
  // An unpredictable name made with O_EXCL, as Mem::replaceSharedFile makes
  // them (removeSalvageFiles finds it by its prefix): nothing planted is
  // ever opened. Only the writer reads it: 0600.
  static thread_local std::mt19937_64 rng{std::random_device{}()};
  std::string name;
  int fd = -1;
  for (int attempt = 0; attempt < 16 && fd < 0; attempt++) {
    name = fmt::format(".{}.tmp-{:016x}", SALVAGE_FILENAME, rng());
    fd = ::openat(d.get(), name.c_str(),
                  O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
    if (fd < 0 && errno != EEXIST) break;
  }
  if (fd < 0) {
    error = Mem::posixError("create the salvage temporary in " + dir, errno);
    return false;
  }
  Mem::Fd file(fd);
  auto fail = [&](char const* what) {
    error = Mem::posixError(fmt::format("{} the salvage temporary in {}", what, dir), errno);
    ::unlinkat(d.get(), name.c_str(), 0);
    return false;
  };
  // The room is taken now, whole: a store into a shared mapping of a file
  // system that has run out of room ends the writer with SIGBUS, where
  // fallocate answers ENOSPC and the salvage goes to private memory.
  if (::ftruncate(file.get(), static_cast<off_t>(bytes)) != 0) return fail("size");
  if (::fallocate(file.get(), 0, 0, static_cast<off_t>(bytes)) != 0) return fail("reserve room for");
  void* const p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (p == MAP_FAILED) return fail("map");
  dir_ = d.release();
  fd_ = file.release();
  data_ = static_cast<char*>(p);
  size_ = bytes;
  name_ = std::move(name);
  return true;
}

void SalvageTemp::populate(uint64_t from, uint64_t to) const {
#ifndef MADV_POPULATE_WRITE
  constexpr int MADV_POPULATE_WRITE = 23;  // Linux 5.14
#endif
  uint64_t constexpr kPage = 4096;
  from &= ~(kPage - 1);
  if (!data_ || from >= to) return;
  (void)::madvise(data_ + from, to - from, MADV_POPULATE_WRITE);
}

bool SalvageTemp::publish(uint64_t length, std::string& error) {
  auto fail = [&](char const* what) {
    error = Mem::posixError(fmt::format("{} the salvage temporary {}", what, name_), errno);
    ::unlinkat(dir_, name_.c_str(), 0);
    name_.clear();
    return false;
  };
  // The pages past `length` go with the cut: the mapping shrinks first, so
  // nothing can touch them after.
  uint64_t const kept = (length + 4095) & ~uint64_t(4095);
  if (kept < size_) {
    ::munmap(data_ + kept, size_ - kept);
    size_ = kept;
  }
  if (::ftruncate(fd_, static_cast<off_t>(length)) != 0) return fail("cut");
  if (::renameat(dir_, name_.c_str(), dir_, SALVAGE_FILENAME) != 0) return fail("rename");
  name_.clear();
  return true;
}

bool salvageTargetIs(std::string const& dir, Parcel::KestorId target, std::string& error) {
  std::string const path = sidePath(dir);
  Mem::Fd fd(Mem::openSharedFile(path, O_WRONLY, 0, error));
  if (fd.get() < 0) return false;
  uint32_t const value = target.value();
  // One aligned 4-byte write: a kill leaves the old target or the new one.
  if (::pwrite(fd.get(), &value, sizeof value, offsetof(SalvageHeader, targetKestor)) !=
      static_cast<ssize_t>(sizeof value)) {
    error = Mem::posixError("write the target of " + path, errno);
    return false;
  }
  return true;
}

bool removeSalvageFiles(std::string const& dir, std::string& error) {
  Mem::Fd d(Mem::openSharedDirectory(dir, 0, error));
  if (d.get() < 0) return errno == ENOENT;
  bool ok = true;
  auto drop = [&](char const* name) {
    // unlinkat removes a planted link itself, never what it names.
    if (::unlinkat(d.get(), name, 0) != 0 && errno != ENOENT) {
      error = Mem::posixError(fmt::format("remove {}/{}", dir, name), errno);
      ok = false;
    }
  };
  drop(SALVAGE_FILENAME);
  // Temporaries of a start killed while it wrote the side file:
  // ".salvage.tmp-<random>" (Mem::replaceSharedFile).
  int const listFd = ::dup(d.get());
  if (listFd < 0) return ok;
  DIR* list = ::fdopendir(listFd);
  if (!list) {
    ::close(listFd);
    return ok;
  }
  std::string const prefix = fmt::format(".{}.tmp-", SALVAGE_FILENAME);
  std::vector<std::string> temporaries;
  while (dirent* e = ::readdir(list)) {
    if (std::string_view(e->d_name).substr(0, prefix.size()) == prefix) {
      temporaries.emplace_back(e->d_name);
    }
  }
  ::closedir(list);
  for (std::string const& name : temporaries) drop(name.c_str());
  return ok;
}

}  // namespace Mirak
