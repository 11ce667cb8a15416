// Allocation counters of counted objects.
//
// Two levels, both process-wide and lock-free (relaxed atomics: they are
// statistics, nothing is ordered by them):
// - `AllocTracking::totals()`: every byte handed out by
//   `PtrInterface::zebMemAlloc` and given back by `zebMemFree`, so a test can
//   prove that a set of entities, controls and notifiees left nothing behind.
// - `AllocTrackTypeInfo`: one static record per tracked class
//   (`zebAllocTrackTypeInfo_`), fed by `_trackAllocation` before the memory is
//   taken and by `trackDeallocation` when it is returned, or when the
//   constructor threw and the allocation is undone.
//
// A class opts in by declaring the record and its own operator new/delete,
// with the helpers of Zeb/PtrInterface.h:
//
//   static Zeb::AllocTrackTypeInfo zebAllocTrackTypeInfo_;
//   static void* operator new(size_t n) {
//     return Zeb::trackedAlloc<HoFlowConfig>(n, 8);
//   }
//   static void operator delete(void* p, size_t n) {
//     Zeb::trackedFree<HoFlowConfig>(p, n);
//   }
//
// `new T(...)` then tracks, allocates, constructs, and on a throwing
// constructor untracks and frees, in that order.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <typeinfo>

namespace Zeb {

struct AllocCounts {
  uint64_t allocations = 0;    // calls that took memory
  uint64_t deallocations = 0;  // calls that gave it back
  uint64_t bytesLive = 0;      // taken and not yet given back
  uint64_t objectsLive() const { return allocations - deallocations; }
};

class AllocCounters {
 public:
  void allocationInc(size_t bytes) {
    allocations_.fetch_add(1, std::memory_order_relaxed);
    bytesLive_.fetch_add(bytes, std::memory_order_relaxed);
  }
  void deallocationInc(size_t bytes) {
    deallocations_.fetch_add(1, std::memory_order_relaxed);
    bytesLive_.fetch_sub(bytes, std::memory_order_relaxed);
  }
  AllocCounts counts() const {
    AllocCounts c;
    c.allocations = allocations_.load(std::memory_order_relaxed);
    c.deallocations = deallocations_.load(std::memory_order_relaxed);
    c.bytesLive = bytesLive_.load(std::memory_order_relaxed);
    return c;
  }

 private:
  std::atomic<uint64_t> allocations_{0};
  std::atomic<uint64_t> deallocations_{0};
  std::atomic<uint64_t> bytesLive_{0};
};

// The per-class record. `typeName` and `alignment` are filled in by the first
// `_trackAllocation` (std::type_info::name(), mangled); they only label dumps.
struct AllocTrackTypeInfo {
  AllocCounters counters;
  std::atomic<char const*> typeName{nullptr};
  std::atomic<size_t> alignment{0};

  static void _trackAllocation(AllocTrackTypeInfo* info, std::type_info const& type, size_t size,
                               size_t alignment) {
    info->typeName.store(type.name(), std::memory_order_relaxed);
    info->alignment.store(alignment, std::memory_order_relaxed);
    info->counters.allocationInc(size);
  }
  static void trackDeallocation(AllocTrackTypeInfo* info, size_t size) {
    info->counters.deallocationInc(size);
  }
};

namespace AllocTracking {
// All memory of counted objects, whatever their class.
inline AllocCounters& totals() {
  static AllocCounters counters;
  return counters;
}
}  // namespace AllocTracking

}  // namespace Zeb
