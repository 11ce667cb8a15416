// Trace handlers, the trace macro and assertions.
//
// A `DebugHandler` is a named trace switch with a 10-bit mask: a trace at level
// n (0..9) is emitted when bit n is set. Handlers live in a process registry
// (`getDebugHandler`), so the CLI and tests can turn them on by name before or
// after the table that uses them exists. Every emitted trace becomes one line
// on the process sink: time, handler, level, class, function, text.
//
// The macro `FMTRACE` tests the level before it evaluates its arguments: a
// trace that is off costs one load and one branch. `fmassert` always logs
// (level 0, whatever the mask) and then aborts the process: it is reserved for
// promises whose breach would otherwise damage a table.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace Lomi::Platform {

class DebugHandler {
 public:
  static constexpr uint16_t kAllLevels = 0x3ff;

  explicit DebugHandler(std::string name, uint16_t mask = 0)
      : name_(std::move(name)), mask_(mask) {}
  DebugHandler(DebugHandler const&) = delete;
  DebugHandler& operator=(DebugHandler const&) = delete;

  std::string const& name() const { return name_; }
  uint16_t mask() const { return mask_.load(std::memory_order_relaxed); }
  void maskIs(uint16_t mask) { mask_.store(mask & kAllLevels, std::memory_order_relaxed); }
  bool enabled(int level) const {
    return level >= 0 && level <= 9 && ((mask_.load(std::memory_order_relaxed) >> level) & 1u);
  }

 private:
  std::string name_;
  std::atomic<uint16_t> mask_;
};

// The handler of `name` in the process registry, created with mask 0 (or the
// mask given by a pending `traceSettingIs`) on first use. With `shared` false a
// new private handler is made on every call; the caller owns it.
DebugHandler& getDebugHandler(std::string const& name, bool shared = true);

// Sets the mask of every registered handler whose name matches `name` (exactly,
// or any name if `name` is "*"), and remembers it for handlers made later.
void traceMaskIs(std::string const& name, uint16_t mask);

// Parses "HANDLER=LEVELS" (LEVELS: digits "0-9" and ranges like "0-3,5", or
// "all") and applies it with traceMaskIs. Returns false if it does not parse.
bool traceSettingIs(std::string_view setting);

// The sink that receives every emitted line (without a newline). The default
// writes to stderr. An empty function restores the default.
using TraceSink = std::function<void(std::string_view line)>;
void traceSinkIs(TraceSink sink);

// Emits one line through the sink. Called by FMTRACE after the level test.
void emit(DebugHandler const& handler, int level, char const* cls, char const* func,
          std::string_view text);

}  // namespace Lomi::Platform

namespace Lomi {

template <typename... Args>
void fmtrace(Platform::DebugHandler const& h, int level, char const* cls, char const* func,
             fmt::format_string<Args...> f, Args&&... args) {
  if (!h.enabled(level)) return;
  Platform::emit(h, level, cls, func, fmt::format(f, std::forward<Args>(args)...));
}

[[noreturn]] void assertFailed(Platform::DebugHandler const* h, char const* cls, char const* func,
                               std::string_view text);

// Logs the message at level 0 on the handler (always, whatever its mask) and
// stops the process.
template <typename... Args>
[[noreturn]] void fmassert(Platform::DebugHandler const& h, char const* cls, char const* func,
                           fmt::format_string<Args...> f, Args&&... args) {
  assertFailed(&h, cls, func, fmt::format(f, std::forward<Args>(args)...));
}

}  // namespace Lomi

// FMTRACE(handler, level, "Class", "format {}", args...): the arguments are
// evaluated only when the level is on.
#define FMTRACE(handler, level, cls, ...)                                 \
  do {                                                                    \
    auto const& lomiTraceHandler_ = (handler);                            \
    if (lomiTraceHandler_.enabled(level))                                 \
      ::Lomi::Platform::emit(lomiTraceHandler_, (level), (cls), __func__, \
                             ::fmt::format(__VA_ARGS__));                 \
  } while (0)

// FMASSERT(cond, handler, "Class", "format {}", args...): stops the process with
// the message when `cond` is false; the message is built only then.
#define FMASSERT(cond, handler, cls, ...)                                            \
  do {                                                                               \
    if (__builtin_expect(!(cond), 0))                                                \
      ::Lomi::assertFailed(&(handler), (cls), __func__, ::fmt::format(__VA_ARGS__)); \
  } while (0)
