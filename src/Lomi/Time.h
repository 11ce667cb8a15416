// Lomi::time(): monotonic seconds, for elapsed times of grows, sweeps and
// yields. Not wall-clock time: only differences mean anything.
#pragma once

#include <chrono>

namespace Lomi {

inline double time() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace Lomi
