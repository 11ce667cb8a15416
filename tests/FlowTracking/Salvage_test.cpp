// A writer process killed inside its store orders, then restarted: the start
// carries every complete record into a new generation (salvage) instead of
// formatting the table empty. One table-driven test kills a child writer at
// a named point (MirakCore/WriteStep.h) inside an insert, an overwrite, a
// remove, a slot growth, a bucket growth and a slot compaction, then perhaps
// each of a row of salvaging starts at a point of the salvage's own store
// order, then perhaps damages the side file or the slot file; the restart
// must prove that every write the child completed (it reports each one up a
// pipe after the call returned) is there with its value, the one in flight
// old or new, nothing else is, the table validates, a reader process reads
// the same and the next start adopts it; or, for a slot file too damaged to
// read, salvage off, or a damaged or planted side file (refused, never
// used, and said so in the outcome), that it re-formats with the reason.
// The bulk build of every table is the table the insert path builds.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/ReaderTestUtil.h"
#include "FlowTracking/TableRows.h"
#include "FlowTracking/Tables.h"
#include "Mirak/SalvageFile.h"
#include "Mirak/StartOutcome.h"
#include "Mirak/TempRoot.h"
#include "MirakCore/WriteStep.h"

namespace FlowTrackingTest {
namespace {

using Record = FlowTracking::HoIpFlowConfig;
using Value = FlowTracking::TableValue<Record>;
using Step = MirakCore::WriteStep;
using Kind = Mirak::StartOutcome::Kind;

// Where the child stops: the nth time it passes `killStep`. Set only in the
// child, after the fork; the parent's writers never stop.
std::optional<Step> killStep;
uint32_t killAt = 0;
uint32_t passed = 0;

// The table's own policy with the stop point: the files are the same as the
// production table's, so the parent restarts them with the plain policy.
struct KillOps : FlowTracking::HoIpFlowConfigOps {
  using FlowTracking::HoIpFlowConfigOps::HoIpFlowConfigOps;
  static void writeStepHook(Step s) {
    if (killStep && s == *killStep && ++passed == killAt) ::kill(::getpid(), SIGKILL);
  }
};

constexpr char kTable[] = "test/salvage";
constexpr uint32_t kRows = 3000;
constexpr uint32_t kKept = 200;

// The child's script, known to both sides: insert every id (version 1),
// overwrite every id (version 2), then remove all but kKept, which compacts
// the slots.
struct Op {
  bool remove = false;
  uint32_t id = 0;
  uint32_t version = 0;
};
std::vector<Op> script() {
  std::vector<Op> ops;
  for (uint32_t i = 0; i < kRows; i++) ops.push_back({false, i, 1});
  for (uint32_t i = 0; i < kRows; i++) ops.push_back({false, i, 2});
  for (uint32_t i = kKept; i < kRows; i++) ops.push_back({true, i, 0});
  return ops;
}

Mirak::MapDescriptor descriptor(bool salvage = true) {
  Mirak::MapDescriptor d = sharedDescriptor(1u << 14, true);
  d.shrinkSlots = true;
  d.salvage = salvage;
  return d;
}

// Starts the table in a child writer that stops at the nth pass of `step`
// and, with `runScript`, runs the script; returns how many operations it
// completed. The child must die by SIGKILL.
uint32_t runKilled(Step step, uint32_t nth, bool runScript = true) {
  RecordPipe up;
  pid_t const pid = forkChild([&]() -> int {
    killStep = step;
    killAt = nth;
    Mirak::MirakWriter<KillOps> w(readerTestHandler(), kTable, descriptor(), KillOps(0));
    w.initialize("test");
    uint32_t done = 0;
    for (Op const& op : runScript ? script() : std::vector<Op>()) {
      Value removed;
      if (op.remove) {
        w.remove(keyOf<Record::Key>(op.id), removed);
      } else {
        w.write(row<Record>(op.id, op.version), true);
      }
      up.send(++done);  // after the call returned: a completed write
    }
    return 3;  // never stopped: the case missed its point
  });
  up.closeWrite();
  uint32_t done = 0;
  for (uint32_t n; up.receive(n);) done = n;
  int const status = reap(pid);
  EXPECT_TRUE(status >= 0 && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
      << "the writer was not stopped at its point, status " << status;
  return done;
}

// The rows the table owes after `done` completed operations.
std::map<uint32_t, uint32_t> modelAfter(uint32_t done) {
  std::map<uint32_t, uint32_t> rows;
  std::vector<Op> const ops = script();
  for (uint32_t i = 0; i < done && i < ops.size(); i++) {
    if (ops[i].remove) {
      rows.erase(ops[i].id);
    } else {
      rows[ops[i].id] = ops[i].version;
    }
  }
  return rows;
}

// Every completed write is in the table, the one in flight (`done` + 1)
// old or new, and nothing else; checked through `lookup` and a walk of any
// back end. Returns the faults.
template <typename Table>
std::vector<std::string> checkRows(Table& t, uint32_t done) {
  std::vector<std::string> faults;
  std::map<uint32_t, uint32_t> const before = modelAfter(done);
  std::map<uint32_t, uint32_t> const after = modelAfter(done + 1);
  auto expected = [](std::map<uint32_t, uint32_t> const& m, uint32_t id) -> std::optional<Value> {
    auto const it = m.find(id);
    if (it == m.end()) return std::nullopt;
    return row<Record>(id, it->second);
  };
  auto matches = [](std::optional<Value> const& want, bool found, Value const& got) {
    return want ? found && got == *want : !found;
  };
  for (uint32_t id = 0; id < kRows; id++) {
    bool found = false;
    Value got;
    Value const* v = t.lookup(keyOf<Record::Key>(id), found, &got);
    if (found) got = *v;
    if (!matches(expected(before, id), found, got) && !matches(expected(after, id), found, got)) {
      faults.push_back(fmt::format("row {}: found {} {}", id, found,
                                   found ? valueToStrep(got).stdString() : ""));
    }
  }
  Value v;
  Mirak::IterHint hint;
  uint32_t walked = 0;
  for (bool more = t.first(v, hint); more && walked <= kRows; more = t.next(v.fwkKey(), v, hint)) {
    walked++;
  }
  if (walked < before.size() - 1 || walked > before.size() + 1 || walked != t.members()) {
    faults.push_back(fmt::format("walk found {} rows, members {}, {} completed", walked,
                                 t.members(), before.size()));
  }
  return faults;
}

std::unique_ptr<WriterOf<Record>> restart(bool salvage = true) {
  return makeSharedWriter<Record>(kTable, descriptor(salvage));
}

// A reader process attaches to the restarted table and finds what the
// writer finds.
void expectReaderAgrees(uint32_t done) {
  pid_t const pid = forkChild([&]() -> int {
    auto r = makeReader<Record>(kTable);
    if (!r->initialize("test")) return 2;
    auto const faults = checkRows(*r, done);
    for (auto const& f : faults) std::fprintf(stderr, "reader: %s\n", f.c_str());
    return faults.empty() ? 0 : 1;
  });
  EXPECT_TRUE(exitedWith(reap(pid), 0)) << "the reader process disagreed";
}

std::string tableDir() { return Mem::RootPath::base() + "/" + kTable; }
std::string sideFile() { return tableDir() + "/" + Mirak::SALVAGE_FILENAME; }

Mirak::SalvageHeader& headerOf(std::string& bytes) {
  return *reinterpret_cast<Mirak::SalvageHeader*>(bytes.data());
}
void resealHeader(std::string& bytes) {
  Mirak::SalvageHeader& h = headerOf(bytes);
  h.headerCheck = Mirak::salvageChecksum(&h, offsetof(Mirak::SalvageHeader, headerCheck), 0);
}

// Replaces the side file a killed salvage left with `damage` of its bytes;
// an empty result plants a link to a sound copy (`decoy`) instead.
void damageSideFile(void (*damage)(std::string&), bool othersMayWrite, std::string const& decoy) {
  std::string bytes;
  {
    std::ifstream in(sideFile(), std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), {});
  }
  ASSERT_GT(bytes.size(), sizeof(Mirak::SalvageHeader));
  std::string const original = bytes;
  damage(bytes);
  std::filesystem::remove(sideFile());
  if (bytes.empty()) {
    std::ofstream(decoy, std::ios::binary) << original;
    ASSERT_EQ(::symlink(decoy.c_str(), sideFile().c_str()), 0);
  } else {
    std::ofstream(sideFile(), std::ios::binary) << bytes;
    if (othersMayWrite) {
      ASSERT_EQ(::chmod(sideFile().c_str(), 0666), 0);
    }
  }
}

// One crash and the restarts after it. The child writer is killed at the nth
// pass of `step`; then each salvaging start of `kills` is killed at its point
// in turn; then the table or the side file may be damaged; then a start in
// the test restarts the table and must end in `kind`.
struct Case {
  char const* name;
  Step step;
  uint32_t nth;
  Kind kind = Kind::salvaged;
  // What the salvage must leave behind: the one record caught mid-write, a
  // second copy of a key.
  uint32_t unfinished = 0;
  uint32_t duplicates = 0;
  // Why the files were not adopted. A kill inside a compaction also leaves
  // the queue's corral open, which the queue refuses on its own at attach.
  char const* reason = "bad critical section";
  std::vector<Step> kills = {};
  bool damageSlotHeader = false;
  bool salvage = true;
  void (*damage)(std::string& bytes) = nullptr;
  bool othersMayWrite = false;
};

class SalvageTest : public ::testing::TestWithParam<Case> {
 protected:
  MirakTest::TempRoot root_;
};

TEST_P(SalvageTest, RestartKeepsEveryCompletedWrite) {
  Case const& c = GetParam();
  // A clean table first, so the child adopts it: a first start is new.
  EXPECT_EQ(restart()->startOutcome().kind, Kind::created);
  uint32_t const done = runKilled(c.step, c.nth);
  ASSERT_GT(done, 0u);
  for (Step k : c.kills) runKilled(k, 1, false);
  std::string const decoy = root_.path() + "/decoy";
  if (c.damage) damageSideFile(c.damage, c.othersMayWrite, decoy);
  if (c.damageSlotHeader) {
    // One byte of the magic: the slot file formats itself at attach.
    int const fd = ::open((tableDir() + "/slots").c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, "X", 1, 0), 1);
    ::close(fd);
  }
  bool const planted = std::filesystem::exists(decoy);
  auto w = restart(c.salvage);
  Mirak::StartOutcome const& o = w->startOutcome();
  EXPECT_EQ(o.kind, c.kind) << o.toString();
  EXPECT_NE(o.reason.find(c.reason), std::string::npos) << o.toString();
  // The counts of the first salvage travel in the side file.
  EXPECT_EQ(o.unfinished, c.kind == Kind::salvaged ? c.unfinished : 0u) << o.toString();
  EXPECT_EQ(o.duplicates, c.duplicates) << o.toString();
  EXPECT_EQ(o.torn + o.badHash + o.noRoom, 0u) << o.toString();
  EXPECT_EQ(o.rows, w->members());
  std::string error;
  EXPECT_TRUE(w->validate(w->kestorId(), error, false)) << error;
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(sideFile())))
      << "the side file outlived its salvage";
  // A side file not used is said so in the outcome, which observers in
  // other processes read from its own side file.
  EXPECT_EQ(o.sideFileRefused.empty(), c.damage == nullptr) << o.toString();
  auto const stored = Mirak::readStartOutcome(tableDir());
  ASSERT_TRUE(stored.has_value());
  EXPECT_EQ(stored->toString(), o.toString());
  EXPECT_EQ(stored->sideFileRefused, o.sideFileRefused);
  if (c.damage) {
    EXPECT_NE(o.toString().find("salvage side file refused: "), std::string::npos);
  }
  // A planted link is removed, never what it names.
  EXPECT_EQ(std::filesystem::exists(decoy), planted);
  if (c.kind == Kind::reformatted) {
    EXPECT_EQ(w->members(), 0u);
    return;
  }
  for (auto const& f : checkRows(*w, done)) ADD_FAILURE() << c.name << ": " << f;
  expectReaderAgrees(done);
  // The salvaged generation is a table like any other: the next start
  // adopts it whole.
  uint32_t const members = w->members();
  w.reset();
  auto again = restart();
  EXPECT_EQ(again->startOutcome().kind, Kind::adopted) << again->startOutcome().toString();
  EXPECT_EQ(again->members(), members);
}

