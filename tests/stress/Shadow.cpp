// Mode "shadow": the shadow side under writer crashes, restarts, queue
// overruns and shadow deaths. One table (the IPv4 status table, which has a
// change queue), and these processes:
//   - a writer that inserts, overwrites and removes at random, swings its live
//     set between --low and --high ids so that slots and buckets grow and
//     shrink, and compacts now and then; it serves its wake-up sockets between
//     batches;
//   - --readers shadow processes, value shadows and keyshadows in turn, half
//     of them synchronous, each mounted through its front object and sentry;
//   - one plain reader process, mounted the same way.
// The harness, for --trials trials or --seconds seconds (whichever ends
// first), lets the writer run for a random while, then at random: kills it
// with SIGKILL (inside or outside a critical section, as the moment falls)
// and starts another on the same directory, which adopts or re-formats;
// stops a shadow with SIGSTOP for longer than the writer's patience while the
// writer laps its pruning queue, so that the shadow finds its changes gone
// and must sweep; or kills a shadow and starts a new one. Then a quiescent
// point: the writer pauses (still serving its sockets) and every client must,
// within a bound, come to equal the table (key set and values; a shadow must
// also have taken in the writer's last sequence and hold exactly the table's
// keys in its index, which a keyshadow's walk would not show), and each
// shadow's callback log replayed onto its copy of the previous point must
// give the table. Every value a client sees, at any time, must be whole (its
// checksum) and come from a writer life that has started. A client that
// crashes, hangs or answers late is a failure; no wait of the harness is
// unbounded. --verbose prints each trial's action and every client's state
// at each check.
//
// A row's value: key from its id; updateTime holds the write counter
// (life << 32 | n, unique over the run); hoFlowState is made from the
// counter; createTime holds a 48-bit checksum of key, counter and state.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "FlowTracking/Collections.h"
#include "FlowTracking/ReaderTestUtil.h"
#include "Lomi/EventLoop.h"
#include "Mem/RootPath.h"
#include "Mirak/MirakMap.h"
#include "Mirak/MirakShadow.h"
#include "Mirak/TempRoot.h"
#include "stress/Modes.h"
#include "stress/Stress.h"

