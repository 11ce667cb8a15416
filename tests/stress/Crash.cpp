// Mode "crash": N trials on one table. In each, a writer process adopts the
// table and runs a random workload (inserts, overwrites, removes, direct
// writes, growth and compaction), reporting the intent and the completion of
// every operation up a pipe; the parent kills it with SIGKILL at a random
// moment, drains the pipe, and starts a writer itself on the same directory.
// That start must either adopt, and then the table validates and holds every
// completed operation (the one in flight in its old or its new state) with
// every checksum right; or salvage, and then only because the kill fell
// inside a critical section, as the start's outcome says, and the new
// generation validates and holds every completed operation just the same.
// A re-format is a fault: it loses completed writes, which are counted.
// With --salvage off the writers do not salvage, and a kill inside a
// critical section ends in the empty re-format that salvage replaces: its
// lost writes are counted, and only a re-format for another reason is a
// fault. The
// completions are sent after the call returned, so a completion in the pipe
// is a write the table owed the agent. Reader processes read through all
// trials and must never crash, see a torn value or a wrong key.
#include <signal.h>

#include <map>
#include <random>
#include <unordered_map>
#include <vector>

#include <fmt/format.h>

#include "Mirak/StartOutcome.h"
#include "Mirak/TempRoot.h"
#include "Parcel/KestorFile.h"
#include "stress/Modes.h"
#include "stress/Stress.h"

