// The strep helpers: literals, numbers, times, and the end-of-text check.
#include "Zeb/Strep.h"

#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include <fmt/format.h>

namespace Zeb {

namespace {

// Enough of the rest of a text to show where a parse went wrong.
std::string_view excerpt(StrepIt const& it, StrepIt const& end) {
  std::string_view rest = it.rest(end);
  return rest.substr(0, 24);
}

template <typename F>
F deserializeNumber(StrepIt& it, StrepIt const& end, char const* attrName, unsigned long long max) {
  try {
    return static_cast<F>(parseUnsigned(it, end, max, "an unsigned decimal number"));
  } catch (RangeException const& e) {
    rethrowFromDeserializeAttr(e, attrName);
  }
}

}  // namespace

void throwExpected(StrepIt const& it, StrepIt const& end, std::string_view what) {
  if (it == end)
    throw RangeException("expected {} at offset {}, found the end of the text", what,
                         it.position());
  throw RangeException("expected {} at offset {}, found '{}'", what, it.position(),
                       excerpt(it, end));
}

std::string_view parseWord(StrepIt& it, StrepIt const& end) {
  std::string_view const rest = it.rest(end);
  size_t n = 0;
  while (n < rest.size()) {
    char const c = rest[n];
    bool const word =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    if (!word) break;
    n++;
  }
  it += static_cast<std::ptrdiff_t>(n);
  return rest.substr(0, n);
}

void needString(StrepIt& it, StrepIt const& end, char const* literal) {
  std::string_view const want(literal);
  if (!it.rest(end).starts_with(want)) throwExpected(it, end, fmt::format("\"{}\"", want));
  it += static_cast<std::ptrdiff_t>(want.size());
}

void rethrowFromDeserializeAttr(RangeException const& e, char const* attrName) {
  throw RangeException("field '{}': {}", attrName, e.msg());
}

Seconds parseSeconds(StrepIt& it, StrepIt const& end) {
  std::string_view const rest = it.rest(end);
  double v = 0;
  // from_chars takes no leading blank and no '+', which keeps the text strict;
  // it stops at the first byte that cannot continue the number.
  auto const [ptr, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), v);
  if (ec == std::errc::result_out_of_range) {
    throw RangeException("time at offset {} is out of the range of an f64: '{}'", it.position(),
                         excerpt(it, end));
  }
  if (ec != std::errc()) throwExpected(it, end, "a time in seconds");
  it += ptr - rest.data();
  return v;
}

unsigned long long parseUnsigned(StrepIt& it, StrepIt const& end, unsigned long long max,
                                 char const* what) {
  std::string_view const rest = it.rest(end);
  if (rest.empty() || rest[0] < '0' || rest[0] > '9') throwExpected(it, end, what);
  unsigned long long v = 0;
  auto const [ptr, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), v);
  if (ec == std::errc::result_out_of_range || (ec == std::errc() && v > max)) {
    throw RangeException("number at offset {} is larger than {}: '{}'", it.position(), max,
                         excerpt(it, end));
  }
  if (ec != std::errc()) throwExpected(it, end, what);
  it += ptr - rest.data();
  return v;
}

unsigned long long parseHex(StrepIt& it, StrepIt const& end, int digits, char const* what) {
  std::string_view const rest = it.rest(end);
  if (rest.size() < static_cast<size_t>(digits)) throwExpected(it, end, what);
  unsigned long long v = 0;
  for (int i = 0; i < digits; i++) {
    char const c = rest[static_cast<size_t>(i)];
    unsigned d;
    if (c >= '0' && c <= '9') {
      d = static_cast<unsigned>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      d = static_cast<unsigned>(c - 'a' + 10);
    } else if (c >= 'A' && c <= 'F') {
      d = static_cast<unsigned>(c - 'A' + 10);
    } else {
      throwExpected(it, end, what);
    }
    v = v * 16 + d;
  }
  it += digits;
  return v;
}

template <>
Seconds deserializeAttr<Seconds>(StrepIt& it, StrepIt const& end, char const* attrName) {
  try {
    return parseSeconds(it, end);
  } catch (RangeException const& e) {
    rethrowFromDeserializeAttr(e, attrName);
  }
}

template <>
unsigned char deserializeAttr<unsigned char>(StrepIt& it, StrepIt const& end,
                                             char const* attrName) {
  return deserializeNumber<unsigned char>(it, end, attrName, 0xff);
}

template <>
unsigned short deserializeAttr<unsigned short>(StrepIt& it, StrepIt const& end,
                                               char const* attrName) {
  return deserializeNumber<unsigned short>(it, end, attrName, 0xffff);
}

template <>
unsigned int deserializeAttr<unsigned int>(StrepIt& it, StrepIt const& end, char const* attrName) {
  return deserializeNumber<unsigned int>(it, end, attrName, 0xffffffffu);
}

template <>
unsigned long long deserializeAttr<unsigned long long>(StrepIt& it, StrepIt const& end,
                                                       char const* attrName) {
  return deserializeNumber<unsigned long long>(it, end, attrName, ~0ull);
}

String format(char const* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  int const n = std::vsnprintf(nullptr, 0, fmt, args);
  va_end(args);
  if (n < 0) {
    va_end(again);
    throw RangeException("format \"{}\" could not be applied to its arguments", fmt);
  }
  std::string out(static_cast<size_t>(n), '\0');
  std::vsnprintf(out.data(), out.size() + 1, fmt, again);
  va_end(again);
  return String(std::move(out));
}

String valueToStrep(Seconds s) {
  // fmt's "{}" is the shortest text that reads back to the same bits, so a
  // time survives print and parse exactly (fractions included).
  return String(fmt::format("{}", s));
}

void strepToValueEnd(String const& text, StrepIt const& it) {
  StrepIt const end = text.end();
  if (it != end) {
    throw RangeException("unexpected text after the value at offset {}: '{}'", it.position(),
                         excerpt(it, end));
  }
}

}  // namespace Zeb
