// FlowTracking::HoIpFlowStatus and HoIp6FlowStatus: comparison, trace text and
// strep, written once over the record type.
#include "FlowTracking/HoFlowStatus.h"

#include <ostream>
#include <sstream>

#include "FlowTracking/RecordText.h"

namespace FlowTracking {

namespace {

template <typename R>
constexpr char const* kOpen = nullptr;
template <>
constexpr char const* kOpen<HoIpFlowStatus> = "Value('FlowTracking::HoIpFlowStatus', ** {";
template <>
constexpr char const* kOpen<HoIp6FlowStatus> = "Value('FlowTracking::HoIp6FlowStatus', ** {";

template <typename R>
Zeb::String strep(R const& r) {
  return Zeb::format("%s'key': %s, 'hoFlowState': %s, 'createTime': %s, 'updateTime': %s})",
                     kOpen<R>, valueToStrep(r.key()).c_str(), valueToStrep(r.hoFlowState()).c_str(),
                     Zeb::valueToStrep(r.createTime()).c_str(),
                     Zeb::valueToStrep(r.updateTime()).c_str());
}

}  // namespace

template <typename Self, typename K>
HoFlowStatusFields<Self, K>::HoFlowStatusFields(Zeb::StrepIt& it, Zeb::StrepIt const& end)
    : key_(RecordText::openAndKey<Key>(it, end, kOpen<Self>)) {
  using RecordText::field;
  hoFlowState_ = field<HoFlowState>(it, end, ", 'hoFlowState': ", "hoFlowState");
  createTime_ = field<Zeb::Seconds>(it, end, ", 'createTime': ", "createTime");
  updateTime_ = field<Zeb::Seconds>(it, end, ", 'updateTime': ", "updateTime");
  Zeb::needString(it, end, "})");
}

template <typename Self, typename K>
bool HoFlowStatusFields<Self, K>::operator==(HoFlowStatusFields const& o) const {
  return key() == o.key() && hoFlowState() == o.hoFlowState() && createTime() == o.createTime() &&
         updateTime() == o.updateTime();
}

template <typename Self, typename K>
Zeb::String HoFlowStatusFields<Self, K>::mirakString() const {
  std::ostringstream os;
  os << "[" << key().mirakString() << "] "
     << " state: " << hoFlowState() << ","
     << " created: " << createTime() << ","
     << " updated: " << updateTime();
  return Zeb::String(os.str());
}

template class HoFlowStatusFields<HoIpFlowStatus, HoIpFlowKey>;
template class HoFlowStatusFields<HoIp6FlowStatus, HoIp6FlowKey>;

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
