// FlowTracking::HoIpFlowConfig and HoIp6FlowConfig: comparison, trace text and
// strep, written once over the record type.
#include "FlowTracking/HoFlowConfig.h"

#include <ostream>
#include <sstream>

#include "FlowTracking/RecordText.h"

namespace FlowTracking {

namespace {

template <typename R>
constexpr char const* kOpen = nullptr;
template <>
constexpr char const* kOpen<HoIpFlowConfig> = "Value('FlowTracking::HoIpFlowConfig', ** {";
template <>
constexpr char const* kOpen<HoIp6FlowConfig> = "Value('FlowTracking::HoIp6FlowConfig', ** {";

template <typename R>
Zeb::String strep(R const& r) {
  return Zeb::format(
      "%s'key': %s, 'createTime': %s, 'updateTime': %s, 'srcEthAddr': %s, 'dstEthAddr': %s, "
      "'dot1qVlanTag': %s, 'dot1qCustomerVlanTag': %s, 'cachedIntfId': %s})",
      kOpen<R>, valueToStrep(r.key()).c_str(), Zeb::valueToStrep(r.createTime()).c_str(),
      Zeb::valueToStrep(r.updateTime()).c_str(), valueToStrep(r.srcEthAddr()).c_str(),
      valueToStrep(r.dstEthAddr()).c_str(), valueToStrep(r.dot1qVlanTag()).c_str(),
      valueToStrep(r.dot1qCustomerVlanTag()).c_str(), valueToStrep(r.cachedIntfId()).c_str());
}

}  // namespace

template <typename Self, typename K>
HoFlowConfigFields<Self, K>::HoFlowConfigFields(Zeb::StrepIt& it, Zeb::StrepIt const& end)
    : key_(RecordText::openAndKey<Key>(it, end, kOpen<Self>)) {
  using RecordText::field;
  createTime_ = field<Zeb::Seconds>(it, end, ", 'createTime': ", "createTime");
  updateTime_ = field<Zeb::Seconds>(it, end, ", 'updateTime': ", "updateTime");
  srcEthAddr_ = field<Nimbet::EthAddr>(it, end, ", 'srcEthAddr': ", "srcEthAddr");
  dstEthAddr_ = field<Nimbet::EthAddr>(it, end, ", 'dstEthAddr': ", "dstEthAddr");
  dot1qVlanTag_ = field<Ovie::VlanTag>(it, end, ", 'dot1qVlanTag': ", "dot1qVlanTag");
  dot1qCustomerVlanTag_ =
      field<Ovie::VlanTag>(it, end, ", 'dot1qCustomerVlanTag': ", "dot1qCustomerVlanTag");
  cachedIntfId_ = field<Nimbet::IntfId>(it, end, ", 'cachedIntfId': ", "cachedIntfId");
  Zeb::needString(it, end, "})");
}

// Through the accessors, which copy: the fields of a packed record may stand
// misaligned for their type.
template <typename Self, typename K>
bool HoFlowConfigFields<Self, K>::operator==(HoFlowConfigFields const& o) const {
  return key() == o.key() && createTime() == o.createTime() && updateTime() == o.updateTime() &&
         srcEthAddr() == o.srcEthAddr() && dstEthAddr() == o.dstEthAddr() &&
         dot1qVlanTag() == o.dot1qVlanTag() && dot1qCustomerVlanTag() == o.dot1qCustomerVlanTag() &&
         cachedIntfId() == o.cachedIntfId();
}

template <typename Self, typename K>
Zeb::String HoFlowConfigFields<Self, K>::mirakString() const {
  std::ostringstream os;
  os << "[" << key().mirakString() << "] "
     << " srcEth: " << srcEthAddr() << ","
     << " dstEth: " << dstEthAddr() << ","
     << " created: " << createTime() << ","
     << " updateTime: " << updateTime();
  return Zeb::String(os.str());
}

template class HoFlowConfigFields<HoIpFlowConfig, HoIpFlowKey>;
template class HoFlowConfigFields<HoIp6FlowConfig, HoIp6FlowKey>;

Zeb::String valueToStrep(HoIpFlowConfig const& v) {
  return strep(v);
}
Zeb::String valueToStrep(HoIp6FlowConfig const& v) {
  return strep(v);
}

std::ostream& operator<<(std::ostream& os, HoIpFlowConfig const& v) {
  return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, HoIp6FlowConfig const& v) {
  return os << valueToStrep(v);
}

}  // namespace FlowTracking
