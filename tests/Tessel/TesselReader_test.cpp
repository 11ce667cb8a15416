// The reader's walk over the queue: its rules in one process, step by step,
// and against a writer running at full speed in another process (and in
// another thread, for ThreadSanitizer).
#include "Tessel/TesselReaderView.h"

#include <sys/mman.h>
#include <sys/wait.h>

#include <atomic>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Parcel/ProcessTestUtil.h"
#include "Tessel/TesselWriter.h"
#include "TesselTestUtil.h"

namespace {

using TesselTest::TempDir;
using Writer = Tessel::TesselWriter;
using Tessel::TesselNotification;

constexpr uint32_t kKestor = 0x00020009;

std::vector<TesselNotification> drain(Tessel::TesselReaderView& r) {
  std::vector<TesselNotification> out;
  TesselNotification n;
  while (r.next(n)) {
    out.push_back(n);
    r.consumed();
  }
  return out;
}

class TesselReaderSteps : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(w.attach(kKestor, 20), Tessel::attachNew);
    std::string error;
    ASSERT_TRUE(r.attach(kKestor, error)) << error;
  }
  TempDir dir;
  Writer w{dir.path(), TesselTest::handler()};
  Tessel::TesselReaderView r{dir.path(), TesselTest::handler()};
};

TEST_F(TesselReaderSteps, YieldsLiveEntriesInOrderAndSkipsTombstones) {
  w.notify(1);
  w.notify(2);
  w.notify(1);  // retires seq 1
  w.notify(3);
  w.tombstone(3);
  auto const got = drain(r);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0], (TesselNotification{2, 2}));
  EXPECT_EQ(got[1], (TesselNotification{3, 1}));
  EXPECT_EQ(r.lastConsumed(), 4u) << "the retired entry of seq 4 was passed";
  w.notify(5);
  auto const more = drain(r);
  ASSERT_EQ(more.size(), 1u);
  EXPECT_EQ(more[0], (TesselNotification{5, 5}));
}

TEST_F(TesselReaderSteps, FollowsCompactionsAndLosesNothing) {
  // The reader takes in a little, then the writer laps it several times.
  for (uint32_t i = 0; i < 10; i++) w.notify(i);
  TesselNotification n;
  ASSERT_TRUE(r.next(n));
  r.consumed();
  for (uint32_t i = 0; i < 500; i++) w.notify(i % 7);
  ASSERT_GE(w.compactions(), 2u);
  auto const got = drain(r);
  EXPECT_GT(r.refinds(), 0u);
  // Exactly the live entries above what was consumed: slots 0..6 at their
  // last sequences, then 7, 8, 9 from the first round (still live).
  std::vector<TesselNotification> expected;
  for (uint32_t pos = 0; pos < w.entryCount(); pos++) {
    auto const e = w.entry(pos);
    if (!e.isTombstone() && e.sequence > 1) expected.push_back(e);
  }
  EXPECT_EQ(got, expected);
  EXPECT_EQ(got.size(), 10u);
}

TEST_F(TesselReaderSteps, ValidateNotifAndRejection) {
  w.notify(4);
  w.notify(5);
  TesselNotification n;
  ASSERT_TRUE(r.next(n));
  EXPECT_EQ(n.slot, 4u);
  EXPECT_TRUE(r.validateNotif());
  // A move retires slot 4's entry while the reader stands on it.
  w.notify(6);
  w.tombstone(4);
  EXPECT_FALSE(r.validateNotif());
  r.rejected();  // generation unchanged: step on
  ASSERT_TRUE(r.next(n));
  EXPECT_EQ(n, (TesselNotification{2, 5}));
  r.consumed();
  ASSERT_TRUE(r.next(n));
  EXPECT_EQ(n, (TesselNotification{3, 6}));
  // A compaction while the reader stands on a live entry: the entry no
  // longer counts here, and after the rejection it is met again.
  for (uint32_t i = 0; i < 100; i++) w.notify(10 + i % 5);
  EXPECT_FALSE(r.validateNotif());
  r.rejected();
  ASSERT_TRUE(r.next(n));
  EXPECT_EQ(n, (TesselNotification{3, 6}));
}

