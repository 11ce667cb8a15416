// Mirak::SlotWriterTable: the writer's side of the slot file.
//
// It formats or adopts the file, hands out and takes back slots through the
// free list, grows the file, and marks critical sections. It knows nothing of
// keys or buckets: the hash map and the write path stand on it.
//
// Safety (one writer thread; any number of reader processes mapping read-only):
//  1. New slots are formatted completely before the capacity that covers them
//     is published (grow), and the free list is joined last: a reader that
//     learns the new capacity finds formatted slots.
//  2. Every link store is one 8-byte release store that adds 4 to the link's
//     version; the `numSlots` pair is one 8-byte release store that adds 1.
//  3. Bit 0 of `runtimeFlags` is set while the table may be inconsistent. It is
//     no lock; it survives the writer's death, and the next writer's
//     validation fails on it. An exception leaving a critical section leaves it
//     set on purpose: the table may be half-changed.
//  4. The file is never copied: it grows by remap, and every pointer into it
//     is stale after `resize`.
//  5. The capacity falls only at the end of a slot compaction (shrinkTo):
//     the smaller `numSlots` is published before the mapping is cut, and the
//     file is never shortened (its tail becomes a hole), so no reader faults
//     on an older, longer mapping.
#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Atomics.h"
#include "Mem/ParcelWrapper.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/Counters.h"
#include "Mirak/SlotLink.h"
#include "Mirak/SlotTable.h"
#include "Mirak/TableFullException.h"
#include "Mem/AttachResult.h"
#include "Parcel/KestorId.h"

namespace Mirak {

// Fixed facts of a table whose values are `Value`.
template <typename Value>
struct SlotGeometry {
  using SlotT = SlotTable::Slot<Value>;
  static constexpr uint32_t valueSize = sizeof(Value);
  static constexpr uint32_t slotSize = SlotTable::slotSizeFor(valueSize);
  static constexpr uint32_t headerSize = SlotTable::headerSizeFor(valueSize);
  static_assert(sizeof(SlotT) == slotSize, "a slot is 16 bytes and the value, rounded up to 8");
  static_assert(offsetof(SlotT, value) == 16);
  static_assert(alignof(Value) <= 8, "values must fit the 8-byte slot alignment");
};

template <typename Value>
class SlotWriterTable {
 public:
  using Geometry = SlotGeometry<Value>;
  using SlotT = typename Geometry::SlotT;
  static constexpr uint32_t kNoSlot = SlotTable::kNoSlot;

  // The table's side of the hash map's slot-table concept (see
  // MirakCore/WriterHashMap.h): the link a slot starts with, the statistics the
  // map adds to, and the word test that says a slot holds an entry.
  using Link = SlotLink;
  using Counters = Writer::Counters;
  static constexpr bool occupied(uint32_t versionFlags) {
    return (versionFlags & SlotTable::OCCUPIED) != 0;
  }

  struct Slots {
    SlotT* base = nullptr;
    uint32_t maxIndex = 0;  // capacity - 1; 0 for an empty table

    SlotT& operator[](uint32_t index) const {
      if (index > maxIndex) {
        throw Lomi::CorruptionDetectedException("out-of-range index: {} max:{}", index, maxIndex);
      }
      return base[index];
    }
  };

  // Settings the table is built from (they come from the map descriptor).
  struct Config {
    uint32_t maxSlots = 0;
    bool fixedSize = false;
    bool shrinkSlots = false;
    uint16_t constFlags = 0;
    std::string valueTypeName;
  };

  // `filePath` empty: the table lives in private memory. `name` stands for the
  // table in messages. `hashSeed` is the policy's seed, set at attach.
  SlotWriterTable(Lomi::Platform::DebugHandler& handler, std::string name, std::string filePath,
                  Config config, uint32_t& hashSeed, Writer::Counters& counters)
      : handler_(handler),
        name_(std::move(name)),
        wrapper_(std::move(filePath)),
        config_(std::move(config)),
        hashSeed_(hashSeed),
        counters_(counters) {
    minSlots_ = config_.fixedSize ? config_.maxSlots : computeMinSlots();
  }
  SlotWriterTable(SlotWriterTable const&) = delete;
  SlotWriterTable& operator=(SlotWriterTable const&) = delete;
  virtual ~SlotWriterTable() = default;