namespace Stress {

namespace {

using namespace FlowTrackingTest;
using SRecord = FlowTracking::HoIpFlowStatus;
using SOps = FlowTracking::HoIpFlowStatusOps;
using SValue = FlowTracking::TableValue<SRecord>;
using SKey = SRecord::Key;
using SWriter = Mirak::MirakWriter<SOps>;
using SReader = Mirak::MirakReader<SOps>;
using Mirak::MirakType;

constexpr char kTable[] = "stress/shadow";
// Every answer of a client is awaited this long at most; a shadow that
// needs longer to catch up with a paused writer has hung.
constexpr int kAnswerMs = 30000;
constexpr double kCatchUp = 25.0;

Lomi::EventLoop& loop() {
  return Mem::RootPath::eventLoop();
}

SKey keyOfId(uint32_t id) {
  return keyOf<SKey>(id);
}
uint32_t idOfKey(SKey const& k) {
  return k.ipFlowKey().srcAddr().value() - 0x0a000000u;
}

uint64_t checksumOf(SKey const& k, uint64_t counter, uint8_t state) {
  uint64_t h = uint64_t(k.hash(0x5eed)) * 0x9e3779b97f4a7c15ull;
  h ^= counter * 0xc2b2ae3d27d4eb4full;
  h ^= uint64_t(state) << 29;
  h ^= h >> 31;
  return h & ((uint64_t(1) << 48) - 1);
}

SValue makeRow(uint32_t id, uint64_t counter) {
  SRecord r(keyOfId(id));
  auto const state = static_cast<uint8_t>(1 + counter % 5);
  r.hoFlowStateIs(FlowTracking::HoFlowState(state));
  r.updateTimeIs(static_cast<double>(counter));
  r.createTimeIs(static_cast<double>(checksumOf(r.key(), counter, state)));
  return r;
}

uint64_t counterOf(SValue const& v) {
  return static_cast<uint64_t>(v.updateTime());
}

// Whole: the checksum matches the key, counter and state, and the counter
// could have been issued (its life has started, its number is below the
// bound the harness last gave).
bool wholeRow(SValue const& v, uint64_t counterBound) {
  double const t = v.updateTime();
  if (!(t >= 0) || t != std::floor(t) || t > 9e15) return false;
  uint64_t const c = counterOf(v);
  return c <= counterBound &&
         static_cast<double>(checksumOf(v.key(), c, uint8_t(v.hoFlowState()))) == v.createTime();
}

// The table as {id: counter}.
using Rows = std::map<uint32_t, uint64_t>;

uint64_t digestOf(Rows const& rows) {
  uint64_t d = rows.size();
  for (auto const& [id, c] : rows) {
    uint64_t x = (uint64_t(id) << 40) ^ c;
    x *= 0x9e3779b97f4a7c15ull;
    d += x ^ (x >> 29);
  }
  return d;
}

// Commands of the harness to a client, answers of a client.
struct Command {
  // 'c' check against the table of `digest`/`members`; 'x' end.
  char verb = 'c';
  uint64_t digest = 0;
  uint64_t members = 0;
  uint64_t counterBound = 0;
  // The queue's last sequence at the writer's pause.
  uint64_t sequence = 0;
};

struct Answer {
  bool equal = false;
  // The callback log replayed onto the previous copy gave the table (always
  // true where there is nothing to replay: a reader, a first check).
  bool replayed = true;
  uint64_t members = 0;
  uint64_t badValues = 0;
  uint64_t resyncs = 0;
  uint64_t rejoins = 0;
  uint64_t events = 0;
  uint64_t corruptions = 0;
  uint64_t lookups = 0;
  // The shadow's state, for the per-trial log and failure texts.
  uint64_t localMembers = 0;
  uint64_t dels = 0;
  uint64_t walks = 0;
  uint64_t sequence = 0;
  uint32_t kestor = 0;
  bool writerLost = false;
  bool following = false;
  char text[160] = {};
  char lastCorruption[160] = {};
  void note(std::string const& s) { std::snprintf(text, sizeof text, "%s", s.c_str()); }
};

// One mounted collection of the table in a client process, with its log of
// callbacks since the last quiescent point.
class Client : public Mirak::MirakMap<SOps> {
 public:
  struct Event {
    enum Kind : uint8_t { value, key, del } kind;
    uint32_t id;
    uint64_t counter;
  };

  Client(MirakType type, bool synchronous) : MirakMap(SOps(0)) {
    name_ = kTable;
    notify_.changeFn = [this](SValue const& v) {
      if (!wholeRow(v, bound)) badValues++;
      log.push_back({Event::value, idOfKey(v.key()), counterOf(v)});
    };
    notify_.keyFn = [this](SKey const& k) { log.push_back({Event::key, idOfKey(k), 0}); };
    notify_.keyDelFn = [this](SKey const& k) { log.push_back({Event::del, idOfKey(k), 0}); };
    Mirak::MapDescriptor d(0);
    d.type = type;
    d.synchronous = synchronous;
    // The client hears the rows of a flushed copy go, so that its log
    // replays across a re-format.
    d.shadowOption = true;
    notifyingIs(true);
    init(d);
  }
  ~Client() override { controlDetach(); }

  Mirak::MirakShadow<SOps> const* shadow() const {
    return dynamic_cast<Mirak::MirakShadow<SOps> const*>(back_.get());
  }
  // The copy, every value checked.
  Rows rows() {
    Rows r;
    SValue v;
    Mirak::IterHint hint{};
    for (bool ok = back_->first(v, hint); ok; ok = back_->next(v.key(), v, hint)) {
      if (!wholeRow(v, bound)) badValues++;
      r[idOfKey(v.key())] = counterOf(v);
    }
    return r;
  }
  void probe(uint32_t id) {
    bool found = false;
    SValue buffer;
    SValue const* v = back_->lookup(keyOfId(id), found, &buffer);
    lookups++;
    if (found && (!wholeRow(*v, bound) || idOfKey(v->key()) != id)) badValues++;
  }
  // The log replayed onto `from`: a value event sets the row; a key event
  // (keyshadow) takes the row the copy holds now, which is what a keyshadow
  // client would read back; a deletion erases it.
  Rows replay(Rows from) {
    for (Event const& e : log) {
      if (e.kind == Event::value) {
        from[e.id] = e.counter;
      } else if (e.kind == Event::del) {
        from.erase(e.id);
      } else {
        bool found = false;
        SValue buffer;
        SValue const* v = back_->lookup(keyOfId(e.id), found, &buffer);
        if (found) {
          from[e.id] = counterOf(*v);
        } else {
          from.erase(e.id);
        }
      }
    }
    return from;
  }