// Two compactions between the reader's load of the generation and its load of
// the count reuse its table with fewer entries than its position: that is
// the writer lapping a descheduled reader, not damage (it was reported as
// "out-of-range index" by shadows under a busy writer). The same count under
// a generation that stood is damage. The generation the reader first loads
// is forged back to the one it positioned under; the hook puts the real one
// back between the two loads.
TEST_F(TesselReaderSteps, ACountBelowThePositionIsDamageOnlyIfTheGenerationStood) {
  for (uint32_t i = 0; i < 10; i++) w.notify(i);
  TesselNotification n;
  for (uint32_t i = 0; i < 10; i++) {
    ASSERT_TRUE(r.next(n));
    if (i < 9) r.consumed();
  }
  ASSERT_TRUE(r.validateNotif());
  std::string const header = dir.file("tessel");
  uint32_t const stood = TesselTest::readAt<uint32_t>(header, 40);
  // Slots 2..9 go: two compactions leave a table of a few entries.
  for (uint32_t slot = 2; slot < 10; slot++) w.tombstone(slot);
  uint64_t const before = w.compactions();
  for (uint32_t i = 0; w.compactions() < before + 2; i++) w.notify(i % 2);
  uint32_t const moved = TesselTest::readAt<uint32_t>(header, 40);
  ASSERT_NE(moved, stood);

  static std::string const* file;
  static uint32_t realGeneration;
  static int calls;
  file = &header;
  realGeneration = moved;
  calls = 0;
  TesselTest::writeAt<uint32_t>(header, 40, stood);
  Tessel::readerStepHook = [](Tessel::ReaderStep) {
    calls++;
    TesselTest::writeAt<uint32_t>(*file, 40, realGeneration);
  };
  bool counts = true;
  EXPECT_NO_THROW(counts = r.validateNotif());
  Tessel::readerStepHook = nullptr;
  EXPECT_EQ(calls, 1) << "the count did not fall below the position";
  EXPECT_FALSE(counts);

  TesselTest::writeAt<uint32_t>(header, 40, stood);
  EXPECT_THROW(r.validateNotif(), Lomi::CorruptionDetectedException);
  TesselTest::writeAt<uint32_t>(header, 40, moved);
}

TEST_F(TesselReaderSteps, SeekStartsAfterASequence) {
  for (uint32_t i = 0; i < 6; i++) w.notify(i);
  r.seek(4);
  auto const got = drain(r);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].sequence, 5u);
}

TEST_F(TesselReaderSteps, ReformatIsNoticed) {
  w.notify(1);
  drain(r);
  Writer other(dir.path(), TesselTest::handler());
  ASSERT_EQ(other.attach(kKestor + 0x10000, 20), Tessel::attachReformatted);
  other.notify(2);
  TesselNotification n;
  EXPECT_FALSE(r.next(n));
  EXPECT_TRUE(r.reformatted());
}

