// The reader and writer sentries on real directories, real inotify and an
// event loop of the test's own: where they watch, when they attach, detach,
// retry and validate. The collection behind them is a recording Notifiee.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Lomi/EventLoop.h"
#include "Lomi/Exception.h"
#include "Lomi/Thrown.h"
#include "Lomi/Trace.h"
#include "Mem/RootPath.h"
#include "Mirak/TempRoot.h"
#include "Parcel/KestorFile.h"
#include "Parcel/ReaderSentry.h"
#include "Parcel/WriterSentry.h"
#include "Thrum/Thrum.h"

namespace {

namespace fs = std::filesystem;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("SentryTest");
}

using TempBase = MirakTest::TempRoot;

// Attaches when told to succeed: then it stands on the kestor found on disk,
// as a reader back end does.
class Collection : public Parcel::ReaderSentry::Notifiee {
 public:
  explicit Collection(Mem::NaoRootPath root) : root_(std::move(root)) {}

  bool readerFullyAttached() const override { return attached; }
  bool notifying() const override { return false; }
  bool localMem() const override { return false; }
  Parcel::KestorId kestorId() const override { return kestor; }
  std::string modeStr() const override { return "reader"; }
  void detach(bool) override {
    calls.push_back("detach");
    attached = false;
    kestor = Parcel::KestorId();
  }
  void attach(std::string const& event) override {
    calls.push_back("attach " + event);
    if (onAttach) onAttach();
    if (!succeed) return;
    attached = true;
    kestor = Parcel::KestorFile(handler(), root_, false).read();
  }
  // A shadow that serves its copy without a writer says so from a disconnect
  // until it attaches again.
  bool disconnectedActiveReader() const override { return servesWithoutWriter; }

  int count(std::string const& prefix) const {
    int n = 0;
    for (auto const& c : calls) n += c.rfind(prefix, 0) == 0;
    return n;
  }

  std::vector<std::string> calls;
  bool servesWithoutWriter = false;
  bool attached = false;
  bool succeed = true;
  Parcel::KestorId kestor;
  std::function<void()> onAttach;

 private:
  Mem::NaoRootPath root_;
};

class ReaderSentryTest : public ::testing::Test {
 protected:
  ReaderSentryTest() : root(handler(), "agent/ftr/table", false), coll(root) {}

  std::unique_ptr<Parcel::ReaderSentry> start() {
    auto s = std::make_unique<Parcel::ReaderSentry>(handler(), root, &coll, loop);
    s->event(Mem::Sentry::eventInit, false);
    return s;
  }
  void writeKestor(uint32_t id) {
    root.createDirectories();
    Parcel::KestorFile(handler(), root, false).write(Parcel::KestorId(id));
  }
  bool runUntil(std::function<bool()> const& pred) { return loop.runUntil(pred, 10); }
  TempBase base;
  Lomi::EventLoop loop;
  Mem::NaoRootPath root;
  Collection coll;
};

TEST_F(ReaderSentryTest, WatchesTheNearestAncestorUntilTheTableDirectoryAppears) {
  auto s = start();
  EXPECT_FALSE(s->watchingTable());
  EXPECT_EQ(s->watchedPath(), base.path());
  EXPECT_TRUE(coll.calls.empty());

  fs::create_directory(base.path() + "/agent");
  ASSERT_TRUE(runUntil([&] { return s->watchedPath() == base.path() + "/agent"; }));
  // The rest of the path at once, as a writer makes it.
  root.createDirectories();
  ASSERT_TRUE(runUntil([&] { return s->watchingTable(); }));
  EXPECT_EQ(s->watchedPath(), root.path());
  EXPECT_TRUE(coll.calls.empty());  // no kestor file: nothing to attach to

  writeKestor(0x00010007);
  ASSERT_TRUE(runUntil([&] { return coll.attached; }));
  // One attempt, caused by the kestor file's rename or by the temporary file
  // before it, whichever the watch reads first.
  ASSERT_EQ(coll.calls.size(), 1u);
  EXPECT_EQ(coll.count("attach"), 1);
  EXPECT_EQ(s->attachedKestor(), Parcel::KestorId(0x00010007));
}

