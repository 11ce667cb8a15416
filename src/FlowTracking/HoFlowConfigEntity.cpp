// The HoFlowConfig entity: construction, teardown and attribute operations.
#include "FlowTracking/HoFlowConfigEntity.h"

#include <fmt/format.h>

template class ZebMirak::ZebMirakMap<FlowTracking::HoFlowConfig, FlowTracking::HoIpFlowConfig,
                                     FlowTracking::HoIpFlowKey, FlowTracking::HoIpFlowConfigOps>;
template class ZebMirak::ZebMirakMap<FlowTracking::HoFlowConfig, FlowTracking::HoIp6FlowConfig,
                                     FlowTracking::HoIp6FlowKey, FlowTracking::HoIp6FlowConfigOps>;

namespace FlowTracking {

Zeb::AllocTrackTypeInfo HoFlowConfig::zebAllocTrackTypeInfo_;

void* HoFlowConfig::operator new(size_t size) {
  return Zeb::trackedAlloc<HoFlowConfig>(size, 8);
}

void HoFlowConfig::operator delete(void* p, size_t size) {
  Zeb::trackedFree<HoFlowConfig>(p, size);
}

Zeb::Ptr<HoFlowConfig> hoFlowConfigFactory(Zeb::String const& name) {
  Zeb::Ptr<HoFlowConfig> entity(new HoFlowConfig(name));
  entity->hasNotificationActiveIs(true);
  return entity;
}

Zeb::Ptr<HoFlowConfig> HoFlowConfig::HoFlowConfigIs(Zeb::String const& name) {
  return hoFlowConfigFactory(name);
}

Zeb::String HoFlowConfig::mountPath(Zeb::String const& ftrTypeStr) {
  return Zeb::String(fmt::format("flowtracking/{}/hwOffload/config", ftrTypeStr));
}

// IPv6 before IPv4 throughout; each collection is bound only once its
// control exists, since binding reports to the control.
HoFlowConfig::HoFlowConfig(Zeb::String const& name) : Zeb::Entity(name) {
  hoIp6FlowConfigIsCount_ = Impl::cell("hoIp6FlowConfigIs");
  hoIp6FlowConfigDelCount_ = Impl::cell("hoIp6FlowConfigDel");
  hoIp6FlowConfigNotifyCount_ = Impl::cell("hoIp6FlowConfigNotify");
  hoIpFlowConfigIsCount_ = Impl::cell("hoIpFlowConfigIs");
  hoIpFlowConfigDelCount_ = Impl::cell("hoIpFlowConfigDel");
  hoIpFlowConfigNotifyCount_ = Impl::cell("hoIpFlowConfigNotify");

  Zeb::Ptr<HoFlowConfigZeroReferencesNotifiee> notifiee(
      new HoFlowConfigZeroReferencesNotifiee(this));
  notifiee->hasNotificationActiveIs(true);
  zeroReferencesNotifiee_ = notifiee;
  notifieeList_.newMember(this, notifiee.get());

  hoIp6FlowConfigControl_ = ZebMirak::CollectionControl::CollectionControlIs(&hoIp6FlowConfig_);
  Impl::controlLink(hoIp6FlowConfigControlRaw_, hoIp6FlowConfigControl_);
  hoIp6FlowConfig_.entity("hoIp6FlowConfig", this, hoIp6FlowConfigId,
                          &HoFlowConfig::hoIp6FlowConfigNotify,
                          &HoFlowConfig::hoIp6FlowConfigNotifyMountStatus,
                          &HoFlowConfig::hoIp6FlowConfigNotifyQuiesced);

  hoIpFlowConfigControl_ = ZebMirak::CollectionControl::CollectionControlIs(&hoIpFlowConfig_);
  Impl::controlLink(hoIpFlowConfigControlRaw_, hoIpFlowConfigControl_);
  hoIpFlowConfig_.entity(
      "hoIpFlowConfig", this, hoIpFlowConfigId, &HoFlowConfig::hoIpFlowConfigNotify,
      &HoFlowConfig::hoIpFlowConfigNotifyMountStatus, &HoFlowConfig::hoIpFlowConfigNotifyQuiesced);
}

// The members then go in reverse order of declaration: IPv6 control and
// collection, IPv4 control and collection, the notifiee.
HoFlowConfig::~HoFlowConfig() {
  notifieeList_.deleteAll();
  // A control that somebody still holds outlives the entity; it must not
  // write into the entity's memory when it dies.
  Impl::controlUnlink(hoIp6FlowConfigControlRaw_);
  Impl::controlUnlink(hoIpFlowConfigControlRaw_);
}

Zeb::NotifieeListPtr HoFlowConfig::notifieeList() const {
  return const_cast<Zeb::NotifieeList&>(notifieeList_).listPtr();
}

void HoFlowConfig::handleParent(Zeb::Ptr<Zeb::Entity> const&) {
  hoIp6FlowConfig_.handleParent();
  hoIpFlowConfig_.handleParent();
}

void HoFlowConfig::HoFlowConfigZeroReferencesNotifiee::onZeroReferences() {
  HoFlowConfig* const e = entity_;
  // Each control is handed a reference to the entity, and the entity drops
  // its reference to the control.
  // A control nobody else holds dies here and nulls the entity's plain
  // pointer to it, so a later orphaning of the entity (still alive through
  // its other control) reports to no freed control.
  if (e->hoIp6FlowConfigControl_) {
    Zeb::Ptr<Zeb::Entity> self(e);
    e->hoIp6FlowConfigControl_->entityRefIs(self);
  }
  e->hoIp6FlowConfigControl_.reset();
  if (e->hoIpFlowConfigControl_) {
    Zeb::Ptr<Zeb::Entity> self(e);
    e->hoIpFlowConfigControl_->entityRefIs(self);
  }
  e->hoIpFlowConfigControl_.reset();
  Zeb::NotifieeListPtr::deleteMember(e->notifieeList(), e, this);
}

// --- IPv4 collection ---------------------------------------------------

void HoFlowConfig::hoIpFlowConfigIs(HoIpFlowConfig const& v) {
  Impl::collectionIs(hoIpFlowConfig_, hoIpFlowConfigCells(), notifieeList_, hoIpFlowConfigId, v);
}

HoIpFlowConfig HoFlowConfig::hoIpFlowConfigDel(HoIpFlowKey const& k) {
  return Impl::collectionDel(hoIpFlowConfig_, hoIpFlowConfigCells(), notifieeList_,
                             hoIpFlowConfigId, k);
}

void HoFlowConfig::hoIpFlowConfigDelAll() {
  Impl::collectionDelAll(hoIpFlowConfig_, [this](HoIpFlowKey const& k) { hoIpFlowConfigDel(k); });
}

void HoFlowConfig::hoIpFlowConfigCommit(HoIpFlowConfig const* v) {
  Impl::collectionCommit(hoIpFlowConfig_, hoIpFlowConfigCells(), notifieeList_, hoIpFlowConfigId,
                         v);
}

void HoFlowConfig::hoIpFlowConfigNotify(HoIpFlowKey const& k) {
  Impl::collectionNotify(hoIpFlowConfigCells(), notifieeList_, hoIpFlowConfigId, k);
}

void HoFlowConfig::hoIpFlowConfigNotifyQuiesced(bool q) {
  Impl::collectionNotifyQuiesced(hoIpFlowConfigControlRaw_, q);
}

void HoFlowConfig::hoIpFlowConfigNotifyMountStatus() {
  Impl::collectionNotifyMountStatus(hoIpFlowConfig_, hoIpFlowConfigControlRaw_);
}

void HoFlowConfig::hoIpFlowConfigControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) {
  Impl::controlIs(hoIpFlowConfigControl_, c, notifieeList_, hoIpFlowConfigControlId);
}

