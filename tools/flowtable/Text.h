// What the operator tool prints of what it found. Table names, value type
// names, header dumps, row texts and error messages all come from files under
// a directory that every local user can write, and the tool often runs as
// root in an operator's terminal, so none of it is printed as it stands:
//
//   text   Each byte of a control character (C0, DEL, and C1: U+0080..U+009F
//          as UTF-8) and each byte that is not part of well-formed UTF-8 is
//          written as \xNN (two lowercase hex digits). A newline stays one
//          only where the caller prints a block of lines. Everything else,
//          a backslash too, is written unchanged: the forms stay those that
//          parse back (streps), and a name whose own text is "\x1b" reads as
//          an escaped ESC would. No byte that a terminal acts on gets through.
//   JSON   '"' and '\' escaped, every control character (C0, DEL, C1) as
//          \u00NN, and each byte that is not part of well-formed UTF-8 as
//          \ufffd, the replacement character: the document is valid UTF-8 and
//          valid JSON whatever the files hold, at the price of the bad bytes'
//          values (the text output keeps them).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace FlowtableCli {

// The length of the well-formed UTF-8 sequence that `s` starts with, its code
// point in `cp`; 0 when `s` starts with a byte that begins none (a stray
// continuation byte, an overlong form, a surrogate, a code point past
// U+10FFFF, a sequence cut short).
inline size_t utf8Sequence(std::string_view s, char32_t& cp) {
  auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
  unsigned char const lead = byte(0);
  if (lead < 0x80) {
    cp = lead;
    return 1;
  }
  size_t n;
  char32_t least;
  if (lead >= 0xc2 && lead <= 0xdf) {
    n = 2, cp = lead & 0x1f, least = 0x80;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    n = 3, cp = lead & 0x0f, least = 0x800;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    n = 4, cp = lead & 0x07, least = 0x10000;
  } else {
    return 0;
  }
  if (s.size() < n) return 0;
  for (size_t i = 1; i < n; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i) & 0x3f);
  }
  if (cp < least || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return 0;
  return n;
}

inline bool isControl(char32_t cp) {
  return cp < 0x20 || (cp >= 0x7f && cp <= 0x9f);
}

// `s` for a terminal, as told above; `lines`: newlines are kept.
inline std::string printable(std::string_view s, bool lines = false) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size();) {
    char32_t cp = 0;
    size_t const n = utf8Sequence(s.substr(i), cp);
    if (n != 0 && (!isControl(cp) || (lines && cp == '\n'))) {
      out.append(s, i, n);
    } else {
      for (size_t k = 0; k < (n ? n : 1); ++k) {
        out += fmt::format("\\x{:02x}", static_cast<unsigned char>(s[i + k]));
      }
    }
    i += n ? n : 1;
  }
  return out;
}

// `s` as a JSON string, quotes included, as told above.
inline std::string jsonString(std::string_view s) {
  std::string out = "\"";
  for (size_t i = 0; i < s.size();) {
    char32_t cp = 0;
    size_t const n = utf8Sequence(s.substr(i), cp);
    if (n == 0) {
      out += "\\ufffd";
      ++i;
      continue;
    }
    if (cp == '"') {
      out += "\\\"";
    } else if (cp == '\\') {
      out += "\\\\";
    } else if (cp == '\n') {
      out += "\\n";
    } else if (cp == '\t') {
      out += "\\t";
    } else if (isControl(cp)) {
      out += fmt::format("\\u{:04x}", static_cast<unsigned>(cp));
    } else {
      out.append(s, i, n);
    }
    i += n;
  }
  return out + "\"";
}

}  // namespace FlowtableCli
