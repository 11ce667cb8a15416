// Following a writer from another process: the sweeper, and the queue reader
// with its wake-ups driven by a shadow base over real files, sockets and
// processes. The shadow here keeps its copy in a value shadow store and
// records what a client would hear: removals, sequences, wake-ups.
#include "Mirak/MirakShadowBase.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstddef>

#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Lomi/EventLoop.h"
#include "Mirak/MirakReader.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/ShadowStore.h"
#include "Mirak/TempRoot.h"
#include "Mirak/TestPolicy.h"
#include "Parcel/ProcessTestUtil.h"
#include "Tessel/TesselFormat.h"
#include "Tessel/TesselWriter.h"

namespace MirakTest {
namespace {

using QueueOps = TestOpsWith<Tessel::TesselWriter>;
using Writer = Mirak::MirakWriter<QueueOps>;
using Reader = Mirak::MirakReader<QueueOps>;
using ParcelTest::Child;
using ParcelTest::Pipe;
constexpr char kTable[] = "test/shadowbase";

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("ShadowBaseTest");
}

Lomi::EventLoop& loop() {
  return Lomi::EventLoop::defaultLoop();
}

// ---------------------------------------------------------------------------
// The sweeper alone.

struct SweepLog : Mirak::Syncer::Client {
  std::vector<uint32_t> synced, flushed;
  int syncDones = 0, flushDones = 0;
  void syncSlot(uint32_t s) override { synced.push_back(s); }
  void flushSlot(uint32_t s) override { flushed.push_back(s); }
  void syncDone() override { syncDones++; }
  void flushDone() override { flushDones++; }
};

TEST(Syncer, SweepsEachSlotOnceInStepsAndCompletesOnce) {
  SweepLog log;
  Mirak::Syncer syncer(handler(), log);
  syncer.yieldTimeIs(0);  // every step ends at the first clock check
  syncer.sync(1000, Mirak::SyncerMode::sync, true);
  EXPECT_TRUE(log.synced.empty()) << "an asynchronous sweep starts on a later turn";
  loop().runOnce(0);
  EXPECT_EQ(log.synced.size(), 64u) << "one step, cut at the first clock check";
  syncer.notifyingIs(false);
  loop().runOnce(0);
  EXPECT_EQ(log.synced.size(), 64u) << "no visits while notifying is off";
  syncer.notifyingIs(true);
  ASSERT_TRUE(loop().runUntil([&] { return syncer.done(); }, 10));
  ASSERT_EQ(log.synced.size(), 1000u);
  for (uint32_t i = 0; i < 1000; i++) ASSERT_EQ(log.synced[i], i);
  EXPECT_EQ(log.syncDones, 1);
  // A flush forced to its end runs the rest at once; a restarted sweep
  // starts from 0 and the replaced one never completes.
  syncer.sync(300, Mirak::SyncerMode::flush, true);
  loop().runOnce(0);
  syncer.forceSyncCompletion();
  EXPECT_EQ(log.flushed.size(), 300u);
  EXPECT_EQ(log.flushDones, 1);
  syncer.sync(200, Mirak::SyncerMode::sync, true);
  loop().runOnce(0);
  syncer.sync(100, Mirak::SyncerMode::sync, false);
  EXPECT_EQ(log.syncDones, 2);
  loop().runUntil([] { return false; }, 0.05);
  EXPECT_EQ(log.syncDones, 2) << "the replaced sweep went on";
  {
    Mirak::Syncer gone(handler(), log);
    gone.sync(10, Mirak::SyncerMode::sync, true);
  }
  loop().runOnce(0);  // the queued step of a destroyed sweeper does nothing
}

// ---------------------------------------------------------------------------
// A shadow base over a plain copy.

class RecordingShadow : public Mirak::MirakShadowBase {
 public:
  RecordingShadow()
      : MirakShadowBase(handler(), Mem::NaoRootPath(handler(), kTable, false), 0),
        reader_(handler(), kTable, QueueOps(0)) {
    notify_.keyDelFn = [this](TestKey const& k) { removed.push_back(k.id); };
  }

