// The type registry on a module of its own: lookups by name and index,
// registration rules, base chains and the checked value helper.
#include <gtest/gtest.h>

#include <cstring>
#include <new>

#include "Lomi/Thrown.h"
#include "Zeb/Module.h"
#include "Zeb/Strep.h"

namespace {

struct Point {
  uint32_t x = 7;
  uint32_t y = 9;
};

int liveValues = 0;

void pointConstruct(void* memory, void const* source) {
  ++liveValues;
  if (source) {
    std::memcpy(memory, source, sizeof(Point));
  } else {
    new (memory) Point();
  }
}
void pointDestruct(void*) {
  --liveValues;
}
void pointParse(void* memory, Zeb::String const& text, Zeb::ZebType) {
  Zeb::StrepIt it = text.begin();
  Point p;
  p.x = static_cast<uint32_t>(Zeb::parseUnsigned(it, text.end(), 0xffffffff, "x"));
  Zeb::needString(it, text.end(), ",");
  p.y = static_cast<uint32_t>(Zeb::parseUnsigned(it, text.end(), 0xffffffff, "y"));
  Zeb::strepToValueEnd(text, it);
  std::memcpy(memory, &p, sizeof p);
}
Zeb::String pointText(void const* v, Zeb::ZebType) {
  auto const* p = static_cast<Point const*>(v);
  return Zeb::format("%u,%u", p->x, p->y);
}
uint32_t pointHash(void const*, Zeb::ZebType t) {
  Zeb::GenericIfImpl::throwUnhashableException(t);
}
void const* pointAssign(void const* v, Zeb::ZebType from, Zeb::ZebType to) {
  if (from != to) Zeb::GenericIfImpl::throwTypeException(from, to);
  return v;
}

constexpr Zeb::ValueMethods pointMethods = {&pointConstruct, &pointDestruct, &pointParse,
                                            &pointText,      nullptr,        nullptr,
                                            &pointHash,      &pointAssign};

Zeb::AttributeInfo const pointAttrs[] = {
    {2, "x", Zeb::AttributeKind::field, "U32"},
    {3, "y", Zeb::AttributeKind::field, "U32"},
};

Zeb::ZebTypeBase testTypes[] = {
    {"ZebTest::Point", Zeb::kFlagsValue, Zeb::kKindValue, sizeof(Point), nullptr, pointAttrs,
     Zeb::TypeImpl{nullptr, nullptr, &pointMethods, nullptr, nullptr, nullptr}},
    {"ZebTest::Base", Zeb::kFlagsEntity, Zeb::kKindEntity, 64, "Zeb::Entity", {}, {}},
    {"ZebTest::Derived", Zeb::kFlagsEntity, Zeb::kKindEntity, 64, "ZebTest::Base", {}, {}},
};
char const* const testImports[] = {"_Zeb_zebModule"};
Zeb::Module testModule("_ZebTest_0_zebModule", testTypes, testImports);

Zeb::ZebTypeBase clashTypes[] = {
    {"ZebTest::Point", Zeb::kFlagsValue, Zeb::kKindValue, 1, nullptr, {}, {}},
};
Zeb::Module clashModule("_ZebTestClash_zebModule", clashTypes, {});

class ZebModule : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { Zeb::zebModuleIs(&testModule); }
};

TEST_F(ZebModule, TypesByNameAndIndex) {
  EXPECT_EQ(Zeb::moduleByName("_ZebTest_0_zebModule"), &testModule);
  EXPECT_EQ(Zeb::moduleByName("_NoSuch_zebModule"), nullptr);
  Zeb::ZebTypeBase const& p = Zeb::typeByName("ZebTest::Point");
  EXPECT_EQ(p.module, &testModule);
  EXPECT_EQ(p.index, 0u);
  EXPECT_EQ(Zeb::typeOf(p.fwkType()), &p);
  EXPECT_EQ(&testModule.type(2), &Zeb::typeByName("ZebTest::Derived"));
  EXPECT_EQ(Zeb::findType("ZebTest::Nope"), nullptr);
  EXPECT_EQ(Zeb::typeOf(Zeb::FwkType{}), nullptr);
  EXPECT_EQ(Zeb::typeOf(Zeb::FwkType{&testModule, 3}), nullptr);
  EXPECT_EQ(LomiTest::thrown<Zeb::UnknownTypeException>([&] { Zeb::typeByName("ZebTest::Nope"); }),
            "unknown type ZebTest::Nope: no module registered it");
  EXPECT_EQ(p.attribute("y")->id, 3u);
  EXPECT_EQ(p.attribute(2)->name, std::string("x"));
  EXPECT_EQ(p.attribute(4), nullptr);
}

