// Mirak::IterHint: the table's name for a caller's position in a walk
// (MirakCore/IterHint.h), handed through the table's first/next.
#pragma once

#include "MirakCore/IterHint.h"

namespace Mirak {
using IterHint = MirakCore::IterHint;
}  // namespace Mirak
