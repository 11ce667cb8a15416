// The change path between two processes: how long a change takes from the
// writer's write to the doSlot of a reader process that sleeps, beside the
// floor of waking a sleeping process at all (a Unix socket pair, an eventfd);
// how many changes per second one reader takes in from a writer at full
// speed; what the writer's wake-up check costs per notify; the same latency
// at a steady rate; and several shadows of a 10^6-row table: their sweep,
// how fast they follow, what they cost the writer. A plain
// program: percentiles over samples that cross two processes do not fit a
// micro benchmark framework.
//
// Two processes, forked before the table exists: this one writes (a real
// HoIpFlowConfigWriter on files in a temp directory under /dev/shm, its
// wake-up socket, its event loop), the child reads (a MirakShadowBase over a
// MirakReader of the same files, on its own event loop). Commands go down a
// pipe, one-byte replies come back up another; timestamps, and the reader's
// figures, go through an anonymous shared mapping made before the fork.
//
// One latency sample:
//   1. The writer waits until the reader sleeps: for the change path, until
//      its Sleeping was read (writerCounters().sleepingReaders == 1); for the
//      floors, until its acknowledgement arrived; in both cases then until
//      /proc says the reader's state is S (blocked: in epoll_wait, the only
//      call it can block in at that point). None of this is timed.
//   2. The writer reads CLOCK_MONOTONIC (t0) and at once writes: one
//      overwrite of a row through MirakWriter::write (queue entry, then the
//      wake-up through WriterRuskSm::notify), or one datagram on the socket
//      pair, or one add to the eventfd.
//   3. The reader reads CLOCK_MONOTONIC (t1) in doSlot right after it read
//      the slot, or right after the read of the datagram or the counter, and
//      stores t1 under the sample's index, which it learns from what it read
//      (the row's updateTime, the datagram, the counter's value).
// A sample whose t1 never comes fails the run, as does a reader that sleeps
// again without having seen the change: a lost wake-up ends in a message and
// exit status 1 within the timeout, never in a hang.
//
// The three kinds run interleaved in rounds, so that a change of load on the
// machine reaches all three alike; ratios are taken within one run.
//
// Steady rate: the same three kinds again, but the writer changes at a fixed
// rate (10,000/s) without waiting for the reader, as a switch's agent does.
// The change path's row carries the writer's CLOCK_MONOTONIC at the write;
// the reader times each change in doSlot against it. The socket datagram
// carries its own t0; an eventfd only a count, so the t0 of its adds lies in
// the shared mapping. `--cdf FILE` writes the three latency distributions
// for bench/change_path_cdf.gp.
//
// Fan-out: four more processes, forked at the start, follow a second table
// of 10^6 rows (--fan-rows) with the library's own stores
// (ShadowStore<ValueShadowSlot>, KeyShadowStore) and a client callback per
// change. Resync: a fresh shadow of each kind sweeps the whole table, timed
// from its start until it is synced, beside one plain read of every cache
// line of the slot file by the same process. Throughput: the writer
// overwrites every row once at full speed with 0, 1, 2 and 4 shadows
// following (then 0 again); each shadow's time from the first write until it
// has taken in the last, its CPU time, and afterwards a check of every row of
// its copy against the version written.
//
// Build: cmake --preset bench && cmake --build build/bench --target change_path -j1
// Run:   build/bench/change_path                (100,000 samples of each kind)
//        build/bench/change_path --quick        (a smoke run: 2,000 samples)
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "BenchRows.h"
#include "FlowTracking/TableReaders.h"
#include "FlowTracking/TableWriters.h"
#include "Lomi/EventLoop.h"
#include "Lomi/Rdtsc.h"
#include "Lomi/Trace.h"
#include "Mem/Atomics.h"
#include "Mem/Local.h"
#include "Mem/RootPath.h"
#include "Mem/Notify.h"
#include "Mirak/MirakShadowBase.h"
#include "Mirak/ShadowStore.h"
#include "Rusk/ReaderRuskSm.h"
#include "Rusk/WriterRuskSm.h"

namespace {

using BenchRows::rowOf;
using BenchRows::Value;
using Writer = FlowTracking::HoIpFlowConfigWriter;
using Reader = FlowTracking::HoIpFlowConfigReader;
using Ops = FlowTracking::HoIpFlowConfigOps;

constexpr char kTable[] = "bench/changepath";
// The table of the fan-out phase: many rows, several shadows.
constexpr char kFanTable[] = "bench/fanout";
// Follower processes forked for the fan-out phase.
constexpr uint32_t kFollowers = 4;
// The rows the latency samples overwrite, in turn.
constexpr uint32_t kLatencyRows = 1024;

enum Kind : uint32_t { kOurs, kSocket, kEventfd, kKinds };
constexpr char const* kKindNames[kKinds] = {"write -> doSlot", "socket pair", "eventfd"};

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("bench");
}

uint64_t nowNs() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

struct Options {
  uint32_t samples = 100000;
  uint32_t rounds = 10;
  // Throughput: writes over `keys` rows.
  uint32_t writes = 2000000;
  uint32_t keys = 100000;
  // Notify cost: alternations of "reader connected" and "none", and calls
  // of the bare WriterRuskSm::notify.
  uint32_t costRepeats = 5;
  uint32_t notifyCalls = 20000000;
  double timeout = 10;
  // Steady-rate latency: changes per second, and the samples of each kind.
  uint32_t rate = 10000;
  uint32_t steadySamples = 100000;
  // Fan-out: rows of the table every shadow copies, and the distinct
  // changes (one overwrite of each row) of a throughput run.
  uint32_t fanRows = 1000000;
  // Resyncs of each mode.
  uint32_t resyncRepeats = 3;
  // Where the steady-rate latencies go for the CDF plot; empty: nowhere.
  std::string cdfFile;
  // Only the fan-out phase (resync and followers), for profiling it.
  bool fanOnly = false;
};

// What goes through the shared mapping. Every field is stored by one side
// before a pipe or socket message that the other side reads before it loads
// the field, so the system call orders the two; the latency slots are stored
// with release and loaded with acquire all the same, since the writer may
// look at them without such a message (a failure report).
struct Shared {
  // Set by the writer before a throughput command.
  uint64_t targetSequence;
  // The reader's figures, stored before its 'd' reply.
  uint64_t entries;
  uint64_t sweepVisits;
  uint64_t resyncs;
  uint64_t walks;
  uint64_t sleepsSent;
  uint64_t wakesRead;
  uint64_t duplicates;
  uint64_t caughtUpNs;
  char error[512];
  // Then seen[kKinds][samples]: t1 of each sample, 0 until it came;
  // steady[kKinds][steadySamples]: each steady-rate sample's latency in ns,
  // 0 until it came; eventfdT0[steadySamples]: t0 of the steady eventfd
  // samples (an eventfd carries only a count).
};

// A follower's figures, one record each after the Shared block's arrays.
struct FollowerFigures {
  uint64_t resyncNs;
  uint64_t sweepReadNs;
  uint64_t tableBytes;
  // The first write of every cache line of a fresh private block as large
  // as the copy: the page faults any new copy pays.
  uint64_t firstTouchNs;
  // The same, its pages faulted in by one call before the writes.
  uint64_t prefaultTouchNs;
  // The same with huge pages asked for first, as the store's copy does.
  uint64_t hugeTouchNs;
  uint64_t copyBytes;
  uint64_t caughtUpNs;
  // CPU time (user + system) the follower spent from the start of a run
  // until it had caught up.
  uint64_t cpuNs;
  uint64_t callbacks;
  uint64_t entries;
  uint64_t members;
  uint64_t wrong;
  uint64_t walks;
  uint64_t sleepsSent;
  uint64_t wakesRead;
  uint64_t resyncs;
  char error[256];
};

struct Command {
  enum Op : uint32_t { attach, detach, latency, throughput, stop, steady } op;
  Kind kind;
  uint32_t first;
  uint32_t last;
};

// Commands of a follower: attach a value shadow (mode 0) or a keyshadow
// (mode 1) and time its sweep; follow to `target`; check the copy against
// `version` (apart, so that no follower's check slows another's following);
// detach; stop.
struct FollowerCommand {
  enum Op : uint32_t { attach, follow, check, detach, stop } op;
  uint32_t mode;
  uint64_t target;
  uint32_t version;
};

// Replies, one byte each: 'r' ready (about to block in its loop), 'a' an
// acknowledgement before a floor sample, 'd' done, 'f' failed (the reason in
// Shared::error).

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

bool writeAll(int fd, void const* data, size_t size) {
  char const* p = static_cast<char const*>(data);
  while (size > 0) {
    ssize_t n = ::write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= size_t(n);
  }
  return true;
}

// One command down `fd`, waited for up to `timeoutMs`; false on a timeout, a
// closed pipe or a short read.
template <typename C>
bool receiveCommand(int fd, C& c, int timeoutMs) {
  pollfd p{fd, POLLIN, 0};
  int rc;
  do {
    rc = ::poll(&p, 1, timeoutMs);
  } while (rc < 0 && errno == EINTR);
  if (rc <= 0) return false;
  ssize_t n;
  do {
    n = ::read(fd, &c, sizeof c);
  } while (n < 0 && errno == EINTR);
  return n == sizeof c;
}

// A child's failure: the reason into its shared `error`, then 'f' up
// `replies`. Returns the child's exit status, 1.
template <size_t N>
int failWith(char (&error)[N], int replies, std::string const& why) {
  std::snprintf(error, N, "%s", why.c_str());
  char const f = 'f';
  writeAll(replies, &f, 1);
  return 1;
}

