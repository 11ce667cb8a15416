// The kestor record: encode, check, atomic replace.
#include "Parcel/KestorFile.h"

#include <sys/stat.h>

#include <chrono>
#include <cstddef>
#include <cstring>

#include "Lomi/Exception.h"
#include "Lomi/HashMix.h"
#include "Lomi/Trace.h"
#include "Mem/Error.h"
#include "Parcel/ParcelFile.h"

namespace Parcel {

namespace {

struct KestorRecord {
  uint32_t magic;
  uint32_t version;
  uint32_t kestor;
  uint32_t check;
};
static_assert(sizeof(KestorRecord) == 16);
static_assert(offsetof(KestorRecord, kestor) == 8);
static_assert(offsetof(KestorRecord, check) == 12, "the check covers exactly the bytes before it");

constexpr uint32_t kMagic = 0x5254534bu;  // "KSTR" little-endian
constexpr uint32_t kVersion = 1;

uint32_t checkOf(KestorRecord const& r) {
  Lomi::Impl::HashMix<unsigned int> h(0x811c9dc5u);
  h.mix(&r, offsetof(KestorRecord, check));
  return h.value();
}

double wallNow() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

KestorFile::KestorFile(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath,
                       bool localMem)
    : handler_(handler), table_(rootPath.str()), localMem_(localMem || rootPath.isLocal()) {
  if (!localMem_) path_ = rootPath.filePath(KESTOR_NAME);
}

std::string KestorFile::describe() const {
  return localMem_ ? fmt::format("kestor record of {}", table_)
                   : fmt::format("kestor file {}", path_);
}

KestorId KestorFile::decode(std::string const& bytes, std::string& error) const {
  // A local record carries its write time (8 bytes) behind the 16 of the file.
  size_t const want = sizeof(KestorRecord) + (localMem_ ? sizeof(double) : 0);
  if (bytes.size() != want) {
    error = fmt::format("{} is {} bytes, wanted {}", describe(), bytes.size(), want);
    return KestorId();
  }
  KestorRecord r;
  std::memcpy(&r, bytes.data(), sizeof r);
  if (r.magic != kMagic) {
    error = fmt::format("{} has bad magic {:#x}", describe(), r.magic);
  } else if (r.version != kVersion) {
    error = fmt::format("{} has version {}, wanted {}", describe(), r.version, kVersion);
  } else if (uint32_t c = checkOf(r); c != r.check) {
    error = fmt::format("{} checksum fail: {:#x} != {:#x}", describe(), c, r.check);
  } else {
    return KestorId(r.kestor);
  }
  return KestorId();
}

KestorId KestorFile::read() const {
  std::string error;
  std::optional<std::string> bytes = localMem_
                                         ? Impl::localRecord(table_, KESTOR_NAME)
                                         : Impl::readSmallFile(path_, sizeof(KestorRecord), error);
  if (!bytes) {
    FMTRACE(handler_, 3, "KestorFile", "{} unreadable: {}", describe(),
            error.empty() ? "missing" : error);
    return KestorId();
  }
  KestorId id = decode(*bytes, error);
  if (!error.empty()) FMTRACE(handler_, 3, "KestorFile", "{}", error);
  return id;
}

void KestorFile::write(KestorId id) {
  KestorRecord r{kMagic, kVersion, id.value(), 0};
  r.check = checkOf(r);
  std::string bytes(reinterpret_cast<char const*>(&r), sizeof r);
  if (localMem_) {
    double now = wallNow();
    bytes.append(reinterpret_cast<char const*>(&now), sizeof now);
    Impl::localRecordIs(table_, KESTOR_NAME, std::move(bytes));
  } else {
    Impl::replaceFile(path_, bytes);
  }
  FMTRACE(handler_, 3, "KestorFile", "wrote {} kestor:{}", describe(), id);
}

bool KestorFile::validate(KestorId wanted, std::string& error) const {
  std::string readError;
  std::optional<std::string> bytes =
      localMem_ ? Impl::localRecord(table_, KESTOR_NAME)
                : Impl::readSmallFile(path_, sizeof(KestorRecord), readError);
  if (!bytes) {
    error = readError.empty() ? fmt::format("{} is missing, wanted kestor {}", describe(), wanted)
                              : fmt::format("{} is unreadable: {}", describe(), readError);
    return false;
  }
  std::string decodeError;
  KestorId id = decode(*bytes, decodeError);
  if (!decodeError.empty()) {
    error = fmt::format("{}; wanted kestor {}", decodeError, wanted);
    return false;
  }
  if (id != wanted) {
    error = fmt::format("{} holds kestor {}, wanted {}", describe(), id, wanted);
    return false;
  }
  return true;
}

void KestorFile::validate(KestorId wanted) const {
  std::string error;
  if (!validate(wanted, error)) throw Lomi::InvalidInitializeException(error);
}

double KestorFile::mtime() const {
  if (localMem_) {
    std::optional<std::string> bytes = Impl::localRecord(table_, KESTOR_NAME);
    if (!bytes || bytes->size() != sizeof(KestorRecord) + sizeof(double)) return 0;
    double t;
    std::memcpy(&t, bytes->data() + sizeof(KestorRecord), sizeof t);
    return t;
  }
  struct stat st;
  if (::stat(path_.c_str(), &st) != 0) return 0;
  return double(st.st_mtim.tv_sec) + double(st.st_mtim.tv_nsec) * 1e-9;
}

void KestorFile::remove() {
  if (localMem_) {
    Impl::localRecordDel(table_, KESTOR_NAME);
  } else {
    Impl::removeFile(path_);
  }
  FMTRACE(handler_, 3, "KestorFile", "removed {}", describe());
}

}  // namespace Parcel