  bool start() {
    if (!reader_.initialize("test")) return false;
    store_ = std::make_unique<Store>(handler(), reader_, tesselReader(), notify_, false);
    if (!store_->initialize()) return false;
    return initializeTessel(reader_.kestorId().value());
  }
  void stop() {
    detachTessel();
    store_.reset();
    reader_.detach(false);
  }

  bool doSlot(Tessel::BasicSlot slot, Tessel::Sequence seq, bool compare) override {
    if (seq != Tessel::noSequence) {
      if (seq <= lastSeq_) outOfOrder++;
      lastSeq_ = seq;
    }
    return store_->doSlot(slot, seq, compare);
  }
  void doFlushSlot(unsigned slot) override { store_->doFlushSlot(slot); }
  void syncComplete() override {
    syncedIs(true);
    sweeps++;
    maybeEnableTessel();
  }
  void flushComplete() override {}
  void handleDisconnect() override {}
  void handleQuiesced(bool) override {}
  void corruptionDetected(std::string const& m) override {
    corruption = m;
    corruptions++;
  }
  uint32_t sweepSlots() const override {
    reader_.resize();
    return std::max(reader_.capacity(), store_->numSlots());
  }

  // The copy against a walk of the table: "" if equal.
  std::string differences() const {
    std::map<uint32_t, uint64_t> table, mine;
    TestValue v;
    Mirak::IterHint hint{};
    for (bool ok = reader_.first(v, hint); ok; ok = reader_.next(v.key(), v, hint)) {
      table[v.key().id] = v.count;
    }
    hint = Mirak::IterHint{};
    for (bool ok = store_->first(0, v, hint); ok; ok = store_->next(v.key(), v, hint)) {
      mine[v.key().id] = v.count;
    }
    if (table == mine) return "";
    return "copy of " + std::to_string(mine.size()) + " rows, table of " +
           std::to_string(table.size());
  }

  std::vector<uint32_t> removed;
  int outOfOrder = 0, sweeps = 0, corruptions = 0;
  std::string corruption;

