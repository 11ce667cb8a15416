// Text forms of the mount-time settings.
#include "Mirak/MapDescriptor.h"

namespace Mirak {

std::string formatMirakType(MirakType type) {
  switch (type) {
    case MirakType::writer:
      return "writer";
    case MirakType::shadow:
      return "shadow";
    case MirakType::reader:
      return "reader";
    case MirakType::keyshadow:
      return "keyshadow";
  }
  return fmt::format("MirakType({})", static_cast<unsigned>(type));
}

std::string MapDescriptor::toString() const {
  return fmt::format(
      "size:{} type:{} local:{} fixedSize:{} shrinkSlots:{} shrinkBuckets:{} pruneQueue:{} "
      "synchronous:{} shadowOption:{} heap:{} trackMemory:{} cleanupOnInit:{} reattach:{} "
      "assertOnOrphanAccess:{} criticalTaskCheck:{} prevValue:{} salvage:{}",
      size, formatMirakType(type), local, fixedSize, shrinkSlots, shrinkBuckets_, pruneQueue,
      synchronous, shadowOption, heap, trackMemory, cleanupOnInit, reattach, assertOnOrphanAccess,
      criticalTaskCheck, prevValue, salvage);
}

}  // namespace Mirak
