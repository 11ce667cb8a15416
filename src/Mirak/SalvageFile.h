// Mirak::SalvageImage and the salvage side file: the records a salvaging start
// carries from a refused generation into a new one, kept in the table's
// directory until the new generation is the table of record.
//
// Why a side file. A salvage formats the slot, bucket and queue files in
// place and then writes the records back. Without a copy outside those files,
// a writer killed between the format and the end of the carry would lose every
// record not yet carried: the next start would find a half-built generation
// (its critical bit up) and nothing else to read. So the records go to the
// side file "salvage" first, whole, and the files are formatted only after it
// is in place.
//
// Store order of a salvaging start (MirakWriter::attach):
//   1. a temporary under an unpredictable name (O_EXCL) is made beside
//      "salvage", its room taken for every slot of the refused file, and
//      mapped; the records are read from the refused slot file straight into
//      it, so they are written once;
//   2. its header is sealed, the file cut to the records it holds and renamed
//      to "salvage": it is there complete or not at all; it names the kestor
//      file's generation it was read under (source) and the generation the
//      records go to (target). The build reads the records from the mapping;
//   3. the files are formatted under the target and the records built in;
//   4. the kestor file is written with the target;
//   5. the side file is removed.
// Invariant: from 2 to 5, every record that was complete before the first
// crash is in the side file, and the kestor file does not name the target
// until 4. Hence the rule of a start that finds a side file:
//   - target == the kestor file's id: the carry ended (a kill between 4 and
//     5); the file is stale and goes, the files are adopted as usual;
//   - otherwise the carry did not end: the side file is the salvage. The
//     start raises the target in place (one aligned 4-byte write, outside the
//     checksum) to a generation past every one this salvage has formatted
//     before it formats anything, so the half-built files are never adopted
//     and every attach formats them again, and goes on from 3.
// A kill at 1 or 2 leaves the refused files untouched (and perhaps a
// temporary, removed by the next start): the next start collects again. A
// temporary that cannot be made (no room) does not stop the salvage: the
// records go to private memory and are carried without a side file, so only
// a crash before the carry ends loses them, as it would without a salvage.
//
// Trust. The file lies on shared ground: it is opened without following a
// link, must be a regular file owned by this user that no group or other
// user may write, at most the size a salvage of the largest table can have,
// and validates whole (magic, format version, value size and type, the
// header's checksum, the count bounded by the size, each record's checksum)
// or it is reported and ignored; it is never partly used.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Parcel/KestorId.h"

namespace Mirak {

inline constexpr char SALVAGE_FILENAME[] = "salvage";

// The side file's header, 64 bytes, little-endian like the table files.
struct SalvageHeader {
  static constexpr char kMagic[8] = {'M', 'I', 'R', 'A', 'K', 'S', 'L', 'V'};
  static constexpr uint32_t kVersion = 1;

  char magic[8];
  uint32_t version;
  uint32_t valueSize;
  uint32_t recordSize;
  uint32_t typeHash;       // salvageChecksum of the value type's name
  uint32_t sourceKestor;   // the kestor file's id when the records were read
  uint32_t count;          // records that follow the header
  uint32_t slotsRead;      // slots of the refused file that were read
  uint32_t unfinished;     // records left behind, by reason (StartOutcome)
  uint32_t torn;
  uint32_t badHash;
  uint32_t headerCheck;    // salvageChecksum of the 48 bytes before it
  // The generation the records go to. Outside the checksum: a start that
  // takes the carry up again raises it in place (see the rule above).
  uint32_t targetKestor;
  uint32_t reserved[2];
};
static_assert(sizeof(SalvageHeader) == 64);
static_assert(offsetof(SalvageHeader, headerCheck) == 48);
static_assert(offsetof(SalvageHeader, targetKestor) == 52);

// One record: its checksum (of the slot index and the value's bytes), the
// slot it was read from, then the value as it stood in the slot.
template <typename Value>
struct SalvageRecord {
  uint32_t check;
  uint32_t oldSlot;
  Value value;
};

// A checksum against damage, not against intent: 8 bytes a step, so that a
// salvage of 10^6 records pays milliseconds for it.
uint32_t salvageChecksum(void const* data, size_t length, uint32_t seed);

// The largest side file a start reads: more than the records of any table
// whose slot file can be mapped.
inline constexpr uint64_t kMaxSalvageFileSize = 0xffffffffull;

// What reading the side file of a directory found.
enum class SalvageFileState { absent, read, refused };

// Reads the side file `dir`/"salvage" whole into `bytes` (8-byte aligned;
// `length` bytes of it are the file's): opened without following a link, a
// regular file owned by this user, at most kMaxSalvageFileSize bytes.
// `refused` with the reason in `error` otherwise.
SalvageFileState readSalvageFile(std::string const& dir, std::vector<uint64_t>& bytes,
                                 uint64_t& length, std::string& error);
// Store order steps 1 and 2: the side file's temporary, mapped shared, into
// which a salvage collects its records. Moves only; the destructor unmaps
// and removes a temporary that was never published.
class SalvageTemp {
 public:
  SalvageTemp() = default;
  SalvageTemp(SalvageTemp&& o) noexcept { *this = std::move(o); }
  SalvageTemp& operator=(SalvageTemp&& o) noexcept;
  ~SalvageTemp() { reset(); }

