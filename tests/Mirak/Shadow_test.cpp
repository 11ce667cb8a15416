// The shadow back end end to end: a writer in a child process that writes at
// random, exits, is killed and comes back (adopting its files, or on new
// ones), and in this process a reader and two shadows of the table, one of
// each mode, mounted through their front objects and sentries on the default
// event loop. At every quiescent point each copy equals the table, and each
// shadow's client heard every key whose row changed since the last one.
#include "Mirak/MirakShadow.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#include <sys/epoll.h>

#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Lomi/EventLoop.h"
#include "Mirak/MirakMap.h"
#include "Mirak/MirakReader.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/TempRoot.h"
#include "Mirak/TestPolicy.h"
#include "Parcel/KestorFile.h"
#include "Parcel/ProcessTestUtil.h"
#include "Rusk/WriterRuskSm.h"
#include "Tessel/TesselWriter.h"

namespace MirakTest {
namespace {

using QueueOps = TestOpsWith<Tessel::TesselWriter>;
using Mirak::MapDescriptor;
using Mirak::MirakType;
using ParcelTest::Child;
using ParcelTest::Pipe;
using Rows = std::map<uint32_t, uint64_t>;

constexpr char kTable[] = "test/shadow";
constexpr double kWait = 20;  // seconds; a hang becomes a failure

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("ShadowTest");
}

Lomi::EventLoop& loop() {
  return Mem::RootPath::eventLoop();
}

// A collection of the table in this process; its client records the keys it
// hears of.
class Collection : public Mirak::MirakMap<QueueOps> {
 public:
  Collection(MirakType type, bool synchronous, std::string name = kTable) : MirakMap(QueueOps(0)) {
    name_ = std::move(name);
    notify_.changeFn = [this](TestValue const& v) { heard.insert(v.key().id); };
    notify_.keyFn = [this](TestKey const& k) { heard.insert(k.id); };
    notify_.keyDelFn = [this](TestKey const& k) {
      heard.insert(k.id);
      removals++;
    };
    notify_.mountStatusFn = [this] { statuses.push_back(mountStatus()); };
    MapDescriptor d(0);
    d.type = type;
    d.synchronous = synchronous;
    d.shadowOption = true;  // the client hears the rows of a flushed copy go
    notifyingIs(true);
    init(d);
  }
  ~Collection() override { controlDetach(); }

  Rows rows() const {
    Rows r;
    TestValue v;
    Mirak::IterHint hint{};
    for (bool ok = back_->first(v, hint); ok; ok = back_->next(v.key(), v, hint)) {
      r[v.key().id] = v.count;
    }
    return r;
  }
  Mirak::MirakShadow<QueueOps> const* shadow() const {
    return dynamic_cast<Mirak::MirakShadow<QueueOps> const*>(back_.get());
  }

