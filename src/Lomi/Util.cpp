#include "Lomi/Util.h"

#include <sys/mman.h>
#include <unistd.h>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"

namespace Lomi::Util {

size_t pageSize() {
  static size_t const size = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  return size;
}

uint64_t fileSizeHelper(uint64_t numSlots, uint64_t slotSize, uint64_t headerSize) {
  // Computed in 128 bits so that the check itself cannot overflow.
  unsigned __int128 bytes = static_cast<unsigned __int128>(numSlots) * slotSize + headerSize;
  uint64_t const page = pageSize();
  bytes = (bytes + page - 1) / page * page;
  if (bytes > 0xffffffffu) {
    throw RuntimeException("file size for {} slots of {} bytes after a {} byte header exceeds {}",
                           numSlots, slotSize, headerSize, 0xffffffffu);
  }
  return static_cast<uint64_t>(bytes);
}

std::string dumpHex(void const* data, size_t size) {
  auto const* p = static_cast<unsigned char const*>(data);
  std::string out;
  for (size_t line = 0; line < size; line += 16) {
    out += fmt::format("{:04x}:", line);
    std::string text;
    for (size_t i = line; i < line + 16; i++) {
      if (i < size) {
        out += fmt::format(" {:02x}", p[i]);
        text.push_back(p[i] >= 0x20 && p[i] < 0x7f ? static_cast<char>(p[i]) : '.');
      } else {
        out += "   ";
      }
    }
    out += fmt::format("  |{}|\n", text);
  }
  return out;
}

std::string traceHandleName(Platform::DebugHandler const& handler) {
  return fmt::format("{}@{}", handler.name(), static_cast<void const*>(&handler));
}

void emitCanaryLog(Platform::DebugHandler const& handler, std::string const& what) {
  Platform::emit(handler, 0, "Util", "emitCanaryLog", fmt::format("canary: {}", what));
}

bool includeShmemInCore(void* base, size_t size, bool include) {
  return ::madvise(base, size, include ? MADV_DODUMP : MADV_DONTDUMP) == 0;
}

}  // namespace Lomi::Util
