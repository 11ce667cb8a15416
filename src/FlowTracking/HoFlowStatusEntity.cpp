// The HoFlowStatus entity: construction, teardown and attribute operations.
#include "FlowTracking/HoFlowStatusEntity.h"

#include <fmt/format.h>

template class ZebMirak::ZebMirakMap<FlowTracking::HoFlowStatus, FlowTracking::HoIpFlowStatus,
                                     FlowTracking::HoIpFlowKey, FlowTracking::HoIpFlowStatusOps>;
template class ZebMirak::ZebMirakMap<FlowTracking::HoFlowStatus, FlowTracking::HoIp6FlowStatus,
                                     FlowTracking::HoIp6FlowKey, FlowTracking::HoIp6FlowStatusOps>;

namespace FlowTracking {

Zeb::AllocTrackTypeInfo HoFlowStatus::zebAllocTrackTypeInfo_;

void* HoFlowStatus::operator new(size_t size) {
  return Zeb::trackedAlloc<HoFlowStatus>(size, 8);
}

void HoFlowStatus::operator delete(void* p, size_t size) {
  Zeb::trackedFree<HoFlowStatus>(p, size);
}

Zeb::Ptr<HoFlowStatus> hoFlowStatusFactory(Zeb::String const& name) {
  Zeb::Ptr<HoFlowStatus> entity(new HoFlowStatus(name));
  entity->hasNotificationActiveIs(true);
  return entity;
}

Zeb::Ptr<HoFlowStatus> HoFlowStatus::HoFlowStatusIs(Zeb::String const& name) {
  return hoFlowStatusFactory(name);
}

Zeb::String HoFlowStatus::mountPath(Zeb::String const& ftrTypeStr) {
  return Zeb::String(fmt::format("flowtracking/{}/hwOffload/status", ftrTypeStr));
}

// IPv6 before IPv4 throughout; each collection is bound only once its
// control exists, since binding reports to the control.
HoFlowStatus::HoFlowStatus(Zeb::String const& name) : Zeb::Entity(name) {
  hoIp6FlowStatusIsCount_ = Impl::cell("hoIp6FlowStatusIs");
  hoIp6FlowStatusDelCount_ = Impl::cell("hoIp6FlowStatusDel");
  hoIp6FlowStatusNotifyCount_ = Impl::cell("hoIp6FlowStatusNotify");
  hoIpFlowStatusIsCount_ = Impl::cell("hoIpFlowStatusIs");
  hoIpFlowStatusDelCount_ = Impl::cell("hoIpFlowStatusDel");
  hoIpFlowStatusNotifyCount_ = Impl::cell("hoIpFlowStatusNotify");

  Zeb::Ptr<HoFlowStatusZeroReferencesNotifiee> notifiee(
      new HoFlowStatusZeroReferencesNotifiee(this));
  notifiee->hasNotificationActiveIs(true);
  zeroReferencesNotifiee_ = notifiee;
  notifieeList_.newMember(this, notifiee.get());

  hoIp6FlowStatusControl_ = ZebMirak::CollectionControl::CollectionControlIs(&hoIp6FlowStatus_);
  Impl::controlLink(hoIp6FlowStatusControlRaw_, hoIp6FlowStatusControl_);
  hoIp6FlowStatus_.entity("hoIp6FlowStatus", this, hoIp6FlowStatusId,
                          &HoFlowStatus::hoIp6FlowStatusNotify,
                          &HoFlowStatus::hoIp6FlowStatusNotifyMountStatus,
                          &HoFlowStatus::hoIp6FlowStatusNotifyQuiesced);

  hoIpFlowStatusControl_ = ZebMirak::CollectionControl::CollectionControlIs(&hoIpFlowStatus_);
  Impl::controlLink(hoIpFlowStatusControlRaw_, hoIpFlowStatusControl_);
  hoIpFlowStatus_.entity(
      "hoIpFlowStatus", this, hoIpFlowStatusId, &HoFlowStatus::hoIpFlowStatusNotify,
      &HoFlowStatus::hoIpFlowStatusNotifyMountStatus, &HoFlowStatus::hoIpFlowStatusNotifyQuiesced);
}

// The members then go in reverse order of declaration: IPv6 control and
// collection, IPv4 control and collection, the notifiee.
HoFlowStatus::~HoFlowStatus() {
  notifieeList_.deleteAll();
  // A control that somebody still holds outlives the entity; it must not
  // write into the entity's memory when it dies.
  Impl::controlUnlink(hoIp6FlowStatusControlRaw_);
  Impl::controlUnlink(hoIpFlowStatusControlRaw_);
}

Zeb::NotifieeListPtr HoFlowStatus::notifieeList() const {
  return const_cast<Zeb::NotifieeList&>(notifieeList_).listPtr();
}

void HoFlowStatus::handleParent(Zeb::Ptr<Zeb::Entity> const&) {
  hoIp6FlowStatus_.handleParent();
  hoIpFlowStatus_.handleParent();
}

void HoFlowStatus::HoFlowStatusZeroReferencesNotifiee::onZeroReferences() {
  HoFlowStatus* const e = entity_;
  // Each control is handed a reference to the entity, and the entity drops
  // its reference to the control.
  // A control nobody else holds dies here and nulls the entity's plain
  // pointer to it, so a later orphaning of the entity (still alive through
  // its other control) reports to no freed control.
  if (e->hoIp6FlowStatusControl_) {
    Zeb::Ptr<Zeb::Entity> self(e);
    e->hoIp6FlowStatusControl_->entityRefIs(self);
  }
  e->hoIp6FlowStatusControl_.reset();
  if (e->hoIpFlowStatusControl_) {
    Zeb::Ptr<Zeb::Entity> self(e);
    e->hoIpFlowStatusControl_->entityRefIs(self);
  }
  e->hoIpFlowStatusControl_.reset();
  Zeb::NotifieeListPtr::deleteMember(e->notifieeList(), e, this);
}

// --- IPv4 collection ---------------------------------------------------

void HoFlowStatus::hoIpFlowStatusIs(HoIpFlowStatus const& v) {
  Impl::collectionIs(hoIpFlowStatus_, hoIpFlowStatusCells(), notifieeList_, hoIpFlowStatusId, v);
}

HoIpFlowStatus HoFlowStatus::hoIpFlowStatusDel(HoIpFlowKey const& k) {
  return Impl::collectionDel(hoIpFlowStatus_, hoIpFlowStatusCells(), notifieeList_,
                             hoIpFlowStatusId, k);
}

void HoFlowStatus::hoIpFlowStatusDelAll() {
  Impl::collectionDelAll(hoIpFlowStatus_, [this](HoIpFlowKey const& k) { hoIpFlowStatusDel(k); });
}

void HoFlowStatus::hoIpFlowStatusCommit(HoIpFlowStatus const* v) {
  Impl::collectionCommit(hoIpFlowStatus_, hoIpFlowStatusCells(), notifieeList_, hoIpFlowStatusId,
                         v);
}

void HoFlowStatus::hoIpFlowStatusNotify(HoIpFlowKey const& k) {
  Impl::collectionNotify(hoIpFlowStatusCells(), notifieeList_, hoIpFlowStatusId, k);
}

void HoFlowStatus::hoIpFlowStatusNotifyQuiesced(bool q) {
  Impl::collectionNotifyQuiesced(hoIpFlowStatusControlRaw_, q);
}

void HoFlowStatus::hoIpFlowStatusNotifyMountStatus() {
  Impl::collectionNotifyMountStatus(hoIpFlowStatus_, hoIpFlowStatusControlRaw_);
}

void HoFlowStatus::hoIpFlowStatusControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) {
  Impl::controlIs(hoIpFlowStatusControl_, c, notifieeList_, hoIpFlowStatusControlId);
}

