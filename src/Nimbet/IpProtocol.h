// Nimbet::IpProtocol: the IP protocol of a flow, stored as a u32 word.
// Nimbet::TrafficDirection: the direction of a flow through the switch, a u8.
//
// Both may hold numbers that have no enumerator (a table file can hold any
// word); such values print as decimal numbers and parse back. Named values
// print as their enumerator's name ("ipProtoTcp", "trafficDirectionIngress").
#pragma once

#include <cstdint>
#include <iosfwd>

#include <fmt/format.h>

#include "Zeb/Strep.h"
#include "Zeb/String.h"

namespace Nimbet {

enum IpProtocol : uint32_t {
  ipProtoIcmp = 1,
  ipProtoIgmp = 2,
  ipProtoIpInIp = 4,
  ipProtoTcp = 6,
  ipProtoUdp = 17,
  ipProtoIpv6 = 41,
  ipProtoGre = 47,
  ipProtoEsp = 50,
  ipProtoAh = 51,
  ipProtoIcmpv6 = 58,
  ipProtoPim = 103,
  ipProtoVrrp = 112,
  ipProtoSctp = 132,
  ipProtoUnknown = 255,
};

enum TrafficDirection : uint8_t {
  trafficDirectionUnknown = 0,
  trafficDirectionIngress = 1,
  trafficDirectionEgress = 2,
};

static_assert(sizeof(IpProtocol) == 4 && sizeof(TrafficDirection) == 1);

std::ostream& operator<<(std::ostream& os, IpProtocol v);
std::ostream& operator<<(std::ostream& os, TrafficDirection v);
Zeb::String valueToStrep(IpProtocol v);
Zeb::String valueToStrep(TrafficDirection v);
IpProtocol sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, IpProtocol*);
TrafficDirection sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, TrafficDirection*);

}  // namespace Nimbet

template <>
Nimbet::IpProtocol Zeb::deserializeAttr<Nimbet::IpProtocol>(Zeb::StrepIt& it,
                                                            Zeb::StrepIt const& end,
                                                            char const* attrName);
template <>
Nimbet::TrafficDirection Zeb::deserializeAttr<Nimbet::TrafficDirection>(Zeb::StrepIt& it,
                                                                        Zeb::StrepIt const& end,
                                                                        char const* attrName);

template <>
struct fmt::formatter<Nimbet::IpProtocol> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Nimbet::IpProtocol v, Ctx& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(valueToStrep(v)), ctx);
  }
};
template <>
struct fmt::formatter<Nimbet::TrafficDirection> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Nimbet::TrafficDirection v, Ctx& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(valueToStrep(v)), ctx);
  }
};
