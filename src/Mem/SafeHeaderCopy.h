// Copies of shared bytes that the writer may be rewriting: the seqlock copy of
// a value and the consistent private copy of a file header.
//
// Both follow the same order, which is what makes a copy trustworthy:
//   1. load the guarding word (acquire);
//   2. copy the bytes (plain loads; they may be torn);
//   3. acquire fence: the copy's loads may not pass the re-load below;
//   4. load the word again; the copy counts only if it is unchanged.
// The writer changes the word before and after every rewrite of the bytes it
// guards, so an unchanged word proves that no rewrite overlapped the copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Mem/Atomics.h"
#include "Mem/ParcelWrapper.h"

namespace Mem {

// Step 2 of a seqlock read. The copy races with the writer by design and is
// thrown away when the guarding word moved, so it is kept out of the thread
// sanitizer's view; the words that decide are loaded atomically.
[[gnu::no_sanitize_thread]] inline void copyUnderSeqlock(void* destination, void const* source,
                                                         size_t bytes) {
  std::memcpy(destination, source, bytes);
}

// Fills `destination` with a copy of `*header` that does not straddle a change
// of `*versionWord` (the version of the header's size pair) and returns the
// file's length as `wrapper.memSize()` gave it inside the same window. The
// counters in the copy may still be of different moments; only a grow or
// shrink (which moves the word) is excluded. Retries as long as the writer
// keeps resizing: each retry needs a new resize.
template <typename Header>
uint64_t safeHeaderCopy(Header const* header, Header* destination, uint32_t const* versionWord,
                        ParcelWrapper const& wrapper) {
  for (;;) {
    uint32_t const before = loadAcquire(*versionWord);
    copyUnderSeqlock(destination, header, sizeof(Header));
    uint64_t const memSize = wrapper.memSize();
    acquireFence();
    if (loadAcquire(*versionWord) == before) return memSize;
  }
}

}  // namespace Mem