// --- IPv6 collection ---------------------------------------------------

void HoFlowStatus::hoIp6FlowStatusIs(HoIp6FlowStatus const& v) {
  Impl::collectionIs(hoIp6FlowStatus_, hoIp6FlowStatusCells(), notifieeList_, hoIp6FlowStatusId, v);
}

HoIp6FlowStatus HoFlowStatus::hoIp6FlowStatusDel(HoIp6FlowKey const& k) {
  return Impl::collectionDel(hoIp6FlowStatus_, hoIp6FlowStatusCells(), notifieeList_,
                             hoIp6FlowStatusId, k);
}

void HoFlowStatus::hoIp6FlowStatusDelAll() {
  Impl::collectionDelAll(hoIp6FlowStatus_,
                         [this](HoIp6FlowKey const& k) { hoIp6FlowStatusDel(k); });
}

void HoFlowStatus::hoIp6FlowStatusCommit(HoIp6FlowStatus const* v) {
  Impl::collectionCommit(hoIp6FlowStatus_, hoIp6FlowStatusCells(), notifieeList_, hoIp6FlowStatusId,
                         v);
}

void HoFlowStatus::hoIp6FlowStatusNotify(HoIp6FlowKey const& k) {
  Impl::collectionNotify(hoIp6FlowStatusCells(), notifieeList_, hoIp6FlowStatusId, k);
}

void HoFlowStatus::hoIp6FlowStatusNotifyQuiesced(bool q) {
  Impl::collectionNotifyQuiesced(hoIp6FlowStatusControlRaw_, q);
}

void HoFlowStatus::hoIp6FlowStatusNotifyMountStatus() {
  Impl::collectionNotifyMountStatus(hoIp6FlowStatus_, hoIp6FlowStatusControlRaw_);
}

void HoFlowStatus::hoIp6FlowStatusControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) {
  Impl::controlIs(hoIp6FlowStatusControl_, c, notifieeList_, hoIp6FlowStatusControlId);
}

}  // namespace FlowTracking
