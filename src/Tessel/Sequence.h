// Sequence: the running number the change queue gives each notification.
//
// The writer issues 1, 2, 3, ... (0 means "nothing issued yet"); a reader
// records the last one it has taken in. All ones is no position in the queue:
// it marks a call that comes from a sweep over the slots, not from an entry.
#pragma once

#include <cstdint>

namespace Tessel {

using Sequence = uint64_t;

inline constexpr Sequence noSequence = ~Sequence{0};

}  // namespace Tessel
