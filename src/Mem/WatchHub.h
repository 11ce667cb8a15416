// Mem::Impl::WatchHub: the one inotify instance of an event loop, shared by
// every directory watch that registers with that loop.
//
// The kernel allows few inotify instances per user (fs.inotify.max_user_instances,
// 128 by default) across all of that user's processes, and many watches
// (fs.inotify.max_user_watches). So a process does not spend an instance per
// table: every DirectoryWatch of a loop adds its watch to the loop's hub, which
// reads the instance once for all and hands each event to the clients of its
// watch descriptor. Two clients on one directory share one kernel watch (the
// kernel gives the same descriptor for the same inode); the watch is removed
// when its last client leaves.
//
// Besides the events of its watches, a client hears:
//   onOverflow   the kernel's event queue overflowed and events were lost, for
//                any watch: look at the directory afresh;
//   onCheck      once every kCheckInterval seconds while it is registered: a
//                cheap look (a stat) for what inotify never reports, such as
//                a directory above the watched one renamed.
//
// Counters (Thrum cells, process-wide): "Mem.inotify.instances",
// "Mem.inotify.watches" (kernel watches held), "Mem.inotify.clients",
// "Mem.inotify.overflows", "Mem.inotify.watchFailures".
//
// Fork: a child that inherited a hub never removes its watches (they are the
// parent's, in the instance both share); it only closes its descriptor. The
// child's own watches go to a new hub of the child's loop.
//
// Thread safety: none; the loop's thread.
#pragma once

#include <sys/inotify.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Lomi {
class EventLoop;
namespace Platform {
class DebugHandler;
}
}  // namespace Lomi

namespace Mem::Impl {

class WatchHub : public std::enable_shared_from_this<WatchHub> {
 public:
  class Client {
   public:
    // An event of a descriptor this client holds. IN_IGNORED means the kernel
    // dropped the watch (its directory is gone): the descriptor is no longer
    // the client's.
    virtual void onInotify(inotify_event const& event) = 0;
    virtual void onOverflow() = 0;
    virtual void onCheck() = 0;

   protected:
    ~Client() = default;
  };

  static constexpr double kCheckInterval = 1.0;

  // The hub of `loop`, made (with its inotify instance) if the loop has none.
  // Throws Lomi::InvalidInitializeException naming `what` and, when the
  // kernel refuses an instance, the limit and its value.
  static std::shared_ptr<WatchHub> of(Lomi::Platform::DebugHandler& handler,
                                      Lomi::EventLoop& loop, std::string const& what);
  ~WatchHub();
  WatchHub(WatchHub const&) = delete;
  WatchHub& operator=(WatchHub const&) = delete;

  // Watches `dir` for `mask` (added to what other clients of the same
  // directory asked) on behalf of `client`; registering a client twice on
  // one descriptor counts once. Returns the descriptor, or -errno; ENOSPC
  // means the watch limit (limitText() says which and how much).
  int watch(std::string const& dir, uint32_t mask, Client* client);
  // Ends `client`'s interest in `wd`; the kernel watch goes with its last
  // client. Unknown pairs are ignored.
  void unwatch(int wd, Client* client);

  // Tests: every later watch() fails with `err` as the kernel would (0 ends
  // it). A watch limit can't be reached on a shared machine without failing
  // every other process of the user.
  static void refuseWatchesForTest(int err) { refusedForTest_ = err; }

  // "fs.inotify.max_user_watches = N": for messages.
  static std::string limitText(char const* name);

  size_t watches() const { return watches_.size(); }
  int fd() const { return fd_; }

 private:
  struct Watch {
    std::vector<Client*> clients;
  };

  WatchHub(Lomi::Platform::DebugHandler& handler, Lomi::EventLoop& loop, int fd);
  void onReadable();
  void dispatch(inotify_event const& event);
  // Every client, once, for an overflow or a check; each is looked up again
  // before it is called, as any call may remove others.
  template <typename Fn>
  void forEachClient(Fn const& fn);
  bool holds(int wd, Client* client) const;
  void checkLater();
  bool inherited() const;

  static inline int refusedForTest_ = 0;

  Lomi::Platform::DebugHandler& handler_;
  Lomi::EventLoop& loop_;
  int fd_;
  uint32_t forkGeneration_;
  std::unordered_map<int, Watch> watches_;
  size_t clients_ = 0;
  uint64_t checkTimer_ = 0;
};

}  // namespace Mem::Impl
