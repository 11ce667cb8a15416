// MirakCore::BucketReader: a reader's read-only mapping of the bucket file.
// Layout and who stores what: BucketTable.h.
//
// Safety block:
//   - This class stores nothing into the file; the mapping is PROT_READ, so a
//     stray store faults.
//   - All bucket arithmetic of the reader uses a private copy of the header's
//     numBuckets pair (`numBuckets_`), taken by one acquire load. The header's
//     pair may move at any time; checkResize() / resize() compare versions and
//     remap. A reader never trusts a count it has not mapped.
//   - The mapping never exceeds the file's length: the writer never shortens
//     the file (Mem::ParcelWrapper), so a mapping once valid stays readable,
//     with zeros where the writer gave memory back.
//   - Invariant the writer keeps for us: a count is published only after the
//     file covers its entries (grow: resize, stores, then the pair). So a pair
//     loaded with acquire always fits the file's length at the time of the
//     load; if it does not, the file is damaged.
//
// Contract: one thread per object. References from operator[] are stale after
// resize/refresh/attach/detach. Failures of a walk are
// Lomi::CorruptionDetectedException (the caller decides whether a resize
// explains them); a remap the system refuses is Lomi::MemoryResourceException.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Atomics.h"
#include "Mem/ParcelWrapper.h"
#include "Mem/VersionedRef.h"
#include "MirakCore/BitReverse.h"
#include "MirakCore/BucketTable.h"

namespace MirakCore {

template <typename Link>
class BucketReader {
  static_assert(BucketTableLayout<Link>::ok);

 public:
  using Table = BucketTable<Link>;
  using Header = typename Table::Header;
  static constexpr char const* kFileName = "buckets";

  // `directory` is the table's root directory. Nothing is mapped until attach.
  BucketReader(Lomi::Platform::DebugHandler& handler, std::string const& directory)
      : handler_(handler), wrapper_(directory + "/" + kFileName) {}
  BucketReader(BucketReader const&) = delete;
  BucketReader& operator=(BucketReader const&) = delete;

  // Maps the file read-only and checks its header against `kestor` (0: any).
  // On false, `error` names the file and the problem, and nothing stays mapped.
  bool attach(uint32_t kestor, std::string& error) {
    detach();
    if (!wrapper_.attach(0, Mem::ParcelWrapper::Mode::ReadOnly)) {
      error = fmt::format("bucket table: {}", wrapper_.lastError());
      return false;
    }
    uint64_t const length = wrapper_.fileSize();
    if (length < sizeof(Header)) {
      error = fmt::format("{}: file has {} bytes, less than the {} byte header", path(), length,
                          sizeof(Header));
      wrapper_.detach();
      return false;
    }
    header_ = static_cast<Header const*>(wrapper_.base());
    if (!header_->validate(length, kestor, path(), error) || !remap(error)) {
      detach();
      return false;
    }
    FMTRACE(handler_, 3, "BucketReader", "attached {}: {}", path(), header_->toString());
    return true;
  }
  bool attach(uint32_t kestor = 0) { return attach(kestor, lastError_); }

  // Unmaps. The private count becomes 0, which is how a detached reader
  // answers: every index is out of range.
  void detach() {
    wrapper_.detach();
    header_ = nullptr;
    numBuckets_ = {};
    bits_ = 0;
  }

  // Checks the mapped header (any field may have moved since attach).
  bool validate(uint32_t kestor, std::string& error) const {
    if (!header_) {
      error = fmt::format("{}: bucket table is not attached", path());
    } else if (header_->validate(wrapper_.memSize(), kestor, path(), error)) {
      return true;
    }
    FMTRACE(handler_, 0, "BucketReader", "{}", error);
    return false;
  }

  // Throws unless the private pair is still the header's.
  void checkResize() const {
    if (!header_) return;
    Mem::VersionedRef<unsigned int> const seen = Mem::loadAcquire(header_->numBuckets);
    if (seen.version != numBuckets_.version) {
      FMTRACE(handler_, 0, "BucketReader",
              "found mismatch, local numBuckets:{} header numBuckets:{}", numBuckets_, seen);
      throw Lomi::CorruptionDetectedException(
          "found mismatch, local numBuckets:{} header numBuckets:{}", numBuckets_, seen);
    }
  }

