// The inotify instance of an event loop and the dispatch of its events.
#include "Mem/WatchHub.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fstream>

#include "Lomi/EventLoop.h"
#include "Lomi/Exception.h"
#include "Lomi/Fork.h"
#include "Lomi/Trace.h"
#include "Mem/Error.h"
#include "Thrum/Thrum.h"

namespace Mem::Impl {

namespace {

struct Cells {
  uint64_t* instances = Thrum::writer().cell("Mem.inotify.instances");
  uint64_t* watches = Thrum::writer().cell("Mem.inotify.watches");
  uint64_t* clients = Thrum::writer().cell("Mem.inotify.clients");
  uint64_t* overflows = Thrum::writer().cell("Mem.inotify.overflows");
  uint64_t* watchFailures = Thrum::writer().cell("Mem.inotify.watchFailures");
};

Cells& cells() {
  static Cells c;
  return c;
}

// The hub of each loop. Entries of hubs that a forked child inherited are
// replaced on the child's first use.
std::unordered_map<Lomi::EventLoop*, std::weak_ptr<WatchHub>>& hubs() {
  static auto* m = new std::unordered_map<Lomi::EventLoop*, std::weak_ptr<WatchHub>>();
  return *m;
}

}  // namespace

std::string WatchHub::limitText(char const* name) {
  std::ifstream in(std::string("/proc/sys/fs/inotify/") + name);
  std::string value;
  if (!(in >> value)) value = "unknown";
  return fmt::format("fs.inotify.{} = {}", name, value);
}

std::shared_ptr<WatchHub> WatchHub::of(Lomi::Platform::DebugHandler& handler, Lomi::EventLoop& loop,
                                       std::string const& what) {
  std::weak_ptr<WatchHub>& slot = hubs()[&loop];
  if (std::shared_ptr<WatchHub> hub = slot.lock(); hub && !hub->inherited()) return hub;
  int const fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) {
    int const err = errno;
    std::string why = posixError("inotify_init1", err);
    if (err == EMFILE) {
      why += fmt::format(" (the limit may be this user's inotify instances, {}, or the "
                         "process's descriptors)",
                         limitText("max_user_instances"));
    }
    throw Lomi::InvalidInitializeException("cannot watch {}: {}", what, why);
  }
  std::shared_ptr<WatchHub> hub(new WatchHub(handler, loop, fd));
  try {
    loop.fdWatcherIs(fd, EPOLLIN, [h = hub.get()](uint32_t) { h->onReadable(); });
  } catch (Lomi::Exception const& e) {
    throw Lomi::InvalidInitializeException("cannot watch {}: {}", what, e.msg());
  }
  slot = hub;
  ++*cells().instances;
  return hub;
}

WatchHub::WatchHub(Lomi::Platform::DebugHandler& handler, Lomi::EventLoop& loop, int fd)
    : handler_(handler), loop_(loop), fd_(fd), forkGeneration_(Lomi::forkGeneration()) {}

WatchHub::~WatchHub() {
  auto& all = hubs();
  if (auto it = all.find(&loop_); it != all.end() && it->second.expired()) all.erase(it);
  if (!inherited()) {
    // An inherited hub's registrations are the parent's: neither the loop's
    // (which dropped them when the child first used it) nor the kernel's
    // watches are touched, and its counts were the parent's too.
    if (checkTimer_) loop_.timerDel(checkTimer_);
    try {
      loop_.fdWatcherDel(fd_);
    } catch (Lomi::Exception const& e) {
      FMTRACE(handler_, 0, "WatchHub", "{}", e.msg());
    }
    *cells().watches -= watches_.size();
    *cells().clients -= clients_;
    --*cells().instances;
  }
  // Closing the descriptor removes this process's watches with the instance;
  // in a child the parent's descriptor keeps the instance whole.
  ::close(fd_);
}

bool WatchHub::inherited() const { return forkGeneration_ != Lomi::forkGeneration(); }

