// The exception kinds: one family, caught by kind or as Lomi::Exception,
// with the formatted message in msg() and what().
#include <gtest/gtest.h>

#include <string>

#include "Lomi/Exception.h"

namespace {

template <typename T>
class ExceptionKinds : public ::testing::Test {};

using Kinds = ::testing::Types<Lomi::Exception, Lomi::RuntimeException,
                               Lomi::CorruptionDetectedException, Lomi::InvalidInitializeException,
                               Lomi::NoPermissionException, Lomi::MemoryResourceException>;
TYPED_TEST_SUITE(ExceptionKinds, Kinds);

TYPED_TEST(ExceptionKinds, FormatsItsMessageAndIsCaughtAsTheFamily) {
  try {
    throw TypeParam("cannot initialize collection {} with {}", "hoIpFlowCounter",
                    "DummyTesselWriter not supported in shadow mode");
  } catch (Lomi::Exception const& e) {
    EXPECT_EQ(e.msg(),
              "cannot initialize collection hoIpFlowCounter with DummyTesselWriter not supported "
              "in shadow mode");
    EXPECT_EQ(std::string(e.what()), e.msg());
    EXPECT_NE(dynamic_cast<TypeParam const*>(&e), nullptr);
  }
}

TYPED_TEST(ExceptionKinds, TakesAPlainStringAsItIs) {
  TypeParam e(std::string("braces {} stay"));
  EXPECT_EQ(e.msg(), "braces {} stay");
}

TEST(Exception, KindsAreDistinct) {
  auto throwCorruption = [] { throw Lomi::CorruptionDetectedException("chain of bucket {}", 3); };
  EXPECT_THROW(throwCorruption(), Lomi::CorruptionDetectedException);
  bool caughtAsOther = false;
  try {
    throwCorruption();
  } catch (Lomi::InvalidInitializeException const&) {
    caughtAsOther = true;
  } catch (Lomi::Exception const& e) {
    EXPECT_EQ(e.msg(), "chain of bucket 3");
  }
  EXPECT_FALSE(caughtAsOther);
}

}  // namespace