  // False if detached or the versions agree; otherwise doResize() and true.
  bool resize() {
    if (!header_ || Mem::loadAcquire(header_->numBuckets).version == numBuckets_.version) {
      return false;
    }
    doResize();
    return true;
  }
  // Follows the writer's latest grow or shrink, if any; true if it remapped.
  bool refresh() { return resize(); }

  // Takes the header's pair and maps what it needs, growing or shrinking the
  // mapping (never beyond the file's length).
  void doResize() {
    std::string error;
    if (!header_)
      throw Lomi::CorruptionDetectedException("{}: resize of a detached bucket table", path());
    if (!remap(error)) throw Lomi::CorruptionDetectedException(error);
    ++remaps_;
    FMTRACE(handler_, 2, "BucketReader", "{} remapped for numBuckets:{}, {} bytes", path(),
            numBuckets_, wrapper_.fileSize());
  }

  // Entry `index` of the private count.
  Link const& operator[](uint32_t index) const {
    if (index >= numBuckets_.value) [[unlikely]] outOfRange(index);
    return header_->entries()[index];
  }

  // The private count, 0 when detached; its pair; log2 of the count.
  uint32_t numBuckets() const { return numBuckets_.value; }
  Mem::VersionedRef<unsigned int> numBucketsRef() const { return numBuckets_; }
  uint32_t bits() const { return bits_; }
  // The header's pair as it is now (one acquire load).
  Mem::VersionedRef<unsigned int> headerNumBuckets() const {
    return header_ ? Mem::loadAcquire(header_->numBuckets) : Mem::VersionedRef<unsigned int>{};
  }
  bool attached() const { return header_ != nullptr; }
  Header const* header() const { return header_; }
  std::string toString() const {
    return header_ ? header_->toString() : fmt::format("{}: not attached", path());
  }
  // Remaps done since construction (statistics).
  uint64_t remaps() const { return remaps_; }
  uint64_t mappedBytes() const { return wrapper_.fileSize(); }
  Mem::ParcelWrapper const& wrapper() const { return wrapper_; }
  std::string const& path() const { return wrapper_.getFilename(); }
  std::string const& lastError() const { return lastError_; }

 private:
  // The throw of operator[], kept out of line so that every lookup inlines
  // the bounds test.
  [[noreturn, gnu::noinline, gnu::cold]] void outOfRange(uint32_t index) const {
    int64_t const max = static_cast<int64_t>(numBuckets_.value) - 1;
    throw Lomi::CorruptionDetectedException("out-of-range, index:{} max:{}", index, max);
  }

  // Loads the pair, checks that the file covers it, and maps exactly the
  // count's size, cut to the file's length. The private pair is set only on
  // success.
  bool remap(std::string& error) {
    Mem::VersionedRef<unsigned int> const seen = Mem::loadAcquire(header_->numBuckets);
    uint64_t const length = wrapper_.memSize();
    if (!Header::check(header_->id, seen, length, 0, path(), error)) return false;
    uint64_t size = std::min<uint64_t>(Header::mapSize(seen.value), length);
    void* base = wrapper_.resize(size);
    if (!base) {
      throw Lomi::MemoryResourceException("{}: cannot map {} buckets: {}", path(), seen.value,
                                          wrapper_.lastError());
    }
    header_ = static_cast<Header const*>(base);
    numBuckets_ = seen;
    bits_ = log2OfPowerOfTwo(seen.value);
    return true;
  }

  Lomi::Platform::DebugHandler& handler_;
  Mem::ParcelWrapper wrapper_;
  Header const* header_ = nullptr;
  // log2 of the private count.
  uint32_t bits_ = 0;
  // Private copy of the header's pair; all bucket arithmetic uses it.
  Mem::VersionedRef<unsigned int> numBuckets_{};
  uint64_t remaps_ = 0;
  std::string lastError_;
};

}  // namespace MirakCore
