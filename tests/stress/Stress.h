// Shared pieces of the reliability harness: the options of a run, the
// self-checking rows every mode writes, a reader loop that follows a table
// through writer restarts and re-formats, and the figures a mode prints.
//
// A row is a HoIpFlowCounter whose `bytes` is a checksum of its key, packets,
// hosEntries and createTime: a reader that copies half of one write and half
// of another sees a wrong checksum, so torn reads are counted, not guessed.
#pragma once

#include <signal.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "FlowTracking/ReaderTestUtil.h"
#include "FlowTracking/TableRows.h"

namespace Stress {

using Record = FlowTracking::HoIpFlowCounter;
using Value = FlowTracking::TableValue<Record>;
using Key = Record::Key;
using Writer = FlowTrackingTest::WriterOf<Record>;
using Reader = FlowTrackingTest::ReaderOf<Record>;

// Every option of every mode; a mode reads the ones it knows. Anything not
// given keeps the CI-sized default.
struct Options {
  double seconds = 3.0;
  uint32_t trials = 20;
  uint32_t cases = 200;
  uint32_t readers = 2;
  // Live entries swing between `low` and `high` ids out of `ids`, so the
  // table grows and, with compaction on, shrinks again.
  uint32_t ids = 20000;
  uint32_t high = 6000;
  uint32_t low = 40;
  // Writer restarts with a re-format, spread evenly over the run (hints).
  uint32_t restarts = 3;
  uint64_t seed = 20240611;
  bool verbose = false;
  // crash: whether the restarted writers salvage (--salvage on|off).
  bool salvage = true;
  // Output directory of the corpus mode.
  std::string dir;
};

// Parses "--name value" pairs; throws Lomi::RuntimeException naming a bad
// option or value.
Options parseOptions(int argc, char** argv, int first);

uint64_t checksumOf(Record const& r);
Value makeValue(uint32_t id, uint64_t packets);
inline bool intact(Value const& v) {
  return v.bytes() == checksumOf(v);
}
// The id a row was made from (its source address).
inline uint32_t idOf(Key const& k) {
  return k.srcAddr().value() - 0x0a000000u;
}

// The table settings of the torn and crash workloads: shared, with slot
// compaction and bucket shrink on.
Mirak::MapDescriptor workloadDescriptor(uint32_t size);

// What a writer process did; sent up a pipe, so plain data only. The counts
// are summed over writer lives.
#define STRESS_WRITER_COUNTS(X) \
  X(ops) X(cycles) X(slotGrows) X(compactions) X(slotsMoved) X(bucketGrows) X(bucketShrinks)
struct WriterFigures {
#define STRESS_FIELD(f) uint64_t f = 0;
  STRESS_WRITER_COUNTS(STRESS_FIELD)
  uint64_t mostCapacity = 0;
  uint64_t leastCapacityAfterGrowth = ~0ull;
  uint64_t validationsFailed = 0;
  // The generation and hash seed of the table it wrote.
  uint32_t kestor = 0;
  uint32_t hashSeed = 0;
  // Sums the counts; the generation is the newer one's.
  void add(WriterFigures const& o);
  std::string toString() const;
};

// Writes every pinned id (below `pinned`) once. Each write of a pinned id,
// here and in cycleLiveSet, takes `++writes` as its packets: a reader can
// tell an older value of a pinned id from a newer one.
void writePinned(Writer& w, uint32_t pinned, uint64_t& writes);

// The writer's workload until `end`: inserts, overwrites and removes that
// swing the live set between o.low and o.high ids of [pinned, o.ids), with
// overwrites of the pinned ids in between, so that the table grows its slots
// and buckets, compacts and halves them, and regrows into the slots it cut.
// Every cycle ends with a validation of the table.
WriterFigures cycleLiveSet(Writer& w, Options const& o, uint32_t pinned, uint64_t seed,
                           uint64_t& writes, std::chrono::steady_clock::time_point end);

// What a reader process saw; sent up a pipe, so plain data only. The counts
// after resizesFollowed are faults.
#define STRESS_READER_COUNTS(X)                                                           \
  X(reads) X(walks) X(walkEntries) X(attaches) X(retries) X(lookasideReads) X(resizesFollowed) \
  X(torn) X(wrongKey) X(walkDisorder) X(pinnedAbsent) X(walkBadPinned) X(corruptionExceptions)  \
  X(otherExceptions)
struct ReaderFigures {
  STRESS_READER_COUNTS(STRESS_FIELD)
#undef STRESS_FIELD
  char lastError[200] = {};
  void note(std::string const& text);
  void add(ReaderFigures const& o);
  std::string toString() const;
  // "readers saw wrong data" and "readers saw exceptions", as they apply.
  std::vector<std::string> faults() const;
};

// One lookup of `id` and its checks: a torn value or another key than
// asked for is counted in `f`. Returns whether the id was found; the value
// read is in `out`.
bool checkedLookup(Reader const& reader, uint32_t id, Value& out, ReaderFigures& f);

// The checks of one walk: every value whole, the order strictly increasing
// by (reversed hash, key), and each pinned id met exactly once. It keeps its
// findings until addTo, which adds what the walk's end allows.
class WalkCheck {
 public:
  enum class End {
    // It may have crossed a re-format: only its torn values count.
    crossedReformat,
    // An exception ended it: the order of what it returned still counts.
    cut,
    complete,
  };
  WalkCheck(Reader const& reader, uint32_t pinned);
  void entry(Value const& v);
  void addTo(ReaderFigures& f, End end) const;

