// The reader's walk over a change queue; see TesselReaderView.h for its rules.
#include "Tessel/TesselReaderView.h"

#include <cstring>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Mem/Atomics.h"

namespace Tessel {

void (*readerStepHook)(ReaderStep step) = nullptr;

TesselReaderView::TesselReaderView(std::string dir, Lomi::Platform::DebugHandler& handler)
    : dir_(std::move(dir)),
      handler_(handler),
      header_(headerFilePath(dir_)),
      tables_{Mem::ParcelWrapper(tableFilePath(dir_, 0)),
              Mem::ParcelWrapper(tableFilePath(dir_, 1))} {}

void TesselReaderView::corrupt(std::string const& what) const {
  FMTRACE(handler_, 0, "TesselReaderView", "{}", what);
  throw Lomi::CorruptionDetectedException("tessel {}: {}", dir_, what);
}

bool TesselReaderView::attach(uint32_t kestor, std::string& error) {
  detach();
  if (dir_.empty()) {
    error = "a local queue has no files to view";
    return false;
  }
  auto const* h =
      static_cast<TesselHeader const*>(header_.attach(0, Mem::ParcelWrapper::Mode::ReadOnly));
  if (!h) {
    error = fmt::format("tessel {}: {}", dir_, header_.lastError());
    return false;
  }
  if (header_.fileSize() < sizeof(TesselHeader) ||
      std::memcmp(h->magic, kMagic, sizeof kMagic) != 0 ||
      Mem::loadAcquire(h->formatVersion) != kFormatVersion) {
    error = fmt::format("tessel {}: no queue header of version {}", dir_, kFormatVersion);
    detach();
    return false;
  }
  if (uint32_t k = Mem::loadAcquire(h->kestor); k != kestor) {
    error = fmt::format("tessel {}: kestor:{:#x} expected:{:#x}", dir_, k, kestor);
    detach();
    return false;
  }
  for (unsigned t = 0; t < 2; t++) {
    if (!tables_[t].attach(0, Mem::ParcelWrapper::Mode::ReadOnly) ||
        tables_[t].fileSize() < sizeof(TesselTableHeader)) {
      error =
          fmt::format("tessel {}: table {}: {}", dir_, t,
                      tables_[t].attached() ? "shorter than its header" : tables_[t].lastError());
      detach();
      return false;
    }
  }
  hdr_ = h;
  kestor_ = kestor;
  FMTRACE(handler_, 2, "TesselReaderView", "{} attached: {}", dir_, headerToString(*hdr_));
  return true;
}

void TesselReaderView::detach() {
  header_.detach();
  tables_[0].detach();
  tables_[1].detach();
  hdr_ = nullptr;
  positioned_ = false;
  reformatted_ = false;
  overrun_ = false;
  table_ = 0;
  lastConsumed_ = 0;
  lostSwept_ = 0;
}

void TesselReaderView::seek(Sequence after) {
  lastConsumed_ = after;
  positioned_ = false;
  overrun_ = false;
}

Sequence TesselReaderView::headSequence() const {
  return hdr_ ? Mem::loadAcquire(hdr_->sequence) : 0;
}

bool TesselReaderView::lostSinceConsumed() {
  Sequence const lost = Mem::loadAcquire(hdr_->lostSequence);
  // R5: a loss that an overrun reported already is covered by the sweep
  // that followed it.
  if (lost <= lastConsumed_ || lost <= lostSwept_) return false;
  FMTRACE(handler_, 1, "TesselReaderView", "{} lost sequence:{} after:{}: a sweep is due", dir_,
          lost, lastConsumed_);
  overrun_ = true;
  lostSwept_ = lost;
  return true;
}

bool TesselReaderView::ensureMapped(unsigned table, uint64_t entries) {
  uint64_t const need = sizeof(TesselTableHeader) + entries * sizeof(TesselEntry);
  Mem::ParcelWrapper& w = tables_[table];
  if (w.fileSize() >= need) return true;
  // The writer grew the file (ftruncate before it stores a larger count);
  // follow it. Our older, shorter mapping stayed valid meanwhile.
  uint64_t const length = w.memSize();
  if (length < need || !w.resize(length)) return false;
  FMTRACE(handler_, 3, "TesselReaderView", "{} table {} remapped to {} bytes", dir_, table, length);
  return true;
}

bool TesselReaderView::refind() {
  for (;;) {
    // R2: one load gives the generation and its table (writer invariant 4).
    uint64_t const pair = Mem::loadAcquire(hdr_->generationAndTable);
    uint32_t const g = generationOf(pair);
    if (Mem::loadAcquire(hdr_->kestor) != kestor_ ||
        std::memcmp(hdr_->magic, kMagic, sizeof kMagic) != 0) {
      // Re-checked under a still generation: a format in progress moves it.
      Mem::acquireFence();
      if (Mem::loadRelaxed(hdr_->generation) != g) continue;
      FMTRACE(handler_, 1, "TesselReaderView", "{} was re-formatted", dir_);
      reformatted_ = true;
      return false;
    }
    unsigned const t = tableOf(pair);
    bool sound = false;
    Sequence base = 0;
    uint32_t lo = 0;
    if (t <= 1) {
      base = Mem::loadAcquire(hdr_->baseSequence[t]);
      auto const* th = static_cast<TesselTableHeader const*>(tables_[t].base());
      uint32_t const count = Mem::loadAcquire(th->count);
      if (ensureMapped(t, count)) {
        th = static_cast<TesselTableHeader const*>(tables_[t].base());
        TesselEntry const* entries = tableEntries(th);
        uint32_t hi = count;
        while (lo < hi) {
          uint32_t const mid = lo + (hi - lo) / 2;
          if (base + Mem::loadRelaxed(entries[mid].relSequence) <= lastConsumed_) {
            lo = mid + 1;
          } else {
            hi = mid;
          }
        }
        sound = true;
      }
    }
    // R2: the search counts only if the generation stood still across it.
    Mem::acquireFence();
    if (Mem::loadRelaxed(hdr_->generation) != g) continue;
    if (!sound) {
      corrupt(fmt::format("current table:{} is unreadable while generation:{} stands: {}", t, g,
                          headerToString(*hdr_)));
    }
    gen_ = g;
    table_ = t;
    base_ = base;
    pos_ = lo;
    positioned_ = true;
    // The re-find may have skipped entries that pruning dropped.
    if (lostSinceConsumed()) return false;
    FMTRACE(handler_, 5, "TesselReaderView", "{} found pos:{} in table:{} generation:{} after:{}",
            dir_, lo, t, g, lastConsumed_);
    return true;
  }
}

bool TesselReaderView::next(TesselNotification& out) {
  if (!hdr_ || reformatted_ || overrun_) return false;
  for (;;) {
    if (!positioned_ && !refind()) return false;
    auto const* th = static_cast<TesselTableHeader const*>(tables_[table_].base());
    uint32_t const count = Mem::loadAcquire(th->count);
    if (pos_ >= count) {
      // R3
      if (Mem::loadAcquire(hdr_->generationAndTable) == generationAndTableOf(gen_, table_)) {
        // Caught up, unless the writer issued a sequence it could not queue.
        lostSinceConsumed();
        return false;
      }
      positioned_ = false;
      refinds_++;
      continue;
    }
    if (!ensureMapped(table_, uint64_t{pos_} + 1)) {
      // R4
      Mem::acquireFence();
      if (Mem::loadRelaxed(hdr_->generation) == gen_) {
        corrupt(fmt::format("table:{} count:{} beyond its file of {} bytes", table_, count,
                            tables_[table_].memSize()));
      }
      positioned_ = false;
      refinds_++;
      continue;
    }
    th = static_cast<TesselTableHeader const*>(tables_[table_].base());
    TesselEntry const& e = tableEntries(th)[pos_];
    uint32_t const rel = Mem::loadRelaxed(e.relSequence);
    uint32_t const slot = Mem::loadRelaxed(e.slot);
    uint32_t const mostSlots = Mem::loadRelaxed(hdr_->mostSlots);
    // R1: the fence orders the entry's loads before the generation's.
    Mem::acquireFence();
    if (Mem::loadRelaxed(hdr_->generation) != gen_) {
      positioned_ = false;
      refinds_++;
      continue;
    }
    Sequence const seq = base_ + rel;
    if (slot == tombstoneSlot) {
      // A retired entry has a newer one of its slot after it: passing it is
      // as good as consuming it.
      if (seq > lastConsumed_) lastConsumed_ = seq;
      pos_++;
      continue;
    }
    if (slot >= mostSlots) {
      corrupt(fmt::format("pos:{} of table:{} names slot:{} beyond mostSlots:{}", pos_, table_,
                          slot, mostSlots));
    }
    if (seq <= lastConsumed_) {
      pos_++;
      continue;
    }
    standing_ = pos_;
    standingSeq_ = seq;
    out = TesselNotification{seq, slot};
    return true;
  }
}

void TesselReaderView::consumed() {
  lastConsumed_ = standingSeq_;
  pos_ = standing_ + 1;
}

void TesselReaderView::rejected() {
  if (Mem::loadAcquire(hdr_->generation) != gen_) {
    positioned_ = false;
    refinds_++;
  } else {
    // Retired under a still generation: a newer entry of its slot follows.
    if (standingSeq_ > lastConsumed_) lastConsumed_ = standingSeq_;
    pos_ = standing_ + 1;
  }
}

bool TesselReaderView::validateNotif() {
  if (Mem::loadAcquire(hdr_->generation) != gen_) return false;
  auto const* th = static_cast<TesselTableHeader const*>(tables_[table_].base());
  uint32_t const size = Mem::loadAcquire(th->count);
  if (standing_ >= size) {
    // The count fell below the entry read from it: two compactions since the
    // generation was read above reused this table (a reader descheduled in
    // between sees that). Damage only if the generation stood.
    if (readerStepHook) readerStepHook(ReaderStep::countBelowPosition);
    Mem::acquireFence();
    if (Mem::loadRelaxed(hdr_->generation) != gen_) return false;
    FMTRACE(handler_, 0, "TesselReader::TesselNotifications", "out-of-range index:{} max:{}",
            standing_, size);
    throw Lomi::CorruptionDetectedException("out-of-range index:{} max:{}", standing_, size);
  }
  uint32_t const slot = Mem::loadRelaxed(tableEntries(th)[standing_].slot);
  Mem::acquireFence();
  if (Mem::loadRelaxed(hdr_->generation) != gen_) return false;
  return slot != tombstoneSlot;
}

uint32_t TesselReaderView::peekSlot(uint32_t ahead) const {
  if (!hdr_ || !positioned_) return tombstoneSlot;
  Mem::ParcelWrapper const& w = tables_[table_];
  auto const* th = static_cast<TesselTableHeader const*>(w.base());
  if (!th) return tombstoneSlot;
  uint64_t const at = uint64_t{pos_} + ahead;
  // Within the count and within what this process has mapped: an entry
  // beyond either is not read at all.
  if (at >= Mem::loadAcquire(th->count) ||
      sizeof(TesselTableHeader) + (at + 1) * sizeof(TesselEntry) > w.fileSize()) {
    return tombstoneSlot;
  }
  return Mem::loadRelaxed(tableEntries(th)[at].slot);
}

}  // namespace Tessel
