// Mirak::MapDescriptor: the mount-time settings of one collection of the
// table family, and Mirak::MirakType, which side a mount wants.
//
// Contract: a descriptor is a plain value. It is built with the table's size
// and every option off; the mounting agent sets the options it wants and
// hands it to the front object's `init`, which keeps a copy and refuses a
// second `init` with a different one. Nothing here checks combinations of
// options: the front object and the writer refuse the bad ones with their own
// messages (heap without local, a writer of size 0, prevValue).
#pragma once

#include <cstdint>
#include <string>
#include <tuple>

#include <fmt/format.h>

#include "Mem/CollectionDescriptor.h"

namespace Mirak {

enum class MirakType : uint8_t {
  writer = 0,
  shadow = 1,
  reader = 2,
  keyshadow = 3,
};

// "writer", "shadow", "reader", "keyshadow"; a value outside the four is
// printed as "MirakType(<n>)" so that a damaged value still shows in a message.
std::string formatMirakType(MirakType type);

class MapDescriptor : public Mem::CollectionDescriptor {
 public:
  explicit MapDescriptor(uint32_t size = 0) : size(size) {}

  // The table's size in entries: the writer's `maxSlots`.
  uint32_t size;
  MirakType type = MirakType::writer;
  // The table lives in private memory of this process: no files, no sentry.
  bool local = false;
  // Writer options: the capacity never changes; `remove` may shrink the slot
  // file; `remove` may halve the bucket table; the queue is not pruned when on.
  bool fixedSize = false;
  bool shrinkSlots = false;
  bool shrinkBuckets_ = false;
  bool pruneQueue = false;
  // A shadow kept in step without the deferred notification scheme; false
  // means asynchronous mode.
  bool synchronous = false;
  // Passed to a new shadow as option bit 4.
  bool shadowOption = false;
  // Local memory comes from the heap (only with `local`).
  bool heap = false;
  // The slot mapping is reported to the memory tracker.
  bool trackMemory = false;
  // `init` calls `cleanup` on the existing back end before anything else.
  bool cleanupOnInit = false;
  // Every attach of a shadow counts as a re-attach (option bit 2).
  bool reattach = false;
  // Copied to the front object when its entity becomes an orphan: from then
  // on any access to the collection stops the process.
  bool assertOnOrphanAccess = false;
  // Start value of the critical-task hook in the writer's long operations.
  bool criticalTaskCheck = false;
  // Keep the previous value of overwritten entries. No table supports it;
  // `init` refuses a descriptor that asks for it.
  bool prevValue = false;
  // What a writer does with files it cannot adopt but whose slot records are
  // readable (a writer killed inside a critical section): true carries every
  // complete record into the new generation, false formats it empty.
  bool salvage = true;

  friend bool operator==(MapDescriptor const& a, MapDescriptor const& b);

  // "size:100 type:writer local:false ...", every field in order.
  std::string toString() const;

 private:
  auto fields() const {
    return std::tie(size, type, local, fixedSize, shrinkSlots, shrinkBuckets_, pruneQueue,
                    synchronous, shadowOption, heap, trackMemory, cleanupOnInit, reattach,
                    assertOnOrphanAccess, criticalTaskCheck, prevValue, salvage);
  }
};

inline bool operator==(MapDescriptor const& a, MapDescriptor const& b) {
  return a.fields() == b.fields();
}

}  // namespace Mirak

template <>
struct fmt::formatter<Mirak::MirakType> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Mirak::MirakType t, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "{}", Mirak::formatMirakType(t));
  }
};

template <>
struct fmt::formatter<Mirak::MapDescriptor> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Mirak::MapDescriptor const& d, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "{}", d.toString());
  }
};
