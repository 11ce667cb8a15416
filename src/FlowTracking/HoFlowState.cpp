// FlowTracking::HoFlowState: names and text form.
#include "FlowTracking/HoFlowState.h"

#include <ostream>

namespace FlowTracking {

namespace {

constexpr Zeb::EnumName<HoFlowState> kStateNames[] = {
    {hoFlowStateUnknown, "hoFlowStateUnknown"},     {hoFlowStatePending, "hoFlowStatePending"},
    {hoFlowStateOffloaded, "hoFlowStateOffloaded"}, {hoFlowStateFailed, "hoFlowStateFailed"},
    {hoFlowStateRemoving, "hoFlowStateRemoving"},   {hoFlowStateRemoved, "hoFlowStateRemoved"},
};

}  // namespace

Zeb::String valueToStrep(HoFlowState const& v) {
  return Zeb::String(Zeb::enumText(v, kStateNames));
}

std::ostream& operator<<(std::ostream& os, HoFlowState v) {
  return os << valueToStrep(v);
}

HoFlowState sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, HoFlowState*) {
  return Zeb::parseEnum(it, end, kStateNames,
                        "an offload state (\"hoFlowStateOffloaded\" or 0..255)");
}

}  // namespace FlowTracking

template <>
FlowTracking::HoFlowState Zeb::deserializeAttr<FlowTracking::HoFlowState>(Zeb::StrepIt& it,
                                                                          Zeb::StrepIt const& end,
                                                                          char const* attrName) {
  try {
    return sequenceToValue(it, end, static_cast<FlowTracking::HoFlowState*>(nullptr));
  } catch (Zeb::RangeException const& e) {
    Zeb::rethrowFromDeserializeAttr(e, attrName);
  }
}