  std::vector<Event> log;
  uint64_t badValues = 0;
  uint64_t lookups = 0;
  uint64_t bound = ~0ull;
};

// A client process: mounts, follows the table, probes random ids between
// commands, answers each check.
int clientProcess(MirakType type, bool synchronous, uint32_t ids, uint64_t seed,
                  RecordPipe const& commands, RecordPipe const& answers) {
  Client c(type, synchronous);
  std::mt19937_64 rng(seed);
  Rows last;
  bool haveLast = false;
  bool const isShadow = type != MirakType::reader;
  for (;;) {
    if (!commands.readable()) {
      loop().runOnce(0.002);
      if (c.back() && c.mountStatus() != Mem::mountStatusNotMounted) {
        for (int i = 0; i < 8; i++) c.probe(static_cast<uint32_t>(rng() % ids));
      }
      continue;
    }
    Command cmd;
    if (!commands.receive(cmd, kAnswerMs) || cmd.verb == 'x') return 0;
    c.bound = cmd.counterBound;
    Rows now;
    bool const equal = loop().runUntil(
        [&] {
          if (isShadow) {
            auto const* s = c.shadow();
            if (!s || c.mountStatus() != Mem::mountStatusSynchronized || !s->connected() ||
                !s->quiesced()) {
              return false;
            }
            // Taken in up to the writer's last sequence, whatever quiesced()
            // says; and as a keyshadow's walk passes over keys the table no
            // longer has, its index must hold exactly the table's keys too.
            if (s->sequence() < cmd.sequence || s->members() != cmd.members) return false;
          } else if (c.mountStatus() == Mem::mountStatusNotMounted) {
            return false;
          }
          now = c.rows();
          return now.size() == cmd.members && digestOf(now) == cmd.digest;
        },
        kCatchUp);
    Answer a;
    a.equal = equal;
    a.members = now.size();
    if (auto const* s = c.shadow()) {
      a.localMembers = s->members();
      a.walks = s->walks();
      a.sequence = s->sequence();
      a.kestor = s->kestorId().value();
      a.writerLost = s->writerLost();
      a.following = s->syncFromTessel();
    }
    for (Client::Event const& e : c.log) a.dels += e.kind == Client::Event::del;
    if (!equal) {
      a.note(fmt::format("{} holds {} rows (digest {:x}, {} in its index), the table {} (digest "
                         "{:x}); mount {}",
                         Mirak::formatMirakType(type), now.size(), digestOf(now), a.localMembers,
                         cmd.members, cmd.digest, c.mountStatus()));
    }
    if (isShadow && haveLast && equal) {
      Rows const replayed = c.replay(last);
      a.replayed = replayed == now;
      if (!a.replayed) {
        std::string diff;
        for (auto const& [id, counter] : now) {
          auto const it = replayed.find(id);
          if (it == replayed.end() || it->second != counter) {
            diff = fmt::format("row {} is {} in the table, {} in the replay", id, counter,
                               it == replayed.end() ? "absent" : std::to_string(it->second));
            break;
          }
        }
        for (auto const& [id, counter] : replayed) {
          if (diff.empty() && !now.count(id)) {
            diff = fmt::format("row {} is absent from the table, {} in the replay", id, counter);
          }
        }
        a.note(fmt::format("replay of {} events gave {} rows for a table of {}; {}", c.log.size(),
                           replayed.size(), now.size(), diff));
      }
    }
    a.events = c.log.size();
    c.log.clear();
    if (equal) {
      last = now;
      haveLast = true;
    } else {
      // The copy is unknown from here; the next check starts a new log.
      haveLast = false;
    }
    if (auto const* s = c.shadow()) {
      a.resyncs = s->resyncs();
      a.rejoins = s->rejoins();
    }
    a.corruptions = c.corruptionsDetected();
    std::snprintf(a.lastCorruption, sizeof a.lastCorruption, "%s", c.lastCorruption().c_str());
    a.badValues = c.badValues;
    a.lookups = c.lookups;
    if (!answers.send(a)) return 3;
  }
}

// Writer commands: 'p' pause (answers a WriterState, then waits for 'g'),
// 'g' go on, 'x' exit.
struct WriterState {
  uint64_t ops = 0;
  uint64_t counter = 0;
  uint64_t pruned = 0;
  // The queue's last sequence issued.
  uint64_t sequence = 0;
  uint32_t kestor = 0;
  uint32_t capacity = 0;
  // The writer's counters of this life.
  Mirak::Writer::Counters counters;
  bool started = false;
  bool adopted = false;
  char text[120] = {};
};

Mirak::MapDescriptor shadowDescriptor(uint32_t ids) {
  Mirak::MapDescriptor d = workloadDescriptor(ids);
  // A silent reader's entries are dropped after the writer's patience: a
  // stopped shadow meets an overrun.
  d.pruneQueue = true;
  return d;
}

int writerProcess(Options const& o, uint64_t life, uint64_t seed, RecordPipe const& commands,
                  RecordPipe const& answers) {
  WriterState st;
  Parcel::KestorId before;
  {
    Parcel::KestorFile const k(readerTestHandler(),
                               Mem::NaoRootPath(readerTestHandler(), kTable, false), false);
    before = k.read();
  }
  SWriter w(readerTestHandler(), kTable, shadowDescriptor(o.ids), SOps(0));
  if (!w.initialize("stress")) return 3;
  st.started = true;
  st.kestor = w.kestorId().value();
  st.adopted = before.value() != 0 && w.kestorId() == before;
  // The live set is what the table holds: an adopted table carries on.
  std::vector<uint32_t> live;
  std::vector<int32_t> where(o.ids, -1);
  {
    SValue v;
    Mirak::IterHint hint{};
    for (bool ok = w.first(v, hint); ok; ok = w.next(v.key(), v, hint)) {
      uint32_t const id = idOfKey(v.key());
      if (id < o.ids && where[id] < 0) {
        where[id] = static_cast<int32_t>(live.size());
        live.push_back(id);
      }
    }
  }
  if (!answers.send(st)) return 3;
  std::mt19937_64 rng(seed);
  uint64_t n = 0;
  bool growing = live.size() < o.high;
  auto const counter = [&] { return life << 32 | ++n; };
  for (;;) {
    if (commands.readable()) {
      char verb = 0;
      if (!commands.receive(verb, kAnswerMs) || verb == 'x') return 0;
      // Paused: the loop serves the clients' wake-up connections until the
      // harness says go; a pause while paused answers again.
      while (verb == 'p') {
        st.counter = life << 32 | n;
        st.pruned = w.tesselWriter().pruned();
        st.sequence = w.tesselWriter().sequence();
        st.capacity = w.capacity();
        st.counters = w.writerCounters();
        if (!answers.send(st)) return 3;
        while (!commands.readable()) loop().runOnce(0.005);
        if (!commands.receive(verb, kAnswerMs) || verb == 'x') return 0;
      }
    }
    for (int i = 0; i < 32; i++) {
      st.ops++;
      uint64_t const r = rng() % 100;
      if (r < 30 && !live.empty()) {
        w.write(makeRow(live[rng() % live.size()], counter()), true);
      } else if (growing || live.empty()) {
        uint32_t const id = static_cast<uint32_t>(rng() % o.ids);
        w.write(makeRow(id, counter()), true);
        if (where[id] < 0) {
          where[id] = static_cast<int32_t>(live.size());
          live.push_back(id);
        }
        if (live.size() >= o.high) growing = false;
      } else {
        size_t const at = rng() % live.size();
        uint32_t const id = live[at];
        SValue removed;
        w.remove(keyOfId(id), removed);
        live[at] = live.back();
        where[live[at]] = static_cast<int32_t>(at);
        live.pop_back();
        where[id] = -1;
        if (live.size() <= o.low) growing = true;
      }
    }
    // A compaction on demand besides the ones removals bring.
    if (rng() % 64 == 0) w.shrink();
    loop().runOnce(0);
  }
}

// A child process and what the harness knows of it.
struct Proc {
  Child child;
  MirakType type = MirakType::reader;
  bool synchronous = false;
  uint32_t index = 0;
  // Checked equal once since it started: from then on its resyncs count.
  uint64_t resyncs = 0;
  uint64_t corruptions = 0;
  bool stopped = false;
};

struct Figures {
  uint64_t trials = 0;
  uint64_t checks = 0;
  uint64_t writerKills = 0;
  uint64_t killsWithShadowsAttached = 0;
  uint64_t adoptions = 0;
  uint64_t reformats = 0;
  // Summed over writer lives, as of each life's last pause.
  uint64_t writerOps = 0;
  Mirak::Writer::Counters writer;
  uint64_t stops = 0;
  uint64_t overruns = 0;
  uint64_t overrunsRecovered = 0;
  uint64_t shadowKills = 0;
  uint64_t events = 0;
  uint64_t lookups = 0;
  uint64_t corruptionReports = 0;
  uint64_t mostRows = 0;
  uint32_t mostCapacity = 0;
  uint32_t leastCapacity = ~0u;
};

class Harness {
 public:
  explicit Harness(Options const& o) : o_(o), rng_(o.seed) {}

