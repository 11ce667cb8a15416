// The queue writer's attach, format, growth, compaction, corrals, pruning,
// validation and diagnostics; the hot path is inline in the header.
#include "Tessel/TesselWriter.h"

#include <algorithm>
#include <cstring>
#include <string>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Atomics.h"

namespace Tessel {

bool (*writerStepHook)(WriterStep step) = nullptr;

void* TesselWriter::mapOrThrow(Mem::ParcelWrapper& w, uint64_t size) {
  void* p = w.attach(size, Mem::ParcelWrapper::Mode::ReadWrite);
  if (!p) {
    throw Lomi::InvalidInitializeException("cannot attach to shmem {} size:{}: {}",
                                           w.local() ? name() : w.getFilename(), size,
                                           w.lastError());
  }
  return p;
}

void TesselWriter::refresh() {
  hdr_ = static_cast<TesselHeader*>(header_.base());
  back_ = hdr_ ? hdr_->tesselSlots() : nullptr;
  for (unsigned t = 0; t < 2; t++) tbl_[t] = static_cast<TesselTableHeader*>(tables_[t].base());
}

void TesselWriter::loadState() {
  current_ = Mem::loadRelaxed(hdr_->currentTable);
  count_ = Mem::loadRelaxed(tbl_[current_]->count);
  capacity_ = Mem::loadRelaxed(tbl_[current_]->capacity);
  base_ = Mem::loadRelaxed(hdr_->baseSequence[current_]);
  sequence_ = Mem::loadRelaxed(hdr_->sequence);
  mostSlots_ = Mem::loadRelaxed(hdr_->mostSlots);
}

int TesselWriter::attach(uint32_t kestor, uint32_t mostSlots) {
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

bool TesselWriter::adopt(uint32_t kestor, uint32_t mostSlots, std::string& why) {
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

void TesselWriter::format(uint32_t kestor, uint32_t mostSlots) {
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
  // 2: the magic's first byte goes first, so a half-formatted file fails
  //    identification.
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

bool TesselWriter::grow(Mem::ParcelWrapper& w, uint64_t bytes, WriterStep step) {
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

void TesselWriter::flip(uint32_t generation, unsigned table) {
  Mem::storeRelease(hdr_->generationAndTable, generationAndTableOf(generation, table));
}

bool TesselWriter::mostSlotsIs(uint32_t mostSlots) {
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

void TesselWriter::lose(BasicSlot slot, char const* why) {
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

// The steps and what a reader sees between them: see "The compaction of the
// queue" at the top. False, with the queue untouched, if the other table
// cannot be made large enough.
bool TesselWriter::compact(uint32_t reserve) {
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

uint32_t TesselWriter::firstAtOrAfter(Sequence seq) const {
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

void TesselWriter::markShrinkStart() {
  FMASSERT(shrinkMarker() == 0, handler_, "TesselWriter",
           "{}: markShrinkStart while a shrink runs since sequence:{}", name(), shrinkMarker());
  // 1: close the old corral's end first, 2: then move its start (release): a
  //    reader between the two sees an open corral from the old start, which
  //    only takes in more entries than needed.
  Mem::storeRelaxed(hdr_->corralEnd, uint64_t{0});
  Mem::storeRelease(hdr_->corralStart, sequence_ + 1);
  FMTRACE(handler_, 5, "TesselWriter", "{} corral opens at sequence:{}", name(), sequence_ + 1);
}

void TesselWriter::markShrinkEnd() {
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
  // Last, after both passes: corralEnd (release); a closed corral holds
  // tombstones only.
  Mem::storeRelease(hdr_->corralEnd, last);
  FMTRACE(handler_, 5, "TesselWriter", "{} corral [{}, {}] closed, {} entries re-issued", name(),
          start, last, live);
}

void TesselWriter::detach() {
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

void TesselWriter::cleanup() {
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

TesselNotification TesselWriter::entry(uint32_t pos) const {
  if (pos >= count_) {
    throw Lomi::CorruptionDetectedException("{}: entry index:{} beyond count:{}", name(), pos,
                                            count_);
  }
  TesselEntry const& e = tableEntries(tbl_[current_])[pos];
  return TesselNotification{base_ + Mem::loadRelaxed(e.relSequence), Mem::loadRelaxed(e.slot)};
}

bool TesselWriter::validate(uint32_t kestor, uint32_t mostSlots,
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
  TesselPos const* back = h.tesselSlots();
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
    TesselPos const claimed = Mem::loadRelaxed(back[slot]);
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
    TesselPos const pos = Mem::loadRelaxed(back[slot]);
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

bool TesselWriter::validateFile() const {
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

std::string TesselWriter::headersToString() const {
  if (!hdr_) return fmt::format("{}: not attached\n", name());
  return fmt::format("{}: {}\n  table 0: {}\n  table 1: {}\n", name(), headerToString(*hdr_),
                     tableHeaderToString(*tbl_[0]), tableHeaderToString(*tbl_[1]));
}

}  // namespace Tessel
