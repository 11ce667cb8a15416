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
#include "Tessel/TesselPos.h"

namespace Tessel {

// Attach results, shared with the slot and bucket files: the writer ORs them
// and trusts a set of files only if all are new or all are kept.
enum AttachResult : int { attachNew = 1, attachKept = 2, attachReformatted = 4 };

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

template <typename Slot = BasicSlot, typename Pos = TesselPos>
class TesselWriter {
  static_assert(std::is_same_v<Slot, uint32_t>, "a slot field is a u32");
  static_assert(std::is_same_v<Pos, uint32_t>, "a back reference is a u32");

 public:
  // A real queue: the validator walks it, the writer marks shrinks in it.
  static constexpr bool hasQueue = true;
  static constexpr Pos noPos = noTesselPos;

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
  void notify(Slot slot);

  // Retires the slot's live entry, if it has one, and clears its back
  // reference: the slot was emptied by a move, not by a removal.
  void tombstone(Slot slot);

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
  Pos tesselSlots(Slot slot) const {
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
  Pos append(Slot slot, bool retire);
  bool compact(uint32_t reserve);
  void lose(Slot slot, char const* why);
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
  Pos* back_ = nullptr;
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
// Implementation.

template <typename Slot, typename Pos>
void* TesselWriter<Slot, Pos>::mapOrThrow(Mem::ParcelWrapper& w, uint64_t size) {
  void* p = w.attach(size, Mem::ParcelWrapper::Mode::ReadWrite);
  if (!p) {
    throw Lomi::InvalidInitializeException("cannot attach to shmem {} size:{}: {}",
                                           w.local() ? name() : w.getFilename(), size,
                                           w.lastError());
  }
  return p;
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::refresh() {
  hdr_ = static_cast<TesselHeader*>(header_.base());
  back_ = hdr_ ? hdr_->tesselSlots() : nullptr;
  for (unsigned t = 0; t < 2; t++) tbl_[t] = static_cast<TesselTableHeader*>(tables_[t].base());
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::loadState() {
  current_ = Mem::loadRelaxed(hdr_->currentTable);
  count_ = Mem::loadRelaxed(tbl_[current_]->count);
  capacity_ = Mem::loadRelaxed(tbl_[current_]->capacity);
  base_ = Mem::loadRelaxed(hdr_->baseSequence[current_]);
  sequence_ = Mem::loadRelaxed(hdr_->sequence);
  mostSlots_ = Mem::loadRelaxed(hdr_->mostSlots);
}

template <typename Slot, typename Pos>
int TesselWriter<Slot, Pos>::attach(uint32_t kestor, uint32_t mostSlots) {
  FMTRACE(handler_, 5, "TesselWriter", "{} kestor:{:#x} mostSlots:{}", name(), kestor, mostSlots);
  detach();
  if (dir_.empty() || header_.memSize() == 0) {
    format(kestor, mostSlots);
    FMTRACE(handler_, 2, "TesselWriter", "{} formatted new, mostSlots:{}", name(), mostSlots);
    return attachNew;
  }
  std::string why;
  if (adopt(kestor, mostSlots, why)) {
    FMTRACE(handler_, 2, "TesselWriter", "{} kept, sequence:{} entries:{}", name(), sequence_,
            count_);
    return attachKept;
  }
  FMTRACE(handler_, 1, "TesselWriter", "{} re-formatting: {}", name(), why);
  detach();
  format(kestor, mostSlots);
  return attachReformatted;
}

template <typename Slot, typename Pos>
bool TesselWriter<Slot, Pos>::adopt(uint32_t kestor, uint32_t mostSlots, std::string& why) {
  uint64_t const headerBytes = header_.memSize();
  if (headerBytes < sizeof(TesselHeader)) {
    why = fmt::format("header file holds {} bytes", headerBytes);
    return false;
  }
  for (unsigned t = 0; t < 2; t++) {
    if (tables_[t].memSize() < sizeof(TesselTableHeader)) {
      why = fmt::format("table file {} holds {} bytes", tables_[t].getFilename(),
                        tables_[t].memSize());
      return false;
    }
  }
  mapOrThrow(header_, headerBytes);
  for (unsigned t = 0; t < 2; t++) mapOrThrow(tables_[t], tables_[t].memSize());
  refresh();
  uint32_t const found = Mem::loadRelaxed(hdr_->kestor);
  if (std::memcmp(hdr_->magic, kMagic, sizeof kMagic) == 0 &&
      Mem::loadRelaxed(hdr_->formatVersion) == kFormatVersion && found != kestor) {
    why = fmt::format("kestor:{:#x} differs from {:#x}", found, kestor);
    return false;
  }
  if (!validate(kestor, 0, why)) return false;
  loadState();
  // The files may be longer than the content needs: keep the whole mapping.
  // If the back references cannot grow now, notify tries again.
  if (mostSlots > mostSlots_) (void)mostSlotsIs(mostSlots);
  return true;
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::format(uint32_t kestor, uint32_t mostSlots) {
  uint32_t const capacity = std::max(kMinEntries, mostSlots);
  uint64_t const headerBytes = headerFileSize(mostSlots, name());
  uint64_t const tableBytes = tableFileSize(capacity, name());
  mapOrThrow(header_, headerBytes);
  for (unsigned t = 0; t < 2; t++) mapOrThrow(tables_[t], tableBytes);
  refresh();
  // Store order of a format over files that readers of the old kestor may map:
  // 1: generation + 1 before anything else (release fence), so that a reader
  //    that reads any of the stores below sees its generation move;
  // 2: everything else; the magic last, so a half-formatted file is not ours;
  // 3: generation + 1 again (release): a reader that re-found its place in
  //    the half-formatted queue under the first step's generation sees a
  //    second move, re-finds again and then meets the new kestor.
  uint32_t const generation = Mem::loadRelaxed(hdr_->generation) + 2;
  Mem::storeRelaxed(hdr_->generation, generation - 1);
  Mem::releaseFence();
  // 2
  Mem::storeRelaxed(hdr_->magic[0], '\0');
  Mem::storeRelaxed(hdr_->formatVersion, kFormatVersion);
  Mem::storeRelaxed(hdr_->kestor, kestor);
  Mem::storeRelaxed(hdr_->sequence, uint64_t{0});
  Mem::storeRelaxed(hdr_->baseSequence[0], uint64_t{0});
  Mem::storeRelaxed(hdr_->baseSequence[1], uint64_t{0});
  Mem::storeRelaxed(hdr_->corralStart, uint64_t{0});
  Mem::storeRelaxed(hdr_->corralEnd, uint64_t{0});
  Mem::storeRelaxed(hdr_->mostSlots, mostSlots);
  Mem::storeRelaxed(hdr_->reserved0, 0u);
  Mem::storeRelaxed(hdr_->lostSequence, uint64_t{0});
  std::memset(hdr_->reserved, 0, sizeof hdr_->reserved);
  for (uint32_t s = 0; s < mostSlots; s++) Mem::storeRelaxed(back_[s], noPos);
  for (unsigned t = 0; t < 2; t++) {
    // Table 1 is not current; its stamp means nothing until it is filled.
    Mem::storeRelaxed(tbl_[t]->generation, t == 0 ? generation : 0u);
    Mem::storeRelaxed(tbl_[t]->capacity, capacity);
    Mem::storeRelaxed(tbl_[t]->count, 0u);
  }
  Mem::releaseFence();
  for (size_t i = 0; i < sizeof kMagic; i++) Mem::storeRelaxed(hdr_->magic[i], kMagic[i]);
  // 3: with table 0 as the current one.
  flip(generation, 0);
  loadState();
  compactions_ = 0;
}

template <typename Slot, typename Pos>
bool TesselWriter<Slot, Pos>::grow(Mem::ParcelWrapper& w, uint64_t bytes, WriterStep step) {
  if (writerStepHook && writerStepHook(step)) {
    FMTRACE(handler_, 0, "TesselWriter", "{}: growth of {} to {} bytes failed: injected", name(),
            w.getFilename(), bytes);
    return false;
  }
  if (!w.resize(bytes)) {
    FMTRACE(handler_, 0, "TesselWriter", "{}: failed to resize {} to size {} : {}", name(),
            w.local() ? name() : w.getFilename(), bytes, w.lastError());
    return false;
  }
  refresh();
  return true;
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::flip(uint32_t generation, unsigned table) {
  Mem::storeRelease(hdr_->generationAndTable, generationAndTableOf(generation, table));
}

template <typename Slot, typename Pos>
bool TesselWriter<Slot, Pos>::mostSlotsIs(uint32_t mostSlots) {
  if (!hdr_ || mostSlots <= mostSlots_) return true;
  uint64_t bytes = 0;
  try {
    bytes = headerFileSize(mostSlots, name());
  } catch (Lomi::RuntimeException const& e) {
    FMTRACE(handler_, 0, "TesselWriter", "{}", e.msg());
    return false;
  }
  if (bytes > header_.fileSize() && !grow(header_, bytes, WriterStep::headerGrowth)) return false;
  // Store order: 1: the new back references, 2: mostSlots (release), so that
  // whoever reads mostSlots finds the references behind it initialised.
  for (uint32_t s = mostSlots_; s < mostSlots; s++) Mem::storeRelaxed(back_[s], noPos);
  Mem::storeRelease(hdr_->mostSlots, mostSlots);
  FMTRACE(handler_, 2, "TesselWriter", "{} mostSlots {} -> {}", name(), mostSlots_, mostSlots);
  mostSlots_ = mostSlots;
  return true;
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::notify(Slot slot) {
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

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::lose(Slot slot, char const* why) {
  Sequence const seq = sequence_ + 1;
  // Store order: 1: lostSequence, 2: sequence (both release). A reader that
  // is woken for this sequence and walks to the end finds the loss.
  Mem::storeRelease(hdr_->lostSequence, seq);
  Mem::storeRelease(hdr_->sequence, seq);
  sequence_ = seq;
  // Once, then every 4096th: a full queue on a full disk loses every notify.
  if (losses_++ % 4096 == 0) {
    FMTRACE(handler_, 0, "TesselWriter",
            "{}: notification of slot:{} seq:{} lost ({}): readers will sweep; {} lost so far",
            name(), slot, seq, why, losses_);
  }
}

template <typename Slot, typename Pos>
bool TesselWriter<Slot, Pos>::ensureRoom(uint32_t reserve) {
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
template <typename Slot, typename Pos>
Pos TesselWriter<Slot, Pos>::append(Slot slot, bool retire) {
  Sequence const seq = sequence_ + 1;
  TesselEntry* entries = tableEntries(tbl_[current_]);
  TesselEntry& e = entries[count_];
  // 1: the entry, invisible until step 5.
  Mem::storeRelaxed(e.relSequence, static_cast<uint32_t>(seq - base_));
  Mem::storeRelaxed(e.slot, slot);
  Pos const old = Mem::loadRelaxed(back_[slot]);
  if (retire && old != noPos) {
    // 2: release, so that a reader that sees anything stored after this (the
    //    slot's next state in the slot file, the new count) sees the tombstone.
    Mem::storeRelease(entries[old].slot, tombstoneSlot);
  }
  // 3: only the writer and its validator read back references.
  Mem::storeRelaxed(back_[slot], count_);
  // 4
  Mem::storeRelease(hdr_->sequence, seq);
  // 5
  Mem::storeRelease(tbl_[current_]->count, count_ + 1);
  sequence_ = seq;
  count_++;
  FMTRACE(handler_, 9, "TesselWriter", "seq:{} slot:{} pos:{} retired:{}", seq, slot, count_ - 1,
          retire ? old : noPos);
  return old;
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::tombstone(Slot slot) {
  if (slot >= mostSlots_) return;
  Pos const old = Mem::loadRelaxed(back_[slot]);
  if (old == noPos) return;
  // 1: the tombstone (release, as in notify step 2); 2: the back reference.
  Mem::storeRelease(tableEntries(tbl_[current_])[old].slot, tombstoneSlot);
  Mem::storeRelaxed(back_[slot], noPos);
  FMTRACE(handler_, 9, "TesselWriter", "slot:{} pos:{}", slot, old);
}

// The steps and what a reader sees between them: see "The compaction of the
// queue" at the top. False, with the queue untouched, if the other table
// cannot be made large enough.
template <typename Slot, typename Pos>
bool TesselWriter<Slot, Pos>::compact(uint32_t reserve) {
  unsigned const cur = current_;
  unsigned const oth = cur ^ 1u;
  Sequence const next = sequence_ + 1;
  // Entries older than 2^31 sequences are re-issued so that relative
  // sequences keep fitting in 32 bits.
  Sequence const newBase = next > (uint64_t{1} << 31) ? next - (uint64_t{1} << 31) : 0;
  Sequence const floor =
      pruneMode_ == PruneMode::prune && pruneFloor_ ? std::min(pruneFloor_(), sequence_) : 0;
  TesselEntry const* from = tableEntries(tbl_[cur]);
  uint64_t live = 0;
  uint64_t ancient = 0;
  for (uint32_t p = 0; p < count_; p++) {
    if (Mem::loadRelaxed(from[p].slot) == tombstoneSlot) continue;
    Sequence const seq = base_ + Mem::loadRelaxed(from[p].relSequence);
    if (seq <= floor) continue;
    live++;
    if (seq < newBase) ancient++;
  }
  // A damaged capacity of 0 would never double: start from the least a
  // format gives.
  uint64_t capacity = std::max(capacity_, kMinEntries);
  while (live + reserve > capacity / 2) capacity *= 2;
  capacity = std::min<uint64_t>(capacity, 0xffffffffull);
  if (live + reserve > capacity) return false;
  // Step 1: room in the other table (never shrink: readers may map its tail).
  // If the file cannot grow, what it holds will do when the entries fit.
  uint64_t bytes = 0;
  try {
    bytes = tableFileSize(capacity, name());
  } catch (Lomi::RuntimeException const& e) {
    FMTRACE(handler_, 0, "TesselWriter", "{}", e.msg());
    bytes = kMaxFileSize + 1;
  }
  if (bytes > tables_[oth].fileSize() && !grow(tables_[oth], bytes, WriterStep::tableGrowth)) {
    uint64_t const size = tables_[oth].fileSize();
    uint64_t const held =
        size < sizeof(TesselTableHeader) ? 0 : (size - sizeof(TesselTableHeader)) / sizeof(TesselEntry);
    if (live + reserve > held) return false;
    capacity = std::min<uint64_t>(held, 0xffffffffull);
  }
  from = tableEntries(tbl_[cur]);
  uint32_t const generation = Mem::loadRelaxed(hdr_->generation) + 1;
  // Step 2: fill the other table. The fence orders every earlier store (the
  // flip that left this table behind among them) before the stores below.
  Mem::releaseFence();
  TesselTableHeader* to = tbl_[oth];
  TesselEntry* toEntries = tableEntries(to);
  Mem::storeRelaxed(to->generation, generation);
  Mem::storeRelaxed(to->capacity, static_cast<uint32_t>(capacity));
  uint32_t n = 0;
  Sequence prunedUpTo = 0;
  for (uint32_t p = 0; p < count_; p++) {
    uint32_t const s = Mem::loadRelaxed(from[p].slot);
    if (s == tombstoneSlot) continue;
    Sequence const seq = base_ + Mem::loadRelaxed(from[p].relSequence);
    if (seq <= floor) {
      Mem::storeRelaxed(back_[s], noPos);
      prunedUpTo = seq;
      pruned_++;
      continue;
    }
    if (seq < newBase) continue;
    Mem::storeRelaxed(toEntries[n].relSequence, static_cast<uint32_t>(seq - newBase));
    Mem::storeRelaxed(toEntries[n].slot, s);
    Mem::storeRelaxed(back_[s], n);
    n++;
  }
  if (ancient != 0) {
    for (uint32_t p = 0; p < count_; p++) {
      uint32_t const s = Mem::loadRelaxed(from[p].slot);
      Sequence const old = base_ + Mem::loadRelaxed(from[p].relSequence);
      if (s == tombstoneSlot || old <= floor || old >= newBase) continue;
      Sequence const seq = ++sequence_;
      Mem::storeRelaxed(toEntries[n].relSequence, static_cast<uint32_t>(seq - newBase));
      Mem::storeRelaxed(toEntries[n].slot, s);
      Mem::storeRelaxed(back_[s], n);
      n++;
    }
    Mem::storeRelease(hdr_->sequence, sequence_);
  }
  Mem::storeRelaxed(to->count, n);
  Mem::storeRelaxed(hdr_->baseSequence[oth], newBase);
  if (prunedUpTo > Mem::loadRelaxed(hdr_->lostSequence)) {
    Mem::storeRelaxed(hdr_->lostSequence, prunedUpTo);
  }
  if (writerStepHook) writerStepHook(WriterStep::compactionFilled);
  // Step 3: the flip. Release: a reader that reads the new pair (acquire)
  // sees the whole table, its base and lostSequence.
  flip(generation, oth);

  FMTRACE(handler_, 5, "TesselWriter",
          "{} compacted {} entries to {} live ({} re-issued, pruned to {}), capacity {} -> {}, "
          "generation:{}",
          name(), count_, n, ancient, prunedUpTo, capacity_, capacity, generation);
  current_ = oth;
  count_ = n;
  capacity_ = static_cast<uint32_t>(capacity);
  base_ = newBase;
  compactions_++;
  return true;
}

template <typename Slot, typename Pos>
uint32_t TesselWriter<Slot, Pos>::firstAtOrAfter(Sequence seq) const {
  TesselEntry const* entries = tableEntries(tbl_[current_]);
  uint32_t lo = 0;
  uint32_t hi = count_;
  while (lo < hi) {
    uint32_t const mid = lo + (hi - lo) / 2;
    if (base_ + Mem::loadRelaxed(entries[mid].relSequence) < seq) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return lo;
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::markShrinkStart() {
  FMASSERT(shrinkMarker() == 0, handler_, "TesselWriter",
           "{}: markShrinkStart while a shrink runs since sequence:{}", name(), shrinkMarker());
  // 1: close the old corral's end first, 2: then move its start (release): a
  //    reader between the two sees an open corral from the old start, which
  //    only takes in more entries than needed.
  Mem::storeRelaxed(hdr_->corralEnd, uint64_t{0});
  Mem::storeRelease(hdr_->corralStart, sequence_ + 1);
  FMTRACE(handler_, 5, "TesselWriter", "{} corral opens at sequence:{}", name(), sequence_ + 1);
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::markShrinkEnd() {
  uint64_t const start = shrinkMarker();
  FMASSERT(start != 0, handler_, "TesselWriter", "{}: markShrinkEnd without markShrinkStart",
           name());
  Sequence const last = sequence_;
  if (last < start) {
    // Nothing was issued inside: no corral at all.
    Mem::storeRelease(hdr_->corralStart, uint64_t{0});
    FMTRACE(handler_, 5, "TesselWriter", "{} empty corral at sequence:{}", name(), start);
    return;
  }
  TesselEntry const* entries = tableEntries(tbl_[current_]);
  uint32_t live = 0;
  for (uint32_t p = firstAtOrAfter(start); p < count_; p++) {
    if (Mem::loadRelaxed(entries[p].slot) != tombstoneSlot) live++;
  }
  // One compaction, if any, before the re-issue: positions stay put during it.
  if (!ensureRoom(live)) {
    // No room for the copies: the corral goes, its entries stay current.
    // Store order: 1: start 0 (release), 2: end 0: shrinkMarker() is 0 from 1.
    Mem::storeRelease(hdr_->corralStart, uint64_t{0});
    Mem::storeRelease(hdr_->corralEnd, uint64_t{0});
    FMTRACE(handler_, 0, "TesselWriter",
            "{}: no room to close the corral [{}, {}]; dropped, its {} entries stay", name(), start,
            last, live);
    return;
  }
  TesselEntry* const old = tableEntries(tbl_[current_]);
  uint32_t const first = firstAtOrAfter(start);
  uint32_t const end = count_;
  // Pass 1: the copies, in order, each published by its count; nothing is
  // retired, so every old entry still counts.
  for (uint32_t p = first; p < end; p++) {
    uint32_t const s = Mem::loadRelaxed(old[p].slot);
    if (s != tombstoneSlot && base_ + Mem::loadRelaxed(old[p].relSequence) <= last) {
      append(s, false);
    }
  }
  if (writerStepHook) writerStepHook(WriterStep::corralCopied);
  // Pass 2: the old entries retire from the last to the first (release each).
  for (uint32_t p = end; p-- > first;) {
    if (Mem::loadRelaxed(old[p].slot) == tombstoneSlot) continue;
    Mem::storeRelease(old[p].slot, tombstoneSlot);
    if (writerStepHook) writerStepHook(WriterStep::corralRetired);
  }
  // 3: corralEnd (release): a closed corral holds tombstones only.
  Mem::storeRelease(hdr_->corralEnd, last);
  FMTRACE(handler_, 5, "TesselWriter", "{} corral [{}, {}] closed, {} entries re-issued", name(),
          start, last, live);
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::detach() {
  header_.detach();
  tables_[0].detach();
  tables_[1].detach();
  refresh();
  current_ = 0;
  count_ = 0;
  capacity_ = 0;
  base_ = 0;
  sequence_ = 0;
  mostSlots_ = 0;
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::cleanup() {
  if (hdr_ && !dir_.empty()) {
    // Store order: 1: kestor 0 (no table has it), 2: the generation moves
    // (release). A reader re-checks the kestor when it re-finds its place,
    // which it does when it sees the generation move; a reader that went to
    // sleep at the end of the queue is woken by the end of its connection.
    Mem::storeRelaxed(hdr_->kestor, 0u);
    flip(Mem::loadRelaxed(hdr_->generation) + 1, current_);
    if (writerStepHook) writerStepHook(WriterStep::cleanupMarked);
  }
  detach();
  if (dir_.empty()) return;
  for (Mem::ParcelWrapper* w : {&header_, &tables_[0], &tables_[1]}) {
    FMTRACE(handler_, 3, "TesselWriter", "removing file: {}", w->getFilename());
    if (!w->unlink()) {
      throw Lomi::RuntimeException("{}: cannot remove {}: {}", name(), w->getFilename(),
                                   w->lastError());
    }
  }
}

template <typename Slot, typename Pos>
TesselNotification TesselWriter<Slot, Pos>::entry(uint32_t pos) const {
  if (pos >= count_) {
    throw Lomi::CorruptionDetectedException("{}: entry index:{} beyond count:{}", name(), pos,
                                            count_);
  }
  TesselEntry const& e = tableEntries(tbl_[current_])[pos];
  return TesselNotification{base_ + Mem::loadRelaxed(e.relSequence), Mem::loadRelaxed(e.slot)};
}

template <typename Slot, typename Pos>
bool TesselWriter<Slot, Pos>::validate(uint32_t kestor, uint32_t mostSlots,
                                       std::string& error) const {
  auto fail = [&](std::string text) {
    FMTRACE(handler_, 0, "TesselWriter", "{}", text);
    error = std::move(text);
    return false;
  };
  if (!hdr_) return fail(fmt::format("{} is not attached", name()));
  TesselHeader const& h = *hdr_;
  if (std::memcmp(h.magic, kMagic, sizeof kMagic) != 0) {
    return fail(fmt::format("{} bad magic: {}", name(), headerToString(h)));
  }
  if (uint32_t v = Mem::loadRelaxed(h.formatVersion); v != kFormatVersion) {
    return fail(fmt::format("{} format version:{} expected:{}", name(), v, kFormatVersion));
  }
  if (uint32_t k = Mem::loadRelaxed(h.kestor); k != kestor) {
    return fail(fmt::format("{} kestor:{:#x} expected:{:#x}", name(), k, kestor));
  }
  uint32_t const most = Mem::loadRelaxed(h.mostSlots);
  if (most < mostSlots) {
    return fail(fmt::format("{} mostSlots:{} below the table's {}", name(), most, mostSlots));
  }
  // A count too large for any file is damage: it fails the validation
  // instead of escaping as the size check's exception.
  auto sizeFor = [&](auto size, uint64_t count, uint64_t& need) {
    try {
      need = size(count, name());
      return true;
    } catch (Lomi::RuntimeException const& e) {
      error = e.msg();
      return false;
    }
  };
  uint64_t need = 0;
  if (!sizeFor(headerFileSize, most, need)) return fail(error);
  if (header_.fileSize() < need) {
    return fail(fmt::format("{} header maps {} bytes, {} needed for mostSlots:{}", name(),
                            header_.fileSize(), need, most));
  }
  uint32_t const cur = Mem::loadRelaxed(h.currentTable);
  if (cur > 1) return fail(fmt::format("{} bad current table index:{}", name(), cur));
  TesselTableHeader const& t = *tbl_[cur];
  uint32_t const generation = Mem::loadRelaxed(h.generation);
  if (uint32_t stamp = Mem::loadRelaxed(t.generation); stamp != generation) {
    return fail(fmt::format("{} table {} generation:{} differs from header generation:{}", name(),
                            cur, stamp, generation));
  }
  uint32_t const capacity = Mem::loadRelaxed(t.capacity);
  uint32_t const count = Mem::loadRelaxed(t.count);
  if (capacity == 0) return fail(fmt::format("{} table {} capacity:0", name(), cur));
  if (count > capacity) {
    return fail(
        fmt::format("{} table {} count:{} exceeds capacity:{}", name(), cur, count, capacity));
  }
  if (!sizeFor(tableFileSize, capacity, need)) return fail(error);
  if (tables_[cur].fileSize() < need) {
    return fail(fmt::format("{} table {} maps {} bytes, {} needed for capacity:{}", name(), cur,
                            tables_[cur].fileSize(), need, capacity));
  }
  Sequence const base = Mem::loadRelaxed(h.baseSequence[cur]);
  Sequence const last = Mem::loadRelaxed(h.sequence);
  uint64_t const corralStart = Mem::loadRelaxed(h.corralStart);
  uint64_t const corralEnd = Mem::loadRelaxed(h.corralEnd);
  if (uint64_t lost = Mem::loadRelaxed(h.lostSequence); lost > last) {
    return fail(fmt::format("{} lost sequence:{} beyond the last sequence issued:{}", name(), lost,
                            last));
  }
  if (corralStart == 0 && corralEnd != 0) {
    return fail(fmt::format("{} corral end:{} without a start", name(), corralEnd));
  }
  if (corralEnd != 0 && corralEnd < corralStart) {
    return fail(fmt::format("{} corral end:{} before start:{}", name(), corralEnd, corralStart));
  }
  TesselEntry const* entries = tableEntries(&t);
  Pos const* back = h.tesselSlots();
  Sequence previous = 0;
  for (uint32_t pos = 0; pos < count; pos++) {
    Sequence const seq = base + Mem::loadRelaxed(entries[pos].relSequence);
    uint32_t const slot = Mem::loadRelaxed(entries[pos].slot);
    if (seq <= previous) {
      return fail(fmt::format("{} pos:{} seq:{} not after the previous seq:{}", name(), pos, seq,
                              previous));
    }
    if (seq > last) {
      return fail(fmt::format("{} pos:{} seq:{} beyond the last sequence issued:{}", name(), pos,
                              seq, last));
    }
    previous = seq;
    if (slot == tombstoneSlot) continue;
    if (slot >= most) {
      return fail(fmt::format("{} pos:{} seq:{} slot:{} beyond mostSlots:{}", name(), pos, seq,
                              slot, most));
    }
    Pos const claimed = Mem::loadRelaxed(back[slot]);
    bool const inCorral =
        corralStart != 0 && seq >= corralStart && (corralEnd == 0 || seq <= corralEnd);
    if (inCorral) {
      if (claimed == pos) {
        return fail(fmt::format("{} pos:{} seq:{} slot:{} is current inside the corral [{}, {}]",
                                name(), pos, seq, slot, corralStart, corralEnd));
      }
    } else if (claimed != pos) {
      return fail(fmt::format(
          "{} slot:{} has a second live entry at pos:{} seq:{}; its back reference is pos:{}",
          name(), slot, pos, seq, claimed));
    }
  }
  for (uint32_t slot = 0; slot < most; slot++) {
    Pos const pos = Mem::loadRelaxed(back[slot]);
    if (pos == noPos) continue;
    if (pos >= count) {
      return fail(
          fmt::format("{} slot:{} back reference:{} beyond count:{}", name(), slot, pos, count));
    }
    if (uint32_t named = Mem::loadRelaxed(entries[pos].slot); named != slot) {
      return fail(
          fmt::format("{} slot:{} back reference:{} names slot:{}", name(), slot, pos,
                      named == tombstoneSlot ? std::string("tombstone") : std::to_string(named)));
    }
  }
  return true;
}

template <typename Slot, typename Pos>
bool TesselWriter<Slot, Pos>::validateFile() const {
  if (dir_.empty()) return true;
  Mem::ParcelWrapper header(headerFilePath(dir_));
  auto const* h =
      static_cast<TesselHeader const*>(header.attach(0, Mem::ParcelWrapper::Mode::ReadOnly));
  if (!h) {
    throw Lomi::CorruptionDetectedException("{}: cannot map {}: {}", name(), header.getFilename(),
                                            header.lastError());
  }
  if (header.fileSize() < sizeof(TesselHeader)) {
    throw Lomi::CorruptionDetectedException("{}: {} holds {} bytes, less than a header", name(),
                                            header.getFilename(), header.fileSize());
  }
  if (std::memcmp(h->magic, kMagic, sizeof kMagic) != 0 ||
      Mem::loadRelaxed(h->formatVersion) != kFormatVersion) {
    throw Lomi::CorruptionDetectedException("{}: {} is no queue header of version {}: {}", name(),
                                            header.getFilename(), kFormatVersion,
                                            headerToString(*h));
  }
  uint32_t const most = Mem::loadRelaxed(h->mostSlots);
  if (header.fileSize() < headerFileSize(most, name())) {
    throw Lomi::CorruptionDetectedException("{}: {} holds {} bytes, too few for mostSlots:{}",
                                            name(), header.getFilename(), header.fileSize(), most);
  }
  for (unsigned t = 0; t < 2; t++) {
    Mem::ParcelWrapper table(tableFilePath(dir_, t));
    auto const* th =
        static_cast<TesselTableHeader const*>(table.attach(0, Mem::ParcelWrapper::Mode::ReadOnly));
    if (!th) {
      throw Lomi::CorruptionDetectedException("{}: cannot map {}: {}", name(), table.getFilename(),
                                              table.lastError());
    }
    uint32_t const capacity = Mem::loadRelaxed(th->capacity);
    uint32_t const count = Mem::loadRelaxed(th->count);
    if (table.fileSize() < sizeof(TesselTableHeader) || count > capacity ||
        table.fileSize() < tableFileSize(capacity, name())) {
      throw Lomi::CorruptionDetectedException("{}: {} of {} bytes is no table: {}", name(),
                                              table.getFilename(), table.fileSize(),
                                              tableHeaderToString(*th));
    }
  }
  return true;
}

template <typename Slot, typename Pos>
std::string TesselWriter<Slot, Pos>::headersToString() const {
  if (!hdr_) return fmt::format("{}: not attached\n", name());
  return fmt::format("{}: {}\n  table 0: {}\n  table 1: {}\n", name(), headerToString(*hdr_),
                     tableHeaderToString(*tbl_[0]), tableHeaderToString(*tbl_[1]));
}

extern template class TesselWriter<BasicSlot, TesselPos>;

}  // namespace Tessel
