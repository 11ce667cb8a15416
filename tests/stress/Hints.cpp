// Mode "hints": readers that hold state across the writer's events. One
// writer process at a time swings the live set between --low and --high ids:
// slot growth, bucket doublings, compaction (entries move, the file's tail is
// released), bucket halvings, and regrowth into the released slots. --restarts
// times the writer dies inside a critical section and the next writer process
// re-formats the table under a new generation and hash seed. Reader processes
// walk slowly, keeping their IterHint across those events, and keep version
// anchors across them in a second reader object.
//
// Fails on a CorruptionDetectedException in a reader, a pinned id not met
// exactly once by a completed walk, a disordered walk, an anchor that still
// validates after its row changed, an absent pinned id, a torn value, a child
// that crashed or hung, and on a run in which any event never met a held hint
// or anchor.
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <random>
#include <vector>

#include <fmt/format.h>

#include "Mem/Atomics.h"
#include "Mem/VersionedRef.h"
#include "Mirak/TempRoot.h"
#include "stress/Modes.h"
#include "stress/Stress.h"

namespace Stress {

namespace {

using namespace FlowTrackingTest;
using Clock = std::chrono::steady_clock;
using Pair = Mem::VersionedRef<unsigned int>;

constexpr char kTable[] = "stress/hints";
constexpr uint32_t kPinned = 64;
// The longest a reader holds a hint or anchor waiting for a writer event.
constexpr auto kHoldLimit = std::chrono::milliseconds(300);

// The writer's promise to its readers, kept in the slot header's scratchpad:
// from after its pinned rows are written until just before it dies, the
// scratchpad holds liveMarker(its kestor). A re-format zeroes it and begins
// only after the writer died, so a reader that finds the marker of its own
// generation after an operation knows that the whole operation ran on that
// generation with every pinned row present.
uint64_t liveMarker(Parcel::KestorId k) {
  return 0x4c49564500000000ull | k.value();
}

// One writer process: writes the pinned rows, promises them, runs the
// workload until `lifeEnd`; then, unless it is the last, withdraws the promise
// and dies with a direct write open, so that the next writer re-formats.
int writerLife(Options const& o, uint32_t life, Clock::time_point lifeEnd, bool last,
               Child::Pipe const& down, Child::Pipe const& up) {
  // A format draws the table's hash seed from rand().
  std::srand(static_cast<unsigned>(o.seed + life));
  auto w = makeSharedWriter<Record>(kTable, workloadDescriptor(o.ids + kPinned));
  uint64_t writes = uint64_t(life) << 40;
  writePinned(*w, kPinned, writes);
  w->scratchpadIs(liveMarker(w->kestorId()));
  up.send(cycleLiveSet(*w, o, kPinned, o.seed * 1000003 + life, writes, lifeEnd));
  if (!last) {
    w->scratchpadIs(0);
    w->directWrite(makeValue(kPinned, 0));
    ::raise(SIGKILL);
  }
  uint8_t token = 0;
  down.receive(token);
  return 0;
}

// What a reader process counts beyond ReaderFigures. The counts from
// walksCompleted on prove that hints and anchors met the writer's events.
enum Count : unsigned {
  corruptionUnderReformat,  // of ReaderFigures::corruptionExceptions
  tornUnderReformat,        // of ReaderFigures::torn
  anchorStale,
  walksDiscarded,
  walksCompleted,
  walksAcrossResize,
  hintSlowPaths,
  holdsAcrossRegrowth,
  holdsAcrossTwoBucketResizes,
  anchorChecks,
  anchorsAcrossResize,
  kCounts
};
// clang-format off
constexpr char const* kCountNames[kCounts] = {
    "corruptionUnderReformat", "tornUnderReformat", "anchorStale", "walksDiscarded",
    "walksCompleted", "walksAcrossResize", "hintSlowPaths", "holdsAcrossRegrowth",
    "holdsAcrossTwoBucketResizes", "anchorChecks", "anchorsAcrossResize"};
// clang-format on

struct HintFigures {
  ReaderFigures r;
  uint64_t n[kCounts] = {};
};

// A reader process: reader object 0 walks and looks up; object 1 keeps the
// anchor of its last lookup untouched.
class HintReader {
 public:
  HintReader(Options const& o, uint64_t seed, RecordPipe const& stop)
      : o_(o), rng_(seed), stop_(stop) {}