TEST_F(ReaderSentryTest, ANewGenerationDetachesThenAttachesTheSameOneChangesNothing) {
  writeKestor(5);
  auto s = start();
  // The files were there: attached at init.
  EXPECT_TRUE(s->watchingTable());
  EXPECT_EQ(coll.calls, (std::vector<std::string>{"attach init"}));
  EXPECT_EQ(s->attachAttempts(), 1u);
  coll.calls.clear();

  // A restarted writer that adopted its files writes the same id again.
  writeKestor(5);
  writeKestor(5);
  loop.runOnce(0.05);
  EXPECT_TRUE(coll.calls.empty());

  writeKestor(Parcel::KestorId(5).reformatted().value());
  ASSERT_TRUE(runUntil([&] { return coll.calls.size() == 2; }));
  EXPECT_EQ(coll.calls, (std::vector<std::string>{"detach", "attach kestor"}));
  EXPECT_EQ(s->attachedKestor(), Parcel::KestorId(5).reformatted());
  EXPECT_EQ(s->detaches(), 1u);
}

TEST_F(ReaderSentryTest, RemovingTheKestorFileDetachesAndANewOneAttachesAgain) {
  writeKestor(9);
  auto s = start();
  ASSERT_TRUE(coll.attached);
  Parcel::KestorFile(handler(), root, false).remove();
  ASSERT_TRUE(runUntil([&] { return !coll.attached; }));
  EXPECT_EQ(s->attachedKestor(), Parcel::KestorId());
  // Other files coming and going start no attach while there is no kestor.
  std::ofstream(root.filePath("slots")).put('x');
  loop.runOnce(0.05);
  EXPECT_EQ(coll.count("attach"), 1);
  writeKestor(10);
  ASSERT_TRUE(runUntil([&] { return coll.attached; }));
  ASSERT_EQ(coll.calls.size(), 3u);
  EXPECT_EQ(coll.calls[1], "detach");
  EXPECT_EQ(coll.count("attach"), 2);
}

TEST_F(ReaderSentryTest, AFailedAttachIsRetriedByATimerWithGrowingDelays) {
  writeKestor(3);
  coll.succeed = false;
  auto s = start();
  EXPECT_EQ(coll.count("attach"), 1);
  EXPECT_TRUE(s->retryPending());
  EXPECT_DOUBLE_EQ(s->nextRetryDelay(), 2 * Parcel::ReaderSentry::kFirstRetry);
  // No file changes: only the timer can bring these.
  ASSERT_TRUE(runUntil([&] { return coll.count("attach retry") >= 3; }));
  EXPECT_DOUBLE_EQ(s->nextRetryDelay(), 16 * Parcel::ReaderSentry::kFirstRetry);
  // A change of the directory retries at once.
  coll.succeed = true;
  std::ofstream(root.filePath("buckets")).put('x');
  ASSERT_TRUE(runUntil([&] { return coll.attached; }));
  EXPECT_EQ(coll.calls.back(), "attach change");
  EXPECT_FALSE(s->retryPending());
  EXPECT_DOUBLE_EQ(s->nextRetryDelay(), Parcel::ReaderSentry::kFirstRetry);
  int const attempts = coll.count("attach");
  loop.runOnce(0.05);
  EXPECT_EQ(coll.count("attach"), attempts);
}

// A reader's failed attach leaves the corruption marker; the sentry does not
// take its own write for news (that was a busy loop at full CPU): failures
// are retried by the timer alone, with growing delays.
TEST_F(ReaderSentryTest, TheMarkerOfAFailedAttachDoesNotWakeTheSentry) {
  writeKestor(3);
  coll.succeed = false;
  coll.onAttach = [&] {
    std::ofstream(root.filePath(Parcel::WriterSentry::kMarkerName), std::ios::trunc) << "damaged";
  };
  auto s = start();
  auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
  while (std::chrono::steady_clock::now() < end) loop.runOnce(0.01);
  // 10, 20, 40, 80 and 160 ms of backoff fit in 300 ms: 6 attempts at most.
  EXPECT_LE(coll.count("attach"), 6);
  EXPECT_GE(coll.count("attach retry"), 2);
}

