// `flowtable demo`: the library's main job in one command, on real files and
// real processes. This process is the agent that writes; a forked child is
// the agent that reads, and a second child keeps a shadow of the status
// table. All mount the IPv4 offload config and status collections through
// their entities and sentries; the reader and the shadow attach by
// themselves from their event loops once the writer's files are complete.
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
//   5. probes: live flows (at most kProbes) set back to pending one at a
//      time, each timed from its write to the shadow's callback, then all
//      set to offloaded again;
// The shadow process checks its copy, caught up to the writer's sequence,
// after each step as the reader does. Then a summary: rows, rates, slot
// capacity before and after compaction, the reader's checks, and the
// shadow's changes followed, callbacks taken and latencies. Exit 0 only if
// every check passed.
//
// Contract: runDemo mounts under `root` (an existing directory, already set
// as the base with Mem::RootPath::baseIs) and leaves the tables there; the
// caller removes a temporary root. Failures throw Lomi::Exception kinds whose
// message names the table and the check that failed.
//
// Header-only: the tool is its only user (included once, by main.cpp).
#pragma once

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

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
// Flows timed from write to the shadow's callback, one at a time.
constexpr uint32_t kProbes = 1000;
// Seconds between two probes: the shadow goes back to sleep in between, so
// each probe is timed through a wake-up, as a lone change is.
constexpr double kProbeGap = 0.0002;

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

// The steps the writer announces and the reader and the shadow verify.
enum Step : int32_t { attached = 1, written, updated, removed, quartered, probed, verified, done };

// The flows still live after `step`: all, every second, every fourth.
inline bool live(Step step, uint32_t i) {
  if (step == removed) return i % 2 == 0;
  if (step == quartered || step == probed) return i % 4 == 0;
  return true;
}

// The flow of probe k: a live one after the quarter step.
inline uint32_t probeFlow(uint32_t k) { return 4 * k; }
inline uint32_t probes(uint32_t flows) { return std::min(kProbes, (flows + 3) / 4); }

// The status flow i has after `step`: pending after the writes and, for the
// probed flows, after the probes; offloaded otherwise.
inline HoFlowState stateAfter(Step step, uint32_t i, uint32_t flows) {
  if (step == written) return hoFlowStatePending;
  if (step == probed && i % 4 == 0 && i / 4 < probes(flows)) return hoFlowStatePending;
  return hoFlowStateOffloaded;
}

struct Msg {
  int32_t step = 0;
  uint32_t checked = 0;     // rows the reader compared
  uint32_t mismatches = 0;  // rows that were wrong, missing or unexpected
  uint32_t firstBad = 0;    // the first wrong flow's number
  double seconds = 0;
  uint64_t sequence = 0;  // from the writer: its status table's last change
  // From the shadow at the end: changes followed, callbacks taken, the
  // write-to-callback latency of the probes (p50, p99, in seconds).
  uint64_t changes = 0;
  uint64_t callbacks = 0;
  double p50 = 0;
  double p99 = 0;
};

