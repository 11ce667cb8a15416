// Mirak::SlotLink: the table's name for the generic chain link of the hash
// maps (MirakCore/SlotLink.h), which the slot and bucket files store.
#pragma once

#include "MirakCore/SlotLink.h"

namespace Mirak {
using SlotLink = MirakCore::SlotLink;
}  // namespace Mirak
