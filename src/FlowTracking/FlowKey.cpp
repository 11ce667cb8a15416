// FlowTracking::IpFlowKey and Ip6FlowKey: hash, order, texts and parsers,
// written once in FlowKeyFields and instantiated for the two keys.
#include "FlowTracking/FlowKey.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ostream>
#include <tuple>

namespace FlowTracking {

namespace {

// The opening of the text form, which names the type, and the text of an
// address and port in str(): an IPv6 address is bracketed.
template <typename K>
struct Names;
template <>
struct Names<IpFlowKey> {
  static constexpr char const* kOpen = "Value('FlowTracking::IpFlowKey', ** {";
  static constexpr char const* kEndpoint = "{}:{}";
};
template <>
struct Names<Ip6FlowKey> {
  static constexpr char const* kOpen = "Value('FlowTracking::Ip6FlowKey', ** {";
  static constexpr char const* kEndpoint = "[{}]:{}";
};

// The hash of a flow key. The fields (never the bytes between them) are
// packed into 64-bit words at fixed bit positions, so keys that differ in a
// field differ in a word; the words are folded two at a time by a 64x64 ->
// 128-bit multiply whose halves are xored. Three dependent multiplies for an
// IPv4 key, where one mix per field of the word-at-a-time accumulator cost
// ten times that: every lookup hashes its key first, so this is on the
// reader's critical path.
constexpr uint64_t kFold0 = 0xa0761d6478bd642full;
constexpr uint64_t kFold1 = 0xe7037ed1a0b428dbull;
constexpr uint64_t kFold2 = 0x8ebc6af09c88c6e3ull;
constexpr uint64_t kFold3 = 0x589965cc75374cc3ull;

uint64_t fold(uint64_t a, uint64_t b) {
  unsigned __int128 const r = static_cast<unsigned __int128>(a) * b;
  return static_cast<uint64_t>(r) ^ static_cast<uint64_t>(r >> 64);
}

template <size_t N>
uint64_t addrWord(std::array<uint8_t, N> const& bytes, size_t at) {
  uint64_t w = 0;
  std::memcpy(&w, bytes.data() + at, std::min<size_t>(8, N - at));
  return w;
}

template <typename K>
uint32_t hashKey(K const& k, unsigned int seed) {
  uint64_t const ids = uint64_t{k.vrfId()} | uint64_t{static_cast<uint32_t>(k.ipProtocol())} << 32;
  uint64_t const small = uint64_t{k.srcPort()} | uint64_t{k.dstPort()} << 16 |
                         uint64_t{k.vlanId()} << 32 |
                         uint64_t{static_cast<uint8_t>(k.direction())} << 48;
  uint64_t h = fold(ids ^ seed ^ kFold0, small ^ kFold1);
  auto const& src = k.srcAddr().bytes();
  auto const& dst = k.dstAddr().bytes();
  if constexpr (sizeof(src) == 4) {
    h = fold(h ^ (addrWord(src, 0) | addrWord(dst, 0) << 32) ^ kFold2, kFold3);
  } else {
    static_assert(sizeof(src) == 16);
    h = fold(h ^ addrWord(src, 0) ^ kFold2, addrWord(src, 8) ^ kFold3);
    h = fold(h ^ addrWord(dst, 0) ^ kFold2, addrWord(dst, 8) ^ kFold3);
  }
  h = fold(h ^ kFold1, kFold3 ^ seed);
  return static_cast<uint32_t>(h ^ (h >> 32));
}

template <typename K>
auto fieldTuple(K const& k) {
  return std::make_tuple(k.vrfId(), k.vlanId(), k.srcAddr(), k.dstAddr(),
                         static_cast<uint32_t>(k.ipProtocol()), k.srcPort(), k.dstPort(),
                         static_cast<uint8_t>(k.direction()));
}

template <typename K>
Zeb::String keyStrep(typename K::FlowKeyFields const& k) {
  return Zeb::format(
      "%s'vrfId': %u, 'vlanId': %u, 'srcAddr': %s, 'dstAddr': %s, 'ipProtocol': %s, "
      "'srcPort': %u, 'dstPort': %u, 'direction': %s})",
      Names<K>::kOpen, static_cast<unsigned>(k.vrfId()), static_cast<unsigned>(k.vlanId()),
      valueToStrep(k.srcAddr()).c_str(), valueToStrep(k.dstAddr()).c_str(),
      valueToStrep(k.ipProtocol()).c_str(), static_cast<unsigned>(k.srcPort()),
      static_cast<unsigned>(k.dstPort()), valueToStrep(k.direction()).c_str());
}

template <typename K>
void parseKey(typename K::FlowKeyFields& k, Zeb::StrepIt& it, Zeb::StrepIt const& end) {
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
Zeb::String keyStr(typename K::FlowKeyFields const& k) {
  return Zeb::String(fmt::format(
      "vrf {} vlan {} {} {} -> {} {}", k.vrfId(), k.vlanId(), k.ipProtocol(),
      fmt::format(fmt::runtime(Names<K>::kEndpoint), k.srcAddr(), k.srcPort()),
      fmt::format(fmt::runtime(Names<K>::kEndpoint), k.dstAddr(), k.dstPort()), k.direction()));
}

}  // namespace

template <typename Self, typename A>
FlowKeyFields<Self, A>::FlowKeyFields(Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  parseKey<Self>(*this, it, end);
}

template <typename Self, typename A>
uint32_t FlowKeyFields<Self, A>::hash(unsigned int seed) const {
  return hashKey(*this, seed);
}

template <typename Self, typename A>
bool FlowKeyFields<Self, A>::operator==(FlowKeyFields const& o) const {
  return fieldTuple(*this) == fieldTuple(o);
}

template <typename Self, typename A>
bool FlowKeyFields<Self, A>::operator<(FlowKeyFields const& o) const {
  return fieldTuple(*this) < fieldTuple(o);
}

template <typename Self, typename A>
Zeb::String FlowKeyFields<Self, A>::str() const {
  return keyStr<Self>(*this);
}

template class FlowKeyFields<IpFlowKey, Nimbet::IpAddr>;
template class FlowKeyFields<Ip6FlowKey, Nimbet::Ip6Addr>;

Zeb::String valueToStrep(IpFlowKey const& v) {
  return keyStrep<IpFlowKey>(v);
}
Zeb::String valueToStrep(Ip6FlowKey const& v) {
  return keyStrep<Ip6FlowKey>(v);
}

std::ostream& operator<<(std::ostream& os, IpFlowKey const& v) {
  return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, Ip6FlowKey const& v) {
  return os << valueToStrep(v);
}

}  // namespace FlowTracking
