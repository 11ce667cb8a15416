// Parcel::WriterLock: one writer per table directory.
//
// Whether a writer lives is said by a lock, not by a pid: a writer holds the
// lifetime lock of its directory (Lifetime, below) from the moment it takes
// the directory until it detaches or dies, and the kernel drops it then. The
// owner file (OwnerFile) names the writer, its pid, that process's
// start time and its wake-up socket: those describe the owner in messages and
// let a reader reach it, but a pid alone decides nothing (it may belong to an
// unrelated process by now, and a record may carry no start time).
// A record with no writer pid (a detached writer cleared it) or a damaged
// record names no owner.
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

class WriterLock {
 public:
  // The file whose lock says that a writer lives. It is created once and never
  // replaced (a rename would leave the lock on a file no name reaches).
  static constexpr char kLifetimeFile[] = "writer.lock";

  // The lifetime lock: a write lock on the first byte of kLifetimeFile, taken
  // as an open file description lock (F_OFD_SETLK), so that it belongs to the
  // open file, not to a process or a thread, and goes when its descriptor
  // closes. A child that forks from the writer and keeps the descriptor keeps
  // the table owned; the descriptor is close-on-exec.
  class Lifetime {
   public:
    Lifetime() = default;
    ~Lifetime() { release(); }
    Lifetime(Lifetime const&) = delete;
    Lifetime& operator=(Lifetime const&) = delete;
    // Takes the lock of `rootPath`. False with `error` set when another open
    // file holds it (a live writer) or the file cannot be made; a reader's
    // probe that holds it for an instant is waited out.
    bool take(Mem::NaoRootPath const& rootPath, std::string& error);
    void release();
    bool held() const { return fd_ >= 0; }

   private:
    int fd_ = -1;
  };

  // Whether some writer holds the lifetime lock of `rootPath` now. Probes by
  // taking a shared lock for an instant; a missing file means no writer.
  static bool lifetimeHeld(std::string const& directory);

  // Makes this process the directory's one writer, or throws
  // Lomi::InvalidInitializeException "Mirak table <dir> is owned by a live
  // writer, pid N; ..." when another live process owns it. A record that names
  // this process with `mySocketName` (or with no socket) is this process's
  // own. With `force` a live owner is taken over (traced at level 1), as
  // `cleanup` does.
  // With `lifetime`, the lifetime lock is taken into it once the directory
  // is this process's (a forced take-over first unlinks the old lock file,
  // which the old writer keeps holding on a file no name reaches).
  static void acquireWriterLock(Lomi::Platform::DebugHandler& handler,
                                Mem::NaoRootPath const& rootPath, OwnerFile& ownerFile, bool force,
                                std::string const& mySocketName = std::string(),
                                Lifetime* lifetime = nullptr);

  // Whether `socketName` (as found in an owner file) is a wake-up socket of
  // this process.
  static bool ownerIsMe(Lomi::Platform::DebugHandler& handler, std::string const& socketName);

  // Whether the owner recorded in `ownerFile` is alive: a record names one
  // and the directory's lifetime lock is held. A missing or damaged record
  // gives false.
  static bool ownerIsAlive(OwnerFile const& ownerFile);

  // Whether the writer behind `socketName` is alive: the pid carried by the
  // name lives and the socket accepts. `ownerName` gets that process's command
  // name when alive, else is cleared.
  static bool ownerIsAlive(Lomi::Platform::DebugHandler& handler, std::string const& socketName,
                           std::string& ownerName);

  // kill(pid, 0) succeeds or is refused for permission: the pid exists.
  static bool pidLives(pid_t pid);
};

}  // namespace Parcel
