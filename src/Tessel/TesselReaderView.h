// Tessel::TesselReaderView: a reader's read-only view of a change queue, and
// the walk over its live entries. The shadow's queue reader grows from it.
//
// Safety
// ------
// Writes: none; the files are mapped PROT_READ.
// Reads: the header's generation, current table index, base sequences and
// kestor, and the entries and count of one table, while the writer runs in
// another process. What may be stale: everything but what the generation
// proves. The rules (numbers refer to TesselWriter's invariants):
//   R1. An entry counts only if the generation, re-read after an acquire fence
//       that follows the entry's loads, equals the one under which the reader
//       found its place (writer invariant 4). Else the reader re-finds.
//   R2. A place is found by a binary search for the first entry above the
//       last consumed sequence in the current table, and is trusted only if
//       the generation stood still across the whole search. Generation and
//       table are read in one 8-byte load (writer invariant 4), so the table
//       searched is the one that belongs to the generation.
//   R3. The end of a table is the end of the queue only while that table is
//       still current: a reader whose table was left behind by a compaction
//       re-finds in the new one.
//   R5. At the end of the queue, and after each re-find, `lostSequence` above
//       the last consumed sequence means the writer issued a sequence that the
//       queue does not hold: the reader must sweep (overrun()). Each value of
//       `lostSequence` calls for one sweep only: the sweep starts after the
//       reader read that value (acquire), so it sees the slot whose change
//       was lost (the writer changed it before it stored the loss). The value
//       can stand beyond every sequence the reader may consume, for as long
//       as nobody writes: the writer stores lostSequence before sequence and
//       may die between the two, or the word is damaged. Reporting it again
//       after the sweep would sweep forever.
//   R4. Mappings are checked against the count before entries are read; a
//       count beyond the file while the generation stands is corruption.
// Nothing is lost (writer invariant 7): every change not yet consumed is a
// live entry above `lastConsumed()`, or R5 says so. `lastConsumed()` counts
// the entries consumed and the retired ones passed (a retired entry has a
// newer entry of its slot after it). An entry may be yielded twice (after a
// re-find); acting twice on a slot is harmless.
//
// Not thread safe; one thread per view.
#pragma once

#include <cstdint>
#include <string>

#include "Lomi/Trace.h"
#include "Mem/ParcelWrapper.h"
#include "Tessel/BasicSlot.h"
#include "Tessel/Sequence.h"
#include "Tessel/TesselFormat.h"

namespace Tessel {

class TesselReaderView {
 public:
  // `dir` is the table's directory (a reader never views a local queue).
  TesselReaderView(std::string dir, Lomi::Platform::DebugHandler& handler);
  TesselReaderView(TesselReaderView const&) = delete;
  TesselReaderView& operator=(TesselReaderView const&) = delete;
  ~TesselReaderView() = default;

  // Maps the three files read-only and checks the header's identification
  // against `kestor`. False with the reason in `error`; nothing stays mapped.
  // The position starts before the first entry.
  bool attach(uint32_t kestor, std::string& error);
  void detach();
  bool attached() const { return hdr_ != nullptr; }

  // The next entry yielded is the first live one above `after`; clears
  // overrun().
  void seek(Sequence after);
  // The last sequence the writer issued (its header word). Read before a
  // sweep: seek(it) after the sweep continues with the changes the sweep may
  // have missed.
  Sequence headSequence() const;

  // Yields the next live entry past the position and stands on it; false when
  // the reader has caught up, when the queue lost entries the reader had not
  // passed (overrun() is true: sweep, then seek), or when the queue was
  // re-formatted or removed (reformatted() is true: only a new attach and a
  // sweep help). Throws
  // Lomi::CorruptionDetectedException for a queue that is damaged while the
  // generation stands still (a count beyond the file, a bad table index, a
  // slot beyond mostSlots).
  bool next(TesselNotification& out);
  // The entry that next() yielded was taken in: lastConsumed() moves to it.
  void consumed();
  // It was rejected: if the generation moved, re-find from lastConsumed() (the
  // entry is met again if still live); else step on (it was tombstoned and a
  // newer entry of its slot follows).
  void rejected();
  // Whether the entry the reader stands on still counts: false if the
  // generation moved or it is a tombstone now. Throws
  // Lomi::CorruptionDetectedException "out-of-range index:{} max:{}" if the
  // position is not below the table's count while the generation stood.
  bool validateNotif();
  // The slot named by the entry `ahead` places past the one next() stands
  // on, as the table holds it now, without the generation check: a hint for
  // a prefetch, never a change. tombstoneSlot when there is no such entry
  // (past the count or the mapping, or no place found).
  uint32_t peekSlot(uint32_t ahead) const;

  Sequence lastConsumed() const { return lastConsumed_; }
  bool reformatted() const { return reformatted_; }
  bool overrun() const { return overrun_; }
  uint32_t generation() const { return gen_; }
  // Places re-found because the generation moved or the table was left behind.
  uint64_t refinds() const { return refinds_; }
  uint64_t primaryMappedSize() const { return tables_[table_].fileSize(); }
  uint64_t secondaryMappedSize() const { return tables_[table_ ^ 1u].fileSize(); }
  std::string const& dir() const { return dir_; }

 private:
  bool refind();
  bool lostSinceConsumed();
  bool ensureMapped(unsigned table, uint64_t entries);
  [[noreturn]] void corrupt(std::string const& what) const;

  std::string dir_;
  Lomi::Platform::DebugHandler& handler_;
  Mem::ParcelWrapper header_;
  Mem::ParcelWrapper tables_[2];
  TesselHeader const* hdr_ = nullptr;
  uint32_t kestor_ = 0;

  bool positioned_ = false;
  bool reformatted_ = false;
  bool overrun_ = false;
  uint32_t gen_ = 0;
  unsigned table_ = 0;
  Sequence base_ = 0;
  uint32_t pos_ = 0;
  uint32_t standing_ = 0;
  Sequence standingSeq_ = 0;
  Sequence lastConsumed_ = 0;
  // The lostSequence of the last overrun reported (R5); kept across seek(),
  // cleared by detach().
  Sequence lostSwept_ = 0;
  uint64_t refinds_ = 0;
};

// A point of the reader's rare path where a test may change the files: the
// count of the table read was below the position, and the generation has not
// been asked again yet (what two compactions between the reader's two loads
// look like). A plain pointer, tested only on that path: the walk's steady
// path never looks at it.
enum class ReaderStep { countBelowPosition };
extern void (*readerStepHook)(ReaderStep step);

}  // namespace Tessel
