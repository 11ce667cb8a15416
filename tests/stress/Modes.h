// The modes of the stress program; each returns the process exit code
// (0: every check held) and prints its figures on stdout.
#pragma once

#include "stress/Stress.h"

namespace Stress {

// Readers against a writer that grows, compacts and shrinks.
int runTorn(Options const& o);
// A writer killed with SIGKILL at random moments, restarted.
int runCrash(Options const& o);
// Table files with random bytes flipped, then a reader and a writer.
int runCorrupt(Options const& o);
// The seed corpora of the fuzz targets, into o.dir.
int runCorpus(Options const& o);
// Readers that hold walk hints and version anchors across compaction,
// regrowth, bucket resizes and re-formats (o.restarts writer restarts).
int runHints(Options const& o);
// Table directories with rewired links, cut files, FIFOs and links planted in
// them, then a reader and the operator's tool.
int runHostile(Options const& o);
// Shadows and a reader against a writer that is killed and restarted, shadows
// stopped past the queue's patience, killed and restarted.
int runShadow(Options const& o);

}  // namespace Stress
