// Counted pointers and the reference count of PtrInterface: ownership,
// the zero-references protocol, allocation counters, threaded counting.
#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <thread>
#include <unordered_set>
#include <vector>

#include "Zeb/Entity.h"
#include "Zeb/Ptr.h"

namespace {

// A counted object of base `Base` that counts its destructions.
template <typename Base>
struct Probe : Base {
  static inline int destroyed = 0;
  int value = 0;
  Probe() : Base() {}
  ~Probe() override { ++destroyed; }
};

struct Unrelated : Zeb::PtrInterface {};

template <typename T>
class PtrTyped : public ::testing::Test {
 protected:
  void SetUp() override { T::destroyed = 0; }
};

using ProbeTypes = ::testing::Types<Probe<Zeb::PtrInterface>, Probe<Zeb::Entity>,
                                    Probe<Zeb::PtrInterface::NotifieeConst>>;
TYPED_TEST_SUITE(PtrTyped, ProbeTypes);

// Copies share one object, moves hand the reference over, self-assignment
// keeps it; it is deleted once, at its last reference.
TYPED_TEST(PtrTyped, CopiesMovesAndSelfAssignmentCountReferences) {
  using P = Zeb::Ptr<TypeParam>;
  auto* raw = new TypeParam;
  EXPECT_EQ(raw->references(), 0u);
  {
    P a(raw);
    P b = a;
    P c;
    c = b;
    EXPECT_EQ(raw->references(), 3u);
    EXPECT_TRUE(a == b && b.get() == raw && &*c == raw);
    c->value = 7;
    EXPECT_EQ(a->value, 7);
    b.reset();
    EXPECT_FALSE(b);
    EXPECT_EQ(raw->references(), 2u);
    P d(std::move(c));
    EXPECT_FALSE(c);  // NOLINT(bugprone-use-after-move): a moved-from Ptr is null
    EXPECT_EQ(raw->references(), 2u);
    b = std::move(d);
    EXPECT_EQ(raw->references(), 2u);
    P& alias = a;
    a = alias;
    a = std::move(alias);
    a = a.get();
    ASSERT_TRUE(a);
    EXPECT_EQ(raw->references(), 2u);
    b = nullptr;
    EXPECT_EQ(raw->references(), 1u);
    EXPECT_EQ(TypeParam::destroyed, 0);
  }
  EXPECT_EQ(TypeParam::destroyed, 1);
}

TYPED_TEST(PtrTyped, ComparesAndHashesByAddress) {
  using P = Zeb::Ptr<TypeParam>;
  P a(new TypeParam), b(new TypeParam), a2 = a, none;
  EXPECT_TRUE(a == a2);
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(none == nullptr);
  EXPECT_FALSE(a == nullptr);
  EXPECT_TRUE(a == a.get());
  EXPECT_EQ(a < b, a.get() < b.get());
  std::set<P> ordered{a, b, a2};
  EXPECT_EQ(ordered.size(), 2u);
  std::unordered_set<P> hashed{a, b, a2, none};
  EXPECT_EQ(hashed.size(), 3u);
  EXPECT_TRUE(hashed.count(a2));
}

TYPED_TEST(PtrTyped, ConvertsToBaseAndCastsBack) {
  Zeb::Ptr<TypeParam> d(new TypeParam);
  Zeb::Ptr<Zeb::PtrInterface> base = d;
  Zeb::Ptr<Zeb::PtrInterface const> constBase = base;
  EXPECT_EQ(d->references(), 3u);
  EXPECT_TRUE(base == d);
  auto back = Zeb::ptrDynamicCast<TypeParam>(base);
  EXPECT_EQ(back, d);
  auto wrong = Zeb::ptrDynamicCast<Unrelated>(base);
  EXPECT_FALSE(wrong);
  Zeb::Ptr<Zeb::PtrInterface> moved = std::move(d);
  EXPECT_FALSE(d);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(moved->references(), 4u);
  back.reset();
  moved.reset();
  base.reset();
  EXPECT_EQ(TypeParam::destroyed, 0);
  constBase.reset();
  EXPECT_EQ(TypeParam::destroyed, 1);
}

// A singly linked chain owned through Ptr: `head = head->next` releases the
// old head, whose destructor releases the Ptr that was the source of the
// assignment. The new reference must be taken first.
struct Node : Zeb::PtrInterface {
  static inline int destroyed = 0;
  int value;
  Zeb::Ptr<Node> next;
  explicit Node(int v, Zeb::Ptr<Node> n = nullptr) : value(v), next(std::move(n)) {}
  ~Node() override { ++destroyed; }
};

TEST(Ptr, AssigningFromInsideTheOldObjectIsSafe) {
  Node::destroyed = 0;
  Zeb::Ptr<Node> head;
  for (int i = 0; i < 5; ++i) head = new Node(i, head);
  for (int expect = 4; expect >= 0; --expect) {
    ASSERT_TRUE(head);
    EXPECT_EQ(head->value, expect);
    EXPECT_EQ(head->references(), 1u);
    head = head->next;
    EXPECT_EQ(Node::destroyed, 5 - expect);
  }
  EXPECT_FALSE(head);
}

// The owner is told of its last reference through its notifiees; a notifiee
// may keep it alive by handing a reference to a keeper.
struct Owner : Zeb::Entity {
  static inline int destroyed = 0;
  static inline std::vector<bool> zeroCalls;
  mutable Zeb::NotifieeList list;
  Owner() : Entity("owner") {}
  ~Owner() override { ++destroyed; }
  Zeb::NotifieeListPtr notifieeList() const override { return list.listPtr(); }
  void zeroReferencesIs(bool zero) override {
    zeroCalls.push_back(zero);
    Entity::zeroReferencesIs(zero);
  }
};

struct Keeper : Zeb::PtrInterface::NotifieeConst {
  Owner* owner;
  Zeb::Ptr<Owner>* keepIn;  // null: take a temporary reference only
  int calls = 0;
  Keeper(Owner* o, Zeb::Ptr<Owner>* k) : owner(o), keepIn(k) {}
  void onZeroReferences() override {
    ++calls;
    Zeb::Ptr<Owner> temporary(owner);
    if (keepIn) *keepIn = temporary;
    Zeb::NotifieeListPtr::deleteMember(owner->notifieeList(), owner, this);
  }
};

class ZeroReferences : public ::testing::TestWithParam<bool> {};

TEST_P(ZeroReferences, NotifieeRunsOnceAndMayKeepTheOwnerAlive) {
  bool const keep = GetParam();
  Owner::destroyed = 0;
  Owner::zeroCalls.clear();
  Zeb::Ptr<Owner> kept;
  Zeb::Ptr<Owner> owner(new Owner);
  Zeb::Ptr<Keeper> keeper(new Keeper(owner.get(), keep ? &kept : nullptr));
  keeper->hasNotificationActiveIs(true);
  owner->list.newMember(owner.get(), keeper.get());

  owner.reset();
  EXPECT_EQ(keeper->calls, 1);
  if (keep) {
    EXPECT_EQ(Owner::destroyed, 0);
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->references(), 1u);
    EXPECT_EQ(kept->list.members(), 0u);
    EXPECT_EQ(Owner::zeroCalls, (std::vector<bool>{true, false}));
    kept.reset();
    EXPECT_EQ(Owner::zeroCalls, (std::vector<bool>{true, false, true}));
    EXPECT_EQ(keeper->calls, 1) << "the notifiee left the list and is not told again";
  } else {
    EXPECT_EQ(Owner::zeroCalls, (std::vector<bool>{true}));
  }
  EXPECT_EQ(Owner::destroyed, 1);
  EXPECT_EQ(keeper->references(), 1u) << "the list's reference to the notifiee is gone";
}

