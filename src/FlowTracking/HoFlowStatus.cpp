// FlowTracking::HoIpFlowStatus and HoIp6FlowStatus: comparison, trace text and
// strep, written once over the record type.
#include "FlowTracking/HoFlowStatus.h"

#include <ostream>
#include <sstream>

namespace FlowTracking {

namespace {

template <typename R>
struct Names;
template <>
struct Names<HoIpFlowStatus> {
  static constexpr char const* kOpen = "Value('FlowTracking::HoIpFlowStatus', ** {";
  static constexpr char const* kFormat =
      "Value('FlowTracking::HoIpFlowStatus', ** {'key': %s, 'hoFlowState': %s, "
      "'createTime': %s, 'updateTime': %s})";
};
template <>
struct Names<HoIp6FlowStatus> {
  static constexpr char const* kOpen = "Value('FlowTracking::HoIp6FlowStatus', ** {";
  static constexpr char const* kFormat =
      "Value('FlowTracking::HoIp6FlowStatus', ** {'key': %s, 'hoFlowState': %s, "
      "'createTime': %s, 'updateTime': %s})";
};

template <typename R>
bool equal(R const& a, R const& b) {
  return a.key() == b.key() && a.hoFlowState() == b.hoFlowState() &&
         a.createTime() == b.createTime() && a.updateTime() == b.updateTime();
}

template <typename R>
Zeb::String mirak(R const& r) {
  std::ostringstream os;
  os << "[" << r.key().mirakString() << "] "
     << " state: " << r.hoFlowState() << ","
     << " created: " << r.createTime() << ","
     << " updated: " << r.updateTime();
  return Zeb::String(os.str());
}

template <typename R>
Zeb::String strep(R const& r) {
  return Zeb::format(
      Names<R>::kFormat, valueToStrep(r.key()).c_str(), valueToStrep(r.hoFlowState()).c_str(),
      Zeb::valueToStrep(r.createTime()).c_str(), Zeb::valueToStrep(r.updateTime()).c_str());
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
  Zeb::needString(it, end, ", 'hoFlowState': ");
  r.hoFlowStateIs(Zeb::deserializeAttr<HoFlowState>(it, end, "hoFlowState"));
  Zeb::needString(it, end, ", 'createTime': ");
  r.createTimeIs(Zeb::deserializeAttr<Zeb::Seconds>(it, end, "createTime"));
  Zeb::needString(it, end, ", 'updateTime': ");
  r.updateTimeIs(Zeb::deserializeAttr<Zeb::Seconds>(it, end, "updateTime"));
  Zeb::needString(it, end, "})");
}

}  // namespace

HoIpFlowStatus::HoIpFlowStatus(Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  parse(*this, it, end);
}
HoIp6FlowStatus::HoIp6FlowStatus(Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  parse(*this, it, end);
}

bool HoIpFlowStatus::operator==(HoIpFlowStatus const& o) const {
  return equal(*this, o);
}
bool HoIp6FlowStatus::operator==(HoIp6FlowStatus const& o) const {
  return equal(*this, o);
}

Zeb::String HoIpFlowStatus::mirakString() const {
  return mirak(*this);
}
Zeb::String HoIp6FlowStatus::mirakString() const {
  return mirak(*this);
}

Zeb::String valueToStrep(HoIpFlowStatus const& v) {
  return strep(v);
}
Zeb::String valueToStrep(HoIp6FlowStatus const& v) {
  return strep(v);
}

std::ostream& operator<<(std::ostream& os, HoIpFlowStatus const& v) {
  return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, HoIp6FlowStatus const& v) {
  return os << valueToStrep(v);
}

}  // namespace FlowTracking
