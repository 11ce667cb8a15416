// The table files of each of the seven flow tables, read back as raw bytes:
// the header fields at their offsets, the slot and header sizes, the free
// list and the checksum recomputed from the bytes. Readers of any build read
// the files of any other: the static_asserts of SlotTable.h pin where the
// fields lie, this pins what a writer puts there (names, sizes, flags, the
// checksum's recipe), written out here independently of the code.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/TableRows.h"
#include "FlowTracking/TableWriters.h"
#include "Lomi/HashMix.h"
#include "Mirak/TempRoot.h"

namespace FlowTrackingTest {
namespace {

// A whole file, read with plain system calls: what any other process sees.
std::vector<unsigned char> readFile(std::string const& path) {
  std::vector<unsigned char> bytes;
  int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) return bytes;
  struct stat st;
  ::fstat(fd, &st);
  bytes.resize(st.st_size);
  size_t got = 0;
  while (got < bytes.size()) {
    ssize_t n = ::read(fd, bytes.data() + got, bytes.size() - got);
    if (n <= 0) break;
    got += n;
  }
  ::close(fd);
  return bytes;
}

template <typename T>
T at(std::vector<unsigned char> const& b, size_t offset) {
  T v;
  std::memcpy(&v, b.data() + offset, sizeof v);
  return v;
}

// Per table: the type name, the value size and the constant flags (2: a
// change queue). A slot is its 16-byte head and the value, in 8-byte units;
// the header takes 584 bytes plus one slot's worth.
struct Expected {
  char const* typeName;
  uint32_t valueSize;
  uint16_t constFlags;
  uint32_t slotSize() const { return (valueSize + 16 + 7) / 8 * 8; }
  uint32_t headerSize() const { return 584 + slotSize(); }
};

// The position of R in a type list.
template <typename R, typename... Ts>
constexpr size_t indexOf(::testing::Types<Ts...> const*) {
  size_t i = 0;
  (void)((std::is_same_v<R, Ts> || (++i, false)) || ...);
  return i;
}

// In the order of AllRecords.
template <typename Record>
Expected expected() {
  Expected const all[] = {
      {"FlowTracking::HoIpFlowConfig", 84, 2},  {"FlowTracking::HoIp6FlowConfig", 108, 2},
      {"FlowTracking::HoIpFlowStatus", 56, 2},  {"FlowTracking::HoIp6FlowStatus", 80, 2},
      {"FlowTracking::HoIpFlowCounter", 72, 0}, {"FlowTracking::HoIp6FlowCounter", 96, 0},
      {"FlowTracking::HosStateCounterEntry", 8, 0}};
  return all[indexOf<Record>(static_cast<AllRecords const*>(nullptr))];
}

template <typename Record>
class TableFilesTest : public ::testing::Test {
 protected:
  using Ops = typename OpsOf<Record>::type;
  using Writer = Mirak::MirakWriter<Ops>;

  std::unique_ptr<Writer> makeWriter(uint32_t size) {
    Mirak::MapDescriptor d(size);
    d.shrinkBuckets_ = true;
    auto w = std::make_unique<Writer>(Lomi::Platform::getDebugHandler("TableFilesTest"),
                                      "flowtracking/test", d, Ops(0));
    w->initialize("test");
    return w;
  }

