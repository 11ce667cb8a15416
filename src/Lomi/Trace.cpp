// Process registry of trace handlers and the line sink.
#include "Lomi/Trace.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

namespace Lomi::Platform {

struct Registry {
  std::mutex mutex;
  // deque: handlers never move, callers keep references.
  std::deque<std::unique_ptr<DebugHandler>> handlers;
  std::map<std::string, DebugHandler*> byName;
  std::map<std::string, uint16_t> pendingMasks;  // "*" applies to all
  TraceSink sink;
};

static Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: traces may run at exit
  return *r;
}

static uint16_t pendingMaskFor(Registry& r, std::string const& name) {
  if (auto it = r.pendingMasks.find(name); it != r.pendingMasks.end()) return it->second;
  if (auto it = r.pendingMasks.find("*"); it != r.pendingMasks.end()) return it->second;
  return 0;
}

DebugHandler& getDebugHandler(std::string const& name, bool shared) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (shared) {
    if (auto it = r.byName.find(name); it != r.byName.end()) return *it->second;
  }
  r.handlers.push_back(std::make_unique<DebugHandler>(name, pendingMaskFor(r, name)));
  DebugHandler* h = r.handlers.back().get();
  if (shared) r.byName[name] = h;
  return *h;
}

void traceMaskIs(std::string const& name, uint16_t mask) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.pendingMasks[name] = mask;
  for (auto& h : r.handlers) {
    if (name == "*" || h->name() == name) h->maskIs(mask);
  }
}

bool traceSettingIs(std::string_view setting) {
  auto eq = setting.find('=');
  if (eq == std::string_view::npos || eq == 0) return false;
  std::string name(setting.substr(0, eq));
  std::string_view levels = setting.substr(eq + 1);
  uint16_t mask = 0;
  if (levels == "all") {
    mask = DebugHandler::kAllLevels;
  } else {
    if (levels.empty()) return false;
    size_t i = 0;
    while (i < levels.size()) {
      auto digit = [&](size_t k) {
        return k < levels.size() && levels[k] >= '0' && levels[k] <= '9';
      };
      if (!digit(i)) return false;
      int lo = levels[i] - '0', hi = lo;
      i++;
      if (i < levels.size() && levels[i] == '-') {
        if (!digit(i + 1)) return false;
        hi = levels[i + 1] - '0';
        i += 2;
        if (hi < lo) return false;
      }
      for (int l = lo; l <= hi; l++) mask |= uint16_t(1u << l);
      if (i < levels.size()) {
        if (levels[i] != ',') return false;
        i++;
        if (i == levels.size()) return false;
      }
    }
  }
  traceMaskIs(name, mask);
  return true;
}

void traceSinkIs(TraceSink sink) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.sink = std::move(sink);
}

void emit(DebugHandler const& handler, int level, char const* cls, char const* func,
          std::string_view text) {
  using namespace std::chrono;
  double now = duration<double>(system_clock::now().time_since_epoch()).count();
  std::string line =
      fmt::format("{:.6f} {} {} {}::{} {}", now, handler.name(), level, cls, func, text);
  Registry& r = registry();
  TraceSink sink;
  {
    std::lock_guard lock(r.mutex);
    sink = r.sink;
  }
  if (sink) {
    sink(line);
  } else {
    line.push_back('\n');
    // One write per line so lines of several processes do not interleave.
    ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
  }
}

}  // namespace Lomi::Platform

namespace Lomi {

void assertFailed(Platform::DebugHandler const* h, char const* cls, char const* func,
                  std::string_view text) {
  static Platform::DebugHandler fallback("Lomi");
  Platform::DebugHandler const& handler = h ? *h : fallback;
  std::string line = fmt::format("{} 0 {}::{} ASSERT: {}\n", handler.name(), cls, func, text);
  // Straight to stderr first: the process is about to stop, and a custom sink
  // may buffer. Then the sink, for agents that collect traces.
  ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
  (void)ignored;
  Platform::Registry& r = Platform::registry();
  if (r.sink) Platform::emit(handler, 0, cls, func, fmt::format("ASSERT: {}", text));
  std::abort();
}

}  // namespace Lomi
