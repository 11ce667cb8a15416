// The writer lock: who owns a table directory, and whether that owner lives.
#include "Mem/WriterLock.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Parcel/OwnerFile.h"
#include "Parcel/ParcelFile.h"
#include "Rusk/WriterRuskSm.h"

namespace Mem {

namespace {

bool recordIsAlive(Parcel::OwnerFile::Record const& r) {
  if (r.writerPid <= 0 || !WriterLock::pidLives(r.writerPid)) return false;
  if (r.writerStartTime != 0 &&
      Parcel::OwnerFile::processStartTime(r.writerPid) != r.writerStartTime) {
    return false;
  }
  std::string const& socket = r.tunnetInfo.socketName();
  return socket.empty() || Rusk::connectProbe(socket);
}

bool recordIsMine(Parcel::OwnerFile::Record const& r, std::string const& mySocketName) {
  if (r.writerPid != ::getpid()) return false;
  if (r.writerStartTime != 0 &&
      r.writerStartTime != Parcel::OwnerFile::processStartTime(::getpid())) {
    return false;
  }
  std::string const& socket = r.tunnetInfo.socketName();
  return socket.empty() || socket == mySocketName;
}

}  // namespace

bool WriterLock::pidLives(pid_t pid) {
  if (pid <= 0) return false;
  return ::kill(pid, 0) == 0 || errno == EPERM;
}

void WriterLock::acquireWriterLock(Lomi::Platform::DebugHandler& handler,
                                   NaoRootPath const& rootPath, Parcel::OwnerFile& ownerFile,
                                   bool force, std::string const& mySocketName) {
  FMTRACE(handler, 5, "WriterLock", "{} force:{} socket:{}", rootPath, force, mySocketName);
  if (rootPath.isLocal()) return;
  FMASSERT(ownerFile.locked(), handler, "WriterLock",
           "acquireWriterLock on {} without holding the owner file lock", rootPath);
  std::optional<Parcel::OwnerFile::Record> owner;
  try {
    owner = ownerFile.record();
  } catch (Lomi::CorruptionDetectedException const& e) {
    // A damaged record names nobody; the writer re-formats on it.
    FMTRACE(handler, 0, "WriterLock", "{}: taking the directory: {}", rootPath, e.msg());
    return;
  }
  if (!owner || owner->writerPid == 0) return;
  if (recordIsMine(*owner, mySocketName)) {
    FMTRACE(handler, 5, "WriterLock", "{} is already owned by this process", rootPath);
    return;
  }
  if (!recordIsAlive(*owner)) {
    FMTRACE(handler, 1, "WriterLock", "{}: owner pid {} ({}) is gone, taking over", rootPath,
            owner->writerPid, owner->tunnetInfo);
    return;
  }
  if (force) {
    FMTRACE(handler, 1, "WriterLock", "{}: forced take-over from live writer pid {} ({})", rootPath,
            owner->writerPid, owner->tunnetInfo);
    return;
  }
  throw Lomi::InvalidInitializeException(
      "Mirak table {} is owned by a live writer, pid {}; stop that writer, or clean the table up "
      "to take it over (wake-up socket {})",
      rootPath, owner->writerPid, owner->tunnetInfo);
}

bool WriterLock::ownerIsMe(Lomi::Platform::DebugHandler& handler, std::string const& socketName) {
  std::optional<Rusk::TunnetName> name = Rusk::TunnetName::TunnetNameIs(socketName);
  bool me = name && name->pid == ::getpid();
  FMTRACE(handler, 5, "WriterLock", "socket:{} me:{}", socketName, me);
  return me;
}

bool WriterLock::ownerIsAlive(Parcel::OwnerFile const& ownerFile) {
  try {
    std::optional<Parcel::OwnerFile::Record> owner = ownerFile.record();
    return owner && recordIsAlive(*owner);
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
        Parcel::Impl::readSmallFile(fmt::format("/proc/{}/comm", name->pid), 64, error);
    if (comm) {
      while (!comm->empty() && comm->back() == '\n') comm->pop_back();
      ownerName = *comm;
    }
  }
  FMTRACE(handler, 5, "WriterLock", "socket:{} alive:{} name:{}", socketName, alive, ownerName);
  return alive;
}

}  // namespace Mem