  HintFigures run() {
    while (!stop_.readable()) {
      if (!readers_.attached() && !readers_.attach(f_.r)) {
        ::poll(nullptr, 0, 1);
        continue;
      }
      try {
        if (live()) {
          walk();
        } else {
          // The generation is ending or not complete yet: read on (a
          // re-format under a reader must not throw), then attach again, as
          // a sentry's retry would; an attach may straddle the re-format.
          for (int i = 0; i < 16; i++) lookupStep();
          readers_.detach(f_.r);
        }
      } catch (std::exception const& e) {
        bool const corruption = dynamic_cast<Lomi::CorruptionDetectedException const*>(&e);
        (corruption ? f_.r.corruptionExceptions : f_.r.otherExceptions)++;
        f_.n[corruptionUnderReformat] += corruption && !live();
        f_.r.note(e.what());
        readers_.detach(f_.r);
      }
      if (readers_.attached() && readers_.replaced()) readers_.detach(f_.r);
      if (!readers_.attached()) anchor_.held = false;
    }
    readers_.detach(f_.r);
    return f_;
  }

 private:
  Reader& walker() const { return readers_[0]; }
  Reader& holder() const { return readers_[1]; }
  bool live() const {
    auto const* h = readers_.attached() ? walker().slotTable().header() : nullptr;
    return h && Mem::loadAcquire(h->scratchpad) == liveMarker(walker().kestorId());
  }
  Pair slotPair() const { return Mem::loadAcquire(walker().slotTable().header()->numSlots); }
  Pair bucketPair() const { return walker().hashMap().bucketReader().headerNumBuckets(); }
  uint32_t randomId() {
    uint64_t const range = rng_() % 2 ? kPinned : o_.ids;
    return static_cast<uint32_t>(rng_() % range);
  }

  // A checked lookup on the walker; a torn value found while the generation
  // was not live is also counted apart.
  bool read(uint32_t id, Value& out) {
    uint64_t const torn = f_.r.torn;
    bool const found = checkedLookup(walker(), id, out, f_.r);
    if (!live()) f_.n[tornUnderReformat] += f_.r.torn - torn;
    return found;
  }

  void lookupStep() {
    uint32_t const id = randomId();
    bool const ready = live();
    Value v;
    if (!read(id, v) && id < kPinned && ready && live()) {
      f_.r.pinnedAbsent++;
      f_.r.note(fmt::format("pinned id {} reported absent", id));
    }
  }

  // Sets an anchor in the holder, or checks the one held: the row's current
  // value is read through the walker first, so a changed row proves that the
  // anchor must no longer validate.
  void anchorStep() {
    if (!anchor_.held) {
      Value v;
      bool found = false;
      bool const ready = live();
      anchor_.id = randomId();
      holder().lookup(ipFlowKey(anchor_.id), found, &v);
      anchor_ = {found && ready && live(), anchor_.id, v.packets(), slotPair(), bucketPair()};
      return;
    }
    Value now;
    bool const changed = !read(anchor_.id, now) || now.packets() != anchor_.packets;
    bool valid = true;
    try {
      holder().validateVersionAnchor();
    } catch (Mem::VersionMismatchException const&) {
      valid = false;
    }
    anchor_.held = valid && !changed && live();
    // An anchor needs to hold only within its generation.
    if (!live()) return;
    f_.n[anchorChecks]++;
    f_.n[anchorsAcrossResize] += slotPair().version != anchor_.slots.version ||
                                 bucketPair().version != anchor_.buckets.version;
    if (changed && valid) {
      f_.n[anchorStale]++;
      f_.r.note(fmt::format("anchor of id {} ({}) validated after the row changed", anchor_.id,
                            holder().getCacheVersionAnchor()));
    }
  }

