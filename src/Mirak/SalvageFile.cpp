// The salvage side file on disk: read, write, raise the target, remove.
#include "Mirak/SalvageFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

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

bool writeSalvageFile(std::string const& dir, std::string_view bytes, std::string& error) {
  // Only the writer reads it.
  return Mem::replaceSharedFile(sidePath(dir), bytes, 0600, error);
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
