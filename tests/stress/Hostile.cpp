// Mode "hostile": table directories where a hostile neighbour or a damaged
// disk has been. Each case restores the golden table (its writer gone, or one
// case in four a writer process idle on it) and applies one damage: 1-3 link
// words of a chain rewired; "slots" or "buckets" cut short, before a reader
// attaches or by the reader itself under its mappings; a FIFO in place of a
// file; a link in place of a file or of the directory, to a victim copy
// outside it; the corruption marker planted as a link to a victim beside a
// slot header whose checksum fails, so that readers want to leave the marker.
// Then, each bounded, a reader process (readGolden) and the tool: ls, show,
// dump, check, and one of them again with --json.
// Fails on a hang; a death by a signal; an exception with no name or message;
// a tool exit code other than 0, 1 or 2, or one that says nothing; --json
// output that python3 does not parse; a victim whose bytes or mtime changed;
// a tool run that changed the table directory's listing (names, kinds, sizes,
// mtimes); rows read through a link in place of the slot or bucket file or
// the directory. Case c of a run with --seed S is the only case of a run with
// --seed S+c; the words rewired are printed as well, since the chains follow
// the hash seed the golden table's writer drew.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <tuple>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "Mirak/SlotWriter.h"
#include "Mirak/TempRoot.h"
#include "MirakCore/BucketTable.h"
#include "cli/RunTool.h"
#include "stress/Modes.h"
#include "stress/Stress.h"

