// Tessel::TesselWriter: the writer side of a table's change queue. Every change
// of a slot appends (sequence, slot) to a notification table in shared files;
// readers walk that table to learn which slots to look at again.
//
// Safety
// ------
// Who writes: the table's one writer process, on its one thread, is the only
// one that stores into the queue's files. Nothing here takes a lock.
// Who reads: any number of reader processes map the files read-only and walk
// the current notification table (TesselReaderView, later the shadow's reader).
// The writer's own validator reads them too, while no write runs.
// What may be stale: a reader's idea of the current table, its position in
// it, and the entries it has read. The generation word tells it when: a reader
// reads an entry, then re-reads the generation; if that moved, the entry may
// be garbage and the reader re-finds its place by sequence.
//
// Invariants (numbered; the tests and the validator check them):
//   1. Sequences are issued 1, 2, 3, ...; `sequence` in the header is the last
//      one issued. Entries of each table are strictly ascending by sequence,
//      tombstones included.
//   2. Each slot has at most one live (non-tombstone) entry in the current
//      table, and its back reference `tesselSlots[slot]` names it; a slot
//      without a live entry has noTesselPos. Hence live entries never
//      outnumber mostSlots. (Inside an open corral, see markShrinkStart, the
//      validator asks that no entry be its slot's current one; that holds
//      only after markShrinkEnd, so an open corral fails validation: the
//      writer died inside a compaction of slots.)
//   3. An entry below a table's published `count` changes only once while
//      that table is current: its slot turns into tombstoneSlot. Its
//      `relSequence` never changes.
//   4. `generation` and `currentTable` move together, in one 8-byte store
//      (`generationAndTable`): a reader that reads a generation reads the
//      table that belongs to it. The writer stores into the non-current table
//      only in a compaction, after a release fence; the generation of that
//      table's readers has moved already, at the flip that left it behind.
//      So a reader that read an entry and then, after an acquire fence, finds
//      the generation under which it found its place read an entry of a
//      table that no one was rewriting.
//   5. `baseSequence[t]`, the entries and `count` of table t change only while
//      the writer fills t in a compaction (invariant 4), or by notify while t
//      is current (invariant 3 and appends above `count`).
//   6. The current table's stamp (`generation` at offset 0 of the table)
//      equals the header's `generation`. The stamp is stored before the flip;
//      a table whose stamp differs from the header's generation is not the
//      current one, and a current table whose stamp differs is damage.
//   7. Every change not yet taken in by a reader is a live entry with a
//      sequence above the last one that reader passed, or the reader learns
//      from `lostSequence` that it must sweep. Entries are retired only by a
//      newer entry of the same slot (notify, the re-issue that closes a
//      corral, or tombstone() followed by notify in a slot move); compaction
//      copies every live entry, except those that pruning drops (their
//      sequences are then at most `lostSequence`). A notify that the queue
//      cannot take (no room, no file space) raises `lostSequence` to its
//      sequence instead of throwing: the slot is already changed in the table,
//      so the change must not vanish silently.
//
// The compaction of the queue
// ---------------------------
// notify appends at `count`. When the current table is full, the writer
// compacts: it copies the live entries, in order, into the other table and
// makes that one current. Tombstones are dropped. The other table is where a
// slow reader may still be reading (it was current one compaction ago); that
// reader holds the generation of that time, one behind the header's, so
// whatever it reads from there fails its generation check:
//
//   step 1  grow the other table's file if need be (ftruncate, mremap); a
//           failure leaves the queue as it was
//   step 2  release fence; stamp (generation + 1), capacity, entries, count,
//           base, back references
//   step 3  (generation + 1, other) in one 8-byte store (release): the flip
//
// Between the steps a reader that re-finds its place reads the old pair and
// searches the old table, which nobody writes during a compaction: it is
// still the table that notify appends to until step 3.
//
// The other table gets twice the capacity if more than half of it would be
// live (counting the entries the caller is about to append), so after a
// compaction at least half of the table is free and the
// copying costs at most two entry copies per notify, amortised.
//
// Worked example, capacity 4, slots A and B, base 0:
//
//   table 0: (1,A) (2,B) (3,A) (4,A)      notify(A) at 3 tombstoned (1,A),
//          = (1,~) (2,B) (3,~) (4,A)      notify(A) at 4 tombstoned (3,A)
//   notify(B) finds table 0 full: 2 of 4 live, not more than half:
//   table 1: (2,B) (4,A), count 2, stamp 8, tesselSlots[A]=1, tesselSlots[B]=0
//     (generation, currentTable) = (7, 0) -> (8, 1)
//   table 1: (2,~) (4,A) (5,B)            the notify goes on in table 1
//
// A reader that stood at position 2 of table 0 with generation 7, having
// consumed sequence 2:
//   - if it reads (3,~) before the flip, the generation check passes, it skips
//     the tombstone, meets (4,A), acts, consumes 4; at the end of table 0 it
//     sees (8, 1), re-finds "first sequence above 4" in table 1 and meets
//     (5,B).
//   - if it reads after the flip, the generation check fails (8 != 7): it
//     re-finds "first sequence above 2" in table 1 and meets (4,A), then (5,B).
// Either way nothing is lost (invariant 7) and nothing is read from a table
// while the writer fills it (invariant 4). The guarantee has a limit: a reader
// that is lapped while it acts on an entry meets that entry again if it is
// still live. Acting twice on a slot is harmless: a notification means "look
// at slot n now", not "slot n became v".
//
// Sequences are kept relative to a per-table base in 32 bits. A compaction
// sets the new table's base to sequence - 2^31 (or 0); a live entry older than
// that is re-issued with a new sequence at the end of the new table, which is
// what a reader that meets it again needs to know anyway. notify compacts
// early if the next relative sequence would not fit.
//
// Corrals
// -------
// A compaction of the slot table moves entries between slots by notify(to),
// tombstone(from), notify(from). markShrinkStart() opens a corral at the next
// sequence; markShrinkEnd() re-issues every live entry issued inside the
// corral, in order, and closes it at the last sequence issued inside. After
// that every entry in [corralStart, corralEnd] is a tombstone, and the real
// positions of the moved entries follow it: the validator finds a closed
// corral empty of current entries and an open one (a crash) not.
//
// A reader needs no corral: in sequence order, the entry of a move's new slot
// comes before the entry that empties the old one, so the key is at its new
// place before the old place reads empty. The re-issue must keep that true at
// every instant. It runs in two passes: first every copy is appended without
// retiring anything (for a moment a moved slot has two live entries, both
// naming the same state), then the old entries are retired from the last to
// the first. A reader that finds an old entry retired finds every later old
// entry retired too (release stores, read in order after an acquire), skips
// them all and meets the copies in the old order; one that finds it live acts
// on it in the old order. No reader sees a move's old slot empty while the
// entry of its new slot is retired and its copy not yet there. If the queue
// has no room for the copies, the corral is dropped instead (both marks 0):
// its entries are then ordinary entries, each its slot's current one.
//
// Pruning
// -------
// In PruneMode::prune a compaction also drops live entries at or below the
// prune floor, the lowest sequence that every connected reader reported to
// have passed (the wake-up layer knows it); a reader that has not passed them
// (one that was not connected) finds `lostSequence` above its position and
// sweeps. In PruneMode::keep (the default) nothing live is ever dropped, and
// a table holds up to one live entry for every slot the table ever had.
//
// Hot path: notify and tombstone allocate nothing and do O(1) work; notify does
// O(capacity) work at a compaction, amortised O(1).
//
// Thread safety: not thread safe; one thread per writer object.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Atomics.h"
#include "Mem/ParcelWrapper.h"
#include "Tessel/BasicSlot.h"
#include "Tessel/Sequence.h"
#include "Tessel/TesselFormat.h"
#include "Mem/AttachResult.h"
#include "Tessel/TesselPos.h"