  // Formats or adopts the file; see the header comment of attach() in the .cpp
  // notes below. Returns attachNew, attachKept or attachReformatted.
  Mem::AttachResult attach(Parcel::KestorId kestor);
  virtual void detach();
  // Prepares the next re-format for a bulk build of `rows` records: the
  // memory of the slots the build will store into (see buildCapacity) is
  // kept instead of released with the tail, so that the build writes over
  // pages already there rather than zero-filled ones it would fault in
  // again. Their bytes mean nothing to anyone until the build stores them:
  // the re-format has published the new kestor and a moved size version,
  // and it draws a new hash seed as ever, under which a reader still on
  // the old generation finds the rows it meets out of place. For one
  // attach.
  void reformatForBuild(uint32_t rows) { buildRows_ = rows; }
  // The capacity a bulk build of `rows` takes on a freshly formatted table:
  // minSlots grown as the insert path grows it, or minSlots when fixed.
  uint32_t buildCapacity(uint32_t rows) const {
    uint32_t c = minSlots_;
    while (!config_.fixedSize && c < rows) c = nextCapacity(c, config_.maxSlots);
    return c;
  }

  virtual uint32_t capacity() const { return capacity_; }
  uint32_t minSlots() const { return minSlots_; }
  uint32_t maxSlots() const { return config_.maxSlots; }
  bool fixedSize() const { return config_.fixedSize; }

  // Called with an empty free list. False only for a fixed-size table.
  bool grow();
  // The capacity after a grow from `c`: double below maxSlots (capped there,
  // computed in single precision); at or beyond maxSlots, creep on by a tenth,
  // rounded up. The overshoot past maxSlots is the rule, not an error.
  static uint32_t nextCapacity(uint32_t c, uint32_t maxSlots) {
    uint32_t n;
    if (c < maxSlots) {
      n = static_cast<uint32_t>(static_cast<float>(c) * 2.0f);
      if (n > maxSlots) n = maxSlots;
    } else {
      float const crept = static_cast<float>(c) * 1.1f;
      n = static_cast<uint32_t>(crept);
      if (static_cast<float>(n) < crept) n++;
    }
    return n > c ? n : c + 1;
  }
  // Remaps the file for `newNumSlots` slots. Updates neither capacity nor
  // slots; the version anchor follows the mapping (rebased, or gone if its
  // word lies beyond the new size).
  void resize(uint32_t newNumSlots);
  // The end of a slot compaction: publishes `newNumSlots` in `numSlots`
  // (version + 1), then cuts the mapping down and releases the file's tail,
  // then refreshes the cached capacity, slots and shrink threshold.
  // Precondition: every slot at or above `newNumSlots` is unused and off the
  // free list, and `newNumSlots` is below the capacity. Throws
  // Lomi::MemoryResourceException if the remap fails; `numSlots` holds the
  // new count then, and the caller's critical section stays marked.
  void shrinkTo(uint32_t newNumSlots);
  // Puts `index` on the free list. Returns the shrink threshold if a shrink is
  // due, else 0.
  uint32_t dealloc(uint32_t index);
  // The failure exit of allocation on a full fixed-size table.
  [[noreturn]] void alloc();
  // Recomputes shrinkThreshold_ from the capacity and settings.
  uint32_t shrinkThreshold();
  uint32_t currentShrinkThreshold() const { return shrinkThreshold_; }

  void enterCriticalSection();
  void leaveCriticalSection() {
    Mem::storeRelease(header_->runtimeFlags,
                      uint16_t(header_->runtimeFlags & ~SlotTable::kRuntimeFlagCritical));
  }
  bool inCriticalSection() const {
    return header_ && (header_->runtimeFlags & SlotTable::kRuntimeFlagCritical);
  }

