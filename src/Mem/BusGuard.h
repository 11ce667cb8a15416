// A reader's mappings survive the truncation of their files.
//
// A file that is cut shorter while a process maps it turns every access past
// its new end into SIGBUS, which kills the process. A reader cannot prevent
// the cut (a damaged disk, a hostile neighbour, an operator's mistake) and
// must not die of it. Read-only table mappings are registered here; the
// SIGBUS handler, installed at the first registration, recognises a fault
// inside one of them, maps zero pages over the rest of that mapping
// (MAP_FIXED, read-only) and notes the fault. The faulting load is then
// repeated and reads zeros, which the reader's own checks report as damage
// (an unoccupied slot in a chain, a header that does not validate). Nothing
// is added to the read path: the cost is paid only by a fault.
//
// A fault anywhere else goes to the handler that was installed before (or to
// the default action, which ends the process as it would have without us).
// Writers' mappings are not registered: a writer whose file is cut has lost
// its table, and carrying on over zero pages would hide that.
//
// The registry is a fixed array of lock-free entries, so the handler reads it
// without a lock; registration is for one thread at a time per mapping.
#pragma once

#include <cstdint>

namespace Mem::BusGuard {

// Registers the read-only mapping [base, base + size). Installs the handler
// on first use. Returns false if the registry is full (the mapping is then
// unguarded; traced by the caller).
bool add(void const* base, uint64_t size);
// Forgets the mapping that starts at `base`.
void remove(void const* base);
// Faults absorbed in the mapping that starts at `base` since it was added.
uint64_t faultsIn(void const* base);
// Faults absorbed in this process.
uint64_t faults();

}  // namespace Mem::BusGuard
