// The flow keys in the generic interface: HoIpFlowKey and HoIp6FlowKey, each
// the one type of its module (_HoFlow and _Ho6Flow).
#include "FlowTracking/ModuleTypes.h"

namespace FlowTracking::ModuleImpl {
namespace {

// The attributes of a flow key: the flow key and its fields, the interface.
struct FlowKeyAttr {
  enum : AttributeId {
    ipFlowKey = kFirstAttribute,
    vrfId,
    vlanId,
    srcAddr,
    dstAddr,
    ipProtocol,
    srcPort,
    dstPort,
    direction,
    ipProtocolNumber,
    intfId,
    mirakString,
  };
};

template <typename K>
int hoFlowKeyOp(void* result, void* object, AttributeId attribute, AttributeOp op, void const*,
                void const* argument) {
  K& k = *static_cast<K*>(object);
  auto const& f = k.ipFlowKey();
  switch (attribute) {
    case kValueItself:
      return valueOp<K, true>(result, op, k, argument);
    case FlowKeyAttr::ipFlowKey:
      return readOnly(result, op, f);
    case FlowKeyAttr::vrfId:
      return readOnly(result, op, f.vrfId());
    case FlowKeyAttr::vlanId:
      return readOnly(result, op, f.vlanId());
    case FlowKeyAttr::srcAddr:
      return readOnly(result, op, f.srcAddr());
    case FlowKeyAttr::dstAddr:
      return readOnly(result, op, f.dstAddr());
    case FlowKeyAttr::ipProtocol:
      return readOnly(result, op, f.ipProtocol());
    case FlowKeyAttr::srcPort:
      return readOnly(result, op, f.srcPort());
    case FlowKeyAttr::dstPort:
      return readOnly(result, op, f.dstPort());
    case FlowKeyAttr::direction:
      return readOnly(result, op, f.direction());
    case FlowKeyAttr::ipProtocolNumber:
      return readOnly(result, op, f.ipProtocolNumber());
    case FlowKeyAttr::intfId:
      return readOnly(result, op, k.intfId());
    case FlowKeyAttr::mirakString:
      return mirakStringOp(result, op, k);
    default:
      return unknownAttribute;
  }
}

constexpr std::array<AttributeInfo, 12> keyAttrs(char const* flowKeyName, char const* addrName) {
  return {{
      {FlowKeyAttr::ipFlowKey, "ipFlowKey", Kind::ctorField, flowKeyName},
      {FlowKeyAttr::vrfId, "vrfId", Kind::flowKeyField, "FlowTracking::VrfId"},
      {FlowKeyAttr::vlanId, "vlanId", Kind::flowKeyField, "FlowTracking::VlanId"},
      {FlowKeyAttr::srcAddr, "srcAddr", Kind::flowKeyField, addrName},
      {FlowKeyAttr::dstAddr, "dstAddr", Kind::flowKeyField, addrName},
      {FlowKeyAttr::ipProtocol, "ipProtocol", Kind::flowKeyField, "Nimbet::IpProtocol"},
      {FlowKeyAttr::srcPort, "srcPort", Kind::flowKeyField, "U16"},
      {FlowKeyAttr::dstPort, "dstPort", Kind::flowKeyField, "U16"},
      {FlowKeyAttr::direction, "direction", Kind::flowKeyField, "Nimbet::TrafficDirection"},
      {FlowKeyAttr::ipProtocolNumber, "ipProtocolNumber", Kind::flowKeyField, "U8"},
      {FlowKeyAttr::intfId, "intfId", Kind::ctorField, "Nimbet::IntfId"},
      {FlowKeyAttr::mirakString, "mirakString", Kind::valueFunction, "Zeb::String"},
  }};
}

constinit std::array<AttributeInfo, 12> const hoIpFlowKeyAttrs =
    keyAttrs("FlowTracking::IpFlowKey", "Nimbet::IpAddr");
constinit std::array<AttributeInfo, 12> const hoIp6FlowKeyAttrs =
    keyAttrs("FlowTracking::Ip6FlowKey", "Nimbet::Ip6Addr");

}  // namespace

Zeb::ZebTypeBase hoIpFlowKeyType() {
  return valueType<HoIpFlowKey>("FlowTracking::HoIpFlowKey", Zeb::kFlagsValue, hoIpFlowKeyAttrs,
                                &keyFromCtorArgs<HoIpFlowKey>, &hoFlowKeyOp<HoIpFlowKey>);
}

Zeb::ZebTypeBase hoIp6FlowKeyType() {
  return valueType<HoIp6FlowKey>("FlowTracking::HoIp6FlowKey", Zeb::kFlagsValue, hoIp6FlowKeyAttrs,
                                 &keyFromCtorArgs<HoIp6FlowKey>, &hoFlowKeyOp<HoIp6FlowKey>);
}

}  // namespace FlowTracking::ModuleImpl
