// Mem::ParcelWrapper: one mapped table file (or, for a local table, a block of
// private memory with the same interface).
//
// Who maps what:
//   - the writer maps PROT_READ|PROT_WRITE, MAP_SHARED, and is the only process
//     that changes the file's length or content;
//   - a reader maps PROT_READ, MAP_SHARED: a stray store faults instead of
//     damaging the table.
//
// Growing: ftruncate up (never down), then mremap(MREMAP_MAYMOVE).
// Shrinking never shortens the file: a reader that still maps the older,
// longer range would take SIGBUS on the cut-off pages. Instead the writer
// releases the tail with fallocate(PUNCH_HOLE|KEEP_SIZE) (the memory goes back;
// the range reads as zeros) and mremaps its own mapping down. So:
//   invariant: file length >= every mapping of it, in every process;
//   invariant: bytes beyond the writer's mapping mean nothing.
// `cleanup` unlinks; readers that still map the inode keep it alive.
//
// Errors: attach/resize return null and keep a text in lastError() that names
// the file and the system error; the caller turns it into its own exception.
#pragma once

#include <cstdint>
#include <string>

#include "Mem/Local.h"

namespace Mem {

class ParcelWrapper {
 public:
  enum class Mode { ReadWrite, ReadOnly };

  // `path` is the full file name; an empty path makes a local (private) block.
  explicit ParcelWrapper(std::string path = {});
  ParcelWrapper(ParcelWrapper const&) = delete;
  ParcelWrapper& operator=(ParcelWrapper const&) = delete;
  ~ParcelWrapper();

  // Maps `size` bytes. ReadWrite creates the file (0644, under the umask) if
  // need be and lengthens it to `size` if it is shorter. ReadOnly maps an
  // existing file; a `size` of 0 maps the file's whole current length.
  // `address` is a hint, usually null. Returns the base or null.
  void* attach(uint64_t size, Mode mode, void* address = nullptr);

  // Changes the mapping to `size` bytes; see the header comment for what the
  // writer does to the file. A reader only remaps (within the file's length).
  // Returns the new base, which may differ from the old, or null, in which case
  // the old mapping is still in place. A writer's shrink gives the memory of
  // the file beyond `size` back, all but the first `keep` bytes of the file
  // (a caller about to store into them again spares their release and their
  // zero-fill).
  void* resize(uint64_t size, uint64_t keep = 0);

  // Unmaps and closes. The file stays.
  void detach();

  // Removes the file from its directory (readers keep their mapping).
  // Returns false with lastError() set if it existed and could not be removed.
  bool unlink();

  bool attached() const { return base_ != nullptr; }
  void* base() const { return base_; }
  bool local() const { return path_.empty(); }
  Mode mode() const { return mode_; }

  // Length of the file as it stands, also before attach; 0 if there is none.
  // For a local block: its size.
  uint64_t memSize() const;
  // Bytes this process maps.
  uint64_t fileSize() const { return mapped_; }
  // Bytes the file really occupies (st_blocks * 512), 0 if there is none.
  uint64_t allocatedBytes() const;

  std::string const& getFilename() const { return path_; }
  std::string const& lastError() const { return lastError_; }

 private:
  std::string path_;
  int fd_ = -1;
  void* base_ = nullptr;
  uint64_t mapped_ = 0;
  Mode mode_ = Mode::ReadWrite;
  Local local_;
  std::string lastError_;
};

}  // namespace Mem