// The nth pass of each point of the writer falls well inside its phase of
// the script: inserts with the slots and buckets growing, overwrites, removes
// with the slots compacting. The kills of a salvaging start follow a first
// crash that leaves an insert half copied (one unfinished record); a start
// killed after its kestor file named the new generation leaves files that
// are adopted. A side file that does not validate whole, or is not a plain
// file of ours, is refused: the start re-formats the half-built files.
Case killedSalvage(char const* name, std::vector<Step> kills, Kind kind = Kind::salvaged) {
  Case c{name, Step::insertRewriting, 1001, kind, 1};
  // A kill before the side file was in place leaves the refused files to
  // collect again; after, the next start takes the salvage up from it.
  if (kind == Kind::adopted) {
    c.reason = "";
  } else if (kills.back() != Step::salvageCollecting) {
    c.reason = "taken up from its side file";
  }
  c.kills = std::move(kills);
  return c;
}
Case refusedSideFile(char const* name, void (*damage)(std::string&), bool othersMayWrite = false) {
  Case c = killedSalvage(name, {Step::salvageCarrying}, Kind::reformatted);
  c.reason = "";
  c.damage = damage;
  c.othersMayWrite = othersMayWrite;
  return c;
}
Case emptyReformat(char const* name, bool damageSlotHeader, bool salvage, char const* reason) {
  Case c{name, Step::overwriteRewriting, 100, Kind::reformatted};
  c.reason = reason;
  c.damageSlotHeader = damageSlotHeader;
  c.salvage = salvage;
  return c;
}