// Write times of the probes, in memory shared by the writer and the shadow
// process (made before the fork); CLOCK_MONOTONIC is the same clock in both.
// A time is stored before its write, which the shadow takes in through the
// table's release and the queue's acquire: it reads a time only after it
// heard the change.
class ProbeTimes {
 public:
  explicit ProbeTimes(uint32_t n) : n_(n) {
    void* p = ::mmap(nullptr, bytes(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) {
      throw Lomi::RuntimeException("demo: cannot map the probe times: {}", std::strerror(errno));
    }
    times_ = new (p) std::atomic<double>[n_];
  }
  ~ProbeTimes() { ::munmap(times_, bytes()); }
  ProbeTimes(ProbeTimes const&) = delete;
  ProbeTimes& operator=(ProbeTimes const&) = delete;
  uint32_t size() const { return n_; }
  void at(uint32_t k, double t) { times_[k].store(t, std::memory_order_relaxed); }
  double at(uint32_t k) const { return times_[k].load(std::memory_order_relaxed); }

 private:
  size_t bytes() const { return std::max<size_t>(1, n_) * sizeof(std::atomic<double>); }
  uint32_t n_;
  std::atomic<double>* times_;
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
    HoIpFlowStatus const want = statusRow(i, stateAfter(step, i, flows));
    if (found != present || (found && !(*s == TableValue<HoIpFlowStatus>(want)))) {
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
    uint32_t const i = it.row().key().ipFlowKey().srcAddr().value() - 0x0a000000u;
    if (it.row().hoFlowState() != stateAfter(step, i, flows)) bad(flows);
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

// The shadow's client: counts the callbacks of the status collection and
// times the first one of each probe flow.
class ShadowClient : public Zeb::PtrInterface::NotifieeConst {
 public:
  explicit ShadowClient(uint32_t probes) : heardAt_(probes, 0) {}
  void onAttribute(Zeb::AttributeId id, void const* key) override {
    if (id != HoFlowStatus::hoIpFlowStatusId || key == nullptr) return;
    ++callbacks;
    if (!timing) return;
    uint32_t const i =
        static_cast<HoIpFlowKey const*>(key)->ipFlowKey().srcAddr().value() - 0x0a000000u;
    if (i % 4 == 0 && i / 4 < heardAt_.size() && heardAt_[i / 4] == 0) {
      heardAt_[i / 4] = monoNow();
      ++probesHeard;
    }
  }
  // Latencies of the probes heard, sorted.
  std::vector<double> latencies(ProbeTimes const& written) const {
    std::vector<double> l;
    for (uint32_t k = 0; k < heardAt_.size(); k++) {
      if (heardAt_[k] != 0) l.push_back(heardAt_[k] - written.at(k));
    }
    std::sort(l.begin(), l.end());
    return l;
  }
  uint64_t callbacks = 0;
  uint32_t probesHeard = 0;
  bool timing = false;

 private:
  std::vector<double> heardAt_;
};

// The shadow agent: the config table as a reader, the status table as a
// shadow with the default (asynchronous) descriptor, as an agent mounts one.
// Before each check it catches up to the writer's sequence; its exit status
// is 0 or the step that failed.
inline int shadowAgent(Channel const& out, Channel const& in, uint32_t flows,
                       ProbeTimes const& probeTimes) {
  Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
  Agent a;
  Zeb::Ptr<ShadowClient> client(new ShadowClient(probeTimes.size()));
  client->hasNotificationActiveIs(true);
  a.status->notifieeList().list->newMember(a.status.get(), client.get());
  Mirak::MapDescriptor reader(0);
  reader.type = Mirak::MirakType::reader;
  a.config->hoIpFlowConfigControl()->init(reader);
  Mirak::MapDescriptor shadow(0);
  shadow.type = Mirak::MirakType::shadow;
  a.status->hoIpFlowStatusControl()->init(shadow);
  auto const& statuses = a.status->hoIpFlowStatus();
  auto synced = [&] {
    return a.config->hoIpFlowConfigControlRaw()->mountStatus() == 1 &&
           statuses.mountStatus() == Mem::mountStatusSynchronized;
  };
  double const start = monoNow();
  if (!loop.runUntil(synced, kMountWait)) return 30;
  if (!out.send(Msg{attached, 0, 0, 0, monoNow() - start})) return 31;
  uint64_t const firstSequence = statuses.sequence();
  uint64_t const firstCallbacks = client->callbacks;
  for (;;) {
    Msg cmd;
    if (!await(in, cmd)) return 32;
    if (cmd.step == done) return 0;
    if (cmd.step == quartered) client->timing = true;  // the probes come next
    if (cmd.step == probed &&
        !loop.runUntil([&] { return client->probesHeard == probeTimes.size(); }, kMountWait)) {
      fmt::print(stderr, "flowtable: demo shadow: heard {} of {} probes ({} callbacks), at sequence {} of {}\n",
                 client->probesHeard, probeTimes.size(), client->callbacks, statuses.sequence(),
                 cmd.sequence);
      return 33;
    }
    if (!loop.runUntil([&] { return statuses.sequence() >= cmd.sequence; }, kMountWait)) {
      fmt::print(stderr, "flowtable: demo shadow: at sequence {} of {} after {} s; {}\n",
                 statuses.sequence(), cmd.sequence, kMountWait,
                 statuses.readerCounters().toString());
      return 34;
    }
    Msg m = verify(a, Step(cmd.step), flows);
    if (cmd.step == probed) {
      std::vector<double> const l = client->latencies(probeTimes);
      m.changes = statuses.sequence() - firstSequence;
      m.callbacks = client->callbacks - firstCallbacks;
      m.p50 = l.empty() ? 0 : l[l.size() / 2];
      m.p99 = l.empty() ? 0 : l[std::min(l.size() - 1, l.size() * 99 / 100)];
    }
    if (!out.send(m)) return 35;
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

// One child agent: its two channels and its process, reaped on every way out
// (a writer that fails first closes the channel, which ends the child's wait).
struct Child {
  char const* name;
  Channel to, from;
  pid_t pid = 0;
  int status = -1;

  explicit Child(char const* n) : name(n) {}
  // `other`: the other child, whose channels this one must not hold (a
  // child holding the other's write end would never see it close).
  template <typename Body>
  void start(Child& other, Body const& body) {
    std::fflush(nullptr);
    pid = ::fork();
    if (pid < 0) {
      throw Lomi::RuntimeException("demo: cannot fork the {} process: {}", name,
                                   std::strerror(errno));
    }
    if (pid == 0) {
      to.closeWrite();
      from.closeRead();
      for (Channel* c : {&other.to, &other.from}) {
        c->closeRead();
        c->closeWrite();
      }
      int rc;
      try {
        rc = body(static_cast<Channel const&>(from), static_cast<Channel const&>(to));
      } catch (Lomi::Exception const& e) {
        fmt::print(stderr, "flowtable: demo {}: {}\n", name, e.msg());
        rc = 20;
      } catch (std::exception const& e) {
        fmt::print(stderr, "flowtable: demo {}: {}\n", name, e.what());
        rc = 21;
      }
      std::fflush(nullptr);
      ::_exit(rc);
    }
    to.closeRead();
    from.closeWrite();
  }
  int reap() {
    if (pid > 0) {
      to.closeWrite();
      while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
      pid = 0;
    }
    return status;
  }
  ~Child() { reap(); }
};

// Sends `step` with the writer's sequence to each child and waits for their
// verdicts, running the writer's event loop meanwhile (it answers the
// shadow's wake-up socket); throws with the table and the first wrong flow
// when a child found a difference. The reader's verdict is returned first,
// the shadow's second.
inline std::pair<Msg, Msg> checkedBy(Child& reader, Child& shadow, Step step, uint64_t sequence,
                                     char const* what) {
  Msg cmd{step};
  cmd.sequence = sequence;
  Msg verdict[2];
  Child* children[2] = {&reader, &shadow};
  for (Child* c : children) {
    if (!c->to.send(cmd)) {
      throw Lomi::RuntimeException("demo: the {} process is gone (before checking {})", c->name,
                                   what);
    }
  }
  for (int k = 0; k < 2; k++) {
    Child const& c = *children[k];
    Msg& m = verdict[k];
    if (!await(c.from, m) || m.step != verified) {
      throw Lomi::RuntimeException("demo: the {} process is gone (while checking {})", c.name,
                                   what);
    }
    if (m.mismatches) {
      throw Lomi::CorruptionDetectedException(
          "demo: the {} found {} wrong rows in config/hoIpFlowConfig or "
          "status/hoIpFlowStatus after {}, the first at flow {}",
          c.name, m.mismatches, what, m.firstBad);
    }
  }
  return {verdict[0], verdict[1]};
}

inline std::string rate(uint64_t n, double seconds) {
  double const r = seconds > 0 ? double(n) / seconds : 0;
  return r >= 1e6 ? fmt::format("{:.2f} M/s", r / 1e6) : fmt::format("{:.0f} k/s", r / 1e3);
}

}  // namespace Demo

// Runs the demo; returns the exit code (0: every check passed).
inline int runDemo(DemoOptions const& o) {
  using namespace Demo;
  ProbeTimes probeTimes(probes(o.flows));
  Child reader("reader"), shadow("shadow");
  // A child writes to `from` (the parent reads it) and reads `to`.
  reader.start(shadow, [&](Channel const& from, Channel const& to) {
    return readerAgent(from, to, o.flows);
  });
  shadow.start(reader, [&](Channel const& from, Channel const& to) {
    return shadowAgent(from, to, o.flows, probeTimes);
  });

  double const t0 = monoNow();
  Agent a;
  Mirak::MapDescriptor d(o.flows < 1024 ? 1024 : o.flows);
  d.type = Mirak::MirakType::writer;
  d.shrinkSlots = true;
  a.mount(d);
  auto& configs = a.config->hoIpFlowConfig();
  auto& statuses = a.status->hoIpFlowStatus();
  fmt::print(o.out, "flowtable demo: {} flows under {}\n", o.flows, o.root);
  fmt::print(o.out, "writer pid {} mounted {} and {}; reader pid {}, shadow pid {}\n", ::getpid(),
             configs.rootPath().str(), statuses.rootPath().str(), reader.pid, shadow.pid);
  std::fflush(o.out);

  double attach[2] = {0, 0};
  Child* children[2] = {&reader, &shadow};
  for (int k = 0; k < 2; k++) {
    Msg m;
    if (!await(children[k]->from, m) || m.step != attached) {
      throw Lomi::RuntimeException("demo: the {} process did not attach to {} within {} s",
                                   children[k]->name, statuses.rootPath().str(), kMountWait);
    }
    attach[k] = m.seconds;
  }

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
  Msg const readWritten =
      checkedBy(reader, shadow, written, statuses.sequence(), "the writes").first;

  t = monoNow();
  for (uint32_t i = 0; i < o.flows; i++) {
    a.status->hoIpFlowStatusIs(statusRow(i, hoFlowStateOffloaded));
  }
  double const updateSeconds = monoNow() - t;
  Msg const readUpdated =
      checkedBy(reader, shadow, updated, statuses.sequence(), "the status updates").first;

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
  Msg const readRemoved =
      checkedBy(reader, shadow, removed, statuses.sequence(), "the removal").first;

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
  Msg const readQuartered =
      checkedBy(reader, shadow, quartered, statuses.sequence(), "the compaction").first;

  // Probes: one flow at a time set back to pending, each timed from its
  // write to the shadow's callback; in between the writer runs its loop, so
  // the shadow's "sleeping" reaches it and the next write wakes it.
  Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
  for (uint32_t k = 0; k < probeTimes.size(); k++) {
    probeTimes.at(k, monoNow());
    a.status->hoIpFlowStatusIs(statusRow(probeFlow(k), hoFlowStatePending));
    double const next = monoNow() + kProbeGap;
    do loop.runOnce(0);
    while (monoNow() < next);
  }
  Msg const shadowProbed =
      checkedBy(reader, shadow, probed, statuses.sequence(), "the probes").second;
  // The probed flows go back to offloaded: the tables end as the compaction
  // left them.
  for (uint32_t k = 0; k < probeTimes.size(); k++) {
    a.status->hoIpFlowStatusIs(statusRow(probeFlow(k), hoFlowStateOffloaded));
  }
  checkedBy(reader, shadow, quartered, statuses.sequence(), "the probed flows restored");

  for (Child* c : children) {
    c->to.send(Msg{done});
    int const status = c->reap();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      throw Lomi::RuntimeException("demo: the {} process ended with status {}", c->name, status);
    }
  }

  fmt::print(o.out, "reader   mounted as a reader, attached by its sentry in {:.1f} ms\n",
             attach[0] * 1e3);
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
             "shadow   mounted as a shadow of the status table, synchronised in {:.1f} ms; its copy "
             "equalled the table after every step\n",
             attach[1] * 1e3);
  fmt::print(o.out,
             "shadow   followed {} changes with {} callbacks; write to callback over {} probes: "
             "p50 {:.1f} us, p99 {:.1f} us\n",
             shadowProbed.changes, shadowProbed.callbacks, probeTimes.size(), shadowProbed.p50 * 1e6,
             shadowProbed.p99 * 1e6);
  fmt::print(o.out,
             "demo OK: {} flows written, read back, updated, removed and compacted in {:.2f} s\n",
             o.flows, monoNow() - t0);
  if (o.keep) {
    fmt::print(o.out, "the tables stay in {}: try flowtable --root {} ls\n", o.root, o.root);
  }
  return 0;
}

}  // namespace FlowtableCli
