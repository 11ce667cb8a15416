// The on-disk format of the change queue: one header file and two
// notification tables, shared by the writer (TesselWriter) and its readers.
//
// Files, in the table's directory:
//
//   "tessel"    the header and the back references
//   "tessel.0"  notification table 0
//   "tessel.1"  notification table 1
//
// Header file ("tessel"), all integers little-endian, natural alignment:
//
//   struct TesselHeader {            // offset
//     char     magic[8];             //   0  "TESSELQ\0"
//     uint32_t formatVersion;        //   8  kFormatVersion
//     uint32_t kestor;               //  12  restart generation of the table
//     uint64_t sequence;             //  16  last sequence issued, 0 = none
//     uint64_t baseSequence[2];      //  24  base of table 0's / table 1's
//                                    //      relative sequences
//     uint32_t generation;           //  40  +1 at each compaction, stored
//     uint32_t currentTable;         //  44  with the index of the table that
//                                    //      notify appends to (0 or 1) in one
//                                    //      8-byte store: a reader that sees
//                                    //      a generation sees its table
//     uint64_t corralStart;          //  48  first sequence of the last shrink's
//                                    //      corral, 0 = none
//     uint64_t corralEnd;            //  56  its last sequence; 0 while the
//                                    //      shrink runs (open corral)
//     uint32_t mostSlots;            //  64  length of tesselSlots
//     uint32_t reserved0;            //  68  zero
//     uint64_t lostSequence;         //  72  last sequence the writer issued
//                                    //      without an entry (the queue could
//                                    //      not take it, or pruning dropped
//                                    //      it): a reader that has consumed
//                                    //      less must sweep; 0 = none
//     uint8_t  reserved[48];         //  80  zero
//     TesselPos tesselSlots[mostSlots]; // 128  back reference of each slot
//   };
//
// Notification table file ("tessel.N"):
//
//   struct TesselTableHeader {       // offset
//     uint32_t generation;           //   0  header generation when this table
//                                    //      was filled; equals the header's
//                                    //      generation while it is current
//     uint32_t capacity;             //   4  entries the table can hold
//     uint32_t count;                //   8  entries in use, published last
//   };
//   struct TesselEntry {             // at 12 + 8 * i
//     uint32_t relSequence;          //   0  sequence - baseSequence[N]
//     uint32_t slot;                 //   4  BasicSlot, or tombstoneSlot
//   };
//
// Entries lie at 12 + 8 * i, so they are 4-aligned but not 8-aligned and an
// entry may straddle a cache line: an entry is never read or written as one
// 8-byte word. It does not need to be: `relSequence` never changes while the
// entry is in a table that readers may treat as current, and `slot` changes
// only once, from a slot index to tombstoneSlot. Each word is read and written
// alone, with single-copy atomicity of an aligned u32.
//
// Files may be longer than their content needs (a shrink never shortens a
// file that readers map). Sizes are whole pages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Tessel/BasicSlot.h"
#include "Tessel/Sequence.h"
#include "Tessel/TesselPos.h"

namespace Tessel {

inline constexpr char kMagic[8] = {'T', 'E', 'S', 'S', 'E', 'L', 'Q', '\0'};
inline constexpr uint32_t kFormatVersion = 1;

inline constexpr char const* kHeaderFileName = "tessel";
inline constexpr char const* kTableFileNames[2] = {"tessel.0", "tessel.1"};

// A new table holds max(kMinEntries, mostSlots) entries.
inline constexpr uint32_t kMinEntries = 64;
// The files keep their sizes in 32 bits.
inline constexpr uint64_t kMaxFileSize = 0xffffffffull;

struct TesselHeader {
  char magic[8];
  uint32_t formatVersion;
  uint32_t kestor;
  uint64_t sequence;
  uint64_t baseSequence[2];
  // The pair is one 8-byte word to whoever publishes or re-finds a table;
  // each half is a u32 to everyone else.
  union {
    struct {
      uint32_t generation;
      uint32_t currentTable;
    };
    uint64_t generationAndTable;
  };
  uint64_t corralStart;
  uint64_t corralEnd;
  uint32_t mostSlots;
  uint32_t reserved0;
  uint64_t lostSequence;
  uint8_t reserved[48];

