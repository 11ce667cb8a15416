// FlowTracking::IpFlowKey and Ip6FlowKey: hash, order, texts and parsers. The
// two keys differ only in their address type, so each operation is written
// once as a template over the key.
#include "FlowTracking/FlowKey.h"

#include <ostream>
#include <tuple>

#include "Zeb/Hash.h"

namespace FlowTracking {

namespace {

template <typename K>
struct Names;
template <>
struct Names<IpFlowKey> {
  static constexpr char const* kOpen = "Value('FlowTracking::IpFlowKey', ** {";
  static constexpr char const* kFormat =
      "Value('FlowTracking::IpFlowKey', ** {'vrfId': %u, 'vlanId': %u, 'srcAddr': %s, "
      "'dstAddr': %s, 'ipProtocol': %s, 'srcPort': %u, 'dstPort': %u, 'direction': %s})";
  static constexpr char const* kEndpoint = "{}:{}";
};
template <>
struct Names<Ip6FlowKey> {
  static constexpr char const* kOpen = "Value('FlowTracking::Ip6FlowKey', ** {";
  static constexpr char const* kFormat =
      "Value('FlowTracking::Ip6FlowKey', ** {'vrfId': %u, 'vlanId': %u, 'srcAddr': %s, "
      "'dstAddr': %s, 'ipProtocol': %s, 'srcPort': %u, 'dstPort': %u, 'direction': %s})";
  static constexpr char const* kEndpoint = "[{}]:{}";
};

void mixU16(Zeb::Hash& h, uint16_t v) {
  uint8_t const lo = static_cast<uint8_t>(v);
  uint8_t const hi = static_cast<uint8_t>(v >> 8);
  h.hashMix<1>(&lo);
  h.hashMix<1>(&hi);
}

template <typename Addr>
void mixAddr(Zeb::Hash& h, Addr const& a) {
  static_assert(sizeof(typename Addr::Bytes) % 4 == 0);
  for (size_t i = 0; i < a.bytes().size(); i += 4) h.hashMix<4>(a.bytes().data() + i);
}

template <typename K>
uint32_t hashKey(K const& k, unsigned int seed) {
  Zeb::Hash h(seed);
  uint32_t const vrf = k.vrfId();
  h.hashMix<4>(&vrf);
  mixU16(h, k.vlanId());
  mixAddr(h, k.srcAddr());
  mixAddr(h, k.dstAddr());
  uint32_t const proto = k.ipProtocol();
  h.hashMix<4>(&proto);
  mixU16(h, k.srcPort());
  mixU16(h, k.dstPort());
  uint8_t const dir = k.direction();
  h.hashMix<1>(&dir);
  return h.result();
}

template <typename K>
auto fieldTuple(K const& k) {
  return std::make_tuple(k.vrfId(), k.vlanId(), k.srcAddr(), k.dstAddr(),
                         static_cast<uint32_t>(k.ipProtocol()), k.srcPort(), k.dstPort(),
                         static_cast<uint8_t>(k.direction()));
}

template <typename K>
Zeb::String keyStrep(K const& k) {
  return Zeb::format(Names<K>::kFormat, static_cast<unsigned>(k.vrfId()),
                     static_cast<unsigned>(k.vlanId()), valueToStrep(k.srcAddr()).c_str(),
                     valueToStrep(k.dstAddr()).c_str(), valueToStrep(k.ipProtocol()).c_str(),
                     static_cast<unsigned>(k.srcPort()), static_cast<unsigned>(k.dstPort()),
                     valueToStrep(k.direction()).c_str());
}

template <typename K>
void parseKey(K& k, Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  using Addr = typename K::Addr;
  Zeb::needString(it, end, Names<K>::kOpen);
  Zeb::needString(it, end, "'vrfId': ");
  k.vrfIdIs(Zeb::deserializeAttr<unsigned int>(it, end, "vrfId"));
  Zeb::needString(it, end, ", 'vlanId': ");
  k.vlanIdIs(Zeb::deserializeAttr<unsigned short>(it, end, "vlanId"));
  Zeb::needString(it, end, ", 'srcAddr': ");
  k.srcAddrIs(Zeb::deserializeAttr<Addr>(it, end, "srcAddr"));
  Zeb::needString(it, end, ", 'dstAddr': ");
  k.dstAddrIs(Zeb::deserializeAttr<Addr>(it, end, "dstAddr"));
  Zeb::needString(it, end, ", 'ipProtocol': ");
  k.ipProtocolIs(Zeb::deserializeAttr<Nimbet::IpProtocol>(it, end, "ipProtocol"));
  Zeb::needString(it, end, ", 'srcPort': ");
  k.srcPortIs(Zeb::deserializeAttr<unsigned short>(it, end, "srcPort"));
  Zeb::needString(it, end, ", 'dstPort': ");
  k.dstPortIs(Zeb::deserializeAttr<unsigned short>(it, end, "dstPort"));
  Zeb::needString(it, end, ", 'direction': ");
  k.directionIs(Zeb::deserializeAttr<Nimbet::TrafficDirection>(it, end, "direction"));
  Zeb::needString(it, end, "})");
}

template <typename K>
Zeb::String keyStr(K const& k) {
  return Zeb::String(fmt::format(
      "vrf {} vlan {} {} {} -> {} {}", k.vrfId(), k.vlanId(), k.ipProtocol(),
      fmt::format(fmt::runtime(Names<K>::kEndpoint), k.srcAddr(), k.srcPort()),
      fmt::format(fmt::runtime(Names<K>::kEndpoint), k.dstAddr(), k.dstPort()), k.direction()));
}

}  // namespace

IpFlowKey::IpFlowKey(Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  parseKey(*this, it, end);
}
Ip6FlowKey::Ip6FlowKey(Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  parseKey(*this, it, end);
}

uint32_t IpFlowKey::hash(unsigned int seed) const {
  return hashKey(*this, seed);
}
uint32_t Ip6FlowKey::hash(unsigned int seed) const {
  return hashKey(*this, seed);
}

bool IpFlowKey::operator==(IpFlowKey const& o) const {
  return fieldTuple(*this) == fieldTuple(o);
}
bool Ip6FlowKey::operator==(Ip6FlowKey const& o) const {
  return fieldTuple(*this) == fieldTuple(o);
}
bool IpFlowKey::operator<(IpFlowKey const& o) const {
  return fieldTuple(*this) < fieldTuple(o);
}
bool Ip6FlowKey::operator<(Ip6FlowKey const& o) const {
  return fieldTuple(*this) < fieldTuple(o);
}

Zeb::String IpFlowKey::str() const {
  return keyStr(*this);
}
Zeb::String Ip6FlowKey::str() const {
  return keyStr(*this);
}

Zeb::String valueToStrep(IpFlowKey const& v) {
  return keyStrep(v);
}
Zeb::String valueToStrep(Ip6FlowKey const& v) {
  return keyStrep(v);
}

std::ostream& operator<<(std::ostream& os, IpFlowKey const& v) {
  return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, Ip6FlowKey const& v) {
  return os << valueToStrep(v);
}

}  // namespace FlowTracking
