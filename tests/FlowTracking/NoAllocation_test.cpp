// The hot path of a grown table allocates nothing: write (insert and
// overwrite), remove and lookup, with traces off; and a synchronised
// shadow's, of each mode: doSlot over changed slots and lookup. Counted by replacing the
// global allocation functions of this test program.
#include <atomic>
#include <cstdlib>
#include <new>

#include <gtest/gtest.h>

#include "FlowTracking/TableRows.h"
#include "FlowTracking/TableWriters.h"
#include "Lomi/EventLoop.h"
#include "Mirak/MirakShadow.h"
#include "Mirak/TempRoot.h"

namespace {
std::atomic<uint64_t> allocations{0};
}

// The replacements pair malloc with free themselves; g++'s -O3 check of
// new/delete pairs cannot see that through the replacement.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t size) {
  return operator new(size);
}
// The nothrow forms too (std::stable_sort's buffer is one): a sanitizer's own
// would hand out blocks that the replaced delete then frees with free().
void* operator new(size_t size, std::nothrow_t const&) noexcept {
  allocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size ? size : 1);
}
void* operator new[](size_t size, std::nothrow_t const& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* p, std::nothrow_t const&) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::nothrow_t const&) noexcept {
  std::free(p);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
  std::free(p);
}
#pragma GCC diagnostic pop

namespace FlowTrackingTest {
namespace {

template <typename Record>
class NoAllocationTest : public ::testing::Test {};
TYPED_TEST_SUITE(NoAllocationTest, AllRecords);

TYPED_TEST(NoAllocationTest, HotPathOfAGrownTableAllocatesNothing) {
  using Ops = typename OpsOf<TypeParam>::type;
  MirakTest::TempRoot root;
  Mirak::MapDescriptor d(4096);
  Mirak::MirakWriter<Ops> w(Lomi::Platform::getDebugHandler("NoAllocationTest"),
                            "flowtracking/noalloc", d, Ops(0));
  w.initialize("test");
  uint32_t const n = std::min<uint32_t>(keySpace<TypeParam>(), 3000);
  // Grow the table first: growth may allocate (remaps, bucket files).
  for (uint32_t i = 0; i < n; i++) w.write(row<TypeParam>(i, 0), true);
  typename Ops::Value removed;
  for (uint32_t i = 0; i < n; i += 2) w.remove(row<TypeParam>(i).key(), removed);

  uint64_t const before = allocations.load();
  for (uint32_t round = 1; round < 4; round++) {
    for (uint32_t i = 0; i < n; i++) w.write(row<TypeParam>(i, round), true);  // insert + overwrite
    for (uint32_t i = 0; i < n; i++) {
      bool found;
      w.lookup(row<TypeParam>(i).key(), found, nullptr);
      ASSERT_TRUE(found);
    }
    for (uint32_t i = 0; i < n; i += 2) w.remove(row<TypeParam>(i).key(), removed);
  }
  EXPECT_EQ(allocations.load() - before, 0u);
  EXPECT_GT(w.writerCounters().inserts, 3u * n / 2) << "the rounds did insert";
}

// The front object a shadow reports to; it counts what it hears.
template <typename Ops>
class ShadowOwner : public Mirak::MirakMap<Ops> {
 public:
  explicit ShadowOwner(std::string name) : Mirak::MirakMap<Ops>(Ops(0)) {
    this->name_ = std::move(name);
    this->notify_.changeFn = [this](typename Ops::Value const&) { ++changes; };
    this->notify_.keyFn = [this](typename Ops::Key const&) { ++changes; };
  }
  uint64_t changes = 0;
};

template <typename Record>
class ShadowNoAllocationTest : public ::testing::Test {};
using QueueRecords =
    ::testing::Types<HoIpFlowConfig, HoIp6FlowConfig, HoIpFlowStatus, HoIp6FlowStatus>;
TYPED_TEST_SUITE(ShadowNoAllocationTest, QueueRecords);

TYPED_TEST(ShadowNoAllocationTest, DoSlotAndLookupOfASynchronisedShadowAllocateNothing) {
  using Ops = typename OpsOf<TypeParam>::type;
  MirakTest::TempRoot root;
  auto& handler = Lomi::Platform::getDebugHandler("NoAllocationTest");
  char const* const name = "flowtracking/noalloc";
  Mirak::MapDescriptor d(4096);
  Mirak::MirakWriter<Ops> w(handler, name, d, Ops(0));
  ASSERT_TRUE(w.initialize("test"));
  uint32_t const n = std::min<uint32_t>(keySpace<TypeParam>(), 3000);
  for (uint32_t i = 0; i < n; i++) w.write(row<TypeParam>(i, 0), true);
  for (uint32_t flags : {0u, Mirak::shadowFlagKeyOnly}) {
    ShadowOwner<Ops> owner(name);
    Mirak::MirakShadow<Ops> shadow(handler, name, Ops(0), &owner, flags);
    ASSERT_TRUE(shadow.initialize("test"));
    // The first sweep sizes the copy, and the writer accepts the shadow's
    // connection (and drops the last one's) on its loop. Both may allocate.
    shadow.syncer().forceSyncCompletion();
    ASSERT_EQ(shadow.mountStatus(), Mem::mountStatusSynchronized);
    ASSERT_TRUE(
        Mem::RootPath::eventLoop().runUntil([&] { return w.writerCounters().readers == 1; }, 10));
    for (uint32_t i = 0; i < n; i++) w.write(row<TypeParam>(i, 9), true);
    owner.changes = 0;

    uint64_t const before = allocations.load();
    for (uint32_t round = 1; round < 4; round++) {
      for (uint32_t i = 0; i < n; i++) w.write(row<TypeParam>(i, round), true);
      for (uint32_t slot = 0; slot < w.capacity(); slot++) {
        ASSERT_TRUE(shadow.doSlot(slot, Tessel::noSequence, true));
      }
      for (uint32_t i = 0; i < n; i++) {
        bool found = false;
        typename Ops::Value out;
        auto const* v = shadow.lookup(row<TypeParam>(i).key(), found, &out);
        ASSERT_TRUE(found && *v == row<TypeParam>(i, round)) << i;
      }
    }
    EXPECT_EQ(allocations.load() - before, 0u) << "shadow flags " << flags;
    EXPECT_EQ(owner.changes, 3u * n) << "each round changed every row once";
  }
}

}  // namespace
}  // namespace FlowTrackingTest
