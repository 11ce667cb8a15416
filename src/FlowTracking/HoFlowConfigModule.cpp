// The offload config table in the generic interface: HoIpFlowConfig,
// HoIp6FlowConfig and the HoFlowConfig entity, the types of _HoFlowConfig.
#include "FlowTracking/ModuleTypes.h"

namespace FlowTracking {
namespace ModuleImpl {
namespace {

// The attributes of a config record: its key, then its fields.
struct ConfigAttr {
  enum : AttributeId {
    key = kRecordKey,
    createTime,
    updateTime,
    srcEthAddr,
    dstEthAddr,
    dot1qVlanTag,
    dot1qCustomerVlanTag,
    cachedIntfId,
    mirakString,
  };
};

template <typename R>
using ConfigOp =
    RecordOp<R, false, Rw<&R::createTime, &R::createTimeIs>, Rw<&R::updateTime, &R::updateTimeIs>,
             Rw<&R::srcEthAddr, &R::srcEthAddrIs>, Rw<&R::dstEthAddr, &R::dstEthAddrIs>,
             Rw<&R::dot1qVlanTag, &R::dot1qVlanTagIs, kVlanTagWriteBytes>,
             Rw<&R::dot1qCustomerVlanTag, &R::dot1qCustomerVlanTagIs, kVlanTagWriteBytes>,
             Rw<&R::cachedIntfId, &R::cachedIntfIdIs>>;
static_assert(ConfigOp<HoIpFlowConfig>::mirakStringId == ConfigAttr::mirakString);

constexpr std::array<AttributeInfo, 9> configAttrs(char const* keyName) {
  return {{
      {ConfigAttr::key, "key", Kind::ctorField, keyName},
      {ConfigAttr::createTime, "createTime", Kind::field, "Zeb::Seconds"},
      {ConfigAttr::updateTime, "updateTime", Kind::field, "Zeb::Seconds"},
      {ConfigAttr::srcEthAddr, "srcEthAddr", Kind::field, "Nimbet::EthAddr"},
      {ConfigAttr::dstEthAddr, "dstEthAddr", Kind::field, "Nimbet::EthAddr"},
      {ConfigAttr::dot1qVlanTag, "dot1qVlanTag", Kind::field, "Ovie::VlanTag"},
      {ConfigAttr::dot1qCustomerVlanTag, "dot1qCustomerVlanTag", Kind::field, "Ovie::VlanTag"},
      {ConfigAttr::cachedIntfId, "cachedIntfId", Kind::field, "Nimbet::IntfId"},
      {ConfigAttr::mirakString, "mirakString", Kind::valueFunction, "Zeb::String"},
  }};
}

constinit std::array<AttributeInfo, 9> const hoIpFlowConfigAttrs =
    configAttrs("FlowTracking::HoIpFlowKey");
constinit std::array<AttributeInfo, 9> const hoIp6FlowConfigAttrs =
    configAttrs("FlowTracking::HoIp6FlowKey");
constinit std::array<AttributeInfo, 5> const hoFlowConfigAttrs = entityAttrs(
    "hoIpFlowConfig", "hoIpFlowConfigControl", "hoIp6FlowConfig", "hoIp6FlowConfigControl",
    "FlowTracking::HoIpFlowConfig", "FlowTracking::HoIp6FlowConfig", "FlowTracking::HoIpFlowKey",
    "FlowTracking::HoIp6FlowKey", mountPathParams1);

FLOWTRACKING_COLLECTION(HoIpFlowConfigColl, HoFlowConfig, hoIpFlowConfig);
FLOWTRACKING_COLLECTION(HoIp6FlowConfigColl, HoFlowConfig, hoIp6FlowConfig);
#undef FLOWTRACKING_COLLECTION

using HoFlowConfigImpl = EntityImpl<HoFlowConfig, HoIpFlowConfigColl, HoIp6FlowConfigColl>;

}  // namespace

Zeb::ZebTypeBase hoIpFlowConfigType() {
  return recordType<HoIpFlowConfig, ConfigOp>("FlowTracking::HoIpFlowConfig", hoIpFlowConfigAttrs);
}

Zeb::ZebTypeBase hoIp6FlowConfigType() {
  return recordType<HoIp6FlowConfig, ConfigOp>("FlowTracking::HoIp6FlowConfig",
                                               hoIp6FlowConfigAttrs);
}

Zeb::ZebTypeBase hoFlowConfigType() {
  return entityType<HoFlowConfig, HoFlowConfigImpl, &hoFlowConfigFactory,
                    &HoFlowConfig::HoFlowConfigIs, &_HoFlowConfig_d7c62409_zebModule,
                    HoFlowConfigIndex::hoFlowConfig>("FlowTracking::HoFlowConfig",
                                                     hoFlowConfigAttrs);
}

}  // namespace ModuleImpl

Zeb::FwkType HoFlowConfig::fwkType() const {
  return {&_HoFlowConfig_d7c62409_zebModule, ModuleImpl::HoFlowConfigIndex::hoFlowConfig};
}

}  // namespace FlowTracking
