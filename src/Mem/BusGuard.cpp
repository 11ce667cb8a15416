#include "Mem/BusGuard.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace Mem::BusGuard {

namespace {

// One guarded mapping. `base` is 0 when the entry is free; it is stored last
// on add (release) and first on remove, so the handler never sees a base
// with another mapping's size.
struct Entry {
  std::atomic<uintptr_t> base{0};
  std::atomic<uint64_t> size{0};
  std::atomic<uint64_t> faults{0};
};

constexpr size_t kEntries = 4096;
Entry entries[kEntries];
std::atomic<uint64_t> totalFaults{0};
uintptr_t pageMask = 0;
struct sigaction previous;

void onBus(int sig, siginfo_t* info, void* context) {
  int const savedErrno = errno;
  uintptr_t const at = reinterpret_cast<uintptr_t>(info->si_addr);
  for (Entry& e : entries) {
    uintptr_t const base = e.base.load(std::memory_order_acquire);
    if (base == 0 || at < base) continue;
    uint64_t const size = e.size.load(std::memory_order_acquire);
    if (at - base >= size) continue;
    // Zero pages from the faulting page to the end of the mapping: the file
    // is shorter than that from here on, so every later page would fault too.
    uintptr_t const from = at & ~pageMask;
    uintptr_t const to = (base + size + pageMask) & ~pageMask;
    void* p = ::mmap(reinterpret_cast<void*>(from), to - from, PROT_READ,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (p != MAP_FAILED) {
      e.faults.fetch_add(1, std::memory_order_relaxed);
      totalFaults.fetch_add(1, std::memory_order_relaxed);
      errno = savedErrno;
      return;
    }
    break;
  }
  // Not ours: what would have happened without this handler.
  if ((previous.sa_flags & SA_SIGINFO) && previous.sa_sigaction) {
    previous.sa_sigaction(sig, info, context);
  } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
    previous.sa_handler(sig);
  } else {
    // Back to the default action; the faulting access runs again and ends
    // the process with SIGBUS, as it would have.
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    ::sigaction(SIGBUS, &dfl, nullptr);
  }
  errno = savedErrno;
}

void install() {
  pageMask = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE)) - 1;
  struct sigaction sa {};
  sa.sa_sigaction = onBus;
  sa.sa_flags = SA_SIGINFO | SA_NODEFER;
  ::sigemptyset(&sa.sa_mask);
  ::sigaction(SIGBUS, &sa, &previous);
}

}  // namespace

bool add(void const* base, uint64_t size) {
  static std::once_flag once;
  std::call_once(once, install);
  auto const b = reinterpret_cast<uintptr_t>(base);
  for (Entry& e : entries) {
    uintptr_t expected = 0;
    // Claim a free entry with a marker that matches no address, then fill it.
    if (e.base.load(std::memory_order_relaxed) != 0) continue;
    if (!e.base.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) continue;
    e.size.store(size, std::memory_order_relaxed);
    e.faults.store(0, std::memory_order_relaxed);
    e.base.store(b, std::memory_order_release);
    return true;
  }
  return false;
}

void remove(void const* base) {
  auto const b = reinterpret_cast<uintptr_t>(base);
  for (Entry& e : entries) {
    if (e.base.load(std::memory_order_relaxed) == b) {
      e.base.store(0, std::memory_order_release);
      return;
    }
  }
}

uint64_t faultsIn(void const* base) {
  auto const b = reinterpret_cast<uintptr_t>(base);
  for (Entry const& e : entries) {
    if (e.base.load(std::memory_order_acquire) == b)
      return e.faults.load(std::memory_order_relaxed);
  }
  return 0;
}

uint64_t faults() {
  return totalFaults.load(std::memory_order_relaxed);
}

}  // namespace Mem::BusGuard