  int run() {
    fmt::print("shadow: up to {} trials or {} s, {} shadows and a reader, ids {}, seed {}\n",
               o_.trials, o_.seconds, o_.readers, o_.ids, o_.seed);
    std::fflush(stdout);
    auto const end = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(static_cast<int64_t>(o_.seconds * 1000));
    if (!startWriter()) return finish();
    for (uint32_t i = 0; i <= o_.readers; i++) {
      Proc p;
      p.index = i;
      p.type = i == o_.readers ? MirakType::reader
                               : (i % 2 == 0 ? MirakType::shadow : MirakType::keyshadow);
      p.synchronous = (i + i / 2) % 2 == 1;
      clients_.push_back(std::move(p));
      startClient(clients_.back());
    }
    check("start");
    while (failures_.empty() && fig_.trials < o_.trials && std::chrono::steady_clock::now() < end) {
      trial();
    }
    return finish();
  }

 private:
  void fail(std::string const& text) {
    if (failures_.size() < 20) failures_.push_back(text);
  }

  bool startWriter() {
    uint64_t const life = ++life_;
    uint64_t const seed = o_.seed * 1000003 + life;
    writer_.child.start([&](RecordPipe const& c, RecordPipe const& a) {
      return writerProcess(o_, life, seed, c, a);
    });
    WriterState st;
    if (!writer_.child.answers().receive(st, kAnswerMs)) {
      fail(fmt::format("writer life {} did not start", life));
      return false;
    }
    if (life > 1) (st.adopted ? fig_.adoptions : fig_.reformats)++;
    if (o_.verbose) {
      fmt::print("writer life {} {} kestor {}\n", life,
                 life == 1 ? "created" : st.adopted ? "adopted" : "re-formatted",
                 Parcel::KestorId(st.kestor));
    }
    return true;
  }

