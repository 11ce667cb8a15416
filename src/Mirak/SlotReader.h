// Mirak::SlotReaderTable<Ops>: a reader's read-only mapping of the slot file.
//
// It maps the header first, keeps a private copy of the header's `numSlots`
// pair, and re-maps the file when the writer has grown or shrunk it. A reader
// never resizes the file; it follows.
//
// Safety (one writer process stores; this object only loads):
//  1. The mapping is PROT_READ: a store through it faults instead of damaging
//     the table.
//  2. Every slot index is checked against the private capacity, never against
//     the header's: the mapping covers exactly the private capacity, so an
//     index the writer published after our last remap raises
//     "out-of-range index", which the reader object turns into a remap.
//  3. A value is copied under its slot's `versionFlags` (getValue): load the
//     word (acquire), copy rhash and value from the slot or, with LOOKASIDE
//     up, from the header's lookaside slot, acquire fence, load the word
//     again; a moved word means the copy may be torn, and it is repeated.
//     The writer keeps a whole value in one of the two places at every moment.
//  4. The writer publishes a larger `numSlots` only after the file is long
//     enough, and a smaller one before it releases the tail; the file itself
//     is never shortened. So a header copy taken by Mem::safeHeaderCopy never
//     asks for more than the file holds unless the table is damaged.
//
// Contract: one thread per object. References into the mapping are stale
// after doResize, attach and detach.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Atomics.h"
#include "Mem/ParcelWrapper.h"
#include "Mem/RootPath.h"
#include "Mem/SafeHeaderCopy.h"
#include "Mem/VersionAnchor.h"
#include "Mem/VersionedRef.h"
#include "Mirak/Counters.h"
#include "Mirak/Operations.h"
#include "Mirak/SlotTable.h"
#include "Mirak/SlotWriter.h"

namespace Mirak {

template <TablePolicy OpsT>
class SlotReaderTable {
 public:
  using Ops = OpsT;
  using Value = typename Ops::Value;
  using Geometry = SlotGeometry<Value>;
  using SlotT = typename Geometry::SlotT;
  // The word test of the reader's side of the slot-table concept (see
  // MirakCore/ReaderHashMap.h).
  static constexpr bool occupied(uint32_t versionFlags) {
    return (versionFlags & SlotTable::OCCUPIED) != 0;
  }
  // The private version before the first doResize: no header holds it, so the
  // first doResize always maps the slots.
  static constexpr uint32_t kNoVersion = 0xffffffffu;

  // The slots as this reader maps them: slot 0 and the private capacity.
  struct Slots {
    SlotT const* base = nullptr;
    uint32_t count = 0;

    SlotT const& operator[](uint32_t index) const {
      if (index >= count) [[unlikely]] outOfRange(index);
      return base[index];
    }
    // The throw of operator[], out of line so that the bounds test inlines.
    [[noreturn, gnu::noinline, gnu::cold]] void outOfRange(uint32_t index) const {
      throw Lomi::CorruptionDetectedException("out-of-range index:{} numSlots:{}", index, count);
    }
  };

  // What one read of a slot saw: the `versionFlags` word that guarded the
  // copy, and the rhash copied with the value.
  struct ReadResult {
    uint32_t word;
    uint32_t rhash;
  };

  // Nothing is mapped here. `ops` receives the table's hash seed at attach.
  SlotReaderTable(Lomi::Platform::DebugHandler& handler, std::string name,
                  Mem::NaoRootPath const& rootPath, Ops& ops, Reader::Counters& counters)
      : handler_(handler),
        name_(std::move(name)),
        mapping_(rootPath.isLocal() ? std::string() : rootPath.filePath("slots")),
        ops_(ops),
        counters_(counters) {}
  SlotReaderTable(SlotReaderTable const&) = delete;
  SlotReaderTable& operator=(SlotReaderTable const&) = delete;

  // Maps the header only and takes the hash seed from it. Capacity is 0 until
  // the first doResize. False (traced at level 0) if there is no file or the
  // system refuses the mapping. Validates nothing.
  bool attach() {
    detach();
    if (mapping_.memSize() == 0) {
      FMTRACE(handler_, 0, "SlotReaderTable", "no shared memory region");
      return false;
    }
    void* base = mapping_.attach(Geometry::headerSize, Mem::ParcelWrapper::Mode::ReadOnly);
    if (!base) {
      FMTRACE(handler_, 0, "SlotReaderTable", "cannot attach to shmem size:{}",
              Geometry::headerSize);
      return false;
    }
    header_ = static_cast<SlotTable::Header const*>(base);
    SlotTable::Header copy = headerCopy();
    FMTRACE(handler_, 3, "SlotReaderTable", "{}", copy.toString());
    ops_.hashSeedIs(copy.hashSeed);
    numSlots_ = Mem::VersionedRef<unsigned int>{kNoVersion, 0};
    slots_ = Slots{};
    return true;
  }

  // Follows the header's `numSlots`. False at once when detached or when the
  // private version is the header's (two loads: the usual case). Otherwise
  // maps the new size and returns true. Throws
  // Lomi::CorruptionDetectedException if the header asks for an impossible
  // size or more than the file holds (the private state is then unchanged),
  // Lomi::MemoryResourceException if the system refuses the mapping.
  bool doResize() {
    if (!header_) return false;
    if (Mem::loadAcquire(header_->numSlots.version) == numSlots_.version) [[likely]] {
      return false;
    }
    return remap();
  }

