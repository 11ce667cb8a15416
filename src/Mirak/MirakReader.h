// Mirak::MirakReader<Ops>: the back end of a collection in reader mode.
//
// It owns the read-only mappings of a table's slot file (SlotReaderTable) and
// bucket file (through ReaderHashMap), opens and validates them, and wraps
// every read in the loop that follows the writer's grows and shrinks. It polls
// nothing and is told nothing: each call sees the table as it is then.
//
// Contract:
//   - initialize(event) returns false, leaving nothing mapped, while the
//     table's files are missing, the kestor file is missing or unreadable, or
//     a header does not validate against the kestor file's id (the state of a
//     table whose writer is formatting or re-formatting: the kestor file is
//     written last). A header that fails validation also leaves the marker
//     "corruption-detected" in the table's directory. It throws
//     Lomi::InvalidInitializeException "Hardware does not support Atomics" on
//     a build or processor without lock-free 8-byte access.
//   - lookup, lookupBulk, first, next, getValue return a result only if
//     neither file's size version moved during the whole operation. They throw
//     Lomi::CorruptionDetectedException only when a walk failed and neither
//     file had been resized: then the table is damaged. A refused remap is
//     Lomi::MemoryResourceException. A detached reader answers absence.
//   - lookup without a buffer returns the address of a buffer inside this
//     object, valid until the next call.
//   - lookupBulk(keys, count, values, found) answers as `count` lookups with
//     buffers would, in groups of up to Map::kBulkMax keys whose cache misses
//     overlap; afterwards the anchor is reset (there is no one value to
//     validate).
//   - write, remove and the direct operations throw Lomi::NoPermissionException
//     (MirakInterface).
//   - validateVersionAnchor() tells whether the value last read is still the
//     current one of its slot: true, or Mem::VersionMismatchException after an
//     overwrite, removal or re-use of the slot. After a read that found
//     nothing it asserts: there is nothing to compare.
//   - A writer's re-format is not followed here: the front object's sentry
//     detaches this object and attaches a new one, which reads the new id.
//     Until then a read that fails on the re-formatted files is not reported
//     as damage: the reader lets its mappings go and answers as a detached
//     reader (absent, end of walk), and reformatted() says why. A read that
//     succeeds on them may report absence; callers that must tell check
//     reformatted() after the read.
//
// Thread safety: one thread per object (the value buffer, the anchor and the
// mappings are this object's own). Any number of reader objects and processes
// may read one table while its writer writes.
#pragma once

#include <algorithm>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Atomics.h"
#include "Mem/RootPath.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/Counters.h"
#include "Mirak/IterHint.h"
#include "Mirak/MapDescriptor.h"
#include "Mirak/MirakInterface.h"
#include "Mirak/Operations.h"
#include "Mirak/SlotReader.h"
#include "Mirak/SlotTable.h"
#include "Mirak/Util.h"
#include "MirakCore/ReaderHashMap.h"
#include "Parcel/KestorFile.h"
#include "Parcel/KestorId.h"

namespace Mirak {

template <TablePolicy OpsT>
class MirakReader : public MirakInterface<OpsT> {
 public:
  using Ops = OpsT;
  using Key = typename Ops::Key;
  using Value = typename Ops::Value;
  using Slots = SlotReaderTable<Ops>;
  using Map = MirakCore::ReaderHashMap<MirakReader>;
  using RetryHook = std::function<void()>;

  // Touches no file. `counters` null: the reader keeps its own record.
  MirakReader(Lomi::Platform::DebugHandler& handler, std::string const& name, Ops const& ops,
              Reader::Counters* counters = nullptr);
  ~MirakReader() override { detach(false); }

  // --- lifecycle ---------------------------------------------------------
  bool initialize(std::string const& event) override;
  void detach(bool force) override;

  // --- data operations ---------------------------------------------------
  Value const* lookup(Key const& key, bool& found, void* buffer) const override;
  // Looks up keys[0..count): found[i] tells whether keys[i] is in the table,
  // values[i] receives its value, or the default value if it is not. Returns
  // how many were found. The same answers, exceptions and retries as
  // `count` calls of lookup with a buffer; `keys` must not overlap `values`.
  uint32_t lookupBulk(Key const* keys, uint32_t count, Value* values, bool* found) const;
  bool first(Value& value, IterHint& hint) const override;
  bool next(Key const& key, Value& value, IterHint& hint) const override;
  // Reads slot `slot` as it is now (the shadow's way in). Returns whether it
  // holds a live entry; if not, the anchor is reset and the default value
  // goes to `defaultOut` when given. `buffer` receives what was read.
  bool getValue(uint32_t slot, Value& buffer, void* defaultOut) const;

  bool validateVersionAnchor() const override;
  Mem::CacheVersionAnchor getCacheVersionAnchor() const override { return slots_.anchor().cache(); }

