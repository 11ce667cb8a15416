// Mem::Sentry, the part of a reader or writer sentry that its collection
// sees, and Mem::Impl::DirectoryWatch, the inotify watch of a table directory
// that both sentries are built on.
//
// A collection owns at most one sentry while it is mounted. It tells the
// sentry what happened through `event(name, arg)` with one of the five names
// below, switches the sentry off (`enabled` = 0) while a detached shadow still
// flushes, and calls `onDetach()` at the end of each of its detaches.
//
// DirectoryWatch watches a table directory that may not exist yet: until it
// does, the watch sits on the nearest existing ancestor and moves down as the
// directories between appear (a writer makes them with their parents, quicker
// than anyone can follow one by one, so each move looks again for the deepest
// existing one). Once on the table directory it reports every change of an
// entry, and when the directory goes away it climbs back to an ancestor.
//
// inotify follows an inode, not a path: a directory renamed above the table
// takes the watch along and sends it nothing. So once a second (the hub's
// check) the watch stats the path it stands for and, when another directory
// (or none) is there now, reports the table vanished and moves to the path's
// new directory. An overflow of the kernel's queue, which loses events of
// every watch, is reported as `recheck`: look at the files afresh.
//
// All watches of a loop share its one inotify instance (Impl::WatchHub).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

// Also declares Lomi::EventLoop and Lomi::Platform::DebugHandler.
#include "Mem/WatchHub.h"

namespace Mem {

class Sentry {
 public:
  // The events a collection sends its sentry.
  static constexpr char const* eventInit = "init";
  static constexpr char const* eventTryAttach = "tryAttach";
  static constexpr char const* eventNotifEnabled = "notificationsEnabled";
  static constexpr char const* eventDisconnect = "disconnect";
  static constexpr char const* eventFlushComplete = "flushComplete";

  virtual ~Sentry();

  // One of the five names above; `arg` is reserved and always false from a
  // collection. An unknown name is a caller's error:
  // Lomi::InvalidInitializeException naming the table and the event.
  virtual void event(std::string const& name, bool arg) = 0;
  // The collection finished a detach. The default does nothing.
  virtual void onDetach() {}

  // 0: start nothing (no attach, no detach, no validation) until set again.
  uint8_t enabled = 1;

 protected:
  Sentry() = default;
  Sentry(Sentry const&) = delete;
  Sentry& operator=(Sentry const&) = delete;
};

namespace Impl {

class DirectoryWatch : private WatchHub::Client {
 public:
  struct Change {
    enum class Kind : uint8_t {
      // The watch is on the table directory now (it exists).
      appeared,
      // An entry of the table directory changed: `name` and the inotify `mask`.
      entry,
      // The table directory went away, or the path now names another one;
      // the watch is back on an ancestor (or already on the new directory,
      // reported next as `appeared`).
      vanished,
      // Events may have been lost: what the directory holds must be looked at
      // again.
      recheck,
    };
    Kind kind;
    std::string name;
    uint32_t mask = 0;
  };
  using Callback = std::function<void(Change const&)>;

  // Seconds before a watch that failed inside the loop is tried again.
  static constexpr double kRewatchDelay = 1.0;

  // Joins the hub of `loop` (making it if needed); watches nothing until
  // start(). Throws Lomi::InvalidInitializeException naming `path` and the
  // system's reason.
  DirectoryWatch(Lomi::Platform::DebugHandler& handler, std::string path, Lomi::EventLoop& loop,
                 Callback callback);
  ~DirectoryWatch();
  DirectoryWatch(DirectoryWatch const&) = delete;
  DirectoryWatch& operator=(DirectoryWatch const&) = delete;

  // Puts the watch on the table directory or its nearest existing ancestor;
  // true if it is the table directory (reported by the result, not by the
  // callback). Throws
  // Lomi::InvalidInitializeException when something on the path is not a
  // directory or cannot be watched (the message names the kernel's limit
  // when the watch limit is reached); the table could never appear there.
  bool start();

  bool onTable() const { return onTable_; }
  // The directory watched now; empty before start().
  std::string const& watchedPath() const { return watched_; }
  std::string const& path() const { return path_; }

 private:
  void onInotify(inotify_event const& event) override;
  void onOverflow() override;
  void onCheck() override;
  // Moves the watch to the deepest existing directory on the path. Returns
  // whether the watch is on the table directory.
  bool rewatch();
  void rewatchLater(std::string const& why);
  // The watched directory went, or the path names another: climb or move, and
  // report vanished and appeared as they apply. False if this was destroyed.
  bool moved();
  // Whether the path still leads to the watched directory (and, on an
  // ancestor, whether the next directory down is still missing).
  bool stillInPlace() const;

  Lomi::Platform::DebugHandler& handler_;
  std::string path_;
  Lomi::EventLoop& loop_;
  Callback callback_;
  std::shared_ptr<WatchHub> hub_;
  int wd_ = -1;
  bool onTable_ = false;
  std::string watched_;
  // The watched directory's identity when the watch was put on it.
  uint64_t watchedDev_ = 0;
  uint64_t watchedIno_ = 0;
  uint64_t rewatchTimer_ = 0;
  // Expires with this object: a callback that destroyed the watch (through
  // the sentry that owns it) is noticed before anything else is touched.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Impl

}  // namespace Mem
