// Mem::AttachResult: what attaching one mapped file of a table found.
//
// The writer attaches a table's files one by one and ORs the results: it
// trusts the set only if the OR is attachNew (all made now) or attachKept
// (all adopted as found). Any mix, or a file that had to be formatted again
// (attachReformatted), means the files are not one table's generation, and the
// writer formats them all anew. The slot, bucket and queue files answer in
// these terms, so the type lives below all three. The values are bits so that the OR tells the
// cases apart; a file that a table does not have answers 0.
#pragma once

namespace Mem {

enum AttachResult : int { attachNew = 1, attachKept = 2, attachReformatted = 4 };

}  // namespace Mem
