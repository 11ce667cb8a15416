// The wake-up protocol end to end, on real sockets: one wake-up per sleep,
// the sleep/notify race, a reader that never reads, garbage either way, a
// writer that never runs its loop and is then killed under its reader.
#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Lomi/EventLoop.h"
#include "Parcel/ProcessTestUtil.h"
#include "Rusk/ReaderRuskSm.h"
#include "Rusk/RuskTestUtil.h"
#include "Rusk/WriterRuskSm.h"

namespace {

using namespace RuskTest;
using ParcelTest::Child;
using ParcelTest::kDeadlineMs;
using ParcelTest::Pipe;
using Rusk::ReaderRuskSm;
using Rusk::WriterRuskSm;
using Rusk::Wire::MessageType;
using Tessel::Sequence;

constexpr double kDeadline = kDeadlineMs / 1000.0;

// A listening writer on a loop of its own.
struct Listening {
  Lomi::EventLoop writerLoop;
  WriterRuskSm writer{handler()};
  Listening() {
    writer.loopIs(writerLoop);
    writer.doEnableListen();
  }
};

// A writer and a connected reader in this process, each on its own loop, so
// a test decides which side runs.
struct Pair : Listening {
  Lomi::EventLoop readerLoop;
  ReaderRuskSm reader{handler(), readerLoop};
  int wakes = 0, disconnects = 0;
  Pair() {
    reader.wakeHandlerIs([this] { ++wakes; });
    reader.disconnectHandlerIs([this] { ++disconnects; });
    std::string error;
    EXPECT_TRUE(reader.connect(writer.socketName(), error)) << error;
    EXPECT_TRUE(onWriter([&] { return writer.readers() == 1; }));
  }
  bool onWriter(std::function<bool()> const& p) { return writerLoop.runUntil(p, kDeadline); }
  bool onReader(std::function<bool()> const& p) { return readerLoop.runUntil(p, kDeadline); }
};

TEST(RuskWire, LayoutIsLittleEndianAndFixed) {
  EXPECT_EQ(message(MessageType::sleeping, 0x0807060504030201),
            std::string("RUSK\x01\x00\x02\x00\x01\x02\x03\x04\x05\x06\x07\x08", 16));
}

// Sleeping(S) against the writer's latest sequence L: S < L wakes at once
// (the reader slept on a queue that had moved); otherwise the first notify
// past S wakes it, and only that one.
TEST(RuskProtocol, SleepingWakesAtOnceOnlyIfTheWriterHasPassedIt) {
  struct Row {
    Sequence latest, sleepAfter;
    bool atOnce;
  } const rows[] = {{10, 5, true}, {10, 9, true}, {10, 10, false}, {0, 0, false}, {10, 11, false}};
  for (Row const& row : rows) {
    SCOPED_TRACE(::testing::Message() << "latest " << row.latest << " sleep " << row.sleepAfter);
    Pair p;
    p.writer.notify(row.latest);
    p.reader.sleeping(row.sleepAfter);
    p.reader.sleeping(row.sleepAfter);  // outstanding: not sent again
    ASSERT_TRUE(p.onWriter([&] { return p.writer.sequencesProcessed() == 1; }));
    Sequence const woken = row.atOnce ? row.latest : row.sleepAfter + 1;
    EXPECT_EQ(p.writer.sleepingReaders(), row.atOnce ? 0u : 1u);
    for (Sequence s = row.latest; s < woken + 100; ++s) p.writer.notify(s);
    EXPECT_EQ(p.writer.ruskCount(), 1u);
    ASSERT_TRUE(p.onReader([&] { return p.wakes == 1; }));
    EXPECT_EQ(p.reader.writerSequence(), woken) << "woken by a notify not past its sequence";
    EXPECT_EQ(p.reader.sequencesSent(), 1u);
  }
}

// Wakes read in one turn make one handler call; a Wake read while not
// notifying is held and handed over on the pass after notifying resumes.
TEST(RuskProtocol, OneHandlerCallPerTurnAndNoneWhileNotNotifying) {
  Pair p;
  for (Sequence s = 0; s < 4; ++s) {
    if (s == 3) p.reader.notifyingIs(false);
    p.reader.sleeping(s);  // sent: s is new, though the Wake for s - 1 is unread
    ASSERT_TRUE(p.onWriter([&] { return p.writer.sleepingReaders() == 1; }));
    p.writer.notify(s + 1);
    if (s >= 2) {
      ASSERT_TRUE(p.onReader([&] { return p.reader.wakesReceived() == s + 1; }));
    }
  }
  EXPECT_EQ(p.wakes, 1) << "three Wakes read in one turn, then one while not notifying";
  EXPECT_TRUE(p.reader.wakePending());
  p.reader.notifyingIs(true);
  EXPECT_EQ(p.wakes, 1) << "the handler ran inside notifyingIs";
  p.readerLoop.runOnce(0);
  EXPECT_EQ(p.wakes, 2);
  EXPECT_FALSE(p.reader.wakePending());
}

// Each row is one bad (or merely odd) client beside a good sleeping reader
// and a liveness probe. A bad one is closed with one level-0 trace naming it
// and its fault; the good one is still woken.
TEST(RuskProtocol, GarbageFromAReaderClosesOnlyThatConnection) {
  std::string const sleep7 = message(MessageType::sleeping, 7);
  std::string badMagic = sleep7, badVersion = sleep7, badType = sleep7;
  badMagic[0] = 'S';
  badVersion[4] = 2;
  badType[6] = 9;
  struct Row {
    std::vector<std::string> chunks;
    bool closeAfter;
    char const* failure;  // nullptr: the connection is not at fault
  } const rows[] = {
      {{badMagic}, false, "bad magic 0x4b535553"},
      {{badMagic.substr(0, 4)}, false, "bad magic"},
      {{badVersion}, false, "unsupported version 2"},
      {{badType}, false, "unknown message type 9"},
      {{message(MessageType::wake, 1)}, false, "unexpected Wake from a reader"},
      {{message(MessageType::sleeping, Tessel::noSequence)}, false, "after no sequence"},
      {{sleep7.substr(0, 3)}, true, "closed inside a message (3 of 16"},
      {{}, true, nullptr},
      {{sleep7.substr(0, 5), sleep7.substr(5)}, false, nullptr},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.failure ? row.failure : row.closeAfter ? "quiet close" : "split Sleeping");
    Failures failures;
    Pair p;
    p.reader.sleeping(0);
    ASSERT_TRUE(Rusk::connectProbe(p.writer.socketName()));
    int const bad = rawConnect(p.writer.socketName());
    ASSERT_TRUE(p.onWriter([&] { return p.writer.readers() == 2 && p.writer.sleepingReaders(); }));
    for (std::string const& chunk : row.chunks) {
      ASSERT_TRUE(rawSend(bad, chunk));
      p.writerLoop.runOnce(0);  // the chunk is queued: this pass reads it alone
    }
    if (row.closeAfter) ::close(bad);
    bool const survives = !row.closeAfter && row.failure == nullptr;
    ASSERT_TRUE(p.onWriter([&] { return p.writer.readers() == (survives ? 2u : 1u); }));
    p.writer.notify(8);
    ASSERT_TRUE(p.onReader([&] { return p.wakes == 1; }));
    EXPECT_EQ(p.writer.ruskCount(), survives ? 2u : 1u);  // the split Sleeping counts
    if (row.failure == nullptr) {
      EXPECT_TRUE(failures.lines.empty()) << failures.lines.front();
    } else {
      ASSERT_EQ(failures.lines.size(), 1u);
      EXPECT_NE(failures.lines[0].find(p.writer.socketName() + " reader 3 "), std::string::npos);
      EXPECT_NE(failures.lines[0].find(row.failure), std::string::npos) << failures.lines[0];
    }
    if (!row.closeAfter) ::close(bad);
  }
}