  void startClient(Proc& p) {
    uint64_t const seed = o_.seed * 7919 + ++clientStarts_;
    p.child.start([&](RecordPipe const& c, RecordPipe const& a) {
      return clientProcess(p.type, p.synchronous, o_.ids, seed, c, a);
    });
    p.resyncs = ~0ull;
    p.corruptions = 0;
  }

  // Pauses the writer, reads the table, asks every client. Returns the
  // writer's state.
  // A client stopped with SIGSTOP (`skip`) is not asked.
  WriterState check(std::string const& when, Proc const* skip = nullptr) {
    fig_.checks++;
    WriterState st;
    char const pause = 'p';
    writer_.child.commands().send(pause);
    if (!writer_.child.answers().receive(st, kAnswerMs)) {
      fail(fmt::format("{}: the writer did not pause", when));
      return st;
    }
    lifeState_ = st;
    fig_.mostCapacity = std::max(fig_.mostCapacity, st.capacity);
    fig_.leastCapacity = std::min(fig_.leastCapacity, st.capacity);
    Rows table;
    {
      SReader r(readerTestHandler(), kTable, SOps(0));
      if (!r.initialize("stress")) {
        fail(fmt::format("{}: the table can't be read", when));
      } else {
        SValue v;
        Mirak::IterHint hint{};
        for (bool ok = r.first(v, hint); ok; ok = r.next(v.key(), v, hint)) {
          if (!wholeRow(v, st.counter)) fail(fmt::format("{}: the table holds a torn row", when));
          table[idOfKey(v.key())] = counterOf(v);
        }
      }
    }
    fig_.mostRows = std::max<uint64_t>(fig_.mostRows, table.size());
    Command cmd;
    cmd.digest = digestOf(table);
    cmd.members = table.size();
    // Until the next check the writer may be killed and restarted once:
    // every counter of this life and the next may show up meanwhile.
    cmd.counterBound = (life_ + 1) << 32 | 0xffffffffu;
    cmd.sequence = st.sequence;
    if (o_.verbose) {
      fmt::print("{}: writer life {} kestor {} seq {} ops {}, table {} rows\n", when, life_,
                 Parcel::KestorId(st.kestor), st.sequence, st.ops, table.size());
    }
    for (Proc& p : clients_) {
      if (&p != skip) p.child.commands().send(cmd);
    }
    for (Proc& p : clients_) {
      if (&p == skip) continue;
      Answer a;
      std::string const who = fmt::format("{} {}{}", Mirak::formatMirakType(p.type), p.index,
                                          p.synchronous ? " (synchronous)" : "");
      if (!p.child.answers().receive(a, kAnswerMs + 5000)) {
        fail(fmt::format("{}: {} gave no answer ({})", when, who, p.child.ended(1)));
        continue;
      }
      if (!a.equal) fail(fmt::format("{}: {} diverged: {}", when, who, a.text));
      if (!a.replayed) fail(fmt::format("{}: {} callback log: {}", when, who, a.text));
      if (a.badValues)
        fail(fmt::format("{}: {} served {} values never written", when, who, a.badValues));
      // Counted and shown, not failed: a reader that follows the buckets
      // file across a writer's restart can take the restart's new kestor
      // for damage (README, Reliability). The copy must still be equal.
      if (a.corruptions > p.corruptions) {
        fig_.corruptionReports += a.corruptions - p.corruptions;
        if (firstCorruption_.empty()) {
          firstCorruption_ = fmt::format("{}: {}: {}", when, who, a.lastCorruption);
        }
      }
      p.corruptions = a.corruptions;
      if (o_.verbose) {
        fmt::print("  {}: {} rows ({} in the index), events {} ({} removals), sweeps {}, "
                   "rejoins {}, walks {}, seq {}, kestor {}{}{}\n",
                   who, a.members, a.localMembers, a.events, a.dels, a.resyncs, a.rejoins, a.walks,
                   a.sequence, Parcel::KestorId(a.kestor), a.writerLost ? ", writer lost" : "",
                   a.following ? "" : ", not following");
      }
      fig_.events += a.events;
      lookups_[p.index] = a.lookups;
      if (p.resyncs == ~0ull || a.resyncs < p.resyncs) {
        p.resyncs = a.resyncs;
      } else if (p.stopped) {
        // The stop made the writer drop entries this shadow had not read:
        // it must have swept again, and (above) be equal now.
        p.stopped = false;
        if (a.resyncs > p.resyncs) {
          fig_.overrunsRecovered++;
        } else {
          fail(fmt::format("{}: {} was overrun and did not sweep again", when, who));
        }
        p.resyncs = a.resyncs;
      } else {
        p.resyncs = a.resyncs;
      }
    }
    return st;
  }

