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
//   4. The writer stores into the non-current table only after it has added 1
//      to `generation` (and a release fence). So a reader that read an entry
//      and then finds `generation` unchanged read an entry of a table that no
//      one was rewriting.
//   5. `baseSequence[t]`, the entries and `count` of table t change only while
//      the writer fills t in a compaction (invariant 4), or by notify while t
//      is current (invariant 3 and appends above `count`).
//   6. The current table's stamp (`generation` at offset 0 of the table)
//      equals the header's `generation`. A writer that died between the two
//      leaves them unequal, and the queue fails validation.
//   7. Every change not yet taken in by a reader is a live entry with a
//      sequence above the last one that reader consumed: entries are retired
//      only by a newer notify of the same slot, by tombstone() (the slot is
//      gone from the table), or by compaction, which copies every live entry.
//
// The compaction of the queue
// ---------------------------
// notify appends at `count`. When the current table is full, the writer
// compacts: it copies the live entries, in order, into the other table and
// makes that one current. Tombstones are dropped. The other table is where a
// slow reader may still be reading (it was current one compaction ago), so:
//
//   step 1  generation += 1, release fence   (before any store into it)
//   step 2  grow the other table's file if need be (ftruncate, mremap)
//   step 3  stamp, capacity, entries, back references, count, base
//   step 4  currentTable = other            (release)
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
//     generation 7 -> 8
//   table 1: (2,B) (4,A), count 2, stamp 8, tesselSlots[A]=1, tesselSlots[B]=0
//     currentTable = 1
//   table 1: (2,~) (4,A) (5,B)            the notify goes on in table 1
//
// A reader that stood at position 2 of table 0 with generation 7, having
// consumed sequence 2:
//   - if it reads (3,~) before step 1, the generation check passes, it skips
//     the tombstone, meets (4,A), acts, consumes 4; at the end of table 0 it
//     sees currentTable = 1, re-finds "first sequence above 4" in table 1 and
//     meets (5,B).
//   - if it reads after step 1, the generation check fails (8 != 7): it
//     re-finds "first sequence above 2" in table 1 and meets (4,A), then (5,B)
//     (table 1 may still be half written: the re-find loops until it reads a
//     generation that stays put across the whole search).
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
// positions of the moved entries follow it: readers may tell a moved entry
// from a removed one by the corral, and the validator finds a closed corral
// empty of current entries and an open one (a crash) not.
//
// Hot path: notify and tombstone allocate nothing and do O(1) work; notify does
// O(capacity) work at a compaction, amortised O(1).
//
// Thread safety: not thread safe; one thread per writer object.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
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

template <typename Slot = BasicSlot, typename Pos = Mirak::TesselPos>
class TesselWriter {
  static_assert(std::is_same_v<Slot, uint32_t>, "a slot field is a u32");
  static_assert(std::is_same_v<Pos, uint32_t>, "a back reference is a u32");

 public:
  // A real queue: the validator walks it, the writer marks shrinks in it.
  static constexpr bool hasQueue = true;
  static constexpr Pos noPos = Mirak::noTesselPos;

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
  // new state is fully in the table. Throws Lomi::RuntimeException if `slot`
  // is not below mostSlots() (the writer must call mostSlotsIs first), or
  // Lomi::MemoryResourceException if a compaction cannot grow a table; the
  // queue is unchanged then.
  void notify(Slot slot);

  // Retires the slot's live entry, if it has one, and clears its back
  // reference: the slot was emptied by a move, not by a removal.
  void tombstone(Slot slot);

  // Opens a corral at the next sequence. Precondition: no shrink running.
  void markShrinkStart();
  // Re-issues the live entries of the corral and closes it.
  // Precondition: markShrinkStart came first.
  void markShrinkEnd();
  // Non-zero exactly while a shrink runs (between the two marks).
  uint64_t shrinkMarker() const { return corralEnd() == 0 ? corralStart() : 0; }

  // Grows the back references to `mostSlots` (never shrinks them: mostSlots
  // is a high-water mark). Throws Lomi::MemoryResourceException if the header
  // file cannot grow.
  void mostSlotsIs(uint32_t mostSlots);

