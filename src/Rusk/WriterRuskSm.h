// Rusk::WriterRuskSm: the writer's wake-up socket, listening side.
//
// Each writer table listens on its own abstract Unix stream socket named
// "\0flowtables-<pid>-<tableId>": the pid of the writer process and a table id
// that counts the tables of that process. The printable form, with '@' for
// the leading NUL, goes into the owner file (Parcel::TunnetInfo), where
// readers find it, and where a would-be second writer probes it: an abstract
// name disappears when the last descriptor of its socket closes, so a writer
// that died no longer accepts, even if its pid has been reused since.
//
// Safety:
//   1. Only the writer's thread touches this object.
//   2. The socket is opened by doEnableListen(), after the table's files are
//      validated: no reader can connect to a writer that is not ready.
//   3. Every descriptor is non-blocking and close-on-exec.
//
// What is here: the listening socket, and acceptPending(), which takes the
// queued connections and keeps them, dropping those whose peer has gone (a
// liveness probe is such a peer). What is not here yet: reading the kept
// connections. The wake-up protocol ("sleeping after sequence S" from a reader;
// one wake-up on the first notify past S) belongs to the event loop: it will
// watch fd() and connections(), call acceptPending() when fd() is readable,
// and parse what the connections send. Until then a connection stays queued
// with whatever it sent unread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Lomi::Platform {
class DebugHandler;
}

namespace Rusk {

// The pid and table id carried by a wake-up socket's name, and a random
// nonce: the abstract socket namespace is shared by every process of the
// network namespace, and a name that can be foretold can be bound first by
// anyone, which would make every start of that writer fail.
struct TunnetName {
  pid_t pid = 0;
  uint32_t tableId = 0;
  uint64_t nonce = 0;

  // "@flowtables-<pid>-<tableId>-<nonce, 16 hex digits>"; a name without the
  // nonce (an older writer's) still parses, with nonce 0.
  std::string str() const;
  // Parses the printable form; nullopt if `socketName` is not one.
  static std::optional<TunnetName> TunnetNameIs(std::string_view socketName);
};

// Whether a connection to the socket named `socketName` (printable form: a
// leading '@' means an abstract name, anything else is a path) is accepted
// right now. A listener whose backlog is full counts as accepting. Never
// blocks; the probe connection is closed at once.
bool connectProbe(std::string const& socketName);

class WriterRuskSm {
 public:
  // Takes the next table id of the process; no socket yet.
  explicit WriterRuskSm(Lomi::Platform::DebugHandler& handler);
  WriterRuskSm(WriterRuskSm const&) = delete;
  WriterRuskSm& operator=(WriterRuskSm const&) = delete;
  ~WriterRuskSm();

  // The process-wide number of this table, 1, 2, ... in construction order.
  uint32_t tableId() const { return tableId_; }
  // The printable name; fixed at construction, valid before listening.
  std::string const& socketName() const { return socketName_; }

  // Opens and binds the socket and listens. Does nothing if already
  // listening. Throws Lomi::InvalidInitializeException naming the socket and
  // the system's reason (for example a name already in use).
  void doEnableListen();
  bool listening() const { return fd_ >= 0; }
  // The listening descriptor; -1 when not listening.
  int fd() const { return fd_; }

  // Accepts every queued connection and keeps it; then closes the kept
  // connections whose peer has hung up. Returns the number accepted by this
  // call. Does nothing when not listening.
  size_t acceptPending();
  // The kept connections, in order of acceptance.
  std::vector<int> const& connections() const { return connections_; }

  // Closes the kept connections and the listening socket; the name is free
  // again once no other descriptor of it remains.
  void close();

 private:
  void dropHungUp();

  Lomi::Platform::DebugHandler& handler_;
  uint32_t tableId_;
  std::string socketName_;
  int fd_ = -1;
  std::vector<int> connections_;
};

}  // namespace Rusk