  // Makes `dir`/".salvage.tmp-<random>" (O_EXCL, 0600) of `bytes` bytes,
  // its room taken (fallocate), and maps it. False with `error` set (no room
  // on the file system among the reasons); nothing is left then.
  bool create(std::string const& dir, uint64_t bytes, std::string& error);
  // Maps [from, to) of the mapping (its room already taken) before the stores reach it:
  // one call instead of a fault per page. A hint; a failure costs only time.
  void populate(uint64_t from, uint64_t to) const;
  // Store order step 2: cuts the file to its first `length` bytes (already
  // sealed) and renames it to "salvage". The mapping of those bytes stays.
  // False with `error` set; the temporary is removed then, the mapping kept.
  bool publish(uint64_t length, std::string& error);
  // Unmaps; removes the temporary if it was not published.
  void reset();

  char* data() const { return data_; }
  uint64_t size() const { return size_; }

 private:
  int dir_ = -1;
  int fd_ = -1;
  char* data_ = nullptr;
  uint64_t size_ = 0;
  std::string name_;  // the temporary's, until published
};
// Raises the side file's target in place (rule above). False with `error`.
bool salvageTargetIs(std::string const& dir, Parcel::KestorId target, std::string& error);
// Store order step 5, and the end of a stale or refused file: removes the
// side file and any temporary a killed start left beside it. False with
// `error` if an entry could not be removed.
bool removeSalvageFiles(std::string const& dir, std::string& error);

// The records of one salvage, laid out as the side file: the header, then
// `count` records. They live in the mapped temporary of the side file
// (collected there) or in private memory (a side file read back, or a
// salvage that could not make its temporary).
template <typename Value>
class SalvageImage {
 public:
  using Record = SalvageRecord<Value>;
  static constexpr uint32_t kRecordSize = sizeof(Record);

  // Room for `capacity` records in private memory, count 0; the header's
  // fixed fields set. Throws std::bad_alloc.
  void reset(uint32_t capacity, std::string_view typeName) {
    clear();
    words_.assign(wordsFor(capacity), 0);
    base_ = reinterpret_cast<char*>(words_.data());
    start(capacity, typeName);
  }
  // The same in the mapped temporary `temp` (zero-filled, at least
  // byteSize(capacity) bytes), which the image keeps.
  void reset(SalvageTemp&& temp, uint32_t capacity, std::string_view typeName) {
    clear();
    temp_ = std::move(temp);
    base_ = temp_.data();
    start(capacity, typeName);
  }
  void clear() {
    words_ = std::vector<uint64_t>();
    temp_.reset();
    base_ = nullptr;
    capacity_ = 0;
  }
  bool empty() const { return base_ == nullptr; }
  // The mapped temporary, if the records live in one.
  SalvageTemp& temp() { return temp_; }
  bool mapped() const { return temp_.data() != nullptr; }

