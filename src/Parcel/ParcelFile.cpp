// Whole-file records: read, atomic replace, remove; the local-table store.
#include "Parcel/ParcelFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Mem/Error.h"

namespace Parcel::Impl {

namespace {

struct LocalStore {
  std::mutex mutex;
  std::map<std::string, std::string, std::less<>> records;
};

LocalStore& localStore() {
  static LocalStore store;
  return store;
}

std::string localKey(std::string const& table, std::string_view record) {
  // NUL cannot occur in a table name (NaoRootPath refuses it), so the key is
  // unambiguous.
  std::string key = table;
  key += '\0';
  key += record;
  return key;
}

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd const&) = delete;
  Fd& operator=(Fd const&) = delete;
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

}  // namespace

std::optional<std::string> readSmallFile(std::string const& path, size_t maxSize,
                                         std::string& error) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    if (errno != ENOENT) error = Mem::posixError(fmt::format("open {}", path), errno);
    return std::nullopt;
  }
  std::string bytes(maxSize + 1, '\0');
  size_t got = 0;
  while (got < bytes.size()) {
    ssize_t n = ::read(fd.get(), bytes.data() + got, bytes.size() - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      error = Mem::posixError(fmt::format("read {}", path), errno);
      return std::nullopt;
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  bytes.resize(got);
  return bytes;
}

void replaceFile(std::string const& path, std::string_view bytes) {
  std::string tmp = fmt::format("{}.tmp-{}", path, ::getpid());
  Fd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (fd.get() < 0) {
    throw Lomi::InvalidInitializeException("cannot write {}: {}", path,
                                           Mem::posixError(fmt::format("open {}", tmp), errno));
  }
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd.get(), bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      int err = errno;
      ::unlink(tmp.c_str());
      throw Lomi::InvalidInitializeException("cannot write {}: {}", path,
                                             Mem::posixError(fmt::format("write {}", tmp), err));
    }
    done += static_cast<size_t>(n);
  }
  if (::close(fd.release()) != 0) {
    int err = errno;
    ::unlink(tmp.c_str());
    throw Lomi::InvalidInitializeException("cannot write {}: {}", path,
                                           Mem::posixError(fmt::format("close {}", tmp), err));
  }
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    int err = errno;
    ::unlink(tmp.c_str());
    throw Lomi::InvalidInitializeException(
        "cannot write {}: {}", path, Mem::posixError(fmt::format("rename {} to it", tmp), err));
  }
}

void removeFile(std::string const& path) {
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return;
  throw Lomi::RuntimeException("cannot remove {}: {}", path,
                               Mem::posixError(fmt::format("unlink {}", path), errno));
}

std::optional<std::string> localRecord(std::string const& table, std::string_view record) {
  LocalStore& s = localStore();
  std::lock_guard lock(s.mutex);
  auto it = s.records.find(localKey(table, record));
  if (it == s.records.end()) return std::nullopt;
  return it->second;
}

void localRecordIs(std::string const& table, std::string_view record, std::string bytes) {
  LocalStore& s = localStore();
  std::lock_guard lock(s.mutex);
  s.records[localKey(table, record)] = std::move(bytes);
}

void localRecordDel(std::string const& table, std::string_view record) {
  LocalStore& s = localStore();
  std::lock_guard lock(s.mutex);
  s.records.erase(localKey(table, record));
}

}  // namespace Parcel::Impl