// ---------------------------------------------------------------------------
// What the reader and the followers share: a shadow over a MirakReader of
// `table` that records how its connection and sweeps went instead of acting
// on them. What a slot's change does is the derived class's (doSlot).

class RecordingShadow : public Mirak::MirakShadowBase {
 public:
  RecordingShadow(char const* table, uint32_t shadowFlags)
      : MirakShadowBase(handler(), Mem::NaoRootPath(handler(), table, false), shadowFlags),
        reader_(handler(), table, Ops(0)) {}

  // Synced, walking the queue, caught up and asleep on the wake-up socket.
  bool following() const {
    return synced() && syncFromTessel() && tesselReader().quiesced() && ruskSm().connected();
  }
  void syncComplete() override {
    syncedIs(true);
    maybeEnableTessel();
  }
  void flushComplete() override {}
  void handleDisconnect() override { disconnected = true; }
  void handleQuiesced(bool) override {}
  void corruptionDetected(std::string const& m) override { corruption = m; }
  uint32_t sweepSlots() const override {
    reader_.resize();
    return std::max(reader_.capacity(), localSlots());
  }

  bool disconnected = false;
  std::string corruption;

 protected:
  // Slots of a local copy that a sweep must visit beyond the table's.
  virtual uint32_t localSlots() const { return 0; }

  Reader reader_;
};

// ---------------------------------------------------------------------------
// The reader process.

// A shadow that keeps a plain copy of each slot and stamps the latency
// samples it is handed.
class ProbeShadow : public RecordingShadow {
 public:
  explicit ProbeShadow(uint64_t* seen) : RecordingShadow(kTable, 0), seen_(seen) {}

  bool start() {
    if (!reader_.initialize("bench")) return false;
    copy_.assign(reader_.maxSize(), Value());
    return initializeTessel(reader_.kestorId().value());
  }
  void stop() {
    detachTessel();
    reader_.detach(false);
  }

  bool doSlot(Tessel::BasicSlot slot, Tessel::Sequence seq, bool) override {
    Value v;
    bool const found = reader_.getValue(slot, v, nullptr);
    uint64_t const t1 = nowNs();
    if (slot < copy_.size()) copy_[slot] = found ? v : Value();
    if (seq == Tessel::noSequence) {
      sweepVisits++;
      return true;
    }
    entries++;
    // Steady-rate rows carry the writer's CLOCK_MONOTONIC at the write in
    // their createTime (exact in a double below 2^53 ns, 104 days).
    if (steady_ && found) {
      uint64_t const index = static_cast<uint64_t>(v.updateTime()) - 1;
      if (index >= first_ && index < last_ && steadyLatency_[index] == 0) {
        steadyLatency_[index] = t1 - static_cast<uint64_t>(v.createTime());
        stamped++;
      }
    }
    // Latency rows carry the sample's index + 1 as their updateTime.
    if (stamping_ && found) {
      auto const version = static_cast<uint64_t>(v.updateTime());
      if (version > first_ && version <= last_) {
        uint64_t& slotOfSample = seen_[version - 1];
        if (Mem::loadAcquire(slotOfSample) != 0) {
          duplicates++;
        } else {
          Mem::storeRelease(slotOfSample, t1);
          stamped++;
        }
      }
    }
    return true;
  }
  void doFlushSlot(unsigned slot) override {
    if (slot < copy_.size()) copy_[slot] = Value();
  }

  // Samples [first, last) of the ours kind are stamped from now on.
  void stampingIs(bool on, uint32_t first = 0, uint32_t last = 0) {
    stamping_ = on;
    first_ = first;
    last_ = last;
    stamped = 0;
  }

  // Steady-rate samples [first, last) are timed into `latency` from now on.
  void steadyIs(bool on, uint64_t* latency = nullptr, uint32_t first = 0, uint32_t last = 0) {
    steady_ = on;
    steadyLatency_ = latency;
    first_ = first;
    last_ = last;
    stamped = 0;
  }

  uint64_t entries = 0, sweepVisits = 0, duplicates = 0, stamped = 0;

 private:
  uint64_t* seen_;
  std::vector<Value> copy_;
  bool stamping_ = false;
  bool steady_ = false;
  uint64_t* steadyLatency_ = nullptr;
  uint32_t first_ = 0, last_ = 0;
};

struct ReaderEnds {
  int commands;
  int replies;
  int socket;
  int eventfd;
};

class ReaderProcess {
 public:
  ReaderProcess(Options const& o, Shared& shared, uint64_t* seen, ReaderEnds ends)
      : o_(o),
        shared_(shared),
        seen_(seen),
        steady_(seen + size_t(kKinds) * o.samples),
        eventfdT0_(steady_ + size_t(kKinds) * o.steadySamples),
        ends_(ends),
        shadow_(seen) {}

  int run() {
    epSocket_ = epollOn(ends_.socket);
    epEventfd_ = epollOn(ends_.eventfd);
    for (;;) {
      Command c;
      if (!receive(c)) return fail("no command from the writer for 60 s");
      switch (c.op) {
        case Command::attach:
          shadow_.disconnected = false;
          if (!shadow_.start()) return fail("cannot attach the table or its queue");
          if (!loop().runUntil([&] { return shadow_.following(); }, o_.timeout)) {
            return fail(
                fmt::format("not following the queue {} s after attach (synced {}, "
                            "connected {})",
                            o_.timeout, shadow_.synced(), shadow_.ruskSm().connected()));
          }
          break;
        case Command::detach:
          shadow_.stop();
          break;
        case Command::latency:
          if (c.kind == kOurs ? !runOurs(c) : !runFloor(c)) return 1;
          break;
        case Command::throughput:
          if (!runThroughput()) return 1;
          break;
        case Command::steady:
          if (c.kind == kOurs ? !runSteadyOurs(c) : !runSteadyFloor(c)) return 1;
          break;
        case Command::stop:
          shadow_.stop();
          return reply('d') ? 0 : 1;
      }
      if (!reply('d')) return 1;
    }
  }

 private:
  static Lomi::EventLoop& loop() { return Lomi::EventLoop::defaultLoop(); }

