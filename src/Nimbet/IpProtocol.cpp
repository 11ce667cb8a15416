// Nimbet::IpProtocol and Nimbet::TrafficDirection: text forms.
#include "Nimbet/IpProtocol.h"

#include <ostream>

namespace Nimbet {

namespace {

constexpr Zeb::EnumName<IpProtocol> kProtocolNames[] = {
    {ipProtoIcmp, "ipProtoIcmp"},     {ipProtoIgmp, "ipProtoIgmp"},
    {ipProtoIpInIp, "ipProtoIpInIp"}, {ipProtoTcp, "ipProtoTcp"},
    {ipProtoUdp, "ipProtoUdp"},       {ipProtoIpv6, "ipProtoIpv6"},
    {ipProtoGre, "ipProtoGre"},       {ipProtoEsp, "ipProtoEsp"},
    {ipProtoAh, "ipProtoAh"},         {ipProtoIcmpv6, "ipProtoIcmpv6"},
    {ipProtoPim, "ipProtoPim"},       {ipProtoVrrp, "ipProtoVrrp"},
    {ipProtoSctp, "ipProtoSctp"},     {ipProtoUnknown, "ipProtoUnknown"},
};

constexpr Zeb::EnumName<TrafficDirection> kDirectionNames[] = {
    {trafficDirectionUnknown, "trafficDirectionUnknown"},
    {trafficDirectionIngress, "trafficDirectionIngress"},
    {trafficDirectionEgress, "trafficDirectionEgress"},
};

}  // namespace

Zeb::String valueToStrep(IpProtocol v) {
  return Zeb::String(Zeb::enumText(v, kProtocolNames));
}
Zeb::String valueToStrep(TrafficDirection v) {
  return Zeb::String(Zeb::enumText(v, kDirectionNames));
}

std::ostream& operator<<(std::ostream& os, IpProtocol v) {
  return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, TrafficDirection v) {
  return os << valueToStrep(v);
}

IpProtocol sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, IpProtocol*) {
  return Zeb::parseEnum(it, end, kProtocolNames, "an IP protocol (\"ipProtoTcp\" or a number)");
}

TrafficDirection sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, TrafficDirection*) {
  return Zeb::parseEnum(it, end, kDirectionNames,
                        "a traffic direction (\"trafficDirectionIngress\" or a number)");
}

}  // namespace Nimbet

template <>
Nimbet::IpProtocol Zeb::deserializeAttr<Nimbet::IpProtocol>(Zeb::StrepIt& it,
                                                            Zeb::StrepIt const& end,
                                                            char const* attrName) {
  try {
    return sequenceToValue(it, end, static_cast<Nimbet::IpProtocol*>(nullptr));
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, attrName);
  }
}

template <>
Nimbet::TrafficDirection Zeb::deserializeAttr<Nimbet::TrafficDirection>(Zeb::StrepIt& it,
                                                                        Zeb::StrepIt const& end,
                                                                        char const* attrName) {
  try {
    return sequenceToValue(it, end, static_cast<Nimbet::TrafficDirection*>(nullptr));
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, attrName);
  }
}
