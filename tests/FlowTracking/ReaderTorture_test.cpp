// Torture of the lock-free read path: one writer inserts, overwrites and
// removes at random with slot growth, bucket growth and bucket shrink on,
// while readers look up and walk without pause.
//
// Every value carries a checksum of its own fields (a HoIpFlowCounter whose
// `bytes` is a hash of its key, packets, hosEntries and createTime), so a torn
// read shows. A set of pinned keys is never removed, only overwritten. The
// readers assert: no torn value, no pinned key ever absent, every walk returns
// every pinned key exactly once in strictly increasing (rhash, key) order, and
// no exception reaches the caller. They report what they saw, and the test
// asserts that the run raced (retries + lookaside reads > 0).
//
// Two forms: processes (fork; the real setting) for FLOWTABLES_TORTURE_SECONDS
// seconds (default 3), and writer and reader as two threads of one process,
// short, for the thread sanitizer.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/ReaderTestUtil.h"
#include "Lomi/Util.h"
#include "Mirak/TempRoot.h"

namespace FlowTrackingTest {
namespace {

using Record = HoIpFlowCounter;
using Value = TableValue<Record>;
using Key = Record::Key;
using Writer = WriterOf<Record>;
using Reader = ReaderOf<Record>;

constexpr char kTable[] = "flowtracking/test/torture";
constexpr uint32_t kPinned = 64;
constexpr uint32_t kIdSpace = 20000;
// Live non-pinned entries swing between these, so the bucket table doubles
// up to 8192 and halves again in every cycle.
constexpr uint32_t kHigh = 6000;
constexpr uint32_t kLow = 40;

double tortureSeconds(double fallback) {
  char const* s = std::getenv("FLOWTABLES_TORTURE_SECONDS");
  double const v = s ? std::atof(s) : 0.0;
  return v > 0 ? v : fallback;
}

uint64_t checksumOf(Record const& r) {
  uint64_t h = uint64_t(r.key().hash(0x5eed)) * 0x9e3779b97f4a7c15ull;
  h ^= r.packets() * 0xc2b2ae3d27d4eb4full;
  h ^= uint64_t(r.hosEntries()) << 17;
  double const t = r.createTime();
  uint64_t bits;
  std::memcpy(&bits, &t, sizeof bits);
  return h ^ (bits * 0x165667b19e3779f9ull);
}

Value makeValue(uint32_t id, uint64_t packets) {
  Record r(ipFlowKey(id));
  r.intfIdIs(intf(id));
  r.packetsIs(packets);
  r.hosEntriesIs(static_cast<uint32_t>(packets >> 11));
  r.createTimeIs(static_cast<double>(packets & 0xfffff));
  r.bytesIs(checksumOf(r));
  return r;
}

bool intact(Value const& v) {
  return v.bytes() == checksumOf(v);
}

struct WriterReport {
  uint64_t ops = 0;
  uint64_t cycles = 0;
  uint64_t slotGrows = 0;
  uint64_t bucketGrows = 0;
  uint64_t bucketShrinks = 0;
};

struct ReaderReport {
  uint64_t reads = 0;
  uint64_t walks = 0;
  uint64_t walkEntries = 0;
  uint64_t retries = 0;
  uint64_t lookasideReads = 0;
  uint64_t nextSlowPath = 0;
  uint64_t slowPathSteps = 0;
  uint64_t resizesFollowed = 0;
  uint64_t torn = 0;
  uint64_t wrongKey = 0;
  uint64_t pinnedAbsent = 0;
  uint64_t walkBadPinned = 0;
  uint64_t walkDisorder = 0;
  uint64_t exceptions = 0;
  char lastError[256] = {};
};

// The writer's workload until `stop()` says so. Pinned keys are in before.
template <typename Stop>
WriterReport runWriter(Writer& w, uint32_t seed, Stop stop) {
  WriterReport rep;
  std::mt19937_64 rng(seed);
  std::vector<uint32_t> live;
  std::vector<int32_t> where(kIdSpace, -1);
  bool growing = true;
  for (;;) {
    if ((rep.ops & 255) == 0 && stop()) break;
    rep.ops++;
    uint64_t const r = rng() % 100;
    if (r < 35) {
      uint32_t const id = static_cast<uint32_t>(rng() % kPinned);
      w.write(makeValue(id, rng()), true);
    } else if (r < 50 && !live.empty()) {
      uint32_t const id = live[rng() % live.size()];
      w.write(makeValue(id, rng()), true);
    } else if (growing) {
      uint32_t const id = kPinned + static_cast<uint32_t>(rng() % (kIdSpace - kPinned));
      w.write(makeValue(id, rng()), true);
      if (where[id] < 0) {
        where[id] = static_cast<int32_t>(live.size());
        live.push_back(id);
      }
      if (live.size() >= kHigh) growing = false;
    } else if (!live.empty()) {
      size_t const at = rng() % live.size();
      uint32_t const id = live[at];
      Value removed;
      w.remove(ipFlowKey(id), removed);
      live[at] = live.back();
      where[live[at]] = static_cast<int32_t>(at);
      live.pop_back();
      where[id] = -1;
      if (live.size() <= kLow) {
        growing = true;
        rep.cycles++;
      }
    }
  }
  Mirak::Writer::Counters const c = w.writerCounters();
  rep.slotGrows = c.slotGrows;
  rep.bucketGrows = c.bucketGrows;
  rep.bucketShrinks = c.bucketShrinks;
  return rep;
}

void noteError(ReaderReport& rep, std::string const& text) {
  std::snprintf(rep.lastError, sizeof rep.lastError, "%s", text.c_str());
}

// One walk of the whole table, checked.
void walkOnce(Reader& reader, ReaderReport& rep) {
  std::vector<uint8_t> pinnedSeen(kPinned, 0);
  Value v;
  Mirak::IterHint hint;
  auto const& ops = reader.ops();
  bool havePrev = false;
  std::pair<uint32_t, Key> prev{};
  rep.walks++;
  for (bool ok = reader.first(v, hint); ok; ok = reader.next(v.fwkKey(), v, hint)) {
    rep.walkEntries++;
    if (!intact(v)) {
      rep.torn++;
      noteError(rep, "torn value in a walk");
    }
    std::pair<uint32_t, Key> const order{Lomi::Util::reverse(ops.hash(v.fwkKey())), v.fwkKey()};
    if (havePrev && !(prev < order)) {
      rep.walkDisorder++;
      noteError(rep, "walk order did not increase");
    }
    prev = order;
    havePrev = true;
    // Pinned ids are the first kPinned source addresses.
    uint32_t const id = v.fwkKey().srcAddr().value() - 0x0a000000u;
    if (id < kPinned) pinnedSeen[id]++;
  }
  for (uint32_t i = 0; i < kPinned; i++) {
    if (pinnedSeen[i] != 1) {
      rep.walkBadPinned++;
      noteError(rep, fmt::format("pinned key {} seen {} times in a walk", i, pinnedSeen[i]));
    }
  }
}

template <typename Stop>
ReaderReport runReader(Reader& reader, uint32_t seed, Stop stop) {
  ReaderReport rep;
  std::mt19937 rng(seed);
  uint64_t n = 0;
  while (!stop()) {
    try {
      for (int i = 0; i < 256; i++, n++) {
        if (n % 4096 == 4095) {
          walkOnce(reader, rep);
          continue;
        }
        bool const pinned = rng() % 2 == 0;
        uint32_t const id = pinned ? rng() % kPinned : kPinned + rng() % (kIdSpace - kPinned);
        Key const key = ipFlowKey(id);
        Value buffer;
        bool found = false;
        Value const* p = reader.lookup(key, found, &buffer);
        rep.reads++;
        if (!found) {
          if (pinned) {
            rep.pinnedAbsent++;
            noteError(rep, fmt::format("pinned key {} reported absent", id));
          }
          continue;
        }
        if (!intact(*p)) {
          rep.torn++;
          noteError(rep, fmt::format("torn value of key {}", id));
        }
        if (!(p->fwkKey() == key)) rep.wrongKey++;
      }
    } catch (std::exception const& e) {
      rep.exceptions++;
      noteError(rep, e.what());
    }
  }
  Mirak::Reader::Counters const c = reader.readerCounters();
  rep.retries = c.retries;
  rep.lookasideReads = c.lookasideReads;
  rep.nextSlowPath = c.nextSlowPath;
  rep.slowPathSteps = c.slowPathSteps;
  rep.resizesFollowed = c.resizesFollowed;
  return rep;
}

void print(char const* who, ReaderReport const& r) {
  std::printf(
      "%s: reads %llu walks %llu (entries %llu) retries %llu lookasideReads %llu nextSlowPath %llu "
      "slowPathSteps %llu resizesFollowed %llu | torn %llu wrongKey %llu pinnedAbsent %llu "
      "walkBadPinned %llu walkDisorder %llu exceptions %llu %s\n",
      who, (unsigned long long)r.reads, (unsigned long long)r.walks,
      (unsigned long long)r.walkEntries, (unsigned long long)r.retries,
      (unsigned long long)r.lookasideReads, (unsigned long long)r.nextSlowPath,
      (unsigned long long)r.slowPathSteps, (unsigned long long)r.resizesFollowed,
      (unsigned long long)r.torn, (unsigned long long)r.wrongKey,
      (unsigned long long)r.pinnedAbsent, (unsigned long long)r.walkBadPinned,
      (unsigned long long)r.walkDisorder, (unsigned long long)r.exceptions, r.lastError);
}

void expectClean(ReaderReport const& r) {
  EXPECT_GT(r.reads, 0u);
  EXPECT_GT(r.walks, 0u);
  EXPECT_EQ(r.torn, 0u);
  EXPECT_EQ(r.wrongKey, 0u);
  EXPECT_EQ(r.pinnedAbsent, 0u);
  EXPECT_EQ(r.walkBadPinned, 0u);
  EXPECT_EQ(r.walkDisorder, 0u);
  EXPECT_EQ(r.exceptions, 0u) << r.lastError;
}

std::unique_ptr<Writer> makeTortureWriter() {
  auto w = makeSharedWriter<Record>(kTable, sharedDescriptor(1u << 20, true));
  for (uint32_t i = 0; i < kPinned; i++) w->write(makeValue(i, i), true);
  return w;
}

TEST(ReaderTortureTest, ProcessesOneWriterTwoReaders) {
  MirakTest::TempRoot root;
  double const seconds = tortureSeconds(3.0);
  uint32_t const seed = 424242;
  std::printf("torture: %.1f s, seed %u\n", seconds, seed);
  RecordPipe writerUp, writerDown, readersUp, stopPipe;

  pid_t writer = forkChild([&]() -> int {
    auto w = makeTortureWriter();
    uint32_t token = 1;
    writerUp.send(token);
    if (!writerDown.receive(token)) return 2;
    auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    WriterReport const rep =
        runWriter(*w, seed, [&] { return std::chrono::steady_clock::now() >= end; });
    writerUp.send(rep);
    // Stay until the readers are done: the files stay as the writer left them.
    writerDown.receive(token);
    return 0;
  });
  ASSERT_GT(writer, 0);
  uint32_t token = 0;
  ASSERT_TRUE(writerUp.receive(token)) << "writer did not start";

  std::vector<pid_t> readers;
  for (uint32_t r = 0; r < 2; r++) {
    pid_t pid = forkChild([&, r]() -> int {
      auto reader = makeReader<Record>(kTable);
      if (!reader->initialize("torture")) return 2;
      uint32_t ready = 1;
      readersUp.send(ready);
      ReaderReport const rep =
          runReader(*reader, seed + 1 + r, [&] { return stopPipe.readable(); });
      readersUp.send(rep);
      return 0;
    });
    ASSERT_GT(pid, 0);
    readers.push_back(pid);
  }
  for (size_t i = 0; i < readers.size(); i++) {
    ASSERT_TRUE(readersUp.receive(token)) << "a reader did not attach";
  }
  writerDown.send(token);
  WriterReport wrep;
  ASSERT_TRUE(writerUp.receive(wrep, kDeadlineMs + static_cast<int>(seconds * 1000)));
  uint8_t stop = 1;
  stopPipe.send(stop);
  std::vector<ReaderReport> reports(readers.size());
  for (auto& rep : reports) ASSERT_TRUE(readersUp.receive(rep));
  writerDown.send(token);

  std::printf("writer: ops %llu cycles %llu slotGrows %llu bucketGrows %llu bucketShrinks %llu\n",
              (unsigned long long)wrep.ops, (unsigned long long)wrep.cycles,
              (unsigned long long)wrep.slotGrows, (unsigned long long)wrep.bucketGrows,
              (unsigned long long)wrep.bucketShrinks);
  uint64_t raced = 0;
  for (size_t i = 0; i < reports.size(); i++) {
    print(i == 0 ? "reader 0" : "reader 1", reports[i]);
    expectClean(reports[i]);
    raced += reports[i].retries + reports[i].lookasideReads;
  }
  EXPECT_GT(wrep.slotGrows, 0u);
  EXPECT_GT(wrep.bucketGrows, 0u);
  EXPECT_GT(wrep.bucketShrinks, 0u);
  EXPECT_GT(raced, 0u) << "the run never raced: readers and writer did not overlap";
  for (pid_t pid : readers) EXPECT_TRUE(exitedWith(reap(pid), 0));
  EXPECT_TRUE(exitedWith(reap(writer), 0));
}

// The same protocol with writer and reader as two threads, each with its own
// mapping of the files: the form the thread sanitizer can watch.
TEST(ReaderTortureTest, TwoThreads) {
  MirakTest::TempRoot root;
  uint32_t const seed = 77;
  auto w = makeTortureWriter();
  auto reader = makeReader<Record>(kTable);
  ASSERT_TRUE(reader->initialize("threads"));
  std::atomic<bool> readerStarted{false};
  std::atomic<bool> writerDone{false};
  ReaderReport rep;
  std::thread readerThread([&] {
    readerStarted.store(true);
    rep = runReader(*reader, seed + 1, [&] { return writerDone.load(); });
  });
  while (!readerStarted.load()) std::this_thread::yield();
  double const seconds = std::min(0.5, tortureSeconds(0.5));
  auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  WriterReport const wrep =
      runWriter(*w, seed, [&] { return std::chrono::steady_clock::now() >= end; });
  writerDone.store(true);
  readerThread.join();
  print("thread reader", rep);
  std::printf("thread writer: ops %llu bucketGrows %llu bucketShrinks %llu\n",
              (unsigned long long)wrep.ops, (unsigned long long)wrep.bucketGrows,
              (unsigned long long)wrep.bucketShrinks);
  expectClean(rep);
}

}  // namespace
}  // namespace FlowTrackingTest
