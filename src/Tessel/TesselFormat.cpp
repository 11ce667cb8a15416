// Size arithmetic, file names and dumps of the change queue's format.
#include "Tessel/TesselFormat.h"

#include <cstring>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Util.h"
#include "Mem/Atomics.h"

namespace Tessel {

namespace {

uint64_t pageRounded(unsigned __int128 bytes, std::string const& what, char const* kind,
                     uint64_t count) {
  uint64_t const page = Lomi::Util::pageSize();
  bytes = (bytes + page - 1) / page * page;
  if (bytes > kMaxFileSize) {
    throw Lomi::RuntimeException("tessel {}: {} for {} entries exceeds {} bytes", what, kind, count,
                                 kMaxFileSize);
  }
  return static_cast<uint64_t>(bytes);
}

}  // namespace

uint64_t headerFileSize(uint64_t mostSlots, std::string const& what) {
  return pageRounded(
      static_cast<unsigned __int128>(mostSlots) * sizeof(TesselPos) + sizeof(TesselHeader), what,
      "header file", mostSlots);
}

uint64_t tableFileSize(uint64_t capacity, std::string const& what) {
  return pageRounded(
      static_cast<unsigned __int128>(capacity) * sizeof(TesselEntry) + sizeof(TesselTableHeader),
      what, "notification table", capacity);
}

std::string headerFilePath(std::string const& dir) {
  return dir.empty() ? std::string() : dir + "/" + kHeaderFileName;
}

std::string tableFilePath(std::string const& dir, unsigned table) {
  return dir.empty() ? std::string() : dir + "/" + kTableFileNames[table & 1u];
}

std::string headerToString(TesselHeader const& h) {
  char magic[sizeof h.magic + 1] = {};
  std::memcpy(magic, h.magic, sizeof h.magic);
  for (char& c : magic) {
    if (c != 0 && (c < 0x20 || c > 0x7e)) c = '.';
  }
  return fmt::format(
      "magic:{} version:{} kestor:{:#x} sequence:{} base:[{}, {}] generation:{} current:{} "
      "corral:[{}, {}] mostSlots:{} lost:{}",
      magic, Mem::loadAcquire(h.formatVersion), Mem::loadAcquire(h.kestor),
      Mem::loadAcquire(h.sequence), Mem::loadAcquire(h.baseSequence[0]),
      Mem::loadAcquire(h.baseSequence[1]), Mem::loadAcquire(h.generation),
      Mem::loadAcquire(h.currentTable), Mem::loadAcquire(h.corralStart),
      Mem::loadAcquire(h.corralEnd), Mem::loadAcquire(h.mostSlots),
      Mem::loadAcquire(h.lostSequence));
}

std::string tableHeaderToString(TesselTableHeader const& t) {
  return fmt::format("generation:{} capacity:{} count:{}", Mem::loadAcquire(t.generation),
                     Mem::loadAcquire(t.capacity), Mem::loadAcquire(t.count));
}

}  // namespace Tessel
