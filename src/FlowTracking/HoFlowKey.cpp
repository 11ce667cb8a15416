// FlowTracking::HoIpFlowKey and HoIp6FlowKey: hash, trace text and strep.
#include "FlowTracking/HoFlowKey.h"

#include <ostream>
#include <sstream>

#include "Zeb/Hash.h"

namespace FlowTracking {

namespace {

// The opening of the text form, which names the type.
template <typename K>
constexpr char const* kOpen = nullptr;
template <>
constexpr char const* kOpen<HoIpFlowKey> = "Value('FlowTracking::HoIpFlowKey', ** {";
template <>
constexpr char const* kOpen<HoIp6FlowKey> = "Value('FlowTracking::HoIp6FlowKey', ** {";

template <typename K>
Zeb::String keyStrep(K const& k) {
  return Zeb::format("%s'ipFlowKey': %s, 'intfId': %s})", kOpen<K>,
                     valueToStrep(k.ipFlowKey()).c_str(), valueToStrep(k.intfId()).c_str());
}

}  // namespace

template <typename Self, typename F>
HoFlowKeyFields<Self, F>::HoFlowKeyFields(Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  Zeb::needString(it, end, kOpen<Self>);
  Zeb::needString(it, end, "'ipFlowKey': ");
  try {
    ipFlowKey_ = FlowKey(it, end);
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, "ipFlowKey");
  }
  Zeb::needString(it, end, ", 'intfId': ");
  intfId_ = Zeb::deserializeAttr<Nimbet::IntfId>(it, end, "intfId");
  Zeb::needString(it, end, "})");
}

template <typename Self, typename F>
uint32_t HoFlowKeyFields<Self, F>::hash(unsigned int seed) const noexcept {
  Zeb::Hash h(seed);
  uint32_t const inner = ipFlowKey_.hash(0);
  h.hashMix<4>(&inner);
  uint32_t const intf = intfId_.hash();
  h.hashMix<4>(&intf);
  return h.result();
}

template <typename Self, typename F>
Zeb::String HoFlowKeyFields<Self, F>::mirakString() const {
  std::ostringstream os;
  os << ipFlowKey_.str() << ","
     << " intf: " << intfId_;
  return Zeb::String(os.str());
}

template class HoFlowKeyFields<HoIpFlowKey, IpFlowKey>;
template class HoFlowKeyFields<HoIp6FlowKey, Ip6FlowKey>;

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