TEST_F(ZebModule, RegisteringAgainChangesNothing) {
  size_t const before = Zeb::types().size();
  Zeb::zebModuleIs(&testModule);
  EXPECT_EQ(Zeb::types().size(), before);
}

TEST_F(ZebModule, ATypeNameRegisteredTwiceStopsTheProcess) {
  EXPECT_DEATH(Zeb::zebModuleIs(&clashModule), "ZebTest::Point registered by module");
}

TEST_F(ZebModule, BaseChains) {
  auto const& base = Zeb::typeByName("ZebTest::Base");
  auto const& derived = Zeb::typeByName("ZebTest::Derived");
  auto const& entity = Zeb::typeByName("Zeb::Entity");
  EXPECT_TRUE(derived.isDerived(base));
  EXPECT_TRUE(derived.isDerived(entity));
  EXPECT_TRUE(derived.isDerived(derived));
  EXPECT_FALSE(base.isDerived(derived));
  EXPECT_FALSE(Zeb::typeByName("ZebTest::Point").isDerived(entity));
  EXPECT_TRUE(derived.isPolymorphic());
  EXPECT_FALSE(Zeb::typeByName("ZebTest::Point").isPolymorphic());
}

TEST_F(ZebModule, GenericValueOwnsItsValue) {
  auto const& p = Zeb::typeByName("ZebTest::Point");
  int const live = liveValues;
  {
    Zeb::GenericValue a(p);
    EXPECT_EQ(a.strep(), Zeb::String("7,9"));
    Zeb::GenericValue b(p, "1,2");
    Zeb::GenericValue c(b);
    EXPECT_EQ(c.strep(), Zeb::String("1,2"));
    a = b;
    EXPECT_EQ(a.strep(), Zeb::String("1,2"));
    EXPECT_EQ(liveValues, live + 3);
    EXPECT_THROW(Zeb::GenericValue(p, "1,2,"), Zeb::RangeException);
    EXPECT_THROW(Zeb::GenericValue(p, "1;2"), Zeb::RangeException);
    EXPECT_THROW(p.impl.methods->hash(a.data(), &p), Zeb::UnhashableException);
  }
  EXPECT_EQ(liveValues, live) << "every constructed value is destructed";
  EXPECT_THROW(Zeb::GenericValue(Zeb::typeByName("ZebTest::Base")), Zeb::UnknownTypeException);
  int x = 0;
  EXPECT_THROW(Zeb::attributeOp(p, &x, &x, 2, Zeb::GenericIf::opGet), Zeb::UnknownTypeException);
}

TEST_F(ZebModule, ExceptionsNameTheTypes) {
  auto const& p = Zeb::typeByName("ZebTest::Point");
  auto const& b = Zeb::typeByName("ZebTest::Base");
  try {
    Zeb::GenericIfImpl::throwTypeException(&p, &b);
  } catch (Zeb::TypeException const& e) {
    EXPECT_EQ(e.msg(), "a ZebTest::Point is not a ZebTest::Base");
  }
  try {
    Zeb::throwNewEntityArgsException(&testModule, 1);
  } catch (Zeb::NewEntityArgsException const& e) {
    EXPECT_EQ(e.msg(),
              "entity type ZebTest::Base takes no constructor arguments in newEntityForDir");
  }
}

}  // namespace
