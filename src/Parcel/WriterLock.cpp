// The writer lock: who owns a table directory, and whether that owner lives.
#include "Parcel/WriterLock.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Error.h"
#include "Mem/SharedGround.h"
#include "Parcel/OwnerFile.h"
#include "Parcel/ParcelFile.h"
#include "Rusk/WriterRuskSm.h"

namespace Parcel {

namespace fs = std::filesystem;

namespace {

// A write lock on byte 0 for the writer, a shared one for a probe: the two
// conflict, two probes do not.
bool trySetLock(int fd, short type) {
  struct flock l {};
  l.l_type = type;
  l.l_whence = SEEK_SET;
  l.l_start = 0;
  l.l_len = 1;
  return ::fcntl(fd, F_OFD_SETLK, &l) == 0;
}

std::string lifetimePath(std::string const& directory) {
  return directory + "/" + WriterLock::kLifetimeFile;
}

bool recordIsAlive(OwnerFile::Record const& r, std::string const& directory) {
  return r.writerPid > 0 && WriterLock::lifetimeHeld(directory);
}

bool recordIsMine(OwnerFile::Record const& r, std::string const& mySocketName) {
  if (r.writerPid != ::getpid()) return false;
  if (r.writerStartTime != 0 && r.writerStartTime != OwnerFile::processStartTime(::getpid())) {
    return false;
  }
  std::string const& socket = r.tunnetInfo.socketName();
  return socket.empty() || socket == mySocketName;
}

}  // namespace

bool WriterLock::Lifetime::take(Mem::NaoRootPath const& rootPath, std::string& error) {
  release();
  std::string const path = lifetimePath(rootPath.path());
  int const fd = Mem::openSharedFile(path, O_RDWR | O_CREAT, 0644, error);
  if (fd < 0) return false;
  // A probe holds a shared lock for a few microseconds; a writer holds its
  // lock for good. Wait out the first, give up on the second.
  for (int attempt = 0; attempt < 200; attempt++) {
    if (trySetLock(fd, F_WRLCK)) {
      fd_ = fd;
      return true;
    }
    if (errno != EAGAIN && errno != EACCES) break;
    ::usleep(1000);
  }
  error = Mem::posixError(fmt::format("lock {}", path), errno);
  ::close(fd);
  return false;
}

void WriterLock::Lifetime::release() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool WriterLock::lifetimeHeld(std::string const& directory) {
  std::string error;
  int const fd = Mem::openSharedFile(lifetimePath(directory), O_RDONLY, 0, error);
  if (fd < 0) return false;
  bool const free = trySetLock(fd, F_RDLCK);
  ::close(fd);
  return !free;
}

bool WriterLock::pidLives(pid_t pid) {
  if (pid <= 0) return false;
  return ::kill(pid, 0) == 0 || errno == EPERM;
}

void WriterLock::acquireWriterLock(Lomi::Platform::DebugHandler& handler,
                                   Mem::NaoRootPath const& rootPath, OwnerFile& ownerFile,
                                   bool force, std::string const& mySocketName,
                                   Lifetime* lifetime) {
  FMTRACE(handler, 5, "WriterLock", "{} force:{} socket:{}", rootPath, force, mySocketName);
  if (rootPath.isLocal()) return;
  FMASSERT(ownerFile.locked(), handler, "WriterLock",
           "acquireWriterLock on {} without holding the owner file lock", rootPath);
  std::optional<OwnerFile::Record> owner;
  try {
    owner = ownerFile.record();
  } catch (Lomi::CorruptionDetectedException const& e) {
    // A damaged record names nobody; the writer re-formats on it.
    FMTRACE(handler, 0, "WriterLock", "{}: damaged owner record: {}", rootPath, e.msg());
  }
  auto refuse = [&] {
    throw Lomi::InvalidInitializeException(
        "Mirak table {} is owned by a live writer, pid {}; stop that writer, or clean the table "
        "up to take it over (wake-up socket {})",
        rootPath, owner ? owner->writerPid : 0, owner ? owner->tunnetInfo : TunnetInfo());
  };
  bool const named = owner && owner->writerPid != 0;
  if (named && recordIsMine(*owner, mySocketName)) {
    FMTRACE(handler, 5, "WriterLock", "{} is already owned by this process", rootPath);
  } else if (named && recordIsAlive(*owner, rootPath.path())) {
    if (!force) refuse();
    FMTRACE(handler, 1, "WriterLock", "{}: forced take-over from live writer pid {} ({})", rootPath,
            owner->writerPid, owner->tunnetInfo);
    // The old writer keeps its lock on a file that no name reaches.
    ::unlink(lifetimePath(rootPath.path()).c_str());
  } else if (named) {
    FMTRACE(handler, 1, "WriterLock", "{}: owner pid {} ({}) holds no writer lock, taking over",
            rootPath, owner->writerPid, owner->tunnetInfo);
  }
  if (!lifetime || lifetime->held()) return;
  std::string error;
  if (!lifetime->take(rootPath, error)) {
    FMTRACE(handler, 1, "WriterLock", "{}: {}", rootPath, error);
    refuse();
  }
}

bool WriterLock::ownerIsMe(Lomi::Platform::DebugHandler& handler, std::string const& socketName) {
  std::optional<Rusk::TunnetName> name = Rusk::TunnetName::TunnetNameIs(socketName);
  bool me = name && name->pid == ::getpid();
  FMTRACE(handler, 5, "WriterLock", "socket:{} me:{}", socketName, me);
  return me;
}

bool WriterLock::ownerIsAlive(OwnerFile const& ownerFile) {
  try {
    std::optional<OwnerFile::Record> owner = ownerFile.record();
    return owner && recordIsAlive(*owner, fs::path(ownerFile.path()).parent_path().string());
  } catch (Lomi::CorruptionDetectedException const&) {
    return false;
  }
}

bool WriterLock::ownerIsAlive(Lomi::Platform::DebugHandler& handler, std::string const& socketName,
                              std::string& ownerName) {
  ownerName.clear();
  std::optional<Rusk::TunnetName> name = Rusk::TunnetName::TunnetNameIs(socketName);
  bool alive = name && pidLives(name->pid) && Rusk::connectProbe(socketName);
  if (alive) {
    std::string error;
    std::optional<std::string> comm =
        Impl::readSmallFile(fmt::format("/proc/{}/comm", name->pid), 64, error);
    if (comm) {
      while (!comm->empty() && comm->back() == '\n') comm->pop_back();
      ownerName = *comm;
    }
  }
  FMTRACE(handler, 5, "WriterLock", "socket:{} alive:{} name:{}", socketName, alive, ownerName);
  return alive;
}

}  // namespace Parcel
