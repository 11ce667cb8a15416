// Rusk::ReaderRuskSm: a reader's end of a writer's wake-up socket.
//
// A reader that follows a writer's change queue polls it while there is work.
// When it has taken in everything up to sequence S it calls sleeping(S) and
// stops polling; the writer answers with one Wake as soon as it notifies a
// sequence past S (at once if it already has), and the owner's wake handler
// runs: time to walk the queue again. See WriterRuskSm.h for the writer's
// half and RuskWire.h for the messages.
//
// Safety:
//   1. Only the thread of the event loop touches this object; the handlers
//      run on that loop, never inside a call of the owner (sleeping() included).
//   2. The socket is read whenever it is readable, notifying or not, so the
//      writer's sends never find it full because of us, and a writer that goes
//      away is noticed.
//   3. The wake handler runs at most once per loop turn of this socket, however
//      many Wakes that turn read; the disconnect handler runs once per
//      connection, in the turn that read its end, after a wake handler of that
//      same turn.
//   4. A handler may destroy this object or disconnect it: nothing of the
//      object is touched after a handler that did.
//   5. One Sleeping per sleep: sleeping(S) sends nothing while a Sleeping(S)
//      is outstanding (sent, no Wake since). A Sleeping refused for a full
//      socket is not retried: the writer still has an older one of ours to
//      read, whose S is at most this one, so it wakes us no later than needed.
//
// Traces (handler given at construction, class "ReaderRuskSm"): level 0 for
// garbage from the writer and for unexpected system errors, level 1 for
// connect and for the writer's normal end, 3 for socket events, 8 per message.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Lomi/EventLoop.h"
#include "Tessel/Sequence.h"

namespace Lomi::Platform {
class DebugHandler;
}

namespace Rusk {

namespace Wire {
class MessageBuffer;
}

class ReaderRuskSm {
 public:
  static constexpr double kDefaultYieldTime = 0.05;

  // `loop` must outlive this object. Not connected.
  explicit ReaderRuskSm(Lomi::Platform::DebugHandler& handler,
                        Lomi::EventLoop& loop = Lomi::EventLoop::defaultLoop());
  ReaderRuskSm(ReaderRuskSm const&) = delete;
  ReaderRuskSm& operator=(ReaderRuskSm const&) = delete;
  // Disconnects without calling a handler; safe at any time, from inside a
  // handler of this object too. A copy inherited by a forked child closes
  // its descriptor and leaves the loop (the parent's epoll set) alone.
  ~ReaderRuskSm();

  // Run on the loop: after a turn that read at least one Wake (while
  // notifying), and once when the connection ends by the writer's doing
  // (end of file, error, garbage). Either may be empty.
  void wakeHandlerIs(std::function<void()> handler) { onWake_ = std::move(handler); }
  void disconnectHandlerIs(std::function<void()> handler) { onDisconnect_ = std::move(handler); }

  // Connects without blocking to `socketName` (printable form: a leading '@'
  // is an abstract name, anything else a path) and watches the socket. A
  // connection held before is closed first, without a handler. On failure,
  // false and `error` says why (a bad name, no writer listening, the
  // writer's backlog full); nothing is left open.
  bool connect(std::string const& socketName, std::string& error);
  // Closes and unwatches; no handler runs. Nothing happens when not connected.
  void disconnect();
  bool connected() const { return fd_ >= 0; }
  // The name given to the last connect().
  std::string const& socketName() const { return socketName_; }

  // Tells the writer that the queue is taken in up to `s` (see 5 above).
  // Nothing is sent when not connected or for noSequence (no position: a
  // level-0 trace names the misuse). A writer found gone by the send is
  // reported by the loop, as any other end of the connection.
  void sleeping(Tessel::Sequence s);

  // While false, Wakes are still read but the wake handler does not run; one
  // that arrived meanwhile makes notifyingIs(true) run it on the next loop
  // pass. True after construction.
  void notifyingIs(bool notifying);
  bool notifying() const { return notifying_; }
  // Whether a Wake has been read that the wake handler has not yet seen.
  bool wakePending() const { return wakePending_; }

  // How long the owner's walk of the queue may run before it yields to the
  // loop; stored here for the owner, who reads it.
  void yieldTimeIs(double const& seconds) { yieldTime_ = seconds; }
  double yieldTime() const { return yieldTime_; }

  // The latest sequence the writer has reported (Hello, then each Wake); 0
  // before any.
  Tessel::Sequence writerSequence() const { return writerSequence_; }
  // Sleeping messages sent, Wake messages read: over the object's life.
  uint64_t sequencesSent() const { return sequencesSent_; }
  uint64_t wakesReceived() const { return wakesReceived_; }

 private:
  // `events`: the epoll bits that were ready.
  void onReadable(uint32_t events);
  // Closes and unwatches; the handlers are the caller's business.
  void closeSocket();
  // Runs the wake handler; false if it destroyed this object.
  bool runWakeHandler();

  Lomi::Platform::DebugHandler& handler_;
  Lomi::EventLoop& loop_;
  std::string socketName_;
  int fd_ = -1;
  // Counts connect()s: work queued for one connection recognises a later one.
  uint64_t generation_ = 0;
  // The process that registered fd_ with loop_.
  pid_t owner_ = 0;
  std::unique_ptr<Wire::MessageBuffer> in_;
  std::function<void()> onWake_;
  std::function<void()> onDisconnect_;
  bool notifying_ = true;
  bool wakePending_ = false;
  double yieldTime_ = kDefaultYieldTime;
  // The S of the Sleeping sent and not yet answered; noSequence if none.
  Tessel::Sequence outstanding_ = Tessel::noSequence;
  Tessel::Sequence writerSequence_ = 0;
  uint64_t sequencesSent_ = 0;
  uint64_t wakesReceived_ = 0;
  // Expires with the object: loop work and handler calls hold a weak copy
  // and stop when it has expired.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Rusk
