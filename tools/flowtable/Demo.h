// `flowtable demo`: the library's main job in one command, on real files and
// real processes. This process is the agent that writes; a forked child is
// the agent that reads. Both mount the IPv4 offload config and status
// collections through their entities and sentries; the reader attaches by
// itself from its event loop once the writer's files are complete.
//
// The steps, each verified by the reader process before the next starts:
//   1. N flows written (a config row and a status row each, status pending),
//      with a progress bar;
//   2. every status set to offloaded;
//   3. every second flow removed;
//   4. every second of those left removed too: a quarter remains, which takes
//      the tables below their shrink threshold (fewer than half of the
//      largest power of two below the capacity), so, with slot compaction
//      on, they compact while the reader keeps its mapping;
// then a summary: rows, rates, slot capacity before and after compaction,
// and the reader's checks. Exit 0 only if every check passed.
//
// Contract: runDemo mounts under `root` (an existing directory, already set
// as the base with Mem::RootPath::baseIs) and leaves the tables there; the
// caller removes a temporary root. Failures throw Lomi::Exception kinds whose
// message names the table and the check that failed.
//
// Header-only: the tool is its only user (included once, by main.cpp).
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <fmt/format.h>

#include "FlowTracking/Factories.h"
#include "Lomi/EventLoop.h"
#include "Lomi/Exception.h"
#include "Mem/RootPath.h"
#include "Mirak/MapDescriptor.h"