TEST_F(ReaderSentryTest, ADisabledSentryStartsNothingUntilTheFlushIsComplete) {
  writeKestor(11);
  auto s = start();
  ASSERT_TRUE(coll.attached);
  s->enabled = 0;
  writeKestor(12);
  loop.runOnce(0.05);
  EXPECT_EQ(coll.calls, (std::vector<std::string>{"attach init"}));
  // What the front object does when a flushing shadow finishes: the
  // placeholder is in, the sentry enabled, then flushComplete.
  coll.attached = false;
  s->enabled = 1;
  s->event(Mem::Sentry::eventFlushComplete, false);
  EXPECT_EQ(coll.calls.back(), "attach flushComplete");
  EXPECT_EQ(coll.kestor, Parcel::KestorId(12));
}

TEST_F(ReaderSentryTest, ADisconnectDetachesAndWaitsForTheWriterToWriteAgain) {
  writeKestor(20);
  auto s = start();
  s->event(Mem::Sentry::eventDisconnect, false);
  EXPECT_FALSE(coll.attached);
  std::ofstream(root.filePath("slots")).put('x');
  s->event(Mem::Sentry::eventNotifEnabled, false);
  loop.runOnce(0.05);
  EXPECT_EQ(coll.count("attach"), 1);
  // The restarted writer adopts its files and writes the same id: attach.
  writeKestor(20);
  ASSERT_TRUE(runUntil([&] { return coll.attached; }));
  EXPECT_EQ(coll.calls, (std::vector<std::string>{"attach init", "detach", "attach kestor"}));
}

TEST_F(ReaderSentryTest, AShadowThatLostItsWriterStaysAndRejoinsTheWriterThatAdoptsItsFiles) {
  writeKestor(30);
  auto s = start();
  coll.servesWithoutWriter = true;
  s->event(Mem::Sentry::eventDisconnect, false);
  EXPECT_TRUE(coll.attached) << "a copy served without a writer is not detached";
  std::ofstream(root.filePath("slots")).put('x');
  loop.runOnce(0.05);
  EXPECT_EQ(coll.calls, (std::vector<std::string>{"attach init"}));
  // The same id again: the writer adopted the files; the shadow rejoins it.
  coll.onAttach = [&] { coll.servesWithoutWriter = false; };
  writeKestor(30);
  ASSERT_TRUE(runUntil([&] { return coll.count("attach") == 2; }));
  EXPECT_EQ(coll.calls.back(), "attach kestor");
  // Another id: a new table; detach, then attach it.
  coll.servesWithoutWriter = true;
  s->event(Mem::Sentry::eventDisconnect, false);
  writeKestor(31);
  ASSERT_TRUE(runUntil([&] { return coll.kestor == Parcel::KestorId(31); }));
  EXPECT_EQ(coll.calls,
            (std::vector<std::string>{"attach init", "attach kestor", "detach", "attach kestor"}));
}

TEST_F(ReaderSentryTest, TryAttachAttachesOnlyWhenTheFilesAreThere) {
  auto s = start();
  s->event(Mem::Sentry::eventTryAttach, false);
  EXPECT_TRUE(coll.calls.empty());
  writeKestor(30);
  s->event(Mem::Sentry::eventTryAttach, false);
  EXPECT_EQ(coll.calls, (std::vector<std::string>{"attach tryAttach"}));
  s->event(Mem::Sentry::eventTryAttach, false);  // attached: nothing
  EXPECT_EQ(coll.calls.size(), 1u);
}

TEST_F(ReaderSentryTest, TheTableDirectoryMayGoAndComeBack) {
  writeKestor(40);
  auto s = start();
  ASSERT_TRUE(coll.attached);
  fs::remove_all(base.path() + "/agent");
  ASSERT_TRUE(runUntil([&] { return !s->watchingTable(); }));
  EXPECT_FALSE(coll.attached);  // its kestor file went first
  writeKestor(41);
  ASSERT_TRUE(runUntil([&] { return coll.attached; }));
  EXPECT_EQ(coll.kestor, Parcel::KestorId(41));
}

// The table's directory leaves the path, by a move of itself or of a
// directory above it (which inotify never reports to the table's watch), and
// a new writer's generation is at the path at once: the reader lets go of
// the moved files and follows the path.
class ReaderFollowsThePath : public ReaderSentryTest,
                            public ::testing::WithParamInterface<char const*> {};