  static int epollOn(int fd) {
    int ep = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (ep < 0 || ::epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) != 0) std::abort();
    return ep;
  }

  bool receive(Command& c) { return receiveCommand(ends_.commands, c, 60000); }
  bool reply(char c) { return writeAll(ends_.replies, &c, 1); }
  int fail(std::string const& why) { return failWith(shared_.error, ends_.replies, why); }

  bool problem() const { return shadow_.disconnected || !shadow_.corruption.empty(); }
  std::string problemText() const {
    return shadow_.disconnected ? "the wake-up connection ended"
                                : "corruption reported: " + shadow_.corruption;
  }

  // Samples [first, last) of the change path: each is one change that must
  // reach doSlot while the loop waits.
  bool runOurs(Command const& c) {
    shadow_.stampingIs(true, c.first, c.last);
    uint64_t const duplicatesBefore = shadow_.duplicates;
    if (!reply('r')) return false;
    uint32_t const n = c.last - c.first;
    while (shadow_.stamped < n) {
      uint64_t const before = shadow_.stamped;
      if (!loop().runUntil([&] { return shadow_.stamped > before || problem(); }, o_.timeout)) {
        fail(fmt::format("sample {} never reached doSlot within {} s (walks {}, wakes read {})",
                         c.first + before, o_.timeout, shadow_.walks(),
                         shadow_.ruskSm().wakesReceived()));
        return false;
      }
      if (problem()) {
        fail(fmt::format("at sample {}: {}", c.first + before, problemText()));
        return false;
      }
    }
    // The last walk of the batch has sent its Sleeping by now: it ran to its
    // end inside the pass that stamped the last sample.
    shadow_.stampingIs(false);
    shared_.duplicates += shadow_.duplicates - duplicatesBefore;
    return true;
  }

  // Samples [first, last) of a floor: acknowledge, block in epoll_wait,
  // read, stamp.
  bool runFloor(Command const& c) {
    int const ep = c.kind == kSocket ? epSocket_ : epEventfd_;
    int const fd = c.kind == kSocket ? ends_.socket : ends_.eventfd;
    uint64_t* const seen = seen_ + size_t(c.kind) * o_.samples;
    for (uint32_t i = c.first; i < c.last; i++) {
      if (!reply('a')) return false;
      epoll_event ev;
      int rc;
      do {
        rc = ::epoll_wait(ep, &ev, 1, int(o_.timeout * 1000));
      } while (rc < 0 && errno == EINTR);
      if (rc != 1) {
        fail(fmt::format("{} sample {} never came within {} s", kKindNames[c.kind], i, o_.timeout));
        return false;
      }
      uint64_t message[2] = {0, 0};
      ssize_t const n = ::read(fd, message, c.kind == kSocket ? sizeof message : 8);
      uint64_t const t1 = nowNs();
      // The socket carries (index, t0); the eventfd's count is index + 1.
      uint64_t const index = c.kind == kSocket ? message[0] : message[0] - 1;
      if (n != (c.kind == kSocket ? ssize_t(sizeof message) : 8) || index != i) {
        fail(fmt::format("{} sample {}: read {} bytes naming sample {}", kKindNames[c.kind], i, n,
                         index));
        return false;
      }
      Mem::storeRelease(seen[index], t1);
    }
    return true;
  }

  // Steady-rate samples [first, last) of the change path: the writer does
  // not wait for this reader, which sleeps between changes at 10,000/s.
  bool runSteadyOurs(Command const& c) {
    uint64_t* const latency = steady_ + size_t(kOurs) * o_.steadySamples;
    shadow_.steadyIs(true, latency, c.first, c.last);
    if (!reply('r')) return false;
    uint32_t const n = c.last - c.first;
    bool const all = loop().runUntil([&] { return shadow_.stamped >= n || problem(); },
                                     o_.timeout + double(n) / o_.rate);
    uint64_t const got = shadow_.stamped;
    shadow_.steadyIs(false);
    if (!all || problem()) {
      fail(fmt::format("steady samples {}..{}: {} of {} reached doSlot ({})", c.first, c.last, got,
                       n, problem() ? problemText() : "the others collapsed or never came"));
      return false;
    }
    return true;
  }

  // Steady-rate samples [first, last) of a floor: block in epoll_wait, read,
  // time. The socket's datagram carries its t0; an eventfd read may carry
  // several adds, and the t0 of each is in the shared mapping.
  bool runSteadyFloor(Command const& c) {
    int const ep = c.kind == kSocket ? epSocket_ : epEventfd_;
    int const fd = c.kind == kSocket ? ends_.socket : ends_.eventfd;
    uint64_t* const latency = steady_ + size_t(c.kind) * o_.steadySamples;
    if (!reply('r')) return false;
    for (uint32_t i = c.first; i < c.last;) {
      epoll_event ev;
      int rc;
      do {
        rc = ::epoll_wait(ep, &ev, 1, int(o_.timeout * 1000));
      } while (rc < 0 && errno == EINTR);
      if (rc != 1) {
        fail(fmt::format("steady {} sample {} never came", kKindNames[c.kind], i));
        return false;
      }
      uint64_t message[2] = {0, 0};
      ssize_t const n = ::read(fd, message, c.kind == kSocket ? sizeof message : 8);
      uint64_t const t1 = nowNs();
      if (c.kind == kSocket) {
        if (n != ssize_t(sizeof message) || message[0] != i) {
          fail(fmt::format("steady socket sample {}: read {} bytes naming {}", i, n, message[0]));
          return false;
        }
        latency[i++] = t1 - message[1];
        continue;
      }
      if (n != 8 || message[0] == 0 || i + message[0] > c.last) {
        fail(fmt::format("steady eventfd sample {}: read {} bytes, count {}", i, n, message[0]));
        return false;
      }
      for (uint64_t k = 0; k < message[0]; k++, i++) {
        latency[i] = t1 - Mem::loadAcquire(eventfdT0_[i]);
      }
    }
    return true;
  }

  // The writer writes shared_.targetSequence - (its sequence now) changes as
  // fast as it can; the reader follows until it has taken in the last.
  bool runThroughput() {
    uint64_t const entries = shadow_.entries, visits = shadow_.sweepVisits;
    uint64_t const resyncs = shadow_.resyncs(), walks = shadow_.walks();
    uint64_t const sleeps = shadow_.ruskSm().sequencesSent();
    uint64_t const wakes = shadow_.ruskSm().wakesReceived();
    Tessel::Sequence const target = shared_.targetSequence;
    if (!reply('r')) return false;
    bool const caughtUp = loop().runUntil(
        // following(): the walk that caught up has sent its Sleeping too.
        [&] { return (shadow_.following() && shadow_.sequence() >= target) || problem(); },
        std::max(60.0, o_.timeout));
    shared_.caughtUpNs = nowNs();
    if (!caughtUp || problem()) {
      fail(caughtUp ? problemText()
                    : fmt::format("not caught up with sequence {} after 60 s (at {})", target,
                                  shadow_.sequence()));
      return false;
    }
    shared_.entries = shadow_.entries - entries;
    shared_.sweepVisits = shadow_.sweepVisits - visits;
    shared_.resyncs = shadow_.resyncs() - resyncs;
    shared_.walks = shadow_.walks() - walks;
    shared_.sleepsSent = shadow_.ruskSm().sequencesSent() - sleeps;
    shared_.wakesRead = shadow_.ruskSm().wakesReceived() - wakes;
    return true;
  }

  Options const& o_;
  Shared& shared_;
  uint64_t* seen_;
  uint64_t* steady_;
  uint64_t* eventfdT0_;
  ReaderEnds ends_;
  ProbeShadow shadow_;
  int epSocket_ = -1;
  int epEventfd_ = -1;
};

// ---------------------------------------------------------------------------
// The follower processes of the fan-out phase: each copies kFanTable into
// the library's own store (a value shadow or a keyshadow) and hears every
// change through the client callback, as an agent's shadow does.

class FollowerShadow : public RecordingShadow {
 public:
  using Key = Ops::Key;
  using ValueStore = Mirak::ShadowStore<Mirak::ValueShadowSlot<Ops>>;
  using KeyStore = Mirak::KeyShadowStore<Ops>;

  explicit FollowerShadow(bool keyOnly)
      : RecordingShadow(kFanTable, keyOnly ? Mirak::shadowFlagKeyOnly : 0), keyOnly_(keyOnly) {
    notify_.changeFn = [this](Value const&) { callbacks++; };
    notify_.keyFn = [this](Key const&) { callbacks++; };
    notify_.keyDelFn = [this](Key const&) { callbacks++; };
  }

  bool start() {
    if (!reader_.initialize("bench")) return false;
    if (keyOnly_) {
      store_ = std::make_unique<KeyStore>(handler(), reader_, tesselReader(), notify_, false);
    } else {
      store_ = std::make_unique<ValueStore>(handler(), reader_, tesselReader(), notify_, false);
    }
    if (!store_->initialize()) return false;
    return initializeTessel(reader_.kestorId().value());
  }
  void stop() {
    detachTessel();
    store_.reset();
    reader_.detach(false);
  }

  bool doSlot(Tessel::BasicSlot slot, Tessel::Sequence seq, bool compare) override {
    if (seq != Tessel::noSequence) entries++;
    return store_->doSlot(slot, seq, compare);
  }
  void doFlushSlot(unsigned slot) override { store_->doFlushSlot(slot); }
  void prefetch(Tessel::BasicSlot slot) override { store_->prefetch(slot); }
  // Private bytes of the copy: its slot array and buckets.
  uint64_t copyBytes() const { return store_->shadowMappedSize(); }
  Tessel::Sequence caughtUpTo() const {
    return std::max<Tessel::Sequence>(reader_.counters().sequence, sequence());
  }

  // Rows 0..rows-1 in the copy, each at `version`, and nothing else: the
  // number of rows that are not so (missing, another version, extra).
  uint64_t wrongRows(uint32_t rows, uint32_t version) const {
    uint64_t wrong = 0;
    for (uint32_t i = 0; i < rows; i++) {
      bool found = false;
      Value buffer;
      Value const* v = store_->lookup(BenchRows::keyOf(i), found, &buffer);
      if (!found || static_cast<uint32_t>(v->updateTime()) != version) wrong++;
    }
    uint64_t members = 0;
    Value v;
    Mirak::IterHint hint{};
    for (bool ok = store_->first(0, v, hint); ok; ok = store_->next(v.key(), v, hint)) members++;
    membersSeen = members;
    return wrong + (members > rows ? members - rows : rows - members);
  }

  uint64_t callbacks = 0, entries = 0;
  mutable uint64_t membersSeen = 0;

 protected:
  uint32_t localSlots() const override { return store_->numSlots(); }

 private:
  bool keyOnly_;
  Mem::Notify<Key, Value> notify_;
  std::unique_ptr<Mirak::ShadowStoreBase<Key, Value>> store_;
};

struct FollowerEnds {
  int commands;
  int replies;
};

class FollowerProcess {
 public:
  FollowerProcess(Options const& o, FollowerFigures& figures, FollowerEnds ends)
      : o_(o), f_(figures), ends_(ends) {}

  int run() {
    for (;;) {
      FollowerCommand c;
      if (!receive(c)) return fail("no command from the writer for 120 s");
      switch (c.op) {
        case FollowerCommand::attach:
          if (!attach(c.mode == 1)) return 1;
          break;
        case FollowerCommand::follow:
          if (!follow(c)) return 1;
          break;
        case FollowerCommand::check:
          if (!shadow_) return fail("check without attach");
          f_.wrong = shadow_->wrongRows(o_.fanRows, c.version);
          f_.members = shadow_->membersSeen;
          break;
        case FollowerCommand::detach:
          if (shadow_) shadow_->stop();
          shadow_.reset();
          break;
        case FollowerCommand::stop:
          if (shadow_) shadow_->stop();
          return reply('d') ? 0 : 1;
      }
      if (!reply('d')) return 1;
    }
  }

 private:
  static Lomi::EventLoop& loop() { return Lomi::EventLoop::defaultLoop(); }

  bool receive(FollowerCommand& c) { return receiveCommand(ends_.commands, c, 120000); }
  bool reply(char c) { return writeAll(ends_.replies, &c, 1); }
  int fail(std::string const& why) { return failWith(f_.error, ends_.replies, why); }
  bool problem() const { return shadow_->disconnected || !shadow_->corruption.empty(); }

  // A fresh shadow sweeps the table: the time from start() until the sweep
  // is complete. Beside it, the floor of any sweep: one read of every byte of
  // the table's slot file, from a mapping of this process's own.
  bool attach(bool keyOnly) {
    shadow_ = std::make_unique<FollowerShadow>(keyOnly);
    uint64_t const start = nowNs();
    if (!shadow_->start()) return fail("cannot attach the fan-out table or its queue") == 0;
    bool const synced = loop().runUntil([&] { return shadow_->synced() || problem(); }, 60);
    f_.resyncNs = nowNs() - start;
    if (!synced || problem()) return fail("the sweep did not complete within 60 s") == 0;
    if (!loop().runUntil([&] { return shadow_->following() || problem(); }, o_.timeout)) {
      return fail("not following the queue after the sweep") == 0;
    }
    f_.resyncs = shadow_->resyncs();
    return readSlotFile() && touchFreshMemory(shadow_->copyBytes());
  }