 private:
  using Store = Mirak::ShadowStore<Mirak::ValueShadowSlot<QueueOps>>;
  Reader reader_;
  Mem::Notify<TestKey, TestValue> notify_;
  std::unique_ptr<Store> store_;
  Tessel::Sequence lastSeq_ = 0;
};

std::unique_ptr<Writer> makeWriter() {
  Mirak::MapDescriptor d(64);
  d.local = false;
  d.shrinkSlots = true;
  auto w = std::make_unique<Writer>(handler(), kTable, d, QueueOps(0));
  EXPECT_TRUE(w->initialize("test"));
  return w;
}

// The reader process: follows the table and answers the parent's checks.
// Commands, one per line: "check <sequence>" waits until the shadow has
// caught up with that sequence and replies "ok <sleeps> <wakes>" or the
// problem; "stop" ends it.
int shadowProcess(Pipe& commands, Pipe& replies) {
  RecordingShadow shadow;
  if (!shadow.start()) return 3;
  // Permanent keys are never removed by the writer: a removal is false.
  auto falseRemovals = [&] {
    int n = 0;
    for (uint32_t id : shadow.removed) n += id % 8 == 7;
    return n;
  };
  for (;;) {
    std::optional<std::string> line = commands.receive();
    if (!line || *line == "stop") return 0;
    std::istringstream in(*line);
    std::string verb;
    Tessel::Sequence seq = 0;
    in >> verb >> seq;
    bool const caughtUp = loop().runUntil(
        [&] {
          return shadow.synced() && shadow.syncFromTessel() &&
                 shadow.tesselReader().lastConsumed() >= seq && shadow.tesselReader().quiesced();
        },
        20);
    std::string const diff = shadow.differences();
    if (!caughtUp || !diff.empty() || shadow.outOfOrder != 0 || falseRemovals() != 0 ||
        !shadow.corruption.empty()) {
      replies.send("caughtUp:" + std::to_string(caughtUp) + " diff:" + diff +
                   " outOfOrder:" + std::to_string(shadow.outOfOrder) +
                   " falseRemovals:" + std::to_string(falseRemovals()) + " " + shadow.corruption);
    } else {
      replies.send("ok " + std::to_string(shadow.ruskSm().sequencesSent()) + " " +
                   std::to_string(shadow.ruskSm().wakesReceived()) + " " +
                   std::to_string(shadow.resyncs()));
    }
  }
}

TEST(ShadowBase, FollowsAWriterProcessThroughBurstsShrinksAndAStop) {
  TempRoot root;
  auto w = makeWriter();
  for (uint32_t id = 0; id < 100; id++) w->write(row(id, 0), true);
  Pipe commands, replies;
  Child reader([&] { return shadowProcess(commands, replies); });
  // The writer's loop reads the reader's "sleeping" messages while it waits.
  auto ask = [&](std::string const& what) {
    commands.send("check " + std::to_string(w->tesselWriter().sequence()));
    std::optional<std::string> answer;
    loop().fdWatcherIs(replies.readFd(), EPOLLIN, [](uint32_t) {});
    loop().runUntil(
        [&] {
          if (replies.readable()) answer = replies.receive();
          return answer.has_value();
        },
        30);
    loop().fdWatcherDel(replies.readFd());
    EXPECT_TRUE(answer && answer->rfind("ok ", 0) == 0) << what << ": " << answer.value_or("none");
    return answer.value_or("");
  };
  ask("first sweep");
  uint32_t next = 100;
  uint64_t count = 1;
  for (int round = 0; round < 12; round++) {
    // A burst: inserts, overwrites, removes of volatile keys. Keys with
    // id % 8 == 7 are permanent: never removed, only moved.
    for (int i = 0; i < 150; i++) w->write(row(next++, count), true);
    for (uint32_t id = round; id < next; id += 7) w->write(row(id, ++count), true);
    TestValue gone;
    for (uint32_t id = 0; id < next; id += 8) w->remove(key(id), gone);
    if (round % 4 == 3) {
      // Every volatile row goes: the slots shrink and the permanent rows
      // move down under the walking reader.
      uint32_t const before = w->capacity();
      for (uint32_t id = 0; id < next; id++) {
        if (id % 8 != 7) w->remove(key(id), gone);
      }
      w->shrink();
      EXPECT_LT(w->capacity(), before) << "round " << round << " moved nothing";
    }
    ask("round " + std::to_string(round));
  }
  // The reader stops while the queue is compacted several times over.
  ASSERT_EQ(::kill(reader.pid(), SIGSTOP), 0);
  uint64_t const compactions = w->tesselWriter().compactions();
  for (int i = 0; w->tesselWriter().compactions() < compactions + 3; i++) {
    w->write(row(7 + 8 * (i % 50), ++count), true);
  }
  ASSERT_EQ(::kill(reader.pid(), SIGCONT), 0);
  std::string const last = ask("after a stop across compactions");
  // One wake-up per sleep: the writer never sent more than the reader slept.
  std::istringstream in(last);
  std::string ok;
  uint64_t sleeps = 0, wakes = 0;
  in >> ok >> sleeps >> wakes;
  EXPECT_GT(sleeps, 0u);
  EXPECT_LE(w->writerCounters().ruskCount, sleeps);
  EXPECT_LE(wakes, w->writerCounters().ruskCount);
  commands.send("stop");
  std::optional<int> st = reader.wait();
  ASSERT_TRUE(st && WIFEXITED(*st) && WEXITSTATUS(*st) == 0);
}

// The walk runs in the loop pass that reads the wake-up, not in a task of a
// later pass; within the yield time it takes in the whole burst there, and a
// burst longer than the yield time goes on in deferred walks. Either way every
// entry reaches the copy, in order. The writer, in a child, writes the whole
// burst before this process runs its loop, so the queue holds all of it when
// the Wake is read.
TEST(ShadowBase, AWakeUpWalksInThePassThatReadsItAndMissesNothing) {
  struct Case {
    double yieldTime;
    uint32_t burst;
    bool wholeInThatPass;
  } const cases[] = {{1.0, 100, true}, {0.0, 100, false}};
  for (Case const& c : cases) {
    SCOPED_TRACE(c.yieldTime);
    TempRoot root;
    Pipe commands, replies;
    Child writer([&] {
      auto w = makeWriter();
      for (uint32_t id = 0; id < 100; id++) w->write(row(id, 0), true);
      replies.send("ready");
      uint64_t count = 1;
      // The loop serves the wake-up socket (the reader's Sleeping) while it
      // waits; watching the command pipe ends its pass when a command comes.
      loop().fdWatcherIs(commands.readFd(), EPOLLIN, [](uint32_t) {});
      for (;;) {
        if (!loop().runUntil([&] { return commands.readable(); }, 30)) return 3;
        std::optional<std::string> const line = commands.receive();
        if (!line || *line == "stop") return 0;
        // Each row once: every entry of the burst stays live (a slot's
        // older entry would be skipped by the walk).
        for (uint32_t id = 0; id < c.burst; id++) w->write(row(id, ++count), true);
        replies.send(std::to_string(w->tesselWriter().sequence()));
      }
    });
    ASSERT_EQ(replies.receive().value_or("none"), "ready");
    RecordingShadow shadow;
    shadow.yieldTimeIs(c.yieldTime);
    ASSERT_TRUE(shadow.start());
    // Synced, caught up, its Sleeping sent, and nothing left queued.
    ASSERT_TRUE(loop().runUntil(
        [&] {
          return shadow.synced() && shadow.syncFromTessel() && shadow.tesselReader().quiesced() &&
                 shadow.ruskSm().sequencesSent() == 1 && loop().deferredTasks() == 0;
        },
        20));
    for (int round = 0; round < 3; round++) {
      SCOPED_TRACE(round);
      uint64_t const walks = shadow.walks(), wakes = shadow.ruskSm().wakesReceived();
      Tessel::Sequence const from = shadow.tesselReader().lastConsumed();
      commands.send("burst");
      std::optional<std::string> const done = replies.receive();
      ASSERT_TRUE(done);
      Tessel::Sequence const last = std::stoull(*done);
      ASSERT_EQ(last, from + c.burst);
      // Stops after the pass that read the Wake.
      ASSERT_TRUE(loop().runUntil([&] { return shadow.ruskSm().wakesReceived() > wakes; }, 20));
      EXPECT_EQ(shadow.ruskSm().wakesReceived(), wakes + 1);
      EXPECT_EQ(shadow.walks(), walks + 1) << "the walk ran in that pass";
      if (c.wholeInThatPass) {
        EXPECT_EQ(shadow.tesselReader().lastConsumed(), last);
        EXPECT_EQ(loop().deferredTasks(), 0u);
      } else {
        // The clock is read every 64 entries: a budget of 0 ends the walk there.
        EXPECT_EQ(shadow.tesselReader().lastConsumed(), from + 63);
        EXPECT_EQ(loop().deferredTasks(), 1u) << "the rest goes on in a deferred walk";
      }
      ASSERT_TRUE(loop().runUntil(
          [&] { return shadow.tesselReader().lastConsumed() == last && shadow.tesselReader().quiesced() &&
                       loop().deferredTasks() == 0; },
          20));
      EXPECT_EQ(shadow.differences(), "");
      EXPECT_EQ(shadow.outOfOrder, 0);
      EXPECT_EQ(shadow.resyncs(), 1u) << "only the first sweep";
    }
    commands.send("stop");
    std::optional<int> st = writer.wait();
    ASSERT_TRUE(st && WIFEXITED(*st) && WEXITSTATUS(*st) == 0);
    shadow.stop();
  }
}

// A slot compaction re-issues its corral's entries under new sequences after
// its last move. The wake-up layer must know the sequence it ends at: a
// reader asleep after the last move is woken for the copies only then, or
// it stays behind the queue's head (its copy right, never caught up) until
// the next write. A new connection's Hello carries what the layer knows.
TEST(ShadowBase, TheWakeUpLayerKnowsTheSequenceACompactionEndsAt) {
  TempRoot root;
  auto w = makeWriter();
  // Grown well above its least size, then removals from the low slots up
  // until one ends in a compaction that moved rows down.
  for (uint32_t id = 0; id < 400; id++) w->write(row(id, 0), true);
  TestValue gone;
  uint32_t id = 0;
  while (id < 400 && w->writerCounters().slotsMoved == 0) w->remove(key(id++), gone);
  ASSERT_GT(w->writerCounters().slotsMoved, 0u) << "no compaction moved a row";
  Rusk::ReaderRuskSm r(handler(), loop());
  std::string error;
  ASSERT_TRUE(r.connect(w->socketName(), error)) << error;
  ASSERT_TRUE(loop().runUntil([&] { return r.writerSequence() != 0; }, 20));
  EXPECT_EQ(r.writerSequence(), w->tesselWriter().sequence());
}

// A queue damaged under a still generation: the walk that meets the damage
// reports it once and sweeps, so the copy comes to the table instead of
// freezing. A damaged entry behind the sweep's head is passed by the walks
// that follow; damage that fails every walk (the header's mostSlots cut to 0,
// which the writer does not store again) leaves the copy following the table
// by sweeps, with no second report.
TEST(ShadowBase, ADamagedQueueIsReportedOnceAndTheCopyFollowsByASweep) {
  struct Case {
    char const* what;
    bool everyWalkFails;
  } const cases[] = {{"an entry names a slot beyond mostSlots", false},
                     {"the header's mostSlots is 0", true}};
  for (Case const& c : cases) {
    SCOPED_TRACE(c.what);
    TempRoot root;
    auto w = makeWriter();
    for (uint32_t id = 0; id < 20; id++) w->write(row(id, 0), true);
    RecordingShadow shadow;
    ASSERT_TRUE(shadow.start());
    auto const caughtUp = [&] {
      return shadow.synced() && shadow.syncFromTessel() && shadow.tesselReader().quiesced() &&
             shadow.tesselReader().lastConsumed() >= w->tesselWriter().sequence();
    };
    ASSERT_TRUE(loop().runUntil(caughtUp, 20));
    // The writer's next entry, damaged before the shadow's loop runs again.
    w->write(row(100, 1), true);
    Tessel::TesselWriter const& q = w->tesselWriter();
    std::string const dir = Mem::NaoRootPath(handler(), kTable, false).path();
    std::string const file = c.everyWalkFails ? Tessel::headerFilePath(dir)
                                              : Tessel::tableFilePath(dir, q.currentTable());
    off_t const at = c.everyWalkFails
                         ? off_t(offsetof(Tessel::TesselHeader, mostSlots))
                         : off_t(sizeof(Tessel::TesselTableHeader) +
                                 (q.entryCount() - 1) * sizeof(Tessel::TesselEntry) +
                                 offsetof(Tessel::TesselEntry, slot));
    uint32_t const bad = c.everyWalkFails ? 0u : 0xfffffff0u;
    int const fd = ::open(file.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, &bad, sizeof bad, at), ssize_t(sizeof bad));
    ::close(fd);
    ASSERT_TRUE(loop().runUntil([&] { return shadow.corruptions > 0 && shadow.sweeps >= 2; }, 20));
    EXPECT_NE(shadow.corruption.find(dir), std::string::npos) << shadow.corruption;
    EXPECT_EQ(shadow.differences(), "") << "the sweep brought the copy to the table";
    // The writer goes on: the copy follows, by walks or by sweeps.
    TestValue gone;
    for (uint32_t id = 0; id < 10; id++) w->remove(key(id), gone);
    for (uint32_t id = 200; id < 230; id++) w->write(row(id, 2), true);
    ASSERT_TRUE(loop().runUntil([&] { return shadow.differences().empty(); }, 20))
        << shadow.differences();
    if (!c.everyWalkFails) {
      ASSERT_TRUE(loop().runUntil(caughtUp, 20));
      EXPECT_EQ(shadow.sweeps, 2) << "the walks went on past the damaged entry";
    } else {
      EXPECT_GT(shadow.sweeps, 2) << "a queue that fails every walk is followed by sweeps";
    }
    EXPECT_EQ(shadow.corruptions, 1) << "one report for one damage";
    shadow.stop();
  }
}

}  // namespace
}  // namespace MirakTest
