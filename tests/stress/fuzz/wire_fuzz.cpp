// libFuzzer target: the wake-up socket's wire format as a reader or the
// writer parses it. Each input is a byte stream that a peer sends over a real
// Unix stream socket pair, cut into chunks of a size the input picks, with
// the reading side draining it through Rusk::Wire::readMessages after every
// chunk, as the event loop would. What it decodes is compared with a plain
// model of the format (16-byte messages: magic, version, type 1..3, value;
// the first bad field, or an end inside a message, is garbage):
//   - the messages delivered are exactly the well-formed ones before the
//     first garbage, in order, and each re-encodes to the bytes that were sent;
//   - garbage is reported (with a reason) exactly when the model finds some,
//     at the latest when its last byte has arrived;
//   - nothing is delivered after garbage, and a read never crashes.
//
// Input: byte 0 is the chunk size (1 + byte % 40), byte 1 bit 0 says whether
// the peer closes its end after the stream; the rest is the stream.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Rusk/RuskWire.h"

namespace {

using namespace Rusk::Wire;

[[noreturn]] void finding(std::string const& what) {
  std::fprintf(stderr, "wire: %s\n", what.c_str());
  std::abort();
}

uint64_t le(uint8_t const* p, size_t n) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; i++) v |= uint64_t(p[i]) << (8 * i);
  return v;
}

// The model: how many whole messages are good before garbage, and whether
// the stream (closed or not) holds garbage.
struct Expect {
  size_t good = 0;
  bool garbage = false;
};

// Whether the fields of a message that lie within its first `n` bytes are
// good.
bool fieldsGood(uint8_t const* m, size_t n) {
  if (n >= 4 && le(m, 4) != kMagic) return false;
  if (n >= 6 && le(m + 4, 2) != kVersion) return false;
  if (n >= 8) {
    uint64_t const type = le(m + 6, 2);
    if (type < 1 || type > 3) return false;
  }
  return true;
}

Expect model(uint8_t const* s, size_t n, bool closed) {
  Expect e;
  for (size_t at = 0; at < n; at += kMessageSize) {
    size_t const len = std::min(kMessageSize, n - at);
    if (!fieldsGood(s + at, len) || (len < kMessageSize && closed)) {
      e.garbage = true;
      return e;
    }
    if (len == kMessageSize) e.good++;
  }
  return e;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size < 2) return 0;
  size_t const chunk = 1 + data[0] % 40;
  bool const close = (data[1] & 1) != 0;
  uint8_t const* stream = data + 2;
  size_t const n = size - 2;
  Expect const expect = model(stream, n, close);

  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) std::abort();
  MessageBuffer buffer;
  std::vector<Message> got;
  std::string why;
  bool garbage = false;
  auto const drain = [&] {
    ReadEnd const end = readMessages(
        fds[0], buffer,
        [&](Message const& m) {
          got.push_back(m);
          return true;
        },
        why);
    if (end == ReadEnd::garbage) {
      if (why.empty()) finding("garbage without a reason");
      garbage = true;
    } else if (end == ReadEnd::failed) {
      finding("a read failed: " + why);
    }
  };
  for (size_t at = 0; at < n && !garbage; at += chunk) {
    size_t const len = std::min(chunk, n - at);
    if (::send(fds[1], stream + at, len, MSG_DONTWAIT | MSG_NOSIGNAL) !=
        static_cast<ssize_t>(len)) {
      std::abort();
    }
    drain();
  }
  if (close) ::close(fds[1]);
  if (!garbage) drain();
  ::close(fds[0]);
  if (!close) ::close(fds[1]);

  if (garbage != expect.garbage) {
    finding(garbage ? "garbage reported in a good stream: " + why
                    : "garbage in the stream went unreported");
  }
  if (got.size() != expect.good) {
    finding("delivered " + std::to_string(got.size()) + " messages, the stream holds " +
            std::to_string(expect.good) + " good ones before any garbage");
  }
  for (size_t i = 0; i < got.size(); i++) {
    Bytes const b = encode(got[i]);
    if (std::memcmp(b.data(), stream + i * kMessageSize, kMessageSize) != 0) {
      finding("message " + std::to_string(i) + " does not re-encode to the bytes sent");
    }
  }
  return 0;
}
