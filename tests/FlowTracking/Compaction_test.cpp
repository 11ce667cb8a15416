// Slot compaction on the real table files of the seven flow tables, with
// real queues and real processes:
//   - every table shrinks when it empties, keeps its rows, passes validation
//     (queue rules and the corral included), and its slot file gives memory
//     back (st_blocks falls) while the file keeps its length;
//   - a reader process that still maps the older, longer file reads it whole
//     without a fault, finds zeros in the released tail, and then follows;
//   - a torture run: one writer process fills and empties a table with a
//     queue again and again with slot and bucket shrinking on, validating the
//     table after every shrink, while two reader processes look up and walk
//     without pause and check every value and every key that must be there;
//   - (disabled, a measurement) a HoIpFlowConfig table of 10^6 rows emptied
//     to 10^3: bytes allocated before and after, and the time of the shrink.
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/ReaderTestUtil.h"
#include "Lomi/Util.h"
#include "Mem/RootPath.h"
#include "Mirak/TempRoot.h"

namespace FlowTrackingTest {
namespace {

struct FileSpace {
  uint64_t length = 0;     // st_size
  uint64_t allocated = 0;  // st_blocks * 512
};

FileSpace spaceOf(std::string const& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return {};
  return FileSpace{static_cast<uint64_t>(st.st_size), static_cast<uint64_t>(st.st_blocks) * 512u};
}

template <typename W>
std::string slotFileOf(W const& w) {
  return w.rootPath().filePath("slots");
}

Mirak::MapDescriptor shrinkingDescriptor(uint32_t size, bool shrinkBuckets = false) {
  Mirak::MapDescriptor d = sharedDescriptor(size, shrinkBuckets);
  d.shrinkSlots = true;
  return d;
}

template <typename W>
void expectValid(W& w) {
  std::string error;
  EXPECT_TRUE(w.validate(w.kestorId(), error, false)) << error;
}

// With a real queue: the last shrink's corral is closed, and every entry
// inside it is a tombstone (its live notifications were re-issued after it).
template <typename W>
void expectClosedCorral(W const& w) {
  if constexpr (W::TesselWriter::hasQueue) {
    auto const& q = w.tesselWriter();
    EXPECT_EQ(q.shrinkMarker(), 0u);
    ASSERT_NE(q.corralStart(), 0u);
    ASSERT_GE(q.corralEnd(), q.corralStart());
    uint32_t inside = 0;
    for (uint32_t pos = 0; pos < q.entryCount(); pos++) {
      auto const n = q.entry(pos);
      if (n.sequence < q.corralStart() || n.sequence > q.corralEnd()) continue;
      inside++;
      EXPECT_EQ(n.slot, Tessel::tombstoneSlot) << "pos " << pos << " seq " << n.sequence;
    }
    EXPECT_GT(inside, 0u) << "the moves left no trace in the queue";
  }
}

// ---------------------------------------------------------------------------
// The seven tables.

template <typename Record>
class CompactionTables : public ::testing::Test {};
TYPED_TEST_SUITE(CompactionTables, AllRecords);

TYPED_TEST(CompactionTables, EmptyingTableShrinksKeepsRowsAndGivesMemoryBack) {
  using Record = TypeParam;
  MirakTest::TempRoot root;
  auto w = makeSharedWriter<Record>("flowtracking/test/compaction", shrinkingDescriptor(1u << 20));
  uint32_t const n = std::min<uint32_t>(keySpace<Record>(), 4096);
  uint32_t const keep = 3;
  for (uint32_t i = 0; i < n; i++) w->write(row<Record>(i, 1), true);
  uint32_t const peak = w->capacity();
  ASSERT_GE(peak, 2 * w->minSize()) << "the table never grew far enough to shrink";
  FileSpace const before = spaceOf(slotFileOf(*w));

  // Keep the rows of the highest slots: they have to move.
  for (uint32_t i = 0; i < n - keep; i++) {
    TableValue<Record> removed;
    ASSERT_TRUE(w->remove(row<Record>(i).fwkKey(), removed)) << i;
    EXPECT_EQ(removed, row<Record>(i, 1));
  }
  Mirak::Writer::Counters const c = w->writerCounters();
  FileSpace const after = spaceOf(slotFileOf(*w));
  std::printf(
      "capacity %u -> %u, shrinks %llu, moved %llu, slot file %llu bytes, allocated %llu -> %llu\n",
      peak, w->capacity(), (unsigned long long)c.slotShrinks, (unsigned long long)c.slotsMoved,
      (unsigned long long)after.length, (unsigned long long)before.allocated,
      (unsigned long long)after.allocated);
  EXPECT_EQ(w->capacity(), w->minSize());
  EXPECT_GT(c.slotShrinks, 0u);
  EXPECT_EQ(c.slotsMoved > 0, true);
  EXPECT_EQ(after.length, before.length) << "the slot file must never be shortened";
  EXPECT_LT(after.allocated, before.allocated) << "the released tail still holds memory";
  EXPECT_EQ(w->members(), keep);
  for (uint32_t i = n - keep; i < n; i++) {
    bool found = false;
    EXPECT_EQ(*w->lookup(row<Record>(i).fwkKey(), found, nullptr), row<Record>(i, 1));
    EXPECT_TRUE(found);
  }
  expectValid(*w);
  expectClosedCorral(*w);
  // A table that shrank grows again, and the rows written then are sound.
  for (uint32_t i = 0; i < n - keep; i++) w->write(row<Record>(i, 2), true);
  EXPECT_EQ(w->capacity(), peak);
  expectValid(*w);
}

// ---------------------------------------------------------------------------
// A reader on the older mapping.

using ConfigRecord = HoIpFlowConfig;

struct OldMappingReport {
  uint64_t mappedBefore = 0;
  uint64_t tailBytes = 0;
  uint64_t tailNonZero = 0;
  uint64_t checksum = 0;
  uint64_t keptFound = 0;
  uint64_t removedFound = 0;
  uint64_t capacityAfter = 0;
  uint64_t resizesFollowed = 0;
};

TEST(CompactionFiles, AReaderOnTheOlderMappingNeverFaultsAndThenFollows) {
  MirakTest::TempRoot root;
  constexpr char kName[] = "flowtracking/test/oldmapping";
  constexpr uint32_t kRows = 20000;
  constexpr uint32_t kKeep = 100;
  auto w = makeSharedWriter<ConfigRecord>(kName, shrinkingDescriptor(1u << 20));
  for (uint32_t i = 0; i < kRows; i++) w->write(row<ConfigRecord>(i, 1), true);
  uint32_t const peak = w->capacity();
  FileSpace const before = spaceOf(slotFileOf(*w));

  RecordPipe up, down;
  pid_t reader = forkChild([&]() -> int {
    auto r = makeReader<ConfigRecord>(kName);
    if (!r->initialize("old mapping")) return 2;
    bool found = false;
    r->lookup(row<ConfigRecord>(0).fwkKey(), found, nullptr);
    if (!found) return 3;
    OldMappingReport rep;
    rep.mappedBefore = r->slotTable().mapping().fileSize();
    up.send(rep);
    uint32_t token = 0;
    if (!down.receive(token)) return 4;
    // The writer has shrunk the file; this process still maps all of it and
    // reads every byte, the released tail included.
    auto const* bytes = static_cast<unsigned char const*>(r->slotTable().mapping().base());
    uint64_t const keptBytes = token;
    for (uint64_t i = 0; i < rep.mappedBefore; i++) {
      unsigned char const b = *static_cast<unsigned char const volatile*>(bytes + i);
      rep.checksum += b;
      if (i >= keptBytes) {
        rep.tailBytes++;
        if (b != 0) rep.tailNonZero++;
      }
    }
    // Now the reader follows the shrink.
    for (uint32_t i = 0; i < kRows; i++) {
      TableValue<ConfigRecord> buffer;
      r->lookup(row<ConfigRecord>(i).fwkKey(), found, &buffer);
      if (!found) continue;
      if (i >= kRows - kKeep && buffer == row<ConfigRecord>(i, 1)) {
        rep.keptFound++;
      } else {
        rep.removedFound++;
      }
    }
    rep.capacityAfter = r->capacity();
    rep.resizesFollowed = r->readerCounters().resizesFollowed;
    up.send(rep);
    return 0;
  });
  ASSERT_GT(reader, 0);
  OldMappingReport rep;
  ASSERT_TRUE(up.receive(rep)) << "the reader did not attach";
  EXPECT_GE(rep.mappedBefore, spaceOf(slotFileOf(*w)).length - 4096);

  for (uint32_t i = 0; i < kRows - kKeep; i++) {
    TableValue<ConfigRecord> removed;
    ASSERT_TRUE(w->remove(row<ConfigRecord>(i).fwkKey(), removed));
  }
  ASSERT_LT(w->capacity(), peak);
  FileSpace const after = spaceOf(slotFileOf(*w));
  EXPECT_EQ(after.length, before.length);
  EXPECT_LT(after.allocated, before.allocated / 8);
  // Whole pages past the writer's mapping were given back.
  uint64_t const page = Lomi::Util::pageSize();
  uint32_t const keptBytes =
      static_cast<uint32_t>((w->slotTable().usedBytes() + page - 1) / page * page);
  down.send(keptBytes);

  ASSERT_TRUE(up.receive(rep)) << "the reader did not finish";
  int const status = reap(reader);
  EXPECT_TRUE(exitedWith(status, 0))
      << "reader status " << status << (WIFSIGNALED(status) ? " (killed by a signal)" : "");
  std::printf("reader mapped %llu bytes, tail %llu bytes (%llu non-zero); allocated %llu -> %llu\n",
              (unsigned long long)rep.mappedBefore, (unsigned long long)rep.tailBytes,
              (unsigned long long)rep.tailNonZero, (unsigned long long)before.allocated,
              (unsigned long long)after.allocated);
  EXPECT_GT(rep.tailBytes, 0u);
  EXPECT_EQ(rep.tailNonZero, 0u) << "the released tail does not read as zeros";
  EXPECT_EQ(rep.keptFound, kKeep);
  EXPECT_EQ(rep.removedFound, 0u);
  EXPECT_EQ(rep.capacityAfter, w->capacity());
  EXPECT_GT(rep.resizesFollowed, 0u);
}

// ---------------------------------------------------------------------------
// Torture: fill and empty, with compaction, under readers.

using TortureRecord = HoIpFlowStatus;
using TortureValue = TableValue<TortureRecord>;
using TortureKey = TortureRecord::Key;

constexpr char kTortureTable[] = "flowtracking/test/compaction-torture";
constexpr uint32_t kPinned = 64;
constexpr uint32_t kIdSpace = 20000;
constexpr uint32_t kFirstFill = 3000;  // before the pinned keys, so they sit high
constexpr uint32_t kHigh = 6000;
constexpr uint32_t kLow = 40;

double tortureSeconds(double fallback) {
  char const* s = std::getenv("FLOWTABLES_TORTURE_SECONDS");
  double const v = s ? std::atof(s) : 0.0;
  return v > 0 ? v : fallback;
}

TortureKey tortureKey(uint32_t id) {
  return TortureKey(ipFlowKey(id), intf(id));
}

// Pinned ids are [0, kPinned); the rest live and die.
uint32_t idOf(TortureKey const& k) {
  return k.ipFlowKey().srcAddr().value() - 0x0a000000u;
}

// updateTime is a checksum of the key and the other fields, so a torn value
// shows. Both times hold whole numbers below 2^52: exact in a double.
double checksumOf(TortureKey const& k, uint64_t created, HoFlowState state) {
  uint64_t h = uint64_t(k.hash(0x5eed)) * 0x9e3779b97f4a7c15ull;
  h ^= created * 0xc2b2ae3d27d4eb4full;
  h ^= uint64_t(state) << 41;
  h ^= h >> 29;
  return static_cast<double>(h & ((uint64_t(1) << 52) - 1));
}

TortureValue tortureValue(uint32_t id, uint64_t r) {
  TortureRecord v(tortureKey(id));
  uint64_t const created = r & ((uint64_t(1) << 40) - 1);
  HoFlowState const state = HoFlowState(1 + (r >> 40) % 5);
  v.hoFlowStateIs(state);
  v.createTimeIs(static_cast<double>(created));
  v.updateTimeIs(checksumOf(v.key(), created, state));
  return v;
}

bool intact(TortureValue const& v) {
  return v.updateTime() ==
         checksumOf(v.key(), static_cast<uint64_t>(v.createTime()), v.hoFlowState());
}

// Presence of each id, shared by all processes: even = absent or changing,
// odd = present. The writer makes it even before it removes an id and odd
// after it inserted one, so a reader that sees the same odd word before and
// after a lookup knows that the key was in the table throughout.
class Presence {
 public:
  Presence() {
    void* p = ::mmap(nullptr, kIdSpace * sizeof(uint32_t), PROT_READ | PROT_WRITE,
                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    words_ = p == MAP_FAILED ? nullptr : static_cast<uint32_t*>(p);
  }
  ~Presence() {
    if (words_) ::munmap(words_, kIdSpace * sizeof(uint32_t));
  }
  bool ok() const { return words_ != nullptr; }
  uint32_t load(uint32_t id) const {
    return std::atomic_ref<uint32_t>(words_[id]).load(std::memory_order_acquire);
  }
  void step(uint32_t id) {
    std::atomic_ref<uint32_t> w(words_[id]);
    w.store(w.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  }

 private:
  uint32_t* words_ = nullptr;
};

struct TortureWriterReport {
  uint64_t ops = 0;
  uint64_t cycles = 0;
  uint64_t slotGrows = 0;
  uint64_t slotShrinks = 0;
  uint64_t slotsMoved = 0;
  uint64_t bucketShrinks = 0;
  uint64_t superShrinks = 0;
  uint64_t validations = 0;
  uint64_t validationFailures = 0;
  uint64_t notHalfEmpty = 0;
  char firstError[256] = {};
};

struct TortureReaderReport {
  uint64_t reads = 0;
  uint64_t mustFind = 0;
  uint64_t walks = 0;
  uint64_t retries = 0;
  uint64_t lookasideReads = 0;
  uint64_t resizesFollowed = 0;
  uint64_t torn = 0;
  uint64_t wrongKey = 0;
  uint64_t missing = 0;
  uint64_t walkBadPinned = 0;
  uint64_t walkDisorder = 0;
  uint64_t exceptions = 0;
  char lastError[256] = {};
};

template <size_t N>
void note(char (&buffer)[N], std::string const& text) {
  std::snprintf(buffer, N, "%s", text.c_str());
}

using TortureWriter = WriterOf<TortureRecord>;
using TortureReader = ReaderOf<TortureRecord>;

// Writes the first fill and the pinned keys; returns the live non-pinned ids.
std::vector<uint32_t> startTorture(TortureWriter& w, Presence& presence, std::mt19937_64& rng,
                                   std::vector<int32_t>& where) {
  std::vector<uint32_t> live;
  while (live.size() < kFirstFill) {
    uint32_t const id = kPinned + static_cast<uint32_t>(rng() % (kIdSpace - kPinned));
    if (where[id] >= 0) continue;
    w.write(tortureValue(id, rng()), true);
    presence.step(id);
    where[id] = static_cast<int32_t>(live.size());
    live.push_back(id);
  }
  for (uint32_t id = 0; id < kPinned; id++) {
    w.write(tortureValue(id, rng()), true);
    presence.step(id);
  }
  return live;
}

template <typename Stop>
TortureWriterReport runTortureWriter(TortureWriter& w, Presence& presence, std::mt19937_64& rng,
                                     std::vector<uint32_t> live, std::vector<int32_t> where,
                                     Stop stop) {
  TortureWriterReport rep;
  bool growing = false;  // the first fill is in: empty it first, moving the pinned keys
  uint64_t shrinks = w.writerCounters().slotShrinks;
  for (;;) {
    if ((rep.ops & 255) == 0 && stop()) break;
    rep.ops++;
    uint64_t const r = rng() % 100;
    if (r < 30) {
      w.write(tortureValue(static_cast<uint32_t>(rng() % kPinned), rng()), true);
    } else if (r < 45 && !live.empty()) {
      w.write(tortureValue(live[rng() % live.size()], rng()), true);
    } else if (growing) {
      uint32_t const id = kPinned + static_cast<uint32_t>(rng() % (kIdSpace - kPinned));
      w.write(tortureValue(id, rng()), true);
      if (where[id] < 0) {
        presence.step(id);
        where[id] = static_cast<int32_t>(live.size());
        live.push_back(id);
      }
      if (live.size() >= kHigh) growing = false;
    } else if (!live.empty()) {
      size_t const at = rng() % live.size();
      uint32_t const id = live[at];
      uint32_t const capacityBefore = w.capacity();
      uint32_t const thresholdBefore = w.slotTable().currentShrinkThreshold();
      presence.step(id);
      TortureValue removed;
      w.remove(tortureKey(id), removed);
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
        if (w.capacity() < thresholdBefore) rep.superShrinks++;
        if (2 * w.members() > w.capacity() || w.capacity() >= capacityBefore) rep.notHalfEmpty++;
        std::string error;
        rep.validations++;
        if (!w.validate(w.kestorId(), error, false)) {
          if (rep.validationFailures++ == 0) note(rep.firstError, error);
        }
      }
    }
  }
  Mirak::Writer::Counters const c = w.writerCounters();
  rep.slotGrows = c.slotGrows;
  rep.slotShrinks = c.slotShrinks;
  rep.slotsMoved = c.slotsMoved;
  rep.bucketShrinks = c.bucketShrinks;
  return rep;
}

void tortureWalk(TortureReader& reader, TortureReaderReport& rep) {
  std::vector<uint8_t> pinnedSeen(kPinned, 0);
  TortureValue v;
  Mirak::IterHint hint;
  auto const& ops = reader.ops();
  bool havePrev = false;
  std::pair<uint32_t, TortureKey> prev{};
  rep.walks++;
  for (bool ok = reader.first(v, hint); ok; ok = reader.next(v.fwkKey(), v, hint)) {
    if (!intact(v)) {
      rep.torn++;
      note(rep.lastError, "torn value in a walk");
    }
    std::pair<uint32_t, TortureKey> const order{Lomi::Util::reverse(ops.hash(v.fwkKey())),
                                                v.fwkKey()};
    if (havePrev && !(prev < order)) {
      rep.walkDisorder++;
      note(rep.lastError, "walk order did not increase");
    }
    prev = order;
    havePrev = true;
    uint32_t const id = idOf(v.fwkKey());
    if (id < kPinned) pinnedSeen[id]++;
  }
  for (uint32_t i = 0; i < kPinned; i++) {
    if (pinnedSeen[i] != 1) {
      rep.walkBadPinned++;
      note(rep.lastError, fmt::format("pinned key {} seen {} times in a walk", i, pinnedSeen[i]));
    }
  }
}

template <typename Stop>
TortureReaderReport runTortureReader(TortureReader& reader, Presence const& presence, uint32_t seed,
                                     Stop stop) {
  TortureReaderReport rep;
  std::mt19937 rng(seed);
  uint64_t n = 0;
  while (!stop()) {
    try {
      for (int i = 0; i < 256; i++, n++) {
        if (n % 4096 == 4095) {
          tortureWalk(reader, rep);
          continue;
        }
        bool const pinned = rng() % 4 == 0;
        uint32_t const id = pinned ? rng() % kPinned : kPinned + rng() % (kIdSpace - kPinned);
        TortureKey const key = tortureKey(id);
        uint32_t const before = presence.load(id);
        TortureValue buffer;
        bool found = false;
        TortureValue const* p = reader.lookup(key, found, &buffer);
        std::atomic_thread_fence(std::memory_order_acquire);
        uint32_t const after = presence.load(id);
        rep.reads++;
        bool const mustFind = (before & 1) && before == after;
        if (mustFind) rep.mustFind++;
        if (!found) {
          if (mustFind || pinned) {
            rep.missing++;
            note(rep.lastError, fmt::format("key {} reported absent (presence {})", id, before));
          }
          continue;
        }
        if (!intact(*p)) {
          rep.torn++;
          note(rep.lastError, fmt::format("torn value of key {}", id));
        }
        if (!(p->fwkKey() == key)) rep.wrongKey++;
      }
    } catch (std::exception const& e) {
      rep.exceptions++;
      note(rep.lastError, e.what());
    }
  }
  Mirak::Reader::Counters const c = reader.readerCounters();
  rep.retries = c.retries;
  rep.lookasideReads = c.lookasideReads;
  rep.resizesFollowed = c.resizesFollowed;
  return rep;
}

TEST(CompactionTorture, ProcessesFillAndEmptyUnderTwoReaders) {
  MirakTest::TempRoot root;
  double const seconds = tortureSeconds(3.0);
  uint32_t const seed = 8080;
  std::printf("compaction torture: %.1f s, seed %u\n", seconds, seed);
  Presence presence;
  ASSERT_TRUE(presence.ok());
  RecordPipe writerUp, writerDown, readersUp, stopPipe;

  pid_t writer = forkChild([&]() -> int {
    auto w = makeSharedWriter<TortureRecord>(kTortureTable, shrinkingDescriptor(1u << 20, true));
    std::mt19937_64 rng(seed);
    std::vector<int32_t> where(kIdSpace, -1);
    std::vector<uint32_t> live = startTorture(*w, presence, rng, where);
    uint32_t token = 1;
    writerUp.send(token);
    if (!writerDown.receive(token)) return 2;
    auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    TortureWriterReport const rep =
        runTortureWriter(*w, presence, rng, std::move(live), std::move(where),
                         [&] { return std::chrono::steady_clock::now() >= end; });
    writerUp.send(rep);
    writerDown.receive(token);
    return 0;
  });
  ASSERT_GT(writer, 0);
  uint32_t token = 0;
  ASSERT_TRUE(writerUp.receive(token)) << "writer did not start";

  std::vector<pid_t> readers;
  for (uint32_t r = 0; r < 2; r++) {
    pid_t pid = forkChild([&, r]() -> int {
      auto reader = makeReader<TortureRecord>(kTortureTable);
      if (!reader->initialize("compaction torture")) return 2;
      uint32_t ready = 1;
      readersUp.send(ready);
      TortureReaderReport const rep =
          runTortureReader(*reader, presence, seed + 1 + r, [&] { return stopPipe.readable(); });
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
  TortureWriterReport wrep;
  ASSERT_TRUE(writerUp.receive(wrep, kDeadlineMs + static_cast<int>(seconds * 1000)));
  uint8_t stop = 1;
  stopPipe.send(stop);
  std::vector<TortureReaderReport> reports(readers.size());
  for (auto& rep : reports) ASSERT_TRUE(readersUp.receive(rep));
  writerDown.send(token);

  std::printf(
      "writer: ops %llu cycles %llu slotGrows %llu slotShrinks %llu (super %llu) moved %llu "
      "bucketShrinks %llu validations %llu failures %llu %s\n",
      (unsigned long long)wrep.ops, (unsigned long long)wrep.cycles,
      (unsigned long long)wrep.slotGrows, (unsigned long long)wrep.slotShrinks,
      (unsigned long long)wrep.superShrinks, (unsigned long long)wrep.slotsMoved,
      (unsigned long long)wrep.bucketShrinks, (unsigned long long)wrep.validations,
      (unsigned long long)wrep.validationFailures, wrep.firstError);
  EXPECT_GT(wrep.cycles, 0u);
  EXPECT_GT(wrep.slotShrinks, 0u);
  EXPECT_GT(wrep.slotsMoved, 0u);
  EXPECT_EQ(wrep.validations, wrep.slotShrinks);
  EXPECT_EQ(wrep.validationFailures, 0u) << wrep.firstError;
  EXPECT_EQ(wrep.notHalfEmpty, 0u) << "a shrink left the table more than half full";
  uint64_t raced = 0;
  for (size_t i = 0; i < reports.size(); i++) {
    TortureReaderReport const& r = reports[i];
    std::printf(
        "reader %zu: reads %llu (must find %llu) walks %llu retries %llu lookasideReads %llu "
        "resizesFollowed %llu | torn %llu wrongKey %llu missing %llu walkBadPinned %llu "
        "walkDisorder %llu exceptions %llu %s\n",
        i, (unsigned long long)r.reads, (unsigned long long)r.mustFind, (unsigned long long)r.walks,
        (unsigned long long)r.retries, (unsigned long long)r.lookasideReads,
        (unsigned long long)r.resizesFollowed, (unsigned long long)r.torn,
        (unsigned long long)r.wrongKey, (unsigned long long)r.missing,
        (unsigned long long)r.walkBadPinned, (unsigned long long)r.walkDisorder,
        (unsigned long long)r.exceptions, r.lastError);
    EXPECT_GT(r.reads, 0u);
    EXPECT_GT(r.mustFind, 0u);
    EXPECT_GT(r.walks, 0u);
    EXPECT_EQ(r.torn, 0u);
    EXPECT_EQ(r.wrongKey, 0u);
    EXPECT_EQ(r.missing, 0u);
    EXPECT_EQ(r.walkBadPinned, 0u);
    EXPECT_EQ(r.walkDisorder, 0u);
    EXPECT_EQ(r.exceptions, 0u) << r.lastError;
    raced += r.retries + r.resizesFollowed;
  }
  EXPECT_GT(raced, 0u) << "the run never raced: readers and writer did not overlap";
  for (pid_t pid : readers) EXPECT_TRUE(exitedWith(reap(pid), 0));
  EXPECT_TRUE(exitedWith(reap(writer), 0));
}

// ---------------------------------------------------------------------------
// Measurement (run with --gtest_also_run_disabled_tests): a HoIpFlowConfig
// table of 10^6 rows on /dev/shm, emptied to 10^3 rows, then shrunk in one
// step; and the same emptying with a shrink at every threshold on the way.

class ShmRoot {
 public:
  ShmRoot() {
    char tmpl[] = "/dev/shm/flowtables-measure-XXXXXX";
    char* dir = ::mkdtemp(tmpl);
    path_ = dir ? dir : "/dev/shm";
    previous_ = Mem::RootPath::base();
    Mem::RootPath::baseIs(path_);
  }
  ~ShmRoot() {
    Mem::RootPath::baseIs(previous_);
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }

 private:
  std::string path_;
  std::string previous_;
};

double msSince(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t).count();
}

TEST(CompactionMeasure, DISABLED_MillionRowsEmptiedToAThousand) {
  constexpr uint32_t kRows = 1000000;
  constexpr uint32_t kKeep = 1000;
  for (bool oneStep : {true, false}) {
    ShmRoot root;
    auto w = makeSharedWriter<ConfigRecord>("flowtracking/measure/config",
                                            shrinkingDescriptor(1u << 20));
    auto t = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < kRows; i++) w->write(row<ConfigRecord>(i, 1), true);
    double const fillMs = msSince(t);
    uint32_t const peak = w->capacity();
    FileSpace const full = spaceOf(slotFileOf(*w));
    // The rows kept are the last written: they lie at the top and all move.
    if (oneStep) w->tesselWriter().markShrinkStart();
    t = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < kRows - kKeep; i++) {
      TableValue<ConfigRecord> removed;
      ASSERT_TRUE(w->remove(row<ConfigRecord>(i).fwkKey(), removed));
    }
    double const removeMs = msSince(t);
    FileSpace const emptied = spaceOf(slotFileOf(*w));
    double shrinkMs = 0;
    if (oneStep) {
      w->tesselWriter().markShrinkEnd();
      t = std::chrono::steady_clock::now();
      w->shrink();
      shrinkMs = msSince(t);
    }
    FileSpace const shrunk = spaceOf(slotFileOf(*w));
    Mirak::Writer::Counters const c = w->writerCounters();
    std::printf(
        "%s: %u rows, capacity %u; fill %.0f ms; removes to %u rows %.0f ms%s; shrink %.2f ms "
        "(capacity %u, %llu shrinks, %llu moved)\n"
        "  slot file length %llu; allocated full %llu, emptied %llu, after shrink %llu bytes\n",
        oneStep ? "one shrink after emptying" : "shrinks on the way", kRows, peak, fillMs, kKeep,
        removeMs, oneStep ? " (shrinks held)" : " (shrinks included)", shrinkMs, w->capacity(),
        (unsigned long long)c.slotShrinks, (unsigned long long)c.slotsMoved,
        (unsigned long long)shrunk.length, (unsigned long long)full.allocated,
        (unsigned long long)emptied.allocated, (unsigned long long)shrunk.allocated);
    EXPECT_LT(shrunk.allocated, full.allocated / 100);
    EXPECT_EQ(w->members(), kKeep);
    expectValid(*w);
  }
}

}  // namespace
}  // namespace FlowTrackingTest