  void endOfLife() {
    fig_.writerOps += lifeState_.ops;
    fig_.writer += lifeState_.counters;
    lifeState_ = WriterState();
  }

  void go() {
    char const g = 'g';
    writer_.child.commands().send(g);
  }

  void runFor(int ms) { ::poll(nullptr, 0, ms); }

  void trial() {
    fig_.trials++;
    std::string const when = fmt::format("trial {}", fig_.trials);
    go();
    runFor(static_cast<int>(2 + rng_() % 60));
    uint64_t const pick = rng_() % 100;
    // Every 40th trial stops a shadow, every 10th kills one; the others
    // kill the writer three times in four.
    if (o_.readers > 0 && fig_.trials % 40 == 20) {
      // A shadow stopped longer than the writer's patience while the writer
      // writes: the queue drops what it has not read.
      Proc& p = clients_[rng_() % o_.readers];
      uint64_t const prunedBefore = check(when + " before a stop").pruned;
      if (!failures_.empty()) return;
      p.child.signal(SIGSTOP);
      if (o_.verbose) fmt::print("{}: shadow {} stopped\n", when, p.index);
      fig_.stops++;
      go();
      runFor(1400);
      WriterState const st = check(when + " while a shadow is stopped", &p);
      p.child.signal(SIGCONT);
      if (st.pruned > prunedBefore) {
        fig_.overruns++;
        p.stopped = true;
      }
    } else if (o_.readers > 0 && fig_.trials % 10 == 5) {
      Proc& p = clients_[rng_() % o_.readers];
      if (o_.verbose) fmt::print("{}: shadow {} killed\n", when, p.index);
      p.child.kill();
      fig_.shadowKills++;
      startClient(p);
    } else if (pick < 75) {
      if (o_.verbose) fmt::print("{}: writer killed\n", when);
      writer_.child.kill();
      fig_.writerKills++;
      endOfLife();
      bool attached = true;
      for (Proc const& p : clients_) attached = attached && p.child.running();
      if (attached) fig_.killsWithShadowsAttached++;
      if (!startWriter()) return;
    }
    check(when);
  }