namespace Tessel {

using Mem::AttachResult;
using Mem::attachKept;
using Mem::attachNew;
using Mem::attachReformatted;

// Points of the rare paths where a test may pause the writer, look at the
// files with a reader, or make a growth fail. The hook is a plain pointer,
// tested only on those paths: notify's steady path never looks at it.
enum class WriterStep {
  compactionFilled,  // the other table is filled, the flip not yet stored
  tableGrowth,       // about to grow a table file: true from the hook fails it
  headerGrowth,      // about to grow the header file: true fails it
  corralCopied,      // the copies of a closing corral are appended, none retired
  corralRetired,     // one old corral entry was retired (called per entry)
  cleanupMarked,     // the header says "gone", the files are not removed yet
};
// Returns true to make a growth step fail as if the file could not grow.
extern bool (*writerStepHook)(WriterStep step);

static_assert(std::is_same_v<BasicSlot, uint32_t>, "a slot field is a u32");
static_assert(std::is_same_v<TesselPos, uint32_t>, "a back reference is a u32");

// The hot path (notify, tombstone and the append and room check under them)
// is defined inline at the end of this header, so that it compiles into the
// table writer's write, remove and move; everything else (attach, format,
// growth, compaction, corrals, pruning, validation, diagnostics) is in
// TesselWriter.cpp.
class TesselWriter {
 public:
  // A real queue: the validator walks it, the writer marks shrinks in it.
  static constexpr bool hasQueue = true;
  static constexpr TesselPos noPos = noTesselPos;

