// FlowTracking::HoIpFlowCounter and HoIp6FlowCounter: comparison, trace text
// and strep, written once over the record type.
#include "FlowTracking/HoFlowCounter.h"

#include <ostream>
#include <sstream>

namespace FlowTracking {

namespace {

template <typename R>
struct Names;
template <>
struct Names<HoIpFlowCounter> {
  static constexpr char const* kOpen = "Value('FlowTracking::HoIpFlowCounter', ** {";
  static constexpr char const* kFormat =
      "Value('FlowTracking::HoIpFlowCounter', ** {'key': %s, 'intfId': %s, 'packets': %llu, "
      "'bytes': %llu, 'createTime': %s, 'updateTime': %s, 'hosEntries': %u})";
};
template <>
struct Names<HoIp6FlowCounter> {
  static constexpr char const* kOpen = "Value('FlowTracking::HoIp6FlowCounter', ** {";
  static constexpr char const* kFormat =
      "Value('FlowTracking::HoIp6FlowCounter', ** {'key': %s, 'intfId': %s, 'packets': %llu, "
      "'bytes': %llu, 'createTime': %s, 'updateTime': %s, 'hosEntries': %u})";
};

template <typename R>
bool equal(R const& a, R const& b) {
  return a.key() == b.key() && a.intfId() == b.intfId() && a.packets() == b.packets() &&
         a.bytes() == b.bytes() && a.createTime() == b.createTime() &&
         a.updateTime() == b.updateTime() && a.hosEntries() == b.hosEntries();
}

template <typename R>
Zeb::String mirak(R const& r) {
  std::ostringstream os;
  os << "[" << r.key().str() << "]"
     << " intf: " << r.intfId() << ","
     << " pkts: " << r.packets() << ","
     << " bytes: " << r.bytes() << ","
     << " hos: " << r.hosEntries() << ","
     << " created: " << r.createTime() << ","
     << " updated: " << r.updateTime();
  return Zeb::String(os.str());
}

template <typename R>
Zeb::String strep(R const& r) {
  return Zeb::format(Names<R>::kFormat, valueToStrep(r.key()).c_str(),
                     valueToStrep(r.intfId()).c_str(), r.packets(), r.bytes(),
                     Zeb::valueToStrep(r.createTime()).c_str(),
                     Zeb::valueToStrep(r.updateTime()).c_str(), r.hosEntries());
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
  Zeb::needString(it, end, ", 'intfId': ");
  r.intfIdIs(Zeb::deserializeAttr<Nimbet::IntfId>(it, end, "intfId"));
  Zeb::needString(it, end, ", 'packets': ");
  r.packetsIs(Zeb::deserializeAttr<unsigned long long>(it, end, "packets"));
  Zeb::needString(it, end, ", 'bytes': ");
  r.bytesIs(Zeb::deserializeAttr<unsigned long long>(it, end, "bytes"));
  Zeb::needString(it, end, ", 'createTime': ");
  r.createTimeIs(Zeb::deserializeAttr<Zeb::Seconds>(it, end, "createTime"));
  Zeb::needString(it, end, ", 'updateTime': ");
  r.updateTimeIs(Zeb::deserializeAttr<Zeb::Seconds>(it, end, "updateTime"));
  Zeb::needString(it, end, ", 'hosEntries': ");
  r.hosEntriesIs(Zeb::deserializeAttr<unsigned int>(it, end, "hosEntries"));
  Zeb::needString(it, end, "})");
}

}  // namespace

HoIpFlowCounter::HoIpFlowCounter(Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  parse(*this, it, end);
}
HoIp6FlowCounter::HoIp6FlowCounter(Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  parse(*this, it, end);
}

bool HoIpFlowCounter::operator==(HoIpFlowCounter const& o) const {
  return equal(*this, o);
}
bool HoIp6FlowCounter::operator==(HoIp6FlowCounter const& o) const {
  return equal(*this, o);
}

Zeb::String HoIpFlowCounter::mirakString() const {
  return mirak(*this);
}
Zeb::String HoIp6FlowCounter::mirakString() const {
  return mirak(*this);
}

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
