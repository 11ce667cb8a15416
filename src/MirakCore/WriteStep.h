// MirakCore::WriteStep: named points inside the writer's store orders where a
// test may stop the writer (typically kill its process) to prove what a
// restart makes of a table left there.
//
// The hook is a static member of the table policy, `Ops::writeStepHook(step)`,
// found at compile time: a policy without one (every production table)
// compiles each call site to nothing, so the write path costs the same as
// without the points. Each point of a data operation is taken inside its
// critical section, where a crash leaves bit 0 of runtimeFlags set; the
// salvage points lie in a salvaging start (Mirak/SalvageFile.h gives its
// store order).
#pragma once

#include <cstdint>

namespace MirakCore {

enum class WriteStep : uint8_t {
  insertSlotTaken,      // insert: a slot is off the free list, nothing linked yet
  insertRewriting,      // insert: LOOKASIDE up in a free slot, the value half copied
  insertLinked,         // insert: the entry is published, the queue not yet told
  overwriteRewriting,   // overwrite: LOOKASIDE up, the slot's value half rewritten
  removeUnlinked,       // remove: the entry is unlinked, its slot still OCCUPIED
  slotsGrown,           // slot growth: the file grew, the new slot not yet taken
  bucketsSplitting,     // bucket growth: the new half addressed, the count not published
  moveLinked,           // compaction: an entry reachable at its old and new slot
  salvageCollecting,    // salvage: the records half written to the side file's temporary
  salvageCollected,     // salvage: the side file is in place, nothing formatted yet
  salvageCarrying,      // salvage: the new generation half built
  salvageCarried,       // salvage: the new generation built, the kestor file not written
  salvageSettled,       // salvage: the kestor file written, the side file not removed
};

template <typename Ops>
inline void writeStep([[maybe_unused]] WriteStep step) {
  if constexpr (requires { Ops::writeStepHook(step); }) Ops::writeStepHook(step);
}

}  // namespace MirakCore
