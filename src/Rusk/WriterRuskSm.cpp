// The writer's wake-up socket: naming, listening, accepting, probing, and the
// writer's half of the wake-up protocol.
#include "Rusk/WriterRuskSm.h"

#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <random>

#include <fmt/format.h>

#include "Lomi/EventLoop.h"
#include "Lomi/Exception.h"
#include "Lomi/Rdtsc.h"
#include "Lomi/Trace.h"
#include "Mem/Error.h"
#include "Mem/Fd.h"
#include "Rusk/RuskWire.h"

namespace Rusk {

namespace {

constexpr std::string_view kPrefix = "@flowtables-";

std::atomic<uint32_t>& tableCounter() {
  static std::atomic<uint32_t> counter{0};
  return counter;
}

template <typename T>
bool parseNumber(std::string_view text, T& out) {
  if (text.empty()) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

std::string TunnetName::str() const {
  return fmt::format("{}{}-{}-{:016x}", kPrefix, pid, tableId, nonce);
}

std::optional<TunnetName> TunnetName::TunnetNameIs(std::string_view socketName) {
  if (socketName.substr(0, kPrefix.size()) != kPrefix) return std::nullopt;
  std::string_view rest = socketName.substr(kPrefix.size());
  size_t dash = rest.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  TunnetName n;
  if (!parseNumber(rest.substr(0, dash), n.pid) || n.pid <= 0) return std::nullopt;
  rest = rest.substr(dash + 1);
  size_t const nonceDash = rest.find('-');
  if (!parseNumber(rest.substr(0, nonceDash), n.tableId)) return std::nullopt;
  if (nonceDash != std::string_view::npos) {
    std::string_view const nonce = rest.substr(nonceDash + 1);
    if (nonce.size() != 16) return std::nullopt;
    auto [end, ec] = std::from_chars(nonce.data(), nonce.data() + nonce.size(), n.nonce, 16);
    if (ec != std::errc() || end != nonce.data() + nonce.size()) return std::nullopt;
  }
  return n;
}

bool connectProbe(std::string const& socketName) {
  sockaddr_un addr;
  socklen_t len = Wire::socketAddress(socketName, addr);
  if (len == 0) return false;
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  int rc;
  do {
    rc = ::connect(fd, reinterpret_cast<sockaddr const*>(&addr), len);
  } while (rc != 0 && errno == EINTR);
  // A Unix stream connect completes at once or fails; EAGAIN means the
  // listener exists and its backlog is full: it is alive, just busy.
  bool accepted = rc == 0 || errno == EAGAIN;
  ::close(fd);
  return accepted;
}

namespace {

uint64_t randomNonce() {
  uint64_t n = 0;
  // getrandom without flags blocks only before the pool is first seeded.
  if (::getrandom(&n, sizeof n, 0) != static_cast<ssize_t>(sizeof n)) {
    n = std::random_device{}() * 0x9e3779b97f4a7c15ull ^ uint64_t(::getpid()) << 32;
  }
  return n;
}

}  // namespace


struct WriterRuskSm::Connection {
  int fd;
  uint64_t id;
  pid_t peer;
  // The S of the reader's last Sleeping while it sleeps; noSequence while it
  // is awake (a Sleeping may never carry noSequence, so the two never mix).
  Tessel::Sequence sleepingAfter = Tessel::noSequence;
  // What the reader has taken in, as far as the writer knows: the S of its
  // last Sleeping, or the latest sequence when it connected (it sweeps from
  // a head read after that). For the prune floor.
  Tessel::Sequence passed = 0;
  // When it was woken (or connected) and has not said Sleeping since, in
  // steady-clock nanoseconds; 0 while it sleeps.
  int64_t silentSince = 0;
  Wire::MessageBuffer in;
};

namespace {

int64_t steadyNanos() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// At most this many accepts per call: a connect storm cannot hold the loop.
constexpr size_t kAcceptBudget = 256;

// Removing a watcher can fail only on a broken epoll set; a close path must
// go on regardless, so the failure is traced, not thrown.
void unwatch(Lomi::EventLoop* loop, int fd, Lomi::Platform::DebugHandler& handler) {
  if (loop == nullptr) return;
  try {
    loop->fdWatcherDel(fd);
  } catch (Lomi::Exception const& e) {
    FMTRACE(handler, 0, "WriterRuskSm", "{}", e.msg());
  }
}

}  // namespace

WriterRuskSm::WriterRuskSm(Lomi::Platform::DebugHandler& handler)
    : handler_(handler),
      tableId_(tableCounter().fetch_add(1, std::memory_order_relaxed) + 1),
      socketName_(TunnetName{::getpid(), tableId_, randomNonce()}.str()) {}

WriterRuskSm::~WriterRuskSm() {
  close();
}

void WriterRuskSm::loopIs(Lomi::EventLoop& loop) {
  if (loop_ == &loop) {
    loopChosen_ = true;
    return;
  }
  if (fd_ >= 0) {
    unwatch(loop_, fd_, handler_);
    for (auto const& c : connections_) unwatch(loop_, c->fd, handler_);
  }
  loop_ = &loop;
  loopChosen_ = true;
  if (fd_ >= 0) {
    watch(fd_, true);
    for (auto const& c : connections_) watch(c->fd, false);
  }
}

void WriterRuskSm::watch(int fd, bool listener) {
  if (listener) {
    loop_->fdWatcherIs(fd, EPOLLIN, [this](uint32_t) { acceptPending(); });
  } else {
    loop_->fdWatcherIs(fd, EPOLLIN | EPOLLRDHUP, [this, fd](uint32_t) { onReadable(fd); });
  }
}

void WriterRuskSm::doEnableListen() {
  if (fd_ >= 0) return;
  sockaddr_un addr;
  socklen_t len = Wire::socketAddress(socketName_, addr);
  if (len == 0) {
    throw Lomi::InvalidInitializeException("wake-up socket name \"{}\" does not fit an address",
                                           socketName_);
  }
  Mem::Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) {
    throw Lomi::InvalidInitializeException("cannot open wake-up socket {}: {}", socketName_,
                                           Mem::posixError("socket", errno));
  }
  if (::bind(fd.get(), reinterpret_cast<sockaddr const*>(&addr), len) != 0 ||
      ::listen(fd.get(), 64) != 0) {
    throw Lomi::InvalidInitializeException("cannot listen on wake-up socket {}: {}", socketName_,
                                           Mem::posixError("bind/listen", errno));
  }
  if (!loopChosen_) loop_ = &Lomi::EventLoop::defaultLoop();
  try {
    watch(fd.get(), true);
  } catch (Lomi::Exception const& e) {
    throw Lomi::InvalidInitializeException("cannot watch wake-up socket {}: {}", socketName_,
                                           e.msg());
  }
  fd_ = fd.release();
  owner_ = ::getpid();
  drainTicks_ = static_cast<uint64_t>(Lomi::Rdtsc::calibrationRate() / 1000) + 1;
  nextDrain_ = Lomi::Rdtsc::now() + drainTicks_;
  FMTRACE(handler_, 2, "WriterRuskSm", "listening on {}", socketName_);
}

size_t WriterRuskSm::acceptPending() {
  if (fd_ < 0) return 0;
  size_t accepted = 0;
  while (accepted < kAcceptBudget) {
    int c = ::accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (c >= 0) {
      ++accepted;
      addConnection(c);
      continue;
    }
    if (errno == EINTR || errno == ECONNABORTED) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      FMTRACE(handler_, 0, "WriterRuskSm", "accept on {}: {}", socketName_,
              Mem::posixError("accept4", errno));
    }
    break;
  }
  dropHungUp();
  FMTRACE(handler_, 5, "WriterRuskSm", "{} accepted:{} kept:{}", socketName_, accepted,
          connections_.size());
  return accepted;
}

void WriterRuskSm::addConnection(int fd) {
  auto conn = std::make_unique<Connection>();
  conn->fd = fd;
  conn->id = nextConnectionId_++;
  conn->peer = Wire::peerPid(fd);
  conn->passed = latest_;
  conn->silentSince = steadyNanos();
  try {
    watch(fd, false);
  } catch (Lomi::Exception const& e) {
    FMTRACE(handler_, 0, "WriterRuskSm", "{} reader {} (pid {}): {}; connection closed",
            socketName_, conn->id, conn->peer, e.msg());
    ::close(fd);
    return;
  }
  connections_.push_back(std::move(conn));
  size_t const index = connections_.size() - 1;
  std::string why;
  switch (Wire::sendMessage(fd, Wire::Message{Wire::MessageType::hello, latest_}, why)) {
    case Wire::SendEnd::sent:
      FMTRACE(handler_, 3, "WriterRuskSm", "{} reader {} (pid {}, fd {}) connected", socketName_,
              connections_[index]->id, connections_[index]->peer, fd);
      return;
    case Wire::SendEnd::gone:
      // Gone before it was accepted, as a liveness probe is: what it sent,
      // if anything, is still to be read, and decides how it is closed.
      if (readConnection(index)) closeConnection(index, 3, "reader gone before Hello");
      return;
    case Wire::SendEnd::full:
      why = "no room for Hello on a new connection";
      break;
    case Wire::SendEnd::failed:
      break;
  }
  closeConnection(index, 0, why);
}

std::vector<int> WriterRuskSm::connections() const {
  std::vector<int> fds;
  fds.reserve(connections_.size());
  for (auto const& c : connections_) fds.push_back(c->fd);
  return fds;
}

size_t WriterRuskSm::indexOf(int fd) const {
  for (size_t i = 0; i < connections_.size(); ++i) {
    if (connections_[i]->fd == fd) return i;
  }
  return connections_.size();
}

void WriterRuskSm::closeConnection(size_t index, int level, std::string_view why) {
  Connection const& c = *connections_[index];
  FMTRACE(handler_, level, "WriterRuskSm", "{} reader {} (pid {}, fd {}): {}; connection closed",
          socketName_, c.id, c.peer, c.fd, why);
  unwatch(loop_, c.fd, handler_);
  ::close(c.fd);
  if (c.sleepingAfter != Tessel::noSequence) --sleeping_;
  connections_.erase(connections_.begin() + static_cast<ptrdiff_t>(index));
}

void WriterRuskSm::onReadable(int fd) {
  size_t const index = indexOf(fd);
  if (index < connections_.size()) readConnection(index);
}

bool WriterRuskSm::readConnection(size_t index) {
  Connection& c = *connections_[index];
  bool asleep = false;
  Tessel::Sequence lastSleeping = Tessel::noSequence;
  std::string why;
  Wire::ReadEnd const end = Wire::readMessages(
      c.fd, c.in,
      [&](Wire::Message const& m) {
        if (m.type != Wire::MessageType::sleeping) {
          why = fmt::format("unexpected {} from a reader", Wire::typeName(m.type));
          return false;
        }
        if (m.value == Tessel::noSequence) {
          why = "Sleeping after no sequence";
          return false;
        }
        ++sequencesProcessed_;
        FMTRACE(handler_, 8, "WriterRuskSm", "{} reader {} sleeping after {}", socketName_, c.id,
                m.value);
        // Only the last of a batch counts: each replaces the one before.
        asleep = true;
        lastSleeping = m.value;
        return true;
      },
      why);
  switch (end) {
    case Wire::ReadEnd::drained:
      break;
    case Wire::ReadEnd::closed:
      closeConnection(index, 3, "reader closed the connection");
      return false;
    case Wire::ReadEnd::reset:
      closeConnection(index, 3, "reader reset the connection");
      return false;
    case Wire::ReadEnd::failed:
    case Wire::ReadEnd::garbage:
      closeConnection(index, 0, why);
      return false;
  }
  if (asleep) return sleepingIs(index, lastSleeping);
  return true;
}

bool WriterRuskSm::sleepingIs(size_t index, Tessel::Sequence s) {
  Connection& c = *connections_[index];
  c.passed = s;
  c.silentSince = 0;
  // 3: a reader that slept on a queue already past S is woken at once.
  if (s < latest_) return wake(index);
  if (c.sleepingAfter == Tessel::noSequence) ++sleeping_;
  c.sleepingAfter = s;
  return true;
}

Tessel::Sequence WriterRuskSm::pruneFloor(double patience) const {
  int64_t const now = steadyNanos();
  int64_t const limit = int64_t(patience * 1e9);
  Tessel::Sequence floor = latest_;
  for (auto const& c : connections_) {
    // A reader silent for longer than the patience holds nothing back: it
    // will find entries gone and sweep.
    if (c->silentSince != 0 && now - c->silentSince > limit) continue;
    floor = std::min(floor, c->passed);
  }
  return floor;
}

bool WriterRuskSm::wake(size_t index) {
  Connection& c = *connections_[index];
  if (c.silentSince == 0) c.silentSince = steadyNanos();
  if (c.sleepingAfter != Tessel::noSequence) {
    c.sleepingAfter = Tessel::noSequence;
    --sleeping_;
  }
  std::string why;
  switch (Wire::sendMessage(c.fd, Wire::Message{Wire::MessageType::wake, latest_}, why)) {
    case Wire::SendEnd::sent:
      ++ruskCount_;
      FMTRACE(handler_, 8, "WriterRuskSm", "{} reader {} woken at {}", socketName_, c.id, latest_);
      return true;
    case Wire::SendEnd::full:
      // The reader has wake-ups it has not read: it will look at the queue.
      FMTRACE(handler_, 5, "WriterRuskSm", "{} reader {} (fd {}): socket full, counted as woken",
              socketName_, c.id, c.fd);
      return true;
    case Wire::SendEnd::gone:
      closeConnection(index, 3, "reader gone before its wake-up");
      return false;
    case Wire::SendEnd::failed:
      break;
  }
  closeConnection(index, 0, why);
  return false;
}

void WriterRuskSm::notify(Tessel::Sequence seq) {
  // 2: the latest sequence is stored before any connection is read.
  latest_ = seq;
  if (fd_ < 0) return;
  uint64_t const now = Lomi::Rdtsc::now();
  if (now >= nextDrain_) drain(now);
  if (sleeping_ == 0) return;
  for (size_t i = 0; i < connections_.size();) {
    Tessel::Sequence const s = connections_[i]->sleepingAfter;
    if (s != Tessel::noSequence && s < seq && !wake(i)) continue;  // closed: i is the next one now
    ++i;
  }
}

void WriterRuskSm::drain(uint64_t now) {
  nextDrain_ = now + drainTicks_;
  polls_.clear();
  polls_.push_back(pollfd{fd_, POLLIN, 0});
  for (auto const& c : connections_) polls_.push_back(pollfd{c->fd, POLLIN | POLLRDHUP, 0});
  int rc;
  do {
    rc = ::poll(polls_.data(), polls_.size(), 0);
  } while (rc < 0 && errno == EINTR);
  if (rc <= 0) return;
  // Connections first: reading one may close others' slots in connections_,
  // so each is found again by its descriptor; accepting comes last so that a
  // new descriptor cannot reuse the number of one still listed here.
  for (size_t p = 1; p < polls_.size(); ++p) {
    if (polls_[p].revents == 0) continue;
    size_t const index = indexOf(polls_[p].fd);
    if (index < connections_.size()) readConnection(index);
  }
  if (polls_[0].revents != 0) acceptPending();
}

void WriterRuskSm::dropHungUp() {
  if (connections_.empty()) return;
  polls_.clear();
  for (auto const& c : connections_) polls_.push_back(pollfd{c->fd, POLLRDHUP, 0});
  int rc;
  do {
    rc = ::poll(polls_.data(), polls_.size(), 0);
  } while (rc < 0 && errno == EINTR);
  if (rc <= 0) return;
  // A hung-up connection is read to its end rather than dropped: what it
  // sent before it went (garbage included) decides how it is closed.
  std::vector<int> gone;
  for (pollfd const& p : polls_) {
    if (p.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) gone.push_back(p.fd);
  }
  for (int fd : gone) {
    size_t const index = indexOf(fd);
    if (index < connections_.size() && readConnection(index)) {
      closeConnection(index, 3, "reader hung up");
    }
  }
}

void WriterRuskSm::close() {
  if (fd_ < 0) return;
  Lomi::EventLoop* const loop = ::getpid() == owner_ ? loop_ : nullptr;
  for (auto const& c : connections_) {
    unwatch(loop, c->fd, handler_);
    ::close(c->fd);
  }
  connections_.clear();
  sleeping_ = 0;
  unwatch(loop, fd_, handler_);
  ::close(fd_);
  fd_ = -1;
  FMTRACE(handler_, 2, "WriterRuskSm", "closed {}", socketName_);
}

}  // namespace Rusk
