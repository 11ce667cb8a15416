// The slot file: its header, its slots, and what every process may assume of
// them.
//
// Layout (little-endian; all offsets pinned by static_asserts below):
//
//   offset  width  field
//   0       8      magic          "MIRAKSLT", no terminator
//   8       4      version        format version, 24
//   12      4      kestor         Parcel::KestorId of the incarnation that formatted the file
//   16      4      platform       Compatibility::Platform, 1
//   20      512    valueType      NUL-terminated type name; bytes behind the NUL count in `hash`
//   532     4      valueSize
//   536     4      slotSize       16 + valueSize, rounded up to 8
//   540     4      maxSlots       configured limit; the capacity may overshoot it
//   544     2      constFlags     bit 1: the writer feeds a real change queue
//   546     2      runtimeFlags   bit 0: the writer is inside a critical section
//   548     4      hash           checksum of the constant fields (see checksum())
//   552     4      occupiedSlots
//   556     4      freeSlots      head of the free list, 0xffffffff when empty
//   560     4      mostSlots      largest capacity ever had
//   564     4      hashSeed       seed of the key hash, fixed at formatting
//   568     8      numSlots       VersionedRef: version (+1 per grow/shrink), capacity
//   576     8      scratchpad     the user's; never interpreted
//   584     slotSize  lookaside   one slot; only its rhash and value are used as
//                                 a slot; its versionFlags word holds the
//                                 regrowth floor (below)
//   headerSize = 584 + slotSize; then capacity x slotSize bytes of slots.
//
// One slot (slotSize bytes, 8-aligned in the file):
//   0  link.version  4   +4 on every rewrite of the link
//   4  link.next     4   next slot of the chain / end-of-chain / free-list next
//   8  versionFlags  4   bit 0 OCCUPIED, bit 1 LOOKASIDE, above: a counter
//   12 rhash         4   reversed key hash
//   16 value         valueSize   a plain copy of the value; key first
//
// Who writes: only the writer process stores into the file. Readers map it
// read-only. `versionFlags` is the seqlock of the slot's value: the writer adds
// 2 (LOOKASIDE rises; the current value is in `lookaside`), rewrites the value,
// and adds 2 again (LOOKASIDE falls), so each overwrite moves the word by 4 and
// a reader that sees the same word before and after its copy has a whole value.
//
// A slot's word never comes back to a value it had, for the life of a kestor:
// readers keep (slot, word) pairs across calls (IterHint, version anchors) and
// take an equal word for "the same row, unchanged". Removal clears OCCUPIED,
// re-use adds 4, a move's target adds 4 and its source clears OCCUPIED. A slot
// cut off by a compaction loses its word with the file's tail; when a grow
// brings the slot back, it starts at the regrowth floor, the word of the
// lookaside slot, which the compaction raised above every word of the slots it
// cut (regrowthFloor()). Readers never read the floor; it lives in the file so
// that it survives a writer restart that adopts the table.
//
// The header's size versions (numSlots here, numBuckets in the bucket file)
// never come back to a value either: a re-format carries them on (+1), so a
// reader still mapping the old generation sees them move.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "Lomi/Trace.h"
#include "Mem/VersionedRef.h"
#include "Mirak/SlotLink.h"
#include "Parcel/KestorId.h"

namespace Mirak {

namespace Compatibility {
enum Platform : uint32_t { platformX86_64 = 1 };
// The platform this build writes and accepts.
constexpr uint32_t kPlatform = platformX86_64;
std::string platformType(uint32_t platform);
}  // namespace Compatibility

namespace SlotTable {

constexpr uint32_t kFormatVersion = 24;
constexpr char kMagic[8] = {'M', 'I', 'R', 'A', 'K', 'S', 'L', 'T'};
constexpr uint32_t kValueTypeLen = 512;
constexpr uint32_t kHeaderFixedSize = 584;
constexpr uint32_t kNoSlot = 0xffffffffu;

// versionFlags bits.
constexpr uint32_t OCCUPIED = 1;
constexpr uint32_t LOOKASIDE = 2;

// constFlags bits.
constexpr uint16_t kConstFlagQueue = 2;
// runtimeFlags bits.
constexpr uint16_t kRuntimeFlagCritical = 1;

constexpr uint32_t slotSizeFor(uint32_t valueSize) {
  return (16 + valueSize + 7) / 8 * 8;
}
constexpr uint32_t headerSizeFor(uint32_t valueSize) {
  return kHeaderFixedSize + slotSizeFor(valueSize);
}

// The fixed-size first part of one slot; the value follows at offset 16.
struct alignas(8) SlotHead {
  SlotLink link;
  uint32_t versionFlags;
  uint32_t rhash;
};
static_assert(sizeof(SlotHead) == 16);
static_assert(offsetof(SlotHead, versionFlags) == 8);
static_assert(offsetof(SlotHead, rhash) == 12);

// The value bytes behind a slot head, at offset 16 of a slot or of the
// lookaside slot. Every access to a value through a head (the reader's copy,
// the writer's lookaside, the format) takes its address here.
inline char* valueBytes(SlotHead* head) {
  return reinterpret_cast<char*>(head) + sizeof(SlotHead);
}
inline char const* valueBytes(SlotHead const* head) {
  return reinterpret_cast<char const*>(head) + sizeof(SlotHead);
}

// A slot of a table whose values are `Value`. sizeof(Slot<Value>) is the
// table's slotSize: 16 + sizeof(Value) rounded up to 8 by the alignment of the
// link.
template <typename Value>
struct Slot {
  SlotLink link;
  uint32_t versionFlags;
  uint32_t rhash;
  Value value;
};

struct Header {
  char magic[8];
  uint32_t version;
  uint32_t kestor;
  uint32_t platform;
  char valueType[kValueTypeLen];
  uint32_t valueSize;
  uint32_t slotSize;
  uint32_t maxSlots;
  uint16_t constFlags;
  uint16_t runtimeFlags;
  uint32_t hash;
  uint32_t occupiedSlots;
  uint32_t freeSlots;
  uint32_t mostSlots;
  uint32_t hashSeed;
  Mem::VersionedRef<unsigned int> numSlots;
  uint64_t scratchpad;
  // The lookaside slot follows here, at offset 584.

