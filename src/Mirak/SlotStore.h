// Mirak::SlotStore: the writer's stores into a slot's word, value and link and
// into the lookaside slot, each sequence written once.
//
// Who writes: the writer thread only. Who reads: readers in other processes,
// by SlotReaderTable::getValue (load the word; copy from the lookaside slot if
// LOOKASIDE is up, else from the slot; acquire fence; load the word again and
// take the copy only if it is unchanged), and by the chain walks, which load a
// link as one pair and compare its version after reading the slot it leads to.
//
// THE REWRITE (the seqlock write of a value readers may be copying)
//   1. beginRewrite: versionFlags + 2, release store. LOOKASIDE rises; a
//      reader that loads the word from here on copies from the lookaside
//      slot, and a reader that loaded it before sees it move and retries.
//      Then a release fence: it keeps the stores of step 2 from becoming
//      visible before this word on a weakly ordered processor (a release store
//      orders only what precedes it). On x86 it is a compiler barrier.
//   2. the value is copied into the slot; the slot may be torn meanwhile.
//   3. endRewrite: (versionFlags + 2) | OCCUPIED, release store. LOOKASIDE
//      falls and the word has moved by 4 in all; the release keeps the copy of
//      step 2 before it.
// Precondition: the lookaside slot holds the whole value a reader may take
// while LOOKASIDE is up (staged below), or no chain reaches the slot.
//
// THE LOOKASIDE SLOT (the header's one spare slot; see SlotTable.h)
//   reuseLookaside: a release fence, then the address of its value bytes. The
//   fence orders the last store of its previous use, the endRewrite that
//   lowered LOOKASIDE in that slot's word, before the new bytes: a reader
//   still copying the earlier value out of the lookaside must be able to see
//   that word move once it can see a new byte here, or it would take a torn
//   copy for a whole one.
//   stageLookaside: reuseLookaside, the rhash (release), then the value.
//
// THE OTHER WORD AND LINK STORES
//   occupy: (versionFlags + 4) | OCCUPIED in one release store, for a slot no
//     chain reaches yet whose value was copied in before (the release keeps
//     the copy before the word).
//   vacate: versionFlags without OCCUPIED, release.
//   relink: the link = (version + 4, next) as one 8-byte release store.
//
// Nothing here allocates, calls through a pointer, or depends on the key or
// value type: the writer's templates hand in addresses and sizes, and every
// function is inline, so the write path compiles to the same stores as when
// they were written out in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Mem/Atomics.h"
#include "Mirak/SlotLink.h"
#include "Mirak/SlotTable.h"

namespace Mirak {

class SlotStore {
 public:
  // Step 1 of the rewrite.
  static void beginRewrite(uint32_t& versionFlags) {
    Mem::storeRelease(versionFlags, versionFlags + 2);
    Mem::releaseFence();
  }
  // Step 3 of the rewrite.
  static void endRewrite(uint32_t& versionFlags) {
    Mem::storeRelease(versionFlags, (versionFlags + 2) | SlotTable::OCCUPIED);
  }
  // Steps 1-3: `size` bytes of `value` into the slot's value bytes `slotValue`.
  static void rewrite(uint32_t& versionFlags, void* slotValue, void const* value,
                      std::size_t size) {
    beginRewrite(versionFlags);
    std::memcpy(slotValue, value, size);
    endRewrite(versionFlags);
  }

  static void* reuseLookaside(SlotTable::Header* header) {
    Mem::releaseFence();
    return header->lookasideValue();
  }
  // The lookaside's rhash, before a rewrite that readers may follow there.
  static void lookasideRhashIs(SlotTable::Header* header, uint32_t rhash) {
    Mem::storeRelease(header->lookaside()->rhash, rhash);
  }
  // A whole copy of the value readers take while the slot's LOOKASIDE is up.
  static void stageLookaside(SlotTable::Header* header, uint32_t rhash, void const* value,
                             std::size_t size) {
    void* const destination = reuseLookaside(header);
    lookasideRhashIs(header, rhash);
    std::memcpy(destination, value, size);
  }

  static void occupy(uint32_t& versionFlags) {
    Mem::storeRelease(versionFlags, (versionFlags + 4) | SlotTable::OCCUPIED);
  }
  static void vacate(uint32_t& versionFlags) {
    Mem::storeRelease(versionFlags, versionFlags & ~SlotTable::OCCUPIED);
  }
  static void relink(SlotLink& link, uint32_t next) {
    Mem::storeRelease(link, SlotLink{link.version + SlotLink::kVersionStep, next});
  }
};

}  // namespace Mirak
