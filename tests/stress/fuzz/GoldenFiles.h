// The fuzz targets that damage a table's files: a fresh base directory, the
// golden bytes of the files an input may patch, and the patch itself.
#pragma once

#include <stdlib.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "Mem/RootPath.h"

namespace FuzzTest {

// A new temporary base for the target's tables; returns its path.
inline std::string makeBase() {
  char tmpl[] = "/tmp/flowtables-fuzz-XXXXXX";
  char const* base = ::mkdtemp(tmpl);
  if (!base) std::abort();
  Mem::RootPath::baseIs(base);
  return base;
}

struct GoldenFiles {
  std::string dir;
  std::map<std::string, std::vector<char>> bytes;

  // Keeps the bytes of each of `names` in `dir` as they are now.
  template <typename Names>
  void keep(std::string d, Names const& names) {
    dir = std::move(d);
    for (char const* name : names) {
      std::ifstream in(dir + "/" + name, std::ios::binary);
      bytes[name] = std::vector<char>(std::istreambuf_iterator<char>(in), {});
    }
  }

  // Writes every file back from its golden bytes; `target`'s copy first gets
  // data[5..] at the offset in data[1..4] (little endian, modulo its size),
  // clipped at its end, or with `cut` is truncated there. `seen(name, copy)`
  // sees each copy before it is written. Needs size >= 5.
  template <typename Seen>
  void restore(std::string const& target, bool cut, uint8_t const* data, size_t size, Seen&& seen) {
    for (auto const& [name, golden] : bytes) {
      std::vector<char> copy = golden;
      if (name == target && !copy.empty()) {
        uint32_t const at = (uint32_t(data[1]) | uint32_t(data[2]) << 8 | uint32_t(data[3]) << 16 |
                             uint32_t(data[4]) << 24) %
                            copy.size();
        if (cut) {
          copy.resize(at);
        } else {
          for (size_t i = 5; i < size && at + (i - 5) < copy.size(); i++)
            copy[at + i - 5] = data[i];
        }
      }
      seen(name, copy);
      std::ofstream(dir + "/" + name, std::ios::binary | std::ios::trunc)
          .write(copy.data(), static_cast<std::streamsize>(copy.size()));
    }
  }
};

}  // namespace FuzzTest