INSTANTIATE_TEST_SUITE_P(KeepOrNot, ZeroReferences, ::testing::Bool(),
                         [](auto const& info) { return info.param ? "Kept" : "Temporary"; });

TEST(PtrInterface, InactiveNotifieeIsNotToldOfZeroReferences) {
  Owner::destroyed = 0;
  Zeb::Ptr<Owner> owner(new Owner);
  Zeb::Ptr<Keeper> keeper(new Keeper(owner.get(), nullptr));
  owner->list.newMember(owner.get(), keeper.get());
  owner.reset();
  EXPECT_EQ(keeper->calls, 0);
  EXPECT_EQ(Owner::destroyed, 1);
}

// Counted objects' memory is counted, per process and per tracked class.
struct Tracked : Zeb::PtrInterface {
  static Zeb::AllocTrackTypeInfo zebAllocTrackTypeInfo_;
  static void* operator new(size_t n) { return Zeb::trackedAlloc<Tracked>(n, 8); }
  static void operator delete(void* p, size_t n) { Zeb::trackedFree<Tracked>(p, n); }
  explicit Tracked(bool fail) {
    if (fail) throw std::runtime_error("constructor failed");
  }
  char payload[40] = {};
};
Zeb::AllocTrackTypeInfo Tracked::zebAllocTrackTypeInfo_;

