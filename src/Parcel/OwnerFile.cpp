// The owner record and the directory lock.
#include "Parcel/OwnerFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "Lomi/Exception.h"
#include "Lomi/HashMix.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Error.h"
#include "Mem/SharedGround.h"
#include "Parcel/ParcelFile.h"

namespace Parcel {

namespace {

struct OwnerRecord {
  uint32_t magic;
  uint32_t version;
  uint32_t parcelType;
  int32_t writerPid;
  uint64_t writerStartTime;
  uint32_t tableId;
  uint32_t reserved0;
  char typeName[256];
  char socketName[128];
  char reserved1[92];
  uint32_t check;
};
static_assert(sizeof(OwnerRecord) == 512);
static_assert(offsetof(OwnerRecord, writerStartTime) == 16);
static_assert(offsetof(OwnerRecord, tableId) == 24);
static_assert(offsetof(OwnerRecord, typeName) == 32);
static_assert(offsetof(OwnerRecord, socketName) == 288);
static_assert(offsetof(OwnerRecord, check) == 508, "the check covers exactly the bytes before it");
static_assert(OwnerFile::kTypeNameMax < sizeof(OwnerRecord::typeName));
static_assert(OwnerFile::kSocketNameMax < sizeof(OwnerRecord::socketName));

constexpr uint32_t kMagic = 0x524e574fu;  // "OWNR" little-endian
constexpr uint32_t kVersion = 1;

uint32_t checkOf(OwnerRecord const& r) {
  Lomi::Impl::HashMix<unsigned int> h(0x811c9dc5u);
  h.mix(&r, offsetof(OwnerRecord, check));
  return h.value();
}

// The text of a fixed field up to its NUL; nullopt if it has none.
template <size_t N>
std::optional<std::string> fieldText(char const (&field)[N]) {
  void const* nul = std::memchr(field, '\0', N);
  if (!nul) return std::nullopt;
  return std::string(field, static_cast<char const*>(nul));
}

// Decodes what it can into `out` (so a damaged record can still be shown) and
// returns the first problem, or an empty text if the record is consistent.
// `intact` says whether the record is whole and unaltered (size, magic,
// version, check and terminators hold) even if its fields do not yet agree,
// as after the first of a writer's setters: the next setter keeps its fields.
std::string decode(std::string const& bytes, OwnerFile::Record& out, bool& intact) {
  intact = false;
  if (bytes.size() != sizeof(OwnerRecord)) {
    return fmt::format("is {} bytes, wanted {}", bytes.size(), sizeof(OwnerRecord));
  }
  OwnerRecord r;
  std::memcpy(&r, bytes.data(), sizeof r);
  std::optional<std::string> type = fieldText(r.typeName);
  std::optional<std::string> socket = fieldText(r.socketName);
  out.typeName = type.value_or(std::string(r.typeName, sizeof r.typeName));
  out.parcelType = static_cast<ParcelType>(r.parcelType);
  out.writerPid = r.writerPid;
  out.writerStartTime = r.writerStartTime;
  out.tunnetInfo =
      TunnetInfo(socket.value_or(std::string(r.socketName, sizeof r.socketName)), r.tableId);
  if (r.magic != kMagic) return fmt::format("bad magic: {:#x}", r.magic);
  if (r.version != kVersion) return fmt::format("bad version: {} wanted:{}", r.version, kVersion);
  if (uint32_t c = checkOf(r); c != r.check) {
    return fmt::format("checksum fail: {:#x} != {:#x}", c, r.check);
  }
  if (!type) return "typeName is not terminated";
  if (!socket) return "socketName is not terminated";
  intact = true;
  if (out.parcelType != ParcelType::mirak) {
    return fmt::format("bad parcelType: {} wanted:{}", r.parcelType, ParcelType::mirak);
  }
  if (r.writerPid < 0) return fmt::format("bad writerPid: {}", r.writerPid);
  if (!socket->empty() && r.writerPid == 0) {
    return fmt::format("socket {} is named without a writer pid", *socket);
  }
  return {};
}

std::string encode(OwnerFile::Record const& rec) {
  OwnerRecord r;
  std::memset(&r, 0, sizeof r);
  r.magic = kMagic;
  r.version = kVersion;
  r.parcelType = static_cast<uint32_t>(rec.parcelType);
  r.writerPid = rec.writerPid;
  r.writerStartTime = rec.writerStartTime;
  r.tableId = rec.tunnetInfo.tableId();
  std::memcpy(r.typeName, rec.typeName.data(), rec.typeName.size());
  std::memcpy(r.socketName, rec.tunnetInfo.socketName().data(), rec.tunnetInfo.socketName().size());
  r.check = checkOf(r);
  return std::string(reinterpret_cast<char const*>(&r), sizeof r);
}

}  // namespace

OwnerFile::OwnerFile(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath,
                     bool localMem)
    : handler_(handler),
      table_(rootPath.str()),
      localMem_(localMem || rootPath.isLocal()),
      rootPath_(rootPath) {
  if (!localMem_) {
    dir_ = rootPath.path();
    path_ = rootPath.filePath(FILENAME);
  }
}

OwnerFile::~OwnerFile() {
  if (lockFd_ >= 0) {
    ::close(lockFd_);
    FMTRACE(handler_, 5, "OwnerFile", "unlocked {}", dir_);
  }
}

void OwnerFile::lock() {
  if (localMem_ || lockFd_ >= 0) return;
  for (;;) {
    rootPath_.createDirectories();
    std::string error;
    int fd = Mem::openSharedDirectory(dir_, 0, error);
    if (fd < 0)
      throw Lomi::InvalidInitializeException("cannot lock Mirak table {}: {}", dir_, error);
    int rc;
    do {
      rc = ::flock(fd, LOCK_EX);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
      int err = errno;
      ::close(fd);
      throw Lomi::InvalidInitializeException("cannot lock Mirak table {}: {}", dir_,
                                             Mem::posixError(fmt::format("flock {}", dir_), err));
    }
    // The lock holds only if the path still names the directory we locked:
    // a cleaner may have removed it (and someone re-made it) while we waited.
    struct stat locked, named;
    if (::fstat(fd, &locked) == 0 && ::stat(dir_.c_str(), &named) == 0 &&
        locked.st_dev == named.st_dev && locked.st_ino == named.st_ino) {
      lockFd_ = fd;
      FMTRACE(handler_, 5, "OwnerFile", "locked {}", dir_);
      return;
    }
    ::close(fd);
    FMTRACE(handler_, 3, "OwnerFile", "directory {} was replaced while locking; again", dir_);
  }
}

std::string OwnerFile::describe() const {
  return localMem_ ? fmt::format("owner record of {}", table_)
                   : fmt::format("owner file {}", path_);
}

std::optional<std::string> OwnerFile::readBytes(std::string& error) const {
  if (localMem_) return Impl::localRecord(table_, FILENAME);
  return Impl::readSmallFile(path_, sizeof(OwnerRecord), error);
}

bool OwnerFile::validate() const {
  std::string error;
  return validate(error);
}

bool OwnerFile::validate(std::string& error) const {
  std::string readError;
  std::optional<std::string> bytes = readBytes(readError);
  if (!bytes) {
    error = readError.empty() ? fmt::format("{} is missing", describe())
                              : fmt::format("{} is unreadable: {}", describe(), readError);
    return false;
  }
  Record r;
  bool intact;
  std::string problem = decode(*bytes, r, intact);
  if (problem.empty()) return true;
  error = fmt::format("{} is damaged: {}", describe(), problem);
  return false;
}

void OwnerFile::validateFile() const {
  std::string error;
  if (!validate(error)) throw Lomi::CorruptionDetectedException(error);
}

std::optional<OwnerFile::Record> OwnerFile::record() const {
  std::string readError;
  std::optional<std::string> bytes = readBytes(readError);
  if (!bytes) {
    if (!readError.empty()) {
      throw Lomi::CorruptionDetectedException("{} is unreadable: {}", describe(), readError);
    }
    return std::nullopt;
  }
  Record r;
  bool intact;
  std::string problem = decode(*bytes, r, intact);
  if (!intact) {
    throw Lomi::CorruptionDetectedException("{} is damaged: {}", describe(), problem);
  }
  return r;
}

std::string OwnerFile::typeName() const {
  std::optional<Record> r = record();
  return r ? r->typeName : std::string();
}

ParcelType OwnerFile::parcelType() const {
  std::optional<Record> r = record();
  return r ? r->parcelType : ParcelType::none;
}

TunnetInfo OwnerFile::tunnetInfo() const {
  std::optional<Record> r = record();
  return r ? r->tunnetInfo : TunnetInfo();
}

OwnerFile::Record OwnerFile::current() const {
  std::string error;
  std::optional<std::string> bytes = readBytes(error);
  Record r;
  bool intact = false;
  if (bytes) decode(*bytes, r, intact);
  if (intact) return r;
  FMTRACE(handler_, 3, "OwnerFile", "{} missing or damaged: starting a new record", describe());
  return Record();
}

void OwnerFile::store(Record const& r) {
  std::string bytes = encode(r);
  if (localMem_) {
    Impl::localRecordIs(table_, FILENAME, std::move(bytes));
  } else {
    Impl::replaceFile(path_, bytes);
  }
  FMTRACE(handler_, 3, "OwnerFile", "wrote {}", headerToString());
}

void OwnerFile::typeNameIs(std::string const& typeName) {
  if (typeName.size() > kTypeNameMax || typeName.find('\0') != std::string::npos) {
    throw Lomi::InvalidInitializeException(
        "type name \"{}\" of Mirak table {} does not fit the owner file: at most {} bytes, no NUL",
        typeName, table_, kTypeNameMax);
  }
  Record r = current();
  r.typeName = typeName;
  store(r);
}

void OwnerFile::parcelTypeIs(ParcelType type) {
  Record r = current();
  r.parcelType = type;
  store(r);
}

void OwnerFile::tunnetInfoIs(TunnetInfo const& info) {
  std::string const& name = info.socketName();
  if (name.size() > kSocketNameMax || name.find('\0') != std::string::npos) {
    throw Lomi::InvalidInitializeException(
        "socket name \"{}\" of Mirak table {} does not fit the owner file: at most {} bytes, "
        "no NUL",
        name, table_, kSocketNameMax);
  }
  Record r = current();
  r.tunnetInfo = info;
  if (info.empty()) {
    r.writerPid = 0;
    r.writerStartTime = 0;
  } else {
    r.writerPid = ::getpid();
    r.writerStartTime = processStartTime(r.writerPid);
  }
  store(r);
}

std::string OwnerFile::headerToString() const {
  std::string readError;
  std::optional<std::string> bytes = readBytes(readError);
  if (!bytes) {
    return readError.empty() ? fmt::format("{}: missing", describe())
                             : fmt::format("{}: unreadable: {}", describe(), readError);
  }
  Record r;
  bool intact;
  std::string problem = decode(*bytes, r, intact);
  if (bytes->size() != sizeof(OwnerRecord)) {
    size_t shown = std::min<size_t>(bytes->size(), 64);
    return fmt::format("{}: invalid: {}; first {} bytes:\n{}", describe(), problem, shown,
                       Lomi::Util::dumpHex(bytes->data(), shown));
  }
  std::string text = fmt::format(
      "{}: typeName:\"{}\" parcelType:{} writerPid:{} writerStartTime:{} tunnetInfo:{}", describe(),
      r.typeName, r.parcelType, r.writerPid, r.writerStartTime, r.tunnetInfo);
  if (!problem.empty()) text += fmt::format(" invalid: {}", problem);
  return text;
}

void OwnerFile::remove() {
  if (localMem_) {
    Impl::localRecordDel(table_, FILENAME);
  } else {
    Impl::removeFile(path_);
  }
  FMTRACE(handler_, 3, "OwnerFile", "removed {}", describe());
}

uint64_t OwnerFile::processStartTime(pid_t pid) {
  if (pid <= 0) return 0;
  std::string error;
  std::optional<std::string> stat =
      Impl::readSmallFile(fmt::format("/proc/{}/stat", pid), 4096, error);
  if (!stat) return 0;
  // "pid (comm) state ppid ...": comm may hold spaces and parentheses, so
  // fields are counted from the last ')'. starttime is field 22; the state
  // (field 3) is the first word after it.
  size_t pos = stat->rfind(')');
  if (pos == std::string::npos) return 0;
  int field = 2;
  char const* p = stat->c_str() + pos + 1;
  while (*p) {
    while (*p == ' ') ++p;
    if (!*p) break;
    ++field;
    if (field == 22) return std::strtoull(p, nullptr, 10);
    while (*p && *p != ' ') ++p;
  }
  return 0;
}

}  // namespace Parcel
