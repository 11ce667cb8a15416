// The writer's wake-up socket: naming, listening, accepting, probing.
#include "Rusk/WriterRuskSm.h"

#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <random>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Error.h"

namespace Rusk {

namespace {

constexpr std::string_view kPrefix = "@flowtables-";

std::atomic<uint32_t>& tableCounter() {
  static std::atomic<uint32_t> counter{0};
  return counter;
}

// Fills `addr` from the printable name; returns the address length, or 0 if
// the name does not fit.
socklen_t addressOf(std::string const& name, sockaddr_un& addr) {
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (name.empty() || name.size() > sizeof addr.sun_path - 1) return 0;
  std::memcpy(addr.sun_path, name.data(), name.size());
  // An abstract name is exactly as long as given: no terminator counts.
  if (name[0] == '@') {
    addr.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  }
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + 1);
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
  socklen_t len = addressOf(socketName, addr);
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

WriterRuskSm::WriterRuskSm(Lomi::Platform::DebugHandler& handler)
    : handler_(handler),
      tableId_(tableCounter().fetch_add(1, std::memory_order_relaxed) + 1),
      socketName_(TunnetName{::getpid(), tableId_, randomNonce()}.str()) {}

WriterRuskSm::~WriterRuskSm() {
  close();
}

void WriterRuskSm::doEnableListen() {
  if (fd_ >= 0) return;
  sockaddr_un addr;
  socklen_t len = addressOf(socketName_, addr);
  if (len == 0) {
    throw Lomi::InvalidInitializeException("wake-up socket name \"{}\" does not fit an address",
                                           socketName_);
  }
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    throw Lomi::InvalidInitializeException("cannot open wake-up socket {}: {}", socketName_,
                                           Mem::posixError("socket", errno));
  }
  if (::bind(fd, reinterpret_cast<sockaddr const*>(&addr), len) != 0 || ::listen(fd, 64) != 0) {
    int err = errno;
    ::close(fd);
    throw Lomi::InvalidInitializeException("cannot listen on wake-up socket {}: {}", socketName_,
                                           Mem::posixError("bind/listen", err));
  }
  fd_ = fd;
  FMTRACE(handler_, 2, "WriterRuskSm", "listening on {}", socketName_);
}

size_t WriterRuskSm::acceptPending() {
  if (fd_ < 0) return 0;
  size_t accepted = 0;
  for (;;) {
    int c = ::accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (c >= 0) {
      connections_.push_back(c);
      ++accepted;
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

void WriterRuskSm::dropHungUp() {
  if (connections_.empty()) return;
  std::vector<pollfd> polls;
  polls.reserve(connections_.size());
  for (int c : connections_) polls.push_back(pollfd{c, POLLRDHUP, 0});
  int rc;
  do {
    rc = ::poll(polls.data(), polls.size(), 0);
  } while (rc < 0 && errno == EINTR);
  if (rc <= 0) return;
  std::vector<int> kept;
  kept.reserve(connections_.size());
  for (pollfd const& p : polls) {
    if (p.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) {
      ::close(p.fd);
    } else {
      kept.push_back(p.fd);
    }
  }
  connections_.swap(kept);
}

void WriterRuskSm::close() {
  for (int c : connections_) ::close(c);
  connections_.clear();
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
    FMTRACE(handler_, 2, "WriterRuskSm", "closed {}", socketName_);
  }
}

}  // namespace Rusk