  // `dir` is the table's directory; empty means a local table in private
  // memory. Nothing is mapped until attach. `handler` must outlive this.
  TesselWriter(std::string dir, Lomi::Platform::DebugHandler& handler)
      : dir_(std::move(dir)),
        name_(dir_.empty() ? "local tessel" : "tessel " + dir_),
        handler_(handler),
        header_(headerFilePath(dir_)),
        tables_{Mem::ParcelWrapper(tableFilePath(dir_, 0)),
                Mem::ParcelWrapper(tableFilePath(dir_, 1))} {}
  TesselWriter(TesselWriter const&) = delete;
  TesselWriter& operator=(TesselWriter const&) = delete;
  ~TesselWriter() { detach(); }

  // Maps the queue's files and adopts them or formats them.
  // Returns attachNew (no header file: formatted), attachKept (same kestor,
  // sound: entries, sequences and back references kept; the back references
  // grow to `mostSlots` if they were shorter) or attachReformatted (another
  // kestor, or damage: formatted, traced at level 1 with the reason). A local
  // queue is always new. Throws Lomi::InvalidInitializeException if a file
  // cannot be mapped, Lomi::RuntimeException if `mostSlots` is too large.
  int attach(uint32_t kestor, uint32_t mostSlots);

  // Appends (next sequence, slot), retires the slot's previous live entry and
  // points the slot's back reference at the new entry. Call after the slot's
  // new state is fully in the table. Never throws for want of room: if the
  // queue cannot take the entry (a compaction or the back references cannot
  // grow), the sequence is issued without an entry and `lostSequence` rises
  // to it, so that readers sweep; traced at level 0, counted in losses().
  void notify(BasicSlot slot);

  // Retires the slot's live entry, if it has one, and clears its back
  // reference: the slot was emptied by a move, not by a removal.
  void tombstone(BasicSlot slot);

  // Opens a corral at the next sequence. Precondition: no shrink running.
  void markShrinkStart();
  // Re-issues the live entries of the corral and closes it (two passes, see
  // Corrals above); drops the corral if the queue has no room for the copies.
  // Precondition: markShrinkStart came first.
  void markShrinkEnd();
  // Non-zero exactly while a shrink runs (between the two marks).
  uint64_t shrinkMarker() const { return corralEnd() == 0 ? corralStart() : 0; }

  // Grows the back references to `mostSlots` (never shrinks them: mostSlots
  // is a high-water mark). False, traced at level 0, if the header file
  // cannot grow: the queue stays as it was, and a later notify of a slot
  // beyond it tries again (and counts a loss if it fails).
  bool mostSlotsIs(uint32_t mostSlots);

  // Pruning (see Pruning above). `floor` is asked at each compaction for the
  // lowest sequence every connected reader has passed; without one, or in
  // PruneMode::keep, nothing live is dropped.
  void pruneModeIs(PruneMode mode) { pruneMode_ = mode; }
  PruneMode pruneMode() const { return pruneMode_; }
  void pruneFloorIs(std::function<Sequence()> floor) { pruneFloor_ = std::move(floor); }