  // Fresh memory written once: first-touch faults, the pages faulted in by
  // one call first, and that with huge pages asked for.
  bool touchFreshMemory(uint64_t bytes) {
    for (uint64_t* out : {&f_.firstTouchNs, &f_.prefaultTouchNs, &f_.hugeTouchNs}) {
      Mem::Local fresh;
      if (!fresh.attach(bytes)) return fail("cannot map fresh memory") == 0;
      auto* p = static_cast<volatile char*>(fresh.base());
      uint64_t const start = nowNs();
      if (out == &f_.hugeTouchNs && !fresh.adviseHugePages()) {
        return fail("MADV_HUGEPAGE refused") == 0;
      }
      if (out != &f_.firstTouchNs && !fresh.prefault(0, bytes)) {
        return fail("MADV_POPULATE_WRITE refused") == 0;
      }
      for (uint64_t i = 0; i < bytes; i += 64) p[i] = 1;
      *out = nowNs() - start;
    }
    f_.copyBytes = bytes;
    return true;
  }

  bool readSlotFile() {
    std::string const path = shadow_->dir() + "/slots";
    int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (fd < 0 || ::fstat(fd, &st) != 0) return fail("cannot open " + path) == 0;
    void* map = ::mmap(nullptr, size_t(st.st_size), PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    if (map == MAP_FAILED) return fail("cannot map " + path) == 0;
    auto const* words = static_cast<uint64_t const*>(map);
    size_t const n = size_t(st.st_size) / sizeof(uint64_t);
    uint64_t const start = nowNs();
    uint64_t sum = 0;
    // One word of every cache line: the lines come in whole, and the adds
    // are not what is timed.
    for (size_t i = 0; i < n; i += 8) sum += words[i];
    f_.sweepReadNs = nowNs() - start;
    f_.tableBytes = uint64_t(st.st_size);
    ::munmap(map, size_t(st.st_size));
    // Keeps the loop: a sum nobody reads could be dropped.
    if (sum == 0x5eed5eed5eed5eedull) f_.tableBytes++;
    return true;
  }

  bool follow(FollowerCommand const& c) {
    if (!shadow_) return fail("follow without attach") == 0;
    uint64_t const callbacks = shadow_->callbacks, entries = shadow_->entries;
    uint64_t const walks = shadow_->walks(), sleeps = shadow_->ruskSm().sequencesSent();
    uint64_t const wakes = shadow_->ruskSm().wakesReceived();
    uint64_t const cpu = cpuNs();
    if (!reply('r')) return false;
    bool const caughtUp = loop().runUntil(
        [&] { return (shadow_->following() && shadow_->caughtUpTo() >= c.target) || problem(); },
        120);
    f_.caughtUpNs = nowNs();
    f_.cpuNs = cpuNs() - cpu;
    if (!caughtUp || problem()) {
      return fail(fmt::format("not caught up with {} (at {}): {}", c.target, shadow_->caughtUpTo(),
                              problem() ? "disconnected or corrupt" : "120 s passed")) == 0;
    }
    f_.callbacks = shadow_->callbacks - callbacks;
    f_.entries = shadow_->entries - entries;
    f_.walks = shadow_->walks() - walks;
    f_.sleepsSent = shadow_->ruskSm().sequencesSent() - sleeps;
    f_.wakesRead = shadow_->ruskSm().wakesReceived() - wakes;
    f_.resyncs = shadow_->resyncs();
    return true;
  }

  static uint64_t cpuNs() {
    timespec ts;
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
  }

  Options const& o_;
  FollowerFigures& f_;
  FollowerEnds ends_;
  std::unique_ptr<FollowerShadow> shadow_;
};

// ---------------------------------------------------------------------------
// The writer process: this one.

struct Percentiles {
  uint64_t n = 0;
  double p50 = 0, p99 = 0, p999 = 0, max = 0;
};

// Nearest rank, in microseconds.
Percentiles percentiles(std::vector<uint64_t> ns) {
  Percentiles p;
  p.n = ns.size();
  if (ns.empty()) return p;
  std::sort(ns.begin(), ns.end());
  auto at = [&](double q) {
    size_t const rank = size_t(std::ceil(q * double(ns.size())));
    return double(ns[std::max<size_t>(rank, 1) - 1]) / 1000.0;
  };
  p.p50 = at(0.5);
  p.p99 = at(0.99);
  p.p999 = at(0.999);
  p.max = double(ns.back()) / 1000.0;
  return p;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

std::string firstLine(char const* path, std::string const& prefix = "") {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(prefix, 0) == 0) return prefix.empty() ? line : line.substr(line.find(':') + 2);
  }
  return "?";
}

// The writer's end of a follower's pipes.
struct FollowerLink {
  int commands;
  int replies;
  FollowerFigures* figures;
  std::string pending;
  bool end = false;
};