  // Formats a header, the lookaside slot and `numSlots` slots in `mem`, which
  // must hold at least headerSize + numSlots * slotSize bytes. Every slot gets
  // link (0, 0xffffffff), versionFlags 0, rhash 0 and a copy of
  // `defaultValue` (valueSize bytes). mostSlots = numSlots; the free list is
  // left empty (freeSlots 0xffffffff): the slot table threads it. The
  // numSlots pair starts at version `numSlotsVersion` (0 for a new file, the
  // old version + 1 for a re-format). Throws Lomi::InvalidInitializeException
  // if the type name does not fit.
  static Header* format(void* mem, Lomi::Platform::DebugHandler const& handler, uint32_t numSlots,
                        uint32_t maxSlots, uint16_t constFlags, Parcel::KestorId kestor,
                        std::string const& valueTypeName, uint32_t valueSize, uint32_t hashSeed,
                        void const* defaultValue, uint32_t numSlotsVersion = 0);

  // The checks a writer runs before it adopts a file and a reader runs on a
  // private copy (Mem::safeHeaderCopy). `tableSlotSize` is the slot size of the
  // table that asks (built in, not the stored field). `fileSize` is the file's
  // length. First failure wins: its message goes into `error`.
  bool validate(Lomi::Platform::DebugHandler const& handler, uint64_t fileSize,
                Parcel::KestorId wantedKestor, std::string& error, uint32_t tableSlotSize) const;

  uint32_t checksum() const;
  std::string toString() const;

  uint32_t headerSize() const { return kHeaderFixedSize + slotSize; }
  SlotHead* lookaside() {
    return reinterpret_cast<SlotHead*>(reinterpret_cast<char*>(this) + kHeaderFixedSize);
  }
  SlotHead const* lookaside() const {
    return reinterpret_cast<SlotHead const*>(reinterpret_cast<char const*>(this) +
                                             kHeaderFixedSize);
  }
  // The lookaside slot's value bytes (valueSize of them).
  char* lookasideValue() { return valueBytes(lookaside()); }
  // The word at which a grow starts the slots it formats: above every word a
  // slot cut off by a compaction of this generation ever had. The writer's
  // alone; 0 after formatting.
  uint32_t& regrowthFloor() { return lookaside()->versionFlags; }
};

static_assert(offsetof(Header, magic) == 0);
static_assert(offsetof(Header, version) == 8);
static_assert(offsetof(Header, kestor) == 12);
static_assert(offsetof(Header, platform) == 16);
static_assert(offsetof(Header, valueType) == 20);
static_assert(offsetof(Header, valueSize) == 532);
static_assert(offsetof(Header, slotSize) == 536);
static_assert(offsetof(Header, maxSlots) == 540);
static_assert(offsetof(Header, constFlags) == 544);
static_assert(offsetof(Header, runtimeFlags) == 546);
static_assert(offsetof(Header, hash) == 548);
static_assert(offsetof(Header, occupiedSlots) == 552);
static_assert(offsetof(Header, freeSlots) == 556);
static_assert(offsetof(Header, mostSlots) == 560);
static_assert(offsetof(Header, hashSeed) == 564);
static_assert(offsetof(Header, numSlots) == 568);
static_assert(offsetof(Header, scratchpad) == 576);
static_assert(sizeof(Header) == kHeaderFixedSize);

}  // namespace SlotTable
}  // namespace Mirak
