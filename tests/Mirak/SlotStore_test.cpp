// The slot store's rewrite as a reader in another process sees it: a writer
// process rewrites one slot of a real slot file over and over through the
// lookaside slot (stage, then the seqlock rewrite), and the reader, copying
// with SlotReaderTable::getValue from its own read-only mapping, must never
// take a torn value. Self-checking values: every field of a value derives
// from its count. The run ends at a deadline, and the counts of changes and
// lookaside reads the reader saw show that the race happened.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include <gtest/gtest.h>

#include "Mem/RootPath.h"
#include "Mirak/Counters.h"
#include "Mirak/SlotReader.h"
#include "Mirak/SlotStore.h"
#include "Mirak/SlotTable.h"
#include "Mirak/SlotWriter.h"
#include "Mirak/TempRoot.h"
#include "Mirak/TestPolicy.h"
#include "Mem/AttachResult.h"
#include "Parcel/KestorId.h"

namespace {

using MirakTest::TestOps;
using MirakTest::TestRecord;
using MirakTest::TestValue;
using Slots = Mirak::SlotWriterTable<TestValue>;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("SlotStoreTest");
}

TestValue valueOf(uint64_t count) {
  TestRecord r;
  r.key_.id = static_cast<uint32_t>(count * 2654435761u);
  r.key_.zone = static_cast<uint16_t>(count >> 3);
  r.count = count;
  r.flags = static_cast<uint32_t>(~count);
  return TestValue(r);
}

bool whole(TestValue const& v) {
  return v == valueOf(v.count);
}

// Shared between the two processes, outside the table's files: the reader's
// word to stop, and the writer's count of rewrites.
struct Control {
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> rewrites{0};
};

TEST(SlotStore, ARewriteThroughTheLookasideIsNeverSeenTornByAReaderProcess) {
  MirakTest::TempRoot root;
  Mem::NaoRootPath const path(handler(), "slotstore", false);
  path.createDirectories();
  Mirak::Writer::Counters writerCounters;
  uint32_t seed = 0;
  Slots::Config config;
  config.maxSlots = 16;
  config.fixedSize = true;
  config.valueTypeName = "TestRecord";
  Slots table(handler(), "slotstore", path.filePath("slots"), config, seed, writerCounters);
  ASSERT_EQ(table.attach(Parcel::KestorId(7, 0)), Mem::attachNew);

  // Slot 3 holds count 0, published as a new slot is (the value, then the
  // word): a free slot's word is 0, so it becomes 5.
  auto& slot = table.slots()[3];
  TestValue const first = valueOf(0);
  slot.rhash = 0x1234;
  std::memcpy(static_cast<void*>(&slot.value), &first, sizeof(TestValue));
  Mirak::SlotStore::occupy(slot.versionFlags);
  ASSERT_EQ(slot.versionFlags, 5u);

  void* shared =
      ::mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto* control = new (shared) Control;

  std::fflush(nullptr);
  pid_t const child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The writer: overwrite's order, as MirakWriter runs it.
    ::alarm(60);
    uint64_t count = 0;
    while (!control->stop.load(std::memory_order_acquire)) {
      TestValue const v = valueOf(++count);
      Mirak::SlotStore::stageLookaside(table.header(), slot.rhash, &v, sizeof(TestValue));
      Mirak::SlotStore::rewrite(slot.versionFlags, &slot.value, &v, sizeof(TestValue));
      control->rewrites.store(count, std::memory_order_release);
    }
    ::_exit(slot.versionFlags == 5u + 4u * count ? 0 : 1);
  }

  // The reader: its own mapping, read-only, through the reader's slot table.
  TestOps ops;
  Mirak::Reader::Counters readerCounters;
  Mirak::SlotReaderTable<TestOps> reader(handler(), "slotstore", path, ops, readerCounters);
  bool attached = reader.attach();
  if (attached) attached = reader.doResize();
  uint64_t reads = 0;
  uint64_t torn = 0;
  uint64_t changes = 0;
  uint64_t lastCount = 0;
  uint32_t lastWord = 5;
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  while (attached && std::chrono::steady_clock::now() < deadline &&
         (changes < 20000 || readerCounters.lookasideReads < 100)) {
    TestValue out;
    auto const read = reader.getValue(3, out);
    reads++;
    if (!whole(out) || read.rhash != 0x1234 || (read.word & Mirak::SlotTable::OCCUPIED) == 0) {
      torn++;
      continue;
    }
    // A word and a count only move forward, and together. Rewrite n raises
    // LOOKASIDE (word 4n + 3, the lookaside holds count n) and lowers it
    // (word 4n + 5, the slot holds count n): count = (word + 1) / 4 - 1,
    // whether the copy came from the slot or from the lookaside.
    if (out.count != (read.word + 1u) / 4u - 1u || read.word < lastWord || out.count < lastCount) {
      torn++;
      continue;
    }
    if (out.count != lastCount) changes++;
    lastCount = out.count;
    lastWord = read.word;
  }
  control->stop.store(true, std::memory_order_release);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(attached) << "the reader could not map the slot file";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "the writer's word did not move by 4 per rewrite, status " << status;
  std::printf("reads %lu, changes seen %lu, lookaside reads %lu, rewrites %lu\n",
              static_cast<unsigned long>(reads), static_cast<unsigned long>(changes),
              static_cast<unsigned long>(readerCounters.lookasideReads),
              static_cast<unsigned long>(control->rewrites.load()));
  EXPECT_EQ(torn, 0u);
  // The race happened: the reader saw the value change under it many times.
  EXPECT_GT(changes, 100u);
  ::munmap(shared, sizeof(Control));
}

}  // namespace
