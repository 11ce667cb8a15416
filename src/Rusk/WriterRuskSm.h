// Rusk::WriterRuskSm: the writer's wake-up socket.
//
// Each writer table listens on its own abstract Unix stream socket named
// "\0flowtables-<pid>-<tableId>-<nonce>": the pid of the writer process, a
// table id that counts the tables of that process, and random bytes. The
// printable form, with '@' for the leading NUL, goes into the owner file
// (Parcel::TunnetInfo), where readers find it, and where a would-be second
// writer probes it: an abstract name disappears when the last descriptor of
// its socket closes, so a writer that died no longer accepts, even if its pid
// has been reused since.
//
// The protocol ("one wake-up per sleeping reader"; messages in RuskWire.h):
// a reader that has taken in the change queue up to sequence S sends
// Sleeping(S) and stops polling. The writer remembers S for that connection.
// The first notify(seq) with seq > S sends that reader one Wake and marks it
// awake; later notifications send it nothing until it sleeps again. A burst
// of writes costs at most one send per sleeping reader, and nothing at all
// when nobody sleeps.
//
// Order that closes the race between a reader going to sleep and the writer
// moving on:
//   1. The table writer publishes a queue entry (sequence seq), then calls
//      notify(seq).
//   2. notify stores seq as the latest sequence before it reads any
//      connection or scans the sleepers.
//   3. A Sleeping(S) is compared with the latest sequence when it is read:
//      S < latest means the reader went to sleep on a queue that had already
//      moved, and it is woken at once. Otherwise it sleeps, and the next
//      notify past S (step 2 happens first) wakes it.
// One thread runs all three, so every Sleeping is read either before a
// notify (and that notify wakes it) or after it (and step 3 sees its seq):
// no reader sleeps past an entry it has not seen.
//
// Safety:
//   1. Only the writer's thread touches this object; its callbacks run on the
//      event loop of that thread.
//   2. The socket is opened by doEnableListen(), after the table's files are
//      validated: no reader can connect to a writer that is not ready.
//   3. Every descriptor is non-blocking and close-on-exec; no send blocks
//      and none raises SIGPIPE. A full socket buffer means the reader has
//      wake-ups it has not read yet: the reader counts as woken.
//   4. A connection that sends garbage is closed with a level-0 trace naming
//      it and the fault; the others live on. A connection that closes between
//      messages is normal (a liveness probe connects and closes at once).
//   5. Watchers are removed from the loop before their descriptors close.
//
// Driving: doEnableListen() registers the listening socket with the event
// loop (the process default loop unless loopIs() named another), and each
// accepted connection too; the loop accepts, sends Hello, and reads Sleeping
// messages. A writer that writes in a tight loop and does not run its event
// loop is still served: notify() itself polls the socket and its connections
// (accept, read, without blocking) when more than about a millisecond has
// passed since it last did, timed with the time stamp counter. So such a
// writer learns of a sleeper at most ~1 ms of writing late, and pays one
// poll() per millisecond of writing for it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Tessel/Sequence.h"

struct pollfd;

