// A writer process killed inside its store orders, then restarted: the start
// carries every complete record into a new generation (salvage) instead of
// formatting the table empty. One table-driven test kills a child writer at
// a named point (MirakCore/WriteStep.h) inside an insert, an overwrite, a
// remove, a slot growth, a bucket growth and a slot compaction; the parent
// restarts the table and proves that every write the child completed (it
// reports each one up a pipe after the call returned) is there with its
// value, the one in flight old or new, nothing else is, the table validates,
// and a reader process reads the same. Then the two ways to an empty
// re-format: a slot file too damaged to read, and salvage turned off.
// A salvaging start killed at each point of its own store order (side file in
// place, half built, built, kestor written) loses nothing either, also when
// it is killed twice; a damaged or planted side file is refused, never used;
// and the bulk build of every table is the table the insert path builds.
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

// Runs the script in a child writer that stops at the nth pass of `step`;
// returns how many operations it completed. The child must die by SIGKILL.
uint32_t runKilledWriter(Step step, uint32_t nth) {
  RecordPipe up;
  pid_t const pid = forkChild([&]() -> int {
    up.closeRead();
    killStep = step;
    killAt = nth;
    auto w = std::make_unique<Mirak::MirakWriter<KillOps>>(readerTestHandler(), kTable,
                                                           descriptor(), KillOps(0));
    w->initialize("test");
    uint32_t done = 0;
    for (Op const& op : script()) {
      if (op.remove) {
        Value removed;
        w->remove(keyOf<Record::Key>(op.id), removed);
      } else {
        w->write(row<Record>(op.id, op.version), true);
      }
      // After the call returned: a completed write.
      up.send(++done);
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

struct KillCase {
  char const* name;
  Step step;
  uint32_t nth;
  // What the salvage must leave behind: the one record caught mid-write.
  uint32_t unfinished;
  uint32_t duplicates;
  // Why the files were not adopted. A kill inside a compaction also leaves
  // the queue's corral open, which the queue refuses on its own at attach.
  char const* reason = "bad critical section";
};

class SalvageTest : public ::testing::TestWithParam<KillCase> {
 protected:
  MirakTest::TempRoot root_;
};

TEST_P(SalvageTest, KilledWriterLosesNoCompletedWrite) {
  KillCase const& c = GetParam();
  // A clean table first, so the child adopts it: a first start is new.
  EXPECT_EQ(restart()->startOutcome().kind, Kind::created);
  uint32_t const done = runKilledWriter(c.step, c.nth);
  ASSERT_GT(done, 0u);
  auto w = restart();
  Mirak::StartOutcome const& o = w->startOutcome();
  EXPECT_EQ(o.kind, Kind::salvaged) << o.toString();
  EXPECT_NE(o.reason.find(c.reason), std::string::npos) << o.toString();
  EXPECT_EQ(o.unfinished, c.unfinished) << o.toString();
  EXPECT_EQ(o.duplicates, c.duplicates) << o.toString();
  EXPECT_EQ(o.torn + o.badHash + o.noRoom, 0u) << o.toString();
  EXPECT_EQ(o.rows, w->members());
  std::string error;
  EXPECT_TRUE(w->validate(w->kestorId(), error, false)) << error;
  for (auto const& f : checkRows(*w, done)) ADD_FAILURE() << c.name << ": " << f;
  // Observers in other processes read the outcome from the side file.
  auto const stored = Mirak::readStartOutcome(root_.path() + "/" + kTable);
  ASSERT_TRUE(stored.has_value());
  EXPECT_EQ(stored->toString(), o.toString());
  expectReaderAgrees(done);
  // The salvaged generation is a table like any other: the next start
  // adopts it whole.
  uint32_t const members = w->members();
  w.reset();
  auto again = restart();
  EXPECT_EQ(again->startOutcome().kind, Kind::adopted);
  EXPECT_EQ(again->members(), members);
}

// The nth pass of each point falls well inside its phase of the script:
// inserts with the slots and buckets growing, overwrites, removes with the
// slots compacting.
INSTANTIATE_TEST_SUITE_P(
    Points, SalvageTest,
    ::testing::Values(KillCase{"insertSlotTaken", Step::insertSlotTaken, 1000, 0, 0},
                      KillCase{"insertRewriting", Step::insertRewriting, 1001, 1, 0},
                      KillCase{"insertLinked", Step::insertLinked, 1002, 0, 0},
                      KillCase{"slotsGrown", Step::slotsGrown, 4, 0, 0},
                      KillCase{"bucketsSplitting", Step::bucketsSplitting, 3, 0, 0},
                      KillCase{"overwriteRewriting", Step::overwriteRewriting, 500, 0, 0},
                      KillCase{"removeUnlinked", Step::removeUnlinked, 700, 0, 0},
                      KillCase{"moveLinked", Step::moveLinked, 10, 0, 1, "queue re-formatted"}),
    [](auto const& info) { return std::string(info.param.name); });

// The two ways to an empty re-format, each with its reason: a slot file
// whose header no longer reads, and salvage turned off in the descriptor.
struct EmptyCase {
  char const* name;
  bool damageHeader;
  bool salvage;
  char const* reason;
};

class SalvageRefusedTest : public ::testing::TestWithParam<EmptyCase> {
 protected:
  MirakTest::TempRoot root_;
};

TEST_P(SalvageRefusedTest, EndsInAnEmptyReformatWithTheReason) {
  EmptyCase const& c = GetParam();
  { restart(); }
  ASSERT_GT(runKilledWriter(Step::overwriteRewriting, 100), 0u);
  if (c.damageHeader) {
    // One byte of the magic: the slot file formats itself at attach.
    std::string const path = root_.path() + "/" + kTable + "/slots";
    int const fd = ::open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, "X", 1, 0), 1);
    ::close(fd);
  }
  auto w = restart(c.salvage);
  Mirak::StartOutcome const& o = w->startOutcome();
  EXPECT_EQ(o.kind, Kind::reformatted) << o.toString();
  EXPECT_NE(o.reason.find(c.reason), std::string::npos) << o.toString();
  EXPECT_EQ(w->members(), 0u);
  EXPECT_TRUE(w->validate());
  auto const stored = Mirak::readStartOutcome(root_.path() + "/" + kTable);
  ASSERT_TRUE(stored.has_value());
  EXPECT_EQ(stored->kind, Kind::reformatted);
}

INSTANTIATE_TEST_SUITE_P(
    Ways, SalvageRefusedTest,
    ::testing::Values(EmptyCase{"damagedSlotHeader", true, true, "nothing to salvage"},
                      EmptyCase{"salvageOff", false, false, "(salvage off)"}),
    [](auto const& info) { return std::string(info.param.name); });

// --- a salvage killed inside its own store order ---------------------------

std::string tableDir() { return Mem::RootPath::base() + "/" + kTable; }
std::string sideFile() { return tableDir() + "/" + Mirak::SALVAGE_FILENAME; }

// A start of the table in a child that stops at the first pass of `step`
// (a point of a salvaging start); it must die by SIGKILL.
void runKilledStart(Step step) {
  pid_t const pid = forkChild([&]() -> int {
    killStep = step;
    killAt = 1;
    auto w = std::make_unique<Mirak::MirakWriter<KillOps>>(readerTestHandler(), kTable,
                                                           descriptor(), KillOps(0));
    w->initialize("test");
    return 3;
  });
  int const status = reap(pid);
  EXPECT_TRUE(status >= 0 && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
      << "the start was not stopped at its point, status " << status;
}

struct InterruptCase {
  char const* name;
  // The salvaging starts killed one after the other, each at its point.
  std::vector<Step> kills;
  // The start that follows: the side file taken up (salvaged) or, after the
  // kestor file named the new generation, the files adopted.
  Kind kind;
};

class SalvageInterruptedTest : public ::testing::TestWithParam<InterruptCase> {
 protected:
  MirakTest::TempRoot root_;
};

TEST_P(SalvageInterruptedTest, KilledSalvageLosesNoCompletedWrite) {
  InterruptCase const& c = GetParam();
  EXPECT_EQ(restart()->startOutcome().kind, Kind::created);
  // The first crash leaves an insert half copied: one unfinished record.
  uint32_t const done = runKilledWriter(Step::insertRewriting, 1001);
  ASSERT_GT(done, 0u);
  for (Step k : c.kills) runKilledStart(k);
  auto w = restart();
  Mirak::StartOutcome const& o = w->startOutcome();
  EXPECT_EQ(o.kind, c.kind) << o.toString();
  // The counts of the first salvage travel in the side file.
  if (c.kind == Kind::salvaged) {
    EXPECT_EQ(o.unfinished, 1u) << o.toString();
  }
  EXPECT_EQ(o.torn + o.badHash + o.noRoom + o.duplicates, 0u) << o.toString();
  std::string error;
  EXPECT_TRUE(w->validate(w->kestorId(), error, false)) << error;
  for (auto const& f : checkRows(*w, done)) ADD_FAILURE() << c.name << ": " << f;
  EXPECT_FALSE(std::filesystem::exists(sideFile())) << "the side file outlived its salvage";
  expectReaderAgrees(done);
  uint32_t const members = w->members();
  w.reset();
  auto again = restart();
  EXPECT_EQ(again->startOutcome().kind, Kind::adopted) << again->startOutcome().toString();
  EXPECT_EQ(again->members(), members);
}

INSTANTIATE_TEST_SUITE_P(
    Points, SalvageInterruptedTest,
    ::testing::Values(
        InterruptCase{"collected", {Step::salvageCollected}, Kind::salvaged},
        InterruptCase{"carrying", {Step::salvageCarrying}, Kind::salvaged},
        InterruptCase{"carried", {Step::salvageCarried}, Kind::salvaged},
        InterruptCase{"settled", {Step::salvageSettled}, Kind::adopted},
        InterruptCase{"carryingTwice", {Step::salvageCarrying, Step::salvageCarrying},
                      Kind::salvaged},
        InterruptCase{"carriedThenCollected", {Step::salvageCarried, Step::salvageCarrying},
                      Kind::salvaged}),
    [](auto const& info) { return std::string(info.param.name); });

// A side file that does not validate whole, or is not a plain file of ours,
// is reported and ignored: the start re-formats (the files were half built
// by the killed salvage) and removes it, and a planted link's target is
// left alone.
struct SideFileCase {
  char const* name;
  // Changes the side file's bytes; an empty result plants a link instead.
  void (*damage)(std::string& bytes);
  // The sound bytes in a file that another user could have written.
  bool othersMayWrite = false;
};

class SalvageSideFileTest : public ::testing::TestWithParam<SideFileCase> {
 protected:
  MirakTest::TempRoot root_;
};

TEST_P(SalvageSideFileTest, IsRefusedNotTrusted) {
  SideFileCase const& c = GetParam();
  { restart(); }
  ASSERT_GT(runKilledWriter(Step::insertRewriting, 1001), 0u);
  runKilledStart(Step::salvageCarrying);
  std::string bytes;
  {
    std::ifstream in(sideFile(), std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), {});
  }
  ASSERT_GT(bytes.size(), sizeof(Mirak::SalvageHeader));
  std::string const original = bytes;
  c.damage(bytes);
  std::string const decoy = root_.path() + "/decoy";
  std::filesystem::remove(sideFile());
  if (bytes.empty()) {
    // The decoy is the sound side file: a start that followed the link would
    // salvage from it.
    std::ofstream(decoy, std::ios::binary) << original;
    ASSERT_EQ(::symlink(decoy.c_str(), sideFile().c_str()), 0);
  } else {
    std::ofstream(sideFile(), std::ios::binary) << bytes;
    if (c.othersMayWrite) {
      ASSERT_EQ(::chmod(sideFile().c_str(), 0666), 0);
    }
  }
  auto w = restart();
  Mirak::StartOutcome const& o = w->startOutcome();
  EXPECT_EQ(o.kind, Kind::reformatted) << o.toString();
  EXPECT_EQ(w->members(), 0u);
  EXPECT_TRUE(w->validate());
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(sideFile())));
  if (bytes.empty()) {
    EXPECT_TRUE(std::filesystem::exists(decoy));
  }
}