// --- IPv6 collection ---------------------------------------------------

void HoFlowConfig::hoIp6FlowConfigIs(HoIp6FlowConfig const& v) {
  Impl::collectionIs(hoIp6FlowConfig_, hoIp6FlowConfigCells(), notifieeList_, hoIp6FlowConfigId, v);
}

HoIp6FlowConfig HoFlowConfig::hoIp6FlowConfigDel(HoIp6FlowKey const& k) {
  return Impl::collectionDel(hoIp6FlowConfig_, hoIp6FlowConfigCells(), notifieeList_,
                             hoIp6FlowConfigId, k);
}

void HoFlowConfig::hoIp6FlowConfigDelAll() {
  Impl::collectionDelAll(hoIp6FlowConfig_,
                         [this](HoIp6FlowKey const& k) { hoIp6FlowConfigDel(k); });
}

void HoFlowConfig::hoIp6FlowConfigCommit(HoIp6FlowConfig const* v) {
  Impl::collectionCommit(hoIp6FlowConfig_, hoIp6FlowConfigCells(), notifieeList_, hoIp6FlowConfigId,
                         v);
}

void HoFlowConfig::hoIp6FlowConfigNotify(HoIp6FlowKey const& k) {
  Impl::collectionNotify(hoIp6FlowConfigCells(), notifieeList_, hoIp6FlowConfigId, k);
}

void HoFlowConfig::hoIp6FlowConfigNotifyQuiesced(bool q) {
  Impl::collectionNotifyQuiesced(hoIp6FlowConfigControlRaw_, q);
}

void HoFlowConfig::hoIp6FlowConfigNotifyMountStatus() {
  Impl::collectionNotifyMountStatus(hoIp6FlowConfig_, hoIp6FlowConfigControlRaw_);
}

void HoFlowConfig::hoIp6FlowConfigControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) {
  Impl::controlIs(hoIp6FlowConfigControl_, c, notifieeList_, hoIp6FlowConfigControlId);
}

}  // namespace FlowTracking