  std::set<uint32_t> heard;
  uint64_t removals = 0;
  std::vector<Mem::MountStatus> statuses;
};

// The writer process. Commands, one per line: "round <seed>" writes and
// removes at random and answers "done"; "exit" ends it as a writer ends.
int writerProcess(Pipe& commands, Pipe& replies) {
  MapDescriptor d(256);
  d.shrinkSlots = true;  // removals shrink the table and move rows under the shadows
  Mirak::MirakWriter<QueueOps> w(handler(), kTable, d, QueueOps(0));
  if (!w.initialize("test")) return 3;
  replies.send("ready " + fmt::format("{}", w.kestorId()));
  for (;;) {
    // The loop serves the shadows' wake-up connections between commands.
    if (!commands.readable()) {
      loop().runOnce(0.005);
      continue;
    }
    std::optional<std::string> line = commands.receive();
    if (!line || *line == "exit") return 0;
    std::istringstream in(*line);
    std::string verb;
    uint32_t seed = 0;
    in >> verb >> seed;
    std::mt19937 rng(seed);
    TestValue gone;
    for (int i = 0; i < 300; i++) {
      uint32_t const id = rng() % 200;
      if (rng() % 3 == 0) {
        w.remove(TestKey{id, 0}, gone);
      } else {
        w.write(row(id, rng() % 5), true);
      }
    }
    if (seed % 3 == 0) w.shrink();
    replies.send("done");
  }
}

// The table as a fresh reader reads it now.
Rows tableNow(std::string const& name) {
  Mirak::MirakReader<QueueOps> r(handler(), name, QueueOps(0));
  Rows rows;
  if (!r.initialize("test")) {
    ADD_FAILURE() << "the table can't be read";
    return rows;
  }
  TestValue v;
  Mirak::IterHint hint{};
  for (bool ok = r.first(v, hint); ok; ok = r.next(v.key(), v, hint)) rows[v.key().id] = v.count;
  return rows;
}

class ShadowFixture : public ::testing::Test {
 protected:
  // Starts a writer; returns its kestor text.
  std::string startWriter() {
    commands = std::make_unique<Pipe>();
    replies = std::make_unique<Pipe>();
    writer = std::make_unique<Child>([this] { return writerProcess(*commands, *replies); });
    std::optional<std::string> ready = replies->receive();
    EXPECT_TRUE(ready && ready->rfind("ready ", 0) == 0) << ready.value_or("no answer");
    return ready ? ready->substr(6) : "";
  }
  void round(uint32_t seed) {
    commands->send("round " + std::to_string(seed));
    std::optional<std::string> done = replies->receive();
    ASSERT_EQ(done.value_or("none"), "done") << "seed " << seed;
  }
  void stopWriter() {
    commands->send("exit");
    std::optional<int> st = writer->wait();
    ASSERT_TRUE(st && WIFEXITED(*st) && WEXITSTATUS(*st) == 0);
  }

  static Rows table() { return tableNow(kTable); }

  // A quiescent point: the writer waits, every copy comes to equal the table,
  // and each shadow's client heard each key whose row changed since the last
  // point (it may have heard more: a key changed and changed back).
  void settle(std::string const& when) {
    Rows const now = table();
    bool const equal = loop().runUntil(
        [&] {
          for (Collection* c : {&shadow, &keyshadow}) {
            auto const* s = c->shadow();
            if (!s || c->mountStatus() != Mem::mountStatusSynchronized || !s->connected() ||
                !s->quiesced()) {
              return false;
            }
          }
          return reader.rows() == now && shadow.rows() == now && keyshadow.rows() == now;
        },
        kWait);
    EXPECT_TRUE(equal) << when << ": table " << now.size() << " rows, reader "
                       << reader.rows().size() << ", shadow " << shadow.rows().size()
                       << ", keyshadow " << keyshadow.rows().size();
    std::set<uint32_t> changed;
    for (auto const& [id, count] : now) {
      auto it = last.find(id);
      if (it == last.end() || it->second != count) changed.insert(id);
    }
    for (auto const& [id, count] : last) {
      if (!now.count(id)) changed.insert(id);
    }
    for (Collection* c : {&shadow, &keyshadow}) {
      int unheard = 0;
      for (uint32_t id : changed) unheard += !c->heard.count(id);
      EXPECT_EQ(unheard, 0) << when << ": " << formatMirakType(c->mode()) << " heard "
                            << c->heard.size() << " of " << changed.size() << " changed keys";
      c->heard.clear();
    }
    changedKeys += changed.size();
    last = now;
  }

