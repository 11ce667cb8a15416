// fmt support for the flow keys and records: "{}" prints a value's strep, so
// traces and messages show every field in the same text that parses back.
#pragma once

#include <string_view>

#include <fmt/format.h>

#include "Zeb/String.h"

// FLOWTRACKING_STREP_FORMATTER(FlowTracking::HoIpFlowKey) at global scope,
// after the type's valueToStrep is declared.
#define FLOWTRACKING_STREP_FORMATTER(Type)                                          \
  template <>                                                                       \
  struct fmt::formatter<Type> : fmt::formatter<std::string_view> {                  \
    template <typename Ctx>                                                         \
    auto format(Type const& v, Ctx& ctx) const {                                    \
      Zeb::String const text = valueToStrep(v);                                     \
      return fmt::formatter<std::string_view>::format(std::string_view(text), ctx); \
    }                                                                               \
  }