 private:
  Reader const& reader_;
  std::vector<uint8_t> pinnedSeen_;
  bool havePrev_ = false;
  std::pair<uint32_t, Key> prev_{};
  ReaderFigures found_;
};

// Reader objects of table `name` on one generation of its files: attached
// together and let go together, as a sentry does when the kestor file names
// another generation (the writer re-formatted).
class AttachedReaders {
 public:
  AttachedReaders(std::string const& name, size_t count);
  // Attaches every object, or none while the writer is formatting (its kestor
  // file comes last) or the objects would see different generations. Counts
  // an attach in `f`.
  bool attach(ReaderFigures& f);
  // Adds the first object's counters to `f` and lets go of every object.
  void detach(ReaderFigures& f);
  bool attached() const { return !readers_.empty(); }
  Reader& operator[](size_t i) const { return *readers_[i]; }
  // The generation the kestor file names now.
  Parcel::KestorId current() const { return kestorFile_.read(); }
  // Whether the kestor file names another generation than the one attached.
  bool replaced() const { return current() != readers_[0]->kestorId(); }

 private:
  std::string name_;
  size_t count_;
  Parcel::KestorFile const kestorFile_;
  std::vector<std::unique_ptr<Reader>> readers_;
};

// Reads `name` until `stop()`: lookups of random ids in [0, ids), and a walk
// every 4096 reads checked for order. When the table's kestor file names
// another generation than the one attached (a re-format), or the reader
// cannot attach yet, it attaches again. Pinned ids (below `pinned`) must
// never be absent while the reader is attached, when `pinned` > 0.
ReaderFigures readUntil(std::string const& name, uint32_t ids, uint32_t pinned, uint64_t seed,
                        std::function<bool()> const& stop);

// The reader processes of a mode: reader r runs `body(r, stop)`, which
// returns once `stop` is readable, and sends up what it returned.
template <typename Figures>
class ReaderProcesses {
 public:
  using Body = std::function<Figures(uint32_t, FlowTrackingTest::RecordPipe const&)>;
  ReaderProcesses(uint32_t n, Body const& body) {
    for (uint32_t r = 0; r < n; r++) {
      pids_.push_back(
          FlowTrackingTest::forkChild([&, r] { return up_.send(body(r, stop_)) ? 0 : 3; }));
    }
  }
  // Stops every reader and returns what those that reported by the deadline
  // sent; `crashed` counts the readers that did not exit cleanly.
  std::vector<Figures> stop(int& crashed) {
    uint8_t const token = 1;
    stop_.send(token);
    std::vector<Figures> all;
    for (Figures f; all.size() < pids_.size() && up_.receive(f);) all.push_back(f);
    for (pid_t pid : pids_) {
      crashed += FlowTrackingTest::exitedWith(FlowTrackingTest::reap(pid), 0) ? 0 : 1;
    }
    return all;
  }
  size_t size() const { return pids_.size(); }

