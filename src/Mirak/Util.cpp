// File checks, deployment switches and the corruption marker.
#include "Mirak/Util.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Error.h"
#include "Mem/SharedGround.h"
#include "Parcel/ParcelFile.h"

namespace Mirak::Util {

namespace {

bool envIsOne(char const* name) {
  char const* v = std::getenv(name);
  return v && std::strcmp(v, "1") == 0;
}

}  // namespace

void validateFile(Lomi::Platform::DebugHandler& handler, std::string const& fileName,
                  uint64_t size) {
  struct stat st;
  if (::stat(fileName.c_str(), &st) != 0) {
    throw Lomi::CorruptionDetectedException(
        "Mirak file {} is not usable: {}", fileName,
        Mem::posixError(fmt::format("stat {}", fileName), errno));
  }
  if (!S_ISREG(st.st_mode)) {
    throw Lomi::CorruptionDetectedException("Mirak file {} is not a regular file (mode {:#o})",
                                            fileName, st.st_mode);
  }
  if (static_cast<uint64_t>(st.st_size) < size) {
    throw Lomi::CorruptionDetectedException("Mirak file {} is {} bytes, shorter than {}", fileName,
                                            st.st_size, size);
  }
  FMTRACE(handler, 5, "Util", "{} is {} bytes, needs {}", fileName, st.st_size, size);
}

bool runningOnPhysicalDut() {
  return envIsOne("FLOWTABLES_PHYSICAL_DUT");
}

bool strictValidation() {
  return envIsOne("FLOWTABLES_STRICT_VALIDATION");
}

namespace {
std::atomic<bool> markersOn{true};
}  // namespace

void corruptionMarkersIs(bool on) {
  markersOn.store(on, std::memory_order_relaxed);
}

bool corruptionMarkers() {
  return markersOn.load(std::memory_order_relaxed);
}

bool writeCorruptionFile(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath,
                         std::string const& msg) {
  if (rootPath.isLocal()) return false;
  if (!corruptionMarkers()) {
    FMTRACE(handler, 1, "Util", "not marking {} (markers are off in this process): {}", rootPath,
            msg);
    return false;
  }
  struct stat st;
  if (::lstat(rootPath.path().c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    FMTRACE(handler, 3, "Util", "no directory {} for the corruption marker", rootPath);
    return false;
  }
  char when[64] = "";
  std::time_t now = std::time(nullptr);
  std::tm tm;
  if (::gmtime_r(&now, &tm)) std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &tm);
  std::string text = fmt::format("message: {}\npid: {}\ntime: {}\n", msg, ::getpid(), when);
  std::string error;
  if (!Mem::createSharedFile(rootPath.filePath(CORRUPTION_FILENAME), text, 0644, error)) {
    if (errno == EEXIST) {
      FMTRACE(handler, 3, "Util", "{} is marked already: {}", rootPath, msg);
    } else {
      FMTRACE(handler, 0, "Util", "cannot write the corruption marker: {}", error);
    }
    return false;
  }
  FMTRACE(handler, 1, "Util", "marked {} corrupt: {}", rootPath, msg);
  return true;
}

bool writeCorruptionFile(Mem::NaoRootPath const& rootPath, std::string const& msg) {
  return writeCorruptionFile(rootPath.debugHandler(), rootPath, msg);
}

void removeCorruptionFile(Lomi::Platform::DebugHandler& handler, Mem::NaoRootPath const& rootPath) {
  if (rootPath.isLocal()) return;
  Parcel::Impl::removeFile(rootPath.filePath(CORRUPTION_FILENAME));
  FMTRACE(handler, 3, "Util", "removed {} of {}", CORRUPTION_FILENAME, rootPath);
}

}  // namespace Mirak::Util
