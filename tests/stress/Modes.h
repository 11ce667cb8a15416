// The modes of the stress program; each returns the process exit code
// (0: every check held) and prints its figures on stdout.
#pragma once

#include "stress/Stress.h"

namespace Stress {

int runTorn(Options const& o);
int runCrash(Options const& o);
int runCorrupt(Options const& o);
int runCorpus(Options const& o);

}  // namespace Stress