INSTANTIATE_TEST_SUITE_P(
    Points, SalvageTest,
    ::testing::Values(
        Case{"insertSlotTaken", Step::insertSlotTaken, 1000},
        Case{"insertRewriting", Step::insertRewriting, 1001, Kind::salvaged, 1},
        Case{"insertLinked", Step::insertLinked, 1002},
        Case{"slotsGrown", Step::slotsGrown, 4},
        Case{"bucketsSplitting", Step::bucketsSplitting, 3},
        Case{"overwriteRewriting", Step::overwriteRewriting, 500},
        Case{"removeUnlinked", Step::removeUnlinked, 700},
        Case{"moveLinked", Step::moveLinked, 10, Kind::salvaged, 0, 1, "queue re-formatted"},
        // The two ways to an empty re-format, each with its reason.
        emptyReformat("damagedSlotHeader", true, true, "nothing to salvage"),
        emptyReformat("salvageOff", false, false, "(salvage off)"),
        killedSalvage("collecting", {Step::salvageCollecting}),
        killedSalvage("collected", {Step::salvageCollected}),
        killedSalvage("carrying", {Step::salvageCarrying}),
        killedSalvage("carried", {Step::salvageCarried}),
        killedSalvage("settled", {Step::salvageSettled}, Kind::adopted),
        killedSalvage("carryingTwice", {Step::salvageCarrying, Step::salvageCarrying}),
        killedSalvage("carriedThenCollected", {Step::salvageCarried, Step::salvageCarrying}),
        killedSalvage("collectingThenCarrying",
                      {Step::salvageCollecting, Step::salvageCarrying}),
        refusedSideFile("recordByteFlipped", [](std::string& b) { b[b.size() - 3] ^= 0x10; }),
        refusedSideFile("lastRecordCut", [](std::string& b) { b.resize(b.size() - 8); }),
        // A count beyond the file with a matching header checksum: bounded
        // by the size before any record is read.
        refusedSideFile("countBeyondSize",
                        [](std::string& b) {
                          headerOf(b).count += 1;
                          resealHeader(b);
                        }),
        refusedSideFile("otherValueSize",
                        [](std::string& b) {
                          headerOf(b).valueSize += 8;
                          resealHeader(b);
                        }),
        refusedSideFile("plantedLink", [](std::string& b) { b.clear(); }),
        refusedSideFile("writableByOthers", [](std::string&) {}, true)),
    [](auto const& info) { return std::string(info.param.name); });

