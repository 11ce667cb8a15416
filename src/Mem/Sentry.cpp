// The inotify watch of a table directory that may not exist yet.
#include "Mem/Sentry.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "Lomi/EventLoop.h"
#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Error.h"

namespace Mem {

Sentry::~Sentry() = default;

namespace Impl {

namespace {

// What a table directory's watch must hear: the writer's files appearing
// (created, or renamed into place as the kestor file and the corruption
// marker are), written, and removed; and the directory itself going.
constexpr uint32_t kTableMask = IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE |
                                IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// On an ancestor only a new directory (made or renamed in) can bring the
// table closer, and the ancestor's own removal sends the watch further up.
constexpr uint32_t kAncestorMask =
    IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

enum class Found { directory, missing, other };

Found probe(std::string const& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return Found::missing;
  return S_ISDIR(st.st_mode) ? Found::directory : Found::other;
}

std::string parentOf(std::string const& path) {
  size_t const slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace

DirectoryWatch::DirectoryWatch(Lomi::Platform::DebugHandler& handler, std::string path,
                               Lomi::EventLoop& loop, Callback callback)
    : handler_(handler), path_(std::move(path)), loop_(loop), callback_(std::move(callback)) {
  if (path_.empty() || path_.front() != '/') {
    throw Lomi::InvalidInitializeException("cannot watch Mirak table \"{}\": not an absolute path",
                                           path_);
  }
  hub_ = WatchHub::of(handler_, loop_, fmt::format("Mirak table {}", path_));
}

DirectoryWatch::~DirectoryWatch() {
  if (rewatchTimer_) loop_.timerDel(rewatchTimer_);
  if (wd_ >= 0) hub_->unwatch(wd_, this);
}

bool DirectoryWatch::start() {
  rewatch();
  return onTable_;
}

bool DirectoryWatch::rewatch() {
  // Directories come and go while this looks: each round watches the deepest
  // one that exists, then looks again whether the next one down appeared
  // before the watch was in place (its creation would have gone unheard).
  for (int round = 0; round < 64; ++round) {
    std::string dir = path_;
    Found found;
    while ((found = probe(dir)) == Found::missing && dir != "/") dir = parentOf(dir);
    if (found == Found::other) {
      throw Lomi::InvalidInitializeException(
          "cannot watch Mirak table {}: {} is in the way and is not a directory", path_, dir);
    }
    bool const table = dir == path_;
    int const wd = hub_->watch(dir, table ? kTableMask : kAncestorMask, this);
    if (wd < 0) {
      int const err = -wd;
      if (err == ENOENT || err == ENOTDIR) continue;  // removed since the probe
      std::string why = posixError(fmt::format("inotify_add_watch {}", dir), err);
      if (err == ENOSPC) {
        why += fmt::format(": this user's inotify watches are used up ({})",
                           WatchHub::limitText("max_user_watches"));
      }
      throw Lomi::InvalidInitializeException("cannot watch Mirak table {}: {}", path_, why);
    }
    // One watch at a time: the old directory's events no longer matter. The
    // same inode gives the same descriptor, which must stay.
    if (wd_ >= 0 && wd_ != wd) hub_->unwatch(wd_, this);
    wd_ = wd;
    watched_ = dir;
    struct stat st;
    // Stat after the watch is in place: a directory swapped in between shows
    // as moved at the next check, never as the watched one.
    if (::stat(dir.c_str(), &st) == 0) {
      watchedDev_ = st.st_dev;
      watchedIno_ = st.st_ino;
    } else {
      watchedDev_ = watchedIno_ = 0;
    }
    if (table) {
      FMTRACE(handler_, 3, "DirectoryWatch", "watching {}", dir);
      bool const appeared = !onTable_;
      onTable_ = true;
      return appeared;
    }
    onTable_ = false;
    std::string const next = path_.substr(0, path_.find('/', dir.size() + (dir == "/" ? 0 : 1)));
    if (probe(next) == Found::missing) {
      FMTRACE(handler_, 3, "DirectoryWatch", "{} missing, watching {}", path_, dir);
      return false;
    }
  }
  throw Lomi::InvalidInitializeException(
      "cannot watch Mirak table {}: its directories keep changing", path_);
}

void DirectoryWatch::rewatchLater(std::string const& why) {
  FMTRACE(handler_, 0, "DirectoryWatch", "{}; watching again in {}s", why, kRewatchDelay);
  if (rewatchTimer_) return;
  rewatchTimer_ = loop_.timerIs(kRewatchDelay, [this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.expired()) return;
    rewatchTimer_ = 0;
    try {
      if (start()) callback_(Change{Change::Kind::appeared, std::string(), 0});
    } catch (Lomi::Exception const& e) {
      if (!alive.expired()) rewatchLater(e.msg());
    }
  });
}

bool DirectoryWatch::moved() {
  std::weak_ptr<bool> const alive = alive_;
  // On the table directory only its own removal or move gets here: it is
  // gone, even if a new one stands there already.
  bool const wasOnTable = onTable_;
  onTable_ = false;
  bool appeared;
  try {
    appeared = rewatch();
  } catch (Lomi::Exception const& e) {
    rewatchLater(e.msg());
    appeared = false;
  }
  if (wasOnTable) {
    callback_(Change{Change::Kind::vanished, std::string(), 0});
    if (alive.expired()) return false;
  }
  if (appeared) {
    callback_(Change{Change::Kind::appeared, std::string(), 0});
    if (alive.expired()) return false;
  }
  return true;
}

void DirectoryWatch::onInotify(inotify_event const& ev) {
  if (ev.wd != wd_) return;  // a watch already given up
  if (ev.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) {
    if (ev.mask & IN_IGNORED) wd_ = -1;  // the kernel dropped it: not ours to remove
    moved();
    return;
  }
  if (!onTable_) {
    if (ev.mask & IN_ISDIR) moved();
    return;
  }
  if (ev.len == 0 || (ev.mask & IN_ISDIR)) return;
  callback_(Change{Change::Kind::entry, std::string(ev.name), ev.mask});
}

bool DirectoryWatch::stillInPlace() const {
  if (watched_.empty()) return true;  // not started
  struct stat st;
  if (::stat(watched_.c_str(), &st) != 0 || uint64_t(st.st_dev) != watchedDev_ ||
      uint64_t(st.st_ino) != watchedIno_) {
    return false;
  }
  if (onTable_) return true;
  std::string const next =
      path_.substr(0, path_.find('/', watched_.size() + (watched_ == "/" ? 0 : 1)));
  return probe(next) == Found::missing;
}

void DirectoryWatch::onCheck() {
  if (rewatchTimer_ || stillInPlace()) return;
  FMTRACE(handler_, 1, "DirectoryWatch", "{}: {} was moved or replaced", path_, watched_);
  moved();
}

void DirectoryWatch::onOverflow() {
  if (rewatchTimer_) return;
  if (!stillInPlace()) {
    moved();  // its appeared says what a recheck would
    return;
  }
  if (onTable_) callback_(Change{Change::Kind::recheck, std::string(), 0});
}

}  // namespace Impl

}  // namespace Mem
