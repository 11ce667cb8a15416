// Nimbet::IpAddr and Nimbet::Ip6Addr: text forms.
#include "Nimbet/IpAddr.h"

#include <arpa/inet.h>

#include <ostream>
#include <string>

namespace Nimbet {

namespace {

constexpr size_t kIp6TextMax = INET6_ADDRSTRLEN - 1;

bool isIp6Char(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') || c == ':' ||
         c == '.';
}

}  // namespace

Zeb::String IpAddr::str() const {
  return Zeb::String(fmt::format("{}.{}.{}.{}", bytes_[0], bytes_[1], bytes_[2], bytes_[3]));
}

Zeb::String Ip6Addr::str() const {
  char buf[INET6_ADDRSTRLEN];
  if (inet_ntop(AF_INET6, bytes_.data(), buf, sizeof buf) == nullptr) {
    // Cannot happen with a buffer of INET6_ADDRSTRLEN; keep a parseable text.
    return Zeb::String("::");
  }
  return Zeb::String(buf);
}

std::ostream& operator<<(std::ostream& os, IpAddr const& v) {
  return os << v.str();
}
std::ostream& operator<<(std::ostream& os, Ip6Addr const& v) {
  return os << v.str();
}
Zeb::String valueToStrep(IpAddr const& v) {
  return v.str();
}
Zeb::String valueToStrep(Ip6Addr const& v) {
  return v.str();
}

IpAddr sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, IpAddr*) {
  Zeb::StrepIt const start = it;
  IpAddr::Bytes b{};
  try {
    for (size_t i = 0; i < b.size(); i++) {
      if (i != 0) Zeb::needString(it, end, ".");
      Zeb::StrepIt const numberAt = it;
      b[i] = static_cast<uint8_t>(Zeb::parseUnsigned(it, end, 255, "a number 0..255"));
      if (*numberAt == '0' && it - numberAt > 1) {
        throw Zeb::RangeException("leading zero at offset {}", numberAt.position());
      }
    }
  } catch (Zeb::RangeException const& e) {
    it = start;
    throw Zeb::RangeException("bad IPv4 address: {}", e.msg());
  }
  return IpAddr(b);
}

Ip6Addr sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, Ip6Addr*) {
  std::string_view const rest = it.rest(end);
  size_t n = 0;
  while (n < rest.size() && n <= kIp6TextMax && isIp6Char(rest[n])) n++;
  std::string const text(rest.substr(0, n));
  Ip6Addr::Bytes b{};
  if (n == 0 || n > kIp6TextMax || inet_pton(AF_INET6, text.c_str(), b.data()) != 1) {
    Zeb::throwExpected(it, end, "an IPv6 address");
  }
  it += static_cast<std::ptrdiff_t>(n);
  return Ip6Addr(b);
}

}  // namespace Nimbet

template <>
Nimbet::IpAddr Zeb::deserializeAttr<Nimbet::IpAddr>(Zeb::StrepIt& it, Zeb::StrepIt const& end,
                                                    char const* attrName) {
  try {
    return sequenceToValue(it, end, static_cast<Nimbet::IpAddr*>(nullptr));
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, attrName);
  }
}

template <>
Nimbet::Ip6Addr Zeb::deserializeAttr<Nimbet::Ip6Addr>(Zeb::StrepIt& it, Zeb::StrepIt const& end,
                                                      char const* attrName) {
  try {
    return sequenceToValue(it, end, static_cast<Nimbet::Ip6Addr*>(nullptr));
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, attrName);
  }
}
