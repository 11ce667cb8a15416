// The per-flow counter table in the generic interface: HoIpFlowCounter,
// HoIp6FlowCounter and the HoFlowCounter entity, the last three types of
// _HoFlowStatus.
#include "FlowTracking/ModuleTypes.h"

namespace FlowTracking {
namespace ModuleImpl {
namespace {

// The attributes of a counter record: its key, then its fields.
struct CounterAttr {
  enum : AttributeId {
    key = kRecordKey,
    intfId,
    packets,
    bytes,
    createTime,
    updateTime,
    hosEntries,
    mirakString,
  };
};

template <typename R>
using CounterOp =
    RecordOp<R, false, Rw<&R::intfId, &R::intfIdIs>, Rw<&R::packets, &R::packetsIs>,
             Rw<&R::bytes, &R::bytesIs>, Rw<&R::createTime, &R::createTimeIs>,
             Rw<&R::updateTime, &R::updateTimeIs>, Rw<&R::hosEntries, &R::hosEntriesIs>>;
static_assert(CounterOp<HoIpFlowCounter>::mirakStringId == CounterAttr::mirakString);

constexpr std::array<AttributeInfo, 8> counterAttrs(char const* keyName) {
  return {{
      {CounterAttr::key, "key", Kind::ctorField, keyName},
      {CounterAttr::intfId, "intfId", Kind::field, "Nimbet::IntfId"},
      {CounterAttr::packets, "packets", Kind::field, "U64"},
      {CounterAttr::bytes, "bytes", Kind::field, "U64"},
      {CounterAttr::createTime, "createTime", Kind::field, "Zeb::Seconds"},
      {CounterAttr::updateTime, "updateTime", Kind::field, "Zeb::Seconds"},
      {CounterAttr::hosEntries, "hosEntries", Kind::field, "U32"},
      {CounterAttr::mirakString, "mirakString", Kind::valueFunction, "Zeb::String"},
  }};
}

constinit std::array<AttributeInfo, 8> const hoIpFlowCounterAttrs =
    counterAttrs("FlowTracking::IpFlowKey");
constinit std::array<AttributeInfo, 8> const hoIp6FlowCounterAttrs =
    counterAttrs("FlowTracking::Ip6FlowKey");
constinit std::array<AttributeInfo, 5> const hoFlowCounterAttrs = entityAttrs(
    "hoIpFlowCounter", "hoIpFlowCounterControl", "hoIp6FlowCounter", "hoIp6FlowCounterControl",
    "FlowTracking::HoIpFlowCounter", "FlowTracking::HoIp6FlowCounter", "FlowTracking::IpFlowKey",
    "FlowTracking::Ip6FlowKey", mountPathParams2);

FLOWTRACKING_COLLECTION(HoIpFlowCounterColl, HoFlowCounter, hoIpFlowCounter);
FLOWTRACKING_COLLECTION(HoIp6FlowCounterColl, HoFlowCounter, hoIp6FlowCounter);
#undef FLOWTRACKING_COLLECTION

using HoFlowCounterImpl = EntityImpl<HoFlowCounter, HoIpFlowCounterColl, HoIp6FlowCounterColl>;

}  // namespace

Zeb::ZebTypeBase hoIpFlowCounterType() {
  return recordType<HoIpFlowCounter, CounterOp>("FlowTracking::HoIpFlowCounter",
                                                hoIpFlowCounterAttrs);
}

Zeb::ZebTypeBase hoIp6FlowCounterType() {
  return recordType<HoIp6FlowCounter, CounterOp>("FlowTracking::HoIp6FlowCounter",
                                                 hoIp6FlowCounterAttrs);
}

Zeb::ZebTypeBase hoFlowCounterType() {
  return entityType<HoFlowCounter, HoFlowCounterImpl, &hoFlowCounterFactory,
                    &HoFlowCounter::HoFlowCounterIs, &_HoFlowStatus_b4e443f4_zebModule,
                    HoFlowStatusIndex::hoFlowCounter>("FlowTracking::HoFlowCounter",
                                                      hoFlowCounterAttrs);
}

}  // namespace ModuleImpl

Zeb::FwkType HoFlowCounter::fwkType() const {
  return {&_HoFlowStatus_b4e443f4_zebModule, ModuleImpl::HoFlowStatusIndex::hoFlowCounter};
}

}  // namespace FlowTracking