 private:
  FlowTrackingTest::RecordPipe up_, stop_;
  std::vector<pid_t> pids_;
};

// Collects the lines the table handler traces at levels 0 and 1 while it
// lives: a writer's start says there whether it adopted and why it did not.
class TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  TraceCapture(TraceCapture const&) = delete;
  TraceCapture& operator=(TraceCapture const&) = delete;
  bool contains(std::string const& text) const;
  // The text after "validation failed: " or the line "failed to attach ..."
  // of a start that would not adopt; empty if none was traced.
  std::string reformatReason() const;
  std::string all() const;

 private:
  std::vector<std::string> lines_;
};

// "hung" for reap's timeout (-1), else "signal N" or "exit N".
std::string statusText(int status);

// A child of a mode that takes commands down one pipe and answers up the
// other; each wait on it is bounded.
class Child {
 public:
  using Pipe = FlowTrackingTest::RecordPipe;
  // Forks `body(commands, answers)`, dropping any child held before.
  void start(std::function<int(Pipe const& commands, Pipe const& answers)> const& body);
  // SIGKILL and reap; nothing if it is not running.
  void kill();
  // SIGSTOP or SIGCONT, if it is running.
  void signal(int sig) const {
    if (pid_ > 0) ::kill(pid_, sig);
  }
  // Sends `bye`, then ended(ms).
  template <typename T>
  std::string end(T const& bye, int ms) {
    commands_->send(bye);
    return ended(ms);
  }
  // Reaps it within `ms`, killing it if it is still running then: "" if it
  // exited 0, else statusText.
  std::string ended(int ms);
  bool running() const { return pid_ > 0; }
  Pipe const& commands() const { return *commands_; }
  Pipe const& answers() const { return *answers_; }

 private:
  pid_t pid_ = -1;
  std::unique_ptr<Pipe> commands_, answers_;
};

// The table of the damage modes (corrupt, hostile): the config table, which
// has the change queue's files as well. Its golden rows: ids 0..599 written,
// 100..199 removed again (so the free list is long), 0..49 overwritten.
using ConfigRecord = FlowTracking::HoIpFlowConfig;
using ConfigValue = FlowTracking::TableValue<ConfigRecord>;
constexpr uint32_t kGoldenRows = 600;
// Lookups of the golden table ask for every id below this.
constexpr uint32_t kGoldenIds = 800;
bool goldenHas(uint32_t id);
ConfigValue goldenRow(uint32_t id);
// Writes the golden table `name` on the current root; the writer then lets
// go of it and its files stay.
void writeGolden(std::string const& name);

// What a bounded child of a damage mode sends up its pipe.
struct ChildReport {
  uint32_t outcome = 0;
  char text[200] = {};
  void note(std::string const& s);
};

// How a reader of a damaged golden table ended.
enum class ReadOutcome : uint32_t {
  correct,
  refused,
  // Lomi::CorruptionDetectedException.
  detected,
  // Another Lomi::Exception with a message.
  named,
  wrongRows,
  // Anything else thrown, or a Lomi::Exception with no message.
  otherException,
  crashed,
  hung
};
inline constexpr char const* kReadNames[] = {
    "correct rows", "attach refused",  "damage detected", "named exception",
    "wrong rows",   "other exception", "crashed",         "hung"};

// A reader of the golden table `name`: initialize, a lookup of every id below
// kGoldenIds and a whole walk, each answer compared with the golden rows; a
// walk that returns more than 100 times the golden rows is "hung". With
// `midway`, the reader first looks up every id (which maps every file), then
// calls `midway` and goes on as above over its mappings.
ChildReport readGolden(std::string const& name, std::function<void()> const& midway = {});

// Runs `body` in a child and waits for its report up to `boundMs`: a child
// that ends without one (a signal, an exit) is Outcome::crashed, one still
// running at the bound is killed and Outcome::hung.
template <typename Outcome>
ChildReport runBounded(std::function<ChildReport()> const& body, int boundMs) {
  using namespace FlowTrackingTest;
  RecordPipe up;
  pid_t const pid = forkChild([&]() -> int {
    up.send(body());
    return 0;
  });
  up.closeWrite();
  ChildReport rep;
  bool const got = up.receive(rep, boundMs);
  int const status = reap(pid, got ? kDeadlineMs : 1);
  if (!got) {
    rep.outcome = static_cast<uint32_t>(status == -1 ? Outcome::hung : Outcome::crashed);
    rep.note(status == -1 ? "no answer within the bound" : statusText(status));
  }
  return rep;
}

}  // namespace Stress