  // Clears the critical bit at the end of an operation, unless an exception is
  // leaving it: a half-done change must fail the next validation.
  class CriticalSectionAnchor {
   public:
    explicit CriticalSectionAnchor(SlotWriterTable* table) : table_(table) {
      table_->enterCriticalSection();
    }
    ~CriticalSectionAnchor() {
      if (std::uncaught_exceptions() == 0) table_->leaveCriticalSection();
    }
    CriticalSectionAnchor(CriticalSectionAnchor const&) = delete;
    CriticalSectionAnchor& operator=(CriticalSectionAnchor const&) = delete;

   private:
    SlotWriterTable* table_;
  };

  // The slot side of a salvage's bulk build (MirakWriter::carrySalvage), on a
  // freshly formatted generation that no reader reads (its kestor file is not
  // written yet), inside the caller's critical section:
  //   1. the mapping grows to `n` slots (n >= capacity), and the slots beyond
  //      the old capacity and at or above `occupied` are formatted at the
  //      regrowth floor, as a grow formats them;
  //   2. slots [occupied, n) are threaded on the free list;
  //   3. occupiedSlots = `occupied`, mostSlots, and the count published.
  // The caller stores slots [0, occupied) whole: link, rhash, value, word;
  // firstWord(i) is the word slot i holds before that (the format's, or the
  // floor for a slot the mapping just gained).
  void buildLayoutIs(uint32_t n, uint32_t occupied);
  uint32_t firstWord(uint32_t index, uint32_t oldCapacity) const {
    return index < oldCapacity ? slots_.base[index].versionFlags : header_->regrowthFloor();
  }
  // Threads slots [start, end) on the free list, lowest index first.
  // Precondition: the free list is empty. The caller sets freeSlots.
  void addFreeSlots(uint32_t start, uint32_t end);

  SlotTable::Header* header() const { return header_; }
  Slots const& slots() const { return slots_; }
  char* base() const { return static_cast<char*>(wrapper_.base()); }
  // Bytes of the mapping that hold the header and the current capacity.
  uint64_t usedBytes() const {
    return uint64_t(Geometry::headerSize) + uint64_t(capacity_) * Geometry::slotSize;
  }
  Mem::ParcelWrapper& wrapper() { return wrapper_; }
  Mem::ParcelWrapper const& wrapper() const { return wrapper_; }
  Mem::VersionAnchor& versionAnchor() { return anchor_; }
  Mem::VersionAnchor const& versionAnchor() const { return anchor_; }
  std::string const& name() const { return name_; }
  Lomi::Platform::DebugHandler& handler() const { return handler_; }

  // Points the table's cached pointers at the current mapping and capacity.
  void refresh();

  static Value const& defaultValue() {
    static Value const v{};
    return v;
  }

 private:
  uint32_t computeMinSlots() const;
  // The slot is not published yet, but a reader on an older, longer mapping
  // may load its words: they are stored whole.
  void formatSlot(SlotT& s, uint32_t word) {
    Mem::storeRelease(s.link, SlotLink{0, kNoSlot});
    Mem::storeRelease(s.versionFlags, word);
    Mem::storeRelease(s.rhash, 0u);
    s.value = defaultValue();
  }

