// The operator tool's view of a table directory: what its files say without
// attaching (for `ls`), and a table of any of the seven row types opened by
// the row type's registered name (for `show`, `dump`, `get` and `check`).
//
// Contract:
//   - Nothing here writes into a table directory under the root, with one
//     exception that is the reader's own protocol: a reader that finds a
//     damaged header leaves the "corruption-detected" marker for the writer.
//   - `check` runs only on a private copy of the files (copyTable) and
//     attaches a writer there without taking the writer lock: the copy's
//     owner record still names the original writer, which is neither asked
//     nor disturbed.
//   - Failures of the operator's input (no such table, an unknown row type,
//     a key that does not parse) throw Lomi::Exception kinds with a message
//     naming the table or the text.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Mirak/SlotTable.h"
#include "ShadowWatch.h"
#include "Zeb/Module.h"
#include "Zeb/String.h"

namespace FlowtableCli {

// What the files of one table directory say, read without attaching.
struct TableSummary {
  std::string name;                                // relative to the root
  std::string dir;                                 // absolute
  std::optional<Mirak::SlotTable::Header> header;  // none: unreadable
  std::string headerError;
  bool slotFileMissing = false;  // nothing at all of the name "slots"
  uint32_t kestor = 0;           // the kestor file's id; 0: none or damaged
  pid_t writerPid = 0;           // 0: no owner record, or no writer in it
  bool writerAlive = false;
  uint64_t bytesOnDisk = 0;  // allocated bytes of the directory's own files
  // Why parts of the table could not be read, one reason each: the slot
  // header (headerError), a kestor or owner file that is there but is no
  // regular file or is damaged, a directory that cannot be listed. A missing
  // kestor or owner file is no reason: a writer that is formatting the table
  // or has left it leaves them so. Empty: everything was read.
  std::vector<std::string> errors;
};

// A directory under the root that the walk could not read (tables may be in
// it), or a link where a directory would be, which is not followed.
struct Unwalked {
  std::string name;  // relative to the root
  std::string error;
};

struct Listing {
  std::vector<TableSummary> tables;  // by name
  std::vector<Unwalked> unwalked;    // by name
};

// Every table (a directory holding an entry "slots", whatever its kind) under
// `root`, found by a walk that opens each directory with O_NOFOLLOW relative
// to its parent, so that it follows no link and cannot loop. Throws
// Lomi::InvalidInitializeException "cannot read the root <root>: <reason>"
// when the root itself cannot be listed; whatever else fails is in the
// result.
Listing listTables(std::string const& root);
// The table `name` under `root`; throws Lomi::InvalidInitializeException
// "no table <name> under <root>" when there is nothing named "slots" there.
TableSummary summarize(std::string const& root, std::string const& name);

// A table opened by its row type. Rows and keys travel as streps.
class AnyTable {
 public:
  virtual ~AnyTable();

  Zeb::ZebTypeBase const& rowType() const { return *rowType_; }

  // Attaches as a lock-free reader on the current root. False with the
  // reason when the files are not (yet) a complete table.
  virtual bool attachReader(std::string& why) = 0;
  // Walks the table, at most `limit` rows (0: all), calling `row` with the
  // record's bytes; returns the number of rows.
  virtual uint64_t walk(uint64_t limit, std::function<void(void const* record)> const& row) = 0;
  // Looks up the key given as its strep; the record's bytes to `record`
  // (rowType().size bytes). Throws Zeb::RangeException for a bad key text.
  virtual bool get(Zeb::String const& keyStrep, void* record) = 0;
  virtual std::string dumpHeaders() const = 0;
  virtual std::string readerCounters() const = 0;
  virtual uint32_t members() const = 0;
  // Full validation as the table's writer would run it, on the current root
  // (which must be a private copy), for a table formatted with `maxSlots`.
  // True, or false with the first failure.
  virtual bool check(uint32_t maxSlots, std::string& error) = 0;
  // Bytes of one slot in this table's slot file: the geometry the validator
  // reads the file with.
  virtual uint32_t slotSize() const = 0;

  // What a watch saw, for its summary.
  struct WatchSummary {
    uint64_t changes = 0;
    uint64_t removals = 0;
    uint64_t sequence = 0;  // where the shadow stood at the end
    bool mounted = false;   // it ever followed a writer
    std::string counters;   // the shadow's reader counters
  };
  // Mounts a shadow of the table (keyOnly: a keyshadow) on the process's
  // event loop, as an agent does, and hands each change its client hears to
  // `heard` until `done()` holds (asked between turns of the loop, at least
  // every 100 ms). Throws Lomi::InvalidInitializeException for a table that
  // cannot be shadowed.
  virtual WatchSummary watch(bool keyOnly, std::function<void(HeardChange const&)> const& heard,
                             std::function<bool()> const& done) = 0;

  Zeb::String strep(void const* record) const {
    return rowType_->impl.methods->strRep(record, rowType_);
  }

 protected:
  AnyTable(Zeb::ZebTypeBase const& rowType, std::string name)
      : rowType_(&rowType), name_(std::move(name)) {}
  Zeb::ZebTypeBase const* rowType_;
  std::string name_;
};

// Opens table `name` (not yet attached) for rows of `valueType`, the name in
// its slot header. Throws Zeb::UnknownTypeException for a type that no module
// registered, Lomi::InvalidInitializeException for a registered type that is
// no table row.
std::unique_ptr<AnyTable> openTable(std::string const& valueType, std::string const& name);

// Copies into `to` (made with its parents; it must be private to the
// process) the files of table directory `from` that a validation reads:
// "slots", "buckets", "kestor", "owner" and the queue's "tessel", "tessel.0"
// and "tessel.1", those that exist. Each is opened through
// Mem::openSharedFile (no link followed, a FIFO never waited on, only a
// regular file taken) and copied only up to the size its own header says it
// maps, the slot file with `slotSize`-byte slots, the kestor and owner
// records up to a page (more than either record, so a record that is too long
// stays too long); holes stay holes. Nothing else in `from` is opened. Throws
// Lomi::RuntimeException naming the file that cannot be opened or copied.
void copyTable(std::string const& from, std::string const& to, uint32_t slotSize);

}  // namespace FlowtableCli