TEST_P(ReaderFollowsThePath, WhenItsDirectoryOrOneAboveIsMovedAside) {
  writeKestor(60);
  auto s = start();
  ASSERT_TRUE(coll.attached);
  std::string const moved = base.path() + "/" + GetParam();
  fs::rename(moved, moved + ".old");
  writeKestor(61);
  ASSERT_TRUE(runUntil([&] { return coll.attached && coll.kestor == Parcel::KestorId(61); }));
  EXPECT_EQ(s->detaches(), 1u);
  EXPECT_EQ(s->watchedPath(), root.path());
  // The moved files change again: the reader stays where it is.
  std::string const table = "agent/ftr/table";
  std::string const movedTable = GetParam() + std::string(".old") + table.substr(moved.size() -
                                                                            base.path().size() - 1);
  Parcel::KestorFile(handler(), Mem::NaoRootPath(handler(), movedTable, false), false)
      .write(Parcel::KestorId(62));
  loop.runOnce(0.05);
  EXPECT_EQ(coll.kestor, Parcel::KestorId(61));
}

INSTANTIATE_TEST_SUITE_P(Moved, ReaderFollowsThePath,
                         ::testing::Values("agent/ftr/table", "agent/ftr", "agent"));

// More events than the kernel queues while the loop is busy elsewhere: the
// new kestor's event is lost in the overflow, and the overflow alone must
// bring the reader onto it.
TEST_F(ReaderSentryTest, AQueueOverflowMakesTheReaderLookAtTheKestorAgain) {
  writeKestor(70);
  auto s = start();
  ASSERT_TRUE(coll.attached);
  uint64_t const overflows = Thrum::writer().cellValue("Mem.inotify.overflows");
  int queued = 16384;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queued;
  // Each file is two events (created, closed after writing).
  for (int i = 0; i < queued / 2 + 16; ++i) {
    std::ofstream(root.filePath("flood." + std::to_string(i))).put('x');
  }
  writeKestor(71);
  ASSERT_TRUE(runUntil([&] { return coll.attached && coll.kestor == Parcel::KestorId(71); }));
  EXPECT_EQ(Thrum::writer().cellValue("Mem.inotify.overflows"), overflows + 1);
  EXPECT_EQ(coll.calls, (std::vector<std::string>{"attach init", "detach", "attach recheck"}));
}

// A forked helper that cleans up before it exits destroys its copy of the
// sentry: the parent's watch and its pending retry are still the parent's.
TEST_F(ReaderSentryTest, AChildsTeardownLeavesTheParentsWatchAndRetryTimer) {
  writeKestor(80);
  coll.succeed = false;
  auto s = start();
  ASSERT_TRUE(s->retryPending());
  pid_t const pid = ::fork();
  if (pid == 0) {
    s.reset();
    loop.runOnce(0);
    ::_exit(loop.fdWatchers() == 0 && loop.timers() == 0 ? 0 : 1);
  }
  ASSERT_GT(pid, 0);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_TRUE(runUntil([&] { return coll.count("attach retry") >= 1; }));
  coll.succeed = true;
  ASSERT_TRUE(runUntil([&] { return coll.attached; }));
  writeKestor(81);
  ASSERT_TRUE(runUntil([&] { return coll.kestor == Parcel::KestorId(81); }));
}

TEST_F(ReaderSentryTest, ACollectionMayDestroyItsSentryFromItsAttach) {
  std::unique_ptr<Parcel::ReaderSentry> s = start();
  coll.onAttach = [&] { s.reset(); };
  writeKestor(50);
  ASSERT_TRUE(runUntil([&] { return s == nullptr; }));
  EXPECT_EQ(coll.count("attach"), 1);
  loop.runOnce(0.05);
  EXPECT_EQ(loop.fdWatchers(), 0u);
  EXPECT_EQ(loop.timers(), 0u);
}

TEST_F(ReaderSentryTest, BadUsesAreRefusedWithTheTableInTheMessage) {
  auto s = start();
  EXPECT_EQ(LomiTest::thrown<Lomi::InvalidInitializeException>([&] { s->event("bogus", false); }),
            "reader sentry of " + root.path() + ": unknown event \"bogus\"");
  Mem::NaoRootPath local(handler(), "agent/local", true);
  EXPECT_THROW(Parcel::ReaderSentry(handler(), local, &coll, loop), Lomi::InvalidInitializeException);

  // A file where a directory of the path should be: the table can never
  // appear, and init says so.
  std::ofstream(base.path() + "/agent").put('x');
  Parcel::ReaderSentry blocked(handler(), root, &coll, loop);
  EXPECT_EQ(LomiTest::thrown<Lomi::InvalidInitializeException>(
                [&] { blocked.event(Mem::Sentry::eventInit, false); }),
            "cannot watch Mirak table " + root.path() + ": " + base.path() +
                "/agent is in the way and is not a directory");
}

