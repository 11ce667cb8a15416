// Mode "corrupt": a valid table is made once and kept as a golden copy; each
// case restores it, flips random bytes in one of its files (a header, slots,
// buckets, the queue files, the kestor and owner files), and then
//   (a) a reader process attaches, looks up every id and walks: it must come
//       back within a bound with correct rows, an attach refused, or
//       Lomi::CorruptionDetectedException; never crash or hang;
//   (b) a writer process starts on the directory: it must re-format, or adopt
//       a table that then validates; never crash or hang.
// Rows whose value bytes were flipped read back as other values: no check of
// the table covers the bytes of a value, so such cases are counted apart as
// "wrong rows" with where the flips fell.
//
// Then --cases / 2 cases on the change queue alone: random bytes of one of
// its three files flipped (half the time within its header) or the file cut
// short at a random length, and a shadow process mounts the table through
// its front object and sentry. Within a bound it must be synchronised with
// the golden rows (the sweep reads the table, not the queue), or have
// reported the damage with a message that names the table's directory and
// the problem (attach refused with its reason, or a corruption); never crash,
// hang, serve other rows or report damage without saying where.
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <vector>

#include <fmt/format.h>

#include "FlowTracking/Collections.h"
#include "Lomi/EventLoop.h"
#include "Mirak/MirakMap.h"
#include "Mirak/MirakShadow.h"
#include "Mirak/SlotTable.h"
#include "Mirak/SlotWriter.h"
#include "Mirak/TempRoot.h"
#include "stress/Modes.h"
#include "stress/Stress.h"