TEST(AllocTracking, CountsLiveObjectsAndUndoesAFailedConstruction) {
  auto const total0 = Zeb::AllocTracking::totals().counts();
  auto const type0 = Tracked::zebAllocTrackTypeInfo_.counters.counts();
  {
    std::vector<Zeb::Ptr<Tracked>> held;
    for (int i = 0; i < 10; ++i) held.emplace_back(new Tracked(false));
    auto const type1 = Tracked::zebAllocTrackTypeInfo_.counters.counts();
    EXPECT_EQ(type1.objectsLive() - type0.objectsLive(), 10u);
    EXPECT_EQ(type1.bytesLive - type0.bytesLive, 10 * sizeof(Tracked));
    auto const total1 = Zeb::AllocTracking::totals().counts();
    EXPECT_EQ(total1.objectsLive() - total0.objectsLive(), 10u);
    EXPECT_EQ(Tracked::zebAllocTrackTypeInfo_.alignment.load(), 8u);
  }
  EXPECT_THROW((void)new Tracked(true), std::runtime_error);
  auto const type2 = Tracked::zebAllocTrackTypeInfo_.counters.counts();
  EXPECT_EQ(type2.allocations - type0.allocations, 11u);
  EXPECT_EQ(type2.objectsLive(), type0.objectsLive());
  EXPECT_EQ(type2.bytesLive, type0.bytesLive);
  auto const total2 = Zeb::AllocTracking::totals().counts();
  EXPECT_EQ(total2.objectsLive(), total0.objectsLive());
  EXPECT_EQ(total2.bytesLive, total0.bytesLive);
}

TEST(PtrInterface, ThreadSafeCountingLosesNoReference) {
  Zeb::VFPtrInterface::threadSafePointers_ = true;
  using Counted = Probe<Zeb::PtrInterface>;
  Counted::destroyed = 0;
  {
    Zeb::Ptr<Counted> shared(new Counted);
    constexpr int kRounds = 100000;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&shared] {
        for (int i = 0; i < kRounds; ++i) {
          Zeb::Ptr<Counted> copy = shared;
          Zeb::Ptr<Counted> moved = std::move(copy);
        }
      });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(shared->references(), 1u);
    EXPECT_EQ(Counted::destroyed, 0);
  }
  EXPECT_EQ(Counted::destroyed, 1);
  Zeb::VFPtrInterface::threadSafePointers_ = false;
}

TEST(PtrInterfaceDeathTest, DeletingAnObjectThatIsStillReferencedAsserts) {
  EXPECT_DEATH(
      {
        auto* raw = new Probe<Zeb::PtrInterface>;
        Zeb::Ptr<Probe<Zeb::PtrInterface>> held(raw);
        delete raw;
      },
      "still has 1 references");
}

}  // namespace