  // Unmaps; the files stay.
  void detach();
  // The table writer is detaching: the queue lets go of its mappings.
  void onDetach() { detach(); }
  // Marks the queue gone (kestor 0, generation moved: a reader that still
  // maps it re-finds, meets the dead kestor and re-attaches or sweeps), then
  // unmaps and removes the files. Throws Lomi::RuntimeException naming the
  // file if one exists and cannot be removed.
  void cleanup();

  // Checks the queue for `kestor` and a slot table of `mostSlots` slots:
  // identification, table stamps, sizes, ascending sequences, one live entry
  // per slot and back references that name their entries (invariants 1, 2,
  // 6). False with the first failure in `error` (traced at level 0).
  bool validate(uint32_t kestor, uint32_t mostSlots, std::string& error) const;

  // Checks that the files exist in sane form, by a read-only mapping of its
  // own. Throws Lomi::CorruptionDetectedException naming the file and the
  // problem. True for a local queue.
  bool validateFile() const;

  // Readers of that name that reported themselves quiesced. The wake-up layer
  // keeps that account; the queue itself knows none, so: 0.
  uint32_t clientQuiesced(std::string const& name) const {
    (void)name;
    return 0;
  }

  // What the validator and tests read. Defined while attached.
  bool attached() const { return hdr_ != nullptr; }
  uint32_t entryCount() const { return count_; }
  uint32_t entryCapacity() const { return capacity_; }
  // Entry `pos` of the current table. Throws Lomi::CorruptionDetectedException
  // if `pos` is not below entryCount().
  TesselNotification entry(uint32_t pos) const;
  Sequence baseSequence() const { return base_; }
  Sequence sequence() const { return sequence_; }
  TesselPos tesselSlots(BasicSlot slot) const {
    return slot < mostSlots_ ? Mem::loadRelaxed(back_[slot]) : noPos;
  }
  uint32_t mostSlots() const { return mostSlots_; }
  uint64_t corralStart() const { return hdr_ ? Mem::loadRelaxed(hdr_->corralStart) : 0; }
  uint64_t corralEnd() const { return hdr_ ? Mem::loadRelaxed(hdr_->corralEnd) : 0; }
  uint64_t lostSequence() const { return hdr_ ? Mem::loadRelaxed(hdr_->lostSequence) : 0; }
  // Notifications issued without an entry by this object, and live entries
  // dropped by pruning (not kept in the files).
  uint64_t losses() const { return losses_; }
  uint64_t pruned() const { return pruned_; }
  uint32_t generation() const { return hdr_ ? Mem::loadRelaxed(hdr_->generation) : 0; }
  unsigned currentTable() const { return current_; }
  uint32_t kestor() const { return hdr_ ? Mem::loadRelaxed(hdr_->kestor) : 0; }
  // Compactions done by this object (not kept in the files).
  uint64_t compactions() const { return compactions_; }
  uint64_t headerMappedSize() const { return header_.fileSize(); }
  uint64_t primaryMappedSize() const { return tables_[current_].fileSize(); }
  uint64_t secondaryMappedSize() const { return tables_[current_ ^ 1u].fileSize(); }
  std::string const& dir() const { return dir_; }
  // "tessel <dir>" or "local tessel", for messages.
  // Built once: compaction names the queue in its size checks, and the
  // steady-state path must not allocate.
  std::string const& name() const { return name_; }
  std::string headersToString() const;

 private:
  void format(uint32_t kestor, uint32_t mostSlots);
  bool adopt(uint32_t kestor, uint32_t mostSlots, std::string& why);
  void refresh();
  void loadState();
  bool ensureRoom(uint32_t reserve);
  TesselPos append(BasicSlot slot, bool retire);
  bool compact(uint32_t reserve);
  void lose(BasicSlot slot, char const* why);
  bool grow(Mem::ParcelWrapper& w, uint64_t bytes, WriterStep step);
  void flip(uint32_t generation, unsigned table);
  void* mapOrThrow(Mem::ParcelWrapper& w, uint64_t size);
  uint32_t firstAtOrAfter(Sequence seq) const;

  std::string dir_;
  std::string name_;
  Lomi::Platform::DebugHandler& handler_;
  Mem::ParcelWrapper header_;
  Mem::ParcelWrapper tables_[2];

