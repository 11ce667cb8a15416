// Mirak::Util: file checks, deployment switches and the corruption marker of
// the table family.
//
// The marker "corruption-detected" is how a reader that found damage tells the
// writer: the writer's sentry watches for the file to appear and runs a
// validation; a writer removes it once its files are proved sound again. It is
// written by temporary file + rename, so a watcher sees it appear whole.
#pragma once

#include <cstdint>
#include <string>

#include "Mem/RootPath.h"

namespace Lomi::Platform {
class DebugHandler;
}

namespace Mirak::Util {

inline constexpr char const CORRUPTION_FILENAME[] = "corruption-detected";

// Checks that `fileName` exists, is a regular file and holds at least `size`
// bytes. Throws Lomi::CorruptionDetectedException naming the file and what is
// wrong with it.
void validateFile(Lomi::Platform::DebugHandler& handler, std::string const& fileName,
                  uint64_t size);

// Whether this process runs on a physical device (as opposed to a lab
// simulation or a developer's machine): true only when the environment holds
// FLOWTABLES_PHYSICAL_DUT=1. Read on every call.
bool runningOnPhysicalDut();

// Whether a failed validation of adopted files should stop the writer with a
// core of the table instead of re-formatting: FLOWTABLES_STRICT_VALIDATION=1.
// Read on every call.
bool strictValidation();

// Writes the marker into the table's directory: the message, the pid and the
// wall-clock time, one per line. Returns false, writing nothing, for a local
// table, when the directory does not exist (a table with no files has
// nothing to mark), when a marker is there already (the writer has not
// validated since: one marker says it all, and a reader whose failed attach
// keeps failing does not rewrite it, nor wake its own file watch with it), or
// when markers are off in this process. The marker is created with O_EXCL in
// the directory opened without following links: nothing planted under its
// name is followed. A marker that cannot be written is traced at level 0 and
// gives false: the caller is already handling a failure and carries on.
bool writeCorruptionFile(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath,
                         std::string const& msg);
bool writeCorruptionFile(Mem::NaoRootPath const& rootPath, std::string const& msg);

// Process-wide: whether this process leaves markers at all (on by default).
// An observer, such as the operator's tool, turns them off: it never writes
// into a table directory.
void corruptionMarkersIs(bool on);
bool corruptionMarkers();

// Removes the marker; a missing one is fine. Throws Lomi::RuntimeException
// naming the file if the system refuses.
void removeCorruptionFile(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath);

}  // namespace Mirak::Util