  MirakTest::TempRoot root_;
};

TYPED_TEST_SUITE(TableFilesTest, AllRecords);

TYPED_TEST(TableFilesTest, TheBytesOnDiskAreTheFormat) {
  Expected const e = expected<TypeParam>();
  auto w = this->makeWriter(1000);
  uint32_t const rows = std::min<uint32_t>(keySpace<TypeParam>(), 300);
  for (uint32_t i = 0; i < rows; i++) w->write(row<TypeParam>(i, 1), true);
  // Free a few so that the free list holds slots from the middle.
  for (uint32_t i = 0; i < rows; i += 7) {
    typename TestFixture::Ops::Value removed;
    ASSERT_TRUE(w->remove(row<TypeParam>(i).key(), removed));
  }
  auto const b = readFile(w->rootPath().filePath("slots"));
  ASSERT_GE(b.size(), e.headerSize());

  EXPECT_EQ(std::string(reinterpret_cast<char const*>(b.data()), 8), "MIRAKSLT");
  EXPECT_EQ(at<uint32_t>(b, 8), 24u);
  EXPECT_EQ(at<uint32_t>(b, 12), w->kestorId().value());
  EXPECT_EQ(at<uint32_t>(b, 16), 1u);
  EXPECT_STREQ(reinterpret_cast<char const*>(b.data() + 20), e.typeName);
  EXPECT_EQ(at<uint32_t>(b, 532), e.valueSize);
  EXPECT_EQ(at<uint32_t>(b, 536), e.slotSize());
  EXPECT_EQ(at<uint32_t>(b, 540), 1000u);
  EXPECT_EQ(at<uint16_t>(b, 544), e.constFlags);
  EXPECT_EQ(at<uint16_t>(b, 546), 0) << "no critical section is open";
  uint32_t const occupied = at<uint32_t>(b, 552);
  uint32_t const capacity = at<uint32_t>(b, 572);
  EXPECT_EQ(occupied, w->members());
  EXPECT_EQ(capacity, w->capacity());
  EXPECT_GE(at<uint32_t>(b, 560), capacity) << "mostSlots";
  EXPECT_EQ(at<uint32_t>(b, 564), w->ops().hashSeed());
  EXPECT_GE(at<uint32_t>(b, 568), 1u) << "numSlots version moved with the grows";
  ASSERT_GE(b.size(), e.headerSize() + uint64_t(capacity) * e.slotSize());

  // The checksum, recomputed from the bytes.
  Lomi::Impl::HashMix<unsigned int> mix(0x811c9dc5u);
  mix.mix(b.data() + 20, 512);
  mix.mixFixedLen<4>(b.data() + 532);
  mix.mixFixedLen<4>(b.data() + 536);
  mix.mixFixedLen<4>(b.data() + 540);
  mix.mixFixedLen<2>(b.data() + 544);
  mix.mixFixedLen<4>(b.data() + 564);
  EXPECT_EQ(at<uint32_t>(b, 548), mix.value());

  // Slots: the free list threads exactly the unoccupied slots; each slot's
  // fields sit at 0, 4, 8, 12, 16; occupied slots hold their key's rhash.
  auto slot = [&](uint32_t i) { return e.headerSize() + uint64_t(i) * e.slotSize(); };
  std::set<uint32_t> onFreeList;
  for (uint32_t i = at<uint32_t>(b, 556); i != 0xffffffffu; i = at<uint32_t>(b, slot(i) + 4)) {
    ASSERT_LT(i, capacity);
    ASSERT_TRUE(onFreeList.insert(i).second) << "free list cycles at " << i;
    EXPECT_EQ(at<uint32_t>(b, slot(i) + 8) & 1u, 0u) << "free slot " << i << " is OCCUPIED";
    EXPECT_EQ(at<uint32_t>(b, slot(i)) % 4, 0u) << "link versions move by 4";
  }
  EXPECT_EQ(onFreeList.size(), capacity - occupied);
  for (uint32_t i = 0; i < capacity; i++) {
    if (onFreeList.count(i)) continue;
    uint32_t const flags = at<uint32_t>(b, slot(i) + 8);
    EXPECT_EQ(flags & 3u, 1u) << "slot " << i << ": OCCUPIED, not LOOKASIDE";
    typename TestFixture::Ops::Value v;
    std::memcpy(static_cast<void*>(&v), b.data() + slot(i) + 16, sizeof v);
    EXPECT_EQ(at<uint32_t>(b, slot(i) + 12), Lomi::Util::reverse(w->ops().hash(v.key())));
    bool found;
    EXPECT_TRUE(w->lookup(v.key(), found, nullptr) && found);
  }

  // Bucket file: numBuckets pair at 16, a power of two.
  auto const bk = readFile(w->rootPath().filePath("buckets"));
  ASSERT_GE(bk.size(), 24u);
  uint32_t const numBuckets = at<uint32_t>(bk, 20);
  EXPECT_EQ(numBuckets, w->buckets());
  EXPECT_EQ(numBuckets & (numBuckets - 1), 0u);
  ASSERT_GE(bk.size(), 24u + 8u * numBuckets);
}

}  // namespace
}  // namespace FlowTrackingTest