Mirak::SalvageHeader& headerOf(std::string& bytes) {
  return *reinterpret_cast<Mirak::SalvageHeader*>(bytes.data());
}

INSTANTIATE_TEST_SUITE_P(
    Damage, SalvageSideFileTest,
    ::testing::Values(
        SideFileCase{"recordByteFlipped", [](std::string& b) { b[b.size() - 3] ^= 0x10; }},
        SideFileCase{"lastRecordCut", [](std::string& b) { b.resize(b.size() - 8); }},
        // A count beyond the file with a matching header checksum: bounded
        // by the size before any record is read.
        SideFileCase{"countBeyondSize",
                     [](std::string& b) {
                       Mirak::SalvageHeader& h = headerOf(b);
                       h.count += 1;
                       h.headerCheck = Mirak::salvageChecksum(
                           &h, offsetof(Mirak::SalvageHeader, headerCheck), 0);
                     }},
        SideFileCase{"otherValueSize",
                     [](std::string& b) {
                       Mirak::SalvageHeader& h = headerOf(b);
                       h.valueSize += 8;
                       h.headerCheck = Mirak::salvageChecksum(
                           &h, offsetof(Mirak::SalvageHeader, headerCheck), 0);
                     }},
        SideFileCase{"plantedLink", [](std::string& b) { b.clear(); }},
        SideFileCase{"writableByOthers", [](std::string&) {}, true}),
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
  for (uint32_t n : {0u, 1u, 2u, 3u, 64u, 65u, 255u, 1000u, 5000u}) {
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