// A lostSequence beyond the head: what lose() leaves when the writer dies
// between its two stores (lostSequence, then sequence), or a damaged word.
// The owner sweeps once and seeks to the head; the same loss must not call
// for another sweep, or the shadow sweeps for as long as no writer comes. A
// later loss still does.
TEST_F(TesselReaderSteps, ALossBeyondTheHeadCallsForOneSweepOnly) {
  for (uint32_t i = 0; i < 5; i++) w.notify(i);
  drain(r);
  uint64_t const head = r.headSequence();
  ASSERT_EQ(head, 5u);
  TesselTest::writeAt<uint64_t>(dir.file("tessel"), 72, head + 1);
  TesselNotification n;
  EXPECT_FALSE(r.next(n));
  EXPECT_TRUE(r.overrun()) << "the loss went unnoticed";
  // The sweep, then the seek to the head read before it.
  r.seek(r.headSequence());
  EXPECT_FALSE(r.next(n));
  EXPECT_FALSE(r.overrun()) << "the same loss called for a second sweep";
  EXPECT_FALSE(r.next(n));
  EXPECT_FALSE(r.overrun());
  // A later loss, past what the sweep covered.
  TesselTest::writeAt<uint64_t>(dir.file("tessel"), 72, head + 7);
  EXPECT_FALSE(r.next(n));
  EXPECT_TRUE(r.overrun()) << "a new loss went unnoticed";
  // A view attached afresh has swept nothing yet.
  r.seek(r.headSequence());
  std::string error;
  ASSERT_TRUE(r.attach(kKestor, error)) << error;
  r.seek(head);
  EXPECT_FALSE(r.next(n));
  EXPECT_TRUE(r.overrun());
}

TEST(TesselReaderAttach, RefusesWrongKestorAndMissingFiles) {
  TempDir dir;
  Tessel::TesselReaderView r(dir.path(), TesselTest::handler());
  std::string error;
  EXPECT_FALSE(r.attach(kKestor, error));
  EXPECT_NE(error.find(dir.file("tessel")), std::string::npos) << error;
  Writer w(dir.path(), TesselTest::handler());
  w.attach(kKestor, 4);
  EXPECT_FALSE(r.attach(kKestor + 1, error));
  EXPECT_EQ(error, "tessel " + dir.path() + ": kestor:0x20009 expected:0x2000a");
  EXPECT_FALSE(r.attached());
}

TEST(TesselReaderAttach, CorruptCountIsReportedNotFollowed) {
  TempDir dir;
  Writer w(dir.path(), TesselTest::handler());
  w.attach(kKestor, 4);
  w.notify(1);
  Tessel::TesselReaderView r(dir.path(), TesselTest::handler());
  std::string error;
  ASSERT_TRUE(r.attach(kKestor, error)) << error;
  TesselTest::writeAt<uint32_t>(dir.file("tessel.0"), 8, 1u << 30);
  TesselNotification n;
  EXPECT_THROW(r.next(n), Lomi::CorruptionDetectedException);
}

// ---------------------------------------------------------------------------
// A writer at full speed and a concurrent reader.
//
// Self-checking entries: the writer notifies, for sequence s, the slot
// slotFor(s), so the reader can tell a garbage entry from a real one.

constexpr uint32_t kSlots = 2048;
constexpr uint32_t kNotifications = 3'000'000;

uint32_t slotFor(uint64_t seq) {
  TesselTest::SplitMix m{seq * 0x2545f4914f6cdd1dull};
  uint64_t const z = m();
  // Three quarters go to 32 hot slots: many tombstones, frequent compactions.
  return (z & 3) != 0 ? static_cast<uint32_t>((z >> 8) % 32)
                      : static_cast<uint32_t>((z >> 8) % kSlots);
}

struct ReaderReport {
  uint64_t acted = 0;
  uint64_t garbage = 0;    // slot does not match its sequence
  uint64_t backwards = 0;  // a sequence not above the last consumed
  uint64_t refinds = 0;
  uint64_t exceptions = 0;
  uint64_t lastSeen[kSlots] = {};
};

