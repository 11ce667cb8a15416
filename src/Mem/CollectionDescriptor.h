// Mem::CollectionDescriptor: the polymorphic base of a collection's mount-time
// settings, and Mem::MountStatus, what a mounted collection reports.
//
// A collection's `init` takes a descriptor by this base and down-casts it to
// the concrete kind of its table family (Mirak::MapDescriptor); a descriptor
// of another kind is a std::bad_cast.
#pragma once

#include <cstdint>

namespace Mem {

class CollectionDescriptor {
 public:
  virtual ~CollectionDescriptor() = default;

 protected:
  CollectionDescriptor() = default;
  CollectionDescriptor(CollectionDescriptor const&) = default;
  CollectionDescriptor& operator=(CollectionDescriptor const&) = default;
};

// A small integer, reported by every back end:
//   0 not mounted: both placeholders, a private table, a writer or reader
//     that is not initialised;
//   1 mounted;
//   2 mounted and synchronised (a shadow that has caught up with the queue);
//   3 a shadow that is still flushing its copy after a detach.
using MountStatus = uint32_t;

inline constexpr MountStatus mountStatusNotMounted = 0;
inline constexpr MountStatus mountStatusMounted = 1;
inline constexpr MountStatus mountStatusSynchronized = 2;
inline constexpr MountStatus mountStatusFlushing = 3;

}  // namespace Mem
