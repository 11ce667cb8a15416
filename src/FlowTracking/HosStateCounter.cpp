// FlowTracking::HosStateCounterKey and HosStateCounterEntry: hash, trace texts
// and streps.
#include "FlowTracking/HosStateCounter.h"

#include <ostream>
#include <sstream>

#include "Zeb/Hash.h"

namespace FlowTracking {

HosStateCounterKey::HosStateCounterKey(Zeb::StrepIt& it, Zeb::StrepIt const& end)
    : key_(Zeb::deserializeAttr<HoFlowState>(it, end, "key")) {}

uint32_t mirakHash(HosStateCounterKey key, unsigned int seed) noexcept {
  return Zeb::hashSingleAttr<unsigned char>(seed, static_cast<unsigned char>(key.key()));
}

Zeb::String HosStateCounterKey::mirakString() const {
  std::ostringstream os;
  os << " HosStateCounterKey: " << key_;
  return Zeb::String(os.str());
}

HosStateCounterEntry::HosStateCounterEntry(Zeb::StrepIt& it, Zeb::StrepIt const& end) {
  Zeb::needString(it, end, "Value('FlowTracking::HosStateCounterEntry', ** {");
  Zeb::needString(it, end, "'key': ");
  try {
    key_ = Key(it, end);
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, "key");
  }
  Zeb::needString(it, end, ", 'hoFlows': ");
  hoFlows_ = Zeb::deserializeAttr<unsigned int>(it, end, "hoFlows");
  Zeb::needString(it, end, "})");
}

Zeb::String HosStateCounterEntry::mirakString() const {
  std::ostringstream os;
  os << "[" << key_ << "]"
     << " hoFlows: " << hoFlows_;
  return Zeb::String(os.str());
}

Zeb::String valueToStrep(HosStateCounterKey const& v) {
  return valueToStrep(v.key());
}

Zeb::String valueToStrep(HosStateCounterEntry const& v) {
  return Zeb::format("Value('FlowTracking::HosStateCounterEntry', ** {'key': %s, 'hoFlows': %u})",
                     valueToStrep(v.key()).c_str(), v.hoFlows());
}

std::ostream& operator<<(std::ostream& os, HosStateCounterKey const& v) {
  return os << valueToStrep(v);
}
std::ostream& operator<<(std::ostream& os, HosStateCounterEntry const& v) {
  return os << valueToStrep(v);
}

}  // namespace FlowTracking
