// The wake-up socket's wire format and the socket helpers both ends share.
//
// Internal to Rusk: the writer (WriterRuskSm) and the reader (ReaderRuskSm)
// include it; nothing outside the folder should.
//
// Message layout (16 bytes, every field little-endian, no padding):
//
//   offset  size  field
//        0     4  magic    0x4b535552
//        4     2  version  1
//        6     2  type     1 Hello, 2 Sleeping, 3 Wake
//        8     8  value    a Tessel::Sequence (see below)
//
//   Hello     writer -> reader, once, when the writer accepts the connection;
//             value = the latest sequence the writer has notified (0 before
//             any).
//   Sleeping  reader -> writer; value = S: "I have taken in the queue up to S
//             and stop polling". noSequence is not a position and is refused.
//   Wake      writer -> reader, once per Sleeping, on the first notification
//             past S; value = the writer's latest sequence when sent.
//
// Everything else (another magic or version, an unknown type, a type sent in
// the wrong direction, a connection closed inside a message) is garbage: the
// side that reads it closes that one connection and says why.
//
// The stream carries whole messages only: a sender never leaves half of one
// behind (a 16-byte send on a Unix stream socket is queued whole or not at
// all; a short count would be a broken promise and closes the connection).
// The receiver still reassembles messages split across reads.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "Tessel/Sequence.h"

namespace Rusk::Wire {

inline constexpr uint32_t kMagic = 0x4b535552;
inline constexpr uint16_t kVersion = 1;
inline constexpr size_t kMessageSize = 16;

enum class MessageType : uint16_t { hello = 1, sleeping = 2, wake = 3 };

char const* typeName(MessageType type);

struct Message {
  MessageType type;
  Tessel::Sequence value;
};

using Bytes = std::array<unsigned char, kMessageSize>;

Bytes encode(Message m);

// Checks the fields that lie within the first `n` bytes (n <= 16) of a
// message, so that garbage is caught as soon as its first field arrives, not
// only once 16 bytes have come. Fills `out` when n is 16. On false, `why`
// says which field is wrong.
bool decode(unsigned char const* bytes, size_t n, Message& out, std::string& why);

// The messages of one connection, reassembled from reads of any size.
class MessageBuffer {
 public:
  // Decodes what `n` more bytes complete and calls `onMessage(Message)` for
  // each whole message, in order. `onMessage` returns false (with `why` set)
  // to refuse a message; feeding stops there. Returns false on garbage or a
  // refused message, with `why` set.
  template <typename OnMessage>
  bool feed(unsigned char const* p, size_t n, OnMessage&& onMessage, std::string& why);

  // Bytes of a message begun but not finished.
  size_t partial() const { return have_; }
  void reset() { have_ = 0; }

 private:
  unsigned char buf_[kMessageSize];
  size_t have_ = 0;
};

// How a non-blocking read of a connection ended.
enum class ReadEnd {
  drained,  // nothing more to read now (or the per-call budget is spent)
  closed,   // the peer closed between messages
  reset,    // the peer went away with data unread (ECONNRESET)
  failed,   // another system error; `why` has it
  garbage,  // not our protocol; `why` says what
};

// Reads what `fd` has (at most kReadBudget bytes, so one call is bounded)
// and feeds it to `buffer`. An end inside a message is garbage.
//
// `untilEmpty` false: a read that returns less than it asked for ends the
// call, since the socket held no more at that instant; the read that would
// only have said EAGAIN is saved. What arrives after it keeps a
// level-triggered watcher ready, so the next loop pass reads it. A caller
// that knows the peer has closed (EPOLLRDHUP, EPOLLHUP) passes true, so that
// the end is read in the same call.
inline constexpr size_t kReadBudget = 64 * 1024;
template <typename OnMessage>
ReadEnd readMessages(int fd, MessageBuffer& buffer, OnMessage&& onMessage, std::string& why,
                     bool untilEmpty = true);

// How a non-blocking send of one message ended.
enum class SendEnd {
  sent,
  full,    // the socket buffer is full (EAGAIN): nothing was queued
  gone,    // the peer has closed (EPIPE, ECONNRESET)
  failed,  // anything else, `why` has it (a short send included)
};

// MSG_DONTWAIT|MSG_NOSIGNAL: never blocks, never raises SIGPIPE.
SendEnd sendMessage(int fd, Message m, std::string& why);

// Fills `addr` from a printable socket name (a leading '@' means an abstract
// name, anything else is a path); returns the address length, or 0 if the
// name is empty or does not fit.
socklen_t socketAddress(std::string const& name, sockaddr_un& addr);

// The pid of the process at the other end of a Unix socket, 0 if unknown.
pid_t peerPid(int fd);

// ---- implementation of the templates ----

template <typename OnMessage>
bool MessageBuffer::feed(unsigned char const* p, size_t n, OnMessage&& onMessage,
                         std::string& why) {
  while (n > 0) {
    unsigned char const* whole;
    if (have_ == 0 && n >= kMessageSize) {
      // Common case: a whole message in the chunk read; no copy.
      whole = p;
      p += kMessageSize;
      n -= kMessageSize;
    } else {
      size_t const take = std::min(n, kMessageSize - have_);
      std::memcpy(buf_ + have_, p, take);
      have_ += take;
      p += take;
      n -= take;
      if (have_ < kMessageSize) {
        Message ignored;
        return decode(buf_, have_, ignored, why);
      }
      whole = buf_;
      have_ = 0;
    }
    Message m;
    if (!decode(whole, kMessageSize, m, why)) return false;
    if (!onMessage(m)) return false;
  }
  return true;
}

ReadEnd readChunk(int fd, unsigned char* chunk, size_t size, size_t& got, std::string& why);

template <typename OnMessage>
ReadEnd readMessages(int fd, MessageBuffer& buffer, OnMessage&& onMessage, std::string& why,
                     bool untilEmpty) {
  unsigned char chunk[4096];
  size_t total = 0;
  while (total < kReadBudget) {
    size_t got = 0;
    ReadEnd const end = readChunk(fd, chunk, sizeof chunk, got, why);
    // Our senders never leave half a message: a peer that ends inside one,
    // by close or by reset (it had data of ours unread), sent garbage.
    if ((end == ReadEnd::closed || end == ReadEnd::reset) && buffer.partial() != 0) {
      why = "closed inside a message (" + std::to_string(buffer.partial()) + " of 16 bytes)";
      return ReadEnd::garbage;
    }
    if (got == 0) return end;
    if (!buffer.feed(chunk, got, onMessage, why)) return ReadEnd::garbage;
    if (!untilEmpty && got < sizeof chunk) return ReadEnd::drained;
    total += got;
  }
  return ReadEnd::drained;
}

}  // namespace Rusk::Wire
