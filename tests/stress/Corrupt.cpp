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
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <vector>

#include <fmt/format.h>

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

// Flips 1..8 bytes of one file; half the time inside its first 512 bytes,
// where every file keeps its header.
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
  std::string const path = dir + "/" + file;
  uint64_t const size = fs::file_size(path);
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  std::vector<Flip> flips;
  uint32_t const n = 1 + static_cast<uint32_t>(rng() % 8);
  bool const header = rng() % 2 == 0;
  using Geometry = Mirak::SlotGeometry<CValue>;
  for (uint32_t i = 0; i < n; i++) {
    uint64_t const off = header ? rng() % std::min<uint64_t>(size, 512) : rng() % size;
    f.seekg(static_cast<std::streamoff>(off));
    char c = 0;
    f.read(&c, 1);
    c = static_cast<char>(c ^ (1 + rng() % 255));
    f.seekp(static_cast<std::streamoff>(off));
    f.write(&c, 1);
    // Whether the byte is inside the value of a slot (or the lookaside
    // slot, which is laid out the same way at the header's end).
    bool inValue = false;
    if (file == "slots" && off >= Geometry::headerSize) {
      uint64_t const inSlot = (off - Geometry::headerSize) % sizeof(Mirak::SlotTable::Slot<CValue>);
      inValue = inSlot >= offsetof(Mirak::SlotTable::Slot<CValue>, value);
    }
    flips.push_back(Flip{file, off, inValue});
  }
  return flips;
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
  for (auto const& f : failures) fmt::print("corrupt: FAIL {}\n", f);
  std::fflush(stdout);
  return failures.empty() ? 0 : 1;
}

}  // namespace Stress