  // Appends a record; the caller keeps within the capacity of reset.
  void push(uint32_t oldSlot, Value const& value) {
    SalvageHeader& h = header();
    if (temp_.data() && h.count % kPopulateRecords == 0) {
      uint64_t const from = byteSize(h.count);
      temp_.populate(from, std::min(byteSize(uint64_t(h.count) + kPopulateRecords), temp_.size()));
    }
    Record& r = records()[h.count++];
    r.oldSlot = oldSlot;
    std::memcpy(static_cast<void*>(&r.value), &value, sizeof(Value));
    r.check = recordCheck(r);
  }
  // Seals the header (its checksum) and answers the bytes of the side file.
  std::string_view seal() {
    SalvageHeader& h = header();
    h.headerCheck = salvageChecksum(&h, offsetof(SalvageHeader, headerCheck), 0);
    return {base_, byteSize(h.count)};
  }

  // Takes the bytes of a side file read from disk and validates them whole
  // against `typeName`. False with the reason in `error`; the image is empty
  // then.
  bool adopt(std::vector<uint64_t>&& words, uint64_t length, std::string_view typeName,
             std::string& error) {
    clear();
    words_ = std::move(words);
    base_ = reinterpret_cast<char*>(words_.data());
    if (!validate(length, typeName, error)) {
      clear();
      return false;
    }
    capacity_ = header().count;
    return true;
  }

  SalvageHeader& header() { return *reinterpret_cast<SalvageHeader*>(base_); }
  SalvageHeader const& header() const { return *reinterpret_cast<SalvageHeader const*>(base_); }
  uint32_t count() const { return empty() ? 0 : header().count; }
  Record const& record(uint32_t i) const { return records()[i]; }
  Value const& value(uint32_t i) const { return records()[i].value; }

  static uint64_t byteSize(uint64_t count) { return sizeof(SalvageHeader) + count * kRecordSize; }

 private:
  // Records populated ahead of the collection in one call: 2 MiB or so.
  static constexpr uint32_t kPopulateRecords = (2u << 20) / kRecordSize;

  void start(uint32_t capacity, std::string_view typeName) {
    capacity_ = capacity;
    SalvageHeader& h = header();
    std::memcpy(h.magic, SalvageHeader::kMagic, sizeof h.magic);
    h.version = SalvageHeader::kVersion;
    h.valueSize = sizeof(Value);
    h.recordSize = kRecordSize;
    h.typeHash = salvageChecksum(typeName.data(), typeName.size(), 0);
  }
  static size_t wordsFor(uint64_t count) { return (byteSize(count) + 7) / 8; }
  Record* records() { return reinterpret_cast<Record*>(base_ + sizeof(SalvageHeader)); }
  Record const* records() const {
    return reinterpret_cast<Record const*>(base_ + sizeof(SalvageHeader));
  }
  static uint32_t recordCheck(Record const& r) {
    return salvageChecksum(&r.value, sizeof(Value), r.oldSlot ^ 0x5a17a6e5u);
  }

  bool validate(uint64_t length, std::string_view typeName, std::string& error) const {
    if (length < sizeof(SalvageHeader) || words_.size() * 8 < length) {
      error = fmt::format("{} bytes, less than its header", length);
      return false;
    }
    SalvageHeader const& h = header();
    if (std::memcmp(h.magic, SalvageHeader::kMagic, sizeof h.magic) != 0) {
      error = "bad magic";
      return false;
    }
    if (h.version != SalvageHeader::kVersion) {
      error = fmt::format("bad version: {}", h.version);
      return false;
    }
    if (h.valueSize != sizeof(Value) || h.recordSize != kRecordSize ||
        h.typeHash != salvageChecksum(typeName.data(), typeName.size(), 0)) {
      error = fmt::format("records of another table (value size {}, record size {})", h.valueSize,
                          h.recordSize);
      return false;
    }
    uint32_t const check = salvageChecksum(&h, offsetof(SalvageHeader, headerCheck), 0);
    if (check != h.headerCheck) {
      error = fmt::format("header checksum fail: {:x} != {:x}", check, h.headerCheck);
      return false;
    }
    // The count is bounded by the size before any record is touched.
    if (byteSize(h.count) != length) {
      error = fmt::format("{} records do not fill {} bytes", h.count, length);
      return false;
    }
    for (uint32_t i = 0; i < h.count; i++) {
      Record const& r = records()[i];
      if (recordCheck(r) != r.check) {
        error = fmt::format("record {} (slot {}) checksum fail", i, r.oldSlot);
        return false;
      }
    }
    return true;
  }

  std::vector<uint64_t> words_;
  SalvageTemp temp_;
  char* base_ = nullptr;
  uint32_t capacity_ = 0;
};

}  // namespace Mirak
