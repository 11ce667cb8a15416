// FlowTracking::HoIpFlowConfig and HoIp6FlowConfig: comparison, trace text and
// strep, written once over the record type.
#include "FlowTracking/HoFlowConfig.h"

#include <ostream>
#include <sstream>

namespace FlowTracking {

namespace {

template <typename R>
struct Names;
template <>
struct Names<HoIpFlowConfig> {
  static constexpr char const* kOpen = "Value('FlowTracking::HoIpFlowConfig', ** {";
  static constexpr char const* kFormat =
      "Value('FlowTracking::HoIpFlowConfig', ** {'key': %s, 'createTime': %s, 'updateTime': %s, "
      "'srcEthAddr': %s, 'dstEthAddr': %s, 'dot1qVlanTag': %s, 'dot1qCustomerVlanTag': %s, "
      "'cachedIntfId': %s})";
};
template <>
struct Names<HoIp6FlowConfig> {
  static constexpr char const* kOpen = "Value('FlowTracking::HoIp6FlowConfig', ** {";
  static constexpr char const* kFormat =
      "Value('FlowTracking::HoIp6FlowConfig', ** {'key': %s, 'createTime': %s, 'updateTime': %s, "
      "'srcEthAddr': %s, 'dstEthAddr': %s, 'dot1qVlanTag': %s, 'dot1qCustomerVlanTag': %s, "
      "'cachedIntfId': %s})";
};

template <typename R>
bool equal(R const& a, R const& b) {
  return a.key() == b.key() && a.createTime() == b.createTime() &&
         a.updateTime() == b.updateTime() && a.srcEthAddr() == b.srcEthAddr() &&
         a.dstEthAddr() == b.dstEthAddr() && a.dot1qVlanTag() == b.dot1qVlanTag() &&
         a.dot1qCustomerVlanTag() == b.dot1qCustomerVlanTag() &&
         a.cachedIntfId() == b.cachedIntfId();
}

template <typename R>
Zeb::String mirak(R const& r) {
  std::ostringstream os;
  os << "[" << r.key().mirakString() << "] "
     << " srcEth: " << r.srcEthAddr() << ","
     << " dstEth: " << r.dstEthAddr() << ","
     << " created: " << r.createTime() << ","
     << " updateTime: " << r.updateTime();
  return Zeb::String(os.str());
}

template <typename R>
Zeb::String strep(R const& r) {
  return Zeb::format(
      Names<R>::kFormat, valueToStrep(r.key()).c_str(), Zeb::valueToStrep(r.createTime()).c_str(),
      Zeb::valueToStrep(r.updateTime()).c_str(), valueToStrep(r.srcEthAddr()).c_str(),
      valueToStrep(r.dstEthAddr()).c_str(), valueToStrep(r.dot1qVlanTag()).c_str(),
      valueToStrep(r.dot1qCustomerVlanTag()).c_str(), valueToStrep(r.cachedIntfId()).c_str());
}

template <typename R>
void parse(R& r, Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  using Key = typename R::Key;
  Zeb::needString(it, end, Names<R>::kOpen);
  Zeb::needString(it, end, "'key': ");
  try {
    r = R(Key(it, end));
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, "key");
  }
  Zeb::needString(it, end, ", 'createTime': ");
  r.createTimeIs(Zeb::deserializeAttr<Zeb::Seconds>(it, end, "createTime"));
  Zeb::needString(it, end, ", 'updateTime': ");
  r.updateTimeIs(Zeb::deserializeAttr<Zeb::Seconds>(it, end, "updateTime"));
  Zeb::needString(it, end, ", 'srcEthAddr': ");
  r.srcEthAddrIs(Zeb::deserializeAttr<Nimbet::EthAddr>(it, end, "srcEthAddr"));
  Zeb::needString(it, end, ", 'dstEthAddr': ");
  r.dstEthAddrIs(Zeb::deserializeAttr<Nimbet::EthAddr>(it, end, "dstEthAddr"));
  Zeb::needString(it, end, ", 'dot1qVlanTag': ");
  r.dot1qVlanTagIs(Zeb::deserializeAttr<Ovie::VlanTag>(it, end, "dot1qVlanTag"));
  Zeb::needString(it, end, ", 'dot1qCustomerVlanTag': ");
  r.dot1qCustomerVlanTagIs(Zeb::deserializeAttr<Ovie::VlanTag>(it, end, "dot1qCustomerVlanTag"));
  Zeb::needString(it, end, ", 'cachedIntfId': ");
  r.cachedIntfIdIs(Zeb::deserializeAttr<Nimbet::IntfId>(it, end, "cachedIntfId"));
  Zeb::needString(it, end, "})");
}

}  // namespace

HoIpFlowConfig::HoIpFlowConfig(Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  parse(*this, it, end);
}
HoIp6FlowConfig::HoIp6FlowConfig(Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  parse(*this, it, end);
}

bool HoIpFlowConfig::operator==(HoIpFlowConfig const& o) const {
  return equal(*this, o);
}
bool HoIp6FlowConfig::operator==(HoIp6FlowConfig const& o) const {
  return equal(*this, o);
}

Zeb::String HoIpFlowConfig::mirakString() const {
  return mirak(*this);
}
Zeb::String HoIp6FlowConfig::mirakString() const {
  return mirak(*this);
}

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
