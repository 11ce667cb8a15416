// FlowTracking::HoIpFlowKey and HoIp6FlowKey: hash, trace text and strep.
#include "FlowTracking/HoFlowKey.h"

#include <ostream>
#include <sstream>

#include "Zeb/Hash.h"

namespace FlowTracking {

namespace {

template <typename K>
struct Names;
template <>
struct Names<HoIpFlowKey> {
  static constexpr char const* kOpen = "Value('FlowTracking::HoIpFlowKey', ** {";
  static constexpr char const* kFormat =
      "Value('FlowTracking::HoIpFlowKey', ** {'ipFlowKey': %s, 'intfId': %s})";
};
template <>
struct Names<HoIp6FlowKey> {
  static constexpr char const* kOpen = "Value('FlowTracking::HoIp6FlowKey', ** {";
  static constexpr char const* kFormat =
      "Value('FlowTracking::HoIp6FlowKey', ** {'ipFlowKey': %s, 'intfId': %s})";
};

template <typename K>
uint32_t hashKey(K const& k, unsigned int seed) {
  Zeb::Hash h(seed);
  uint32_t const inner = k.ipFlowKey().hash(0);
  h.hashMix<4>(&inner);
  uint32_t const intf = k.intfId().hash();
  h.hashMix<4>(&intf);
  return h.result();
}

template <typename K>
Zeb::String keyMirakString(K const& k) {
  std::ostringstream os;
  os << k.ipFlowKey().str() << ","
     << " intf: " << k.intfId();
  return Zeb::String(os.str());
}

template <typename K>
Zeb::String keyStrep(K const& k) {
  return Zeb::format(Names<K>::kFormat, valueToStrep(k.ipFlowKey()).c_str(),
                     valueToStrep(k.intfId()).c_str());
}

template <typename K>
K parseKey(Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  using FlowKey = typename K::FlowKey;
  Zeb::needString(it, end, Names<K>::kOpen);
  Zeb::needString(it, end, "'ipFlowKey': ");
  FlowKey flowKey;
  try {
    flowKey = FlowKey(it, end);
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, "ipFlowKey");
  }
  Zeb::needString(it, end, ", 'intfId': ");
  Nimbet::IntfId const intfId = Zeb::deserializeAttr<Nimbet::IntfId>(it, end, "intfId");
  Zeb::needString(it, end, "})");
  return K(flowKey, intfId);
}

}  // namespace

HoIpFlowKey::HoIpFlowKey(Zeb::StrepIt& it, Zeb::StrepIt const& end)
    : HoIpFlowKey(parseKey<HoIpFlowKey>(it, end)) {}
HoIp6FlowKey::HoIp6FlowKey(Zeb::StrepIt& it, Zeb::StrepIt const& end)
    : HoIp6FlowKey(parseKey<HoIp6FlowKey>(it, end)) {}

uint32_t HoIpFlowKey::hash(unsigned int seed) const noexcept {
  return hashKey(*this, seed);
}
uint32_t HoIp6FlowKey::hash(unsigned int seed) const noexcept {
  return hashKey(*this, seed);
}

Zeb::String HoIpFlowKey::mirakString() const {
  return keyMirakString(*this);
}
Zeb::String HoIp6FlowKey::mirakString() const {
  return keyMirakString(*this);
}

Zeb::String valueToStrep(HoIpFlowKey const& v) {
  return keyStrep(v);
}
Zeb::String valueToStrep(HoIp6FlowKey const& v) {
  return keyStrep(v);
}

std::ostream& operator<<(std::ostream& os, HoIpFlowKey const& v) {
  return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, HoIp6FlowKey const& v) {
  return os << valueToStrep(v);
}

}  // namespace FlowTracking
