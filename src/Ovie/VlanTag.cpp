// Ovie::VlanTag: text form and its parser.
#include "Ovie/VlanTag.h"

#include <ostream>

namespace Ovie {

VlanTag::VlanTag(Zeb::StrepIt& it, Zeb::StrepIt const& end) : VlanTag() {
  Zeb::StrepIt const start = it;
  try {
    Zeb::needString(it, end, "VlanTag(tpid=0x");
    auto const tpid = static_cast<uint16_t>(Zeb::parseHex(it, end, 4, "4 hex digits of a TPID"));
    Zeb::needString(it, end, ",pcp=");
    auto const pcp = static_cast<uint8_t>(Zeb::parseUnsigned(it, end, 7, "a PCP 0..7"));
    Zeb::needString(it, end, ",dei=");
    auto const dei = static_cast<uint8_t>(Zeb::parseUnsigned(it, end, 1, "a DEI 0..1"));
    Zeb::needString(it, end, ",vid=");
    auto const vid = static_cast<uint16_t>(Zeb::parseUnsigned(it, end, 4095, "a VID 0..4095"));
    Zeb::needString(it, end, ",flags=0x");
    auto const flags = static_cast<uint8_t>(Zeb::parseHex(it, end, 2, "2 hex digits of flags"));
    Zeb::needString(it, end, ")");
    tpidIs(tpid);
    pcpIs(pcp);
    deiIs(dei);
    vidIs(vid);
    flagsIs(flags);
  } catch (Zeb::RangeException const& e) {
    it = start;
    throw Zeb::RangeException("bad VLAN tag: {}", e.msg());
  }
}

Zeb::String VlanTag::str() const {
  return Zeb::String(fmt::format("VlanTag(tpid={:#06x},pcp={},dei={},vid={},flags={:#04x})", tpid(),
                                 pcp(), dei(), vid(), flags()));
}

std::ostream& operator<<(std::ostream& os, VlanTag const& v) {
  return os << v.str();
}

Zeb::String valueToStrep(VlanTag const& v) {
  return v.str();
}

}  // namespace Ovie

template <>
Ovie::VlanTag Zeb::deserializeAttr<Ovie::VlanTag>(Zeb::StrepIt& it, Zeb::StrepIt const& end,
                                                  char const* attrName) {
  try {
    return Ovie::VlanTag(it, end);
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, attrName);
  }
}