  // Keeps the walk's hint and the anchor until the writer has compacted the
  // slots and then regrown them, or resized the buckets twice over, looking
  // up meanwhile: the walker follows each resize, so its next `next` meets
  // the old hint under the table's current sizes. True if the event came.
  bool holdAcross(Count event) {
    uint32_t lowest = slotPair().value;
    uint64_t const buckets = bucketPair().value;
    bool fell = false;
    for (auto const end = Clock::now() + kHoldLimit; Clock::now() < end && live();) {
      for (int i = 0; i < 4; i++) lookupStep();
      uint32_t const slots = slotPair().value;
      uint64_t const now = bucketPair().value;
      if (event == holdsAcrossRegrowth ? fell && slots > lowest
                                       : now >= 4 * buckets || 4 * now <= buckets) {
        return true;
      }
      fell = fell || slots < lowest;
      lowest = std::min(lowest, slots);
      ::poll(nullptr, 0, 1);
    }
    return false;
  }

  void pause() {
    uint64_t const r = rng_() % 64;
    if (r < 4 && holds_ < 3) {
      holds_++;
      Count const event = r < 2 ? holdsAcrossRegrowth : holdsAcrossTwoBucketResizes;
      f_.n[event] += holdAcross(event);
      anchorStep();
    } else if (r < 10) {
      ::poll(nullptr, 0, 1);
    } else if (r < 26) {
      anchorStep();
    } else {
      for (uint64_t i = 0; i <= r % 8; i++) lookupStep();
    }
  }

  // A walk in steps of 1 to 16 entries with a pause after each. It is whole
  // only if its generation was live from before `first` to after the end.
  void walk() {
    bool const ready = live();
    Pair const slots0 = slotPair();
    Pair const buckets0 = bucketPair();
    uint64_t const slow0 = walker().readerCounters().nextSlowPath;
    uint64_t const torn0 = f_.r.torn;
    WalkCheck check(walker(), kPinned);
    auto const end = [&](bool complete) {
      bool const whole = ready && live();
      check.addTo(f_.r, !whole     ? WalkCheck::End::crossedReformat
                        : complete ? WalkCheck::End::complete
                                   : WalkCheck::End::cut);
      if (!whole) f_.n[tornUnderReformat] += f_.r.torn - torn0;
      return whole;
    };
    f_.r.walks++;
    holds_ = 0;
    Value v;
    Mirak::IterHint hint;
    uint64_t steps = 1 + rng_() % 16;
    try {
      for (bool ok = walker().first(v, hint); ok; ok = walker().next(v.fwkKey(), v, hint)) {
        check.entry(v);
        if (--steps > 0) continue;
        pause();
        if (stop_.readable()) return;
        steps = 1 + rng_() % 16;
      }
    } catch (...) {
      end(false);
      throw;
    }
    f_.n[hintSlowPaths] += walker().readerCounters().nextSlowPath - slow0;
    bool const whole = end(true);
    f_.n[whole ? walksCompleted : walksDiscarded]++;
    f_.n[walksAcrossResize] +=
        whole && (slotPair().version != slots0.version || bucketPair().version != buckets0.version);
  }

