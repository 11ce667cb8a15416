// The hot path of a grown table allocates nothing: write (insert and
// overwrite), remove and lookup, with traces off. Counted by replacing the
// global allocation functions of this test program.
#include <atomic>
#include <cstdlib>
#include <new>

#include <gtest/gtest.h>

#include "FlowTracking/TableRows.h"
#include "FlowTracking/TableWriters.h"
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

}  // namespace
}  // namespace FlowTrackingTest