  // --- accessors ---------------------------------------------------------
  uint32_t members() const override {
    return slots_.header() ? Mem::loadAcquire(slots_.header()->occupiedSlots) : 0;
  }
  uint32_t buckets() const override { return map_.numBuckets(); }
  uint32_t minSize() const override { return 0; }
  uint32_t maxSize() const override { return slots_.header() ? slots_.header()->maxSlots : 0; }
  uint32_t capacity() const override { return slots_.capacity(); }
  // Follows the writer's growth and shrink now, as every read does first:
  // remaps the slots and the buckets if their sizes moved. True if anything
  // was remapped. A sweep asks this before it reads capacity().
  bool resize() const {
    bool const slotChanged = slots_.doResize();
    bool const bucketChanged = map_.bucketReader().resize();
    return slotChanged || bucketChanged;
  }
  MirakType type() const override { return MirakType::reader; }
  bool quiesced() const override { return this->initialized(); }
  Reader::Counters readerCounters() const override;
  Mem::NaoRootPath rootPath() const override { return rootPath_; }
  std::string mirakName() const override { return rootPath_.dirName(); }
  Mem::MountStatus mountStatus() const override {
    return this->initialized() && slots_.attached() ? Mem::mountStatusMounted
                                                    : Mem::mountStatusNotMounted;
  }
  Parcel::KestorId kestorId() const override { return kestorId_; }
  // True when the files this reader attached to were re-formatted since (a
  // header names another kestor than the one read at initialize), or it has
  // let them go for that reason. Reads before this call are ordered before
  // its loads, so a false answer means that nothing this reader read so far
  // came from a re-format.
  bool reformatted() const;

  // "Mirak table "<root>"" and the text forms of both headers.
  std::string dumpHeaders() const;
  // Runs between two tries of an operation that overlapped a resize.
  void retryHookIs(RetryHook hook) { retryHook_ = std::move(hook); }

  // For ReaderHashMap, the shadow and tests.
  Slots& slotTable() const { return slots_; }
  Map& hashMap() const { return map_; }
  Ops const& ops() const { return ops_; }
  Reader::Counters& counters() const { return *counters_; }
  Value& valueBuffer() const { return buffer_; }

 private:
  // The read wrapper: runs `op` until it completes with neither file resized
  // under it. See the contract for what escapes.
  template <typename Op>
  auto readLoop(Op&& op, IterHint* hint) const -> decltype(op());
  void resetAnchor() const { slots_.anchor().reset(); }
  // Unmaps both files after a re-format under this reader.
  void letGoOfReformattedFiles() const;

