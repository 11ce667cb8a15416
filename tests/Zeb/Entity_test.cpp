// The entity tree (parentIs, handleParent, fullName) and the re-entrant
// dispatch of NotifieeList.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Lomi/Exception.h"
#include "Lomi/Thrown.h"
#include "Zeb/Entity.h"

namespace {

// Records every handleParent call; can be told to throw from it, as an
// adapter does when an entity gets a second parent.
struct Node : Zeb::Entity {
  static inline int destroyed = 0;
  std::vector<Zeb::Entity*> seen;  // the argument of each handleParent call
  bool failNext = false;
  explicit Node(char const* name) : Entity(name) {}
  ~Node() override { ++destroyed; }
  void handleParent(Zeb::Ptr<Zeb::Entity> const& parent) override {
    seen.push_back(parent.get());
    EXPECT_EQ(parent.get(), this->parent()) << "the parent is set before handleParent runs";
    if (failNext) {
      failNext = false;
      throw Lomi::InvalidInitializeException("Entity {} already initialized", name());
    }
  }
};

using NodePtr = Zeb::Ptr<Node>;

TEST(Entity, ParentIsLinksTheTreeAndCallsHandleParentOnce) {
  NodePtr root(new Node("root")), mid(new Node("mid")), leaf(new Node("leaf"));
  EXPECT_EQ(leaf->fullName(), Zeb::String("leaf"));
  mid->parentIs(root.get());
  leaf->parentIs(mid.get());
  EXPECT_EQ(leaf->parent(), mid.get());
  EXPECT_EQ(leaf->fullName(), Zeb::String("root/mid/leaf"));
  EXPECT_EQ(mid->fullName(), Zeb::String("root/mid"));
  EXPECT_EQ(root->children(), std::vector<Zeb::Entity*>{mid.get()});
  EXPECT_EQ(leaf->seen, std::vector<Zeb::Entity*>{mid.get()});
  EXPECT_TRUE(root->seen.empty());

  leaf->parentIs(mid.get());
  EXPECT_EQ(leaf->seen.size(), 1u) << "the same parent again changes nothing";

  leaf->parentIs(root.get());
  EXPECT_TRUE(mid->children().empty());
  EXPECT_EQ(root->children().size(), 2u);
  EXPECT_EQ(leaf->fullName(), Zeb::String("root/leaf"));

  leaf->parentIs(nullptr);
  EXPECT_EQ(leaf->seen, (std::vector<Zeb::Entity*>{mid.get(), root.get(), nullptr}));
  EXPECT_EQ(leaf->fullName(), Zeb::String("leaf"));
  EXPECT_EQ(root->children(), std::vector<Zeb::Entity*>{mid.get()});
  // Empty names still get their slash.
  NodePtr unnamed(new Node(""));
  leaf->parentIs(unnamed.get());
  EXPECT_EQ(leaf->fullName(), Zeb::String("/leaf"));
}

TEST(Entity, RefusesCyclesAndUncountedParentsAndChangesNothing) {
  NodePtr root(new Node("root")), mid(new Node("mid")), leaf(new Node("leaf"));
  mid->parentIs(root.get());
  leaf->parentIs(mid.get());
  EXPECT_EQ(LomiTest::thrown<Lomi::InvalidInitializeException>([&] { root->parentIs(leaf.get()); }),
            "cannot make root/mid/leaf the parent of root: it is that entity or one of its "
            "descendants");
  EXPECT_THROW(mid->parentIs(mid.get()), Lomi::InvalidInitializeException);
  EXPECT_EQ(root->parent(), nullptr);
  EXPECT_EQ(mid->parent(), root.get());
  EXPECT_TRUE(root->seen.empty());

  Node onStack("stack");
  EXPECT_EQ(LomiTest::thrown<Lomi::InvalidInitializeException>([&] { leaf->parentIs(&onStack); }),
            "cannot make stack the parent of root/mid/leaf: the parent is not held by a Ptr");
  EXPECT_EQ(leaf->parent(), mid.get());
  EXPECT_EQ(onStack.references(), 0u);
}

TEST(Entity, AThrowingHandleParentLeavesTheNewParentSet) {
  NodePtr a(new Node("a")), b(new Node("b")), child(new Node("child"));
  child->parentIs(a.get());
  child->failNext = true;
  EXPECT_EQ(LomiTest::thrown<Lomi::InvalidInitializeException>([&] { child->parentIs(b.get()); }),
            "Entity child already initialized");
  EXPECT_EQ(child->parent(), b.get());
  EXPECT_TRUE(a->children().empty());
  EXPECT_EQ(b->children(), std::vector<Zeb::Entity*>{child.get()});
}

TEST(Entity, DyingParentOrphansItsChildrenAndDyingChildLeavesItsParent) {
  Node::destroyed = 0;
  NodePtr parent(new Node("p")), c1(new Node("c1")), c2(new Node("c2")), c3(new Node("c3"));
  c1->parentIs(parent.get());
  c2->parentIs(parent.get());
  c3->parentIs(parent.get());
  c2.reset();
  EXPECT_EQ(Node::destroyed, 1);
  EXPECT_EQ(parent->children(), (std::vector<Zeb::Entity*>{c1.get(), c3.get()}));
  c3->failNext = true;  // an orphaning that throws must not stop the others
  parent.reset();
  EXPECT_EQ(Node::destroyed, 2);
  EXPECT_EQ(c1->parent(), nullptr);
  EXPECT_EQ(c3->parent(), nullptr);
  EXPECT_EQ(c1->seen.back(), nullptr);
  EXPECT_EQ(c3->seen.back(), nullptr);
  EXPECT_EQ(c1->fullName(), Zeb::String("c1"));
}

// ---------------------------------------------------------------------------
// NotifieeList

struct Call {
  int who;
  Zeb::AttributeId id;
  void const* key;
  bool operator==(Call const&) const = default;
};

// A notifiee that logs its calls and then runs an optional action.
struct Scripted : Zeb::PtrInterface::NotifieeConst {
  static inline int destroyed = 0;
  int who;
  int completedCalls = 0;
  std::vector<Call>* log;
  std::function<void(Scripted&, Zeb::AttributeId)> action;
  Scripted(int w, std::vector<Call>* l) : who(w), log(l) { hasNotificationActiveIs(true); }
  ~Scripted() override { ++destroyed; }
  void onAttribute(Zeb::AttributeId id, void const* key) override {
    log->push_back({who, id, key});
    if (action) action(*this, id);
    // Writes to the object after the action: if the action removed this
    // notifiee, it must still be alive here (ASan builds check it).
    ++completedCalls;
  }
};

using ScriptedPtr = Zeb::Ptr<Scripted>;

struct ListOwner : Zeb::Entity {
  static inline int destroyed = 0;
  mutable Zeb::NotifieeList list;
  ListOwner() : Entity("owner") {}
  ~ListOwner() override { ++destroyed; }
  Zeb::NotifieeListPtr notifieeList() const override { return list.listPtr(); }
};

class NotifieeListTest : public ::testing::Test {
 protected:
  void SetUp() override { Scripted::destroyed = 0; }
  ScriptedPtr add(int who) {
    ScriptedPtr n(new Scripted(who, &log));
    EXPECT_TRUE(owner->list.newMember(owner.get(), n.get()));
    return n;
  }
  std::vector<int> whoWasCalled() const {
    std::vector<int> out;
    for (auto const& c : log) out.push_back(c.who);
    return out;
  }
  Zeb::Ptr<ListOwner> owner{new ListOwner};
  std::vector<Call> log;
};

TEST_F(NotifieeListTest, VisitCallsActiveMembersInOrderWithIdAndKey) {
  auto a = add(1), b = add(2), c = add(3);
  b->hasNotificationActiveIs(false);
  EXPECT_FALSE(owner->list.newMember(owner.get(), a.get())) << "a member is added once";
  int key = 42;
  owner->list.visit(258, &key);
  owner->list.visit(259);
  EXPECT_EQ(log, (std::vector<Call>{
                     {1, 258, &key}, {3, 258, &key}, {1, 259, nullptr}, {3, 259, nullptr}}));
  EXPECT_EQ(owner->list.members(), 3u);
  EXPECT_EQ(owner->notifieeList().kind, 1u);
  EXPECT_EQ(owner->notifieeList().list, &owner->list);
}

TEST_F(NotifieeListTest, RejectsNullNotifieeAndForeignOwner) {
  auto a = add(1);
  EXPECT_THROW(owner->list.newMember(owner.get(), nullptr), Lomi::RuntimeException);
  Zeb::Ptr<ListOwner> other(new ListOwner);
  ScriptedPtr n(new Scripted(9, &log));
  EXPECT_THROW(owner->list.newMember(other.get(), n.get()), Lomi::RuntimeException);
  EXPECT_FALSE(owner->list.isMember(n.get()));
  EXPECT_FALSE(owner->list.deleteMember(n.get()));
  EXPECT_FALSE(owner->list.deleteMember(nullptr));
}

TEST_F(NotifieeListTest, MemberThatRemovesItselfIsCalledOnceAndDiesAfterItsCall) {
  auto a = add(1);
  auto b = add(2);
  auto c = add(3);
  b->action = [this](Scripted& self, Zeb::AttributeId) { owner->list.deleteMember(&self); };
  Scripted* rawB = b.get();
  b.reset();  // only the list holds it now
  owner->list.visit(258);
  EXPECT_EQ(whoWasCalled(), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(Scripted::destroyed, 1);
  EXPECT_FALSE(owner->list.isMember(rawB));
  owner->list.visit(258);
  EXPECT_EQ(whoWasCalled(), (std::vector<int>{1, 2, 3, 1, 3}));
  EXPECT_EQ(owner->list.members(), 2u);
}

TEST_F(NotifieeListTest, NestedVisitFromANotifieeSeesRemovalsOfTheInnerDispatch) {
  // Notifiee 1 reacts to 258 by changing the entity again (attribute 259),
  // as a notifiee that calls ...Is does; notifiee 2 leaves during the inner
  // dispatch, so the outer one must not call it.
  auto a = add(1), b = add(2), c = add(3);
  a->action = [&](Scripted&, Zeb::AttributeId id) {
    if (id == 258) owner->list.visit(259);
  };
  b->action = [&](Scripted& self, Zeb::AttributeId) { owner->list.deleteMember(&self); };
  owner->list.visit(258);
  std::vector<Call> expect{{1, 258, nullptr},
                           {1, 259, nullptr},
                           {2, 259, nullptr},
                           {3, 259, nullptr},
                           {3, 258, nullptr}};
  EXPECT_EQ(log, expect);
  EXPECT_EQ(owner->list.members(), 2u);
}

TEST_F(NotifieeListTest, DeleteAllDuringADispatchStopsIt) {
  auto a = add(1), b = add(2), c = add(3);
  b->action = [&](Scripted&, Zeb::AttributeId) { owner->list.deleteAll(); };
  a.reset();
  b.reset();
  c.reset();
  owner->list.visit(258);
  EXPECT_EQ(whoWasCalled(), (std::vector<int>{1, 2}));
  EXPECT_EQ(owner->list.members(), 0u);
  EXPECT_EQ(Scripted::destroyed, 3);
}

TEST_F(NotifieeListTest, ExceptionFromANotifieeEndsTheDispatchAndKeepsTheList) {
  auto a = add(1), b = add(2), c = add(3);
  a->action = [&](Scripted& self, Zeb::AttributeId id) {
    if (id == 258) owner->list.deleteMember(&self);
  };
  b->action = [](Scripted&, Zeb::AttributeId id) {
    if (id == 258) throw std::runtime_error("notifiee failed");
  };
  EXPECT_THROW(owner->list.visit(258), std::runtime_error);
  EXPECT_EQ(whoWasCalled(), (std::vector<int>{1, 2}));
  EXPECT_EQ(owner->list.members(), 2u);
  owner->list.visit(259);
  EXPECT_EQ(whoWasCalled(), (std::vector<int>{1, 2, 2, 3}));
}

TEST_F(NotifieeListTest, NotifieeMayDropTheOwnersLastReference) {
  ListOwner::destroyed = 0;
  auto a = add(1), b = add(2);
  Zeb::Ptr<ListOwner> theOnlyOne = std::move(owner);
  a->action = [&](Scripted&, Zeb::AttributeId) { theOnlyOne.reset(); };
  ListOwner* raw = theOnlyOne.get();
  raw->list.visit(258);
  EXPECT_EQ(whoWasCalled(), (std::vector<int>{1, 2})) << "the dispatch finished";
  EXPECT_EQ(ListOwner::destroyed, 1) << "and then the owner died";
}

// Random scripts of removals and additions inside dispatches, against the
// rule: a dispatch calls, in list order, exactly the members present when it
// began and not removed before their turn (so a member removed by another
// before its turn is skipped, and one added during a dispatch waits).
TEST_F(NotifieeListTest, RandomReentrantScriptsFollowTheDispatchRule) {
  for (uint32_t seed : {1u, 7u, 2024u, 99991u}) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::printf("NotifieeList random script seed %u\n", seed);
    std::mt19937 rng(seed);
    owner->list.deleteAll();
    log.clear();
    std::vector<ScriptedPtr> all;  // every notifiee made, by `who`
    std::vector<int> model;        // members in list order
    // (member, number of calls logged when it was removed)
    std::vector<std::pair<int, size_t>> removedThisRound;
    std::function<void()> makeMember;
    makeMember = [&]() {
      int who = static_cast<int>(all.size());
      all.push_back(add(who));
      model.push_back(who);
      all.back()->action = [&](Scripted& self, Zeb::AttributeId) {
        int dice = static_cast<int>(rng() % 4);
        if (dice == 0 && !model.empty()) {
          int victim = model[rng() % model.size()];
          EXPECT_TRUE(owner->list.deleteMember(all[victim].get()));
          std::erase(model, victim);
          removedThisRound.emplace_back(victim, log.size());
        } else if (dice == 1) {
          makeMember();
        } else if (dice == 2) {
          owner->list.deleteMember(&self);
          if (std::erase(model, self.who)) removedThisRound.emplace_back(self.who, log.size());
        }
      };
    };
    for (int i = 0; i < 6; ++i) makeMember();
    for (int round = 0; round < 40; ++round) {
      std::vector<int> atStart = model;
      removedThisRound.clear();
      log.clear();
      owner->list.visit(258);
      std::vector<int> called = whoWasCalled();
      auto removedAt = [&](int who) -> size_t {
        for (auto const& [w, at] : removedThisRound) {
          if (w == who) return at;
        }
        return SIZE_MAX;
      };
      // `called` must be `atStart` in order, less the members removed before
      // their turn.
      size_t next = 0;
      for (int who : atStart) {
        if (next < called.size() && called[next] == who) {
          EXPECT_GT(removedAt(who), next) << "member " << who << " was called after its removal";
          ++next;
        } else {
          EXPECT_NE(removedAt(who), SIZE_MAX)
              << "member " << who << " was skipped without being removed";
        }
      }
      EXPECT_EQ(next, called.size()) << "a member outside the start set was called";
      EXPECT_EQ(owner->list.members(), model.size());
      if (model.empty()) makeMember();
    }
  }
}

}  // namespace
