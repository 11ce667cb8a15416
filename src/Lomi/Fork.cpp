#include "Lomi/Fork.h"

#include <pthread.h>

#include <atomic>

namespace Lomi {

namespace {

std::atomic<uint32_t> generation{0};

// Runs in the child only, before fork() returns there; the child has one
// thread at that point.
void onChild() { generation.fetch_add(1, std::memory_order_relaxed); }

}  // namespace

uint32_t forkGeneration() {
  // Registered by the first caller: whoever records a generation has called
  // this before any fork that could make it stale.
  static bool const registered = ::pthread_atfork(nullptr, nullptr, onChild) == 0;
  (void)registered;
  return generation.load(std::memory_order_relaxed);
}

}  // namespace Lomi