namespace Stress {

namespace {

using namespace FlowTrackingTest;
namespace fs = std::filesystem;
using Geometry = Mirak::SlotGeometry<ConfigValue>;
using Link = Mirak::SlotLink;
using BucketHeader = MirakCore::BucketTable<Link>::Header;

constexpr char kTable[] = "stress/hostile";
constexpr int kBoundS = 5;

enum Damage : uint32_t { rewire, cut, cutUnder, fifo, fileLink, dirLink, markerLink, kDamages };
constexpr char const* kDamageNames[] = {"rewired links", "truncated", "truncated under a reader",
                                        "fifo",          "file link", "directory link",
                                        "marker link"};

uint32_t wordAt(int fd, uint64_t at) {
  uint32_t w = 0;
  if (::pread(fd, &w, sizeof w, static_cast<off_t>(at)) != sizeof w) w = Link::kEndOfTable;
  return w;
}
void wordIs(int fd, uint64_t at, uint32_t w) {
  if (::pwrite(fd, &w, sizeof w, static_cast<off_t>(at)) != sizeof w) {
    throw Lomi::RuntimeException("cannot write at {}: {}", at, std::strerror(errno));
  }
}
int openRw(std::string const& path) {
  int const fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) throw Lomi::RuntimeException("cannot open {}: {}", path, std::strerror(errno));
  return fd;
}

// Rewires 1-3 link words of the chain of a random non-empty bucket.
std::string rewireLinks(std::string const& dir, std::mt19937_64& rng) {
  int const s = openRw(dir + "/slots"), b = openRw(dir + "/buckets");
  constexpr uint64_t count = offsetof(Mem::VersionedRef<uint32_t>, value),
                     next = offsetof(Link, next);
  uint32_t const capacity = wordAt(s, offsetof(Mirak::SlotTable::Header, numSlots) + count);
  uint32_t const buckets = wordAt(b, offsetof(BucketHeader, numBuckets) + count);
  auto const headAt = [](uint32_t i) { return BucketHeader::entryOffset(i) + next; };
  auto const nextAt = [](uint32_t i) {
    return Geometry::headerSize + uint64_t{i} * Geometry::slotSize + next;
  };
  std::string what;
  for (uint32_t n = 1 + rng() % 3; n > 0; n--) {
    // The longest chain of a few non-empty buckets: most chains have one slot.
    uint32_t bucket = 0;
    std::vector<uint32_t> chain;
    for (int tries = 0; tries < 1000 && (chain.empty() || tries < 16); tries++) {
      uint32_t const at = static_cast<uint32_t>(rng() % buckets);
      std::vector<uint32_t> slots;
      for (uint32_t i = wordAt(b, headAt(at)); i < capacity; i = wordAt(s, nextAt(i))) {
        if (std::find(slots.begin(), slots.end(), i) != slots.end()) break;
        slots.push_back(i);
      }
      if (slots.size() > chain.size()) std::tie(bucket, chain) = std::tie(at, slots);
    }
    if (chain.empty()) throw Lomi::RuntimeException("no chain to rewire in {}", dir);
    // The head (k = 0) or the link of the chain's slot k - 1.
    size_t const k = rng() % (chain.size() + 1);
    uint64_t const at = k == 0 ? headAt(bucket) : nextAt(chain[k - 1]);
    // A loop back into the chain, any slot, past the capacity, the end of
    // some chain (a bucket that may not exist), the end of the table.
    uint32_t const targets[] = {
        chain[rng() % (k ? k : chain.size())], static_cast<uint32_t>(rng() % capacity),
        capacity + static_cast<uint32_t>(rng() % (Link::kEndOfChain - capacity)),
        Link::endOfChainTo(static_cast<uint32_t>(rng() % (2 * buckets))), Link::kEndOfTable};
    uint32_t const target = targets[rng() % std::size(targets)];
    what += fmt::format(" {}[{}].next {:#x}->{:#x}", k ? "slots" : "buckets",
                        k ? chain[k - 1] : bucket, wordAt(k ? s : b, at), target);
    wordIs(k ? s : b, at, target);
  }
  ::close(s);
  ::close(b);
  return what;
}

// A length to cut `path` (slots or buckets) to: 0, into its header, into one
// slot or bucket entry, or anywhere.
uint64_t cutLength(std::string const& path, bool slots, std::mt19937_64& rng) {
  uint64_t const header = slots ? Geometry::headerSize : sizeof(BucketHeader);
  uint64_t const entry = slots ? Geometry::slotSize : sizeof(Link);
  uint64_t const size = fs::file_size(path);
  uint64_t const lengths[] = {
      0, rng() % header,
      header + rng() % ((size - header) / entry) * entry + 1 + rng() % (entry - 1), rng() % size};
  return lengths[rng() % std::size(lengths)];
}

// One line per entry at and under `path`, links not followed: name, mode,
// size, mtime, and with `content` a regular file's bytes.
std::string stateOf(std::string const& path, bool content) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return path + " absent\n";
  std::string out = fmt::format("{} {:o} {} {}.{:09}\n", path, st.st_mode, st.st_size,
                                st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  if (S_ISREG(st.st_mode) && content) out += CliTest::slurp(path);
  if (!S_ISDIR(st.st_mode)) return out;
  std::vector<std::string> names;
  for (auto const& e : fs::directory_iterator(path)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  for (auto const& n : names) out += stateOf(path + "/" + n, content);
  return out;
}

struct Tally {
  uint64_t hangs = 0, crashes = 0, clobbers = 0, unnamed = 0, followed = 0, badJson = 0;
  std::vector<std::string> failures;
  void fail(uint64_t& figure, std::string const& text) {
    figure++;
    failures.push_back(text);
  }
};

// One case's damage. A cut under a reader is made by the reader (cutNow),
// after it attached and read.
struct Case {
  std::string file, path, what;
  uint64_t length = 0;
  void cutNow() const {
    if (::truncate(path.c_str(), static_cast<off_t>(length)) != 0) {
      throw Lomi::RuntimeException("cannot truncate {}: {}", path, std::strerror(errno));
    }
  }
};

Case damage(Damage d, std::string const& dir, std::vector<std::string> const& files,
            std::string const& victims, std::mt19937_64& rng) {
  Case c;
  c.file = d == rewire || d == markerLink ? "slots"
           : d == cut || d == cutUnder    ? (rng() % 2 ? "slots" : "buckets")
                                          : files[rng() % files.size()];
  c.path = dir + "/" + c.file;
  c.what = d == dirLink ? kDamageNames[d] : fmt::format("{} {}", kDamageNames[d], c.file);
  if (d == cut || d == cutUnder) {
    c.length = cutLength(c.path, c.file == "slots", rng);
    c.what += fmt::format(" to {}", c.length);
  }
  if (d == rewire) c.what += rewireLinks(dir, rng);
  if (d == cut) c.cutNow();
  if (d == fifo || d == fileLink) fs::remove(c.path);
  if (d == fileLink) fs::create_symlink(victims + "/" + c.file, c.path);
  if (d == fifo && ::mkfifo(c.path.c_str(), 0666) != 0) {
    throw Lomi::RuntimeException("cannot make a FIFO {}: {}", c.path, std::strerror(errno));
  }
  if (d == dirLink) {
    fs::remove_all(dir);
    fs::create_symlink(victims + "/table", dir);
  }
  if (d == markerLink) {
    int const fd = openRw(c.path);
    uint64_t const at = offsetof(Mirak::SlotTable::Header, hash);
    wordIs(fd, at, ~wordAt(fd, at));
    ::close(fd);
    fs::create_symlink(victims + "/marker", dir + "/corruption-detected");
  }
  return c;
}

// One bounded run of the tool on the table in `dir`: its exit code, what it
// says, the table directory's listing and, for --json, its stdout.
void toolCase(std::vector<std::string> args, std::string const& dir, std::string const& scratch,
              std::string const& where, bool verbose, Tally& t,
              std::map<std::string, uint64_t>& exits) {
  std::string const line =
      fmt::format("{}: flowtable {}: ", where, fmt::join(args.begin() + 2, args.end(), " "));
  std::string const before = stateOf(dir, false);
  CliTest::Result const r = CliTest::runTool(args, scratch + "/tool", [] { ::alarm(kBoundS); });
  if (stateOf(dir, false) != before) t.fail(t.clobbers, line + "wrote into the table directory");
  exits[fmt::format("{} exit {}", args[2], r.code)]++;
  if (verbose) fmt::print("{}exit {} {}\n", line, r.code, (r.out + r.err).substr(0, 160));
  if (r.code == 128 + SIGALRM) return t.fail(t.hangs, line + "hung");
  if (r.code > 128) return t.fail(t.crashes, fmt::format("{}signal {}", line, r.code - 128));
  if (r.code < 0 || r.code > 2) return t.fail(t.unnamed, fmt::format("{}exit {}", line, r.code));
  if (r.code != 0 && (r.out + r.err).find_first_not_of(" \n") == std::string::npos) {
    t.fail(t.unnamed, fmt::format("{}exit {} and not a word why", line, r.code));
  }
  if (args[2] != "--json") return;
  std::ofstream(scratch + "/json") << r.out;
  std::string const parse = fmt::format(
      "python3 -c 'import json,sys; json.load(open(sys.argv[1]))' {}/json 2>/dev/null", scratch);
  int const rc = std::system(parse.c_str());
  if (!WIFEXITED(rc) || WEXITSTATUS(rc) == 127) {
    exits["--json not parsed (no python3)"]++;
  } else if (WEXITSTATUS(rc) != 0) {
    t.fail(t.badJson, line + "stdout is not one JSON document: " + r.out.substr(0, 80));
  }
}

std::string figures(std::map<std::string, uint64_t> const& counts) {
  std::vector<std::string> out;
  for (auto const& [what, n] : counts) out.push_back(fmt::format("{} {}", what, n));
  return fmt::format("{}", fmt::join(out, ", "));
}

// The reader's outcomes as the figures count them: rows found are right or
// wrong (the damage hid rows, or showed removed ones, and nothing noticed).
constexpr char const* kFigureOf[] = {
    "rows found",         "refused attach", "named error", "named error",
    "rows found (wrong)", "unnamed error",  "crashed",     "hung"};
static_assert(std::size(kFigureOf) == std::size(kReadNames));

}  // namespace

int runHostile(Options const& o) {
  // The golden copy and the victims stay out of the root, which `ls` walks;
  // `root`, made last, is the tables' base.
  MirakTest::TempRoot outside;
  MirakTest::TempRoot root;
  std::string const dir = root.path() + "/" + kTable;
  std::string const golden = outside.path() + "/golden", victims = outside.path() + "/victims";
  if (!exitedWith(reap(forkChild([] { return writeGolden(kTable), 0; })), 0)) {
    fmt::print("hostile: FAIL the golden table could not be made\n");
    return 1;
  }
  fs::copy(dir, golden, fs::copy_options::recursive);
  fs::copy(golden, victims, fs::copy_options::recursive);
  fs::copy(golden, victims + "/table", fs::copy_options::recursive);
  std::ofstream(victims + "/marker") << "precious";
  std::vector<std::string> files;
  for (auto const& e : fs::directory_iterator(golden)) files.push_back(e.path().filename());
  std::sort(files.begin(), files.end());
  fmt::print("hostile: {} cases, seed {} (case c alone: --seed {}+c --cases 1), files {}\n",
             o.cases, o.seed, o.seed, fmt::join(files, " "));
  std::fflush(stdout);
  std::string victimState = stateOf(victims, true);
  Tally t;
  uint64_t live = 0, cases[kDamages] = {};
  std::map<std::string, uint64_t> byDamage[kDamages], exits;
  for (uint32_t n = 0; n < o.cases; n++) {
    std::mt19937_64 rng(o.seed + n);
    fs::remove_all(dir);
    fs::copy(golden, dir, fs::copy_options::recursive);
    auto const d = static_cast<Damage>(rng() % kDamages);
    cases[d]++;
    // One case in four, a writer that adopts the table and stays, idle.
    RecordPipe up;
    pid_t const writer = rng() % 4 ? 0 : forkChild([&]() -> int {
      auto w = makeSharedWriter<ConfigRecord>(kTable, workloadDescriptor(4096));
      up.send(uint32_t{1});
      for (;;) ::pause();
    });
    uint32_t token = 0;
    bool const alive = writer && up.receive(token, kBoundS * 1000);
    live += alive ? 1 : 0;
    auto const stopWriter = [writer] {
      ::kill(writer, SIGKILL);
      reap(writer);
    };
    // One that did not start in time must not start during the case.
    if (writer && !alive) stopWriter();
    Case const c = damage(d, dir, files, victims, rng);
    std::string const where = fmt::format("case {} (--seed {}) {}{}", n, o.seed + n, c.what,
                                          alive ? ", writer alive" : "");
    ChildReport const r = runBounded<ReadOutcome>(
        [&] {
          return readGolden(kTable, d == cutUnder ? [&] { c.cutNow(); } : std::function<void()>());
        },
        kBoundS * 1000);
    auto const ro = static_cast<ReadOutcome>(r.outcome);
    byDamage[d][kFigureOf[r.outcome]]++;
    std::string const said = fmt::format("{}: reader {}: {}", where, kReadNames[r.outcome], r.text);
    if (ro == ReadOutcome::hung) t.fail(t.hangs, said);
    if (ro == ReadOutcome::crashed) t.fail(t.crashes, said);
    if (ro == ReadOutcome::otherException) t.fail(t.unnamed, said);
    bool const throughLink =
        d == dirLink || (d == fileLink && (c.file == "slots" || c.file == "buckets"));
    if (throughLink && (ro == ReadOutcome::correct || ro == ReadOutcome::wrongRows)) {
      t.fail(t.followed, said + " (rows read through the link)");
    }
    std::string const commands[] = {"ls", "show", "dump", "check"};
    for (int i = 0; i < 5; i++) {
      std::vector<std::string> args = {"--root", root.path()};
      if (i == 4) args.push_back("--json");
      args.push_back(commands[i < 4 ? i : rng() % 4]);
      if (args.back() != "ls") args.push_back(kTable);
      toolCase(args, dir, outside.path(), where, o.verbose, t, exits);
    }
    if (alive) stopWriter();
    if (std::string const now = stateOf(victims, true); now != victimState) {
      t.fail(t.clobbers, where + ": a victim outside the table directory changed");
      victimState = now;
    }
    if (o.verbose) fmt::print("{}: reader {} {}\n", where, kReadNames[r.outcome], r.text);
  }
  fmt::print("hostile: cases with a live writer {}; cases and reader outcomes by damage:\n", live);
  for (uint32_t d = 0; d < kDamages; d++) {
    fmt::print("hostile:   {} {}: {}\n", kDamageNames[d], cases[d], figures(byDamage[d]));
  }
  fmt::print("hostile: tool: {}\n", figures(exits));
  fmt::print(
      "hostile: hangs {}, crashes {}, clobbers {}, unnamed errors {}, links followed {}, "
      "bad JSON {}\n",
      t.hangs, t.crashes, t.clobbers, t.unnamed, t.followed, t.badJson);
  for (auto const& f : t.failures) fmt::print("hostile: FAIL {}\n", f);
  std::fflush(stdout);
  return t.failures.empty() ? 0 : 1;
}

}  // namespace Stress