// A writer that sends garbage, or goes away, ends in the disconnect handler;
// garbage is found in what was sent, before any close.
TEST(RuskProtocol, GarbageFromTheWriterDisconnectsTheReader) {
  struct Row {
    std::string bytes;
    bool closeFirst;
    char const* failure;  // nullptr: a normal end
  } const rows[] = {
      {std::string(16, 'x'), false, "bad magic 0x78787878"},
      {message(MessageType::sleeping, 1), false, "unexpected Sleeping from the writer"},
      {"RUS", true, "closed inside a message (3 of 16"},
      {message(MessageType::wake, 3), true, nullptr},
  };
  std::string const name = fmt::format("@rusk-test-{}", ::getpid());
  int const listener = rawListen(name);
  ASSERT_GE(listener, 0);
  for (Row const& row : rows) {
    SCOPED_TRACE(row.failure ? row.failure : "Wake, then close");
    Failures failures;
    Lomi::EventLoop loop;
    ReaderRuskSm reader(handler(), loop);
    int disconnects = 0;
    reader.disconnectHandlerIs([&] { ++disconnects; });
    std::string error;
    ASSERT_TRUE(reader.connect(name, error)) << error;
    int const c = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_TRUE(rawSend(c, row.bytes));
    if (row.closeFirst) ::close(c);
    ASSERT_TRUE(loop.runUntil([&] { return disconnects == 1; }, kDeadline));
    if (!row.closeFirst) ::close(c);
    EXPECT_FALSE(reader.connected());
    EXPECT_EQ(reader.wakesReceived(), row.failure ? 0u : 1u);
    ASSERT_EQ(failures.lines.size(), row.failure ? 1u : 0u);
    if (row.failure) {
      EXPECT_NE(failures.lines[0].find(name + " (fd "), std::string::npos);
      EXPECT_NE(failures.lines[0].find(row.failure), std::string::npos) << failures.lines[0];
    }
  }
  ::close(listener);
}