  TempRoot root;
  std::unique_ptr<Pipe> commands, replies;
  std::unique_ptr<Child> writer;
  // Mounted after the first writer started (its children must not inherit
  // them); destroyed before the root goes.
  std::string firstKestor = startWriter();
  Collection reader{MirakType::reader, true};
  Collection shadow{MirakType::shadow, false};
  Collection keyshadow{MirakType::keyshadow, true};
  Rows last;
  uint64_t changedKeys = 0;
};

TEST_F(ShadowFixture, BothModesFollowAWriterThroughRestartsKillsAReformatAndANewTable) {
  settle("mounted");
  for (uint32_t seed = 1; seed <= 3; seed++) {
    round(seed);
    settle("round " + std::to_string(seed));
  }
  auto const* const shadowBack = shadow.shadow();
  auto const* const keyshadowBack = keyshadow.shadow();

  // The writer ends: each shadow keeps its copy and says it has no writer.
  stopWriter();
  ASSERT_TRUE(
      loop().runUntil([&] { return !shadow.connected() && !keyshadow.connected(); }, kWait));
  EXPECT_EQ(shadow.rows(), last) << "the copy stays readable without a writer";
  EXPECT_EQ(keyshadow.rows(), last);
  EXPECT_EQ(shadow.mountStatus(), Mem::mountStatusSynchronized);
  EXPECT_TRUE(shadow.disconnectedActiveReader());

  // A writer that adopts the files: the same shadows rejoin it and sweep.
  EXPECT_EQ(startWriter(), firstKestor);
  round(4);
  settle("after an adoption");
  EXPECT_EQ(shadow.shadow(), shadowBack) << "a shadow rejoins; it is not rebuilt";
  EXPECT_EQ(keyshadow.shadow(), keyshadowBack);
  EXPECT_GE(shadowBack->rejoins(), 1u);

  // Killed between two rounds, then adopted again.
  ASSERT_TRUE(writer->killAndReap());
  EXPECT_EQ(startWriter(), firstKestor);
  round(5);
  settle("after a kill and an adoption");
  EXPECT_EQ(shadow.shadow(), shadowBack);

  // Killed in the middle of a round: the next writer adopts or re-formats,
  // whichever the state of the files calls for.
  commands->send("round 6");
  loop().runUntil([] { return false; }, 0.002);
  ASSERT_TRUE(writer->killAndReap());
  std::string const afterKill = startWriter();
  round(7);
  settle("after a kill inside a round");

  // Damage the next writer finds at its start: it formats the files anew in
  // place, under a new kestor. Each shadow flushes its copy (its client hears
  // every row go) and a new shadow follows the new generation.
  ASSERT_TRUE(writer->killAndReap());
  {
    int const fd = ::open((root.path() + "/" + kTable + "/slots").c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    uint32_t const occupied = 0x7fffffff;  // the slot header's occupiedSlots, at 552
    ASSERT_EQ(::pwrite(fd, &occupied, sizeof occupied, 552), ssize_t(sizeof occupied));
    ::close(fd);
  }
  EXPECT_NE(startWriter(), afterKill) << "the damaged files were adopted";
  EXPECT_TRUE(table().empty());
  settle("after a re-format in place");
  EXPECT_NE(shadow.shadow(), shadowBack) << "a new generation gets a new shadow";
  round(10);
  settle("round 10 on the re-formatted files");

  // A new table: the files go and a writer makes new ones. Each shadow
  // flushes its copy (its client hears every row go) and a new shadow
  // follows the new table.
  ASSERT_TRUE(writer->killAndReap());
  {
    MapDescriptor d(256);
    Mirak::MirakWriter<QueueOps> w(handler(), kTable, d, QueueOps(0));
    ASSERT_TRUE(w.initialize("test"));
    w.cleanup();
  }
  EXPECT_NE(startWriter(), firstKestor);
  round(8);
  settle("on a new table");
  round(9);
  settle("round 9");
  EXPECT_GT(changedKeys, 300u) << "the rounds changed too little to prove anything";
  stopWriter();
}

// A killed writer may have changed slots it never told of, so each shadow's
// copy is not known to be the table from the writer's death until its rejoin
// sweep has run and a walk has caught up. quiesced() must not say "caught up"
// in between: a client waiting for it (as settle() does) would take a copy
// still being swept, or not yet swept, for the table.
TEST_F(ShadowFixture, AShadowIsNotQuiescedFromItsWritersDeathUntilItsRejoinSweepCaughtUp) {
  settle("mounted");
  round(1);
  settle("round 1");
  Collection* const both[] = {&shadow, &keyshadow};
  // A round this process has not walked yet (its Wake is unread): neither
  // shadow is caught up, though the keyshadow's walk, which reads values
  // from the table and passes over keys the table no longer has, may
  // already look like the table.
  round(2);
  for (Collection* c : both) {
    EXPECT_FALSE(c->shadow()->quiesced()) << formatMirakType(c->mode()) << " before its walk";
  }
  settle("round 2");
  uint64_t sweeps[2];
  for (int i = 0; i < 2; i++) {
    ASSERT_TRUE(both[i]->shadow()->quiesced());
    sweeps[i] = both[i]->shadow()->syncer().sweeps();
  }
  ASSERT_TRUE(writer->killAndReap());
  ASSERT_TRUE(loop().runUntil(
      [&] { return shadow.shadow()->writerLost() && keyshadow.shadow()->writerLost(); }, kWait));
  for (Collection* c : both) {
    EXPECT_FALSE(c->shadow()->quiesced()) << formatMirakType(c->mode()) << " without its writer";
  }
  EXPECT_EQ(startWriter(), firstKestor);
  // At every pass: a shadow that says quiesced again has completed a sweep
  // since.
  int early = 0;
  ASSERT_TRUE(loop().runUntil(
      [&] {
        bool all = true;
        for (int i = 0; i < 2; i++) {
          auto const* s = both[i]->shadow();
          bool const caughtUp = s->quiesced() && s->connected();
          early += caughtUp && s->syncer().sweeps() == sweeps[i];
          all = all && caughtUp;
        }
        return all;
      },
      kWait));
  EXPECT_EQ(early, 0) << "quiesced before the rejoin sweep";
  round(3);
  settle("after the adoption");
}

// A shadow that attaches while a re-format stands between its headers and its
// kestor file (the writer writes the kestor file last) finds the headers' new
// kestor against the file's old one. It leaves the corruption marker
// "bad kestor:<new> wanted:<old>" for the writer's sentry, whose validation
// of the sound table costs a pass and no rows; its client hears of no
// corruption, and the shadow attaches once the kestor file names the new
// generation.
TEST(ShadowReformat, AShadowAttachingBeforeAReformatsKestorFileWaitsForIt) {
  TempRoot root;
  MapDescriptor d(256);
  Parcel::KestorId old, fresh;
  {
    Mirak::MirakWriter<QueueOps> w(handler(), kTable, d, QueueOps(0));
    ASSERT_TRUE(w.initialize("test"));
    for (uint32_t id = 0; id < 20; id++) w.write(row(id, 1), true);
    old = w.kestorId();
  }
  std::string const dir = root.path() + "/" + kTable;
  {
    // A slot header the next start cannot adopt: it re-formats in place.
    int const fd = ::open((dir + "/slots").c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    uint32_t const occupied = 0x7fffffff;  // the slot header's occupiedSlots, at 552
    ASSERT_EQ(::pwrite(fd, &occupied, sizeof occupied, 552), ssize_t(sizeof occupied));
    ::close(fd);
    Mirak::MirakWriter<QueueOps> w(handler(), kTable, d, QueueOps(0));
    ASSERT_TRUE(w.initialize("test"));
    fresh = w.kestorId();
  }
  ASSERT_EQ(fresh, old.reformatted());
  // The files as they stand before the re-format's last step.
  Mem::NaoRootPath const path(handler(), kTable, false);
  Parcel::KestorFile(handler(), path, false).write(old);
  Collection c(MirakType::keyshadow, true);
  loop().runUntil([] { return false; }, 0.3);
  EXPECT_EQ(c.shadow(), nullptr) << "attached to headers of another generation";
  EXPECT_EQ(c.corruptionsDetected(), 0u) << c.lastCorruption();
  std::ifstream in(dir + "/corruption-detected");
  std::string const marker((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(marker.find(fmt::format("bad kestor:{} wanted:{}", fresh, old)), std::string::npos)
      << marker;
  // The re-format's last step.
  Parcel::KestorFile(handler(), path, false).write(fresh);
  ASSERT_TRUE(
      loop().runUntil([&] { return c.mountStatus() == Mem::mountStatusSynchronized; }, kWait));
  EXPECT_EQ(c.rows(), tableNow(kTable));
  EXPECT_EQ(c.corruptionsDetected(), 0u);
}

// A shadow process stopped while the writer goes on: a pruning queue keeps
// what the shadow has not read for the writer's patience with a silent
// reader, then drops it; continued, the shadow finds entries gone and sweeps.
TEST(ShadowStop, AShadowStoppedLongerThanTheQueueHoldsCatchesUpByASweep) {
  TempRoot root;
  constexpr char kStopped[] = "test/stopped";
  Pipe commands, replies;
  // The shadow comes first and waits for the files through its sentry.
  Child shadowProcess([&] {
    Collection shadow(MirakType::shadow, false, kStopped);
    for (;;) {
      std::optional<std::string> line = commands.receive();
      if (!line || *line == "stop") return 0;
      Rows now = tableNow(kStopped);
      bool const caughtUp = loop().runUntil(
          [&] {
            auto const* s = shadow.shadow();
            return s && shadow.mountStatus() == Mem::mountStatusSynchronized && s->quiesced() &&
                   shadow.rows() == now;
          },
          kWait);
      auto const* s = shadow.shadow();
      replies.send(caughtUp && s ? "ok " + std::to_string(s->resyncs())
                                 : "copy of " + std::to_string(shadow.rows().size()) +
                                       " rows, table of " + std::to_string(now.size()));
    }
  });
  MapDescriptor d(256);
  d.pruneQueue = true;
  Mirak::MirakWriter<QueueOps> w(handler(), kStopped, d, QueueOps(0));
  ASSERT_TRUE(w.initialize("test"));
  uint64_t count = 0;
  for (uint32_t id = 0; id < 100; id++) w.write(row(id, ++count), true);
  // The writer's loop serves the shadow's wake-up connection while it waits,
  // until the shadow has answered and the writer has read that it sleeps.
  auto ask = [&] {
    commands.send("check");
    std::optional<std::string> answer;
    loop().fdWatcherIs(replies.readFd(), EPOLLIN, [](uint32_t) {});
    loop().runUntil(
        [&] {
          if (!answer && replies.readable()) answer = replies.receive();
          return answer.has_value() && w.writerCounters().sleepingReaders == 1;
        },
        kWait);
    loop().fdWatcherDel(replies.readFd());
    return answer.value_or("no answer");
  };
  std::string const first = ask();
  ASSERT_EQ(first.rfind("ok ", 0), 0u) << first;
  uint64_t const sweepsBefore = std::stoull(first.substr(3));

  ASSERT_EQ(::kill(shadowProcess.pid(), SIGSTOP), 0);
  // The first change wakes the stopped shadow, which says nothing after.
  w.write(row(0, ++count), true);
  loop().runUntil([] { return false; }, Rusk::WriterRuskSm::kReaderPatience + 0.2);
  uint64_t const prunedBefore = w.tesselWriter().pruned();
  for (uint32_t i = 0; w.tesselWriter().pruned() < prunedBefore + 50 && i < 100000; i++) {
    w.write(row(i % 100, ++count), true);
  }
  ASSERT_GE(w.tesselWriter().pruned(), prunedBefore + 50) << "the queue kept everything";
  ASSERT_EQ(::kill(shadowProcess.pid(), SIGCONT), 0);
  std::string const after = ask();
  ASSERT_EQ(after.rfind("ok ", 0), 0u) << after;
  EXPECT_GT(std::stoull(after.substr(3)), sweepsBefore) << "caught up without a sweep";

  // A shadow that keeps up holds the queue back: nothing it needs is dropped.
  uint64_t const prunedLater = w.tesselWriter().pruned();
  for (uint32_t i = 0; i < 2000; i++) w.write(row(i % 100, ++count), true);
  std::string const last = ask();
  ASSERT_EQ(last.rfind("ok ", 0), 0u) << last;
  EXPECT_EQ(std::stoull(last.substr(3)), std::stoull(after.substr(3)))
      << "a shadow that keeps up swept again (pruned " << w.tesselWriter().pruned() - prunedLater
      << ")";
  commands.send("stop");
  std::optional<int> st = shadowProcess.wait();
  ASSERT_TRUE(st && WIFEXITED(*st) && WEXITSTATUS(*st) == 0);
}

// One shadow of each mode, with its writer in this process: what it answers
// once synchronised, a second initialize, an asynchronous flush that reports
// each row and gives the collection back to its sentry (which attaches a new
// shadow), and a forced detach that is done on return.
class ShadowLife : public ::testing::TestWithParam<MirakType> {
 protected:
  TempRoot root;
};

TEST_P(ShadowLife, SweepsThenFlushesInStepsOrAtOnce) {
  MapDescriptor d(256);
  Mirak::MirakWriter<QueueOps> w(handler(), kTable, d, QueueOps(0));
  ASSERT_TRUE(w.initialize("test"));
  for (uint32_t id = 0; id < 50; id++) w.write(row(id, id), true);
  Collection c(GetParam(), true);
  ASSERT_TRUE(loop().runUntil([&] { return c.mountStatus() == 2u && c.connected(); }, kWait));
  auto const* s = c.shadow();
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(c.rows().size(), 50u);
  EXPECT_EQ(s->members(), 50u);
  EXPECT_EQ(s->minSize(), 0u);
  EXPECT_EQ(s->capacity(), w.capacity());
  EXPECT_EQ(c.heard.size(), 50u) << "a synchronous shadow hears its first sweep";
  Mirak::Reader::Counters const rc = c.readerCounters();
  EXPECT_GT(rc.shadowMappedSize, 0u);
  EXPECT_EQ(rc.kestorMappedSize > 0, GetParam() == MirakType::keyshadow);
  EXPECT_GT(rc.tesselPrimaryMappedSize, 0u);
  EXPECT_EQ(rc.members, 50u);
  ASSERT_TRUE(loop().runUntil([&] { return c.readerCounters().sequencesSent > 0; }, kWait));
  EXPECT_THROW(c.safeWrite(row(1, 1)), Lomi::NoPermissionException);

  // Again on an initialised shadow: nothing but the connection is looked at.
  EXPECT_TRUE(c.back()->initialize("again"));
  EXPECT_EQ(c.shadow(), s);
  EXPECT_EQ(c.rows().size(), 50u);

  // In steps: the shadow stays, flushing, and ignores what it would
  // otherwise report; its end hands the collection back to the sentry.
  c.statuses.clear();
  c.detach(false);
  EXPECT_EQ(c.shadow(), s);
  EXPECT_EQ(c.mountStatus(), Mem::mountStatusFlushing);
  EXPECT_FALSE(s->initialized());
  EXPECT_FALSE(c.back()->initialize("during the flush")) << "a new copy waits for the flush";
  EXPECT_EQ(c.shadow(), s);
  const_cast<Mirak::MirakShadow<QueueOps>*>(s)->corruptionDetected("ignored while flushing");
  EXPECT_EQ(c.corruptionsDetected(), 0u);
  ASSERT_TRUE(loop().runUntil([&] { return c.mountStatus() == 2u && c.shadow() != s; }, kWait));
  EXPECT_EQ(c.removals, 50u) << "each row of the flushed copy went with a keyDelFn";
  ASSERT_FALSE(c.statuses.empty());
  EXPECT_EQ(c.statuses.front(), Mem::mountStatusFlushing);
  EXPECT_EQ(c.statuses.back(), Mem::mountStatusSynchronized);
  EXPECT_EQ(c.rows().size(), 50u) << "the new shadow swept the table";

  // At once: done on return, the placeholder in front.
  c.removals = 0;
  c.detach(true);
  EXPECT_EQ(c.mountStatus(), Mem::mountStatusNotMounted);
  EXPECT_EQ(c.removals, 50u);
  EXPECT_EQ(c.shadow(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Modes, ShadowLife,
                         ::testing::Values(MirakType::shadow, MirakType::keyshadow),
                         [](auto const& info) { return Mirak::formatMirakType(info.param); });

}  // namespace
}  // namespace MirakTest
