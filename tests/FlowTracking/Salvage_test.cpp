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
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/ReaderTestUtil.h"
#include "FlowTracking/TableRows.h"
#include "FlowTracking/Tables.h"
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

}  // namespace
}  // namespace FlowTrackingTest