  // Pointers into the mappings; refreshed after every remap.
  TesselHeader* hdr_ = nullptr;
  TesselPos* back_ = nullptr;
  TesselTableHeader* tbl_[2] = {nullptr, nullptr};

  // Private copies of the writer's own words (it is their only writer).
  unsigned current_ = 0;
  uint32_t count_ = 0;
  uint32_t capacity_ = 0;
  Sequence base_ = 0;
  Sequence sequence_ = 0;
  uint32_t mostSlots_ = 0;
  uint64_t compactions_ = 0;
  uint64_t losses_ = 0;
  uint64_t pruned_ = 0;
  PruneMode pruneMode_ = PruneMode::keep;
  std::function<Sequence()> pruneFloor_;
};

// ---------------------------------------------------------------------------
// The hot path, inline.

inline void TesselWriter::notify(BasicSlot slot) {
  if (slot >= mostSlots_) [[unlikely]] {
    // The table grew and the back references could not follow then; try
    // again, to at least twice the old length so that this stays rare.
    uint64_t const want = std::max<uint64_t>(uint64_t{slot} + 1, uint64_t{mostSlots_} * 2);
    if (slot == tombstoneSlot || !mostSlotsIs(static_cast<uint32_t>(
                                     std::min<uint64_t>(want, uint64_t{tombstoneSlot})))) {
      lose(slot, "beyond mostSlots");
      return;
    }
  }
  if (!ensureRoom(1)) {
    lose(slot, "no room");
    return;
  }
  append(slot, true);
}

inline bool TesselWriter::ensureRoom(uint32_t reserve) {
  if (uint64_t{count_} + reserve > capacity_ || sequence_ + reserve - base_ > 0xffffffffull) {
    return compact(reserve);
  }
  return true;
}

// Store order of notify (the count is the publication):
//   1: the new entry above `count`      (readers do not look there yet)
//   2: tombstone of the slot's previous live entry (release)
//   3: the slot's back reference
//   4: header `sequence` (release)
//   5: `count` + 1 (release): the entry is published
// Between 2 and 5 a reader finds the slot's old entry retired and its new one
// not yet there: it skips the old one and, at the end, finds nothing more. It
// misses nothing: the writer's wake-up follows notify, and the reader walks
// again from the old entry's sequence.
// Without `retire` (the corral's first pass), step 2 is left out.
inline TesselPos TesselWriter::append(BasicSlot slot, bool retire) {
  Sequence const seq = sequence_ + 1;
  TesselEntry* entries = tableEntries(tbl_[current_]);
  TesselEntry& e = entries[count_];
  // 1: the entry, invisible until step 5.
  Mem::storeRelaxed(e.relSequence, static_cast<uint32_t>(seq - base_));
  Mem::storeRelaxed(e.slot, slot);
  TesselPos const old = Mem::loadRelaxed(back_[slot]);
  if (retire && old != noPos) {
    // 2: release, so that a reader that sees anything stored after this (the
    //    slot's next state in the slot file, the new count) sees the tombstone.
    Mem::storeRelease(entries[old].slot, tombstoneSlot);
  }
  // 3: only the writer and its validator read back references.
  Mem::storeRelaxed(back_[slot], count_);
  // 4: before the count, so that no published entry is beyond the header's
  //    last sequence issued (the validator's invariant 1).
  Mem::storeRelease(hdr_->sequence, seq);
  // 5: the entry is published.
  Mem::storeRelease(tbl_[current_]->count, count_ + 1);
  sequence_ = seq;
  count_++;
  FMTRACE(handler_, 9, "TesselWriter", "seq:{} slot:{} pos:{} retired:{}", seq, slot, count_ - 1,
          retire ? old : noPos);
  return old;
}

inline void TesselWriter::tombstone(BasicSlot slot) {
  if (slot >= mostSlots_) return;
  TesselPos const old = Mem::loadRelaxed(back_[slot]);
  if (old == noPos) return;
  // 1: the tombstone (release, as in notify step 2); 2: the back reference.
  Mem::storeRelease(tableEntries(tbl_[current_])[old].slot, tombstoneSlot);
  Mem::storeRelaxed(back_[slot], noPos);
  FMTRACE(handler_, 9, "TesselWriter", "slot:{} pos:{}", slot, old);
}

}  // namespace Tessel
