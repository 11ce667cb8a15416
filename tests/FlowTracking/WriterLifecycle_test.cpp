// A writer's start, restart and crash behaviour, with real processes on real
// files: salvaging after a kill with a stuck LOOKASIDE bit, a table of
// damaged files each salvaged or re-formatted for its own reason (the kill
// points inside each operation are Salvage_test.cpp's), a second writer refused
// while the owner lives, cleanup with a damaged owner file, and the stale
// corruption marker. (Adoption after a clean exit: TableValidator_test's
// restart; after a kill outside a critical section: the harness's crash mode.)
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/ReaderTestUtil.h"
#include "FlowTracking/TableRows.h"
#include "FlowTracking/TableWriters.h"
#include "Lomi/Thrown.h"
#include "Lomi/Trace.h"
#include "Mirak/StartOutcome.h"
#include "Mirak/TempRoot.h"
#include "Mirak/Util.h"
#include "Parcel/KestorFile.h"
#include "Parcel/OwnerFile.h"
#include "stress/Stress.h"

namespace FlowTrackingTest {
namespace {

using Writer = HoIpFlowConfigWriter;
using Value = Writer::Value;
using Slot = Mirak::SlotTable::Slot<Value>;
constexpr char kTable[] = "flowtracking/lifecycle";

// The harness's handler and its capture of the lines traced at levels 0 and
// 1: a writer's start says there whether it adopted and why it did not.
Lomi::Platform::DebugHandler& handler() {
  return readerTestHandler();
}
using Stress::TraceCapture;

Mirak::MapDescriptor descriptor() {
  Mirak::MapDescriptor d(1000);
  d.shrinkBuckets_ = true;
  return d;
}

std::unique_ptr<Writer> startWriter() {
  auto w = std::make_unique<Writer>(handler(), kTable, descriptor(), HoIpFlowConfigOps(0));
  w->initialize("test");
  return w;
}

// What a writer process reports of its table before it dies.
struct TableFacts {
  uint32_t kestor = 0;
  uint32_t hashSeed = 0;
  uint32_t mostSlots = 0;
  uint32_t members = 0;
  uint64_t scratchpad = 0;
};

TableFacts factsOf(Writer const& w) {
  return TableFacts{w.kestorId().value(), w.ops().hashSeed(), w.slotTable().header()->mostSlots,
                    w.members(), w.scratchpad()};
}

// The rows the child writes: 0..599 with version 1, then 100..199 removed,
// then 0..49 overwritten with version 2.
void writeWorkload(Writer& w) {
  for (uint32_t i = 0; i < 600; i++) w.write(row<HoIpFlowConfig>(i, 1), true);
  Value removed;
  for (uint32_t i = 100; i < 200; i++) w.remove(row<HoIpFlowConfig>(i).key(), removed);
  for (uint32_t i = 0; i < 50; i++) w.write(row<HoIpFlowConfig>(i, 2), true);
  w.scratchpadIs(0xfeedface12345678ull);
}

void expectWorkload(Writer const& w) {
  for (uint32_t i = 0; i < 600; i++) {
    bool found;
    Value const* v = w.lookup(row<HoIpFlowConfig>(i).key(), found, nullptr);
    bool const removed = i >= 100 && i < 200;
    ASSERT_EQ(found, !removed) << "row " << i;
    if (found) {
      EXPECT_EQ(*v, row<HoIpFlowConfig>(i, i < 50 ? 2 : 1)) << "row " << i;
    }
  }
}

// A child writes the workload, reports its facts, then either exits through
// its destructor or waits to be killed.
TableFacts runChildWriter(bool waitForKill, std::function<void(Writer&)> last = {}) {
  RecordPipe facts, hold;
  pid_t pid = forkChild([&]() -> int {
    auto w = startWriter();
    writeWorkload(*w);
    if (last) last(*w);
    facts.send(factsOf(*w));
    if (waitForKill) {
      char c;
      hold.receive(c, 60000);
      return 3;
    }
    return 0;
  });
  TableFacts f;
  EXPECT_TRUE(facts.receive(f)) << "the child reported nothing";
  if (waitForKill) ::kill(pid, SIGKILL);
  int const status = reap(pid);
  if (waitForKill) {
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  } else {
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  return f;
}

// ---------------------------------------------------------------------------
// Crashes that leave the table half-changed.

void expectReformatted(TableFacts const& before, TraceCapture const& trace, Writer const& w,
                       std::string const& reason) {
  Parcel::KestorId const old(before.kestor);
  EXPECT_EQ(w.kestorId().high(), static_cast<uint16_t>(old.high() + 1)) << trace.all();
  EXPECT_EQ(w.kestorId().low(), old.low());
  EXPECT_EQ(w.members(), 0u);
  EXPECT_TRUE(trace.contains(reason)) << "wanted \"" << reason << "\" in:\n" << trace.all();
  EXPECT_TRUE(trace.contains("will be lost"));
  EXPECT_EQ(w.startOutcome().kind, Mirak::StartOutcome::Kind::reformatted);
  EXPECT_EQ(Parcel::KestorFile(handler(), w.rootPath(), false).read(), w.kestorId());
}

// Refused for `reason`, but every record of the slot file was read and
// carried into a new generation; `dropped` of them were not whole.
void expectSalvaged(TableFacts const& before, TraceCapture const& trace, Writer const& w,
                    std::string const& reason, uint32_t dropped) {
  Parcel::KestorId const old(before.kestor);
  Mirak::StartOutcome const& o = w.startOutcome();
  EXPECT_EQ(o.kind, Mirak::StartOutcome::Kind::salvaged) << o.toString();
  EXPECT_EQ(w.kestorId().high(), static_cast<uint16_t>(old.high() + 1)) << trace.all();
  EXPECT_EQ(w.kestorId().low(), old.low());
  EXPECT_EQ(w.members(), before.members - dropped);
  EXPECT_EQ(o.rows, w.members());
  EXPECT_EQ(o.dropped(), dropped) << o.toString();
  EXPECT_TRUE(trace.contains(reason)) << "wanted \"" << reason << "\" in:\n" << trace.all();
  EXPECT_TRUE(trace.contains("salvaged")) << trace.all();
  EXPECT_FALSE(trace.contains("will be lost")) << trace.all();
  EXPECT_EQ(Parcel::KestorFile(handler(), w.rootPath(), false).read(), w.kestorId());
}

// A kill inside a critical section (an open directWrite) is the harness's
// crash mode, stress.crash, and the damage row CriticalBitLeftSet below.
TEST(CrashTest, AStuckLookasideBitWithoutItsStagedValueLosesOnlyThatRow) {
  MirakTest::TempRoot root;
  uint32_t word = 0;
  RecordPipe wordPipe;
  // The child dies between the two stores of an overwrite's version word:
  // LOOKASIDE up, the critical bit already cleared by an earlier path, and
  // the lookaside holding another row's value: no whole value of row 7 is
  // known, so it alone stays behind.
  TableFacts const before = runChildWriter(true, [&](Writer& w) {
    bool found;
    w.lookup(row<HoIpFlowConfig>(7).key(), found, nullptr);
    auto const& anchor = w.slotTable().versionAnchor();
    auto* flags = reinterpret_cast<uint32_t*>(static_cast<char*>(const_cast<void*>(anchor.base)) +
                                              anchor.offset);
    *flags += 2;
    wordPipe.send(*flags);
  });
  ASSERT_TRUE(wordPipe.receive(word));
  TraceCapture trace;
  auto w = startWriter();
  expectSalvaged(before, trace, *w, fmt::format("stuck LOOKASIDE bit: {:#x}", word), 1);
  EXPECT_EQ(w->startOutcome().torn, 1u);
  EXPECT_TRUE(w->validate());
  bool found = true;
  w->lookup(row<HoIpFlowConfig>(7).key(), found, nullptr);
  EXPECT_FALSE(found);
}

// ---------------------------------------------------------------------------
// Damaged files, one way per row: validation (or the attach of the files)
// fails with its reason and the writer re-formats; it never adopts.

// The slot file mapped read-write by the test, as a damaging agent would.
class SlotFile {
 public:
  explicit SlotFile(std::string const& path) {
    fd_ = ::open(path.c_str(), O_RDWR);
    struct stat st;
    ::fstat(fd_, &st);
    size_ = st.st_size;
    base_ = static_cast<char*>(::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0));
  }
  ~SlotFile() {
    ::munmap(base_, size_);
    ::close(fd_);
  }
  Mirak::SlotTable::Header& header() { return *reinterpret_cast<Mirak::SlotTable::Header*>(base_); }
  Slot& slot(uint32_t i) {
    return reinterpret_cast<Slot*>(base_ + Mirak::SlotGeometry<Value>::headerSize)[i];
  }
  uint32_t capacity() { return header().numSlots.value; }
  // An occupied slot whose chain goes on to another slot, and that one.
  std::pair<uint32_t, uint32_t> linkedPair() {
    for (uint32_t i = 0; i < capacity(); i++) {
      if ((slot(i).versionFlags & 1) && !Mirak::SlotLink::isEndOfChain(slot(i).link.next)) {
        return {i, slot(i).link.next};
      }
    }
    return {0, 0};
  }

 private:
  int fd_;
  size_t size_;
  char* base_;
};

struct Damage {
  char const* name;
  // Damages the files; returns the reason the next start must give.
  std::function<std::string(std::string const& dir)> apply;
  // The slot file's header still reads, so its records are carried over.
  bool salvaged = true;
};

std::vector<Damage> damages() {
  return {
      {"SlotOnNeitherChainNorFreeList",
       [](std::string const& dir) {
         SlotFile f(dir + "/slots");
         auto [a, b] = f.linkedPair();
         f.slot(a).link.next = f.slot(b).link.next;  // b is cut out, still OCCUPIED
         uint32_t const occupied = f.header().occupiedSlots;
         return fmt::format("mismatch header->occupiedSlots:{} count:{}", occupied, occupied - 1);
       }},
      {"SlotOnTwoChains",
       [](std::string const& dir) {
         SlotFile f(dir + "/slots");
         // The free-list head points into a chain: a chained slot is then on
         // the free list too.
         auto [a, b] = f.linkedPair();
         (void)a;
         uint32_t const head = f.header().freeSlots;
         f.slot(head).link.next = b;
         return fmt::format("corrupted free slot not marked as empty: {}", b);
       }},
      {"FreeListLoop",
       [](std::string const& dir) {
         SlotFile f(dir + "/slots");
         uint32_t const head = f.header().freeSlots;
         f.slot(head).link.next = head;
         return fmt::format("duplicate freeSlot detected: {}", head);
       }},
      {"ChainLoop",
       [](std::string const& dir) {
         SlotFile f(dir + "/slots");
         auto [a, b] = f.linkedPair();
         f.slot(b).link.next = a;
         return fmt::format("duplicate slot: {}", a);
       }},
      {"WrongOccupiedSlots",
       [](std::string const& dir) {
         SlotFile f(dir + "/slots");
         uint32_t const occupied = f.header().occupiedSlots;
         f.header().occupiedSlots += 1;
         return fmt::format("mismatch header->occupiedSlots:{} count:{}", occupied + 1, occupied);
       }},
      {"BadChecksum",
       [](std::string const& dir) {
         SlotFile f(dir + "/slots");
         f.header().valueType[500] ^= 0x40;  // behind the terminator, still covered
         return std::string("checksum fail");
       },
       false},
      {"WrongKestorInTheSlotFile",
       [](std::string const& dir) {
         SlotFile f(dir + "/slots");
         f.header().kestor ^= 0x10000;
         return std::string("failed to attach to existing files");
       },
       false},
      {"MissingBucketFile",
       [](std::string const& dir) {
         std::filesystem::remove(dir + "/buckets");
         return std::string("failed to attach to existing files");
       }},
      {"CriticalBitLeftSet",
       [](std::string const& dir) {
         SlotFile f(dir + "/slots");
         f.header().runtimeFlags = 1;
         return std::string("bad critical section runtimeFlags:1");
       }},
  };
}

class DamagedFilesTest : public ::testing::TestWithParam<Damage> {};

TEST_P(DamagedFilesTest, AreSalvagedOrReformattedNeverAdopted) {
  MirakTest::TempRoot root;
  TableFacts const before = runChildWriter(false);
  std::string const dir = root.path() + "/" + kTable;
  std::string const reason = GetParam().apply(dir);
  TraceCapture trace;
  auto w = startWriter();
  if (GetParam().salvaged) {
    // Each damage is in the chains, the free list or the counters; the
    // records themselves are whole.
    expectSalvaged(before, trace, *w, reason, 0);
    expectWorkload(*w);
  } else {
    expectReformatted(before, trace, *w, reason);
  }
  EXPECT_TRUE(w->validate());
  uint32_t const members = w->members();
  w->write(row<HoIpFlowConfig>(1000, 9), true);
  EXPECT_EQ(w->members(), members + 1);
}

INSTANTIATE_TEST_SUITE_P(OneWayPerRow, DamagedFilesTest, ::testing::ValuesIn(damages()),
                         [](auto const& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Ownership.

// A second writer is refused while the owner lives, and its failed start
// leaves a stale corruption marker in place; once the owner is dead, a start
// adopts the owner's table and removes the marker.
TEST(OwnershipTest, ASecondWriterIsRefusedWhileTheOwnerLivesAndKeepsTheMarker) {
  MirakTest::TempRoot root;
  std::string const marker = root.path() + "/" + kTable + "/" + Mirak::Util::CORRUPTION_FILENAME;
  Mem::NaoRootPath const path(handler(), kTable, false);
  RecordPipe ready, hold;
  pid_t pid = forkChild([&]() -> int {
    auto w = startWriter();
    w->write(row<HoIpFlowConfig>(1, 1), true);
    char c = 1;
    ready.send(c);
    hold.receive(c, 60000);
    return 0;
  });
  char c;
  ASSERT_TRUE(ready.receive(c));
  ASSERT_TRUE(Mirak::Util::writeCorruptionFile(handler(), path, "a reader saw damage"));
  std::string const msg =
      LomiTest::thrown<Lomi::InvalidInitializeException>([&] { startWriter(); });
  EXPECT_NE(msg.find(kTable), std::string::npos) << msg;
  EXPECT_NE(msg.find(fmt::format("pid {}", pid)), std::string::npos) << msg;
  EXPECT_TRUE(std::filesystem::exists(marker)) << "removed by a start that failed";
  ::kill(pid, SIGKILL);
  reap(pid);
  auto w = startWriter();
  bool found;
  w->lookup(row<HoIpFlowConfig>(1).key(), found, nullptr);
  EXPECT_TRUE(found) << "the dead owner's table is adopted";
  EXPECT_FALSE(std::filesystem::exists(marker)) << "kept after a successful start";
}

TEST(OwnershipTest, CleanupRemovesEveryFileEvenWithADamagedOwnerFile) {
  MirakTest::TempRoot root;
  runChildWriter(false);
  std::string const dir = root.path() + "/" + kTable;
  {
    int fd = ::open((dir + "/owner").c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    char junk[16] = "garbage garbage";
    ASSERT_EQ(::pwrite(fd, junk, sizeof junk, 0), ssize_t(sizeof junk));
    ::close(fd);
  }
  Writer w(handler(), kTable, descriptor(), HoIpFlowConfigOps(0));
  w.cleanup();
  std::vector<std::string> left;
  for (auto const& e : std::filesystem::directory_iterator(dir))
    left.push_back(e.path().filename());
  EXPECT_TRUE(left.empty()) << "left: " << ::testing::PrintToString(left);
}

TEST(OwnershipTest, DetachClearsTheOwnerRecordAndLeavesTheFiles) {
  MirakTest::TempRoot root;
  auto w = startWriter();
  w->write(row<HoIpFlowConfig>(1, 1), true);
  Parcel::OwnerFile owner(handler(), w->rootPath(), false);
  EXPECT_EQ(owner.record()->writerPid, ::getpid());
  w->detach(false);
  EXPECT_EQ(owner.record()->writerPid, 0) << "detach left this process as the owner";
  EXPECT_TRUE(std::filesystem::exists(root.path() + "/" + kTable + "/slots"));
  w->detach(false);  // twice is harmless
}

}  // namespace
}  // namespace FlowTrackingTest
