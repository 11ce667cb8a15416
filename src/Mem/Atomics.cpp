#include "Mem/Atomics.h"

#include <cstdint>

#include "Mem/VersionedRef.h"

namespace Mem {

bool Atomics::checkCpuSupport(std::string& error) {
  if (!std::atomic_ref<uint64_t>::is_always_lock_free) {
    error = "8-byte atomic access is not lock-free on this build";
    return false;
  }
  if (!std::atomic_ref<VersionedRef<unsigned int>>::is_always_lock_free) {
    error = "8-byte version pairs are not lock-free on this build";
    return false;
  }
#if !defined(__x86_64__) && !defined(__aarch64__)
  error = "unsupported processor: 8-byte single-copy atomicity is not known";
  return false;
#endif
  return true;
}

}  // namespace Mem
