// FlowTracking::HoFlowState: the hardware-offload state of a flow, one byte.
//
// Tables store the byte as it is, so any number 0..255 is a legal value; the
// named states print by name ("hoFlowStateOffloaded"), others as decimal
// numbers, and both forms parse back. The default is 0, hoFlowStateUnknown.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "FlowTracking/StrepFormatter.h"
#include "Zeb/Strep.h"
#include "Zeb/String.h"

namespace FlowTracking {

enum HoFlowState : uint8_t {
  hoFlowStateUnknown = 0,
  // Chosen for offload, not yet programmed into hardware.
  hoFlowStatePending = 1,
  hoFlowStateOffloaded = 2,
  // The hardware refused the flow (table full, unsupported).
  hoFlowStateFailed = 3,
  // Being taken out of hardware.
  hoFlowStateRemoving = 4,
  hoFlowStateRemoved = 5,
};

static_assert(sizeof(HoFlowState) == 1);

Zeb::String valueToStrep(HoFlowState const& v);
std::ostream& operator<<(std::ostream& os, HoFlowState v);
// Parses the state text at `it`; the pointer only selects the overload.
HoFlowState sequenceToValue(Zeb::StrepIt& it, Zeb::StrepIt const& end, HoFlowState*);

}  // namespace FlowTracking

template <>
FlowTracking::HoFlowState Zeb::deserializeAttr<FlowTracking::HoFlowState>(Zeb::StrepIt& it,
                                                                          Zeb::StrepIt const& end,
                                                                          char const* attrName);

FLOWTRACKING_STREP_FORMATTER(FlowTracking::HoFlowState);
