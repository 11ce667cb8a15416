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

TYPED_TEST(ExceptionKinds, FormatsItsMessageTakesPlainStringsAsTheyAreAndIsCaughtAsTheFamily) {
  try {
    throw TypeParam("cannot initialize collection {} with {}", "hoIpFlowCounter", 7);
  } catch (Lomi::Exception const& e) {
    EXPECT_EQ(e.msg(), "cannot initialize collection hoIpFlowCounter with 7");
    EXPECT_EQ(std::string(e.what()), e.msg());
    EXPECT_NE(dynamic_cast<TypeParam const*>(&e), nullptr);
  }
  EXPECT_EQ(TypeParam(std::string("braces {} stay")).msg(), "braces {} stay");
}

}  // namespace