  Ops ops_;
  Lomi::Platform::DebugHandler& handler_;
  Mem::NaoRootPath rootPath_;
  std::unique_ptr<Reader::Counters> ownCounters_;
  Reader::Counters* counters_;
  mutable Slots slots_;
  mutable Map map_;
  Parcel::KestorId kestorId_;
  mutable Value buffer_{};
  RetryHook retryHook_;
  mutable bool reformatSeen_ = false;
};

// ---------------------------------------------------------------------------

template <TablePolicy OpsT>
MirakReader<OpsT>::MirakReader(Lomi::Platform::DebugHandler& handler, std::string const& name,
                               Ops const& ops, Reader::Counters* counters)
    : ops_(ops),
      handler_(handler),
      rootPath_(handler, name, false),
      ownCounters_(counters ? nullptr : std::make_unique<Reader::Counters>()),
      counters_(counters ? counters : ownCounters_.get()),
      slots_(handler, rootPath_.str(), rootPath_, ops_, *counters_),
      map_(handler, rootPath_.path(), this) {}

template <TablePolicy OpsT>
bool MirakReader<OpsT>::initialize(std::string const& event) {
  std::string cpuError;
  if (!Mem::Atomics::checkCpuSupport(cpuError)) {
    FMTRACE(handler_, 0, "MirakReader", "{}", cpuError);
    throw Lomi::InvalidInitializeException("Hardware does not support Atomics");
  }
  if (this->initialized()) return true;
  auto fail = [&] {
    map_.bucketReader().detach();
    slots_.detach();
    return false;
  };
  // Map the bucket file, then the slot header; nothing is validated yet.
  std::string error;
  if (!map_.bucketReader().attach(0, error)) {
    FMTRACE(handler_, 0, "MirakReader", "failed to attach to buckets");
    FMTRACE(handler_, 3, "MirakReader", "{}", error);
    return fail();
  }
  if (!slots_.attach()) {
    FMTRACE(handler_, 0, "MirakReader", "failed to attach to slots");
    return fail();
  }
  // The kestor file names the generation both files must carry.
  Parcel::KestorFile kestorFile(handler_, rootPath_, false);
  kestorId_ = kestorFile.read();
  double const mtime = kestorFile.mtime();
  // No kestor: the writer has not finished, it writes the kestor file last.
  if (kestorId_.isZero()) {
    FMTRACE(handler_, 0, "MirakReader", "failed to read kestor file");
    FMTRACE(handler_, 0, "MirakReader", "{}", dumpHeaders());
    return fail();
  }
  if (!map_.bucketReader().validate(kestorId_.value(), error)) {
    FMTRACE(handler_, 0, "MirakReader", "failed to validate buckets");
    FMTRACE(handler_, 0, "MirakReader", "{}", dumpHeaders());
    Util::writeCorruptionFile(handler_, rootPath_, error);
    kestorId_ = Parcel::KestorId();
    return fail();
  }
  uint64_t fileSize = 0;
  SlotTable::Header const copy = slots_.headerCopy(&fileSize);
  if (!copy.validate(handler_, fileSize, kestorId_, error, Slots::Geometry::slotSize)) {
    FMTRACE(handler_, 0, "MirakReader", "failed to validate slots");
    FMTRACE(handler_, 0, "MirakReader", "{}", dumpHeaders());
    Util::writeCorruptionFile(handler_, rootPath_, error);
    kestorId_ = Parcel::KestorId();
    return fail();
  }
  // The seed is the one of the copy that was validated against the kestor
  // file: the one slots_.attach() took came before the kestor was read, and a
  // re-format in between would leave this reader hashing with the old seed.
  // A re-format writes the kestor first (SlotTable::Header::format), so a
  // copy that took any field of a re-format in progress finds the live kestor
  // moved here; the sentry attaches again when the new kestor file comes.
  ops_.hashSeedIs(copy.hashSeed);
  Mem::acquireFence();
  if (Mem::loadAcquire(slots_.header()->kestor) != kestorId_.value()) {
    FMTRACE(handler_, 1, "MirakReader", "{} re-formatted while attaching", rootPath_);
    kestorId_ = Parcel::KestorId();
    return fail();
  }
  reformatSeen_ = false;
  this->initializedIs(true);
  if (handler_.enabled(1)) {
    double const delay = mtime > 0 ? double(std::time(nullptr)) - mtime : 0.0;
    FMTRACE(handler_, 1, "MirakReader",
            "success {} capacity:{} kestorId:{} mtime:{} delay:{} event:{}", rootPath_, capacity(),
            kestorId_, mtime, delay, event);
  }
  return true;
}

template <TablePolicy OpsT>
void MirakReader<OpsT>::detach(bool) {
  if (!this->initialized()) {
    FMTRACE(handler_, 5, "MirakReader", "already detached");
    return;
  }
  map_.bucketReader().detach();
  slots_.detach();
  this->initializedIs(false);
  FMTRACE(handler_, 1, "MirakReader", "{} detached", rootPath_);
}

// Every operation asks both headers after it completed. The slot header's
// is the one that tells a re-format: the writer publishes the new kestor
// and size version before it formats a single slot, so a lookup that read a
// slot while it was being formatted finds numSlots moved here and retries.
// Skipping the question on lookups (it shares a line with counters that
// every write stores) let a reader return a value torn by a re-format in a
// reliability run, so it is asked every time.
template <TablePolicy OpsT>
template <typename Op>
auto MirakReader<OpsT>::readLoop(Op&& op, IterHint* hint) const -> decltype(op()) {
  auto& bucketReader = map_.bucketReader();
  for (;;) {
    try {
      auto result = op();
      bool const slotChanged = slots_.doResize();
      bool const bucketChanged = bucketReader.resize();
      if (!slotChanged && !bucketChanged) return result;
      if (bucketChanged) counters_->bucketResizes++;
    } catch (Lomi::CorruptionDetectedException const& e) {
      bool const slotChanged = slots_.doResize();
      bool const bucketChanged = bucketReader.resize();
      if (!slotChanged && !bucketChanged) {
        if (reformatted()) {
          // Not damage: another generation's rows under this reader's seed.
          // With the mappings gone the operation answers as a detached
          // reader does, now and until the sentry attaches again.
          counters_->reformatsSeen++;
          FMTRACE(handler_, 1, "MirakReader",
                  "{} re-formatted under this reader ({}); answering as detached", rootPath_,
                  e.msg());
          letGoOfReformattedFiles();
          continue;
        }
        // Nothing moved under the walk: the failure is the table's.
        counters_->corruptionsDetected++;
        FMTRACE(handler_, 0, "MirakReader", "{}: {}", rootPath_, e.msg());
        throw;
      }
      if (bucketChanged) counters_->bucketResizes++;
      FMTRACE(handler_, 5, "MirakReader", "{} resized under a read: {}", rootPath_, e.msg());
    }
    // The result, if any, may have been right; it is not trusted across a
    // resize. A walk resumes from its key, not from its hint.
    counters_->resizesFollowed++;
    if (retryHook_) retryHook_();
    if (hint) hint->bucket = IterHint::kNone;
  }
}

template <TablePolicy OpsT>
auto MirakReader<OpsT>::lookup(Key const& keyIn, bool& found, void* buffer) const -> Value const* {
  counters_->lookups++;
  Key const key = keyIn;
  bool hit = false;
  Value const* const p =
      readLoop([&] { return map_.lookup(key, hit, buffer); }, nullptr);
  found = hit;
  if (hit) return p;
  resetAnchor();
  Value const& absent = Ops::defaultValue();
  if (buffer) std::memcpy(buffer, &absent, sizeof(Value));
  return &absent;
}

template <TablePolicy OpsT>
uint32_t MirakReader<OpsT>::lookupBulk(Key const* keys, uint32_t count, Value* values,
                                       bool* found) const {
  counters_->lookups += count;
  Value const& absent = Ops::defaultValue();
  uint32_t hits = 0;
  for (uint32_t at = 0; at < count; at += Map::kBulkMax) {
    uint32_t const group = std::min(Map::kBulkMax, count - at);
    uint64_t const mask =
        readLoop([&] { return map_.lookupBulk(keys + at, group, values + at); }, nullptr);
    for (uint32_t i = 0; i < group; i++) {
      bool const hit = (mask >> i) & 1;
      found[at + i] = hit;
      hits += hit;
      if (!hit) std::memcpy(static_cast<void*>(values + at + i), &absent, sizeof(Value));
    }
  }
  resetAnchor();
  return hits;
}

template <TablePolicy OpsT>
bool MirakReader<OpsT>::first(Value& value, IterHint& hint) const {
  counters_->walks++;
  bool const found = readLoop(
      [&] {
        bool const r = map_.first(0, value, hint);
        if (!r) value = Ops::defaultValue();
        return r;
      },
      nullptr);
  if (!found) resetAnchor();
  return found;
}

template <TablePolicy OpsT>
bool MirakReader<OpsT>::next(Key const& keyIn, Value& value, IterHint& hint) const {
  // `keyIn` may be the key inside `value`, which every try overwrites.
  Key const key = keyIn;
  bool const found = readLoop([&] { return map_.next(key, value, hint); }, &hint);
  if (!found) resetAnchor();
  return found;
}

template <TablePolicy OpsT>
bool MirakReader<OpsT>::getValue(uint32_t slot, Value& buffer, void* defaultOut) const {
  uint32_t const word = readLoop(
      [&]() -> uint32_t {
        if (slot >= slots_.capacity()) return 0;
        return slots_.getValue(slot, buffer).word;
      },
      nullptr);
  if (word & SlotTable::OCCUPIED) return true;
  resetAnchor();
  if (defaultOut) std::memcpy(defaultOut, &Ops::defaultValue(), sizeof(Value));
  return false;
}

template <TablePolicy OpsT>
bool MirakReader<OpsT>::validateVersionAnchor() const {
  Mem::VersionAnchor const a = slots_.anchor();
  if (auto hook = this->validateVersionAnchorHook()) hook(a);
  FMASSERT(!a.neverSet(), handler_, "MirakReader",
           "should not be called on a default-constructed VersionAnchor");
  if (a.current()) return true;
  throw Mem::VersionMismatchException();
}

template <TablePolicy OpsT>
bool MirakReader<OpsT>::reformatted() const {
  if (reformatSeen_) return true;
  if (!this->initialized()) return false;
  // After every load of the reads before this call.
  Mem::acquireFence();
  SlotTable::Header const* slots = slots_.header();
  auto const* buckets = map_.bucketReader().header();
  return (slots && Mem::loadAcquire(slots->kestor) != kestorId_.value()) ||
         (buckets && Mem::loadAcquire(buckets->id.kestor) != kestorId_.value());
}

template <TablePolicy OpsT>
void MirakReader<OpsT>::letGoOfReformattedFiles() const {
  reformatSeen_ = true;
  map_.bucketReader().detach();
  slots_.detach();
}

template <TablePolicy OpsT>
Reader::Counters MirakReader<OpsT>::readerCounters() const {
  counters_->slotMappedSize = slots_.mapping().fileSize();
  counters_->bucketMappedSize = map_.bucketReader().mappedBytes();
  return *counters_;
}

template <TablePolicy OpsT>
std::string MirakReader<OpsT>::dumpHeaders() const {
  std::string const slotText =
      slots_.attached() ? slots_.headerCopy().toString() : std::string("slots: not attached");
  return fmt::format("Mirak table \"{}\"\n\n\n{}\n\n{}\n\n", rootPath_, slotText,
                     map_.bucketReader().toString());
}

}  // namespace Mirak