  Options const& o_;
  std::mt19937_64 rng_;
  RecordPipe const& stop_;
  AttachedReaders readers_{kTable, 2};
  struct {
    bool held = false;
    uint32_t id = 0;
    uint64_t packets = 0;
    Pair slots, buckets;
  } anchor_;
  uint32_t holds_ = 0;
  HintFigures f_;
};

}  // namespace

int runHints(Options const& o) {
  MirakTest::TempRoot root;
  fmt::print("hints: {} s, {} restarts, {} readers, ids {} high {} low {}, seed {}\n", o.seconds,
             o.restarts, o.readers, o.ids, o.high, o.low, o.seed);
  std::fflush(stdout);
  std::vector<std::string> failures;
  ReaderProcesses<HintFigures> readers(o.readers, [&](uint32_t r, RecordPipe const& stop) {
    return HintReader(o, o.seed + 1 + r, stop).run();
  });

  // Writer lives of equal length; each after the first re-formats.
  auto const start = Clock::now();
  auto const lifetime = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(o.seconds / (o.restarts + 1)));
  WriterFigures wf;
  uint64_t reformats = 0;
  Child writer;
  for (uint32_t life = 0; life <= o.restarts && failures.empty(); life++) {
    bool const last = life == o.restarts;
    writer.start([&](Child::Pipe const& down, Child::Pipe const& up) {
      return writerLife(o, life, start + lifetime * (life + 1), last, down, up);
    });
    WriterFigures f;
    if (!writer.answers().receive(f, kDeadlineMs + static_cast<int>(o.seconds * 1000))) {
      failures.push_back(fmt::format("writer {} did not report", life));
      break;
    }
    Parcel::KestorId const was(wf.kestor), is(f.kestor);
    bool const reformatted = is == was.reformatted() && f.hashSeed != wf.hashSeed;
    if (life > 0 && !reformatted) {
      failures.push_back(fmt::format("writer {} did not re-format: kestor {} -> {}, seed {} -> {}",
                                     life, was, is, wf.hashSeed, f.hashSeed));
    }
    reformats += life > 0 && reformatted;
    wf.add(f);
    if (last) break;
    // Every writer but the last dies by its own SIGKILL inside a direct write.
    std::string const end = writer.ended(kDeadlineMs);
    if (end != fmt::format("signal {}", SIGKILL)) {
      failures.push_back(fmt::format("writer {} ended: {}", life, end.empty() ? "exit 0" : end));
    }
  }

  int crashed = 0;
  HintFigures all;
  std::vector<HintFigures> const reported = readers.stop(crashed);
  for (HintFigures const& f : reported) {
    if (o.verbose) fmt::print("reader: {}\n", f.r.toString());
    all.r.add(f.r);
    for (unsigned i = 0; i < kCounts; i++) all.n[i] += f.n[i];
  }
  if (writer.running()) crashed += writer.end(uint8_t(1), kDeadlineMs).empty() ? 0 : 1;

  // Every event must have happened, and met a held hint or anchor.
  std::string faults, events, zero;
  std::pair<char const*, uint64_t> const writerEvents[] = {
      {"slotGrows", wf.slotGrows},         {"compactions", wf.compactions},
      {"slotsMoved", wf.slotsMoved},       {"bucketGrows", wf.bucketGrows},
      {"bucketShrinks", wf.bucketShrinks}, {"restartsWithReformat", reformats}};
  for (auto const& [name, n] : writerEvents) zero += n ? "" : fmt::format(" {}", name);
  for (unsigned i = 0; i < kCounts; i++) {
    (i < walksDiscarded ? faults : events) += fmt::format(" {} {}", kCountNames[i], all.n[i]);
    zero += all.n[i] || i < walksCompleted ? "" : fmt::format(" {}", kCountNames[i]);
  }
  fmt::print("hints: writer {} restartsWithReformat {}\n", wf.toString(), reformats);
  fmt::print("hints: held across events:{}\n", events);
  fmt::print("hints: readers {}\n", all.r.toString());
  fmt::print("hints: faults:{} crashes {}\n", faults, crashed);

  if (reported.size() != readers.size()) failures.push_back("a reader did not report");
  if (crashed) failures.push_back(fmt::format("{} children crashed or hung", crashed));
  for (auto const& f : all.r.faults()) failures.push_back(f);
  if (all.n[anchorStale]) failures.push_back("an anchor validated a changed row");
  if (wf.validationsFailed) failures.push_back("the table failed validation");
  if (!zero.empty()) failures.push_back("did not race, never crossed:" + zero);
  for (auto const& f : failures) fmt::print("hints: FAIL {}\n", f);
  std::fflush(stdout);
  return failures.empty() ? 0 : 1;
}

}  // namespace Stress
