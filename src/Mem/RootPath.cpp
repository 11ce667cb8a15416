// The process-wide base directory and the directories of tables.
#include "Mem/RootPath.h"

#include <sys/stat.h>

#include <cerrno>
#include <mutex>

#include "Lomi/EventLoop.h"
#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Error.h"

namespace Mem {

namespace {

std::mutex& baseMutex() {
  static std::mutex m;
  return m;
}

std::string& baseDir() {
  static std::string dir = RootPath::kDefaultBase;
  return dir;
}

std::string withoutTrailingSlashes(std::string s) {
  while (s.size() > 1 && s.back() == '/') s.pop_back();
  return s;
}

// Checks a shared table's name component by component; returns the name with
// repeated and trailing slashes dropped.
std::string checkedName(std::string const& name) {
  if (name.empty()) {
    throw Lomi::InvalidInitializeException(
        "Mirak table name is empty: a shared table needs a name");
  }
  if (name.front() == '/') {
    throw Lomi::InvalidInitializeException(
        "Mirak table name \"{}\" is absolute: it must be relative to the base directory", name);
  }
  if (name.find('\0') != std::string::npos) {
    throw Lomi::InvalidInitializeException("Mirak table name \"{}\" holds a NUL byte", name);
  }
  std::string out;
  size_t pos = 0;
  while (pos <= name.size()) {
    size_t end = name.find('/', pos);
    if (end == std::string::npos) end = name.size();
    std::string_view part(name.data() + pos, end - pos);
    if (part == "." || part == "..") {
      throw Lomi::InvalidInitializeException(
          "Mirak table name \"{}\" has a \"{}\" component: it must stay inside its own directory",
          name, part);
    }
    if (!part.empty()) {
      if (!out.empty()) out += '/';
      out += part;
    }
    pos = end + 1;
  }
  return out;
}

}  // namespace

void RootPath::baseIs(std::string const& dir) {
  if (dir.empty() || dir.front() != '/') {
    throw Lomi::InvalidInitializeException("Mirak base directory \"{}\" must be an absolute path",
                                           dir);
  }
  std::lock_guard lock(baseMutex());
  baseDir() = withoutTrailingSlashes(dir);
}

std::string RootPath::base() {
  std::lock_guard lock(baseMutex());
  return baseDir();
}

Lomi::EventLoop& RootPath::eventLoop() {
  return Lomi::EventLoop::defaultLoop();
}

NaoRootPath::NaoRootPath(Lomi::Platform::DebugHandler& handler, std::string name, bool local)
    : handler_(&handler), name_(std::move(name)), local_(local) {
  if (local_) return;
  std::string base = RootPath::base();
  path_ = base == "/" ? "/" + checkedName(name_) : base + "/" + checkedName(name_);
  baseLength_ = base.size();
}

std::string NaoRootPath::dirName() const {
  std::string_view n(name_);
  while (!n.empty() && n.back() == '/') n.remove_suffix(1);
  size_t slash = n.rfind('/');
  return std::string(slash == std::string_view::npos ? n : n.substr(slash + 1));
}

std::string NaoRootPath::str() const {
  return local_ ? "local:" + name_ : path_;
}

std::string NaoRootPath::filePath(std::string_view file) const {
  if (local_) {
    throw Lomi::InvalidInitializeException(
        "Mirak table {} is local: it has no directory for file \"{}\"", str(), file);
  }
  return path_ + "/" + std::string(file);
}

void NaoRootPath::createDirectories() const {
  if (local_) return;
  // mkdir each prefix in turn; an existing directory is fine, anything else
  // in the way (a file, a dangling link, no permission) is the caller's error.
  for (size_t pos = 1; pos <= path_.size(); ++pos) {
    if (pos != path_.size() && path_[pos] != '/') continue;
    std::string prefix = path_.substr(0, pos);
    bool const trusted = pos >= baseLength_;
    if (::mkdir(prefix.c_str(), 0755) == 0) {
      FMTRACE(*handler_, 2, "NaoRootPath", "created directory {}", prefix);
    } else {
      int err = errno;
      struct stat st;
      if (err != EEXIST || ::stat(prefix.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        if (err == EEXIST) err = ENOTDIR;
        throw Lomi::InvalidInitializeException("cannot create directory of Mirak table {}: {}",
                                               path_,
                                               posixError(fmt::format("mkdir {}", prefix), err));
      }
    }
    if (trusted) checkTrusted(prefix);
  }
}

void NaoRootPath::checkTrusted(std::string const& dir) const {
  struct stat st;
  if (::lstat(dir.c_str(), &st) != 0) {
    throw Lomi::InvalidInitializeException("cannot use directory of Mirak table {}: {}", path_,
                                           posixError(fmt::format("lstat {}", dir), errno));
  }
  auto refuse = [&](std::string const& why) {
    throw Lomi::InvalidInitializeException("refusing directory {} of Mirak table {}: {}", dir,
                                           path_, why);
  };
  if (S_ISLNK(st.st_mode)) {
    refuse("it is a symbolic link; make it a directory, or set the base beyond it");
  }
  uid_t const me = ::geteuid();
  if (st.st_uid != me && st.st_uid != 0) {
    refuse(
        fmt::format("it is owned by uid {}, neither this process's user ({}) nor root; remove "
                    "it or give it to this user",
                    st.st_uid, me));
  }
  if ((st.st_mode & S_IWOTH) && !(st.st_mode & S_ISVTX)) {
    refuse(fmt::format("anyone may write into it (mode {:o}) and it is not sticky; chmod o-w it",
                       st.st_mode & 07777));
  }
}

}  // namespace Mem