// A Wake is read in the pass that polls it, without a second read for EAGAIN;
// a Wake that comes after that read is read on the next pass (the watcher is
// level-triggered), and a Wake followed by the writer's close is handled and
// the end reported in one pass.
TEST(RuskProtocol, EachPassReadsWhatCameAndTheEndInTheSamePass) {
  std::string const name = fmt::format("@rusk-short-{}", ::getpid());
  int const listener = rawListen(name);
  ASSERT_GE(listener, 0);
  Lomi::EventLoop loop;
  ReaderRuskSm reader(handler(), loop);
  int wakes = 0, disconnects = 0;
  reader.wakeHandlerIs([&] { ++wakes; });
  reader.disconnectHandlerIs([&] { ++disconnects; });
  std::string error;
  ASSERT_TRUE(reader.connect(name, error)) << error;
  int const c = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  ASSERT_GE(c, 0);
  struct Step {
    std::string bytes;
    bool thenClose;
    int wakes, disconnects;
  } const steps[] = {
      {message(MessageType::wake, 1), false, 1, 0},
      {message(MessageType::wake, 2) + message(MessageType::wake, 3), false, 2, 0},
      {message(MessageType::wake, 4), true, 3, 1},
  };
  for (Step const& step : steps) {
    SCOPED_TRACE(step.wakes);
    ASSERT_TRUE(rawSend(c, step.bytes));
    if (step.thenClose) ::close(c);
    // The bytes (and the end) are in the socket before the pass polls it.
    ASSERT_EQ(loop.runOnce(kDeadline), 1u);
    EXPECT_EQ(wakes, step.wakes);
    EXPECT_EQ(disconnects, step.disconnects);
  }
  EXPECT_EQ(reader.wakesReceived(), 4u);
  EXPECT_EQ(reader.writerSequence(), 4u);
  EXPECT_FALSE(reader.connected());
  ::close(listener);
}

// Writer (this process) and two reader processes: each reader sleeps after
// the last sequence of a burst, the writer waits until both sleep and writes
// the next burst. Exactly one Wake per reader per burst, counted on both
// sides; a burst with nobody asleep sends nothing. The children inherit the
// listening writer and close their copies first: that must leave the
// parent's watchers alone.
TEST(RuskProtocol, OneWakeUpPerSleepAcrossProcesses) {
  constexpr size_t kReaders = 2, kBursts = 20, kBurst = 1000;
  Listening w;
  std::array<Pipe, kReaders> toReader, fromReader;
  std::vector<std::unique_ptr<Child>> readers;
  for (size_t r = 0; r < kReaders; ++r) {
    readers.push_back(std::make_unique<Child>([&, r] {
      w.writer.close();
      Lomi::EventLoop loop;
      ReaderRuskSm reader(handler(), loop);
      int calls = 0;
      reader.wakeHandlerIs([&] { ++calls; });
      std::string error;
      if (!reader.connect(w.writer.socketName(), error)) return 2;
      std::optional<std::string> line;
      while ((line = toReader[r].receive()) && *line != "end") {
        uint64_t const before = reader.wakesReceived();
        reader.sleeping(std::stoull(*line));
        if (!loop.runUntil([&] { return reader.wakesReceived() > before; }, kDeadline)) return 3;
      }
      loop.runOnce(0);  // a Wake sent before "end" is in the socket by now
      fromReader[r].send(fmt::format("{} {} {}", reader.wakesReceived(), calls,
                                     reader.sequencesSent()));
      return line ? 0 : 4;
    }));
  }
  Sequence seq = 0;
  for (size_t b = 0; b <= kBursts; ++b) {
    for (Pipe& p : toReader) p.send(b < kBursts ? std::to_string(seq) : "end");
    if (b < kBursts) {
      ASSERT_TRUE(w.writerLoop.runUntil([&] { return w.writer.sleepingReaders() == kReaders; },
                                        kDeadline));
    }
    // The last burst finds nobody asleep.
    for (size_t i = 0; i < kBurst; ++i) w.writer.notify(++seq);
    EXPECT_EQ(w.writer.ruskCount(), std::min(b + 1, kBursts) * kReaders);
  }
  std::string const expected = fmt::format("{0} {0} {0}", kBursts);
  for (size_t r = 0; r < kReaders; ++r) {
    EXPECT_EQ(fromReader[r].receive().value_or("nothing"), expected) << "wakes, calls, sleeps";
    EXPECT_EQ(readers[r]->wait(), 0);
  }
  EXPECT_EQ(w.writer.sequencesProcessed(), kBursts * kReaders);
}