int WatchHub::watch(std::string const& dir, uint32_t mask, Client* client) {
  // The same inode gives the same descriptor; its mask must cover what every
  // client of it asked, so a second client widens it, never narrows it.
  int wd = refusedForTest_ ? (errno = refusedForTest_, -1)
                           : ::inotify_add_watch(fd_, dir.c_str(), mask | IN_MASK_ADD);
  if (wd < 0) {
    int const err = -errno;
    ++*cells().watchFailures;
    return err;
  }
  Watch& w = watches_[wd];
  if (w.clients.empty()) {
    ++*cells().watches;
  }
  if (std::find(w.clients.begin(), w.clients.end(), client) == w.clients.end()) {
    w.clients.push_back(client);
    ++clients_;
    ++*cells().clients;
  }
  checkLater();
  return wd;
}

void WatchHub::unwatch(int wd, Client* client) {
  auto it = watches_.find(wd);
  if (it == watches_.end()) return;
  auto& clients = it->second.clients;
  auto c = std::find(clients.begin(), clients.end(), client);
  if (c == clients.end()) return;
  clients.erase(c);
  --clients_;
  --*cells().clients;
  if (!clients.empty()) return;
  watches_.erase(it);
  --*cells().watches;
  // EINVAL: the kernel dropped it already (its IN_IGNORED is on its way).
  if (!inherited()) ::inotify_rm_watch(fd_, wd);
  if (clients_ == 0 && checkTimer_) {
    loop_.timerDel(checkTimer_);
    checkTimer_ = 0;
  }
}

bool WatchHub::holds(int wd, Client* client) const {
  auto it = watches_.find(wd);
  if (it == watches_.end()) return false;
  auto const& clients = it->second.clients;
  return std::find(clients.begin(), clients.end(), client) != clients.end();
}

template <typename Fn>
void WatchHub::forEachClient(Fn const& fn) {
  std::vector<std::pair<int, Client*>> all;
  all.reserve(clients_);
  for (auto const& [wd, w] : watches_) {
    for (Client* c : w.clients) all.emplace_back(wd, c);
  }
  std::vector<Client*> called;
  called.reserve(all.size());
  for (auto const& [wd, c] : all) {
    if (!holds(wd, c) || std::find(called.begin(), called.end(), c) != called.end()) continue;
    called.push_back(c);
    fn(c);
  }
}

void WatchHub::checkLater() {
  if (checkTimer_ || clients_ == 0) return;
  checkTimer_ = loop_.timerIs(kCheckInterval, [this] {
    checkTimer_ = 0;
    std::shared_ptr<WatchHub> const self = shared_from_this();
    forEachClient([](Client* c) { c->onCheck(); });
    checkLater();
  });
}

void WatchHub::dispatch(inotify_event const& event) {
  auto it = watches_.find(event.wd);
  if (it == watches_.end()) return;  // a watch given up while its events were queued
  std::vector<Client*> const clients = it->second.clients;
  for (Client* c : clients) {
    if (holds(event.wd, c)) c->onInotify(event);
  }
  if (event.mask & IN_IGNORED) {
    // The kernel removed the watch; whoever still names it lets go of it.
    auto gone = watches_.find(event.wd);
    if (gone == watches_.end()) return;
    clients_ -= gone->second.clients.size();
    *cells().clients -= gone->second.clients.size();
    --*cells().watches;
    watches_.erase(gone);
  }
}

void WatchHub::onReadable() {
  // A client may drop the last reference to this hub from a callback.
  std::shared_ptr<WatchHub> const self = shared_from_this();
  alignas(inotify_event) char buf[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
  for (;;) {
    ssize_t const n = ::read(fd_, buf, sizeof buf);
    if (n <= 0) {
      if (n < 0 && errno != EAGAIN && errno != EINTR) {
        FMTRACE(handler_, 0, "WatchHub", "{}", posixError("read inotify", errno));
      }
      return;
    }
    for (char* p = buf; p < buf + n;) {
      auto const* ev = reinterpret_cast<inotify_event const*>(p);
      p += sizeof(inotify_event) + ev->len;
      if (ev->wd == -1 && (ev->mask & IN_Q_OVERFLOW)) {
        ++*cells().overflows;
        FMTRACE(handler_, 1, "WatchHub", "inotify queue overflow: every watch looks again");
        forEachClient([](Client* c) { c->onOverflow(); });
        continue;
      }
      dispatch(*ev);
    }
  }
}

}  // namespace Mem::Impl
