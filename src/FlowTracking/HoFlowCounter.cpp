// FlowTracking::HoIpFlowCounter and HoIp6FlowCounter: comparison, trace text
// and strep, written once over the record type.
#include "FlowTracking/HoFlowCounter.h"

#include <ostream>
#include <sstream>

#include "FlowTracking/RecordText.h"

namespace FlowTracking {

namespace {

template <typename R>
constexpr char const* kOpen = nullptr;
template <>
constexpr char const* kOpen<HoIpFlowCounter> = "Value('FlowTracking::HoIpFlowCounter', ** {";
template <>
constexpr char const* kOpen<HoIp6FlowCounter> = "Value('FlowTracking::HoIp6FlowCounter', ** {";

template <typename R>
Zeb::String strep(R const& r) {
  return Zeb::format(
      "%s'key': %s, 'intfId': %s, 'packets': %llu, 'bytes': %llu, 'createTime': %s, "
      "'updateTime': %s, 'hosEntries': %u})",
      kOpen<R>, valueToStrep(r.key()).c_str(), valueToStrep(r.intfId()).c_str(), r.packets(),
      r.bytes(), Zeb::valueToStrep(r.createTime()).c_str(),
      Zeb::valueToStrep(r.updateTime()).c_str(), r.hosEntries());
}

}  // namespace

template <typename Self, typename K>
HoFlowCounterFields<Self, K>::HoFlowCounterFields(Zeb::StrepIt& it, Zeb::StrepIt const& end)
    : key_(RecordText::openAndKey<Key>(it, end, kOpen<Self>)) {
  using RecordText::field;
  intfId_ = field<Nimbet::IntfId>(it, end, ", 'intfId': ", "intfId");
  packets_ = field<unsigned long long>(it, end, ", 'packets': ", "packets");
  bytes_ = field<unsigned long long>(it, end, ", 'bytes': ", "bytes");
  createTime_ = field<Zeb::Seconds>(it, end, ", 'createTime': ", "createTime");
  updateTime_ = field<Zeb::Seconds>(it, end, ", 'updateTime': ", "updateTime");
  hosEntries_ = field<unsigned int>(it, end, ", 'hosEntries': ", "hosEntries");
  Zeb::needString(it, end, "})");
}

// Through the accessors, which copy: the fields of a packed record may stand
// misaligned for their type.
template <typename Self, typename K>
bool HoFlowCounterFields<Self, K>::operator==(HoFlowCounterFields const& o) const {
  return key() == o.key() && intfId() == o.intfId() && packets() == o.packets() &&
         bytes() == o.bytes() && createTime() == o.createTime() && updateTime() == o.updateTime() &&
         hosEntries() == o.hosEntries();
}

template <typename Self, typename K>
Zeb::String HoFlowCounterFields<Self, K>::mirakString() const {
  std::ostringstream os;
  os << "[" << key().str() << "]"
     << " intf: " << intfId() << ","
     << " pkts: " << packets() << ","
     << " bytes: " << bytes() << ","
     << " hos: " << hosEntries() << ","
     << " created: " << createTime() << ","
     << " updated: " << updateTime();
  return Zeb::String(os.str());
}

template class HoFlowCounterFields<HoIpFlowCounter, IpFlowKey>;
template class HoFlowCounterFields<HoIp6FlowCounter, Ip6FlowKey>;

Zeb::String valueToStrep(HoIpFlowCounter const& v) {
  return strep(v);
}
Zeb::String valueToStrep(HoIp6FlowCounter const& v) {
  return strep(v);
}

std::ostream& operator<<(std::ostream& os, HoIpFlowCounter const& v) {
  return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, HoIp6FlowCounter const& v) {
  return os << valueToStrep(v);
}

}  // namespace FlowTracking