namespace Lomi {
class EventLoop;
namespace Platform {
class DebugHandler;
}
}  // namespace Lomi

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
  // Closes everything (see close()); safe at any time.
  ~WriterRuskSm();

  // The process-wide number of this table, 1, 2, ... in construction order.
  uint32_t tableId() const { return tableId_; }
  // The printable name; fixed at construction, valid before listening.
  std::string const& socketName() const { return socketName_; }

  // The loop that watches the socket and its connections; it must outlive
  // the listening. Without a call, the process default loop at the time of
  // doEnableListen(). Called while listening, it moves the watchers.
  void loopIs(Lomi::EventLoop& loop);

  // Opens and binds the socket, listens, and registers with the loop. Does
  // nothing if already listening. Throws Lomi::InvalidInitializeException
  // naming the socket and the system's reason (for example a name already in
  // use); nothing is left open then.
  void doEnableListen();
  bool listening() const { return fd_ >= 0; }
  // The listening descriptor; -1 when not listening.
  int fd() const { return fd_; }

  // Accepts every queued connection, sends it Hello and keeps it (watched by
  // the loop); then closes the kept connections whose peer has hung up.
  // Returns the number accepted by this call, hung-up ones included. Does
  // nothing when not listening. The loop calls it when fd() is readable.
  size_t acceptPending();
  // The descriptors of the kept connections, in order of acceptance.
  std::vector<int> connections() const;

  // The table writer's call after every queue notification, with the
  // sequence just issued (see the order at the top of the file). Sends Wake
  // to each sleeping reader whose S < seq and marks it awake. With nobody
  // asleep it costs a counter test and a time stamp read, except about once
  // a millisecond when it polls the connections. Never blocks, never throws.
  void notify(Tessel::Sequence seq);
  // The latest sequence given to notify(); 0 before the first.
  Tessel::Sequence latestSequence() const { return latest_; }

  // The prune floor of a queue that prunes (Tessel::PruneMode::prune): the
  // lowest sequence that every connected reader has taken in, as its last
  // Sleeping said (or the latest sequence when it connected). A reader woken,
  // or connected, more than `patience` seconds ago that has not said Sleeping
  // since (stopped, or too slow to keep up) is left out: the queue drops what
  // it has not read, and it sweeps when it runs again. latestSequence() when
  // no reader counts.
  Tessel::Sequence pruneFloor(double patience = kReaderPatience) const;
  static constexpr double kReaderPatience = 1.0;

  // Wake messages sent (a send refused for a full buffer is not counted).
  uint64_t ruskCount() const { return ruskCount_; }
  // Sleeping messages received.
  uint64_t sequencesProcessed() const { return sequencesProcessed_; }
  size_t readers() const { return connections_.size(); }
  size_t sleepingReaders() const { return sleeping_; }

  // Closes the kept connections and the listening socket, watchers first;
  // the name is free again once no other descriptor of it remains. A copy
  // inherited by a forked child closes its descriptors and leaves the loop
  // alone: the epoll set is the parent's, shared across fork.
  void close();

 private:
  struct Connection;

  void addConnection(int fd);
  void closeConnection(size_t index, int level, std::string_view why);
  size_t indexOf(int fd) const;
  void onReadable(int fd);
  // Reads what the connection has; false if it was closed meanwhile.
  bool readConnection(size_t index);
  // Records a Sleeping(s) just read, or wakes at once; false if the
  // connection was closed instead.
  bool sleepingIs(size_t index, Tessel::Sequence s);
  // Sends Wake(latest) and marks the reader awake; false if the connection
  // was closed instead.
  bool wake(size_t index);
  void drain(uint64_t now);
  void dropHungUp();
  void watch(int fd, bool listener);

  Lomi::Platform::DebugHandler& handler_;
  uint32_t tableId_;
  std::string socketName_;
  // The loop watching fd_ and the connections while listening; chosen by
  // loopIs(), else the default loop of the process at doEnableListen().
  Lomi::EventLoop* loop_ = nullptr;
  bool loopChosen_ = false;
  // The process that registered with loop_.
  pid_t owner_ = 0;
  int fd_ = -1;
  std::vector<std::unique_ptr<Connection>> connections_;
  uint64_t nextConnectionId_ = 1;
  Tessel::Sequence latest_ = 0;
  // Connections whose sleepingAfter is a sequence, not noSequence.
  size_t sleeping_ = 0;
  uint64_t ruskCount_ = 0;
  uint64_t sequencesProcessed_ = 0;
  // Time stamp counter ticks between two polls made by notify(), and when
  // the next is due.
  uint64_t drainTicks_ = 0;
  uint64_t nextDrain_ = 0;
  // Reused by every drain, so that a drain allocates only when the number of
  // connections has grown.
  std::vector<pollfd> polls_;
};

}  // namespace Rusk
