// Test helper: the message of the E that `fn` throws; a text no expected
// message equals if it throws nothing. Another exception goes through.
#pragma once

#include <string>

#include "Lomi/Exception.h"

namespace LomiTest {

template <typename E = Lomi::Exception, typename F>
std::string thrown(F&& fn) {
  try {
    fn();
  } catch (E const& e) {
    return e.msg();
  }
  return "(nothing was thrown)";
}

}  // namespace LomiTest
