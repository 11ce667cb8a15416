// Mem::WriterLock: one writer per table directory.
//
// The owner file (Parcel::OwnerFile) names the directory's writer: its pid,
// that process's start time and its wake-up socket. A recorded owner is alive
// only if all of these hold:
//   - the pid lives (kill(pid, 0) succeeds or fails with EPERM);
//   - the process with that pid started when the record says (when the record
//     knows), so a pid reused by an unrelated process is not the owner;
//   - its wake-up socket, when the record names one, accepts a connection: an
//     abstract socket vanishes with the last descriptor of its writer.
// A record with no writer pid (a detached writer cleared it) or a damaged
// record names no live owner.
//
// Contract:
//   - The caller of acquireWriterLock already holds ownerFile.lock(); calling
//     it without the lock is a broken promise and stops the process
//     (fmassert). The lock is what makes check-then-own atomic.
//   - acquireWriterLock does not write the owner file: the caller first checks
//     the record's validity for its own decisions, then records itself with
//     OwnerFile::tunnetInfoIs(), still under the lock.
//   - A local table (private memory) has no other process to exclude: nothing
//     is checked.
#pragma once

#include <sys/types.h>

#include <string>

#include "Mem/RootPath.h"

namespace Lomi::Platform {
class DebugHandler;
}

namespace Parcel {
class OwnerFile;
}

namespace Mem {

class WriterLock {
 public:
  // Makes this process the directory's one writer, or throws
  // Lomi::InvalidInitializeException "Mirak table <dir> is owned by a live
  // writer, pid N; ..." when another live process owns it. A record that names
  // this process with `mySocketName` (or with no socket) is this process's
  // own. With `force` a live owner is taken over (traced at level 1), as
  // `cleanup` does.
  static void acquireWriterLock(Lomi::Platform::DebugHandler& handler, NaoRootPath const& rootPath,
                                Parcel::OwnerFile& ownerFile, bool force,
                                std::string const& mySocketName = std::string());

  // Whether `socketName` (as found in an owner file) is a wake-up socket of
  // this process.
  static bool ownerIsMe(Lomi::Platform::DebugHandler& handler, std::string const& socketName);

  // Whether the owner recorded in `ownerFile` is alive (see above). A missing
  // or damaged record gives false.
  static bool ownerIsAlive(Parcel::OwnerFile const& ownerFile);

  // Whether the writer behind `socketName` is alive: the pid carried by the
  // name lives and the socket accepts. `ownerName` gets that process's command
  // name when alive, else is cleared.
  static bool ownerIsAlive(Lomi::Platform::DebugHandler& handler, std::string const& socketName,
                           std::string& ownerName);

  // kill(pid, 0) succeeds or is refused for permission: the pid exists.
  static bool pidLives(pid_t pid);
};

}  // namespace Mem
