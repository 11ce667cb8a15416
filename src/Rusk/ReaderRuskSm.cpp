// The reader's end of the wake-up socket: connect, say "sleeping", turn Wakes
// into one handler call per loop turn, and report the writer's end.
#include "Rusk/ReaderRuskSm.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include <fmt/format.h>

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Error.h"
#include "Mem/Fd.h"
#include "Rusk/RuskWire.h"

namespace Rusk {

ReaderRuskSm::ReaderRuskSm(Lomi::Platform::DebugHandler& handler, Lomi::EventLoop& loop)
    : handler_(handler), loop_(loop), in_(std::make_unique<Wire::MessageBuffer>()) {}

ReaderRuskSm::~ReaderRuskSm() {
  closeSocket();
}

bool ReaderRuskSm::connect(std::string const& socketName, std::string& error) {
  disconnect();
  socketName_ = socketName;
  sockaddr_un addr;
  socklen_t const len = Wire::socketAddress(socketName, addr);
  if (len == 0) {
    error = fmt::format("\"{}\" is not a wake-up socket name (empty or too long)", socketName);
    return false;
  }
  Mem::Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) {
    error = fmt::format("cannot open a socket for {}: {}", socketName,
                        Mem::posixError("socket", errno));
    return false;
  }
  int rc;
  do {
    rc = ::connect(fd.get(), reinterpret_cast<sockaddr const*>(&addr), len);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    int const err = errno;
    if (err == ECONNREFUSED || err == ENOENT) {
      error = fmt::format("no writer listens on {}", socketName);
    } else if (err == EAGAIN) {
      // A Unix stream connect does not complete later: it is refused now.
      error = fmt::format("the writer on {} has a full backlog; try again", socketName);
    } else {
      error = fmt::format("cannot connect to {}: {}", socketName, Mem::posixError("connect", err));
    }
    return false;
  }
  try {
    loop_.fdWatcherIs(fd.get(), EPOLLIN | EPOLLRDHUP,
                      [this](uint32_t events) { onReadable(events); });
  } catch (Lomi::Exception const& e) {
    error = fmt::format("cannot watch the connection to {}: {}", socketName, e.msg());
    return false;
  }
  fd_ = fd.release();
  owner_ = ::getpid();
  ++generation_;
  FMTRACE(handler_, 1, "ReaderRuskSm", "connected to {} (fd {})", socketName_, fd_);
  return true;
}

void ReaderRuskSm::disconnect() {
  if (fd_ < 0) return;
  FMTRACE(handler_, 3, "ReaderRuskSm", "{} (fd {}): disconnected", socketName_, fd_);
  closeSocket();
}

void ReaderRuskSm::closeSocket() {
  if (fd_ < 0) return;
  try {
    if (::getpid() == owner_) loop_.fdWatcherDel(fd_);
  } catch (Lomi::Exception const& e) {
    FMTRACE(handler_, 0, "ReaderRuskSm", "{}", e.msg());
  }
  ::close(fd_);
  fd_ = -1;
  in_->reset();
  outstanding_ = Tessel::noSequence;
  wakePending_ = false;
}

void ReaderRuskSm::sleeping(Tessel::Sequence s) {
  if (s == Tessel::noSequence) {
    FMTRACE(handler_, 0, "ReaderRuskSm",
            "{}: sleeping after no sequence is not a position in the queue; nothing sent",
            socketName_);
    return;
  }
  if (fd_ < 0 || s == outstanding_) return;
  std::string why;
  switch (Wire::sendMessage(fd_, Wire::Message{Wire::MessageType::sleeping, s}, why)) {
    case Wire::SendEnd::sent:
      ++sequencesSent_;
      outstanding_ = s;
      FMTRACE(handler_, 8, "ReaderRuskSm", "{}: sleeping after {}", socketName_, s);
      return;
    case Wire::SendEnd::full:
      outstanding_ = s;
      FMTRACE(handler_, 3, "ReaderRuskSm",
              "{} (fd {}): socket full; the writer has an earlier Sleeping to read", socketName_,
              fd_);
      return;
    case Wire::SendEnd::gone:
      // The end of file is on the socket too: the loop reports it.
      FMTRACE(handler_, 3, "ReaderRuskSm", "{} (fd {}): writer gone before Sleeping", socketName_,
              fd_);
      return;
    case Wire::SendEnd::failed:
      break;
  }
  FMTRACE(handler_, 0, "ReaderRuskSm", "{} (fd {}): {}; connection closed", socketName_, fd_, why);
  // The handler runs on the loop, never inside the owner's call.
  loop_.deferredTaskIs([this, alive = std::weak_ptr<bool>(alive_), generation = generation_] {
    if (alive.expired() || generation != generation_ || fd_ < 0) return;
    closeSocket();
    if (std::function<void()> const handler = onDisconnect_) handler();
  });
}

void ReaderRuskSm::notifyingIs(bool notifying) {
  notifying_ = notifying;
  if (!notifying || !wakePending_) return;
  loop_.deferredTaskIs([this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.expired() || !notifying_ || !wakePending_) return;
    runWakeHandler();
  });
}

bool ReaderRuskSm::runWakeHandler() {
  wakePending_ = false;
  std::weak_ptr<bool> const alive = alive_;
  // A copy: the handler may replace itself or destroy this object.
  if (std::function<void()> const handler = onWake_) handler();
  return !alive.expired();
}

void ReaderRuskSm::onReadable(uint32_t events) {
  // A wake-up is one 16-byte Wake: stop at the short read that brings it
  // rather than read again for EAGAIN. Once the writer has closed, read on
  // to the end so that this turn reports it.
  bool const untilEmpty = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
  bool woke = false;
  std::string why;
  Wire::ReadEnd const end = Wire::readMessages(
      fd_, *in_,
      [&](Wire::Message const& m) {
        switch (m.type) {
          case Wire::MessageType::hello:
            writerSequence_ = m.value;
            FMTRACE(handler_, 3, "ReaderRuskSm", "{}: writer at sequence {}", socketName_,
                    m.value);
            return true;
          case Wire::MessageType::wake:
            writerSequence_ = m.value;
            outstanding_ = Tessel::noSequence;
            ++wakesReceived_;
            woke = true;
            FMTRACE(handler_, 8, "ReaderRuskSm", "{}: woken at {}", socketName_, m.value);
            return true;
          case Wire::MessageType::sleeping:
            break;
        }
        why = fmt::format("unexpected {} from the writer", Wire::typeName(m.type));
        return false;
      },
      why, untilEmpty);

  uint64_t const generation = generation_;
  if (woke) {
    if (!notifying_) {
      wakePending_ = true;
    } else if (!runWakeHandler() || generation != generation_ || fd_ < 0) {
      return;  // destroyed, disconnected or reconnected by the handler
    }
  }
  switch (end) {
    case Wire::ReadEnd::drained:
      return;
    case Wire::ReadEnd::closed:
    case Wire::ReadEnd::reset:
      FMTRACE(handler_, 1, "ReaderRuskSm", "{} (fd {}): writer {} the connection", socketName_,
              fd_, end == Wire::ReadEnd::closed ? "closed" : "reset");
      break;
    case Wire::ReadEnd::failed:
    case Wire::ReadEnd::garbage:
      FMTRACE(handler_, 0, "ReaderRuskSm", "{} (fd {}): {}; connection closed", socketName_, fd_,
              why);
      break;
  }
  closeSocket();
  if (std::function<void()> const handler = onDisconnect_) handler();
}

}  // namespace Rusk
