// TesselPos: a position in the change queue's current notification
// table, as kept in each slot's back reference (`tesselSlots`).
//
// A back reference names the slot's one live entry, or is `noTesselPos` when
// the slot has none (never notified, or its entry was tombstoned). Positions
// are only meaningful for the current table: a compaction of the queue moves
// every live entry and rewrites the back references with it.
#pragma once

#include <cstdint>

namespace Tessel {

using TesselPos = uint32_t;

inline constexpr TesselPos noTesselPos = 0xffffffffu;

}  // namespace Tessel