  Lomi::Platform::DebugHandler& handler_;
  std::string name_;
  Mem::ParcelWrapper wrapper_;
  SlotTable::Header* header_ = nullptr;
  Mem::VersionAnchor anchor_;
  uint32_t capacity_ = 0;
  Config config_;
  uint32_t& hashSeed_;
  uint32_t minSlots_ = 1;
  // reformatForBuild's, for the next re-format.
  std::optional<uint32_t> buildRows_;
  Slots slots_;
  Writer::Counters& counters_;
  uint32_t shrinkThreshold_ = 0;
};

// ---------------------------------------------------------------------------

template <typename Value>
uint32_t SlotWriterTable<Value>::computeMinSlots() const {
  // The largest power of two of slots that fit beside the header in one page.
  uint64_t const page = Lomi::Util::pageSize();
  if (page <= Geometry::headerSize) return 1;
  uint64_t const room = page - Geometry::headerSize;
  if (room < Geometry::slotSize) return 1;
  return uint32_t(1) << (std::bit_width(room / Geometry::slotSize) - 1);
}

template <typename Value>
void SlotWriterTable<Value>::refresh() {
  header_ = static_cast<SlotTable::Header*>(wrapper_.base());
  capacity_ = header_ ? header_->numSlots.value : 0;
  slots_.base = header_ ? reinterpret_cast<SlotT*>(base() + Geometry::headerSize) : nullptr;
  slots_.maxIndex = capacity_ ? capacity_ - 1 : 0;
  shrinkThreshold();
}

template <typename Value>
Mem::AttachResult SlotWriterTable<Value>::attach(Parcel::KestorId kestor) {
  std::optional<uint32_t> const buildRows = std::exchange(buildRows_, std::nullopt);
  detach();
  uint64_t const existing = wrapper_.memSize();
  uint64_t const size =
      Lomi::Util::fileSizeHelper(minSlots_, Geometry::slotSize, Geometry::headerSize);
  if (!wrapper_.attach(size, Mem::ParcelWrapper::Mode::ReadWrite)) {
    throw Lomi::InvalidInitializeException("cannot attach to shmem {} size:{}: {}",
                                           wrapper_.getFilename(), size, wrapper_.lastError());
  }
  header_ = static_cast<SlotTable::Header*>(wrapper_.base());
  auto wrongFixedCapacity = [&] {
    if (config_.fixedSize && (existing == 0 || header_->numSlots.value != minSlots_)) {
      FMTRACE(handler_, 1, "SlotWriterTable",
              "wanted capacity:{} for fixed-size table, but existing file has capacity:{}",
              minSlots_, existing == 0 ? 0u : header_->numSlots.value);
      return true;
    }
    return false;
  };
  bool reformat = true;
  if (existing != 0 && header_->kestor == kestor.value()) {
    std::string error;
    bool valid = header_->validate(handler_, existing, kestor, error, Geometry::slotSize);
    bool const wrongCapacity = wrongFixedCapacity();
    if (valid && !wrongCapacity) reformat = false;
  } else {
    wrongFixedCapacity();
  }
  if (!reformat) {
    hashSeed_ = header_->hashSeed;
    uint64_t const storedSize = Lomi::Util::fileSizeHelper(
        header_->numSlots.value, Geometry::slotSize, Geometry::headerSize);
    if (!wrapper_.resize(storedSize)) {
      throw Lomi::MemoryResourceException("failed to resize {} to size {} : {}",
                                          wrapper_.getFilename(), storedSize, wrapper_.lastError());
    }
    refresh();
    FMTRACE(handler_, 2, "SlotWriterTable", "to existing {}", name_);
    FMTRACE(handler_, 3, "SlotWriterTable", "{}", header_->toString());
    return Mem::attachKept;
  }
  // A re-format carries the size version on, so that a reader still mapping
  // the old generation sees it move (and never meets a version it knew).
  // Before anything is taken from under such a reader (the tail released
  // below, the slots formatted), the new kestor and a moved version are
  // published: a reader that then reads a released or formatted slot finds
  // the kestor changed and answers as detached instead of reporting damage
  // (MirakReader::reformatted). The format publishes the new size with the
  // version after that.
  uint32_t numSlotsVersion = 0;
  if (existing >= sizeof(SlotTable::Header)) {
    Mem::VersionedRef<unsigned int> const old = Mem::loadAcquire(header_->numSlots);
    Mem::storeRelease(header_->kestor, kestor.value());
    Mem::storeRelease(header_->numSlots,
                      Mem::VersionedRef<unsigned int>{old.version + 1, old.value});
    Mem::releaseFence();
    numSlotsVersion = old.version + 2;
  }
  if (existing != 0) {
    // Re-format: take the file as it stands, then bring it to the size for
    // minSlots (the tail is released, but for what reformatForBuild asked to
    // keep; the file is not shortened).
    uint64_t const fileLength = wrapper_.memSize();
    uint64_t const keep = buildRows ? Lomi::Util::fileSizeHelper(buildCapacity(*buildRows),
                                                                  Geometry::slotSize,
                                                                  Geometry::headerSize)
                                    : 0;
    if (!wrapper_.resize(fileLength) || !wrapper_.resize(size, keep)) {
      throw Lomi::MemoryResourceException("failed to resize {} to size {} : {}",
                                          wrapper_.getFilename(), size, wrapper_.lastError());
    }
  }
  uint32_t const seed = static_cast<uint32_t>(std::rand());
  hashSeed_ = seed;
  SlotTable::Header::format(wrapper_.base(), handler_, minSlots_, config_.maxSlots,
                            config_.constFlags, kestor, config_.valueTypeName, Geometry::valueSize,
                            seed, &defaultValue(), numSlotsVersion);
  refresh();
  addFreeSlots(0, minSlots_);
  Mem::storeRelease(header_->freeSlots, 0u);
  Mem::AttachResult result;
  if (existing != 0) {
    FMTRACE(handler_, 1, "SlotWriterTable", "re-formatted {}", name_);
    result = Mem::attachReformatted;
  } else {
    if (!wrapper_.local()) FMTRACE(handler_, 2, "SlotWriterTable", "to new file {}", name_);
    result = Mem::attachNew;
  }
  FMTRACE(handler_, 3, "SlotWriterTable", "{}", header_->toString());
  return result;
}

template <typename Value>
void SlotWriterTable<Value>::detach() {
  // The anchor's word is about to be unmapped: it can no longer be current.
  if (!anchor_.neverSet()) anchor_.gone();
  capacity_ = 0;
  slots_ = Slots{};
  wrapper_.detach();
  header_ = nullptr;
}

template <typename Value>
void SlotWriterTable<Value>::addFreeSlots(uint32_t start, uint32_t end) {
  FMASSERT(start < end, handler_, "SlotWriterTable", "bad index range, start: {} end: {}", start,
           end);
  FMASSERT(header_->freeSlots == kNoSlot, handler_, "SlotWriterTable", "free-list is not empty");
  uint32_t next = kNoSlot;
  for (uint32_t i = end; i-- > start;) {
    SlotT& s = slots_[i];
    Mem::storeRelease(s.link, SlotLink{s.link.version + SlotLink::kVersionStep, next});
    next = i;
  }
}

template <typename Value>
bool SlotWriterTable<Value>::grow() {
  // The free list is empty, so every slot must be in use.
  if (header_->occupiedSlots != header_->numSlots.value) {
    throw Lomi::CorruptionDetectedException(
        "the slot table is full but numSlots: {} and occupiedSlots: {} are not equal",
        header_->numSlots.value, header_->occupiedSlots);
  }
  if (config_.fixedSize) return false;
  uint32_t const c = capacity_;
  uint32_t const n = nextCapacity(c, config_.maxSlots);
  resize(n);
  header_ = static_cast<SlotTable::Header*>(wrapper_.base());
  // Safety rule 1: format the new slots before anyone can learn of them. Their words
  // start at the regrowth floor: a slot that a compaction cut off and this
  // grow brings back must not repeat a word it had.
  auto* newBase = reinterpret_cast<SlotT*>(base() + Geometry::headerSize);
  uint32_t const floor = header_->regrowthFloor();
  for (uint32_t i = c; i < n; i++) formatSlot(newBase[i], floor);
  slots_.base = newBase;
  slots_.maxIndex = n - 1;
  addFreeSlots(c, n);
  if (header_->mostSlots < n) Mem::storeRelease(header_->mostSlots, n);
  // Publish the capacity: readers learn of the new size here.
  Mem::storeRelease(header_->numSlots,
                    Mem::VersionedRef<unsigned int>{header_->numSlots.version + 1, n});
  // Join the free list last (safety rule 1).
  Mem::storeRelease(header_->freeSlots, c);
  FMTRACE(handler_, 2, "SlotWriterTable", "{} from {} slots to {}", name_, c, n);
  refresh();
  counters_.slotGrows++;
  return true;
}

template <typename Value>
void SlotWriterTable<Value>::buildLayoutIs(uint32_t n, uint32_t occupied) {
  uint32_t const c = capacity_;
  FMASSERT(n >= c && occupied <= n && header_->occupiedSlots == 0, handler_, "SlotWriterTable",
           "bulk build of {} slots ({} occupied) on a table of {} slots, {} in use", n, occupied, c,
           header_->occupiedSlots);
  // Build step 1.
  if (n > c) {
    resize(n);
    header_ = static_cast<SlotTable::Header*>(wrapper_.base());
    auto* newBase = reinterpret_cast<SlotT*>(base() + Geometry::headerSize);
    uint32_t const floor = header_->regrowthFloor();
    // The build stores into every new slot: their pages are taken in one
    // call (a hint; without it each page faults on its first store).
#ifndef MADV_POPULATE_WRITE
    constexpr int MADV_POPULATE_WRITE = 23;  // Linux 5.14
#endif
    uint64_t const from = (Geometry::headerSize + uint64_t(c) * Geometry::slotSize) & ~uint64_t(4095);
    uint64_t const to = Geometry::headerSize + uint64_t(n) * Geometry::slotSize;
    (void)::madvise(reinterpret_cast<char*>(base()) + from, to - from, MADV_POPULATE_WRITE);
    for (uint32_t i = std::max(c, occupied); i < n; i++) formatSlot(newBase[i], floor);
    slots_.base = newBase;
    slots_.maxIndex = n - 1;
  }
  // Build step 2.
  Mem::storeRelease(header_->freeSlots, kNoSlot);
  if (occupied < n) addFreeSlots(occupied, n);
  // Build step 3.
  Mem::storeRelease(header_->occupiedSlots, occupied);
  if (header_->mostSlots < n) Mem::storeRelease(header_->mostSlots, n);
  if (n != c) {
    Mem::storeRelease(header_->numSlots,
                      Mem::VersionedRef<unsigned int>{header_->numSlots.version + 1, n});
  }
  if (occupied < n) Mem::storeRelease(header_->freeSlots, occupied);
  refresh();
  FMTRACE(handler_, 2, "SlotWriterTable", "{} built with {} slots, {} in use", name_, n, occupied);
}

template <typename Value>
void SlotWriterTable<Value>::resize(uint32_t newNumSlots) {
  FMTRACE(handler_, 5, "SlotWriterTable", "{} from {} to {} slots", name_, capacity_, newNumSlots);
  if (newNumSlots > config_.maxSlots) {
    FMTRACE(handler_, 5, "SlotWriterTable", "overflowing by {} slots",
            newNumSlots - config_.maxSlots);
  }
  uint64_t const size =
      Lomi::Util::fileSizeHelper(newNumSlots, Geometry::slotSize, Geometry::headerSize);
  void* const oldBase = wrapper_.base();
  void* const newBase = wrapper_.resize(size);
  if (!newBase) {
    throw Lomi::MemoryResourceException(
        "failed to resize {} from {} to {} slots, needed {} bytes. Reason: {}",
        wrapper_.getFilename(), capacity_, newNumSlots, size, wrapper_.lastError());
  }
  if (newBase != oldBase) {
    FMTRACE(handler_, 5, "SlotWriterTable", "remap base address changed from {} to {}", oldBase,
            newBase);
    counters_.remaps++;
  }
  // The old base may be unmapped now; an anchor on a slot that was cut off
  // can never be current again.
  if (!anchor_.neverSet() && !anchor_.isGone()) {
    if (uint64_t(anchor_.offset) + sizeof(uint32_t) <= size) {
      anchor_.base = newBase;
    } else {
      anchor_.gone();
    }
  }
  FMTRACE(handler_, 5, "SlotWriterTable", "to {} successfully", newNumSlots);
}

// Store order of a shrink's end (slot compaction, steps 9 and 10):
//   9: the regrowth floor rises above every word of the slots cut off, so a
//      grow that brings them back starts them at words they never had. Only
//      the writer reads it; it is in the file before anything is released.
//      `numSlots` = (version + 1, N), one 8-byte release store. Readers learn
//      of the smaller size here, before anything is taken away: a reader that
//      still maps the tail finds the version moved and remaps.
//  10: the mapping shrinks to N slots; the tail's memory goes back by a hole
//      punched into the file, whose length stays, so a reader that still maps
//      the older, longer range reads zeros there and never faults.
template <typename Value>
void SlotWriterTable<Value>::shrinkTo(uint32_t newNumSlots) {
  FMASSERT(newNumSlots < capacity_ && newNumSlots != 0, handler_, "SlotWriterTable",
           "bad threshold: {} numSlots:{}", newNumSlots, capacity_);
  // Step 9 of the order above: the floor, then numSlots.
  uint32_t floor = header_->regrowthFloor();
  for (uint32_t i = newNumSlots; i < capacity_; i++) {
    // The next multiple of 4 above the word: above it whatever its flags.
    uint32_t const above = (slots_[i].versionFlags | 3u) + 1;
    if (above > floor) floor = above;
  }
  Mem::storeRelease(header_->regrowthFloor(), floor);
  Mem::storeRelease(header_->numSlots,
                    Mem::VersionedRef<unsigned int>{header_->numSlots.version + 1, newNumSlots});
  // Step 10 of the order above.
  resize(newNumSlots);
  refresh();
  counters_.slotShrinks++;
}

template <typename Value>
uint32_t SlotWriterTable<Value>::dealloc(uint32_t index) {
  SlotT& s = slots_[index];
  uint32_t const oldHead = header_->freeSlots;
  // The value is no longer live; a reader inside it restarts.
  Mem::storeRelease(s.versionFlags, s.versionFlags & ~SlotTable::OCCUPIED);
  // Then the slot heads the free list (readers never walk it).
  Mem::storeRelease(header_->freeSlots, index);
  Mem::storeRelease(s.link, SlotLink{s.link.version + SlotLink::kVersionStep, oldHead});
  Mem::storeRelease(header_->occupiedSlots, header_->occupiedSlots - 1);
  counters_.slotsFreed++;
  return header_->occupiedSlots < shrinkThreshold_ / 2 ? shrinkThreshold_ : 0;
}

template <typename Value>
void SlotWriterTable<Value>::alloc() {
  // A refused insert changed nothing: the critical bit is cleared before the
  // throw, unlike any other exception of a critical section.
  leaveCriticalSection();
  throw TableFullException("Mirak table full (occupancy:{} tableSize:{}) {}",
                           header_->occupiedSlots, config_.maxSlots, name_);
}

template <typename Value>
uint32_t SlotWriterTable<Value>::shrinkThreshold() {
  if (config_.shrinkSlots && !config_.fixedSize && capacity_ > minSlots_) {
    shrinkThreshold_ = capacity_ <= 1 ? 1 : uint32_t(1) << (std::bit_width(capacity_ - 1) - 1);
  } else {
    shrinkThreshold_ = 0;
  }
  FMTRACE(handler_, 5, "SlotWriterTable", "shrinkThreshold_:{}", shrinkThreshold_);
  return shrinkThreshold_;
}

template <typename Value>
void SlotWriterTable<Value>::enterCriticalSection() {
  FMASSERT(!(header_->runtimeFlags & SlotTable::kRuntimeFlagCritical), handler_, "SlotWriterTable",
           "Mirak reentrancy detected: {}", name_);
  Mem::storeRelease(header_->runtimeFlags,
                    uint16_t(header_->runtimeFlags | SlotTable::kRuntimeFlagCritical));
}

}  // namespace Mirak
