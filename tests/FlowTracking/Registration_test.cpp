// The flow types through the generic interface, by names alone: this file
// includes no header of a flow type, as a program of another component would.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "Zeb/Entity.h"
#include "Zeb/Module.h"
#include "Zeb/Ptr.h"
#include "Zeb/Strep.h"
#include "Zeb/String.h"
#include "ZebMirak/CollectionControl.h"

namespace {

namespace Op = Zeb::GenericIf;
using Zeb::GenericValue;
using Zeb::typeByName;

// The default value's strep with `from` replaced by `to` (which must occur).
std::string edited(Zeb::ZebTypeBase const& type, std::string const& from, std::string const& to) {
  std::string s = GenericValue(type).strep().stdString();
  size_t const at = s.find(from);
  EXPECT_NE(at, std::string::npos) << from << " in " << s;
  if (at != std::string::npos) s.replace(at, from.size(), to);
  return s;
}

TEST(Registration, ModulesHoldTheirTypesByIndex) {
  struct Expect {
    char const* module;
    std::vector<char const*> types;
  };
  std::vector<Expect> const expected = {
      {"_HoFlow_adf6f25f_zebModule", {"FlowTracking::HoIpFlowKey"}},
      {"_Ho6Flow_e944d5d2_zebModule", {"FlowTracking::HoIp6FlowKey"}},
      {"_HoFlowConfig_d7c62409_zebModule",
       {"FlowTracking::HoIpFlowConfig", "FlowTracking::HoIp6FlowConfig",
        "FlowTracking::HoFlowConfig"}},
      {"_HoFlowStatus_b4e443f4_zebModule",
       {"FlowTracking::HoIpFlowStatus", "FlowTracking::HoIp6FlowStatus",
        "FlowTracking::HoFlowStatus", "FlowTracking::HosStateCounterKey",
        "FlowTracking::HosStateCounterEntry", "FlowTracking::HosStateCounter",
        "FlowTracking::HoIpFlowCounter", "FlowTracking::HoIp6FlowCounter",
        "FlowTracking::HoFlowCounter"}},
  };
  for (auto const& e : expected) {
    Zeb::Module const* m = Zeb::moduleByName(e.module);
    ASSERT_NE(m, nullptr) << e.module;
    ASSERT_EQ(m->numTypes(), e.types.size());
    for (uint32_t i = 0; i < e.types.size(); ++i) {
      EXPECT_STREQ(m->type(i).name, e.types[i]);
      EXPECT_EQ(&typeByName(e.types[i]), &m->type(i));
    }
    EXPECT_THROW(m->type(m->numTypes()), Zeb::UnknownTypeException);
  }
  // Load order: HoFlow, HoFlowConfig, HoFlowStatus, Ho6Flow.
  std::vector<std::string> order;
  for (auto const* m : Zeb::modules()) {
    if (std::string(m->name()).find("Ho") != std::string::npos) order.push_back(m->name());
  }
  EXPECT_EQ(order, (std::vector<std::string>{
                       "_HoFlow_adf6f25f_zebModule", "_HoFlowConfig_d7c62409_zebModule",
                       "_HoFlowStatus_b4e443f4_zebModule", "_Ho6Flow_e944d5d2_zebModule"}));
  EXPECT_THROW(typeByName("FlowTracking::NoSuchType"), Zeb::UnknownTypeException);
}

// Every value type: the default prints and parses back to an equal value, and
// a text of another type is refused at its first literal.
TEST(Registration, EveryValueRoundTripsItsStrep) {
  int values = 0;
  for (Zeb::ZebType t : Zeb::types()) {
    if (!t->impl.methods || std::string(t->name).rfind("FlowTracking::", 0) != 0) continue;
    ++values;
    GenericValue const v(*t);
    GenericValue const back(*t, v.strep());
    unsigned char equal = 0;
    ASSERT_EQ(Zeb::attributeOp(*t, &equal, const_cast<void*>(v.data()), 0, Op::opEqual, nullptr,
                               back.data()),
              Op::done);
    EXPECT_EQ(equal, 1) << t->name;
    unsigned char truth = 1;
    ASSERT_EQ(Zeb::attributeOp(*t, &truth, const_cast<void*>(v.data()), 0, Op::opBool), Op::done);
    EXPECT_EQ(truth, 0) << t->name << ": a default value is false";
    EXPECT_THROW(GenericValue(*t, v.strep().stdString() + " "), Zeb::RangeException) << t->name;
  }
  EXPECT_EQ(values, 10);
  EXPECT_THROW(GenericValue(typeByName("FlowTracking::HoIp6FlowStatus"),
                            GenericValue(typeByName("FlowTracking::HoIpFlowStatus")).strep()),
               Zeb::RangeException);
}

TEST(Registration, ValueAttributeStatuses) {
  auto const& t = typeByName("FlowTracking::HoIp6FlowConfig");
  GenericValue v(t, edited(t, "'updateTime': 0", "'updateTime': 2.5"));

  Zeb::String text;
  EXPECT_EQ(Zeb::attributeOp(t, &text, v.data(), 10, Op::opGet), Op::undefinedOperation);
  EXPECT_TRUE(text.empty());
  EXPECT_EQ(Zeb::attributeOp(t, &text, v.data(), 10, Op::opCall), Op::done);
  EXPECT_NE(text.stdString().find("updateTime: 2.5"), std::string::npos) << text;

  // The key is set at construction only.
  std::vector<char> key(typeByName("FlowTracking::HoIp6FlowKey").size);
  EXPECT_EQ(Zeb::attributeOp(t, key.data(), v.data(), 2, Op::opGet), Op::done);
  EXPECT_EQ(Zeb::attributeOp(t, nullptr, v.data(), 2, Op::opSet, nullptr, key.data()),
            Op::undefinedOperation);

  double updated = 0;
  EXPECT_EQ(Zeb::attributeOp(t, &updated, v.data(), 4, Op::opGet), Op::done);
  EXPECT_EQ(updated, 2.5);
  double const later = 7.25;
  EXPECT_EQ(Zeb::attributeOp(t, nullptr, v.data(), 4, Op::opSet, nullptr, &later), Op::done);
  EXPECT_EQ(Zeb::attributeOp(t, &updated, v.data(), 4, Op::opGet), Op::done);
  EXPECT_EQ(updated, 7.25);
  EXPECT_NE(v.strep().stdString().find("'updateTime': 7.25"), std::string::npos);

  EXPECT_EQ(Zeb::attributeOp(t, &updated, v.data(), 11, Op::opGet), Op::unknownAttribute);
  EXPECT_EQ(Zeb::attributeOp(t, &updated, v.data(), 0, Op::opLess, nullptr, v.data()),
            Op::undefinedOperation);
}

TEST(Registration, VlanTagIsWrittenByFiveBytesAndReadBySix) {
  auto const& t = typeByName("FlowTracking::HoIpFlowConfig");
  GenericValue v(t);
  unsigned char tag[6];
  ASSERT_EQ(Zeb::attributeOp(t, tag, v.data(), 7, Op::opGet), Op::done);
  uint32_t word;
  std::memcpy(&word, tag, 4);
  EXPECT_EQ(word, 0x81000fffu);
  unsigned char const fresh[6] = {1, 2, 3, 4, 5, 0xee};
  ASSERT_EQ(Zeb::attributeOp(t, nullptr, v.data(), 7, Op::opSet, nullptr, fresh), Op::done);
  ASSERT_EQ(Zeb::attributeOp(t, tag, v.data(), 7, Op::opGet), Op::done);
  EXPECT_EQ(std::memcmp(tag, fresh, 5), 0);
  EXPECT_EQ(tag[5], 0) << "the sixth byte is not written";
}

TEST(Registration, KeyFieldsReadThroughTheFlowKey) {
  auto const& t = typeByName("FlowTracking::HoIpFlowKey");
  GenericValue const k(t, edited(t, "'srcPort': 0", "'srcPort': 8080"));
  uint16_t port = 0;
  EXPECT_EQ(Zeb::attributeOp(t, &port, const_cast<void*>(k.data()), 8, Op::opGet), Op::done);
  EXPECT_EQ(port, 8080);
  uint32_t vrf = 0;
  EXPECT_EQ(Zeb::attributeOp(t, &vrf, const_cast<void*>(k.data()), 3, Op::opGet), Op::done);
  EXPECT_EQ(vrf, 0xffffffu);
  EXPECT_EQ(Zeb::attributeOp(t, &port, const_cast<void*>(k.data()), 8, Op::opSet, nullptr, &port),
            Op::undefinedOperation);

  GenericValue const d(t);
  unsigned char less = 0;
  EXPECT_EQ(
      Zeb::attributeOp(t, &less, const_cast<void*>(d.data()), 0, Op::opLess, nullptr, k.data()),
      Op::done);
  EXPECT_EQ(less, 1);
}

TEST(Registration, HashOfKeysAndRecords) {
  auto const& kt = typeByName("FlowTracking::HoIpFlowKey");
  GenericValue const a(kt, edited(kt, "'srcPort': 0", "'srcPort': 1"));
  GenericValue const a2(kt, a.strep());
  GenericValue const b(kt, edited(kt, "'srcPort': 0", "'srcPort': 2"));
  auto const hash = kt.impl.methods->hash;
  EXPECT_EQ(hash(a.data(), &kt), hash(a2.data(), &kt));
  EXPECT_NE(hash(a.data(), &kt), hash(b.data(), &kt));

  auto const& sk = typeByName("FlowTracking::HosStateCounterKey");
  GenericValue const s1(sk, "hoFlowStateOffloaded");
  GenericValue const s2(sk, "2");
  EXPECT_EQ(sk.impl.methods->hash(s1.data(), &sk), sk.impl.methods->hash(s2.data(), &sk));

  for (char const* record : {"FlowTracking::HoIpFlowConfig", "FlowTracking::HoIp6FlowStatus",
                             "FlowTracking::HosStateCounterEntry"}) {
    auto const& rt = typeByName(record);
    GenericValue const r(rt);
    EXPECT_THROW(rt.impl.methods->hash(r.data(), &rt), Zeb::UnhashableException) << record;
  }
}

TEST(Registration, CheckedAssignment) {
  auto const& v4 = typeByName("FlowTracking::HoIpFlowConfig");
  auto const& v6 = typeByName("FlowTracking::HoIp6FlowConfig");
  auto const& entity = typeByName("FlowTracking::HoFlowStatus");
  auto const& base = typeByName("Zeb::Entity");
  int dummy = 0;
  EXPECT_EQ(v4.impl.methods->voidPtrIs(&dummy, &v4, &v4), &dummy);
  EXPECT_THROW(v4.impl.methods->voidPtrIs(&dummy, &v4, &v6), Zeb::TypeException);
  EXPECT_EQ(v4.impl.methods->voidPtrIs(&dummy, &entity, &base), &dummy);
  EXPECT_THROW(
      v4.impl.methods->voidPtrIs(&dummy, &entity, &typeByName("FlowTracking::HoFlowConfig")),
      Zeb::TypeException);
  GenericValue a(v4);
  EXPECT_THROW(a = GenericValue(v6), Zeb::TypeException);
}

TEST(Registration, ValuesFromConstructorArguments) {
  auto const& kt = typeByName("FlowTracking::HoIpFlowKey");
  GenericValue const k(kt, edited(kt, "'dstPort': 0", "'dstPort': 53"));
  // The key's two constructor fields, read back generically.
  std::vector<char> flow(28), intf(8);
  ASSERT_EQ(Zeb::attributeOp(kt, flow.data(), const_cast<void*>(k.data()), 2, Op::opGet), Op::done);
  ASSERT_EQ(Zeb::attributeOp(kt, intf.data(), const_cast<void*>(k.data()), 12, Op::opGet),
            Op::done);
  GenericValue k2(kt);
  void* const keyArgs[] = {flow.data(), intf.data()};
  kt.impl.constructFromCtorArgs(k2.data(), keyArgs);
  EXPECT_EQ(k2.strep(), k.strep());

  auto const& rt = typeByName("FlowTracking::HoIpFlowStatus");
  GenericValue r(rt);
  void* const recordArgs[] = {const_cast<void*>(k.data())};
  rt.impl.constructFromCtorArgs(r.data(), recordArgs);
  EXPECT_NE(r.strep().stdString().find("'dstPort': 53"), std::string::npos);

  auto const& sk = typeByName("FlowTracking::HosStateCounterKey");
  GenericValue s(sk);
  unsigned char state = 3;
  void* const stateArgs[] = {&state};
  sk.impl.constructFromCtorArgs(s.data(), stateArgs);
  EXPECT_EQ(s.strep(), GenericValue(sk, "3").strep());
}

// One body over the four entities, by names: create, write, read, walk,
// remove, through the entity's collections.
struct EntityCase {
  char const* entity;
  char const* row4;
  char const* row6;
  char const* edit;  // a field of the row's default strep to vary per row
  char const* mountPath;
};

class EntityByName : public ::testing::TestWithParam<EntityCase> {};

TEST_P(EntityByName, CreateWriteReadWalkRemove) {
  EntityCase const& c = GetParam();
  auto const& et = typeByName(c.entity);
  ASSERT_TRUE(et.isEntity());
  ASSERT_TRUE(et.isDerived(typeByName("Zeb::Entity")));

  int args = 0;
  EXPECT_THROW(et.impl.newEntityForDir("x", &args), Zeb::NewEntityArgsException);
  Zeb::Ptr<Zeb::Entity> e = et.impl.newEntityForDir("byName", nullptr);
  ASSERT_TRUE(e);
  EXPECT_EQ(e->fwkType(), et.fwkType());
  EXPECT_EQ(Zeb::typeOf(e->fwkType()), &et);
  void* const obj = e.get();

  for (Zeb::AttributeId coll : {258u, 260u}) {
    SCOPED_TRACE(coll);
    auto const& rt = typeByName(coll == 258 ? c.row4 : c.row6);
    // Keys travel as bytes: the counters' flow keys belong to a module of
    // their own, which needn't be loaded to use the table.
    using KeyBytes = std::vector<char>;
    auto const newKey = [] { return KeyBytes(64, 0); };
    int const n = 20;
    std::set<std::string> written;
    std::vector<KeyBytes> keys;
    for (int i = 1; i <= n; ++i) {
      std::string const to =
          std::string(c.edit).substr(0, std::string(c.edit).rfind(' ') + 1) + std::to_string(i);
      GenericValue const row(rt, edited(rt, c.edit, to));
      ASSERT_EQ(Zeb::attributeOp(et, nullptr, obj, coll, Op::opSet, nullptr, row.data()), Op::done);
      written.insert(row.strep().stdString());
      keys.push_back(newKey());
      ASSERT_EQ(
          Zeb::attributeOp(rt, keys.back().data(), const_cast<void*>(row.data()), 2, Op::opGet),
          Op::done);
    }
    uint32_t members = 0;
    ASSERT_EQ(Zeb::attributeOp(et, &members, obj, coll, Op::opMembers), Op::done);
    EXPECT_EQ(members, uint32_t(n));
    uint32_t zero = 9;
    EXPECT_EQ(Zeb::attributeOp(et, &zero, obj, coll, Op::opReserved4), Op::done);
    EXPECT_EQ(zero, 0u);

    // Lookup of each key gives its row.
    GenericValue found(rt);
    unsigned char exists = 0;
    ASSERT_EQ(Zeb::attributeOp(et, found.data(), obj, coll, Op::opGet, keys[4].data()), Op::done);
    EXPECT_TRUE(written.count(found.strep().stdString()));
    ASSERT_EQ(Zeb::attributeOp(et, &exists, obj, coll, Op::opExists, keys[4].data()), Op::done);
    EXPECT_EQ(exists, 1);

    // Walk: every row once.
    Zeb::IteratorMethods const* m = nullptr;
    void* it = et.impl.iterator(obj, nullptr, coll, m);
    ASSERT_NE(it, nullptr);
    ASSERT_NE(m, nullptr);
    std::set<std::string> walked;
    KeyBytes lastKey = newKey();
    while (m->iterNonnull(it, coll)) {
      GenericValue row(rt);
      m->iterObj(it, coll, row.data());
      walked.insert(row.strep().stdString());
      EXPECT_TRUE(m->iterKey(it, coll, lastKey.data()));
      m->iterInc(it, coll);
    }
    EXPECT_EQ(walked, written);
    // Past the end the key is still the last row's.
    KeyBytes after = newKey();
    EXPECT_TRUE(m->iterKey(it, coll, after.data()));
    EXPECT_EQ(after, lastKey);
    m->iterDel(it, coll);

    // From a key: starts there.
    it = et.impl.iterator(obj, keys[0].data(), coll, m);
    ASSERT_TRUE(m->iterNonnull(it, coll));
    KeyBytes first = newKey();
    m->iterKey(it, coll, first.data());
    EXPECT_EQ(first, keys[0]);
    m->iterDel(it, coll);
    EXPECT_EQ(et.impl.iterator(obj, nullptr, coll + 1, m), nullptr);

    // Remove: the removed row comes back; then absent gives the default row.
    GenericValue removed(rt);
    ASSERT_EQ(Zeb::attributeOp(et, removed.data(), obj, coll, Op::opDel, keys[4].data()), Op::done);
    EXPECT_TRUE(written.count(removed.strep().stdString()));
    ASSERT_EQ(Zeb::attributeOp(et, found.data(), obj, coll, Op::opGet, keys[4].data()), Op::done);
    EXPECT_EQ(found.strep(), GenericValue(rt).strep());
    ASSERT_EQ(Zeb::attributeOp(et, &exists, obj, coll, Op::opExists, keys[4].data()), Op::done);
    EXPECT_EQ(exists, 0);
    ASSERT_EQ(Zeb::attributeOp(et, &members, obj, coll, Op::opMembers), Op::done);
    EXPECT_EQ(members, uint32_t(n - 1));

    EXPECT_EQ(Zeb::attributeOp(et, &members, obj, coll, Op::opCall), Op::undefinedOperation);
  }

  // Controls: a counted copy; setting the same one again is accepted.
  Zeb::Ptr<ZebMirak::CollectionControl> control;
  ASSERT_EQ(Zeb::attributeOp(et, &control, obj, 259, Op::opGet), Op::done);
  EXPECT_TRUE(control);
  EXPECT_EQ(Zeb::attributeOp(et, nullptr, obj, 259, Op::opSet, nullptr, &control), Op::done);
  EXPECT_EQ(Zeb::attributeOp(et, &control, obj, 259, Op::opDel), Op::undefinedOperation);

  Zeb::String const ftr("ipv4"), name("nm");
  Zeb::String const* params[] = {&ftr, &name};
  Zeb::String path;
  EXPECT_EQ(Zeb::attributeOp(et, &path, nullptr, 262, Op::opGet, nullptr, params),
            Op::undefinedOperation);
  ASSERT_EQ(Zeb::attributeOp(et, &path, nullptr, 262, Op::opCall, nullptr, params), Op::done);
  EXPECT_EQ(path.stdString(), c.mountPath);

  EXPECT_EQ(Zeb::attributeOp(et, &path, obj, 263, Op::opGet), Op::unknownAttribute);
  EXPECT_EQ(Zeb::attributeOp(et, &path, obj, 257, Op::opGet), Op::unknownAttribute);

  // The constructor from arguments makes a counted entity too.
  alignas(Zeb::Ptr<Zeb::Entity>) unsigned char mem[sizeof(Zeb::Ptr<Zeb::Entity>)];
  Zeb::String const other("other");
  void* const ctorArgs[] = {const_cast<Zeb::String*>(&other)};
  et.impl.constructFromCtorArgs(mem, ctorArgs);
  auto* made = reinterpret_cast<Zeb::Ptr<Zeb::Entity>*>(mem);
  EXPECT_EQ((*made)->name(), other);
  made->~Ptr();
}

INSTANTIATE_TEST_SUITE_P(
    FourEntities, EntityByName,
    ::testing::Values(EntityCase{"FlowTracking::HoFlowConfig", "FlowTracking::HoIpFlowConfig",
                                 "FlowTracking::HoIp6FlowConfig", "'srcPort': 0",
                                 "flowtracking/ipv4/hwOffload/config"},
                      EntityCase{"FlowTracking::HoFlowStatus", "FlowTracking::HoIpFlowStatus",
                                 "FlowTracking::HoIp6FlowStatus", "'dstPort': 0",
                                 "flowtracking/ipv4/hwOffload/status"},
                      EntityCase{"FlowTracking::HoFlowCounter", "FlowTracking::HoIpFlowCounter",
                                 "FlowTracking::HoIp6FlowCounter", "'srcPort': 0",
                                 "flowtracking/ipv4/hwOffload/counter/nm"},
                      EntityCase{"FlowTracking::HosStateCounter",
                                 "FlowTracking::HosStateCounterEntry",
                                 "FlowTracking::HosStateCounterEntry", "'key': hoFlowStateUnknown",
                                 "flowtracking/ipv4/hwOffload/counter/status"}),
    [](auto const& info) {
      std::string n = info.param.entity;
      return n.substr(n.rfind(':') + 1);
    });

}  // namespace
