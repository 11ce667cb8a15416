// Test helper: captures the process's trace sink while it lives, and with a
// handler given, switches that handler's levels on for the same time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Lomi/Trace.h"

namespace LomiTest {

constexpr uint16_t level(int l) {
  return uint16_t(1u << l);
}

class TraceCapture {
 public:
  TraceCapture() {
    Lomi::Platform::traceSinkIs([this](std::string_view line) {
      lines.emplace_back(line);
      if (onLine) onLine(lines.back());
    });
  }
  TraceCapture(Lomi::Platform::DebugHandler& handler, uint16_t mask) : TraceCapture() {
    handler_ = &handler;
    previous_ = handler.mask();
    handler.maskIs(mask);
  }
  ~TraceCapture() {
    if (handler_) handler_->maskIs(previous_);
    Lomi::Platform::traceSinkIs(nullptr);
  }
  TraceCapture(TraceCapture const&) = delete;
  TraceCapture& operator=(TraceCapture const&) = delete;

  size_t count(std::string_view text) const {
    return std::count_if(lines.begin(), lines.end(),
                         [&](std::string const& l) { return l.find(text) != std::string::npos; });
  }
  bool has(std::string_view text) const { return count(text) != 0; }

  std::vector<std::string> lines;
  // Runs on every line as it arrives, on the tracing thread.
  std::function<void(std::string const&)> onLine;

 private:
  Lomi::Platform::DebugHandler* handler_ = nullptr;
  uint16_t previous_ = 0;
};

}  // namespace LomiTest