class WriterProcess {
 public:
  WriterProcess(Options const& o, Shared& shared, uint64_t* seen, pid_t reader, int commands,
                int replies, int socket, int eventfd, std::vector<FollowerLink>& followers)
      : o_(o),
        shared_(shared),
        seen_(seen),
        commands_(commands),
        replies_(replies),
        socket_(socket),
        eventfd_(eventfd),
        steady_(seen + size_t(kKinds) * o.samples),
        eventfdT0_(steady_ + size_t(kKinds) * o.steadySamples),
        followers_(followers) {
    for (FollowerLink& f : followers_) {
      loop().fdWatcherIs(f.replies, EPOLLIN, [&f](uint32_t) {
        char buf[64];
        ssize_t n = ::read(f.replies, buf, sizeof buf);
        if (n > 0) {
          f.pending.append(buf, size_t(n));
        } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
          f.end = true;
          loop().fdWatcherDel(f.replies);
        }
      });
    }
    stat_ = ::open(fmt::format("/proc/{}/stat", reader).c_str(), O_RDONLY | O_CLOEXEC);
    if (stat_ < 0) throw Failure("cannot open /proc/<reader>/stat");
    loop().fdWatcherIs(replies_, EPOLLIN, [this](uint32_t) {
      char buf[64];
      ssize_t n = ::read(replies_, buf, sizeof buf);
      if (n > 0) {
        pending_.append(buf, size_t(n));
      } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        replyEnd_ = true;
        loop().fdWatcherDel(replies_);
      }
    });
  }
  ~WriterProcess() {
    if (!replyEnd_) loop().fdWatcherDel(replies_);
    for (FollowerLink& f : followers_) {
      if (!f.end) loop().fdWatcherDel(f.replies);
    }
    ::close(stat_);
  }

  void run() {
    Mirak::MapDescriptor d(std::max(o_.keys, kLatencyRows) + 1024);
    writer_ = std::make_unique<Writer>(handler(), kTable, d, FlowTracking::HoIpFlowConfigOps(0));
    writer_->initialize("bench");
    for (uint32_t i = 0; i < kLatencyRows; i++) writer_->write(rowOf(i, 0), true);
    command({Command::attach, kOurs, 0, 0});
    expect('d', "the reader attached");

    if (!o_.fanOnly) {
      latency();
      steady();
      throughput();
      notifyCost();
    }

    command({Command::stop, kOurs, 0, 0});
    expect('d', "the reader stopped");
    writer_.reset();

    fanout();
  }

  // The figures, once run() has returned.
  uint64_t duplicates() const { return shared_.duplicates; }
  Percentiles latencyOf(Kind k) const {
    std::vector<uint64_t> ns(o_.samples);
    for (uint32_t i = 0; i < o_.samples; i++) {
      uint64_t const t1 = seenAt(k, i), t0 = t0_[size_t(k) * o_.samples + i];
      if (t1 < t0) throw Failure(fmt::format("{} sample {}: seen before sent", kKindNames[k], i));
      ns[i] = t1 - t0;
    }
    return percentiles(std::move(ns));
  }

  struct Throughput {
    uint64_t writes = 0, inserts = 0, overwrites = 0;
    double writerSeconds = 0, readerSeconds = 0, lagSeconds = 0;
    uint64_t entries = 0, sweeps = 0, sweepVisits = 0, walks = 0, sleeps = 0, wakesRead = 0;
    uint64_t wakesSent = 0;
  } tp;

  // Steady-rate latencies in ns, of each kind.
  std::vector<uint64_t> steadyOf(Kind k) const {
    return std::vector<uint64_t>(steady_ + size_t(k) * o_.steadySamples,
                                 steady_ + size_t(k + 1) * o_.steadySamples);
  }
  // The steady run's achieved rate of the change path, changes/s.
  double steadyRate = 0;

  struct FanRun {
    uint32_t shadows = 0;
    double writerSeconds = 0;
    // Per follower: seconds from the first write until it had taken in the
    // last; its figures.
    std::vector<double> followSeconds;
    std::vector<FollowerFigures> figures;
    uint64_t wakesSent = 0;
  };
  struct Fanout {
    uint32_t rows = 0;
    double fillSeconds = 0;
    // Sweeps of a fresh shadow: value shadow, keyshadow (median of runs),
    // and the same follower's plain read of the slot file.
    std::vector<double> resyncValueMs, resyncKeyMs, slotReadMs, touchValueMs, touchKeyMs;
    std::vector<double> prefaultValueMs, prefaultKeyMs, hugeValueMs, hugeKeyMs;
    uint64_t tableBytes = 0, copyValueBytes = 0, copyKeyBytes = 0;
    std::vector<FanRun> runs;
  } fan;

  struct NotifyCost {
    // ns per write of each run, in run order.
    std::vector<double> writeAwake, writeNone;
    double notifyNoneNs = 0, notifyAwakeNs = 0, rdtscNs = 0;
    uint64_t writesPerRun = 0;
  } nc;

 private:
  static Lomi::EventLoop& loop() { return Lomi::EventLoop::defaultLoop(); }

  void command(Command const& c) {
    if (!writeAll(commands_, &c, sizeof c)) throw Failure("the reader's command pipe is closed");
  }

  // Runs the loop (which serves the wake-up socket) until the next reply.
  void expect(char want, std::string const& what) {
    bool const got = loop().runUntil([&] { return !pending_.empty() || replyEnd_; }, o_.timeout);
    if (!pending_.empty()) {
      char const c = pending_.front();
      pending_.erase(0, 1);
      if (c == want) return;
      if (c == 'f') throw Failure(fmt::format("reader, waiting for {}: {}", what, shared_.error));
      throw Failure(fmt::format("reply '{}' instead of '{}' waiting for {}", c, want, what));
    }
    throw Failure(
        got ? fmt::format("the reader process ended waiting for {}", what)
            : fmt::format("no reply from the reader within {} s waiting for {}", o_.timeout, what));
  }

  // Until the reader's state is S: blocked in a system call.
  void awaitBlocked(uint32_t sample) {
    uint64_t const deadline = nowNs() + uint64_t(o_.timeout * 1e9);
    for (;;) {
      char buf[512];
      ssize_t const n = ::pread(stat_, buf, sizeof buf - 1, 0);
      if (n <= 0) throw Failure("the reader process is gone");
      buf[n] = 0;
      char const* paren = std::strrchr(buf, ')');
      if (paren && paren[1] == ' ' && paren[2] == 'S') return;
      if (nowNs() > deadline) {
        throw Failure(
            fmt::format("sample {}: the reader never blocked within {} s", sample, o_.timeout));
      }
      ::sched_yield();
    }
  }

  uint64_t seenAt(Kind k, uint32_t i) const {
    return Mem::loadAcquire(seen_[size_t(k) * o_.samples + i]);
  }

  // Rounds of the three kinds in turn, each a slice of the samples.
  void latency() {
    t0_.assign(size_t(kKinds) * o_.samples, 0);
    for (uint32_t r = 0; r < o_.rounds; r++) {
      uint32_t const first = uint32_t(uint64_t(o_.samples) * r / o_.rounds);
      uint32_t const last = uint32_t(uint64_t(o_.samples) * (r + 1) / o_.rounds);
      for (uint32_t k = 0; k < kKinds; k++) {
        command({Command::latency, Kind(k), first, last});
        if (k == kOurs) {
          oursBatch(first, last);
        } else {
          floorBatch(Kind(k), first, last);
        }
        expect('d', fmt::format("the end of {} samples {}..{}", kKindNames[k], first, last));
        for (uint32_t i = first; i < last; i++) {
          if (seenAt(Kind(k), i) == 0) {
            throw Failure(fmt::format("{} sample {} never arrived", kKindNames[k], i));
          }
        }
      }
    }
  }

  void oursBatch(uint32_t first, uint32_t last) {
    expect('r', "the reader's start of a batch");
    for (uint32_t i = first; i < last; i++) {
      // The reader's Sleeping after the previous sample: it has taken that
      // change in, or it slept past it, which is the defect this catches.
      bool const asleep = loop().runUntil(
          [&] { return writer_->writerCounters().sleepingReaders == 1; }, o_.timeout);
      if (!asleep) {
        auto const c = writer_->writerCounters();
        throw Failure(fmt::format(
            "sample {}: the reader did not go to sleep within {} s (readers {}, wakes sent {}, "
            "queue sequence {}; sample {} reached doSlot: {})",
            i, o_.timeout, c.readers, c.ruskCount, c.sequencesProcessed, i - 1,
            i > first ? seenAt(kOurs, i - 1) != 0 : true));
      }
      if (i > first && seenAt(kOurs, i - 1) == 0) {
        throw Failure(fmt::format("sample {}: the reader went to sleep without seeing it", i - 1));
      }
      awaitBlocked(i);
      uint64_t const t0 = nowNs();
      writer_->write(rowOf(i % kLatencyRows, i + 1), true);
      t0_[size_t(kOurs) * o_.samples + i] = t0;
    }
  }

  void floorBatch(Kind k, uint32_t first, uint32_t last) {
    for (uint32_t i = first; i < last; i++) {
      expect('a',
             fmt::format("the reader's acknowledgement before {} sample {}", kKindNames[k], i));
      awaitBlocked(i);
      uint64_t const t0 = nowNs();
      ssize_t n;
      if (k == kSocket) {
        uint64_t const message[2] = {i, t0};
        n = ::send(socket_, message, sizeof message, 0);
      } else {
        uint64_t const add = uint64_t(i) + 1;
        n = ::write(eventfd_, &add, sizeof add);
      }
      if (n <= 0) throw Failure(fmt::format("{} send: {}", kKindNames[k], std::strerror(errno)));
      t0_[size_t(k) * o_.samples + i] = t0;
    }
  }

  void throughput() {
    uint64_t const seq0 = writer_->sequence();
    shared_.targetSequence = seq0 + o_.writes;
    auto const before = writer_->writerCounters();
    command({Command::throughput, kOurs, 0, 0});
    expect('r', "the reader's start of the throughput run");
    uint32_t version = o_.samples + 1;
    uint64_t const start = nowNs();
    for (uint32_t i = 0; i < o_.writes; i++) writer_->write(rowOf(i % o_.keys, version++), true);
    uint64_t const end = nowNs();
    if (writer_->sequence() != shared_.targetSequence) {
      throw Failure(fmt::format("{} writes issued sequences {}..{}, not one each", o_.writes, seq0,
                                writer_->sequence()));
    }
    expect('d', "the reader to catch up with the throughput run");
    auto const after = writer_->writerCounters();
    tp.writes = o_.writes;
    tp.inserts = after.inserts - before.inserts;
    tp.overwrites = after.overwrites - before.overwrites;
    tp.writerSeconds = double(end - start) / 1e9;
    tp.readerSeconds = double(shared_.caughtUpNs - start) / 1e9;
    tp.lagSeconds = double(shared_.caughtUpNs - end) / 1e9;
    tp.entries = shared_.entries;
    tp.sweeps = shared_.resyncs;
    tp.sweepVisits = shared_.sweepVisits;
    tp.walks = shared_.walks;
    tp.sleeps = shared_.sleepsSent;
    tp.wakesRead = shared_.wakesRead;
    tp.wakesSent = after.ruskCount - before.ruskCount;
  }

  // Steady-rate latency: the kinds take turns in rounds as in latency(); in
  // each, the writer changes at o_.rate per second without waiting for the
  // reader. The change path's writer runs its loop (reads the reader's
  // Sleeping) and then sleeps until the next change is due.
  void steady() {
    ::prctl(PR_SET_TIMERSLACK, 1UL);
    uint64_t const period = 1000000000ull / o_.rate;
    uint64_t oursNs = 0, oursChanges = 0;
    for (uint32_t r = 0; r < o_.rounds; r++) {
      uint32_t const first = uint32_t(uint64_t(o_.steadySamples) * r / o_.rounds);
      uint32_t const last = uint32_t(uint64_t(o_.steadySamples) * (r + 1) / o_.rounds);
      for (uint32_t k = 0; k < kKinds; k++) {
        command({Command::steady, Kind(k), first, last});
        expect('r', fmt::format("the reader's start of steady {}", kKindNames[k]));
        uint64_t const start = nowNs() + period;
        for (uint32_t i = first; i < last; i++) {
          uint64_t const due = start + uint64_t(i - first) * period;
          if (k == kOurs) loop().runOnce(0);
          timespec ts{time_t(due / 1000000000ull), long(due % 1000000000ull)};
          while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
          }
          uint64_t const t0 = nowNs();
          ssize_t n = 1;
          if (k == kOurs) {
            Value row = rowOf(i % kLatencyRows, i + 1);
            row.createTimeIs(Zeb::Seconds(double(t0)));
            writer_->write(row, true);
          } else if (k == kSocket) {
            uint64_t const message[2] = {i, t0};
            n = ::send(socket_, message, sizeof message, 0);
          } else {
            Mem::storeRelease(eventfdT0_[i], t0);
            uint64_t const one = 1;
            n = ::write(eventfd_, &one, sizeof one);
          }
          if (n <= 0) throw Failure(fmt::format("steady {}: {}", kKindNames[k], std::strerror(errno)));
        }
        if (k == kOurs) {
          oursNs += nowNs() - start;
          oursChanges += last - first;
        }
        expect('d', fmt::format("the end of steady {} samples {}..{}", kKindNames[k], first, last));
      }
    }
    steadyRate = double(oursChanges) / (double(oursNs) / 1e9);
  }

  // ---- fan-out ----

  void tell(FollowerLink& f, FollowerCommand const& c) {
    if (!writeAll(f.commands, &c, sizeof c)) throw Failure("a follower's command pipe is closed");
  }
  void expectFrom(FollowerLink& f, char want, std::string const& what) {
    bool const got = loop().runUntil([&] { return !f.pending.empty() || f.end; }, 120);
    if (!f.pending.empty()) {
      char const c = f.pending.front();
      f.pending.erase(0, 1);
      if (c == want) return;
      if (c == 'f') throw Failure(fmt::format("follower, {}: {}", what, f.figures->error));
      throw Failure(fmt::format("follower replied '{}' instead of '{}': {}", c, want, what));
    }
    throw Failure(got ? "a follower ended: " + what : "no reply from a follower: " + what);
  }

  void fanout() {
    fan.rows = o_.fanRows;
    Mirak::MapDescriptor d(o_.fanRows + 1024);
    fanWriter_ = std::make_unique<Writer>(handler(), kFanTable, d, Ops(0));
    fanWriter_->initialize("bench");
    uint32_t version = 1;
    uint64_t const fillStart = nowNs();
    for (uint32_t i = 0; i < o_.fanRows; i++) fanWriter_->write(rowOf(i, version), true);
    fan.fillSeconds = double(nowNs() - fillStart) / 1e9;

    // Resync: a fresh shadow of each mode sweeps the whole table, three times.
    FollowerLink& one = followers_[0];
    for (uint32_t rep = 0; rep < o_.resyncRepeats; rep++) {
      for (uint32_t mode = 0; mode < 2; mode++) {
        tell(one, {FollowerCommand::attach, mode, 0, 0});
        expectFrom(one, 'd', "attach for the resync");
        (mode == 0 ? fan.resyncValueMs : fan.resyncKeyMs)
            .push_back(double(one.figures->resyncNs) / 1e6);
        fan.slotReadMs.push_back(double(one.figures->sweepReadNs) / 1e6);
        fan.tableBytes = one.figures->tableBytes;
        (mode == 0 ? fan.touchValueMs : fan.touchKeyMs)
            .push_back(double(one.figures->firstTouchNs) / 1e6);
        (mode == 0 ? fan.prefaultValueMs : fan.prefaultKeyMs)
            .push_back(double(one.figures->prefaultTouchNs) / 1e6);
        (mode == 0 ? fan.hugeValueMs : fan.hugeKeyMs)
            .push_back(double(one.figures->hugeTouchNs) / 1e6);
        (mode == 0 ? fan.copyValueBytes : fan.copyKeyBytes) = one.figures->copyBytes;
        tell(one, {FollowerCommand::detach, 0, 0, 0});
        expectFrom(one, 'd', "detach after the resync");
      }
    }

    // Throughput: one overwrite of every row, as fast as the writer goes,
    // with 0, 1, 2, 4 value shadows following, then 0 again.
    for (uint32_t shadows : {0u, 1u, 2u, 4u, 0u}) {
      FanRun run;
      run.shadows = shadows;
      for (uint32_t f = 0; f < shadows; f++) {
        tell(followers_[f], {FollowerCommand::attach, 0, 0, 0});
        expectFrom(followers_[f], 'd', "attach for a throughput run");
      }
      // Every follower asleep: its Sleeping read.
      if (!loop().runUntil([&] { return fanWriter_->writerCounters().sleepingReaders == shadows; },
                           o_.timeout)) {
        throw Failure("the followers never all slept before a throughput run");
      }
      version++;
      uint64_t const target = fanWriter_->sequence() + o_.fanRows;
      for (uint32_t f = 0; f < shadows; f++) {
        tell(followers_[f], {FollowerCommand::follow, 0, target, version});
        expectFrom(followers_[f], 'r', "start of a throughput run");
      }
      uint64_t const wakes = fanWriter_->writerCounters().ruskCount;
      uint64_t const start = nowNs();
      for (uint32_t i = 0; i < o_.fanRows; i++) fanWriter_->write(rowOf(i, version), true);
      run.writerSeconds = double(nowNs() - start) / 1e9;
      if (fanWriter_->sequence() != target) throw Failure("the fan-out writes skipped sequences");
      for (uint32_t f = 0; f < shadows; f++) {
        expectFrom(followers_[f], 'd', "the end of a throughput run");
        run.followSeconds.push_back(double(followers_[f].figures->caughtUpNs - start) / 1e9);
        run.figures.push_back(*followers_[f].figures);
      }
      run.wakesSent = fanWriter_->writerCounters().ruskCount - wakes;
      for (uint32_t f = 0; f < shadows; f++) {
        tell(followers_[f], {FollowerCommand::check, 0, 0, version});
        expectFrom(followers_[f], 'd', "the check of a copy");
        run.figures[f].wrong = followers_[f].figures->wrong;
        run.figures[f].members = followers_[f].figures->members;
        if (run.figures[f].wrong != 0) {
          throw Failure(fmt::format("the copy of shadow {} of {} differs from the table in {} rows",
                                    f + 1, shadows, run.figures[f].wrong));
        }
        tell(followers_[f], {FollowerCommand::detach, 0, 0, 0});
        expectFrom(followers_[f], 'd', "detach after a throughput run");
      }
      fan.runs.push_back(std::move(run));
    }
    for (FollowerLink& f : followers_) {
      tell(f, {FollowerCommand::stop, 0, 0, 0});
      expectFrom(f, 'd', "stop");
    }
    fanWriter_->cleanup();
    fanWriter_.reset();
  }

  // Overwrites of every key, several passes: ns per write.
  double timeOverwrites(uint32_t& version) {
    uint32_t const passes = std::max(1u, 1000000u / o_.keys);
    uint64_t const start = nowNs();
    for (uint32_t p = 0; p < passes; p++) {
      for (uint32_t i = 0; i < o_.keys; i++) writer_->write(rowOf(i, version++), true);
    }
    nc.writesPerRun = uint64_t(passes) * o_.keys;
    return double(nowNs() - start) / double(nc.writesPerRun);
  }

  void awaitReaders(uint64_t readers, uint64_t sleeping, std::string const& what) {
    if (!loop().runUntil(
            [&] {
              auto const c = writer_->writerCounters();
              return c.readers == readers && c.sleepingReaders == sleeping;
            },
            o_.timeout)) {
      throw Failure("the writer never saw " + what);
    }
  }

  void notifyCost() {
    uint32_t version = o_.samples + o_.writes + 1;
    std::vector<double> awake, none;
    for (uint32_t r = 0; r < o_.costRepeats; r++) {
      // Connected, awake: the first write wakes the reader, which is blocked
      // on its command pipe and so never sleeps again during the run.
      awaitReaders(1, 1, "the reader asleep before the cost run");
      writer_->write(rowOf(0, version++), true);
      awaitReaders(1, 0, "the reader woken");
      // One untimed run first: the table's pages and the caches as the timed
      // runs will find them.
      if (r == 0) timeOverwrites(version);
      awake.push_back(timeOverwrites(version));
      command({Command::detach, kOurs, 0, 0});
      expect('d', "the reader's detach");
      awaitReaders(0, 0, "the reader gone");
      none.push_back(timeOverwrites(version));
      command({Command::attach, kOurs, 0, 0});
      expect('d', "the reader attached again");
    }
    nc.writeAwake = awake;
    nc.writeNone = none;

    // The bare check: a wake-up socket of its own, listening, with no
    // connection and then with one connected reader that never sleeps.
    Rusk::WriterRuskSm rusk(handler());
    rusk.doEnableListen();
    Tessel::Sequence seq = 1;
    auto timeNotify = [&] {
      uint64_t const start = nowNs();
      for (uint32_t i = 0; i < o_.notifyCalls; i++) rusk.notify(seq++);
      return double(nowNs() - start) / double(o_.notifyCalls);
    };
    std::vector<double> bareNone, bareAwake;
    for (uint32_t r = 0; r < o_.costRepeats; r++) {
      bareNone.push_back(timeNotify());
      Rusk::ReaderRuskSm client(handler(), loop());
      std::string error;
      if (!client.connect(rusk.socketName(), error)) throw Failure("wake-up client: " + error);
      if (!loop().runUntil([&] { return rusk.readers() == 1; }, o_.timeout)) {
        throw Failure("the bare wake-up socket never accepted");
      }
      bareAwake.push_back(timeNotify());
      client.disconnect();
      if (!loop().runUntil([&] { return rusk.readers() == 0; }, o_.timeout)) {
        throw Failure("the bare wake-up socket never saw its reader go");
      }
    }
    nc.notifyNoneNs = median(bareNone);
    // What the check spends on its clock: one time stamp counter read.
    uint64_t sink = 0;
    uint64_t const start = nowNs();
    for (uint32_t i = 0; i < o_.notifyCalls; i++) sink += Lomi::Rdtsc::now();
    nc.rdtscNs = double(nowNs() - start) / double(o_.notifyCalls);
    if (sink == 0) throw Failure("the time stamp counter reads 0");
    nc.notifyAwakeNs = median(bareAwake);
    if (rusk.ruskCount() != 0) throw Failure("a reader that never slept was woken");
  }

  Options const& o_;
  Shared& shared_;
  uint64_t* seen_;
  int commands_, replies_, socket_, eventfd_;
  int stat_ = -1;
  std::string pending_;
  bool replyEnd_ = false;
  std::unique_ptr<Writer> writer_;
  std::unique_ptr<Writer> fanWriter_;
  std::vector<uint64_t> t0_;
  uint64_t* steady_;
  uint64_t* eventfdT0_;
  std::vector<FollowerLink>& followers_;
};

