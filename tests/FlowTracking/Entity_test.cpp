// The four flow table entities through their public operations, one typed
// body over all eight collections: statistics cells, the attribute ids their
// notifiees see, DelAll, controls, private tables before and after a parent,
// orphans, corrupt back ends and the zero-references hand-over.
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "FlowTracking/Factories.h"
#include "FlowTracking/TableRows.h"
#include "Lomi/Thrown.h"
#include "Mirak/ScriptedBackEnd.h"
#include "Thrum/Thrum.h"

namespace {

using namespace FlowTracking;
using FlowTrackingTest::row;
using ControlPtr = Zeb::Ptr<ZebMirak::CollectionControl>;

// `sibling` is the entity's other collection.
#define COLLECTION_TRAITS(Traits, E, R, coll, sibling, factoryFn, attributeId)            \
  struct Traits {                                                                         \
    using Entity = E;                                                                     \
    using Record = R;                                                                     \
    using Key = R::Key;                                                                   \
    static constexpr Zeb::AttributeId id = attributeId;                                   \
    static constexpr char const* name = #coll;                                            \
    static Zeb::Ptr<E> make(Zeb::String const& n) { return factoryFn(n); }                \
    static auto& map(E& e) { return e.coll(); }                                           \
    static void is(E& e, R const& v) { e.coll##Is(v); }                                   \
    static R del(E& e, Key const& k) { return e.coll##Del(k); }                           \
    static void delAll(E& e) { e.coll##DelAll(); }                                        \
    static void commit(E& e, R const* v) { e.coll##Commit(v); }                           \
    static void notify(E& e, Key const& k) { e.coll##Notify(k); }                         \
    static void notifyQuiesced(E& e, bool q) { e.coll##NotifyQuiesced(q); }               \
    static void controlIs(E& e, ControlPtr const& c) { e.coll##ControlIs(c); }            \
    static ControlPtr const& control(E& e) { return e.coll##Control(); }                  \
    static ZebMirak::CollectionControl* controlRaw(E& e) { return e.coll##ControlRaw(); } \
    static ControlPtr const& siblingControl(E& e) { return e.sibling##Control(); }        \
  }

COLLECTION_TRAITS(ConfigIp, HoFlowConfig, HoIpFlowConfig, hoIpFlowConfig, hoIp6FlowConfig,
                  hoFlowConfigFactory, 258);
COLLECTION_TRAITS(ConfigIp6, HoFlowConfig, HoIp6FlowConfig, hoIp6FlowConfig, hoIpFlowConfig,
                  hoFlowConfigFactory, 260);
COLLECTION_TRAITS(StatusIp, HoFlowStatus, HoIpFlowStatus, hoIpFlowStatus, hoIp6FlowStatus,
                  hoFlowStatusFactory, 258);
COLLECTION_TRAITS(StatusIp6, HoFlowStatus, HoIp6FlowStatus, hoIp6FlowStatus, hoIpFlowStatus,
                  hoFlowStatusFactory, 260);
COLLECTION_TRAITS(CounterIp, HoFlowCounter, HoIpFlowCounter, hoIpFlowCounter, hoIp6FlowCounter,
                  hoFlowCounterFactory, 258);
COLLECTION_TRAITS(CounterIp6, HoFlowCounter, HoIp6FlowCounter, hoIp6FlowCounter, hoIpFlowCounter,
                  hoFlowCounterFactory, 260);
COLLECTION_TRAITS(HosIp, HosStateCounter, HosStateCounterEntry, hosStateIpCounter,
                  hosStateIp6Counter, hosStateCounterFactory, 258);
COLLECTION_TRAITS(HosIp6, HosStateCounter, HosStateCounterEntry, hosStateIp6Counter,
                  hosStateIpCounter, hosStateCounterFactory, 260);

// Records every attribute notification: the id, and the key when the id is
// that of the collection under test.
template <typename Key>
class Recorder : public Zeb::PtrInterface::NotifieeConst {
 public:
  explicit Recorder(Zeb::AttributeId collectionId) : collectionId_(collectionId) {}
  struct Seen {
    Zeb::AttributeId id;
    bool hasKey;
    std::optional<Key> key;
  };
  void onAttribute(Zeb::AttributeId id, void const* key) override {
    seen.push_back({id, key != nullptr,
                    key && id == collectionId_ ? std::optional<Key>(*static_cast<Key const*>(key))
                                               : std::nullopt});
    if (hook) hook(id);
  }
  std::vector<Seen> seen;
  std::function<void(Zeb::AttributeId)> hook;

 private:
  Zeb::AttributeId collectionId_;
};

uint64_t cellValue(std::string const& name) {
  return Thrum::writer().cellValue(name);
}

template <typename T>
class EntityCollection : public ::testing::Test {
 protected:
  using E = typename T::Entity;
  using R = typename T::Record;
  using Key = typename T::Key;

  void SetUp() override {
    entity = T::make(entityName);
    recorder = Zeb::Ptr<Recorder<Key>>(new Recorder<Key>(T::id));
    recorder->hasNotificationActiveIs(true);
    entity->notifieeList().list->newMember(entity.get(), recorder.get());
  }

  struct Cells {
    uint64_t is, del, notify;
  };
  Cells cells() const {
    std::string const n = T::name;
    return {cellValue(n + "Is"), cellValue(n + "Del"), cellValue(n + "Notify")};
  }
  static R rec(uint32_t i, uint32_t v = 0) { return row<R>(i, v).record(); }
  bool present(Key const& k) {
    bool found = false;
    T::map(*entity).safeLookup(k, found, nullptr);
    return found;
  }
  size_t rows() {
    size_t n = 0;
    for (typename std::remove_reference_t<decltype(T::map(*entity))>::IteratorConst it(
             &T::map(*entity));
         it.valid(); it.advance()) {
      n++;
    }
    return n;
  }

  std::string entityName = "ent";
  Zeb::Ptr<E> entity;
  Zeb::Ptr<Recorder<Key>> recorder;
};

using AllCollections = ::testing::Types<ConfigIp, ConfigIp6, StatusIp, StatusIp6, CounterIp,
                                        CounterIp6, HosIp, HosIp6>;
TYPED_TEST_SUITE(EntityCollection, AllCollections);

// Is, Del, a direct write's Commit and Notify: each counts in its cell, and
// each that changes the table notifies with the key; a Del of an absent key
// counts only the Del.
TYPED_TEST(EntityCollection, OperationsCountAndNotifyWithTheKey) {
  using T = TypeParam;
  auto const v = this->rec(7, 1);
  auto const before = this->cells();
  EXPECT_TRUE(T::del(*this->entity, v.key()) == typename T::Record());
  T::is(*this->entity, v);
  EXPECT_TRUE(this->present(v.key()));
  EXPECT_TRUE(T::del(*this->entity, v.key()) == v);
  EXPECT_FALSE(this->present(v.key()));
  T::commit(*this->entity, T::map(*this->entity).directWrite(v));
  EXPECT_TRUE(this->present(v.key()));
  T::notify(*this->entity, v.key());
  auto const after = this->cells();
  EXPECT_EQ(after.is - before.is, 2u);
  EXPECT_EQ(after.del - before.del, 2u);
  EXPECT_EQ(after.notify - before.notify, 4u);
  ASSERT_EQ(this->recorder->seen.size(), 4u);
  for (auto const& s : this->recorder->seen) {
    EXPECT_EQ(s.id, T::id);
    ASSERT_TRUE(s.key);
    EXPECT_TRUE(*s.key == v.key());
  }
}

TYPED_TEST(EntityCollection, DelAllRemovesEveryRowWithOneNotificationEach) {
  using T = TypeParam;
  T::delAll(*this->entity);  // empty: nothing changes
  EXPECT_TRUE(this->recorder->seen.empty());
  uint32_t const n = 40;
  for (uint32_t i = 0; i < n; i++) T::is(*this->entity, this->rec(i));
  this->recorder->seen.clear();
  auto const before = this->cells();
  T::delAll(*this->entity);
  auto const after = this->cells();
  EXPECT_EQ(after.del - before.del, n);
  EXPECT_EQ(after.notify - before.notify, n);
  EXPECT_EQ(after.is, before.is);
  EXPECT_EQ(this->rows(), 0u);
  std::set<uint32_t> keys;
  for (auto const& s : this->recorder->seen) {
    ASSERT_TRUE(s.key);
    for (uint32_t i = 0; i < n; i++) {
      if (*s.key == this->rec(i).key()) keys.insert(i);
    }
  }
  EXPECT_EQ(keys.size(), n);
  EXPECT_EQ(this->recorder->seen.size(), n);
}

TYPED_TEST(EntityCollection, DelAllSurvivesANotifieeThatWritesDuringTheWalk) {
  using T = TypeParam;
  for (uint32_t i = 0; i < 10; i++) T::is(*this->entity, this->rec(i));
  this->recorder->seen.clear();
  auto const extra = this->rec(50);
  bool written = false;
  auto* e = this->entity.get();
  this->recorder->hook = [&](Zeb::AttributeId) {
    if (!written) {
      written = true;
      T::is(*e, extra);  // re-enters the entity in the middle of the walk
    }
  };
  T::delAll(*this->entity);
  EXPECT_TRUE(written);
  // The ten rows are gone; the added one was met by the walk or not.
  for (uint32_t i = 0; i < 10; i++) EXPECT_FALSE(this->present(this->rec(i).key()));
  size_t const left = this->rows();
  EXPECT_EQ(left, this->present(extra.key()) ? 1u : 0u);
  // 10 removals, one write, and one more removal if the walk met it.
  EXPECT_EQ(this->recorder->seen.size(), 11u + (1u - left));
}

TYPED_TEST(EntityCollection, ControlIsTellsOnlyOfANewControl) {
  using T = TypeParam;
  auto& e = *this->entity;
  ZebMirak::CollectionControl* const original = T::controlRaw(e);
  ASSERT_EQ(T::control(e).get(), original);
  T::controlIs(e, T::control(e));  // the very field
  ControlPtr same = T::control(e);
  T::controlIs(e, same);
  EXPECT_TRUE(this->recorder->seen.empty());

  ControlPtr other = ZebMirak::CollectionControl::CollectionControlIs(&T::map(e));
  T::controlIs(e, other);
  ASSERT_EQ(this->recorder->seen.size(), 1u);
  EXPECT_EQ(this->recorder->seen[0].id, T::id + 1);
  EXPECT_FALSE(this->recorder->seen[0].hasKey);
  EXPECT_EQ(T::control(e).get(), other.get());
  EXPECT_EQ(other->references(), 2u);

  // The Notify... operations keep talking to the constructor's control.
  T::notifyQuiesced(e, true);
  EXPECT_TRUE(original->quiesced());
  EXPECT_FALSE(other->quiesced());
  EXPECT_EQ(T::controlRaw(e), original);
}

TYPED_TEST(EntityCollection, IteratorFromAPresentAndFromAnAbsentKey) {
  using T = TypeParam;
  using Map = std::remove_reference_t<decltype(T::map(*this->entity))>;
  auto& map = T::map(*this->entity);
  for (uint32_t i = 0; i < 12; i++) T::is(*this->entity, this->rec(i));
  typename Map::IteratorConst at(&map, this->rec(5).key());
  ASSERT_TRUE(at.valid());
  EXPECT_TRUE(at.row().key() == this->rec(5).key());

  // From an absent key: the walk goes on from its place, never to it.
  auto const absent = this->rec(99).key();
  size_t fromAbsent = 0;
  for (typename Map::IteratorConst it(&map, absent); it.valid(); it.advance()) {
    EXPECT_FALSE(it.row().key() == absent);
    fromAbsent++;
  }
  EXPECT_LE(fromAbsent, 12u);
  EXPECT_EQ(this->rows(), 12u);

  // A walk that removes every row it meets ends, and leaves nothing.
  for (typename Map::IteratorConst it(&map); it.valid(); it.advance()) {
    T::del(*this->entity, it.row().key());
  }
  EXPECT_EQ(this->rows(), 0u);
  typename Map::IteratorConst none(nullptr);
  EXPECT_FALSE(none.valid());
}

TYPED_TEST(EntityCollection, PrivateTableBeforeTheParentIsEmptiedByIt) {
  using T = TypeParam;
  auto& e = *this->entity;
  auto const v = this->rec(2);
  T::is(e, v);
  EXPECT_TRUE(this->present(v.key()));
  EXPECT_EQ(T::map(e).name(), std::string("ent/") + T::name);
  EXPECT_EQ(T::map(e).mountStatus(), 0u);

  auto root = hoFlowConfigFactory("root");
  e.parentIs(root.get());
  EXPECT_FALSE(this->present(v.key()));
  EXPECT_EQ(T::map(e).name(), std::string("root/ent/") + T::name);
  EXPECT_TRUE(T::map(e).parentSeen());
  T::is(e, v);
  EXPECT_TRUE(this->present(v.key()));

  auto other = hoFlowStatusFactory("other");
  EXPECT_EQ(LomiTest::thrown<Lomi::InvalidInitializeException>([&] { e.parentIs(other.get()); }),
            "Entity ent already initialized");
}

TYPED_TEST(EntityCollection, AnOrphanStandsOnAPlaceholder) {
  using T = TypeParam;
  auto& e = *this->entity;
  auto root = hoFlowConfigFactory("root");
  e.parentIs(root.get());
  ZebMirak::CollectionControl* control = T::controlRaw(e);
  uint64_t const reports = control->mountStatusReports();
  e.parentIs(nullptr);
  EXPECT_EQ(T::map(e).name(), std::string("ent/") + T::name);
  ASSERT_NE(
      dynamic_cast<Mirak::MirakDummy<typename std::remove_reference_t<decltype(T::map(e))>::Ops>*>(
          T::map(e).back()),
      nullptr);
  EXPECT_FALSE(control->quiesced());
  EXPECT_EQ(control->mountStatusReports(), reports + 1);
  EXPECT_EQ(control->mountStatus(), 0);

  auto const before = this->cells();
  EXPECT_THROW(T::is(e, this->rec(1)), Lomi::NoPermissionException);
  EXPECT_THROW(T::del(e, this->rec(1).key()), Lomi::NoPermissionException);
  auto const after = this->cells();
  EXPECT_EQ(after.is - before.is, 1u);
  EXPECT_EQ(after.del - before.del, 1u);
  EXPECT_EQ(after.notify, before.notify);
  EXPECT_TRUE(this->recorder->seen.empty());
  EXPECT_FALSE(this->present(this->rec(1).key()));
}

template <typename T>
using EntityCollectionDeathTest = EntityCollection<T>;
TYPED_TEST_SUITE(EntityCollectionDeathTest, AllCollections);

TYPED_TEST(EntityCollectionDeathTest, AnOrphanWithAssertOnOrphanAccessStopsOnAccess) {
  using T = TypeParam;
  auto& e = *this->entity;
  Mirak::MapDescriptor desc(1000);
  desc.assertOnOrphanAccess = true;
  T::map(e).descriptorIs(desc);
  auto root = hoFlowConfigFactory("root");
  e.parentIs(root.get());
  e.parentIs(nullptr);
  EXPECT_TRUE(T::map(e).assertOnOrphanAccess());
  EXPECT_DEATH(this->present(this->rec(1).key()),
               "you're trying to operate on an orphan mirak entity");
}

TYPED_TEST(EntityCollectionDeathTest, ACorruptTableEndsIsAndDelButNotDelAllOrTheIterator) {
  using T = TypeParam;
  using Map = std::remove_reference_t<decltype(T::map(*this->entity))>;
  auto& e = *this->entity;
  MirakTest::BackEndLog log;
  T::map(e).backIs(std::make_unique<MirakTest::ScriptedBackEnd<typename Map::Ops>>(
      log, Mirak::MirakType::reader, true));
  EXPECT_DEATH(T::is(e, this->rec(1)), "MirakMap::safeWrite ASSERT: in no man's land");
  EXPECT_DEATH(T::del(e, this->rec(1).key()), "MirakMap::safeRemove ASSERT: in no man's land");

  auto const before = this->cells();
  T::delAll(e);
  EXPECT_EQ(T::map(e).corruptionsDetected(), 1u);
  {
    // Scoped: an iterator keeps the entity alive.
    typename Map::IteratorConst it(&T::map(e));
    EXPECT_FALSE(it.valid());
    typename Map::IteratorConst at(&T::map(e), this->rec(1).key());
    EXPECT_FALSE(at.valid());
  }
  // The keyed iterator meets it twice: in its lookup, then in the step to
  // the successor of the key.
  EXPECT_EQ(T::map(e).corruptionsDetected(), 4u);
  auto const after = this->cells();
  EXPECT_EQ(after.del, before.del);
  EXPECT_EQ(after.notify, before.notify);
  EXPECT_TRUE(this->recorder->seen.empty());
  // The back end counts its destruction in `log`: it goes first.
  this->entity = nullptr;
  EXPECT_EQ(log.destroyed, 1);
}

TYPED_TEST(EntityCollection, TheLastReferenceGoesThroughTheControls) {
  using T = TypeParam;
  using E = typename T::Entity;
  auto const live = E::zebAllocTrackTypeInfo_.counters.counts().objectsLive();
  this->recorder.reset();  // the list keeps it

  // Somebody holds a control: the entity lives on until that goes.
  ControlPtr held = T::control(*this->entity);
  this->entity.reset();
  EXPECT_EQ(E::zebAllocTrackTypeInfo_.counters.counts().objectsLive(), live);
  ASSERT_TRUE(held->entityRef());
  EXPECT_EQ(held->entityRef()->name(), Zeb::String("ent"));
  held.reset();
  EXPECT_EQ(E::zebAllocTrackTypeInfo_.counters.counts().objectsLive(), live - 1);

  // Nobody does: the entity dies with its last reference.
  auto again = T::make("again");
  EXPECT_EQ(E::zebAllocTrackTypeInfo_.counters.counts().objectsLive(), live);
  again.reset();
  EXPECT_EQ(E::zebAllocTrackTypeInfo_.counters.counts().objectsLive(), live - 1);
}

// Operations that notify and then go on using the entity, while one of its
// notifiees drops the entity's last outside reference on the first removal.
// The operation finishes on a live entity and the entity dies on its return.
TYPED_TEST(EntityCollection, AnOperationOutlivesANotifieeThatDropsTheLastReference) {
  using T = TypeParam;
  using E = typename T::Entity;
  using Iter = typename std::remove_reference_t<decltype(T::map(*this->entity))>::IteratorConst;
  struct Operation {
    char const* name;
    std::function<void(E&)> run;
  };
  std::vector<Operation> const operations = {
      {"DelAll", [](E& e) { T::delAll(e); }},
      {"a walk that Dels each row",
       [](E& e) {
         for (Iter it(&T::map(e)); it.valid(); it.advance()) T::del(e, it.row().key());
       }},
  };
  uint32_t const n = 8;
  for (auto const& op : operations) {
    SCOPED_TRACE(op.name);
    this->entity = T::make("doomed");
    E* const e = this->entity.get();
    this->recorder = Zeb::Ptr<Recorder<typename T::Key>>(new Recorder<typename T::Key>(T::id));
    this->recorder->hasNotificationActiveIs(true);
    e->notifieeList().list->newMember(e, this->recorder.get());
    for (uint32_t i = 0; i < n; i++) T::is(*e, this->rec(i));
    this->recorder->seen.clear();
    auto const live = E::zebAllocTrackTypeInfo_.counters.counts().objectsLive();
    this->recorder->hook = [this](Zeb::AttributeId) { this->entity.reset(); };

    op.run(*e);
    EXPECT_EQ(this->recorder->seen.size(), n);
    EXPECT_EQ(E::zebAllocTrackTypeInfo_.counters.counts().objectsLive(), live - 1);
  }
}

// The entity's last reference goes while somebody holds the other
// collection's control: this collection's control dies with the entity's
// reference to it, the entity lives on. Its orphaning later reports to the
// control still held and to nothing else.
TYPED_TEST(EntityCollection, AnOrphanReportsOnlyToAControlThatStillLives) {
  using T = TypeParam;
  using E = typename T::Entity;
  auto root = hoFlowConfigFactory("root");
  E* const e = this->entity.get();
  e->parentIs(root.get());
  ControlPtr held = T::siblingControl(*e);
  auto const controls =
      ZebMirak::CollectionControl::zebAllocTrackTypeInfo_.counters.counts().objectsLive();
  this->entity.reset();
  EXPECT_EQ(ZebMirak::CollectionControl::zebAllocTrackTypeInfo_.counters.counts().objectsLive(),
            controls - 1);
  EXPECT_EQ(T::controlRaw(*e), nullptr);
  ASSERT_EQ(held->entityRef().get(), e);

  uint64_t const reports = held->mountStatusReports();
  root.reset();  // orphans the entity
  EXPECT_EQ(e->parent(), nullptr);
  EXPECT_EQ(held->mountStatusReports(), reports + 1);
  EXPECT_EQ(held->mountStatus(), 0);
  auto const live = E::zebAllocTrackTypeInfo_.counters.counts().objectsLive();
  held.reset();
  EXPECT_EQ(E::zebAllocTrackTypeInfo_.counters.counts().objectsLive(), live - 1);
}

TEST(EntityFactories, BothNamesMakeAnActiveEntityWithItsCells) {
  auto a = HoFlowConfig::HoFlowConfigIs("a");
  auto b = hosStateCounterFactory("b");
  EXPECT_TRUE(a->hasNotificationActive());
  EXPECT_TRUE(b->hasNotificationActive());
  EXPECT_EQ(a->hoIpFlowConfig().classType(), "FlowTracking::HoFlowConfig");
  EXPECT_EQ(b->hosStateIp6Counter().classType(), "FlowTracking::HosStateCounter");
  for (char const* cell :
       {"hoIp6FlowConfigIs", "hoIp6FlowConfigDel", "hoIp6FlowConfigNotify", "hoIpFlowConfigIs",
        "hosStateIp6CounterNotify", "hosStateIpCounterDel"}) {
    EXPECT_TRUE(Thrum::writer().hasCell(cell)) << cell;
  }
  EXPECT_EQ(a->zeroReferencesNotifiee()->references(), 2u);  // the field and the list
}

}  // namespace