// --- the bulk build is the insert path's table -----------------------------

// For every table and a spread of sizes (empty, one, around powers of two,
// past several slot growths): a salvage builds the capacity and bucket count
// that inserting the same rows builds, holds every row with its value in
// one walk, passes the validator, and is adopted by the next start.
template <typename Record>
class SalvageBuildTest : public ::testing::Test {
 protected:
  MirakTest::TempRoot root_;
};
TYPED_TEST_SUITE(SalvageBuildTest, AllRecords);

TYPED_TEST(SalvageBuildTest, BuildsTheTableTheInsertPathBuilds) {
  using Record = TypeParam;
  using V = FlowTracking::TableValue<Record>;
  for (uint32_t n : {0u, 1u, 2u, 3u, 64u, 65u, 255u, 1000u, 5000u, 70000u}) {
    if (n > keySpace<Record>()) continue;
    SCOPED_TRACE(n);
    std::string const name = "test/build" + std::to_string(n);
    Mirak::MapDescriptor const d = sharedDescriptor(1u << 16);
    uint32_t capacity = 0, buckets = 0;
    {
      auto w = makeSharedWriter<Record>(name, d);
      for (uint32_t i = 0; i < n; i++) w->write(row<Record>(i, 7), true);
      capacity = w->capacity();
      buckets = w->buckets();
      // A writer killed inside a critical section leaves this bit.
      w->slotTable().header()->runtimeFlags |= Mirak::SlotTable::kRuntimeFlagCritical;
    }
    auto w = makeSharedWriter<Record>(name, d);
    EXPECT_EQ(w->startOutcome().kind, Kind::salvaged) << w->startOutcome().toString();
    EXPECT_EQ(w->members(), n);
    EXPECT_EQ(w->capacity(), capacity);
    EXPECT_EQ(w->buckets(), buckets);
    std::string error;
    EXPECT_TRUE(w->validate(w->kestorId(), error, false)) << error;
    uint32_t wrong = 0;
    for (uint32_t i = 0; i < n; i++) {
      bool found = false;
      V const* v = w->lookup(keyOf<typename Record::Key>(i), found, nullptr);
      wrong += !found || !(*v == row<Record>(i, 7));
    }
    EXPECT_EQ(wrong, 0u);
    V v;
    Mirak::IterHint hint;
    uint32_t walked = 0;
    for (bool more = w->first(v, hint); more && walked <= n; more = w->next(v.fwkKey(), v, hint)) {
      walked++;
    }
    EXPECT_EQ(walked, n);
    // Writes go on in the built table as in any other.
    w->write(row<Record>(n, 8), true);
    EXPECT_TRUE(w->validate());
    w.reset();
    auto again = makeSharedWriter<Record>(name, d);
    EXPECT_EQ(again->startOutcome().kind, Kind::adopted) << again->startOutcome().toString();
    EXPECT_EQ(again->members(), n + 1);
  }
}

}  // namespace
}  // namespace FlowTrackingTest
