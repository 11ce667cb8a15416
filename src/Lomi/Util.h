// Small helpers shared by the table family: bit reversal, file sizes, hex dumps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Lomi::Platform {
class DebugHandler;
}

namespace Lomi::Util {

// The 32 bits of `v` in reverse order: swap neighbouring bits, then pairs, then
// nibbles, then the order of the bytes. reverse(1) == 0x80000000. Every lookup
// reverses its key's hash, so it is always inlined.
[[gnu::always_inline]] constexpr uint32_t reverse(uint32_t v) {
  v = ((v >> 1) & 0x55555555u) | ((v & 0x55555555u) << 1);
  v = ((v >> 2) & 0x33333333u) | ((v & 0x33333333u) << 2);
  v = ((v >> 4) & 0x0f0f0f0fu) | ((v & 0x0f0f0f0fu) << 4);
  return __builtin_bswap32(v);
}

// Bytes of a file holding a header and `numSlots` slots: headerSize +
// numSlots * slotSize, rounded up to a whole page. The table format keeps its
// sizes in 32 bits, so a size that does not fit in a u32 raises
// Lomi::RuntimeException with the figures in its message.
uint64_t fileSizeHelper(uint64_t numSlots, uint64_t slotSize, uint64_t headerSize);

// The system page size, learned once.
size_t pageSize();

// "0000: 4d 49 52 41 ...  |MIRA...|" lines, 16 bytes a line.
std::string dumpHex(void const* data, size_t size);

// "name@0x..." of a trace handle, for messages that must tell handles apart.
std::string traceHandleName(Platform::DebugHandler const& handler);

// Writes one line at level 0 that marks a point in a log (a canary), so a
// reader of the log can tell where a run began.
void emitCanaryLog(Platform::DebugHandler const& handler, std::string const& what);

// Asks the kernel to include (or leave out) a shared mapping in core dumps.
bool includeShmemInCore(void* base, size_t size, bool include);

}  // namespace Lomi::Util
