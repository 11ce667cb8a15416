// Parcel::OwnerFile: who owns a table directory, and the lock that
// serialises the writers and cleaners of it.
//
// The lock. lock() takes flock(LOCK_EX) on the table's directory itself (not
// on a file in it): the directory outlives `cleanup`, which removes every file,
// so no process can end up holding a lock on an unlinked inode while another
// locks a new one. After the flock is granted, the path is checked to still
// name the locked directory (someone may have removed and re-made it); if not,
// lock() starts over. The lock is released by the destructor. flock belongs to
// the open file description: a child forked while the lock is held shares it
// until the child exits or closes the descriptor. Readers never lock.
//
// The record. The file FILENAME in the directory, replaced whole by each
// setter (temporary file + rename), so a concurrent reader sees one complete
// record. Layout, 512 bytes, little-endian:
//   offset  width  field            meaning
//   0       4      magic            the bytes "OWNR"
//   4       4      version          record format, 1
//   8       4      parcelType       Parcel::ParcelType; 1 for a table
//   12      4      writerPid        i32 pid of the owning writer; 0: no writer
//   16      8      writerStartTime  the writer's start time in clock ticks since
//                                   boot (/proc/<pid>/stat field 22): with the
//                                   pid it names one process, even after the
//                                   pid is reused; 0 if not known
//   24      4      tableId          TunnetInfo::tableId
//   28      4      reserved         0
//   32      256    typeName         NUL-terminated type name of the table
//   288     128    socketName       NUL-terminated printable name of the writer's
//                                   wake-up socket ('@' stands for the leading NUL)
//   416     92     reserved         0
//   508     4      check            Lomi::Impl::HashMix<unsigned> from 0x811c9dc5
//                                   over bytes 0..507
// A record is consistent when its size, magic, version and check hold, both
// strings are terminated, parcelType is 1, and a named socket has a writer pid.
//
// Local tables (`localMem` true) keep the record in private memory of the
// process, shared by every OwnerFile of the same table name; lock() does
// nothing for them, since no other process can reach the record.
//
// Contract: one thread per object. The setters (typeNameIs, parcelTypeIs,
// tunnetInfoIs) read, change and rewrite the record; the caller holds lock().
// A setter starts from an empty record when the old one is missing or damaged.
// Failures to read or write the file (not its content) throw
// Lomi::InvalidInitializeException naming the file.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "Mem/RootPath.h"
#include "Parcel/TunnetInfo.h"

namespace Lomi::Platform {
class DebugHandler;
}

namespace Parcel {

enum class ParcelType : uint32_t {
  none = 0,
  mirak = 1,
};

class OwnerFile {
 public:
  static constexpr char const FILENAME[] = "owner";
  static constexpr size_t kTypeNameMax = 255;
  static constexpr size_t kSocketNameMax = 127;

  // The decoded content of a consistent record.
  struct Record {
    std::string typeName;
    ParcelType parcelType = ParcelType::none;
    pid_t writerPid = 0;
    uint64_t writerStartTime = 0;
    TunnetInfo tunnetInfo;
  };

  OwnerFile(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath, bool localMem);
  OwnerFile(OwnerFile const&) = delete;
  OwnerFile& operator=(OwnerFile const&) = delete;
  // Releases the lock if held.
  ~OwnerFile();

  // Blocks until this object holds the directory's lock; makes the directory
  // (with its parents) first. A second call while held does nothing. Throws
  // Lomi::InvalidInitializeException naming the directory if it cannot be
  // made, opened or locked.
  void lock();
  bool locked() const { return localMem_ || lockFd_ >= 0; }

  // Whether the record exists and is consistent; `error` names the file and
  // the first problem found.
  bool validate() const;
  bool validate(std::string& error) const;
  // Throws Lomi::CorruptionDetectedException naming the file when the record
  // is missing or not consistent.
  void validateFile() const;

  // The record; nullopt if there is none. A record that is not whole and
  // unaltered (size, magic, version, check, string terminators) throws
  // Lomi::CorruptionDetectedException naming the file and the problem. A
  // whole record whose fields do not yet agree (no parcel type yet, as between
  // a writer's first two setters) is returned: validate() is the full check.
  std::optional<Record> record() const;

  // Accessors over record(): a missing record gives the empty value, a
  // damaged one throws Lomi::CorruptionDetectedException.
  std::string typeName() const;
  ParcelType parcelType() const;
  TunnetInfo tunnetInfo() const;

  // Throws Lomi::InvalidInitializeException for a name over kTypeNameMax bytes.
  void typeNameIs(std::string const& typeName);
  void parcelTypeIs(ParcelType type);
  // Records `info` with this process as the writer (pid and start time); an
  // empty `info` records that no writer owns the directory (pid 0). Throws
  // Lomi::InvalidInitializeException for a socket name over kSocketNameMax.
  void tunnetInfoIs(TunnetInfo const& info);

  // One line with every field, for traces; for a damaged record, the fields
  // as found and the problem; for a missing one, that it is missing.
  std::string headerToString() const;

  // Removes the record; a missing one is fine. Throws Lomi::RuntimeException
  // naming the file if the system refuses.
  void remove();

  // The file's path; empty for a local table.
  std::string const& path() const { return path_; }
  // The directory's path, or "local:<name>" for a local table.
  std::string const& table() const { return table_; }

  // The start time of process `pid` in clock ticks since boot, 0 if unknown
  // (no such process, or /proc unreadable).
  static uint64_t processStartTime(pid_t pid);

 private:
  std::optional<std::string> readBytes(std::string& error) const;
  Record current() const;
  void store(Record const& r);
  std::string describe() const;

  Lomi::Platform::DebugHandler& handler_;
  std::string table_;
  std::string dir_;
  std::string path_;
  bool localMem_;
  Mem::NaoRootPath rootPath_;
  int lockFd_ = -1;
};

}  // namespace Parcel

template <>
struct fmt::formatter<Parcel::ParcelType> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Parcel::ParcelType t, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "{}", static_cast<uint32_t>(t));
  }
};