  int finish() {
    endOfLife();
    for (auto const& [i, n] : lookups_) fig_.lookups += n;
    // Every client ends as asked and exits 0: a crash shows here.
    Command x;
    x.verb = 'x';
    for (Proc& p : clients_) {
      std::string const end = p.child.running() ? p.child.end(x, kAnswerMs) : "";
      if (!end.empty()) {
        fail(fmt::format("{} {} ended: {}", Mirak::formatMirakType(p.type), p.index, end));
      }
    }
    std::string const end = writer_.child.running() ? writer_.child.end(x.verb, kAnswerMs) : "";
    if (!end.empty()) fail("the last writer ended: " + end);
    fmt::print(
        "shadow: trials {}, quiescent checks {}, writer ops {}, most rows {}, capacity {}..{}\n",
        fig_.trials, fig_.checks, fig_.writerOps, fig_.mostRows,
        fig_.leastCapacity == ~0u ? 0 : fig_.leastCapacity, fig_.mostCapacity);
    fmt::print(
        "shadow: writer kills {} ({} with every shadow attached), restarts adopted {}, "
        "re-formatted {}\n",
        fig_.writerKills, fig_.killsWithShadowsAttached, fig_.adoptions, fig_.reformats);
    fmt::print(
        "shadow: slot grows {}, compactions {} ({} slots moved), bucket grows {}, "
        "bucket shrinks {}\n",
        fig_.writer.slotGrows, fig_.writer.slotShrinks, fig_.writer.slotsMoved,
        fig_.writer.bucketGrows, fig_.writer.bucketShrinks);
    fmt::print(
        "shadow: shadow stops {}, overruns {}, recovered by a sweep {}/{}, shadow kills {}\n",
        fig_.stops, fig_.overruns, fig_.overrunsRecovered, fig_.overruns, fig_.shadowKills);
    fmt::print("shadow: callback events replayed {}, probe lookups {}, divergences {}\n",
               fig_.events, fig_.lookups, failures_.size());
    fmt::print("shadow: corruptions reported by clients {}{}\n", fig_.corruptionReports,
               firstCorruption_.empty() ? "" : " (first: " + firstCorruption_ + ")");
    for (auto const& f : failures_) fmt::print("shadow: FAIL {}\n", f);
    std::fflush(stdout);
    return failures_.empty() ? 0 : 1;
  }

  Options const& o_;
  std::mt19937_64 rng_;
  Proc writer_;
  std::vector<Proc> clients_;
  uint64_t life_ = 0;
  uint64_t clientStarts_ = 0;
  // The last state the writer of this life reported.
  WriterState lifeState_;
  std::map<uint32_t, uint64_t> lookups_;
  Figures fig_;
  std::string firstCorruption_;
  std::vector<std::string> failures_;
};

}  // namespace

int runShadow(Options const& o) {
  MirakTest::TempRoot root;
  Harness h(o);
  return h.run();
}

}  // namespace Stress