  TesselPos* tesselSlots() { return reinterpret_cast<TesselPos*>(this + 1); }
  TesselPos const* tesselSlots() const { return reinterpret_cast<TesselPos const*>(this + 1); }
};

// The reader locates everything through these offsets; a change is a new
// format version. generation at 40 is fixed by the readers of other versions.
static_assert(sizeof(TesselHeader) == 128, "back references start at 128");
static_assert(offsetof(TesselHeader, magic) == 0);
static_assert(offsetof(TesselHeader, formatVersion) == 8);
static_assert(offsetof(TesselHeader, kestor) == 12);
static_assert(offsetof(TesselHeader, sequence) == 16);
static_assert(offsetof(TesselHeader, baseSequence) == 24);
static_assert(offsetof(TesselHeader, generation) == 40);
static_assert(offsetof(TesselHeader, currentTable) == 44);
static_assert(offsetof(TesselHeader, corralStart) == 48);
static_assert(offsetof(TesselHeader, corralEnd) == 56);
static_assert(offsetof(TesselHeader, mostSlots) == 64);
static_assert(offsetof(TesselHeader, lostSequence) == 72);
static_assert(offsetof(TesselHeader, generationAndTable) == 40);

// The halves of generationAndTable (little-endian: generation is the low one).
inline uint64_t generationAndTableOf(uint32_t generation, uint32_t table) {
  return uint64_t{table} << 32 | generation;
}
inline uint32_t generationOf(uint64_t word) { return static_cast<uint32_t>(word); }
inline uint32_t tableOf(uint64_t word) { return static_cast<uint32_t>(word >> 32); }
static_assert(sizeof(TesselPos) == 4);

struct TesselTableHeader {
  uint32_t generation;
  uint32_t capacity;
  uint32_t count;
};

struct TesselEntry {
  uint32_t relSequence;
  uint32_t slot;
};

// Capacity at 4, count at 8, entry i at 12 + 8 * i: readers of the shadow side
// and the validator locate them so.
static_assert(sizeof(TesselTableHeader) == 12);
static_assert(offsetof(TesselTableHeader, generation) == 0);
static_assert(offsetof(TesselTableHeader, capacity) == 4);
static_assert(offsetof(TesselTableHeader, count) == 8);
static_assert(sizeof(TesselEntry) == 8);
static_assert(alignof(TesselEntry) == 4, "entries lie at 12 + 8 * i");
static_assert(offsetof(TesselEntry, relSequence) == 0);
static_assert(offsetof(TesselEntry, slot) == 4);

inline TesselEntry* tableEntries(TesselTableHeader* t) {
  return reinterpret_cast<TesselEntry*>(t + 1);
}
inline TesselEntry const* tableEntries(TesselTableHeader const* t) {
  return reinterpret_cast<TesselEntry const*>(t + 1);
}

// Whether a writer's compaction may drop live entries that every connected
// reader has passed (see TesselWriter, Pruning).
enum class PruneMode : bool { prune = false, keep = true };

// One notification as the writer and readers hand it out.
struct TesselNotification {
  Sequence sequence = 0;
  BasicSlot slot = tombstoneSlot;

  bool isTombstone() const { return slot == tombstoneSlot; }
  friend bool operator==(TesselNotification const&, TesselNotification const&) = default;
};

// Bytes of a header file with `mostSlots` back references, page-rounded.
// Throws Lomi::RuntimeException naming `what` if it exceeds kMaxFileSize.
uint64_t headerFileSize(uint64_t mostSlots, std::string const& what);
// Bytes of a table file with `capacity` entries, page-rounded; same failure.
uint64_t tableFileSize(uint64_t capacity, std::string const& what);

// Full names of the queue's files in `dir` (empty `dir`: empty names, i.e.
// private memory).
std::string headerFilePath(std::string const& dir);
std::string tableFilePath(std::string const& dir, unsigned table);

// One-line dump of a header: "magic:... version:... kestor:... ...".
std::string headerToString(TesselHeader const& h);
// One-line dump of a table header.
std::string tableHeaderToString(TesselTableHeader const& t);

}  // namespace Tessel
