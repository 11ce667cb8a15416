// Parcel::KestorFile: the file that says which generation of a table's files
// is complete.
//
// A writer writes it last, after every other file of the table is formatted or
// adopted and validated, so its presence with the right id is the signal that
// readers may attach. Readers read it at `initialize` and compare the id with
// the one stored in the slot and bucket headers; reader sentries watch the
// directory for it to appear (IN_MOVED_TO: `write` renames a complete record
// into place, so no reader ever sees a partial one).
//
// File layout, 16 bytes, little-endian:
//   offset  width  field     meaning
//   0       4      magic     the bytes "KSTR"
//   4       4      version   record format, 1
//   8       4      kestor    Parcel::KestorId as one u32
//   12      4      check     Lomi::Impl::HashMix<unsigned> from 0x811c9dc5 over bytes 0..11
// Anything else (missing, shorter, longer, wrong magic, version or check) is
// "no kestor": read() gives 0, so a torn or garbage file is never adopted.
//
// Local tables (`localMem` true) have no file: the record lives in private
// memory of the process, shared by every KestorFile of the same table name.
//
// Contract: one thread per object. Only the directory's writer (holding the
// owner file lock) calls write() and remove(); any process may read.
#pragma once

#include <string>

#include "Mem/RootPath.h"
#include "Parcel/KestorId.h"

namespace Lomi::Platform {
class DebugHandler;
}

namespace Parcel {

class KestorFile {
 public:
  static constexpr char const KESTOR_NAME[] = "kestor";

  KestorFile(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath,
             bool localMem);

  // The stored id; 0 if there is no record or it does not check out (traced
  // at level 3 with the reason).
  KestorId read() const;

  // Replaces the record whole (temporary file + rename). Throws
  // Lomi::InvalidInitializeException naming the file if it cannot be written
  // (for example when the table's directory does not exist).
  void write(KestorId id);

  // Whether the stored id is `wanted`. On false, `error` names the file and the
  // problem: missing, damaged, or "holds kestor A, wanted B".
  bool validate(KestorId wanted, std::string& error) const;
  // The same check; throws Lomi::InvalidInitializeException with that text.
  void validate(KestorId wanted) const;

  // Wall-clock seconds since the epoch of the last write; 0 if there is none.
  double mtime() const;

  // Removes the record; a missing one is fine. Throws Lomi::RuntimeException
  // naming the file if the system refuses.
  void remove();

  // The file's path; empty for a local table.
  std::string const& path() const { return path_; }

 private:
  KestorId decode(std::string const& bytes, std::string& error) const;
  std::string describe() const;

  Lomi::Platform::DebugHandler& handler_;
  std::string table_;
  std::string path_;
  bool localMem_;
};

}  // namespace Parcel
