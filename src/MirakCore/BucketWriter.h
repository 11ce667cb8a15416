// MirakCore::BucketWriter: the writer's mapping of the bucket file "buckets" in
// a table directory (or, for a local table, of a block of private memory in
// the same layout). Layout and ownership of each field: BucketTable.h.
//
// What this class does, and what it leaves to the writer hash map:
//   - attach(kestor) adopts a file whose identification matches `kestor` and
//     which validates, or formats it: kInitialNumBuckets buckets (1 unless
//     initialNumBucketsIs says otherwise), each head an end-of-chain link to
//     its successor in the bit-reversed walk, the last 0xffffffff, every link
//     version 0.
//   - resize(n) only maps: on a grow it makes entries [old, n) addressable and
//     zero, and updates the cached count and bucketFactor_ at once, so that the
//     hash map can store the new heads before it publishes the count. On a
//     shrink the hash map has already published the smaller count; resize then
//     cuts the mapping (the file keeps its length; see Mem::ParcelWrapper).
//   - The header's numBuckets pair after formatting, and every link after
//     formatting, are stored by the writer hash map (grow: entries, then the
//     pair; shrink: joins, then the pair, then resize), never by this class.
//
// Contract: one thread, the writer's. Pointers and references into the
// mapping (header(), operator[]) are stale after attach, resize and detach.
// Errors: a mapping the system refuses is Lomi::MemoryResourceException, a
// size the format cannot hold Lomi::RuntimeException, an index beyond the
// cached count Lomi::CorruptionDetectedException; all name the file.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Atomics.h"
#include "Mem/Error.h"
#include "Mem/ParcelWrapper.h"
#include "Mem/SharedGround.h"
#include "Mem/AttachResult.h"
#include "MirakCore/BitReverse.h"
#include "MirakCore/BucketTable.h"

namespace MirakCore {

template <typename Link>
class BucketWriter {
  static_assert(BucketTableLayout<Link>::ok);

 public:
  using Table = BucketTable<Link>;
  using Header = typename Table::Header;

  static constexpr char const* kFileName = "buckets";
  // A freshly formatted table has no entries, so one bucket (one chain, which
  // is the whole table) is enough; the hash map doubles it as entries arrive.
  static constexpr uint32_t kInitialNumBuckets = 1;

  // `directory` is the table's root directory; empty makes a local table in
  // private memory. Nothing is mapped until attach.
  BucketWriter(Lomi::Platform::DebugHandler& handler, std::string const& directory)
      : handler_(handler),
        wrapper_(directory.empty() ? std::string() : directory + "/" + kFileName) {}
  BucketWriter(BucketWriter const&) = delete;
  BucketWriter& operator=(BucketWriter const&) = delete;

  // The number of buckets that the next format writes; a power of two.
  void initialNumBucketsIs(uint32_t count) {
    checkCount(count, "initial bucket count");
    initialNumBuckets_ = count;
  }
  uint32_t initialNumBuckets() const { return initialNumBuckets_; }

  // Maps the file and returns Mem::attachNew (1) if there was none (or the table is
  // local) and it was formatted, Mem::attachKept (2) if its identification
  // matches `kestor` and it validates (it is kept as found), Mem::attachReformatted
  // (4) if it was there but had to be formatted again. A `kestor` of 0 adopts
  // a sound file of any generation.
  Mem::AttachResult attach(uint32_t kestor) {
    detach();
    if (wrapper_.local()) {
      format(kestor, 0, 0);
      FMTRACE(handler_, 1, "BucketWriter", "formatted {} with {} buckets", name(), numBuckets_);
      return Mem::attachNew;
    }
    struct stat st;
    if (::stat(path().c_str(), &st) != 0) {
      if (errno != ENOENT) {
        throw Lomi::InvalidInitializeException(
            Mem::posixError(fmt::format("bucket table: stat {}", path()), errno));
      }
      format(kestor, 0, 0);
      FMTRACE(handler_, 1, "BucketWriter", "formatted new {} with {} buckets", name(), numBuckets_);
      return Mem::attachNew;
    }
    uint64_t const length = static_cast<uint64_t>(st.st_size);
    uint32_t carriedVersion = 0;
    std::string error;
    if (length >= sizeof(Header)) {
      mapOrThrow(length);
      Header const& h = *header_;
      Mem::VersionedRef<unsigned int> const count = Mem::loadAcquire(h.numBuckets);
      if (Header::check(h.id, count, length, kestor, name(), error)) {
        adopt(count.value);
        FMTRACE(handler_, 3, "BucketWriter", "adopted {}: {}", name(), header_->toString());
        return Mem::attachKept;
      }
      // Readers still attached to the old generation see the pair move.
      carriedVersion = count.version + 1;
    } else {
      error = fmt::format("{}: file has {} bytes, less than the {} byte header", name(), length,
                          sizeof(Header));
    }
    FMTRACE(handler_, 1, "BucketWriter", "re-formatting: {}", error);
    format(kestor, carriedVersion, length);
    return Mem::attachReformatted;
  }