void usage() {
  std::fprintf(stderr,
               "usage: change_path [--quick] [--samples N] [--rounds N] [--writes N] [--keys N]\n"
               "                   [--steady-samples N] [--rate N] [--fan-rows N] [--cdf FILE]\n"
               "                   [--timeout SECONDS] [--fan-only]\n"
               "  --quick    a smoke run: 2,000 samples, 100,000 writes over 10,000 keys,\n"
               "             2,000 steady samples, 100,000 fan-out rows\n"
               "  --samples  latency samples of each kind (default 100,000)\n"
               "  --rounds   the kinds take turns this often (default 10)\n"
               "  --writes   writes of the throughput run (default 2,000,000)\n"
               "  --keys     rows they go to (default 100,000)\n"
               "  --steady-samples  steady-rate latency samples of each kind (default 100,000)\n"
               "  --rate     changes per second of the steady-rate run (default 10,000)\n"
               "  --fan-rows rows of the fan-out table (default 1,000,000)\n"
               "  --cdf FILE write the steady-rate latency CDF for gnuplot\n"
               "  --timeout  seconds any one step may take before the run fails (default 10)\n"
               "  --fan-only only the fan-out phase: resync and followers\n");
}

std::optional<Options> parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; i++) {
    std::string const a = argv[i];
    auto number = [&](uint32_t& out) {
      if (i + 1 >= argc) return false;
      char* end;
      unsigned long v = std::strtoul(argv[++i], &end, 10);
      if (*end != 0 || v == 0 || v > 100000000ul) return false;
      out = uint32_t(v);
      return true;
    };
    if (a == "--quick") {
      o.samples = 2000;
      o.rounds = 4;
      o.writes = 100000;
      o.keys = 10000;
      o.costRepeats = 1;
      o.notifyCalls = 1000000;
      o.steadySamples = 2000;
      o.fanRows = 20000;
      o.resyncRepeats = 1;
    } else if (a == "--samples") {
      if (!number(o.samples)) return std::nullopt;
    } else if (a == "--rounds") {
      if (!number(o.rounds)) return std::nullopt;
    } else if (a == "--writes") {
      if (!number(o.writes)) return std::nullopt;
    } else if (a == "--keys") {
      if (!number(o.keys)) return std::nullopt;
    } else if (a == "--steady-samples") {
      if (!number(o.steadySamples)) return std::nullopt;
    } else if (a == "--rate") {
      if (!number(o.rate)) return std::nullopt;
    } else if (a == "--fan-only") {
      o.fanOnly = true;
    } else if (a == "--fan-rows") {
      if (!number(o.fanRows)) return std::nullopt;
    } else if (a == "--cdf") {
      if (i + 1 >= argc) return std::nullopt;
      o.cdfFile = argv[++i];
    } else if (a == "--timeout") {
      uint32_t t;
      if (!number(t)) return std::nullopt;
      o.timeout = t;
    } else {
      return std::nullopt;
    }
  }
  if (o.rounds > o.samples) o.rounds = o.samples;
  if (o.rounds > o.steadySamples) o.rounds = o.steadySamples;
  return o;
}