  // Reads slot `index` into `value` under its sequence word (safety rule 3)
  // and notes the anchor. Throws "out-of-range index" for an index beyond the
  // private capacity. Whether the slot is OCCUPIED is the caller's to judge.
  ReadResult getValue(uint32_t index, Value& value) {
    SlotT const* const s = &slots_[index];
    uint32_t word = Mem::loadAcquire(s->versionFlags);
    for (;;) {
      SlotTable::SlotHead const* source = reinterpret_cast<SlotTable::SlotHead const*>(s);
      if (word & SlotTable::LOOKASIDE) [[unlikely]] {
        counters_.lookasideReads++;
        source = header_->lookaside();
      }
      uint32_t const rhash = Mem::loadRelaxed(source->rhash);
      Mem::copyUnderSeqlock(&value, SlotTable::valueBytes(source), sizeof(Value));
      // Keeps the copy's loads before the re-load of the word.
      Mem::acquireFence();
      uint32_t const again = Mem::loadAcquire(s->versionFlags);
      if (again == word) [[likely]] {
        anchor_.set(word, &s->versionFlags, header_);
        return ReadResult{word, rhash};
      }
      word = again;
    }
  }

  // Unmaps; capacity 0, and doResize returns false until the next attach.
  // An anchor that was set can no longer be proved current.
  void detach() {
    FMTRACE(handler_, 5, "SlotReaderTable", "delegating to SlotTable::detach()");
    if (!anchor_.neverSet()) anchor_.gone();
    if (!mappedAnchor_.neverSet()) mappedAnchor_.gone();
    mapping_.detach();
    header_ = nullptr;
    numSlots_ = Mem::VersionedRef<unsigned int>{0, 0};
    slots_ = Slots{};
  }

  // A private copy of the live header that does not straddle a resize, and
  // the file's length seen with it. Precondition: attached.
  SlotTable::Header headerCopy(uint64_t* fileSize = nullptr) const {
    SlotTable::Header copy;
    uint64_t const size = Mem::safeHeaderCopy(header_, &copy, &header_->numSlots.version, mapping_);
    if (fileSize) *fileSize = size;
    return copy;
  }

  uint32_t capacity() const { return numSlots_.value; }
  Mem::VersionedRef<unsigned int> numSlots() const { return numSlots_; }
  bool attached() const { return header_ != nullptr; }
  Slots const& slots() const { return slots_; }
  SlotTable::Header const* header() const { return header_; }
  Mem::VersionAnchor& anchor() { return anchor_; }
  Mem::VersionAnchor const& anchor() const { return anchor_; }
  Mem::VersionAnchor& mappedAnchor() { return mappedAnchor_; }
  Mem::ParcelWrapper const& mapping() const { return mapping_; }
  std::string const& name() const { return name_; }

 private:
  // doResize once the header's version has moved: out of line, so that the
  // check every operation ends with stays two loads and a compare.
  [[gnu::noinline]] bool remap() {
    SlotTable::Header copy;
    uint64_t const memSize =
        Mem::safeHeaderCopy(header_, &copy, &header_->numSlots.version, mapping_);
    uint32_t const newNumSlots = copy.numSlots.value;
    uint64_t needed;
    try {
      needed = Lomi::Util::fileSizeHelper(newNumSlots, Geometry::slotSize, Geometry::headerSize);
    } catch (Lomi::RuntimeException const& e) {
      throw Lomi::CorruptionDetectedException("bad newNumSlots:{} message:{}", newNumSlots,
                                              e.msg());
    }
    if (memSize < needed) {
      throw Lomi::CorruptionDetectedException(
          "requesting to map {} {} slots. Requested file resize to {} but real file size is {}",
          mapping_.getFilename(), newNumSlots, needed, memSize);
    }
    FMTRACE(handler_, 2, "SlotReaderTable", "{} from {} slots to {}", name_, numSlots_.value,
            newNumSlots);
    void const* const oldBase = header_;
    void* const newBase = mapping_.resize(needed);
    if (!newBase) {
      throw Lomi::MemoryResourceException(
          "failed to resize {} from {} to {} slots, needed {} bytes. Reason: {}",
          mapping_.getFilename(), numSlots_.value, newNumSlots, needed, mapping_.lastError());
    }
    header_ = static_cast<SlotTable::Header const*>(newBase);
    if (newBase != oldBase) {
      FMTRACE(handler_, 5, "SlotReaderTable", "changed base address mapping from {} to {}", oldBase,
              newBase);
      counters_.remaps++;
    }
    // The reader object retries every read that overlapped a resize, and the
    // retry sets the read anchor afresh; it is rebased too, so that an
    // exception that ends the retries never leaves it on an unmapped base.
    rebase(mappedAnchor_, newBase, needed);
    rebase(anchor_, newBase, needed);
    counters_.slotResizes++;
    FMTRACE(handler_, 3, "SlotReaderTable", "onResize {}", copy.toString());
    numSlots_ = copy.numSlots;
    slots_.base =
        reinterpret_cast<SlotT const*>(static_cast<char const*>(newBase) + Geometry::headerSize);
    slots_.count = newNumSlots;
    FMTRACE(handler_, 5, "SlotReaderTable", "successful");
    return true;
  }

  // Points `a` at the new base if its word still lies in the mapping of
  // `mapped` bytes; otherwise the slot is gone.
  static void rebase(Mem::VersionAnchor& a, void const* newBase, uint64_t mapped) {
    if (a.neverSet() || a.isGone()) return;
    if (uint64_t(a.offset) + sizeof(uint32_t) <= mapped) {
      a.base = newBase;
    } else {
      a.gone();
    }
  }

  Lomi::Platform::DebugHandler& handler_;
  std::string name_;
  Mem::ParcelWrapper mapping_;
  SlotTable::Header const* header_ = nullptr;
  Mem::VersionAnchor anchor_;
  Ops& ops_;
  Reader::Counters& counters_;
  Mem::VersionedRef<unsigned int> numSlots_{0, 0};
  Slots slots_;
  Mem::VersionAnchor mappedAnchor_;
};

}  // namespace Mirak
