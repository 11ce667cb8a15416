// Shared by the Rusk tests: a trace handler, the level-0 traces of a scope,
// and raw sockets and messages as any process could make them.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include "Lomi/Trace.h"
#include "Lomi/TraceCapture.h"
#include "Rusk/RuskWire.h"

namespace RuskTest {

inline Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("test.Rusk");
}

inline std::string message(Rusk::Wire::MessageType type, Tessel::Sequence value) {
  Rusk::Wire::Bytes const b = Rusk::Wire::encode({type, value});
  return std::string(b.begin(), b.end());
}

// A non-blocking client of `name` (printable form); -1 on failure.
inline int rawConnect(std::string const& name) {
  sockaddr_un addr;
  socklen_t const len = Rusk::Wire::socketAddress(name, addr);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// A non-blocking listener on `name`, as anyone could bind it; -1 on failure.
inline int rawListen(std::string const& name) {
  sockaddr_un addr;
  socklen_t const len = Rusk::Wire::socketAddress(name, addr);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(fd, 4) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

inline bool rawSend(int fd, std::string const& bytes) {
  return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
}

// The level-0 traces of handler() while in scope.
struct Failures : LomiTest::TraceCapture {
  Failures() : TraceCapture(handler(), 1) {}
};

}  // namespace RuskTest