namespace Stress {

namespace {

using namespace FlowTrackingTest;

constexpr char kTable[] = "stress/crash";

enum class OpKind : uint8_t { started, write, remove, direct };

Mirak::MapDescriptor crashDescriptor(Options const& o) {
  Mirak::MapDescriptor d = workloadDescriptor(o.ids);
  d.salvage = o.salvage;
  return d;
}

// One report of the writer child: an intent (done false) before an operation
// starts, its completion (done true) after it returned. Below PIPE_BUF, so a
// kill never leaves half a message in the pipe.
struct OpMessage {
  OpKind kind = OpKind::started;
  bool done = false;
  bool growing = true;
  uint32_t id = 0;
  uint64_t packets = 0;
};

// What the parent knows of the table: the completed operations.
struct Model {
  std::unordered_map<uint32_t, uint64_t> rows;
  bool growing = true;
  // The last operations on each row, for the report of a fault.
  std::unordered_map<uint32_t, std::string> history;
  void apply(OpMessage const& m) {
    if (m.kind != OpKind::started) {
      std::string& h = history[m.id];
      h += fmt::format(" {}:{}",
                       m.kind == OpKind::remove   ? "remove"
                       : m.kind == OpKind::direct ? "direct"
                                                  : "write",
                       m.packets);
      if (h.size() > 400) h.erase(0, h.size() - 400);
    }
    if (m.kind == OpKind::remove) {
      rows.erase(m.id);
    } else if (m.kind != OpKind::started) {
      rows[m.id] = m.packets;
    }
    growing = m.growing;
  }
};

// The writer child's endless workload, reported op by op.
[[noreturn]] void childWorkload(Options const& o, Model model, uint32_t trial,
                                RecordPipe const& up) {
  auto w = makeSharedWriter<Record>(kTable, crashDescriptor(o));
  OpMessage started;
  started.packets = w->kestorId().value();
  started.id = w->capacity();
  started.done = true;
  started.growing = model.growing;
  up.send(started);
  std::mt19937_64 rng(o.seed * 1000003 + trial);
  std::vector<uint32_t> live;
  std::vector<int32_t> where(o.ids, -1);
  for (auto const& [id, p] : model.rows) {
    where[id] = static_cast<int32_t>(live.size());
    live.push_back(id);
  }
  bool growing = model.growing;
  for (;;) {
    OpMessage m;
    uint64_t const r = rng() % 100;
    m.packets = rng();
    if (r < 25 && !live.empty()) {
      m.kind = OpKind::write;
      m.id = live[rng() % live.size()];
    } else if (r < 35) {
      m.kind = OpKind::direct;
      m.id = !live.empty() && rng() % 2 ? live[rng() % live.size()]
                                        : static_cast<uint32_t>(rng() % o.ids);
    } else if (growing || live.empty()) {
      m.kind = OpKind::write;
      m.id = static_cast<uint32_t>(rng() % o.ids);
    } else {
      m.kind = OpKind::remove;
      m.id = live[rng() % live.size()];
    }
    m.growing = growing;
    up.send(m);
    if (m.kind == OpKind::write) {
      w->write(makeValue(m.id, m.packets), true);
    } else if (m.kind == OpKind::direct) {
      // An agent that fills a record in place: the critical section stays
      // open for the whole of its work.
      Value* v = w->directWrite(makeValue(m.id, 0));
      uint64_t acc = m.packets;
      for (int i = 0; i < 20000; i++) acc = acc * 6364136223846793005ull + 1442695040888963407ull;
      *v = makeValue(m.id, m.packets);
      v->intfIdIs(intf(m.id + static_cast<uint32_t>(acc & 0)));
      w->directCommit();
    } else {
      Value removed;
      w->remove(ipFlowKey(m.id), removed);
    }
    if (m.kind == OpKind::remove) {
      size_t const at = static_cast<size_t>(where[m.id]);
      live[at] = live.back();
      where[live[at]] = static_cast<int32_t>(at);
      live.pop_back();
      where[m.id] = -1;
      if (live.size() <= o.low) growing = true;
    } else if (where[m.id] < 0) {
      where[m.id] = static_cast<int32_t>(live.size());
      live.push_back(m.id);
      if (live.size() >= o.high) growing = false;
    }
    m.done = true;
    m.growing = growing;
    up.send(m);
  }
}

struct Figures {
  uint64_t trials = 0;
  uint64_t ops = 0;
  uint64_t killsInFlight = 0;
  uint64_t adoptions = 0;
  uint64_t salvages = 0;
  uint64_t reformats = 0;
  // Rows of a salvage left behind, by reason (the write in flight only).
  uint64_t salvageDropped = 0;
  // Completed writes missing after a restart, or holding an older value.
  uint64_t lostWrites = 0;
  // Restarts that kept a table which then failed its checks.
  uint64_t invalidAdoptions = 0;
  std::map<std::string, uint64_t> reasons;
  uint32_t mostCapacity = 0;
  uint32_t capacityFellTo = 0;
  uint64_t inFlightLanded = 0;
  uint64_t inFlightNotLanded = 0;
};

// Checks an adopted table against the model; the row in flight (if any) may
// be in its old or its new state; one that landed is applied to `model`.
// Returns the faults found.
std::vector<std::string> checkAdopted(Writer& w, Model& model, OpMessage const* inFlight,
                                      Figures& fig) {
  uint64_t lost = 0;
  std::vector<std::string> faults;
  std::string error;
  if (!w.validate(w.kestorId(), error, false)) faults.push_back("validation failed: " + error);
  auto expectRow = [&](uint32_t id, Value const* v, bool found) -> bool {
    auto const it = model.rows.find(id);
    if (it == model.rows.end()) return !found;
    return found && *v == makeValue(id, it->second);
  };
  for (auto const& [id, packets] : model.rows) {
    if (inFlight && inFlight->id == id) continue;
    bool found = false;
    Value const* v = w.lookup(ipFlowKey(id), found, nullptr);
    if (!found) {
      lost++;
      faults.push_back(fmt::format("completed row {} is missing", id));
    } else if (!(*v == makeValue(id, packets))) {
      lost++;
      faults.push_back(fmt::format("row {} holds packets {} instead of {}; its operations:{}", id,
                                   v->packets(), packets, model.history.at(id)));
    }
  }
  if (inFlight) {
    bool found = false;
    Value const* v = w.lookup(ipFlowKey(inFlight->id), found, nullptr);
    bool const old = expectRow(inFlight->id, v, found);
    bool const landed = inFlight->kind == OpKind::remove
                            ? !found
                            : found && *v == makeValue(inFlight->id, inFlight->packets);
    if (!old && !landed) {
      faults.push_back(fmt::format("row {} in flight is neither old nor new: found {} {}",
                                   inFlight->id, found, found ? valueToStrep(*v).stdString() : ""));
    }
    (landed && !old ? fig.inFlightLanded : fig.inFlightNotLanded)++;
    // The table is the truth from here on: an operation that landed counts
    // as completed for the next trials.
    if (landed && !old) {
      OpMessage done = *inFlight;
      done.done = true;
      done.growing = model.growing;
      model.apply(done);
    }
  }
  // Nothing else is in the table, and every value in it is whole.
  Value v;
  Mirak::IterHint hint;
  size_t walked = 0;
  for (bool ok = w.first(v, hint); ok; ok = w.next(v.fwkKey(), v, hint)) {
    walked++;
    uint32_t const id = idOf(v.fwkKey());
    if (!intact(v)) faults.push_back(fmt::format("row {} has a wrong checksum", id));
    if (!model.rows.count(id) && !(inFlight && inFlight->id == id)) {
      faults.push_back(fmt::format("row {} is in the table but was never written", id));
    }
    if (walked > model.rows.size() + 1) break;
  }
  if (walked + 1 < model.rows.size() || walked > model.rows.size() + 1) {
    faults.push_back(fmt::format("walk found {} rows, {} completed", walked, model.rows.size()));
  }
  if (w.members() != walked) {
    faults.push_back(fmt::format("members {} but a walk found {}", w.members(), walked));
  }
  fig.lostWrites += lost;
  return faults;
}

}  // namespace

int runCrash(Options const& o) {
  MirakTest::TempRoot root;
  fmt::print("crash: {} trials, {} readers, ids {} high {} low {}, seed {}, salvage {}\n", o.trials,
             o.readers, o.ids, o.high, o.low, o.seed, o.salvage ? "on" : "off");
  std::fflush(stdout);
  std::vector<std::string> failures;
  Figures fig;
  Model model;
  std::mt19937_64 rng(o.seed);
  Parcel::KestorId kestor;
  {
    auto w = makeSharedWriter<Record>(kTable, crashDescriptor(o));
    kestor = w->kestorId();
  }
  ReaderProcesses<ReaderFigures> readers(o.readers, [&](uint32_t r, RecordPipe const& stop) {
    return readUntil(kTable, o.ids, 0, o.seed + 7 + r, [&] { return stop.readable(); });
  });

  for (uint32_t trial = 0; trial < o.trials && failures.size() < 10; trial++) {
    fig.trials++;
    Child child;
    child.start([&](Child::Pipe const&, Child::Pipe const& up) -> int {
      childWorkload(o, model, trial, up);
    });
    // Where the kill falls: after a random number of completed operations,
    // or at the start of a direct write (inside its critical section, most
    // of the time).
    uint64_t const killAfter = 1 + rng() % (3 * o.high);
    bool const atDirect = rng() % 3 == 0;
    OpMessage m;
    OpMessage inFlight;
    bool haveInFlight = false;
    bool killed = false;
    uint64_t done = 0;
    bool childStarted = false;
    while (child.answers().receive(m)) {
      if (m.kind == OpKind::started) {
        childStarted = true;
        if (Parcel::KestorId(static_cast<uint32_t>(m.packets)) != kestor) {
          failures.push_back(
              fmt::format("trial {}: the child re-formatted a table left cleanly", trial));
          kestor = Parcel::KestorId(static_cast<uint32_t>(m.packets));
          model = Model();
        }
        continue;
      }
      if (!m.done) {
        inFlight = m;
        haveInFlight = true;
      } else {
        model.apply(m);
        haveInFlight = false;
        done++;
      }
      if (!killed && ((done >= killAfter && !atDirect) ||
                      (atDirect && done >= killAfter / 2 && !m.done && m.kind == OpKind::direct))) {
        child.signal(SIGKILL);
        killed = true;
      }
    }
    if (!killed) child.signal(SIGKILL);
    if (std::string const how = child.ended(kDeadlineMs); how != fmt::format("signal {}", SIGKILL)) {
      failures.push_back(fmt::format("trial {}: the writer child ended: {}", trial, how));
    }
    if (!childStarted) {
      failures.push_back(fmt::format("trial {}: the writer child never started", trial));
      continue;
    }
    fig.ops += done;
    if (haveInFlight) fig.killsInFlight++;

    TraceCapture trace;
    auto w = makeSharedWriter<Record>(kTable, crashDescriptor(o));
    Mirak::StartOutcome const outcome = w->startOutcome();
    using Kind = Mirak::StartOutcome::Kind;
    bool const kept = outcome.kind == Kind::adopted || outcome.kind == Kind::salvaged;
    if (outcome.kind == Kind::adopted && w->kestorId() != kestor) {
      failures.push_back(fmt::format("trial {}: adopted under another kestor {} (was {})", trial,
                                     w->kestorId(), kestor));
    }
    if (outcome.kind != Kind::adopted) {
      // Why the files were not adopted, without its numbers, for the count.
      std::string const& reason = outcome.reason;
      std::string const kind = reason.substr(0, reason.find(':'));
      fig.reasons[kind.empty() ? "(none given)" : kind]++;
      bool const critical = reason.find("bad critical section") != std::string::npos ||
                            reason.find("stuck LOOKASIDE bit") != std::string::npos;
      if (!critical || !haveInFlight) {
        failures.push_back(fmt::format("trial {}: {} with {} operation in flight",
                                       trial, outcome.toString(), haveInFlight ? "an" : "no"));
        if (o.verbose) fmt::print("{}\n", trace.all());
      }
      // Records left behind can only be the one write in flight.
      if (outcome.dropped() > (haveInFlight ? 1u : 0u)) {
        failures.push_back(fmt::format("trial {}: {}", trial, outcome.toString()));
      }
    }
    if (kept) {
      (outcome.kind == Kind::adopted ? fig.adoptions : fig.salvages)++;
      fig.salvageDropped += outcome.dropped();
      auto const faults = checkAdopted(*w, model, haveInFlight ? &inFlight : nullptr, fig);
      if (!faults.empty()) fig.invalidAdoptions++;
      for (auto const& f : faults) {
        failures.push_back(fmt::format("trial {}: {} table: {}", trial,
                                       Mirak::formatStartOutcomeKind(outcome.kind), f));
        if (o.verbose) fmt::print("{}\n", trace.all());
      }
      fig.mostCapacity = std::max(fig.mostCapacity, w->capacity());
      if (w->capacity() < fig.mostCapacity) {
        fig.capacityFellTo =
            fig.capacityFellTo ? std::min(fig.capacityFellTo, w->capacity()) : w->capacity();
      }
      kestor = w->kestorId();
    } else {
      // An empty re-format loses every completed row: with salvage on, a
      // fault; with it off, the price counted (its cause is checked above).
      fig.reformats++;
      fig.lostWrites += model.rows.size();
      if (o.salvage) {
        failures.push_back(fmt::format("trial {}: {} lost {} completed rows", trial,
                                       outcome.toString(), model.rows.size()));
      }
      if (!w->validate())
        failures.push_back(fmt::format("trial {}: re-formatted table fails", trial));
      model = Model();
      kestor = w->kestorId();
    }
    if (o.verbose) {
      fmt::print("trial {}: ops {} in flight {} {} capacity {} members {}\n", trial, done,
                 haveInFlight, outcome.toString(), w->capacity(),
                 w->members());
    }
  }

  int crashed = 0;
  ReaderFigures all;
  std::vector<ReaderFigures> const reported = readers.stop(crashed);
  for (ReaderFigures const& f : reported) all.add(f);

  std::string reasons;
  for (auto const& [r, n] : fig.reasons) reasons += fmt::format(" '{}':{}", r, n);
  fmt::print(
      "crash: trials {} completed ops {} kills with an op in flight {} | adopted {} salvaged {} "
      "re-formatted {} (in-flight op landed {}, not landed {}; salvage dropped {}){} | capacity "
      "most {} fell to {}\n",
      fig.trials, fig.ops, fig.killsInFlight, fig.adoptions, fig.salvages, fig.reformats,
      fig.inFlightLanded, fig.inFlightNotLanded, fig.salvageDropped, reasons, fig.mostCapacity,
      fig.capacityFellTo);
  fmt::print("crash: lost completed writes {} invalid adoptions {}\n", fig.lostWrites,
             fig.invalidAdoptions);
  fmt::print("crash: readers {}\n", all.toString());
  fmt::print("crash: reader crashes {} torn reads {} over {} reads\n", crashed, all.torn,
             all.reads);
  if (reported.size() != readers.size()) failures.push_back("a reader did not report");
  if (crashed) failures.push_back(fmt::format("{} readers crashed", crashed));
  if (all.torn || all.wrongKey || all.walkDisorder) failures.push_back("readers saw wrong data");
  if (all.otherExceptions) failures.push_back("readers saw unexpected exceptions");
  // A reader whose files were re-formatted under it may see the damage once
  // per re-format before it re-attaches; anything beyond that is a fault.
  if (all.corruptionExceptions > (fig.reformats + fig.salvages) * o.readers) {
    failures.push_back("readers reported damage without a re-format");
  }
  if (all.reads == 0) failures.push_back("the readers did not read");
  for (auto const& f : failures) fmt::print("crash: FAIL {}\n", f);
  std::fflush(stdout);
  return failures.empty() ? 0 : 1;
}

}  // namespace Stress
