// The reader on real files (its agreement with the writer's model over the
// seven tables is in TableValidator_test, its bulk lookup and damage that no
// resize explains in ReaderBulk_test): resizes are followed, attach follows
// the kestor file, version anchors see every change of a slot, and the
// mapping is read-only.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/ReaderTestUtil.h"
#include "Lomi/Thrown.h"
#include "Lomi/Util.h"
#include "Mirak/TempRoot.h"
#include "Mirak/Util.h"

namespace FlowTrackingTest {
namespace {

constexpr char kTable[] = "flowtracking/test/reader";

// ---------------------------------------------------------------------------
// One table type is enough for what follows.

using Record = HoIpFlowConfig;
using Value = TableValue<Record>;
using Writer = WriterOf<Record>;
using Reader = ReaderOf<Record>;

Value rowOf(uint32_t i, uint32_t v = 0) {
  return row<Record>(i, v);
}

// An empty table, and a table whose writer removed its files (the sentry
// then detaches the reader): both answer absence, the detached reader with the
// default value in the buffer, to single and bulk lookups, and a new reader
// cannot attach to the latter. Writes are refused throughout.
TEST(ReaderTest, EmptyAndRemovedTablesAnswerAbsence) {
  MirakTest::TempRoot root;
  auto writer = makeSharedWriter<Record>(kTable, sharedDescriptor(100));
  auto reader = makeReader<Record>(kTable);
  ASSERT_TRUE(reader->initialize("test"));
  EXPECT_EQ(reader->type(), Mirak::MirakType::reader);
  EXPECT_EQ(reader->mountStatus(), Mem::mountStatusMounted);
  Value removed;
  EXPECT_EQ(LomiTest::thrown<Lomi::NoPermissionException>([&] { reader->write(rowOf(1), true); }),
            "write to read-only Mirak table");
  EXPECT_EQ(LomiTest::thrown<Lomi::NoPermissionException>(
                [&] { reader->remove(rowOf(1).fwkKey(), removed); }),
            "remove to read-only Mirak table");
  Value v = rowOf(5);
  Mirak::IterHint hint;
  EXPECT_FALSE(reader->first(v, hint));
  EXPECT_TRUE(v == Value()) << "first on an empty table leaves the default value";
  bool found = true;
  EXPECT_EQ(reader->lookup(rowOf(1).fwkKey(), found, nullptr),
            &Mirak::Allocator<Value>::type_default());
  EXPECT_FALSE(found);

  writer->write(rowOf(1), true);
  reader->lookup(rowOf(1).fwkKey(), found, nullptr);
  ASSERT_TRUE(found);
  writer->cleanup();
  writer.reset();
  reader->detach(false);
  reader->detach(false);  // a second detach is harmless
  EXPECT_FALSE(reader->initialized());
  EXPECT_EQ(reader->mountStatus(), Mem::mountStatusNotMounted);
  Value buffer = rowOf(9);
  EXPECT_NE(reader->lookup(rowOf(1).fwkKey(), found, &buffer), nullptr);
  EXPECT_FALSE(found);
  EXPECT_TRUE(buffer == Value());
  EXPECT_FALSE(reader->first(v, hint));
  EXPECT_EQ(reader->capacity(), 0u);
  HoIpFlowKey const keys[2] = {rowOf(1).fwkKey(), rowOf(2).fwkKey()};
  Value values[2] = {rowOf(9), rowOf(9)};
  bool hits[2] = {true, true};
  EXPECT_EQ(reader->lookupBulk(keys, 2, values, hits), 0u);
  EXPECT_FALSE(hits[0] || hits[1]);
  EXPECT_TRUE(values[0] == Value() && values[1] == Value());
  EXPECT_FALSE(makeReader<Record>(kTable)->initialize("after cleanup"));
}

// The writer grows slots and buckets between two reads: the reader follows
// both, and a walk resumed with a hint from before the resize loses nothing.
TEST(ReaderTest, FollowsGrowthBetweenReads) {
  MirakTest::TempRoot root;
  auto writer = makeSharedWriter<Record>(kTable, sharedDescriptor(100000));
  auto reader = makeReader<Record>(kTable);
  ASSERT_TRUE(reader->initialize("test"));
  for (uint32_t i = 0; i < 10; i++) writer->write(rowOf(i), true);
  Value v;
  Mirak::IterHint hint;
  ASSERT_TRUE(reader->first(v, hint));
  std::set<uint32_t> seen;
  auto idOf = [](Value const& x) { return x.createTime() - 0.25; };
  seen.insert(static_cast<uint32_t>(idOf(v)));
  uint32_t const capacityBefore = reader->capacity();
  uint32_t const bucketsBefore = reader->buckets();
  for (uint32_t i = 10; i < 5000; i++) writer->write(rowOf(i), true);
  ASSERT_GT(writer->capacity(), capacityBefore);
  ASSERT_GT(writer->buckets(), bucketsBefore);
  Mirak::Reader::Counters const before = reader->readerCounters();
  while (reader->next(v.fwkKey(), v, hint)) seen.insert(static_cast<uint32_t>(idOf(v)));
  Mirak::Reader::Counters const after = reader->readerCounters();
  for (uint32_t i = 0; i < 10; i++)
    EXPECT_TRUE(seen.count(i)) << "an entry present throughout was lost: " << i;
  EXPECT_EQ(reader->capacity(), writer->capacity());
  EXPECT_EQ(reader->buckets(), writer->buckets());
  EXPECT_GT(after.slotResizes, before.slotResizes);
  EXPECT_GT(after.bucketResizes, before.bucketResizes);
  EXPECT_GT(after.resizesFollowed, before.resizesFollowed);
  EXPECT_GT(after.nextSlowPath, before.nextSlowPath) << "a retried next resumes from its key";
  for (uint32_t i = 0; i < 5000; i += 97) {
    bool found = false;
    reader->lookup(rowOf(i).fwkKey(), found, nullptr);
    EXPECT_TRUE(found) << i;
  }
}

// ---------------------------------------------------------------------------
// Attach.

TEST(ReaderTest, InitializeNeedsTheFilesAndTheKestorFile) {
  MirakTest::TempRoot root;
  auto early = makeReader<Record>(kTable);
  EXPECT_FALSE(early->initialize("no files"));
  EXPECT_FALSE(early->initialized());

  Writer writer(readerTestHandler(), kTable, sharedDescriptor(100), Writer::Ops(0));
  writer.initialize("test");
  // The files without their kestor file: the moment before a writer's start
  // ends.
  Parcel::KestorFile(readerTestHandler(), writer.rootPath(), false).remove();
  EXPECT_FALSE(early->initialize("no kestor file yet"));
  EXPECT_EQ(early->capacity(), 0u);

  Parcel::KestorFile(readerTestHandler(), writer.rootPath(), false).write(writer.kestorId());
  EXPECT_TRUE(early->initialize("kestor written"));
  EXPECT_TRUE(early->initialize("again")) << "initialize of an attached reader is a no-op";
  EXPECT_EQ(early->kestorId(), writer.kestorId());
}

// A writer in another process re-formats the table under the next
// generation. A reader that attaches between the re-format and the new kestor
// file (the last step of a writer's start; the child stops there) fails that
// attempt cleanly and leaves the marker; once the kestor file is written, the
// next attempt succeeds and reads the new table.
TEST(ReaderTest, AttachDuringAReformatFailsThenSucceeds) {
  MirakTest::TempRoot root;
  auto first = makeSharedWriter<Record>(kTable, sharedDescriptor(100));
  for (uint32_t i = 0; i < 10; i++) first->write(rowOf(i), true);
  Parcel::KestorId const oldId = first->kestorId();
  Parcel::KestorId const newId = oldId.reformatted();
  first.reset();

  RecordPipe toParent, toChild;
  pid_t child = forkChild([&]() -> int {
    Writer w(readerTestHandler(), kTable, sharedDescriptor(100), Writer::Ops(0));
    // The file steps of a start that re-formats: every file formats itself
    // under the new generation.
    w.attach(newId);
    w.write(rowOf(1000), true);
    uint32_t step = 1;
    toParent.send(step);
    if (!toChild.receive(step)) return 2;
    Parcel::KestorFile(readerTestHandler(), w.rootPath(), false).write(newId);
    toParent.send(step);
    if (!toChild.receive(step)) return 3;
    return 0;
  });
  ASSERT_GT(child, 0);
  uint32_t step = 0;
  ASSERT_TRUE(toParent.receive(step));
  std::string const marker = root.path() + "/" + kTable + "/" + Mirak::Util::CORRUPTION_FILENAME;
  std::filesystem::remove(marker);

  auto reader = makeReader<Record>(kTable);
  EXPECT_FALSE(reader->initialize("during re-format"));
  EXPECT_FALSE(reader->initialized());
  EXPECT_TRUE(reader->kestorId().isZero());
  EXPECT_TRUE(std::filesystem::exists(marker))
      << "a header that fails validation leaves the marker";

  toChild.send(step);
  ASSERT_TRUE(toParent.receive(step));
  EXPECT_TRUE(reader->initialize("after the new kestor file"));
  EXPECT_EQ(reader->kestorId(), newId);
  bool found = true;
  reader->lookup(rowOf(3).fwkKey(), found, nullptr);
  EXPECT_FALSE(found) << "rows of the old generation are gone";
  reader->lookup(rowOf(1000).fwkKey(), found, nullptr);
  EXPECT_TRUE(found);
  toChild.send(step);
  EXPECT_TRUE(exitedWith(reap(child), 0));
}

// ---------------------------------------------------------------------------
// Version anchors.

TEST(ReaderTest, VersionAnchorSeesOverwriteRemovalAndReuse) {
  MirakTest::TempRoot root;
  auto writer = makeSharedWriter<Record>(kTable, sharedDescriptor(100));
  for (uint32_t i = 0; i < 8; i++) writer->write(rowOf(i), true);
  auto reader = makeReader<Record>(kTable);
  ASSERT_TRUE(reader->initialize("test"));
  bool found = false;
  auto lookup = [&](uint32_t i) {
    reader->lookup(rowOf(i).fwkKey(), found, nullptr);
    ASSERT_TRUE(found);
    EXPECT_TRUE(reader->validateVersionAnchor());
  };

  lookup(2);
  writer->write(rowOf(3, 1), true);
  EXPECT_TRUE(reader->validateVersionAnchor()) << "another slot's change is not ours";
  writer->write(rowOf(2, 1), true);
  EXPECT_THROW(reader->validateVersionAnchor(), Mem::VersionMismatchException) << "overwrite";

  lookup(2);
  Value removed;
  ASSERT_TRUE(writer->remove(rowOf(2).fwkKey(), removed));
  EXPECT_THROW(reader->validateVersionAnchor(), Mem::VersionMismatchException) << "removal";

  lookup(4);
  Mem::CacheVersionAnchor const cached = reader->getCacheVersionAnchor();
  ASSERT_TRUE(writer->remove(rowOf(4).fwkKey(), removed));
  writer->write(rowOf(4000), true);  // takes the freed slot: the head of the free list
  bool const reused = (writer->lookup(rowOf(4000).fwkKey(), found, nullptr), found) &&
                      writer->getCacheVersionAnchor().offset == cached.offset;
  ASSERT_TRUE(reused) << "the test needs the slot to be re-used";
  EXPECT_THROW(reader->validateVersionAnchor(), Mem::VersionMismatchException) << "re-use";
  reader->lookup(rowOf(4000).fwkKey(), found, nullptr);
  EXPECT_EQ(reader->getCacheVersionAnchor().offset, cached.offset);
  EXPECT_NE(reader->getCacheVersionAnchor().word, cached.word);
}

TEST(ReaderDeathTest, VersionAnchorAfterAFailedLookupAsserts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  MirakTest::TempRoot root;
  auto writer = makeSharedWriter<Record>(kTable, sharedDescriptor(100));
  writer->write(rowOf(1), true);
  auto reader = makeReader<Record>(kTable);
  ASSERT_TRUE(reader->initialize("test"));
  bool found = true;
  reader->lookup(rowOf(2).fwkKey(), found, nullptr);
  ASSERT_FALSE(found);
  EXPECT_DEATH(reader->validateVersionAnchor(),
               "should not be called on a default-constructed VersionAnchor");
}

// ---------------------------------------------------------------------------
// Read-only mappings.

TEST(ReaderTest, AStoreThroughTheMappingFaults) {
  MirakTest::TempRoot root;
  auto writer = makeSharedWriter<Record>(kTable, sharedDescriptor(100));
  writer->write(rowOf(1), true);
  for (int file = 0; file < 2; file++) {
    pid_t child = forkChild([&]() -> int {
      auto reader = makeReader<Record>(kTable);
      if (!reader->initialize("test")) return 2;
      bool found = false;
      reader->lookup(rowOf(1).fwkKey(), found, nullptr);
      if (!found) return 3;
      void const* target =
          file == 0 ? static_cast<void const*>(reader->slotTable().header())
                    : static_cast<void const*>(reader->hashMap().bucketReader().header());
      // The store a buggy reader might do: it must fault, not land. The
      // default action, so that a sanitizer's handler does not turn the
      // fault into an ordinary exit.
      ::signal(SIGSEGV, SIG_DFL);
      *const_cast<volatile char*>(static_cast<char const volatile*>(target)) = 'X';
      return 0;
    });
    ASSERT_GT(child, 0);
    int const status = reap(child);
    EXPECT_TRUE(status >= 0 && WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV)
        << (file == 0 ? "slots" : "buckets") << " status " << status;
  }
  bool found = false;
  writer->lookup(rowOf(1).fwkKey(), found, nullptr);
  EXPECT_TRUE(found) << "the table is intact";
}

}  // namespace
}  // namespace FlowTrackingTest
