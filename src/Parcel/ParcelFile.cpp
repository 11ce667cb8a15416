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
#include "Mem/Fd.h"
#include "Mem/SharedGround.h"

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

}  // namespace

std::optional<std::string> readSmallFile(std::string const& path, size_t maxSize,
                                         std::string& error) {
  std::string openError;
  Mem::Fd fd(Mem::openSharedFile(path, O_RDONLY, 0, openError));
  if (fd.get() < 0) {
    if (errno != ENOENT) error = openError;
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
  std::string error;
  if (!Mem::replaceSharedFile(path, bytes, 0644, error)) {
    throw Lomi::InvalidInitializeException("cannot write {}: {}", path, error);
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
