// Mirak::StartOutcome: what a writer's start did with the files it found, and
// the side file in which it leaves that for observers in other processes.
//
// A start ends in one of four ways:
//   - new: there were no files; all were formatted.
//   - adopted: the files were proved sound and kept with every row.
//   - salvaged: the files could not be adopted (most often a writer killed
//     inside a critical section), but the slot records were readable; a new
//     generation was formatted and every complete record carried into it.
//     Records that were not complete are counted by reason.
//   - re-formatted: nothing could be carried over (or salvage is off in the
//     descriptor); the new generation is empty.
// The reason an adoption failed is kept for salvaged and re-formatted starts.
//
// The side file ("last-start" in the table's directory) holds the text form
// and one line per field, replaced whole (temporary + rename) by each start of
// a shared table, before the kestor file: the slot and bucket formats have no
// room for it. Readers of the table never look at it; `flowtable show` does.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Mem/RootPath.h"

namespace Lomi::Platform {
class DebugHandler;
}

namespace Mirak {

struct StartOutcome {
  enum class Kind : uint8_t { none, created, adopted, salvaged, reformatted };

  Kind kind = Kind::none;
  // Rows in the table when the start ended (carried over, for a salvage).
  uint32_t rows = 0;
  // Records of a salvage left behind, by reason:
  //   unfinished: a slot caught in the middle of its first write (LOOKASIDE up
  //     without OCCUPIED): the insert in flight.
  //   torn: an overwrite in flight whose staged copy does not belong to the
  //     slot (its key or hash differs), so no whole value is known.
  //   badHash: the stored hash is not the hash of the stored key.
  //   duplicates: a second copy of a key (a slot move stopped half way): the
  //     copy in the lowest slot is kept.
  //   noRoom: a fixed-size table could not take the record.
  uint32_t unfinished = 0;
  uint32_t torn = 0;
  uint32_t badHash = 0;
  uint32_t duplicates = 0;
  uint32_t noRoom = 0;
  // Why the files were not adopted; empty for new and adopted.
  std::string reason;
  // Why a salvage side file found at the start was not used (damaged,
  // planted, writable by others); empty if there was none or it was used.
  // Reported whatever the start then did.
  std::string sideFileRefused;

  uint32_t dropped() const { return unfinished + torn + badHash + duplicates + noRoom; }
  // "adopted 1000 rows", "new table", "salvaged 998 rows (3 dropped: 1 unfinished,
  // 2 duplicate) after: <reason>", "re-formatted: <reason>"; each followed by
  // "; salvage side file refused: <why>" when one was.
  std::string toString() const;

 private:
  std::string kindText() const;
};

std::string formatStartOutcomeKind(StartOutcome::Kind kind);

inline constexpr char const START_OUTCOME_FILENAME[] = "last-start";

// Replaces the side file of `rootPath` with `outcome`. Nothing for a local
// table. A failure is traced at level 0 and returns false: the start goes on.
bool writeStartOutcome(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath,
                       StartOutcome const& outcome);
// Reads the side file in directory `dir` (read-only, no link followed, at
// most 4 KiB). Empty if there is none or it cannot be read.
std::optional<StartOutcome> readStartOutcome(std::string const& dir);

}  // namespace Mirak
