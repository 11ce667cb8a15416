// Loads and stores of words that another process reads or writes concurrently.
//
// The table files carry a lock-free protocol: one writer stores in a fixed
// order, readers load and re-check. Every shared word is touched through
// these accessors, whose names say the memory order, so that the order is
// visible at each use. On x86 a release store and an acquire load compile to
// plain moves (no fence, no locked instruction); on a weaker processor they
// give the ordering the protocol needs. 8-byte pairs (links, version pairs)
// are always one 8-byte access.
#pragma once

#include <atomic>
#include <string>
#include <type_traits>

namespace Mem {

template <typename T>
inline T loadAcquire(T const& word) {
  static_assert(std::is_trivially_copyable_v<T>);
  return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_acquire);
}

template <typename T>
inline T loadRelaxed(T const& word) {
  static_assert(std::is_trivially_copyable_v<T>);
  return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_relaxed);
}

template <typename T>
inline void storeRelease(T& word, T value) {
  static_assert(std::is_trivially_copyable_v<T>);
  std::atomic_ref<T>(word).store(value, std::memory_order_release);
}

template <typename T>
inline void storeRelaxed(T& word, T value) {
  static_assert(std::is_trivially_copyable_v<T>);
  std::atomic_ref<T>(word).store(value, std::memory_order_relaxed);
}

// Orders a value copy (plain memcpy) before the re-check of its version word
// in a seqlock read: load word (acquire), copy, acquireFence(), load word.
inline void acquireFence() {
  std::atomic_thread_fence(std::memory_order_acquire);
}
// Orders a value copy before the store that publishes it, where the publishing
// store is not itself a release (see the writer's store orders).
inline void releaseFence() {
  std::atomic_thread_fence(std::memory_order_release);
}

struct Atomics {
  // The protocol needs single-copy atomic, naturally aligned 8-byte loads and
  // stores without a lock. Returns false with a reason if this build or CPU
  // cannot give that.
  static bool checkCpuSupport(std::string& error);
};

}  // namespace Mem
