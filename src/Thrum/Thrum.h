// Thrum: the process's statistics cells.
//
// A cell is a u64 known by name. `writer().cell(name)` returns the same cell
// for the same name for the life of the process; cells never move, so callers
// keep the pointer and feed it with plain increments (`++*cell`). Looking a
// name up takes a lock; using a cell does not.
//
// Thread safety: lookups may come from any thread. A cell is written by one
// thread at a time (the owner of the entity that counts into it). Other
// threads read it with `cellValue`, which loads it relaxed and may lag; a
// reader never sees a torn value, as a cell is one aligned 8-byte word.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Thrum {

class Writer {
 public:
  Writer();
  ~Writer();
  Writer(Writer const&) = delete;
  Writer& operator=(Writer const&) = delete;

  // The cell of `name`, made with value 0 on first use. Throws
  // Lomi::RuntimeException for a null or empty name.
  uint64_t* cell(char const* name);
  uint64_t* cell(std::string_view name);

  // `n` added to the cell of `name` (made if needed).
  void cellInc(std::string_view name, uint64_t n = 1);
  // The value of the cell of `name`; 0 if there is no such cell (none is made).
  uint64_t cellValue(std::string_view name) const;
  bool hasCell(std::string_view name) const;
  size_t cells() const;
  // (name, value) of every cell, sorted by name: for dumps and tests.
  std::vector<std::pair<std::string, uint64_t>> snapshot() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The process-wide writer. It is never destroyed, so cells outlive every
// static object that counts into them.
Writer& writer();

// The value of a cell, loaded as one relaxed 8-byte access.
uint64_t cellLoad(uint64_t const* cell);

}  // namespace Thrum
