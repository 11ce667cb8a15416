// Torture of the lock-free read path under slot compaction: one writer
// fills and empties a table again and again (slot growth, compaction, bucket
// growth and shrink), validating the table after every slot shrink, while
// readers look up and walk without pause. The rows and the walking,
// re-attaching reader are the reliability harness's (stress/Stress.h): every
// value carries a checksum of its fields, so a torn read shows.
//
// Pinned ids are never removed. Reader 0 is the harness reader: no torn value,
// no wrong key, no pinned id absent, every walk returns each pinned id once in
// strictly increasing (rhash, key) order. Reader 1 checks the ids that live
// and die against a presence map the writer keeps in shared memory: a key
// present before and after a lookup must be found.
//
// Writer and readers run as threads for FLOWTABLES_TORTURE_SECONDS seconds
// (default 1.5); the harness's torn mode runs them as processes.
#include <sys/mman.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Mirak/TempRoot.h"
#include "stress/Stress.h"

namespace FlowTrackingTest {
namespace {

using Stress::makeValue;
using Stress::ReaderFigures;
using Value = Stress::Value;
using Record = Stress::Record;
using Writer = Stress::Writer;

constexpr char kTable[] = "flowtracking/test/torture";
constexpr uint32_t kPinned = 64;
constexpr uint32_t kIds = 20000;
// The first fill goes in before the pinned ids, so those sit high and have
// to move when the table shrinks. Live ids then swing between kLow and kHigh.
constexpr uint32_t kFirstFill = 3000;
constexpr uint32_t kHigh = 6000;
constexpr uint32_t kLow = 40;

double tortureSeconds(double fallback) {
  char const* s = std::getenv("FLOWTABLES_TORTURE_SECONDS");
  double const v = s ? std::atof(s) : 0.0;
  return v > 0 ? v : fallback;
}

// Presence of each id, shared by all processes: even = absent or changing,
// odd = present. The writer makes it even before it removes an id and odd
// after it inserted one, so a reader that sees the same odd word before and
// after a lookup knows that the key was in the table throughout.
class Presence {
 public:
  Presence() {
    void* p = ::mmap(nullptr, kIds * sizeof(uint32_t), PROT_READ | PROT_WRITE,
                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    words_ = p == MAP_FAILED ? nullptr : static_cast<uint32_t*>(p);
  }
  ~Presence() {
    if (words_) ::munmap(words_, kIds * sizeof(uint32_t));
  }
  bool ok() const { return words_ != nullptr; }
  uint32_t loadAcquire(uint32_t id) const {
    return std::atomic_ref<uint32_t>(words_[id]).load(std::memory_order_acquire);
  }
  void stepRelease(uint32_t id) {
    std::atomic_ref<uint32_t> w(words_[id]);
    w.store(w.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  }

 private:
  uint32_t* words_ = nullptr;
};

struct WriterReport {
  uint64_t ops = 0;
  uint64_t cycles = 0;
  uint64_t slotGrows = 0;
  uint64_t slotShrinks = 0;
  uint64_t slotsMoved = 0;
  uint64_t bucketGrows = 0;
  uint64_t bucketShrinks = 0;
  uint64_t validations = 0;
  uint64_t validationFailures = 0;
  uint64_t notHalfEmpty = 0;
  char firstError[200] = {};
};

// The whole writer: first fill, pinned ids, then fill and empty until
// `stop()`. `ready()` is called once the pinned ids are in.
template <typename Ready, typename Stop>
WriterReport runWriter(Writer& w, Presence& presence, uint32_t seed, Ready ready, Stop stop) {
  WriterReport rep;
  std::mt19937_64 rng(seed);
  std::vector<uint32_t> live;
  std::vector<int32_t> where(kIds, -1);
  auto insert = [&](uint32_t id) {
    w.write(makeValue(id, rng()), true);
    if (where[id] >= 0) return;
    presence.stepRelease(id);
    where[id] = static_cast<int32_t>(live.size());
    live.push_back(id);
  };
  auto randomId = [&] { return kPinned + static_cast<uint32_t>(rng() % (kIds - kPinned)); };
  while (live.size() < kFirstFill) insert(randomId());
  for (uint32_t id = 0; id < kPinned; id++) w.write(makeValue(id, rng()), true);
  ready();
  bool growing = false;  // empty the first fill first, moving the pinned ids
  uint64_t shrinks = w.writerCounters().slotShrinks;
  for (;;) {
    if ((rep.ops & 255) == 0 && stop()) break;
    rep.ops++;
    uint64_t const r = rng() % 100;
    if (r < 30) {
      w.write(makeValue(static_cast<uint32_t>(rng() % kPinned), rng()), true);
    } else if (r < 45 && !live.empty()) {
      w.write(makeValue(live[rng() % live.size()], rng()), true);
    } else if (growing) {
      insert(randomId());
      if (live.size() >= kHigh) growing = false;
    } else if (!live.empty()) {
      size_t const at = rng() % live.size();
      uint32_t const id = live[at];
      uint32_t const capacityBefore = w.capacity();
      presence.stepRelease(id);
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
      uint64_t const now = w.writerCounters().slotShrinks;
      if (now != shrinks) {
        shrinks = now;
        if (2 * w.members() > w.capacity() || w.capacity() >= capacityBefore) rep.notHalfEmpty++;
        std::string error;
        rep.validations++;
        if (!w.validate(w.kestorId(), error, false) && rep.validationFailures++ == 0) {
          std::snprintf(rep.firstError, sizeof rep.firstError, "%s", error.c_str());
        }
      }
    }
  }
  Mirak::Writer::Counters const c = w.writerCounters();
  rep.slotGrows = c.slotGrows;
  rep.slotShrinks = c.slotShrinks;
  rep.slotsMoved = c.slotsMoved;
  rep.bucketGrows = c.bucketGrows;
  rep.bucketShrinks = c.bucketShrinks;
  return rep;
}

// Lookups of the ids that live and die, judged by the presence map. Absent
// keys that had to be there count as pinnedAbsent; `walkEntries` counts the
// lookups that had to find their key (this reader does not walk). Rounds of
// single lookups take turns with rounds of bulk lookups (groups of 40, more
// than one bulk step), judged key by key the same way.
template <typename Stop>
ReaderFigures runPresenceReader(Presence const& presence, uint32_t seed, Stop stop,
                                uint64_t& bulkReads) {
  ReaderFigures f;
  auto reader = makeReader<Record>(kTable);
  if (!reader->initialize("presence")) {
    f.otherExceptions++;
    f.note("the presence reader could not attach");
    return f;
  }
  f.attaches++;
  std::mt19937 rng(seed);
  constexpr uint32_t kGroup = 40;
  auto judge = [&](uint32_t id, uint32_t before, bool found, Value const& v) {
    bool const mustFind = (before & 1) && before == presence.loadAcquire(id);
    f.reads++;
    if (mustFind) f.walkEntries++;
    if (!found) {
      if (mustFind) {
        f.pinnedAbsent++;
        f.note(fmt::format("id {} reported absent (presence {})", id, before));
      }
      return;
    }
    if (!Stress::intact(v)) f.torn++;
    if (!(v.fwkKey() == ipFlowKey(id))) f.wrongKey++;
  };
  for (uint64_t round = 0; !stop(); round++) {
    try {
      if (round % 2) {
        for (int g = 0; g < 6; g++) {
          uint32_t ids[kGroup], before[kGroup];
          Stress::Key keys[kGroup];
          Value values[kGroup];
          bool found[kGroup];
          for (uint32_t i = 0; i < kGroup; i++) {
            ids[i] = kPinned + rng() % (kIds - kPinned);
            before[i] = presence.loadAcquire(ids[i]);
            keys[i] = ipFlowKey(ids[i]);
          }
          reader->lookupBulk(keys, kGroup, values, found);
          std::atomic_thread_fence(std::memory_order_acquire);
          bulkReads += kGroup;
          for (uint32_t i = 0; i < kGroup; i++) judge(ids[i], before[i], found[i], values[i]);
        }
        continue;
      }
      for (int i = 0; i < 256; i++) {
        uint32_t const id = kPinned + rng() % (kIds - kPinned);
        uint32_t const before = presence.loadAcquire(id);
        Value buffer;
        bool found = false;
        Value const* p = reader->lookup(ipFlowKey(id), found, &buffer);
        std::atomic_thread_fence(std::memory_order_acquire);
        judge(id, before, found, *p);
      }
    } catch (std::exception const& e) {
      f.otherExceptions++;
      f.note(e.what());
    }
  }
  Mirak::Reader::Counters const c = reader->readerCounters();
  f.retries = c.retries;
  f.lookasideReads = c.lookasideReads;
  f.resizesFollowed = c.resizesFollowed;
  return f;
}

void expectClean(char const* who, ReaderFigures const& f) {
  std::printf("%s: %s\n", who, f.toString().c_str());
  EXPECT_GT(f.reads, 0u);
  EXPECT_GT(f.walkEntries, 0u);
  EXPECT_EQ(f.attaches, 1u) << "the table was re-formatted under the reader";
  EXPECT_EQ(f.torn + f.wrongKey + f.pinnedAbsent + f.walkBadPinned + f.walkDisorder, 0u)
      << f.lastError;
  EXPECT_EQ(f.corruptionExceptions + f.otherExceptions, 0u) << f.lastError;
}

void expectWriterShrank(WriterReport const& w) {
  std::printf(
      "writer: ops %llu cycles %llu slotGrows %llu slotShrinks %llu moved %llu bucketGrows %llu "
      "bucketShrinks %llu validations %llu failures %llu %s\n",
      (unsigned long long)w.ops, (unsigned long long)w.cycles, (unsigned long long)w.slotGrows,
      (unsigned long long)w.slotShrinks, (unsigned long long)w.slotsMoved,
      (unsigned long long)w.bucketGrows, (unsigned long long)w.bucketShrinks,
      (unsigned long long)w.validations, (unsigned long long)w.validationFailures, w.firstError);
  EXPECT_GT(w.cycles, 0u);
  EXPECT_GT(w.slotShrinks, 0u);
  EXPECT_GT(w.slotsMoved, 0u);
  EXPECT_GT(w.bucketShrinks, 0u);
  EXPECT_EQ(w.validations, w.slotShrinks);
  EXPECT_EQ(w.validationFailures, 0u) << w.firstError;
  EXPECT_EQ(w.notHalfEmpty, 0u) << "a shrink left the table more than half full";
}

// Writer and readers as threads, each with its own mapping of the files:
// the form the thread sanitizer can watch (readers and writer in processes:
// the harness's torn mode, stress.torn).
TEST(TortureTest, FillAndEmptyUnderTwoReaders) {
  MirakTest::TempRoot root;
  double const seconds = tortureSeconds(1.5);
  uint32_t const seed = 8080;
  std::printf("torture: %.1f s, seed %u\n", seconds, seed);
  Presence presence;
  ASSERT_TRUE(presence.ok());
  auto w = makeSharedWriter<Record>(kTable, Stress::workloadDescriptor(1u << 20));
  std::atomic<bool> writerReady{false}, writerDone{false};
  ReaderFigures walking, present;
  uint64_t bulkReads = 0;
  auto const stop = [&] { return writerDone.load(); };
  auto const waitForWriter = [&] {
    while (!writerReady.load()) std::this_thread::yield();
  };
  std::thread walker([&] {
    waitForWriter();
    walking = Stress::readUntil(kTable, kIds, kPinned, seed + 1, stop);
  });
  std::thread looker([&] {
    waitForWriter();
    present = runPresenceReader(presence, seed + 2, stop, bulkReads);
  });
  auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  WriterReport const wrep = runWriter(
      *w, presence, seed, [&] { writerReady.store(true); },
      [&] { return std::chrono::steady_clock::now() >= end; });
  writerDone.store(true);
  walker.join();
  looker.join();
  expectClean("walking reader", walking);
  expectClean("presence reader (entries: lookups to find)", present);
  EXPECT_GT(bulkReads, 0u) << "the presence reader never looked up in bulk";
  expectWriterShrank(wrep);
  EXPECT_GT(wrep.slotGrows, 0u);
  EXPECT_GT(wrep.bucketGrows, 0u);
  uint64_t const raced = walking.retries + walking.lookasideReads + walking.resizesFollowed +
                         present.retries + present.lookasideReads + present.resizesFollowed;
  EXPECT_GT(raced, 0u) << "the run never raced: readers and writer did not overlap";
}

}  // namespace
}  // namespace FlowTrackingTest