  // Unmaps; the files stay.
  void detach();
  // The table writer is detaching: the queue lets go of its mappings.
  void onDetach() { detach(); }
  // Unmaps and removes the files. Throws Lomi::RuntimeException naming the
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
  Rusk::Sequence baseSequence() const { return base_; }
  Rusk::Sequence sequence() const { return sequence_; }
  Pos tesselSlots(Slot slot) const {
    return slot < mostSlots_ ? Mem::loadRelaxed(back_[slot]) : noPos;
  }
  uint32_t mostSlots() const { return mostSlots_; }
  uint64_t corralStart() const { return hdr_ ? Mem::loadRelaxed(hdr_->corralStart) : 0; }
  uint64_t corralEnd() const { return hdr_ ? Mem::loadRelaxed(hdr_->corralEnd) : 0; }
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
  void ensureRoom(uint32_t reserve);
  void append(Slot slot);
  void compact(uint32_t reserve);
  void* mapOrThrow(Mem::ParcelWrapper& w, uint64_t size);
  void* resizeOrThrow(Mem::ParcelWrapper& w, uint64_t size);
  uint32_t firstAtOrAfter(Rusk::Sequence seq) const;

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
  Rusk::Sequence base_ = 0;
  Rusk::Sequence sequence_ = 0;
  uint32_t mostSlots_ = 0;
  uint64_t compactions_ = 0;
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
void* TesselWriter<Slot, Pos>::resizeOrThrow(Mem::ParcelWrapper& w, uint64_t size) {
  void* p = w.resize(size);
  if (!p) {
    throw Lomi::MemoryResourceException("failed to resize {} to size {} : {}",
                                        w.local() ? name() : w.getFilename(), size, w.lastError());
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
  if (mostSlots > mostSlots_) mostSlotsIs(mostSlots);
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
  Mem::storeRelaxed(hdr_->currentTable, 0u);
  Mem::storeRelaxed(hdr_->corralStart, uint64_t{0});
  Mem::storeRelaxed(hdr_->corralEnd, uint64_t{0});
  Mem::storeRelaxed(hdr_->mostSlots, mostSlots);
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
  // 3
  Mem::storeRelease(hdr_->generation, generation);
  loadState();
  compactions_ = 0;
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::mostSlotsIs(uint32_t mostSlots) {
  if (!hdr_ || mostSlots <= mostSlots_) return;
  uint64_t const bytes = headerFileSize(mostSlots, name());
  if (bytes > header_.fileSize()) {
    resizeOrThrow(header_, bytes);
    refresh();
  }
  // Store order: 1: the new back references, 2: mostSlots (release), so that
  // whoever reads mostSlots finds the references behind it initialised.
  for (uint32_t s = mostSlots_; s < mostSlots; s++) Mem::storeRelaxed(back_[s], noPos);
  Mem::storeRelease(hdr_->mostSlots, mostSlots);
  FMTRACE(handler_, 2, "TesselWriter", "{} mostSlots {} -> {}", name(), mostSlots_, mostSlots);
  mostSlots_ = mostSlots;
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::notify(Slot slot) {
  if (slot >= mostSlots_) {
    throw Lomi::RuntimeException("{}: notify of slot:{} beyond mostSlots:{}", name(), slot,
                                 mostSlots_);
  }
  ensureRoom(1);
  append(slot);
}

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::ensureRoom(uint32_t reserve) {
  if (uint64_t{count_} + reserve > capacity_ || sequence_ + reserve - base_ > 0xffffffffull) {
    compact(reserve);
  }
}

// Store order of notify (the count is the publication):
//   1: the new entry above `count`      (readers do not look there yet)
//   2: tombstone of the slot's previous live entry (release)
//   3: the slot's back reference
//   4: header `sequence` (release)
//   5: `count` + 1 (release): the entry is published
template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::append(Slot slot) {
  Rusk::Sequence const seq = sequence_ + 1;
  TesselEntry* entries = tableEntries(tbl_[current_]);
  TesselEntry& e = entries[count_];
  // 1: the entry, invisible until step 5.
  Mem::storeRelaxed(e.relSequence, static_cast<uint32_t>(seq - base_));
  Mem::storeRelaxed(e.slot, slot);
  Pos const old = Mem::loadRelaxed(back_[slot]);
  if (old != noPos) {
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
          old);
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

template <typename Slot, typename Pos>
void TesselWriter<Slot, Pos>::compact(uint32_t reserve) {
  unsigned const cur = current_;
  unsigned const oth = cur ^ 1u;
  TesselEntry const* from = tableEntries(tbl_[cur]);
  Rusk::Sequence const next = sequence_ + 1;
  // Entries older than 2^31 sequences are re-issued so that relative
  // sequences keep fitting in 32 bits.
  Rusk::Sequence const newBase = next > (uint64_t{1} << 31) ? next - (uint64_t{1} << 31) : 0;
  uint64_t live = 0;
  uint64_t ancient = 0;
  for (uint32_t p = 0; p < count_; p++) {
    uint32_t const s = Mem::loadRelaxed(from[p].slot);
    if (s == tombstoneSlot) continue;
    live++;
    if (base_ + Mem::loadRelaxed(from[p].relSequence) < newBase) ancient++;
  }
  uint64_t capacity = capacity_;
  while (live + reserve > capacity / 2) capacity *= 2;
  if (capacity > 0xffffffffull) {
    throw Lomi::MemoryResourceException("{}: compaction needs {} entries, more than a table holds",
                                        name(), capacity);
  }
  uint64_t const bytes = tableFileSize(capacity, name());
  uint32_t const generation = Mem::loadRelaxed(hdr_->generation) + 1;

  // Step 1: the generation moves before anything is stored into the other
  // table: a reader that reads one of those stores and then the generation
  // (after an acquire fence) sees the new generation.
  Mem::storeRelaxed(hdr_->generation, generation);
  Mem::releaseFence();
  // Step 2: grow the other table (never shrink: readers may map its tail).
  if (bytes > tables_[oth].fileSize()) {
    resizeOrThrow(tables_[oth], bytes);
    refresh();
    from = tableEntries(tbl_[cur]);
  }
  // Step 3: stamp, capacity, entries in order, back references, count, base.
  TesselTableHeader* to = tbl_[oth];
  TesselEntry* toEntries = tableEntries(to);
  Mem::storeRelaxed(to->generation, generation);
  Mem::storeRelaxed(to->capacity, static_cast<uint32_t>(capacity));
  uint32_t n = 0;
  for (uint32_t p = 0; p < count_; p++) {
    uint32_t const s = Mem::loadRelaxed(from[p].slot);
    if (s == tombstoneSlot) continue;
    Rusk::Sequence const seq = base_ + Mem::loadRelaxed(from[p].relSequence);
    if (seq < newBase) continue;
    Mem::storeRelaxed(toEntries[n].relSequence, static_cast<uint32_t>(seq - newBase));
    Mem::storeRelaxed(toEntries[n].slot, s);
    Mem::storeRelaxed(back_[s], n);
    n++;
  }
  if (ancient != 0) {
    for (uint32_t p = 0; p < count_; p++) {
      uint32_t const s = Mem::loadRelaxed(from[p].slot);
      if (s == tombstoneSlot || base_ + Mem::loadRelaxed(from[p].relSequence) >= newBase) {
        continue;
      }
      Rusk::Sequence const seq = ++sequence_;
      Mem::storeRelaxed(toEntries[n].relSequence, static_cast<uint32_t>(seq - newBase));
      Mem::storeRelaxed(toEntries[n].slot, s);
      Mem::storeRelaxed(back_[s], n);
      n++;
    }
    Mem::storeRelease(hdr_->sequence, sequence_);
  }
  Mem::storeRelaxed(to->count, n);
  Mem::storeRelaxed(hdr_->baseSequence[oth], newBase);
  // Step 4: the flip. Release: a reader that reads the new index (acquire)
  // sees the whole table and its base.
  Mem::storeRelease(hdr_->currentTable, oth);

  FMTRACE(handler_, 5, "TesselWriter",
          "{} compacted {} entries to {} live ({} re-issued), capacity {} -> {}, generation:{}",
          name(), count_, n, ancient, capacity_, capacity, generation);
  current_ = oth;
  count_ = n;
  capacity_ = static_cast<uint32_t>(capacity);
  base_ = newBase;
  compactions_++;
}

template <typename Slot, typename Pos>
uint32_t TesselWriter<Slot, Pos>::firstAtOrAfter(Rusk::Sequence seq) const {
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
  Rusk::Sequence const last = sequence_;
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
  ensureRoom(live);
  entries = tableEntries(tbl_[current_]);
  uint32_t const end = count_;
  for (uint32_t p = firstAtOrAfter(start); p < end; p++) {
    uint32_t const s = Mem::loadRelaxed(entries[p].slot);
    if (s != tombstoneSlot && base_ + Mem::loadRelaxed(entries[p].relSequence) <= last) {
      append(s);
    }
  }
  // Store order: 1: the re-issued entries (each published by its count),
  // 2: corralEnd (release): a closed corral holds tombstones only.
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
  if (count > capacity) {
    return fail(
        fmt::format("{} table {} count:{} exceeds capacity:{}", name(), cur, count, capacity));
  }
  if (!sizeFor(tableFileSize, capacity, need)) return fail(error);
  if (tables_[cur].fileSize() < need) {
    return fail(fmt::format("{} table {} maps {} bytes, {} needed for capacity:{}", name(), cur,
                            tables_[cur].fileSize(), need, capacity));
  }
  Rusk::Sequence const base = Mem::loadRelaxed(h.baseSequence[cur]);
  Rusk::Sequence const last = Mem::loadRelaxed(h.sequence);
  uint64_t const corralStart = Mem::loadRelaxed(h.corralStart);
  uint64_t const corralEnd = Mem::loadRelaxed(h.corralEnd);
  if (corralStart == 0 && corralEnd != 0) {
    return fail(fmt::format("{} corral end:{} without a start", name(), corralEnd));
  }
  if (corralEnd != 0 && corralEnd < corralStart) {
    return fail(fmt::format("{} corral end:{} before start:{}", name(), corralEnd, corralStart));
  }
  TesselEntry const* entries = tableEntries(&t);
  Pos const* back = h.tesselSlots();
  Rusk::Sequence previous = 0;
  for (uint32_t pos = 0; pos < count; pos++) {
    Rusk::Sequence const seq = base + Mem::loadRelaxed(entries[pos].relSequence);
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

extern template class TesselWriter<BasicSlot, Mirak::TesselPos>;

}  // namespace Tessel
