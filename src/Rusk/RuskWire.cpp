// Encoding, checking, sending and reading the wake-up socket's messages.
#include "Rusk/RuskWire.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include <fmt/format.h>

#include "Mem/Error.h"

namespace Rusk::Wire {

namespace {

// Little-endian whatever the host: the bytes are the format, not a struct.
template <typename T>
void storeLe(unsigned char* p, T v) {
  for (size_t i = 0; i < sizeof(T); ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

template <typename T>
T loadLe(unsigned char const* p) {
  T v = 0;
  for (size_t i = 0; i < sizeof(T); ++i) v |= static_cast<T>(T(p[i]) << (8 * i));
  return v;
}

constexpr size_t kMagicAt = 0;
constexpr size_t kVersionAt = 4;
constexpr size_t kTypeAt = 6;
constexpr size_t kValueAt = 8;
static_assert(kValueAt + sizeof(Tessel::Sequence) == kMessageSize, "the value ends the message");

}  // namespace

char const* typeName(MessageType type) {
  switch (type) {
    case MessageType::hello:
      return "Hello";
    case MessageType::sleeping:
      return "Sleeping";
    case MessageType::wake:
      return "Wake";
  }
  return "?";
}

Bytes encode(Message m) {
  Bytes b;
  storeLe(b.data() + kMagicAt, kMagic);
  storeLe(b.data() + kVersionAt, kVersion);
  storeLe(b.data() + kTypeAt, static_cast<uint16_t>(m.type));
  storeLe(b.data() + kValueAt, m.value);
  return b;
}

bool decode(unsigned char const* bytes, size_t n, Message& out, std::string& why) {
  // A field is checked once all of its bytes are in: it ends where the next
  // one starts.
  if (n >= kVersionAt) {
    uint32_t const magic = loadLe<uint32_t>(bytes + kMagicAt);
    if (magic != kMagic) {
      why = fmt::format("bad magic 0x{:08x}", magic);
      return false;
    }
  }
  if (n >= kTypeAt) {
    uint16_t const version = loadLe<uint16_t>(bytes + kVersionAt);
    if (version != kVersion) {
      why = fmt::format("unsupported version {}", version);
      return false;
    }
  }
  if (n >= kValueAt) {
    uint16_t const type = loadLe<uint16_t>(bytes + kTypeAt);
    if (type < uint16_t(MessageType::hello) || type > uint16_t(MessageType::wake)) {
      why = fmt::format("unknown message type {}", type);
      return false;
    }
    out.type = static_cast<MessageType>(type);
  }
  if (n == kMessageSize) out.value = loadLe<uint64_t>(bytes + kValueAt);
  return true;
}

ReadEnd readChunk(int fd, unsigned char* chunk, size_t size, size_t& got, std::string& why) {
  for (;;) {
    ssize_t const n = ::recv(fd, chunk, size, MSG_DONTWAIT);
    if (n > 0) {
      got = static_cast<size_t>(n);
      return ReadEnd::drained;
    }
    if (n == 0) return ReadEnd::closed;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return ReadEnd::drained;
    if (errno == ECONNRESET) return ReadEnd::reset;
    why = Mem::posixError("recv", errno);
    return ReadEnd::failed;
  }
}

SendEnd sendMessage(int fd, Message m, std::string& why) {
  Bytes const b = encode(m);
  for (;;) {
    ssize_t const n = ::send(fd, b.data(), b.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(b.size())) return SendEnd::sent;
    if (n >= 0) {
      // The peer would read the rest as the start of the next message.
      why = fmt::format("short send of {} ({} of 16 bytes)", typeName(m.type), n);
      return SendEnd::failed;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return SendEnd::full;
    if (errno == EPIPE || errno == ECONNRESET) return SendEnd::gone;
    why = Mem::posixError("send", errno);
    return SendEnd::failed;
  }
}

socklen_t socketAddress(std::string const& name, sockaddr_un& addr) {
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

pid_t peerPid(int fd) {
  ucred cred{};
  socklen_t len = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return 0;
  return cred.pid;
}

}  // namespace Rusk::Wire
