// Text forms ("streps") of values: the helpers every parser and printer uses.
//
// A strep is one line that parses back into an equal value. Composite values
// print as "Value('Type', ** {'field': <strep>, ...})" and their parsers walk
// the text with needString() for each literal and deserializeAttr<F>() for each
// field. Nothing in a strep is quoted or escaped, so every field parser must
// find the end of its own field and stop there; none of them skips blanks.
//
// Failure contract: every parse error is a Zeb::RangeException whose message
// says what was expected, at which offset, and what stood there. A field
// parser that fails inside deserializeAttr() is rethrown by
// rethrowFromDeserializeAttr() with the field's name in front, so the message
// of a nested failure reads "field 'key': field 'intfId': ...".
#pragma once

#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

#include "Lomi/Exception.h"
#include "Zeb/Seconds.h"
#include "Zeb/String.h"

namespace Zeb {

// A text that is not a value of the type asked for, or a number out of range.
class RangeException : public Lomi::Exception {
 public:
  using Exception::Exception;
};

using StrepIt = String::IteratorConst;

// Consumes exactly `literal` at `it`, or throws RangeException (and leaves
// `it` where it was).
void needString(StrepIt& it, StrepIt const& end, char const* literal);

// Throws a RangeException whose message is `e`'s with the attribute's name in
// front. Only RangeException is rewritten; callers let other kinds pass.
[[noreturn]] void rethrowFromDeserializeAttr(RangeException const& e, char const* attrName);

// Parses one field of type F at `it` and moves `it` behind it. Defined here for
// Seconds, unsigned char, unsigned short, unsigned int and unsigned long long;
// the modules of other field types specialise it beside their types. Numbers
// are plain decimal with no sign and no blanks; a Seconds is any text that
// valueToStrep(Seconds) can print (shortest round-trip decimal, "inf", "nan").
template <typename F>
F deserializeAttr(StrepIt& it, StrepIt const& end, char const* attrName);

template <>
Seconds deserializeAttr<Seconds>(StrepIt& it, StrepIt const& end, char const* attrName);
template <>
unsigned char deserializeAttr<unsigned char>(StrepIt& it, StrepIt const& end, char const* attrName);
template <>
unsigned short deserializeAttr<unsigned short>(StrepIt& it, StrepIt const& end,
                                               char const* attrName);
template <>
unsigned int deserializeAttr<unsigned int>(StrepIt& it, StrepIt const& end, char const* attrName);
template <>
unsigned long long deserializeAttr<unsigned long long>(StrepIt& it, StrepIt const& end,
                                                       char const* attrName);

// The same parsers without the attribute name, for the field parsers of the
// platform's value types. They throw RangeException naming `what`.
Seconds parseSeconds(StrepIt& it, StrepIt const& end);
unsigned long long parseUnsigned(StrepIt& it, StrepIt const& end, unsigned long long max,
                                 char const* what);
// Hex digits without a prefix, exactly `digits` of them (either case).
unsigned long long parseHex(StrepIt& it, StrepIt const& end, int digits, char const* what);

// Consumes the longest run of [A-Za-z0-9_] at `it` and returns it (empty if
// there is none). The view stays valid while the parsed String lives.
std::string_view parseWord(StrepIt& it, StrepIt const& end);

// A throwing helper for parsers: "expected <what> at offset N, found '...'".
[[noreturn]] void throwExpected(StrepIt const& it, StrepIt const& end, std::string_view what);

// One enumerator of an enumeration's text table.
template <typename E>
struct EnumName {
  E value;
  char const* name;
};

// Text of an enumeration value: its name from `names`, or its number in
// decimal when it has none (a table file may hold any number).
template <typename E, size_t N>
std::string enumText(E v, EnumName<E> const (&names)[N]) {
  for (auto const& n : names) {
    if (n.value == v) return n.name;
  }
  return std::to_string(static_cast<unsigned long long>(v));
}

// Reads what enumText() writes: a name of `names`, or a decimal number no
// larger than the enumeration's storage allows.
template <typename E, size_t N>
E parseEnum(StrepIt& it, StrepIt const& end, EnumName<E> const (&names)[N], char const* what) {
  using U = std::underlying_type_t<E>;
  if (it != end && *it >= '0' && *it <= '9') {
    return static_cast<E>(parseUnsigned(it, end, static_cast<U>(~U(0)), what));
  }
  StrepIt const start = it;
  std::string_view const word = parseWord(it, end);
  for (auto const& n : names) {
    if (word == n.name) return n.value;
  }
  it = start;
  throwExpected(it, end, what);
}

// printf-style formatting into a Zeb::String. Streps are built with it.
String format(char const* fmt, ...) __attribute__((format(printf, 1, 2)));

// The shortest decimal text that reads back as exactly `s`.
String valueToStrep(Seconds s);

// Rejects anything in `text` from `it` on: a strep holds one value only.
void strepToValueEnd(String const& text, StrepIt const& it);

// Parses the whole of `text` as a T; the pointer only selects the type. T is
// read by its parsing constructor T(it, end) if it has one, else by the
// sequenceToValue(it, end, T*) found beside T, else (numbers) by
// deserializeAttr<T>. Throws RangeException if the text is not exactly one T.
template <typename T>
T strepToValue(String const& text, T*) {
  StrepIt it = text.begin();
  StrepIt const end = text.end();
  if constexpr (std::is_constructible_v<T, StrepIt&, StrepIt const&>) {
    T v(it, end);
    strepToValueEnd(text, it);
    return v;
  } else if constexpr (requires { sequenceToValue(it, end, static_cast<T*>(nullptr)); }) {
    T v = sequenceToValue(it, end, static_cast<T*>(nullptr));
    strepToValueEnd(text, it);
    return v;
  } else {
    T v = deserializeAttr<T>(it, end, "value");
    strepToValueEnd(text, it);
    return v;
  }
}

}  // namespace Zeb
