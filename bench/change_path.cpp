// The change path between two processes: how long a change takes from the
// writer's write to the doSlot of a reader process that sleeps, beside the
// floor of waking a sleeping process at all (a Unix socket pair, an eventfd);
// how many changes per second one reader takes in from a writer at full
// speed; and what the writer's wake-up check costs per notify. A plain
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
#include "Mem/RootPath.h"
#include "Mirak/MirakShadowBase.h"
#include "Rusk/ReaderRuskSm.h"
#include "Rusk/WriterRuskSm.h"

namespace {

using BenchRows::rowOf;
using BenchRows::Value;
using Writer = FlowTracking::HoIpFlowConfigWriter;
using Reader = FlowTracking::HoIpFlowConfigReader;

constexpr char kTable[] = "bench/changepath";
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
  // Then seen[kKinds][samples]: t1 of each sample, 0 until it came.
};

struct Command {
  enum Op : uint32_t { attach, detach, latency, throughput, stop } op;
  Kind kind;
  uint32_t first;
  uint32_t last;
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

// ---------------------------------------------------------------------------
// The reader process.

// A shadow that keeps a plain copy of each slot and stamps the latency
// samples it is handed.
class ProbeShadow : public Mirak::MirakShadowBase {
 public:
  explicit ProbeShadow(uint64_t* seen)
      : MirakShadowBase(handler(), Mem::NaoRootPath(handler(), kTable, false), 0),
        reader_(handler(), kTable, FlowTracking::HoIpFlowConfigOps(0)),
        seen_(seen) {}

  bool start() {
    if (!reader_.initialize("bench")) return false;
    copy_.assign(reader_.maxSize(), Value());
    return initializeTessel(reader_.kestorId().value());
  }
  void stop() {
    detachTessel();
    reader_.detach(false);
  }
  bool following() const {
    return synced() && syncFromTessel() && tesselReader().quiesced() && ruskSm().connected();
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
    return reader_.capacity();
  }

  // Samples [first, last) of the ours kind are stamped from now on.
  void stampingIs(bool on, uint32_t first = 0, uint32_t last = 0) {
    stamping_ = on;
    first_ = first;
    last_ = last;
    stamped = 0;
  }

  uint64_t entries = 0, sweepVisits = 0, duplicates = 0, stamped = 0;
  bool disconnected = false;
  std::string corruption;

 private:
  Reader reader_;
  uint64_t* seen_;
  std::vector<Value> copy_;
  bool stamping_ = false;
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
      : o_(o), shared_(shared), seen_(seen), ends_(ends), shadow_(seen) {}

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

  bool receive(Command& c) {
    pollfd p{ends_.commands, POLLIN, 0};
    int rc;
    do {
      rc = ::poll(&p, 1, 60000);
    } while (rc < 0 && errno == EINTR);
    if (rc <= 0) return false;
    ssize_t n;
    do {
      n = ::read(ends_.commands, &c, sizeof c);
    } while (n < 0 && errno == EINTR);
    return n == sizeof c;
  }

  bool reply(char c) { return writeAll(ends_.replies, &c, 1); }

  int fail(std::string const& why) {
    std::snprintf(shared_.error, sizeof shared_.error, "%s", why.c_str());
    reply('f');
    return 1;
  }

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
  ReaderEnds ends_;
  ProbeShadow shadow_;
  int epSocket_ = -1;
  int epEventfd_ = -1;
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

class WriterProcess {
 public:
  WriterProcess(Options const& o, Shared& shared, uint64_t* seen, pid_t reader, int commands,
                int replies, int socket, int eventfd)
      : o_(o),
        shared_(shared),
        seen_(seen),
        commands_(commands),
        replies_(replies),
        socket_(socket),
        eventfd_(eventfd) {
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
    ::close(stat_);
  }

  void run() {
    Mirak::MapDescriptor d(std::max(o_.keys, kLatencyRows) + 1024);
    writer_ = std::make_unique<Writer>(handler(), kTable, d, FlowTracking::HoIpFlowConfigOps(0));
    writer_->initialize("bench");
    for (uint32_t i = 0; i < kLatencyRows; i++) writer_->write(rowOf(i, 0), true);
    command({Command::attach, kOurs, 0, 0});
    expect('d', "the reader attached");

    latency();
    throughput();
    notifyCost();

    command({Command::stop, kOurs, 0, 0});
    expect('d', "the reader stopped");
    writer_.reset();
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
  std::vector<uint64_t> t0_;
};

void usage() {
  std::fprintf(stderr,
               "usage: change_path [--quick] [--samples N] [--rounds N] [--writes N] [--keys N]\n"
               "                   [--timeout SECONDS]\n"
               "  --quick    a smoke run: 2,000 samples, 100,000 writes over 10,000 keys\n"
               "  --samples  latency samples of each kind (default 100,000)\n"
               "  --rounds   the kinds take turns this often (default 10)\n"
               "  --writes   writes of the throughput run (default 2,000,000)\n"
               "  --keys     rows they go to (default 100,000)\n"
               "  --timeout  seconds any one step may take before the run fails (default 10)\n");
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
    } else if (a == "--samples") {
      if (!number(o.samples)) return std::nullopt;
    } else if (a == "--rounds") {
      if (!number(o.rounds)) return std::nullopt;
    } else if (a == "--writes") {
      if (!number(o.writes)) return std::nullopt;
    } else if (a == "--keys") {
      if (!number(o.keys)) return std::nullopt;
    } else if (a == "--timeout") {
      uint32_t t;
      if (!number(t)) return std::nullopt;
      o.timeout = t;
    } else {
      return std::nullopt;
    }
  }
  if (o.rounds > o.samples) o.rounds = o.samples;
  return o;
}

void printResults(Options const& o, WriterProcess const& w, std::string const& when) {
  struct utsname u;
  ::uname(&u);
  fmt::print("change_path: {} latency samples of each kind in {} rounds; {}\n", o.samples, o.rounds,
             when);
  fmt::print("machine: {}, {} online cores, kernel {}, load {}\n\n",
             firstLine("/proc/cpuinfo", "model name"), ::sysconf(_SC_NPROCESSORS_ONLN), u.release,
             firstLine("/proc/loadavg"));

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

  size_t const sharedSize = sizeof(Shared) + sizeof(uint64_t) * kKinds * o.samples;
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

  pid_t const parent = ::getpid();
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
    WriterProcess w(o, shared, seen, reader, commands[1], replies[0], pair[0], efd);
    w.run();
    int status = 0;
    if (::waitpid(reader, &status, 0) != reader || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      throw Failure(fmt::format("the reader process ended with status {:#x}", status));
    }
    printResults(o, w, "started " + started);
  } catch (std::exception const& e) {
    std::fprintf(stderr, "change_path: FAILED: %s\n", e.what());
    ::kill(reader, SIGKILL);
    ::waitpid(reader, nullptr, 0);
    rc = 1;
  }
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  return rc;
}