// Attaches, calls `attached()`, then drains until `writerDone()` has been
// seen true and the queue is then empty.
template <typename AttachedFn, typename DoneFn>
void runReader(std::string const& dir, ReaderReport& rep, AttachedFn attached, DoneFn writerDone) {
  Tessel::TesselReaderView r(dir, TesselTest::handler());
  std::string error;
  bool const ok = r.attach(kKestor, error);
  attached();
  if (!ok) {
    rep.exceptions++;
    return;
  }
  bool done = false;
  for (;;) {
    try {
      TesselNotification n;
      while (r.next(n)) {
        if (n.sequence <= r.lastConsumed()) rep.backwards++;
        if (n.slot >= kSlots || n.slot != slotFor(n.sequence)) {
          rep.garbage++;
        } else {
          rep.lastSeen[n.slot] = n.sequence;
        }
        rep.acted++;
        r.consumed();
      }
    } catch (Lomi::Exception const&) {
      rep.exceptions++;
      return;
    }
    if (done) break;
    done = writerDone();
  }
  rep.refinds = r.refinds();
}

void runWriter(Writer& w) {
  for (uint32_t i = 0; i < kNotifications; i++) w.notify(slotFor(w.sequence() + 1));
}

void expectNothingLost(Writer const& w, ReaderReport const& rep) {
  std::printf("acted:%llu refinds:%llu compactions:%llu\n",
              static_cast<unsigned long long>(rep.acted),
              static_cast<unsigned long long>(rep.refinds),
              static_cast<unsigned long long>(w.compactions()));
  EXPECT_EQ(rep.exceptions, 0u);
  EXPECT_EQ(rep.garbage, 0u);
  EXPECT_EQ(rep.backwards, 0u);
  EXPECT_GT(w.compactions(), 100u);
  EXPECT_GT(rep.refinds, 0u) << "the reader was never lapped: the race did not happen";
  uint64_t mismatches = 0;
  for (uint32_t s = 0; s < kSlots; s++) {
    Tessel::TesselPos const pos = w.tesselSlots(s);
    uint64_t const final = pos == Tessel::noTesselPos ? 0 : w.entry(pos).sequence;
    if (rep.lastSeen[s] != final) {
      if (mismatches++ < 5)
        ADD_FAILURE() << "slot " << s << " reader saw " << rep.lastSeen[s] << ", writer's last is "
                      << final;
    }
  }
  EXPECT_EQ(mismatches, 0u);
}

TEST(TesselConcurrent, ReaderProcessNeverLosesAChangeNorActsOnGarbage) {
  TempDir dir;
  Writer w(dir.path(), TesselTest::handler());
  ASSERT_EQ(w.attach(kKestor, kSlots), Tessel::attachNew);
  // The child's report lands in memory shared across the fork.
  void* shared = ::mmap(nullptr, sizeof(ReaderReport), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto* rep = new (shared) ReaderReport;
  ParcelTest::Pipe ready, done;
  ParcelTest::Child reader([&] {
    runReader(
        dir.path(), *rep, [&] { ready.send("attached"); }, [&] { return done.readable(); });
    return 0;
  });
  ASSERT_EQ(ready.receive().value_or("none"), "attached");
  runWriter(w);
  done.send("done");
  std::optional<int> status = reader.wait(60000);
  ASSERT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
      << "the reader did not end well within the deadline";
  expectNothingLost(w, *rep);
  ::munmap(shared, sizeof(ReaderReport));
}

// The same protocol with the reader in a thread of this process (its own
// read-only mappings), so that ThreadSanitizer sees both sides.
TEST(TesselConcurrent, ReaderThreadNeverLosesAChangeNorActsOnGarbage) {
  TempDir dir;
  Writer w(dir.path(), TesselTest::handler());
  ASSERT_EQ(w.attach(kKestor, kSlots), Tessel::attachNew);
  std::atomic<bool> started{false};
  std::atomic<bool> writerDone{false};
  auto rep = std::make_unique<ReaderReport>();
  std::thread reader([&] {
    runReader(
        dir.path(), *rep, [&] { started.store(true, std::memory_order_release); },
        [&] { return writerDone.load(std::memory_order_acquire); });
  });
  while (!started.load(std::memory_order_acquire)) std::this_thread::yield();
  runWriter(w);
  writerDone.store(true, std::memory_order_release);
  reader.join();
  expectNothingLost(w, *rep);
}

}  // namespace