void printPath(Options const& o, WriterProcess const& w);
void printFanout(WriterProcess const& w);

void printResults(Options const& o, WriterProcess const& w, std::string const& when) {
  struct utsname u;
  ::uname(&u);
  fmt::print("change_path: {} latency samples of each kind in {} rounds; {}\n", o.samples, o.rounds,
             when);
  fmt::print("machine: {}, {} online cores, kernel {}, load {}\n\n",
             firstLine("/proc/cpuinfo", "model name"), ::sysconf(_SC_NPROCESSORS_ONLN), u.release,
             firstLine("/proc/loadavg"));

  if (!o.fanOnly) printPath(o, w);
  printFanout(w);
}

void printPath(Options const& o, WriterProcess const& w) {
  Percentiles p[kKinds];
  for (uint32_t k = 0; k < kKinds; k++) p[k] = w.latencyOf(Kind(k));
  fmt::print(
      "| path, writer -> sleeping reader | samples | p50 µs | p99 µs | p99.9 µs | max µs |\n");
  fmt::print("|---|---|---|---|---|---|\n");
  for (uint32_t k = 0; k < kKinds; k++) {
    fmt::print("| {} | {} | {:.1f} | {:.1f} | {:.1f} | {:.1f} |\n", kKindNames[k], p[k].n, p[k].p50,
               p[k].p99, p[k].p999, p[k].max);
  }
  fmt::print("\nEvery sample arrived; samples handed to doSlot more than once: {}.\n",
             w.duplicates());
  fmt::print("\n| ratio of write -> doSlot to | p50 | p99 | p99.9 |\n|---|---|---|---|\n");
  for (uint32_t k = kSocket; k < kKinds; k++) {
    fmt::print("| {} | {:.2f} | {:.2f} | {:.2f} |\n", kKindNames[k], p[kOurs].p50 / p[k].p50,
               p[kOurs].p99 / p[k].p99, p[kOurs].p999 / p[k].p999);
  }

  Percentiles sp[kKinds];
  for (uint32_t k = 0; k < kKinds; k++) sp[k] = percentiles(w.steadyOf(Kind(k)));
  fmt::print(
      "\n| steady rate, {:.0f} changes/s, writer -> sleeping reader | samples | p50 µs | p99 µs | "
      "p99.9 µs | max µs |\n|---|---|---|---|---|---|\n",
      w.steadyRate);
  for (uint32_t k = 0; k < kKinds; k++) {
    fmt::print("| {} | {} | {:.1f} | {:.1f} | {:.1f} | {:.1f} |\n",
               k == kOurs ? "write -> callback (doSlot)" : kKindNames[k], sp[k].n, sp[k].p50,
               sp[k].p99, sp[k].p999, sp[k].max);
  }
  fmt::print("\n| steady ratio of write -> callback to | p50 | p99 | p99.9 |\n|---|---|---|---|\n");
  for (uint32_t k = kSocket; k < kKinds; k++) {
    fmt::print("| {} | {:.2f} | {:.2f} | {:.2f} |\n", kKindNames[k], sp[kOurs].p50 / sp[k].p50,
               sp[kOurs].p99 / sp[k].p99, sp[kOurs].p999 / sp[k].p999);
  }

  auto const& t = w.tp;
  fmt::print("\n| throughput, one reader | figure |\n|---|---|\n");
  fmt::print("| writes ({} inserts, {} overwrites over {} keys) | {} |\n", t.inserts, t.overwrites,
             o.keys, t.writes);
  fmt::print("| written, changes/s | {:.0f} |\n", double(t.writes) / t.writerSeconds);
  fmt::print("| taken in by the reader (caught up with the last), changes/s | {:.0f} |\n",
             double(t.writes) / t.readerSeconds);
  fmt::print("| reader caught up after the writer's last write, ms | {:.2f} |\n",
             t.lagSeconds * 1e3);
  fmt::print("| queue entries handed to doSlot | {} |\n", t.entries);
  fmt::print("| changes collapsed (a later change of the row came first) or swept | {} |\n",
             t.writes > t.entries ? t.writes - t.entries : 0);
  fmt::print("| sweeps (overrun: resync) | {} ({} slot visits) |\n", t.sweeps, t.sweepVisits);
  fmt::print(
      "| reader's walks; its Sleeping messages; wakes the writer sent / the reader read | "
      "{}; {}; {} / {} |\n",
      t.walks, t.sleeps, t.wakesSent, t.wakesRead);

  auto const& c = w.nc;
  fmt::print("\n| writer's wake-up check | ns |\n|---|---|\n");
  auto runs = [](std::vector<double> const& v) {
    std::string s = fmt::format("{:.1f}", median(v));
    if (v.size() > 1) {
      s += " (runs:";
      for (double x : v) s += fmt::format(" {:.1f}", x);
      s += ")";
    }
    return s;
  };
  fmt::print("| overwrite, a reader connected and awake (median of {} runs of {} writes) | {} |\n",
             o.costRepeats, c.writesPerRun, runs(c.writeAwake));
  fmt::print("| overwrite, no reader connected (the runs alternate with those above) | {} |\n",
             runs(c.writeNone));
  fmt::print("| WriterRuskSm::notify alone, no connection | {:.1f} |\n", c.notifyNoneNs);
  fmt::print("| WriterRuskSm::notify alone, one connected reader awake | {:.1f} |\n",
             c.notifyAwakeNs);
  fmt::print("| of which its clock: Lomi::Rdtsc::now() alone | {:.1f} |\n", c.rdtscNs);
}

