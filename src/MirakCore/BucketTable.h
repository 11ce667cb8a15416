// The bucket file: its header and the layout every process may assume.
//
// Layout (little-endian; offsets pinned by static_asserts below):
//
//   offset  width  field
//   0       8      magic        "MIRAKBKT", no terminator         | identification,
//   8       4      version      format version, kFormatVersion    | 16 bytes
//   12      4      kestor       Parcel::KestorId of the formatter |
//   16      8      numBuckets   VersionedRef: version at 16 (+1 per grow or
//                               shrink), count at 20; a power of two
//   24      8 x numBuckets      entries: entry i is the head link of bucket i
//
// The file may be longer than 24 + 8 x numBuckets (a shrink never shortens
// it); bytes behind the last entry mean nothing.
//
// Who writes what (only the writer process stores into the file):
//   - identification: BucketWriter, at formatting only;
//   - numBuckets: BucketWriter at formatting; afterwards the writer hash map,
//     once per grow (after the new entries are stored) and once per shrink
//     (before the mapping is cut), always as one 8-byte release store;
//   - entries: BucketWriter at formatting; afterwards the writer hash map,
//     each as one 8-byte release store of a whole link.
// Readers load numBuckets and links with acquire loads, one 8-byte access each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Util.h"
#include "Mem/Atomics.h"
#include "Mem/VersionedRef.h"

namespace MirakCore {

template <typename Link>
struct BucketTable {
  static_assert(sizeof(Link) == 8, "a bucket entry is one 8-byte link");

  static constexpr char kMagic[8] = {'M', 'I', 'R', 'A', 'K', 'B', 'K', 'T'};
  static constexpr uint32_t kFormatVersion = 1;
  // Bucket indices are 31 bits (bit 31 of a link marks an end of chain).
  static constexpr uint32_t kMaxNumBuckets = 0x80000000u;

  // The first 16 bytes; no table code looks at them, only the bucket file's
  // own attach and validation.
  struct Identification {
    char magic[8];
    uint32_t version;
    uint32_t kestor;
  };

  struct Header {
    Identification id;
    Mem::VersionedRef<unsigned int> numBuckets;
    // entries follow at offset 24

    static constexpr uint64_t entryOffset(uint32_t index) {
      return sizeof(Header) + uint64_t{8} * index;
    }
    // Bytes to map for `count` buckets (rounded to whole pages). Raises
    // Lomi::RuntimeException if that does not fit the format's 32-bit sizes.
    static uint64_t mapSize(uint32_t count) {
      return Lomi::Util::fileSizeHelper(count, sizeof(Link), sizeof(Header));
    }

    Link* entries() { return reinterpret_cast<Link*>(this + 1); }
    Link const* entries() const { return reinterpret_cast<Link const*>(this + 1); }

    uint64_t magicWord() const {
      uint64_t m;
      std::memcpy(&m, id.magic, sizeof m);
      return m;
    }

    // Checks of a header (a private copy, or the live one of the writer) whose
    // file `name` has `fileSize` bytes. A `wantedKestor` of 0 takes any. The
    // first failed check writes its message, which names the file, into
    // `error` and returns false. numBuckets is taken as given, so a reader
    // passes the pair it loaded (one acquire load) in `numBucketsSeen`.
    static bool check(Identification const& id, Mem::VersionedRef<unsigned int> numBucketsSeen,
                      uint64_t fileSize, uint32_t wantedKestor, std::string const& name,
                      std::string& error) {
      if (std::memcmp(id.magic, kMagic, sizeof kMagic) != 0) {
        uint64_t m;
        std::memcpy(&m, id.magic, sizeof m);
        error = fmt::format("{}: bad magic: {:#x}", name, m);
        return false;
      }
      if (id.version != kFormatVersion) {
        error = fmt::format("{}: bad version: {} expecting: {}", name, id.version, kFormatVersion);
        return false;
      }
      if (wantedKestor != 0 && id.kestor != wantedKestor) {
        error = fmt::format("{}: bad kestor:{} wanted:{}", name, kestorText(id.kestor),
                            kestorText(wantedKestor));
        return false;
      }
      uint32_t const count = numBucketsSeen.value;
      if (count == 0 || count > kMaxNumBuckets || (count & (count - 1)) != 0) {
        error = fmt::format("{}: bad numBuckets: {} is not a power of two", name, count);
        return false;
      }
      uint64_t const needed = sizeof(Header) + uint64_t{8} * count;
      if (fileSize < needed) {
        error = fmt::format("{}: bad file size:{} wanted:{} for {} buckets", name, fileSize, needed,
                            count);
        return false;
      }
      return true;
    }

    bool validate(uint64_t fileSize, uint32_t wantedKestor, std::string const& name,
                  std::string& error) const {
      return check(id, Mem::loadAcquire(numBuckets), fileSize, wantedKestor, name, error);
    }

    std::string toString() const {
      return fmt::format("magic:{:#x} version:{} kestor:{} numBuckets:{}", magicWord(), id.version,
                         kestorText(id.kestor), Mem::loadAcquire(numBuckets));
    }
  };

  // The text form of a Parcel::KestorId: low half, high half.
  static std::string kestorText(uint32_t kestor) {
    return fmt::format("{}:{}", kestor & 0xffffu, kestor >> 16);
  }
};

// The layout is the file format: pin it.
template <typename Link>
struct BucketTableLayout {
  using T = BucketTable<Link>;
  static_assert(sizeof(typename T::Identification) == 16);
  static_assert(offsetof(typename T::Identification, magic) == 0);
  static_assert(offsetof(typename T::Identification, version) == 8);
  static_assert(offsetof(typename T::Identification, kestor) == 12);
  static_assert(sizeof(typename T::Header) == 24, "entries start at offset 24");
  static_assert(offsetof(typename T::Header, id) == 0);
  static_assert(offsetof(typename T::Header, numBuckets) == 16);
  static_assert(alignof(typename T::Header) == 8, "entries are 8-aligned for single 8-byte access");
  static constexpr bool ok = true;
};

}  // namespace MirakCore
