// The counters by state in the generic interface: HosStateCounterKey,
// HosStateCounterEntry and the HosStateCounter entity, types of _HoFlowStatus.
#include "FlowTracking/ModuleTypes.h"

namespace FlowTracking {
namespace ModuleImpl {
namespace {

// The attributes of the counter key (its state) and of an entry (its key,
// then its one field).
struct CounterKeyAttr {
  enum : AttributeId { key = kRecordKey, mirakString };
};
struct CounterEntryAttr {
  enum : AttributeId { key = kRecordKey, hoFlows, mirakString };
};

using CounterKeyOp = RecordOp<HosStateCounterKey, true>;
using CounterEntryOp =
    RecordOp<HosStateCounterEntry, false,
             Rw<&HosStateCounterEntry::hoFlows, &HosStateCounterEntry::hoFlowsIs>>;
static_assert(CounterKeyOp::mirakStringId == CounterKeyAttr::mirakString);
static_assert(CounterEntryOp::mirakStringId == CounterEntryAttr::mirakString);

void counterKeyFromCtorArgs(void* memory, void* const* args) {
  new (memory) HosStateCounterKey(*static_cast<HoFlowState const*>(args[0]));
}

constinit AttributeInfo const hosStateCounterKeyAttrs[] = {
    {CounterKeyAttr::key, "key", Kind::ctorField, "FlowTracking::HoFlowState"},
    {CounterKeyAttr::mirakString, "mirakString", Kind::valueFunction, "Zeb::String"},
};

constinit AttributeInfo const hosStateCounterEntryAttrs[] = {
    {CounterEntryAttr::key, "key", Kind::ctorField, "FlowTracking::HosStateCounterKey"},
    {CounterEntryAttr::hoFlows, "hoFlows", Kind::field, "U32"},
    {CounterEntryAttr::mirakString, "mirakString", Kind::valueFunction, "Zeb::String"},
};

constinit std::array<AttributeInfo, 5> const hosStateCounterAttrs =
    entityAttrs("hosStateIpCounter", "hosStateIpCounterControl", "hosStateIp6Counter",
                "hosStateIp6CounterControl", "FlowTracking::HosStateCounterEntry",
                "FlowTracking::HosStateCounterEntry", "FlowTracking::HosStateCounterKey",
                "FlowTracking::HosStateCounterKey", mountPathParams1);

FLOWTRACKING_COLLECTION(HosStateIpCounterColl, HosStateCounter, hosStateIpCounter);
FLOWTRACKING_COLLECTION(HosStateIp6CounterColl, HosStateCounter, hosStateIp6Counter);
#undef FLOWTRACKING_COLLECTION

using HosStateCounterImpl =
    EntityImpl<HosStateCounter, HosStateIpCounterColl, HosStateIp6CounterColl>;

}  // namespace

Zeb::ZebTypeBase hosStateCounterKeyType() {
  return valueType<HosStateCounterKey>("FlowTracking::HosStateCounterKey", Zeb::kFlagsPlainValue,
                                       hosStateCounterKeyAttrs, &counterKeyFromCtorArgs,
                                       &CounterKeyOp::op);
}

Zeb::ZebTypeBase hosStateCounterEntryType() {
  return valueType<HosStateCounterEntry>(
      "FlowTracking::HosStateCounterEntry", Zeb::kFlagsPlainValue, hosStateCounterEntryAttrs,
      &recordFromCtorArgs<HosStateCounterEntry>, &CounterEntryOp::op);
}

Zeb::ZebTypeBase hosStateCounterType() {
  return entityType<HosStateCounter, HosStateCounterImpl, &hosStateCounterFactory,
                    &HosStateCounter::HosStateCounterIs, &_HoFlowStatus_b4e443f4_zebModule,
                    HoFlowStatusIndex::hosStateCounter>("FlowTracking::HosStateCounter",
                                                        hosStateCounterAttrs);
}

}  // namespace ModuleImpl

Zeb::FwkType HosStateCounter::fwkType() const {
  return {&_HoFlowStatus_b4e443f4_zebModule, ModuleImpl::HoFlowStatusIndex::hosStateCounter};
}

}  // namespace FlowTracking
