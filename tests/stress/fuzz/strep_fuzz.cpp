// libFuzzer target: the text-form parser of one flow type (FUZZ_TYPE, set by
// the build). Any input must either parse or throw Zeb::RangeException; a
// text that parses must print and parse back to the same value, and print
// the same text again.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "FlowTracking/Tables.h"
#include "Zeb/Strep.h"

using FuzzType = FUZZ_TYPE;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  Zeb::String const text(std::string_view(reinterpret_cast<char const*>(data), size));
  FuzzType value;
  try {
    value = Zeb::strepToValue(text, static_cast<FuzzType*>(nullptr));
  } catch (Zeb::RangeException const&) {
    return 0;
  }
  Zeb::String const printed = valueToStrep(value);
  FuzzType const back = Zeb::strepToValue(printed, static_cast<FuzzType*>(nullptr));
  if (!(back == value) || !(valueToStrep(back) == printed)) {
    std::fprintf(stderr, "round trip failed: '%s' printed as '%s'\n", text.stdString().c_str(),
                 printed.stdString().c_str());
    std::abort();
  }
  return 0;
}