namespace FlowtableCli {

struct DemoOptions {
  std::string root;
  uint32_t flows = 100000;
  bool keep = false;        // the root stays afterwards (--root given)
  bool progress = true;     // a progress bar on stderr
  std::FILE* out = stdout;  // the summary
};

namespace Demo {

using namespace FlowTracking;

// Seconds the reader's event loop may take to bring a mount.
constexpr double kMountWait = 30;

inline double monoNow() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Flow i: a distinct 5-tuple for every i below 2^32 (the source address
// carries i), on one of 48 interfaces.
inline IpFlowKey flowKey(uint32_t i) {
  IpFlowKey k;
  k.vrfIdIs(i % 4);
  k.srcAddrIs(Nimbet::IpAddr(0x0a000000u + i));
  k.dstAddrIs(Nimbet::IpAddr(0xc0a80000u + (i * 2654435761u >> 16)));
  k.ipProtocolIs(Nimbet::IpProtocol(i % 3 ? 6 : 17));
  k.srcPortIs(static_cast<uint16_t>(1024 + i % 50000));
  k.dstPortIs(static_cast<uint16_t>(i % 2 ? 443 : 53));
  return k;
}
inline HoIpFlowKey hoKey(uint32_t i) {
  return HoIpFlowKey(flowKey(i), Nimbet::IntfId(1000 + i % 48, 0));
}
inline HoIpFlowConfig configRow(uint32_t i) {
  HoIpFlowConfig r(hoKey(i));
  r.createTimeIs(1.0e9 + i * 0.001);
  r.updateTimeIs(1.0e9 + i * 0.001);
  r.cachedIntfIdIs(Nimbet::IntfId(2000 + i % 48, 0));
  return r;
}
inline HoIpFlowStatus statusRow(uint32_t i, HoFlowState state) {
  HoIpFlowStatus r(hoKey(i));
  r.hoFlowStateIs(state);
  r.createTimeIs(1.0e9 + i * 0.001);
  r.updateTimeIs(1.0e9 + i * 0.001 + (state == hoFlowStatePending ? 0 : 1));
  return r;
}

// The steps the writer announces and the reader verifies.
enum Step : int32_t { attached = 1, written, updated, removed, quartered, verified, done };

// The flows still live after `step`: all, every second, every fourth.
inline bool live(Step step, uint32_t i) {
  if (step == removed) return i % 2 == 0;
  if (step == quartered) return i % 4 == 0;
  return true;
}

struct Msg {
  int32_t step = 0;
  uint32_t checked = 0;     // rows the reader compared
  uint32_t mismatches = 0;  // rows that were wrong, missing or unexpected
  uint32_t firstBad = 0;    // the first wrong flow's number
  double seconds = 0;
};

// One direction of a pipe between the two agents; messages are fixed-size
// and far below PIPE_BUF, so a write is atomic.
class Channel {
 public:
  Channel() {
    if (::pipe(fd_) != 0) {
      throw Lomi::RuntimeException("demo: cannot make a pipe: {}", std::strerror(errno));
    }
  }
  ~Channel() {
    closeRead();
    closeWrite();
  }
  Channel(Channel const&) = delete;
  Channel& operator=(Channel const&) = delete;

  void closeRead() {
    if (fd_[0] >= 0) ::close(fd_[0]);
    fd_[0] = -1;
  }
  void closeWrite() {
    if (fd_[1] >= 0) ::close(fd_[1]);
    fd_[1] = -1;
  }
  int readFd() const { return fd_[0]; }
  bool send(Msg const& m) const {
    ssize_t n;
    do n = ::write(fd_[1], &m, sizeof m);
    while (n < 0 && errno == EINTR);
    return n == ssize_t(sizeof m);
  }
  // False at end of file (the other side is gone).
  bool receive(Msg& m) const {
    ssize_t n;
    do n = ::read(fd_[0], &m, sizeof m);
    while (n < 0 && errno == EINTR);
    return n == ssize_t(sizeof m);
  }

 private:
  int fd_[2] = {-1, -1};
};

// The entities of one agent, under one parent: the same names in both
// processes give the same table directories.
struct Agent {
  Zeb::Ptr<HoFlowConfig> parent = hoFlowConfigFactory("demo");
  Zeb::Ptr<HoFlowConfig> config = hoFlowConfigFactory("config");
  Zeb::Ptr<HoFlowStatus> status = hoFlowStatusFactory("status");

  Agent() {
    config->parentIs(parent.get());
    status->parentIs(parent.get());
  }
  // Leaving the tree detaches both collections, as an agent's shutdown does.
  ~Agent() {
    status->parentIs(nullptr);
    config->parentIs(nullptr);
  }
  void mount(Mirak::MapDescriptor const& d) {
    config->hoIpFlowConfigControl()->init(d);
    status->hoIpFlowStatusControl()->init(d);
  }
  bool mounted() const {
    return config->hoIpFlowConfigControlRaw()->mountStatus() == 1 &&
           status->hoIpFlowStatusControlRaw()->mountStatus() == 1;
  }
};

// Compares the tables with what the writer wrote after `step`: the live
// flows below `flows`, statuses pending or offloaded. Lookups of every flow, then full walks that
// must meet exactly the live rows.
inline Msg verify(Agent const& a, Step step, uint32_t flows) {
  Msg m;
  m.step = verified;
  double const start = monoNow();
  auto const& configs = a.config->hoIpFlowConfig();
  auto const& statuses = a.status->hoIpFlowStatus();
  HoFlowState const state = step == written ? hoFlowStatePending : hoFlowStateOffloaded;
  auto bad = [&](uint32_t i) {
    if (m.mismatches++ == 0) m.firstBad = i;
  };
  uint32_t liveRows = 0;
  for (uint32_t i = 0; i < flows; i++) {
    bool const present = live(step, i);
    liveRows += present;
    bool found = false;
    auto const* c = configs.safeLookup(hoKey(i), found, nullptr);
    if (found != present || (found && !(*c == TableValue<HoIpFlowConfig>(configRow(i))))) bad(i);
    auto const* s = statuses.safeLookup(hoKey(i), found, nullptr);
    if (found != present || (found && !(*s == TableValue<HoIpFlowStatus>(statusRow(i, state))))) {
      bad(i);
    }
    m.checked += 2;
  }
  uint32_t walked = 0;
  for (HoFlowConfig::HoIpFlowConfigMap::IteratorConst it(&configs); it.valid(); it.advance()) {
    walked++;
  }
  if (walked != liveRows) bad(flows);
  walked = 0;
  for (HoFlowStatus::HoIpFlowStatusMap::IteratorConst it(&statuses); it.valid(); it.advance()) {
    if (it.row().hoFlowState() != state) bad(flows);
    walked++;
  }
  if (walked != liveRows) bad(flows);
  m.checked += 2 * liveRows;
  m.seconds = monoNow() - start;
  return m;
}

// Waits for the writer's next message, running this process's event loop
// meanwhile so that the sentries keep the mounts current.
inline bool await(Channel const& in, Msg& msg) {
  Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
  bool got = false, ok = false;
  loop.fdWatcherIs(in.readFd(), EPOLLIN, [&](uint32_t) {
    ok = in.receive(msg);
    got = true;
  });
  // The writer may take long to write a large table; its end of the pipe
  // closing (got, not ok) ends the wait too.
  while (!loop.runUntil([&] { return got; }, kMountWait)) {
  }
  loop.fdWatcherDel(in.readFd());
  return ok;
}

// The reader agent's whole life; its exit status: 0, or the step that failed.
inline int readerAgent(Channel const& out, Channel const& in, uint32_t flows) {
  Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
  Agent a;
  Mirak::MapDescriptor d(0);
  d.type = Mirak::MirakType::reader;
  a.mount(d);
  // Nothing but the loop brings the mount: the sentries see the writer's
  // kestor files appear and attach.
  double const start = monoNow();
  if (!loop.runUntil([&] { return a.mounted(); }, kMountWait)) return 10;
  if (!out.send(Msg{attached, 0, 0, 0, monoNow() - start})) return 11;
  for (;;) {
    Msg cmd;
    if (!await(in, cmd)) return 12;
    if (cmd.step == done) return 0;
    if (!out.send(verify(a, Step(cmd.step), flows))) return 13;
  }
}

inline uint64_t allocatedBytes(std::string const& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return 0;
  return uint64_t(st.st_blocks) * 512u;
}

class ProgressBar {
 public:
  ProgressBar(bool on, char const* what, uint32_t total)
      : on_(on), tty_(::isatty(2)), what_(what), total_(total) {}
  void at(uint32_t n) {
    if (!on_ || !tty_ || total_ == 0) return;
    unsigned const pct = unsigned(uint64_t(n) * 100 / total_);
    if (pct == shown_) return;
    shown_ = pct;
    draw(n, pct);
  }
  // The bar at 100%, with a newline: the only line a log file gets.
  void finish() {
    if (!on_) return;
    draw(total_, 100);
    std::fputc('\n', stderr);
  }

 private:
  void draw(uint32_t n, unsigned pct) {
    constexpr unsigned kWidth = 40;
    unsigned const full = pct * kWidth / 100;
    fmt::print(stderr, "\r{:<14} [{}{}] {:3}% {}/{}", what_, std::string(full, '#'),
               std::string(kWidth - full, '.'), pct, n, total_);
    std::fflush(stderr);
  }
  bool on_, tty_;
  char const* what_;
  uint32_t total_;
  unsigned shown_ = ~0u;
};

// Sends `step` to the reader and waits for its verdict; throws with the
// table and the first wrong flow when the reader found a difference.
inline Msg checkedBy(Channel const& toReader, Channel const& fromReader, Step step,
                     char const* what) {
  if (!toReader.send(Msg{step})) {
    throw Lomi::RuntimeException("demo: the reader process is gone (before checking {})", what);
  }
  Msg m;
  if (!fromReader.receive(m) || m.step != verified) {
    throw Lomi::RuntimeException("demo: the reader process is gone (while checking {})", what);
  }
  if (m.mismatches) {
    throw Lomi::CorruptionDetectedException(
        "demo: the reader found {} wrong rows in config/hoIpFlowConfig or "
        "status/hoIpFlowStatus after {}, the first at flow {}",
        m.mismatches, what, m.firstBad);
  }
  return m;
}

inline std::string rate(uint64_t n, double seconds) {
  double const r = seconds > 0 ? double(n) / seconds : 0;
  return r >= 1e6 ? fmt::format("{:.2f} M/s", r / 1e6) : fmt::format("{:.0f} k/s", r / 1e3);
}

}  // namespace Demo

// Runs the demo; returns the exit code (0: every check passed).
inline int runDemo(DemoOptions const& o) {
  using namespace Demo;
  Channel toReader, fromReader;
  std::fflush(nullptr);
  pid_t const reader = ::fork();
  if (reader < 0) {
    throw Lomi::RuntimeException("demo: cannot fork the reader process: {}", std::strerror(errno));
  }
  if (reader == 0) {
    toReader.closeWrite();
    fromReader.closeRead();
    int rc;
    try {
      rc = readerAgent(fromReader, toReader, o.flows);
    } catch (Lomi::Exception const& e) {
      fmt::print(stderr, "flowtable: demo reader: {}\n", e.msg());
      rc = 20;
    } catch (std::exception const& e) {
      fmt::print(stderr, "flowtable: demo reader: {}\n", e.what());
      rc = 21;
    }
    std::fflush(nullptr);
    ::_exit(rc);
  }
  toReader.closeRead();
  fromReader.closeWrite();
  // The reader is reaped on every way out; a writer that fails first closes
  // its pipe, which ends the reader's wait.
  struct Reaper {
    pid_t pid;
    Channel& toReader;
    int status = -1;
    int reap() {
      if (pid > 0) {
        toReader.closeWrite();
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        pid = 0;
      }
      return status;
    }
    ~Reaper() { reap(); }
  } reaper{reader, toReader};

  double const t0 = monoNow();
  Agent a;
  Mirak::MapDescriptor d(o.flows < 1024 ? 1024 : o.flows);
  d.type = Mirak::MirakType::writer;
  d.shrinkSlots = true;
  a.mount(d);
  auto& configs = a.config->hoIpFlowConfig();
  auto& statuses = a.status->hoIpFlowStatus();
  fmt::print(o.out, "flowtable demo: {} flows under {}\n", o.flows, o.root);
  fmt::print(o.out, "writer pid {} mounted {} and {}; reader pid {}\n", ::getpid(),
             configs.rootPath().str(), statuses.rootPath().str(), reader);
  std::fflush(o.out);

  Msg m;
  if (!fromReader.receive(m) || m.step != attached) {
    throw Lomi::RuntimeException("demo: the reader process did not attach to {} within {} s",
                                 configs.rootPath().str(), kMountWait);
  }
  double const attachSeconds = m.seconds;

  ProgressBar writeBar(o.progress, "writing flows", o.flows);
  double t = monoNow();
  for (uint32_t i = 0; i < o.flows; i++) {
    a.config->hoIpFlowConfigIs(configRow(i));
    a.status->hoIpFlowStatusIs(statusRow(i, hoFlowStatePending));
    writeBar.at(i + 1);
  }
  writeBar.finish();
  double const writeSeconds = monoNow() - t;
  uint32_t const capacityFull = configs.capacity();
  uint64_t const bytesFull = allocatedBytes(configs.rootPath().filePath("slots"));
  Msg const readWritten = checkedBy(toReader, fromReader, written, "the writes");

  t = monoNow();
  for (uint32_t i = 0; i < o.flows; i++) {
    a.status->hoIpFlowStatusIs(statusRow(i, hoFlowStateOffloaded));
  }
  double const updateSeconds = monoNow() - t;
  Msg const readUpdated = checkedBy(toReader, fromReader, updated, "the status updates");

  ProgressBar removeBar(o.progress, "removing half", o.flows - o.flows / 2);
  t = monoNow();
  uint32_t removedCount = 0;
  for (uint32_t i = 1; i < o.flows; i += 2) {
    a.config->hoIpFlowConfigDel(hoKey(i));
    a.status->hoIpFlowStatusDel(hoKey(i));
    removeBar.at(++removedCount);
  }
  removeBar.finish();
  double const removeSeconds = monoNow() - t;
  uint32_t const capacityHalf = configs.capacity();
  Msg const readRemoved = checkedBy(toReader, fromReader, removed, "the removal");

  t = monoNow();
  uint32_t agedCount = 0;
  for (uint32_t i = 2; i < o.flows; i += 4) {
    a.config->hoIpFlowConfigDel(hoKey(i));
    a.status->hoIpFlowStatusDel(hoKey(i));
    agedCount++;
  }
  double const ageSeconds = monoNow() - t;
  uint32_t const capacityAfter = configs.capacity();
  uint64_t const bytesAfter = allocatedBytes(configs.rootPath().filePath("slots"));
  Msg const readQuartered = checkedBy(toReader, fromReader, quartered, "the compaction");

  toReader.send(Msg{done});
  int const status = reaper.reap();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw Lomi::RuntimeException("demo: the reader process ended with status {}", status);
  }