void printFanout(WriterProcess const& w) {
  auto const& f = w.fan;
  double const mib = double(f.tableBytes) / (1024.0 * 1024.0);
  fmt::print("\n| fan-out table: {} rows, filled at | {:.0f} rows/s |\n|---|---|\n", f.rows,
             double(f.rows) / f.fillSeconds);
  // Each run too, in order: the first copy of a process can meet memory
  // the machine has not handed out before.
  auto runs = [](std::vector<double> const& v) {
    std::string out;
    for (double ms : v) out += fmt::format("{}{:.1f}", out.empty() ? "" : ", ", ms);
    return out;
  };
  fmt::print("| resync of a fresh value shadow, ms (median of {}; each run) | {:.1f}; {} |\n",
             f.resyncValueMs.size(), median(f.resyncValueMs), runs(f.resyncValueMs));
  fmt::print("| resync of a fresh keyshadow, ms (median of {}; each run) | {:.1f}; {} |\n",
             f.resyncKeyMs.size(), median(f.resyncKeyMs), runs(f.resyncKeyMs));
  fmt::print("| one read of every cache line of the slot file ({:.0f} MiB, fresh mapping), ms | {:.1f} |\n", mib,
             median(f.slotReadMs));
  fmt::print("| first write of fresh private memory as large as a value shadow's copy ({:.0f} MiB), ms | {:.1f} |\n",
             double(f.copyValueBytes) / 1048576.0, median(f.touchValueMs));
  fmt::print("| the same for a keyshadow's copy ({:.0f} MiB), ms | {:.1f} |\n",
             double(f.copyKeyBytes) / 1048576.0, median(f.touchKeyMs));
  fmt::print("| the value shadow's, its pages faulted in by one call first (MADV_POPULATE_WRITE), ms | {:.1f} |\n",
             median(f.prefaultValueMs));
  fmt::print("| the keyshadow's, the same way, ms | {:.1f} |\n", median(f.prefaultKeyMs));
  fmt::print("| the value shadow's, huge pages asked for (MADV_HUGEPAGE), then faulted in by one call, ms | {:.1f} |\n",
             median(f.hugeValueMs));
  fmt::print("| the keyshadow's, the same way, ms | {:.1f} |\n", median(f.hugeKeyMs));
  double rate0 = 0;
  int zeros = 0;
  for (auto const& r : f.runs) {
    if (r.shadows == 0) {
      rate0 += double(f.rows) / r.writerSeconds;
      zeros++;
    }
  }
  rate0 /= std::max(zeros, 1);
  fmt::print(
      "\n| shadows | writer, changes/s | writer vs none | slowest shadow followed, changes/s | "
      "per CPU-second of the busiest shadow | copies equal | callbacks per change | walks; "
      "Sleepings; wakes sent / read | reader system calls per change |\n"
      "|---|---|---|---|---|---|---|---|---|\n");
  for (auto const& r : f.runs) {
    double const rate = double(f.rows) / r.writerSeconds;
    double slowest = 0;
    uint64_t wrong = 0, callbacks = 0, walks = 0, sleeps = 0, wakesRead = 0, resyncs = 0;
    double cpu = 0;
    for (size_t i = 0; i < r.followSeconds.size(); i++) {
      slowest = std::max(slowest, r.followSeconds[i]);
      cpu = std::max(cpu, double(r.figures[i].cpuNs) / 1e9);
      wrong += r.figures[i].wrong;
      callbacks += r.figures[i].callbacks;
      walks += r.figures[i].walks;
      sleeps += r.figures[i].sleepsSent;
      wakesRead += r.figures[i].wakesRead;
      resyncs += r.figures[i].resyncs;
    }
    std::string const followed =
        r.shadows ? fmt::format("{:.0f}", double(f.rows) / slowest) : std::string("-");
    std::string const perCpu =
        r.shadows ? fmt::format("{:.0f}", double(f.rows) / cpu) : std::string("-");
    std::string const equal =
        r.shadows ? (wrong == 0 ? fmt::format("yes; overrun sweeps {}", resyncs - r.shadows)
                                : fmt::format("NO: {} rows wrong", wrong))
                  : std::string("-");
    std::string const perChange =
        r.shadows ? fmt::format("{:.3f}", double(callbacks) / (double(f.rows) * r.shadows))
                  : std::string("-");
    std::string const wakes = r.shadows ? fmt::format("{}; {}; {} / {}", walks, sleeps,
                                                      r.wakesSent, wakesRead)
                                        : std::string("-");
    // A shadow's wake-up costs it epoll_wait, one recv of the Wake and one
    // send of its Sleeping; a walk it runs without sleeping costs nothing.
    std::string const calls =
        r.shadows ? fmt::format("{:.6f}", double(sleeps + 2 * wakesRead) /
                                              (double(f.rows) * r.shadows))
                  : std::string("-");
    fmt::print("| {} | {:.0f} | {:.2f} | {} | {} | {} | {} | {} | {} |\n", r.shadows, rate,
               rate / rate0, followed, perCpu, equal, perChange, wakes, calls);
  }
}

// The steady-rate latencies of the three kinds as a CDF: one line per
// quantile, a column of microseconds per kind; the tail is sampled finer.
void writeCdf(Options const& o, WriterProcess const& w) {
  std::vector<uint64_t> sorted[kKinds];
  for (uint32_t k = 0; k < kKinds; k++) {
    sorted[k] = w.steadyOf(Kind(k));
    std::sort(sorted[k].begin(), sorted[k].end());
  }
  std::FILE* out = std::fopen(o.cdfFile.c_str(), "w");
  if (!out) throw Failure("cannot write " + o.cdfFile);
  fmt::print(out, "# fraction  write->callback_us  socket_pair_us  eventfd_us ({} samples each)\n",
             o.steadySamples);
  std::vector<double> qs;
  for (int i = 1; i <= 900; i++) qs.push_back(i / 1000.0);
  for (int i = 1; i <= 99; i++) qs.push_back(0.9 + i / 1000.0);
  for (int i = 1; i <= 99; i++) qs.push_back(0.99 + i / 10000.0);
  for (int i = 1; i <= 10; i++) qs.push_back(0.999 + i / 10000.0);
  for (double q : qs) {
    fmt::print(out, "{:.4f}", q);
    for (uint32_t k = 0; k < kKinds; k++) {
      size_t const n = sorted[k].size();
      size_t const rank = std::min(n, std::max<size_t>(1, size_t(std::ceil(q * double(n)))));
      fmt::print(out, " {:.2f}", double(sorted[k][rank - 1]) / 1000.0);
    }
    fmt::print(out, "\n");
  }
  std::fclose(out);
}

std::string timeNow() {
  time_t const t = ::time(nullptr);
  char buf[64];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M UTC", std::gmtime(&t));
  return buf;
}

}  // namespace

int main(int argc, char** argv) {
  std::optional<Options> parsed = parse(argc, argv);
  if (!parsed) {
    usage();
    return 2;
  }
  Options const o = *parsed;
  std::string const started = timeNow();

  char tmpl[] = "/dev/shm/flowtables-changepath-XXXXXX";
  if (::mkdtemp(tmpl) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  std::string const root = tmpl;
  Mem::RootPath::baseIs(root);

  size_t const arrays = sizeof(uint64_t) * (size_t(kKinds) * o.samples +
                                            size_t(kKinds) * o.steadySamples + o.steadySamples);
  size_t const sharedSize = sizeof(Shared) + arrays + sizeof(FollowerFigures) * kFollowers;
  void* mem =
      ::mmap(nullptr, sharedSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  int commands[2], replies[2], pair[2];
  int const efd = ::eventfd(0, EFD_CLOEXEC);
  if (mem == MAP_FAILED || ::pipe2(commands, O_CLOEXEC) != 0 || ::pipe2(replies, O_CLOEXEC) != 0 ||
      ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0 || efd < 0) {
    std::perror("change_path: set-up");
    std::filesystem::remove_all(root);
    return 1;
  }
  auto& shared = *static_cast<Shared*>(mem);
  auto* seen = reinterpret_cast<uint64_t*>(static_cast<char*>(mem) + sizeof(Shared));

  auto* figures =
      reinterpret_cast<FollowerFigures*>(static_cast<char*>(mem) + sizeof(Shared) + arrays);

  pid_t const parent = ::getpid();
  // The followers first, before the table exists, as the reader.
  std::vector<FollowerLink> followers;
  std::vector<pid_t> followerPids;
  for (uint32_t f = 0; f < kFollowers; f++) {
    int fc[2], fr[2];
    if (::pipe2(fc, O_CLOEXEC) != 0 || ::pipe2(fr, O_CLOEXEC) != 0) {
      std::perror("change_path: follower pipes");
      return 1;
    }
    pid_t const pid = ::fork();
    if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) ::_exit(1);
      ::close(fc[1]);
      ::close(fr[0]);
      int rc;
      try {
        FollowerProcess process(o, figures[f], FollowerEnds{fc[0], fr[1]});
        rc = process.run();
      } catch (std::exception const& e) {
        std::fprintf(stderr, "change_path follower: %s\n", e.what());
        rc = 1;
      }
      ::_exit(rc);
    }
    ::close(fc[0]);
    ::close(fr[1]);
    followers.push_back(FollowerLink{fc[1], fr[0], &figures[f], {}, false});
    followerPids.push_back(pid);
  }
  pid_t const reader = ::fork();
  if (reader == 0) {
    // The reader dies with the writer, so that a failed run leaves nothing behind.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(1);
    ::close(commands[1]);
    ::close(replies[0]);
    ::close(pair[0]);
    int rc;
    try {
      ReaderProcess process(o, shared, seen, ReaderEnds{commands[0], replies[1], pair[1], efd});
      rc = process.run();
    } catch (std::exception const& e) {
      std::fprintf(stderr, "change_path reader: %s\n", e.what());
      rc = 1;
    }
    ::_exit(rc);
  }
  ::close(commands[0]);
  ::close(replies[1]);
  ::close(pair[1]);

  int rc = 0;
  try {
    WriterProcess w(o, shared, seen, reader, commands[1], replies[0], pair[0], efd, followers);
    w.run();
    for (pid_t pid : followerPids) {
      int status = 0;
      if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw Failure(fmt::format("a follower process ended with status {:#x}", status));
      }
    }
    followerPids.clear();
    int status = 0;
    if (::waitpid(reader, &status, 0) != reader || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      throw Failure(fmt::format("the reader process ended with status {:#x}", status));
    }
    printResults(o, w, "started " + started);
    if (!o.cdfFile.empty() && !o.fanOnly) writeCdf(o, w);
  } catch (std::exception const& e) {
    std::fprintf(stderr, "change_path: FAILED: %s\n", e.what());
    ::kill(reader, SIGKILL);
    ::waitpid(reader, nullptr, 0);
    for (pid_t pid : followerPids) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
    rc = 1;
  }
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  return rc;
}
