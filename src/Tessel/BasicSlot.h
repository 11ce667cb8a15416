// Tessel::BasicSlot: the payload of a change notification, a slot index.
//
// A notification never carries a value: the reader reads the slot as it stands
// when it gets there, so several changes of one slot collapse into one.
#pragma once

#include <cstdint>

namespace Tessel {

using BasicSlot = uint32_t;

// The slot field of a retired queue entry. No table has this many slots.
inline constexpr BasicSlot tombstoneSlot = 0xffffffffu;

}  // namespace Tessel
