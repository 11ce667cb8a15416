// Mem::Local: resizable private memory for tables that live in one process
// (the private table of an entity before it is mounted, and local writers).
//
// Anonymous mmap, grown and shrunk with mremap, so a local table behaves like a
// mapped file whose base may move on resize. Contents are zero-filled on growth.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Mem {

class Local {
 public:
  Local() = default;
  Local(Local const&) = delete;
  Local& operator=(Local const&) = delete;
  ~Local() { detach(); }

  // Maps `size` bytes of zeroed private memory. Returns the base, or null with
  // lastError() set.
  void* attach(uint64_t size);
  // Grows or shrinks the block, keeping its content up to the smaller size.
  // The base may move. Returns the new base, or null with lastError() set
  // (the old block then stays mapped and valid).
  void* resize(uint64_t size);
  void detach();
  // Maps in the pages of bytes [from, to) of the block now, in one call, so
  // that the writes that follow take no page fault each (a fresh block costs
  // one fault per page on first touch). A speed hint only: false if the
  // kernel cannot, and the pages then come on first touch as before.
  bool prefault(uint64_t from, uint64_t to);
  // Asks for the block, as it is now, to be backed by huge pages where the
  // kernel has them: a block written whole soon after (a shadow's copy)
  // takes one fault per 2 MiB instead of per page, and its random reads
  // miss the TLB far less. A speed hint only: false if refused, and the
  // block keeps ordinary pages. Where the kernel must compact memory first
  // to find a huge page, a fault can take longer than the pages it saves.
  bool adviseHugePages();

  void* base() const { return base_; }
  uint64_t size() const { return size_; }
  std::string const& lastError() const { return lastError_; }

  // The largest mapping a table may ask for: the format keeps sizes in 32 bits.
  static constexpr uint64_t maxMappingSize() { return 0xffffffffull; }

 private:
  void* base_ = nullptr;
  uint64_t size_ = 0;
  std::string lastError_;
};

}  // namespace Mem