// A client that says "sleeping" over and over and never reads: the writer's
// sends find its buffer full and go on; the writer stays usable. The writer
// runs in a child so that a blocking send would end in the deadline.
TEST(RuskProtocol, AReaderThatNeverReadsDoesNotBlockTheWriter) {
  constexpr int kRounds = 50000;
  Pipe result;
  Child writerSide([&] {
    Listening w;
    int const mute = rawConnect(w.writer.socketName());
    for (Sequence i = 0; i < kRounds; ++i) {
      rawSend(mute, message(MessageType::sleeping, i));
      w.writerLoop.runOnce(0);
      w.writer.notify(i + 1);
    }
    ReaderRuskSm reader(handler(), w.writerLoop);
    std::string error;
    reader.connect(w.writer.socketName(), error);
    reader.sleeping(kRounds);
    w.writerLoop.runUntil([&] { return w.writer.sleepingReaders() == 1; }, kDeadline);
    w.writer.notify(kRounds + 1);
    w.writerLoop.runUntil([&] { return reader.wakesReceived() == 1; }, kDeadline);
    result.send(fmt::format("{} {} {}", w.writer.ruskCount(), w.writer.readers(),
                            reader.wakesReceived()));
    return 0;
  });
  unsigned long sent = 0, readers = 0, wakes = 0;
  ASSERT_EQ(std::sscanf(result.receive().value_or("").c_str(), "%lu %lu %lu", &sent, &readers,
                        &wakes),
            3)
      << "the writer did not finish";
  EXPECT_LT(sent, unsigned(kRounds)) << "the mute client's buffer never filled";
  EXPECT_EQ(readers, 2u) << "a full buffer closed the connection";
  EXPECT_EQ(wakes, 1u);
  EXPECT_EQ(writerSide.wait(), 0);
}

// A writer that never runs its event loop still accepts, reads Sleeping and
// wakes: notify polls the socket itself. Then its death reaches the reader
// in the first loop pass after it, and the handler may destroy the reader.
TEST(RuskProtocol, AWriterInATightLoopWakesAndItsDeathDisconnects) {
  Pipe name, report;
  Child writerSide([&] {
    Listening w;  // its loop is never run
    w.writer.notify(5);
    name.send(w.writer.socketName());
    auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeadlineMs);
    while (!w.writer.sleepingReaders() && std::chrono::steady_clock::now() < end) {
      w.writer.notify(5);
    }
    w.writer.notify(6);
    report.send(fmt::format("{} {}", w.writer.sequencesProcessed(), w.writer.ruskCount()));
    ::pause();
    return 0;
  });
  Lomi::EventLoop loop;
  auto reader = std::make_unique<ReaderRuskSm>(handler(), loop);
  int disconnects = 0;
  reader->disconnectHandlerIs([&] { ++disconnects, reader.reset(); });
  std::string error;
  ASSERT_TRUE(reader->connect(name.receive().value_or(""), error)) << error;
  reader->sleeping(5);
  ASSERT_TRUE(loop.runUntil([&] { return reader->wakesReceived() == 1; }, kDeadline));
  EXPECT_EQ(reader->writerSequence(), 6u);
  EXPECT_EQ(report.receive().value_or("nothing"), "1 1") << "Sleeping read, Wake sent";
  ASSERT_TRUE(writerSide.killAndReap());
  loop.runOnce(kDeadline);
  EXPECT_EQ(disconnects, 1);
  EXPECT_EQ(reader, nullptr);
}

}  // namespace