  fmt::print(o.out, "reader   mounted as a reader, attached by its sentry in {:.1f} ms\n",
             attachSeconds * 1e3);
  fmt::print(o.out, "wrote    {} flows (a config and a status row each) in {:.3f} s, rows at {}\n",
             o.flows, writeSeconds, rate(2ull * o.flows, writeSeconds));
  fmt::print(o.out, "reader   checked {} rows by lookup and walk in {:.3f} s, at {}\n",
             readWritten.checked, readWritten.seconds,
             rate(readWritten.checked, readWritten.seconds));
  fmt::print(o.out, "updated  {} statuses to offloaded in {:.3f} s; reader verified in {:.3f} s\n",
             o.flows, updateSeconds, readUpdated.seconds);
  fmt::print(o.out, "removed  {} flows in {:.3f} s; reader verified {} left, {} gone in {:.3f} s\n",
             removedCount, removeSeconds, o.flows - removedCount, removedCount,
             readRemoved.seconds);
  fmt::print(o.out, "removed  {} more, a quarter left, in {:.3f} s; reader verified in {:.3f} s\n",
             agedCount, ageSeconds, readQuartered.seconds);
  if (capacityAfter < capacityFull) {
    fmt::print(o.out,
               "compacted config slots {} -> {} (still {} at half), slot file {} KiB -> {} KiB "
               "allocated\n",
               capacityFull, capacityAfter, capacityHalf, bytesFull / 1024, bytesAfter / 1024);
  } else {
    fmt::print(o.out, "demo FAILED: config slots stay at {} with {} in use, not compacted\n",
               capacityFull, configs.members());
    return 1;
  }
  fmt::print(o.out,
             "demo OK: {} flows written, read back, updated, removed and compacted in {:.2f} s\n",
             o.flows, monoNow() - t0);
  if (o.keep) {
    fmt::print(o.out, "the tables stay in {}: try flowtable --root {} ls\n", o.root, o.root);
  }
  return 0;
}

}  // namespace FlowtableCli