// --- writer sentry ---------------------------------------------------------

class Writer : public Parcel::WriterSentry::Notifiee {
 public:
  explicit Writer(Mem::NaoRootPath root) : root_(std::move(root)) {}
  Parcel::KestorId kestorId() const override { return Parcel::KestorId(77); }
  bool validate() override {
    ++validates;
    return valid;
  }
  bool validateFiles(std::string const& path, unsigned int mask) override {
    ++validateFiles_;
    EXPECT_EQ(path, root_.path());
    EXPECT_EQ(mask, 0u);
    std::remove(root_.filePath(Parcel::WriterSentry::kMarkerName).c_str());
    return true;
  }
  int validates = 0;
  int validateFiles_ = 0;
  bool valid = true;

 private:
  Mem::NaoRootPath root_;
};

class WriterSentryTest : public ::testing::Test {
 protected:
  WriterSentryTest() : root(handler(), "agent/w/table", false), writer(root) {
    root.createDirectories();
  }
  // As a reader leaves it: written aside, renamed into place.
  void mark(std::string const& text) {
    std::string const tmp = root.filePath(".marker.tmp");
    std::ofstream(tmp) << text;
    ASSERT_EQ(std::rename(tmp.c_str(), root.filePath(Parcel::WriterSentry::kMarkerName).c_str()), 0);
  }
  bool markerPresent() const {
    struct stat st;
    return ::stat(root.filePath(Parcel::WriterSentry::kMarkerName).c_str(), &st) == 0;
  }

  TempBase base;
  Lomi::EventLoop loop;
  Mem::NaoRootPath root;
  Writer writer;
};

TEST_F(WriterSentryTest, AMarkerRunsOneValidationAndASoundTableLosesTheMarker) {
  Parcel::WriterSentry s(handler(), &writer, root, loop);
  s.event(Mem::Sentry::eventInit, false);
  EXPECT_TRUE(s.watchingTable());
  loop.runOnce(0);
  EXPECT_EQ(writer.validates, 0);
  // Three readers report in a row: one validation answers them all.
  mark("reader 1");
  mark("reader 2");
  mark("reader 3");
  ASSERT_TRUE(loop.runUntil([&] { return s.validations() == 1; }, 10));
  loop.runOnce(0.05);
  EXPECT_EQ(writer.validates, 1);
  EXPECT_EQ(writer.validateFiles_, 1);
  EXPECT_EQ(s.failedValidations(), 0u);
  EXPECT_FALSE(markerPresent());
}

TEST_F(WriterSentryTest, AFailedValidationIsCountedAndTheMarkerStays) {
  writer.valid = false;
  Parcel::WriterSentry s(handler(), &writer, root, loop);
  s.event(Mem::Sentry::eventInit, false);
  mark("bad chain");
  ASSERT_TRUE(loop.runUntil([&] { return s.failedValidations() == 1; }, 10));
  EXPECT_EQ(writer.validateFiles_, 0);
  EXPECT_TRUE(markerPresent());
}

TEST_F(WriterSentryTest, AMarkerFoundAtInitIsValidatedAndReaderEventsAreIgnored) {
  mark("left before the writer came");
  Parcel::WriterSentry s(handler(), &writer, root, loop);
  s.event(Mem::Sentry::eventInit, false);
  s.event(Mem::Sentry::eventTryAttach, false);
  s.event(Mem::Sentry::eventDisconnect, false);
  ASSERT_TRUE(loop.runUntil([&] { return s.validations() == 1; }, 10));
  EXPECT_FALSE(markerPresent());
  EXPECT_THROW(s.event("bogus", false), Lomi::InvalidInitializeException);
}

TEST_F(WriterSentryTest, ADisabledSentryValidatesNothing) {
  Parcel::WriterSentry s(handler(), &writer, root, loop);
  s.event(Mem::Sentry::eventInit, false);
  s.enabled = 0;
  mark("while disabled");
  loop.runOnce(0.05);
  loop.runOnce(0);
  EXPECT_EQ(writer.validates, 0);
  EXPECT_TRUE(markerPresent());
}

}  // namespace