namespace Stress {

namespace {

using namespace FlowTrackingTest;
namespace fs = std::filesystem;

constexpr char kTable[] = "stress/corrupt";
constexpr int kBoundMs = 10000;
using CValue = ConfigValue;

enum class StartOutcome : uint32_t { adopted, reformatted, adoptedInvalid, threw, crashed, hung };
constexpr char const* kStartNames[] = {"adopted (validates)", "re-formatted", "adopted invalid",
                                       "start threw",         "crashed",      "hung"};

ChildReport writerCase() {
  ChildReport rep;
  try {
    Parcel::KestorId before;
    {
      Parcel::KestorFile const k(readerTestHandler(),
                                 Mem::NaoRootPath(readerTestHandler(), kTable, false), false);
      before = k.read();
    }
    TraceCapture trace;
    auto w = makeSharedWriter<ConfigRecord>(kTable, workloadDescriptor(4096));
    bool const reformatted = trace.contains("will be lost") || w->kestorId() != before;
    if (reformatted) {
      rep.outcome = static_cast<uint32_t>(StartOutcome::reformatted);
      rep.note(trace.reformatReason());
      if (!w->validate()) {
        rep.outcome = static_cast<uint32_t>(StartOutcome::adoptedInvalid);
        rep.note("the re-formatted table does not validate");
      }
    } else {
      std::string error;
      bool const ok = w->validate(w->kestorId(), error, false);
      rep.outcome =
          static_cast<uint32_t>(ok ? StartOutcome::adopted : StartOutcome::adoptedInvalid);
      rep.note(error);
    }
  } catch (std::exception const& e) {
    rep.outcome = static_cast<uint32_t>(StartOutcome::threw);
    rep.note(e.what());
  }
  return rep;
}

struct Flip {
  std::string file;
  uint64_t offset;
  bool inValue;
};

// Flips 1..8 bytes of `file` in `dir`, half the time within its first
// `headerBytes` (where every file keeps its header); returns the offsets.
std::vector<uint64_t> flipBytes(std::string const& dir, std::string const& file,
                                uint64_t headerBytes, std::mt19937_64& rng) {
  std::string const path = dir + "/" + file;
  uint64_t const size = fs::file_size(path);
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  std::vector<uint64_t> offsets;
  uint32_t const n = 1 + static_cast<uint32_t>(rng() % 8);
  bool const header = rng() % 2 == 0;
  for (uint32_t i = 0; i < n; i++) {
    uint64_t const off = header ? rng() % std::min(size, headerBytes) : rng() % size;
    f.seekg(static_cast<std::streamoff>(off));
    char c = 0;
    f.read(&c, 1);
    c = static_cast<char>(c ^ (1 + rng() % 255));
    f.seekp(static_cast<std::streamoff>(off));
    f.write(&c, 1);
    offsets.push_back(off);
  }
  return offsets;
}

// Flips bytes of one file of the table, its first 512 bytes half the time.
std::vector<Flip> damage(std::string const& dir, std::mt19937_64& rng) {
  std::vector<std::string> files;
  for (auto const& e : fs::directory_iterator(dir)) {
    if (e.is_regular_file() && e.file_size() > 0) files.push_back(e.path().filename());
  }
  std::sort(files.begin(), files.end());
  // Slots and buckets hold the structure: they get half of the cases.
  std::string file;
  uint64_t const pick = rng() % 4;
  if (pick == 0 && fs::exists(dir + "/slots")) {
    file = "slots";
  } else if (pick == 1 && fs::exists(dir + "/buckets")) {
    file = "buckets";
  } else {
    file = files[rng() % files.size()];
  }
  using Geometry = Mirak::SlotGeometry<CValue>;
  using Slot = Mirak::SlotTable::Slot<CValue>;
  std::vector<Flip> flips;
  for (uint64_t off : flipBytes(dir, file, 512, rng)) {
    // Whether the byte is inside the value of a slot (or the lookaside
    // slot, which is laid out the same way at the header's end).
    bool const inValue = file == "slots" && off >= Geometry::headerSize &&
                         (off - Geometry::headerSize) % sizeof(Slot) >= offsetof(Slot, value);
    flips.push_back(Flip{file, off, inValue});
  }
  return flips;
}

// How a shadow mounted on a table with a damaged queue ended.
enum class QueueOutcome : uint32_t {
  synced,
  refusedNamed,
  detectedNamed,
  unnamed,
  wrongRows,
  crashed,
  hung
};
constexpr char const* kQueueNames[] = {"synchronised, golden rows",
                                       "attach refused, named",
                                       "corruption reported, named",
                                       "damage not named",
                                       "wrong rows",
                                       "crashed",
                                       "hung"};

// A shadow of the golden config table, mounted as an agent mounts it.
class GoldenShadow : public Mirak::MirakMap<FlowTracking::HoIpFlowConfigOps> {
 public:
  explicit GoldenShadow(Mirak::MirakType type) : MirakMap(FlowTracking::HoIpFlowConfigOps(0)) {
    name_ = kTable;
    notify_.changeFn = [](CValue const&) {};
    notify_.keyFn = [](ConfigRecord::Key const&) {};
    notify_.keyDelFn = [](ConfigRecord::Key const&) {};
    Mirak::MapDescriptor d(0);
    d.type = type;
    d.synchronous = true;
    notifyingIs(true);
    init(d);
  }
  ~GoldenShadow() override { controlDetach(); }
  bool synced() const {
    auto const* s =
        dynamic_cast<Mirak::MirakShadow<FlowTracking::HoIpFlowConfigOps> const*>(back_.get());
    return s && mountStatus() == Mem::mountStatusSynchronized && s->quiesced();
  }
  // Rows that differ from the golden table, counted both ways.
  uint32_t wrongRows() const {
    uint32_t wrong = 0;
    uint32_t n = 0;
    CValue v;
    Mirak::IterHint hint{};
    for (bool ok = back_->first(v, hint); ok && n <= 2 * kGoldenIds;
         ok = back_->next(v.key(), v, hint)) {
      n++;
      uint32_t const id = v.key().ipFlowKey().srcAddr().value() - 0x0a000000u;
      if (id >= kGoldenIds || !goldenHas(id) || !(v == goldenRow(id))) wrong++;
    }
    uint32_t golden = 0;
    for (uint32_t id = 0; id < kGoldenIds; id++) golden += goldenHas(id);
    return wrong + (n > golden ? n - golden : golden - n);
  }
};

// The child of a queue case: mounts a shadow (value or key) and waits up
// to 3 s for it to synchronise or to report the damage.
ChildReport shadowCase(Mirak::MirakType type, std::string const& dir) {
  ChildReport rep;
  std::vector<std::string> lines;
  Lomi::Platform::getDebugHandler(kTable, true).maskIs(0x3);
  Lomi::Platform::traceSinkIs([&](std::string_view l) { lines.emplace_back(l); });
  auto const is = [&](QueueOutcome o, std::string const& text) {
    rep.outcome = static_cast<uint32_t>(o);
    rep.note(text);
  };
  // A report names the damage when it says where (the table's directory)
  // and what: the queue's file or field that is wrong.
  auto const named = [&](std::string const& l) {
    return l.find(dir) != std::string::npos &&
           (l.find("tessel") != std::string::npos || l.find("queue") != std::string::npos);
  };
  try {
    GoldenShadow shadow(type);
    Lomi::EventLoop& loop = Mem::RootPath::eventLoop();
    loop.runUntil([&] { return shadow.synced() || shadow.corruptionsDetected() > 0; }, 3.0);
    if (shadow.corruptionsDetected() > 0) {
      std::string const& m = shadow.lastCorruption();
      is(named(m) ? QueueOutcome::detectedNamed : QueueOutcome::unnamed, m);
    } else if (shadow.synced()) {
      uint32_t const wrong = shadow.wrongRows();
      is(wrong ? QueueOutcome::wrongRows : QueueOutcome::synced,
         wrong ? fmt::format("{} rows differ", wrong) : "");
    } else {
      std::string reason;
      for (auto const& l : lines) {
        if (named(l)) reason = l;
      }
      is(reason.empty() ? QueueOutcome::unnamed : QueueOutcome::refusedNamed,
         reason.empty() ? "not mounted, and no trace says why" : reason);
    }
  } catch (std::exception const& e) {
    is(QueueOutcome::unnamed, fmt::format("exception: {}", e.what()));
  }
  Lomi::Platform::traceSinkIs({});
  return rep;
}

// Flips 1..8 bytes of one queue file (half the time within its first 128
// bytes: the header, or a table's header and first entries), or cuts it to a
// random length. Returns what it did.
std::string damageQueue(std::string const& dir, std::mt19937_64& rng) {
  static constexpr char const* kQueueFiles[] = {"tessel", "tessel.0", "tessel.1"};
  std::string const file = kQueueFiles[rng() % 3];
  std::string const path = dir + "/" + file;
  uint64_t const size = fs::file_size(path);
  if (rng() % 4 == 0) {
    uint64_t const to = rng() % size;
    fs::resize_file(path, to);
    return fmt::format("{} cut to {} of {} bytes", file, to, size);
  }
  std::string where = file;
  for (uint64_t off : flipBytes(dir, file, 128, rng)) where += fmt::format(" @{}", off);
  return where;
}

}  // namespace

int runCorrupt(Options const& o) {
  MirakTest::TempRoot root;
  fmt::print("corrupt: {} cases, seed {}\n", o.cases, o.seed);
  std::fflush(stdout);
  std::string const dir = root.path() + "/" + kTable;
  std::string const golden = root.path() + "/golden";
  {
    pid_t const pid = forkChild([] {
      writeGolden(kTable);
      return 0;
    });
    if (!exitedWith(reap(pid), 0)) {
      fmt::print("corrupt: FAIL the golden table could not be made\n");
      return 1;
    }
  }
  fs::copy(dir, golden, fs::copy_options::recursive);
  std::mt19937_64 rng(o.seed);
  uint64_t reads[std::size(kReadNames)] = {};
  uint64_t starts[6] = {};
  std::map<std::string, uint64_t> filesHit;
  uint64_t wrongOutsideValues = 0;
  std::vector<std::string> failures;
  for (uint32_t c = 0; c < o.cases; c++) {
    fs::remove_all(dir);
    fs::copy(golden, dir, fs::copy_options::recursive);
    std::vector<Flip> const flips = damage(dir, rng);
    filesHit[flips.front().file]++;
    std::string where;
    bool anyInValue = false;
    for (auto const& f : flips) {
      where += fmt::format(" {}@{}", f.file, f.offset);
      anyInValue = anyInValue || f.inValue;
    }
    ChildReport const r = runBounded<ReadOutcome>([] { return readGolden(kTable); }, kBoundMs);
    reads[r.outcome]++;
    auto const ro = static_cast<ReadOutcome>(r.outcome);
    if (ro == ReadOutcome::wrongRows && !anyInValue) wrongOutsideValues++;
    if (ro == ReadOutcome::crashed || ro == ReadOutcome::hung ||
        ro == ReadOutcome::otherException || ro == ReadOutcome::named ||
        (ro == ReadOutcome::wrongRows && !anyInValue && o.verbose)) {
      if (ro != ReadOutcome::wrongRows) {
        failures.push_back(fmt::format("case {} reader {}: {} (flips{})", c, kReadNames[r.outcome],
                                       r.text, where));
      } else {
        fmt::print("corrupt: case {} wrong rows outside values: {} (flips{})\n", c, r.text, where);
      }
    }
    ChildReport const s = runBounded<StartOutcome>(writerCase, kBoundMs);
    starts[s.outcome]++;
    auto const so = static_cast<StartOutcome>(s.outcome);
    if (so != StartOutcome::adopted && so != StartOutcome::reformatted) {
      failures.push_back(
          fmt::format("case {} writer {}: {} (flips{})", c, kStartNames[s.outcome], s.text, where));
    }
    if (o.verbose) {
      fmt::print("case {}: reader {} | writer {} {} | flips{}\n", c, kReadNames[r.outcome],
                 kStartNames[s.outcome], s.text, where);
    }
  }
  std::string files;
  for (auto const& [f, n] : filesHit) files += fmt::format(" {}:{}", f, n);
  std::string readLine, startLine;
  for (size_t i = 0; i < std::size(kReadNames); i++)
    readLine += fmt::format(" {} {},", kReadNames[i], reads[i]);
  for (int i = 0; i < 6; i++) startLine += fmt::format(" {} {},", kStartNames[i], starts[i]);
  fmt::print("corrupt: cases {} files hit{}\n", o.cases, files);
  fmt::print("corrupt: reader:{} (wrong rows with no flip inside a value: {})\n", readLine,
             wrongOutsideValues);
  fmt::print("corrupt: writer start:{}\n", startLine);
  // The change queue alone, under value shadows and keyshadows in turn.
  uint64_t queue[std::size(kQueueNames)] = {};
  uint32_t const queueCases = o.cases / 2;
  for (uint32_t c = 0; c < queueCases; c++) {
    fs::remove_all(dir);
    fs::copy(golden, dir, fs::copy_options::recursive);
    std::string const what = damageQueue(dir, rng);
    Mirak::MirakType const type = c % 2 ? Mirak::MirakType::keyshadow : Mirak::MirakType::shadow;
    ChildReport const r = runBounded<QueueOutcome>([&] { return shadowCase(type, dir); }, kBoundMs);
    queue[r.outcome]++;
    auto const qo = static_cast<QueueOutcome>(r.outcome);
    if (qo != QueueOutcome::synced && qo != QueueOutcome::refusedNamed &&
        qo != QueueOutcome::detectedNamed) {
      failures.push_back(fmt::format("queue case {} {}: {}: {} ({})", c,
                                     Mirak::formatMirakType(type), kQueueNames[r.outcome], r.text,
                                     what));
    }
    if (o.verbose) {
      fmt::print("queue case {}: {} {} {} | {}\n", c, Mirak::formatMirakType(type),
                 kQueueNames[r.outcome], r.text, what);
    }
  }
  std::string queueLine;
  for (size_t i = 0; i < std::size(kQueueNames); i++)
    queueLine += fmt::format(" {} {},", kQueueNames[i], queue[i]);
  fmt::print("corrupt: queue cases {}, shadow:{}\n", queueCases, queueLine);
  for (auto const& f : failures) fmt::print("corrupt: FAIL {}\n", f);
  std::fflush(stdout);
  return failures.empty() ? 0 : 1;
}

}  // namespace Stress
