// The exception family of the table library.
//
// Every failure a caller can provoke is one of these, with a message that
// names the table and the problem (`msg()`); `what()` gives the same text.
// Broken internal promises are not exceptions: they go through `fmassert`.
#pragma once

#include <exception>
#include <string>
#include <utility>

#include <fmt/format.h>

namespace Lomi {

class Exception : public std::exception {
 public:
  explicit Exception(std::string msg) : msg_(std::move(msg)) {}
  template <typename... Args>
  Exception(fmt::format_string<Args...> f, Args&&... args)
      : msg_(fmt::format(f, std::forward<Args>(args)...)) {}

  std::string const& msg() const noexcept { return msg_; }
  char const* what() const noexcept override { return msg_.c_str(); }

 private:
  std::string msg_;
};

#define LOMI_EXCEPTION_KIND(Name, Base) \
  class Name : public Base {            \
   public:                              \
    using Base::Base;                   \
  }

// A request the system cannot satisfy at run time (a size that does not fit).
LOMI_EXCEPTION_KIND(RuntimeException, Exception);
// Damage to a table's content found by a check: chains, counters, headers.
LOMI_EXCEPTION_KIND(CorruptionDetectedException, Exception);
// Bad configuration, or a start that failed (mount, attach, format).
LOMI_EXCEPTION_KIND(InvalidInitializeException, Exception);
// A write or remove on a back end that cannot write.
LOMI_EXCEPTION_KIND(NoPermissionException, Exception);
// A mapping or remapping that the system refused.
LOMI_EXCEPTION_KIND(MemoryResourceException, Exception);

}  // namespace Lomi