  // Maps the table for `newNumBuckets` (a power of two) and makes that the
  // cached count. Entries beyond the old count are zeroed, not formatted: the
  // hash map stores each of them before it publishes the new count. Does not
  // store the header's numBuckets. On failure the old mapping and count stay.
  void resize(uint32_t newNumBuckets) {
    if (!header_) {
      throw Lomi::RuntimeException("{}: resize to {} buckets of a detached bucket table", name(),
                                   newNumBuckets);
    }
    checkCount(newNumBuckets, "resize");
    uint32_t const oldNumBuckets = numBuckets_;
    if (newNumBuckets == oldNumBuckets) return;
    uint64_t const size = Header::mapSize(newNumBuckets);
    void* base = wrapper_.resize(size);
    if (!base) {
      throw Lomi::MemoryResourceException("{}: resize from {} to {} buckets failed: {}", name(),
                                          oldNumBuckets, newNumBuckets, wrapper_.lastError());
    }
    header_ = static_cast<Header*>(base);
    if (newNumBuckets > oldNumBuckets) {
      // Entries that a former, larger table left in the same page still hold
      // old links; the tail beyond it reads as zeros already.
      Link* e = header_->entries();
      for (uint32_t i = oldNumBuckets; i < newNumBuckets; ++i) Mem::storeRelease(e[i], Link{});
    }
    setCount(newNumBuckets);
    FMTRACE(handler_, 2, "BucketWriter", "{} resized from {} to {} buckets, {} bytes mapped",
            name(), oldNumBuckets, newNumBuckets, size);
  }

  // Checks the mapped header against `kestor` (0: any) and the file's length,
  // and that the header's count is the one this writer maps. The message names
  // the file; it is traced at level 0.
  bool validate(uint32_t kestor, std::string& error) const {
    if (!header_) {
      error = fmt::format("{}: bucket table is not attached", name());
    } else if (header_->validate(wrapper_.memSize(), kestor, name(), error)) {
      uint32_t const stored = Mem::loadAcquire(header_->numBuckets).value;
      if (stored == numBuckets_) return true;
      error = fmt::format("{}: header numBuckets:{} but {} buckets are mapped", name(), stored,
                          numBuckets_);
    }
    FMTRACE(handler_, 0, "BucketWriter", "{}", error);
    return false;
  }

  // Checks, without attaching, that the file exists and holds a sane bucket
  // table (any kestor). Throws Lomi::CorruptionDetectedException naming the
  // file otherwise. A local table checks its block if it is attached.
  bool validateFile() const {
    std::string error;
    if (wrapper_.local()) {
      if (header_ && !validate(0, error)) throw Lomi::CorruptionDetectedException(error);
      return true;
    }
    int fd = Mem::openSharedFile(path(), O_RDONLY, 0, error);
    if (fd < 0) throw Lomi::CorruptionDetectedException("bucket table: {}", error);
    struct stat st;
    Header copy;
    bool ok = false;
    if (::fstat(fd, &st) != 0) {
      error = Mem::posixError(fmt::format("bucket table: fstat {}", path()), errno);
    } else if (::pread(fd, &copy, sizeof copy, 0) != static_cast<ssize_t>(sizeof copy)) {
      error = fmt::format("{}: file has {} bytes, less than the {} byte header", name(), st.st_size,
                          sizeof(Header));
    } else {
      ok = Header::check(copy.id, copy.numBuckets, static_cast<uint64_t>(st.st_size), 0, name(),
                         error);
    }
    ::close(fd);
    if (!ok) throw Lomi::CorruptionDetectedException(error);
    return true;
  }

  // Unmaps and removes the file. Readers that map it keep the inode.
  void cleanup() {
    detach();
    FMTRACE(handler_, 3, "BucketWriter", "removing file: {}", name());
    if (!wrapper_.unlink()) throw Lomi::RuntimeException("bucket table: {}", wrapper_.lastError());
  }

  // Unmaps; the file stays.
  void detach() {
    wrapper_.detach();
    header_ = nullptr;
    setCount(0);
  }

  Link& operator[](uint32_t index) {
    if (index >= numBuckets_) throwOutOfRange(index);
    return header_->entries()[index];
  }
  Link const& operator[](uint32_t index) const {
    if (index >= numBuckets_) throwOutOfRange(index);
    return header_->entries()[index];
  }

  // The cached count: what the hash map walks. 0 when detached.
  uint32_t numBuckets() const { return numBuckets_; }
  // log2 of numBuckets().
  uint32_t bucketFactor() const { return bucketFactor_; }
  bool attached() const { return header_ != nullptr; }
  Header* header() { return header_; }
  Header const* header() const { return header_; }
  std::string toString() const {
    return header_ ? header_->toString() : fmt::format("{}: not attached", name());
  }
  Mem::ParcelWrapper& wrapper() { return wrapper_; }
  Mem::ParcelWrapper const& wrapper() const { return wrapper_; }
  std::string const& path() const { return wrapper_.getFilename(); }
  // The file name, or a stand-in for a local table, for messages.
  std::string name() const { return wrapper_.local() ? std::string("local bucket table") : path(); }

