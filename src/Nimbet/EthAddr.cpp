// Nimbet::EthAddr: text form.
#include "Nimbet/EthAddr.h"

#include <ostream>

namespace Nimbet {

Zeb::String EthAddr::str() const {
  auto const& b = bytes_;
  return Zeb::String(
      fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", b[0], b[1], b[2], b[3], b[4], b[5]));
}

std::ostream& operator<<(std::ostream& os, EthAddr const& v) {
  return os << v.str();
}

Zeb::String valueToStrep(EthAddr const& v) {
  return v.str();
}

EthAddr sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, EthAddr*) {
  Zeb::StrepIt const start = it;
  EthAddr::Bytes b{};
  try {
    for (size_t i = 0; i < b.size(); i++) {
      if (i != 0) Zeb::needString(it, end, ":");
      b[i] =
          static_cast<uint8_t>(Zeb::parseHex(it, end, 2, "two hex digits of an Ethernet address"));
    }
  } catch (Zeb::RangeException const& e) {
    it = start;
    throw Zeb::RangeException("bad Ethernet address \"xx:xx:xx:xx:xx:xx\": {}", e.msg());
  }
  return EthAddr(b);
}

}  // namespace Nimbet

template <>
Nimbet::EthAddr Zeb::deserializeAttr<Nimbet::EthAddr>(Zeb::StrepIt& it, Zeb::StrepIt const& end,
                                                      char const* attrName) {
  try {
    return sequenceToValue(it, end, static_cast<Nimbet::EthAddr*>(nullptr));
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, attrName);
  }
}
