// The offload status table in the generic interface: HoIpFlowStatus,
// HoIp6FlowStatus and the HoFlowStatus entity, the first three types of
// _HoFlowStatus.
#include "FlowTracking/ModuleTypes.h"

namespace FlowTracking {
namespace ModuleImpl {
namespace {

// The attributes of a status record: its key, then its fields.
struct StatusAttr {
  enum : AttributeId { key = kRecordKey, hoFlowState, createTime, updateTime, mirakString };
};

template <typename R>
using StatusOp =
    RecordOp<R, false, Rw<&R::hoFlowState, &R::hoFlowStateIs>, Rw<&R::createTime, &R::createTimeIs>,
             Rw<&R::updateTime, &R::updateTimeIs>>;
static_assert(StatusOp<HoIpFlowStatus>::mirakStringId == StatusAttr::mirakString);

constexpr std::array<AttributeInfo, 5> statusAttrs(char const* keyName) {
  return {{
      {StatusAttr::key, "key", Kind::ctorField, keyName},
      {StatusAttr::hoFlowState, "hoFlowState", Kind::field, "FlowTracking::HoFlowState"},
      {StatusAttr::createTime, "createTime", Kind::field, "Zeb::Seconds"},
      {StatusAttr::updateTime, "updateTime", Kind::field, "Zeb::Seconds"},
      {StatusAttr::mirakString, "mirakString", Kind::valueFunction, "Zeb::String"},
  }};
}

constinit std::array<AttributeInfo, 5> const hoIpFlowStatusAttrs =
    statusAttrs("FlowTracking::HoIpFlowKey");
constinit std::array<AttributeInfo, 5> const hoIp6FlowStatusAttrs =
    statusAttrs("FlowTracking::HoIp6FlowKey");
constinit std::array<AttributeInfo, 5> const hoFlowStatusAttrs = entityAttrs(
    "hoIpFlowStatus", "hoIpFlowStatusControl", "hoIp6FlowStatus", "hoIp6FlowStatusControl",
    "FlowTracking::HoIpFlowStatus", "FlowTracking::HoIp6FlowStatus", "FlowTracking::HoIpFlowKey",
    "FlowTracking::HoIp6FlowKey", mountPathParams1);

FLOWTRACKING_COLLECTION(HoIpFlowStatusColl, HoFlowStatus, hoIpFlowStatus);
FLOWTRACKING_COLLECTION(HoIp6FlowStatusColl, HoFlowStatus, hoIp6FlowStatus);
#undef FLOWTRACKING_COLLECTION

using HoFlowStatusImpl = EntityImpl<HoFlowStatus, HoIpFlowStatusColl, HoIp6FlowStatusColl>;

}  // namespace

Zeb::ZebTypeBase hoIpFlowStatusType() {
  return recordType<HoIpFlowStatus, StatusOp>("FlowTracking::HoIpFlowStatus", hoIpFlowStatusAttrs);
}

Zeb::ZebTypeBase hoIp6FlowStatusType() {
  return recordType<HoIp6FlowStatus, StatusOp>("FlowTracking::HoIp6FlowStatus",
                                               hoIp6FlowStatusAttrs);
}

Zeb::ZebTypeBase hoFlowStatusType() {
  return entityType<HoFlowStatus, HoFlowStatusImpl, &hoFlowStatusFactory,
                    &HoFlowStatus::HoFlowStatusIs, &_HoFlowStatus_b4e443f4_zebModule,
                    HoFlowStatusIndex::hoFlowStatus>("FlowTracking::HoFlowStatus",
                                                     hoFlowStatusAttrs);
}

}  // namespace ModuleImpl

Zeb::FwkType HoFlowStatus::fwkType() const {
  return {&_HoFlowStatus_b4e443f4_zebModule, ModuleImpl::HoFlowStatusIndex::hoFlowStatus};
}

}  // namespace FlowTracking