 private:
  void checkCount(uint32_t count, char const* what) const {
    if (count == 0 || count > Table::kMaxNumBuckets || (count & (count - 1)) != 0) {
      throw Lomi::RuntimeException("{}: {}: {} buckets is not a power of two up to {}", name(),
                                   what, count, Table::kMaxNumBuckets);
    }
  }

  [[noreturn]] void throwOutOfRange(uint32_t index) const {
    int64_t const max = static_cast<int64_t>(numBuckets_) - 1;
    FMTRACE(handler_, 0, "BucketWriter", "out-of-range, index:{} max:{}", index, max);
    throw Lomi::CorruptionDetectedException("out-of-range, index:{} max:{}", index, max);
  }

  void setCount(uint32_t count) {
    numBuckets_ = count;
    bucketFactor_ = count ? log2OfPowerOfTwo(count) : 0;
  }

  void mapOrThrow(uint64_t size) {
    void* base = wrapper_.attach(size, Mem::ParcelWrapper::Mode::ReadWrite);
    if (!base) {
      throw Lomi::MemoryResourceException("bucket table: cannot map {} bytes: {}", size,
                                          wrapper_.lastError());
    }
    header_ = static_cast<Header*>(base);
  }

  // Keeps a validated file: maps exactly what its count needs (a longer file
  // gives the tail's memory back, see Mem::ParcelWrapper).
  void adopt(uint32_t count) {
    uint64_t const size = Header::mapSize(count);
    void* base = wrapper_.resize(size);
    if (!base) {
      throw Lomi::MemoryResourceException("{}: cannot map {} buckets: {}", name(), count,
                                          wrapper_.lastError());
    }
    header_ = static_cast<Header*>(base);
    setCount(count);
  }

  // Formats initialNumBuckets_ buckets. `existingLength` is the length of a
  // file found in place (0 if none); `numBucketsVersion` the version to start
  // the count's pair at.
  //
  // Store order, so that a writer dying half-way leaves a file that fails
  // validation, never one that passes with half its heads:
  //   1: the magic is cleared;
  //   2: version and kestor;
  //   3: every head, (0, successor) as one 8-byte release store;
  //   4: the numBuckets pair, release;
  //   5: the magic, after a release fence: the file is identifiable last.
  void format(uint32_t kestor, uint32_t numBucketsVersion, uint64_t existingLength) {
    uint32_t const count = initialNumBuckets_;
    uint64_t const size = Header::mapSize(count);
    if (existingLength > size) {
      // Map the old length first so that the resize below punches out the
      // old table's tail instead of leaving its memory allocated.
      mapOrThrow(existingLength);
      adopt(count);
    } else {
      mapOrThrow(size);
      setCount(count);
    }
    Header& h = *header_;
    std::memset(h.id.magic, 0, sizeof h.id.magic);  // format step 1
    Mem::releaseFence();
    h.id.version = Table::kFormatVersion;  // format step 2
    h.id.kestor = kestor;
    uint32_t const bits = bucketFactor_;
    Link* e = h.entries();
    for (uint32_t i = 0; i < count; ++i) {
      // The last bucket of the walk (all bits set) ends the table; every other
      // head is an empty chain naming its successor.
      uint32_t const next =
          (i == count - 1) ? 0xffffffffu : (bitReversePermute(i, bits) | 0x80000000u);
      Link link{};
      link.version = 0;
      link.next = next;
      Mem::storeRelease(e[i], link);  // format step 3
    }
    Mem::storeRelease(h.numBuckets,
                      Mem::VersionedRef<unsigned int>{numBucketsVersion, count});  // format step 4
    Mem::releaseFence();
    std::memcpy(h.id.magic, Table::kMagic, sizeof Table::kMagic);  // format step 5
    FMTRACE(handler_, 3, "BucketWriter", "formatted {}: {}", name(), h.toString());
  }

  Lomi::Platform::DebugHandler& handler_;
  Mem::ParcelWrapper wrapper_;
  Header* header_ = nullptr;
  // log2 of numBuckets_; 0 for one bucket (and when detached).
  uint32_t bucketFactor_ = 0;
  // The count this writer maps and walks. Equal to the header's count except
  // inside a grow (resize comes before the hash map publishes the pair) and a
  // shrink (the pair is published before resize): in both windows it is the
  // larger of the two, so every entry a reader may still use stays mapped.
  uint32_t numBuckets_ = 0;
  uint32_t initialNumBuckets_ = kInitialNumBuckets;
};

}  // namespace MirakCore
