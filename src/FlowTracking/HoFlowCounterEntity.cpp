// The HoFlowCounter entity: construction, teardown and attribute operations.
#include "FlowTracking/HoFlowCounterEntity.h"

#include <fmt/format.h>

template class ZebMirak::ZebMirakMap<FlowTracking::HoFlowCounter, FlowTracking::HoIpFlowCounter,
                                     FlowTracking::IpFlowKey, FlowTracking::HoIpFlowCounterOps>;
template class ZebMirak::ZebMirakMap<FlowTracking::HoFlowCounter, FlowTracking::HoIp6FlowCounter,
                                     FlowTracking::Ip6FlowKey, FlowTracking::HoIp6FlowCounterOps>;

namespace FlowTracking {

Zeb::AllocTrackTypeInfo HoFlowCounter::zebAllocTrackTypeInfo_;

void* HoFlowCounter::operator new(size_t size) {
  return Zeb::trackedAlloc<HoFlowCounter>(size, 8);
}

void HoFlowCounter::operator delete(void* p, size_t size) {
  Zeb::trackedFree<HoFlowCounter>(p, size);
}

Zeb::Ptr<HoFlowCounter> hoFlowCounterFactory(Zeb::String const& name) {
  Zeb::Ptr<HoFlowCounter> entity(new HoFlowCounter(name));
  entity->hasNotificationActiveIs(true);
  return entity;
}

Zeb::Ptr<HoFlowCounter> HoFlowCounter::HoFlowCounterIs(Zeb::String const& name) {
  return hoFlowCounterFactory(name);
}

Zeb::String HoFlowCounter::mountPath(Zeb::String const& ftrTypeStr, Zeb::String const& name) {
  return Zeb::String(fmt::format("flowtracking/{}/hwOffload/counter/{}", ftrTypeStr, name));
}

// IPv6 before IPv4 throughout; each collection is bound only once its
// control exists, since binding reports to the control.
HoFlowCounter::HoFlowCounter(Zeb::String const& name) : Zeb::Entity(name) {
  hoIp6FlowCounterIsCount_ = Impl::cell("hoIp6FlowCounterIs");
  hoIp6FlowCounterDelCount_ = Impl::cell("hoIp6FlowCounterDel");
  hoIp6FlowCounterNotifyCount_ = Impl::cell("hoIp6FlowCounterNotify");
  hoIpFlowCounterIsCount_ = Impl::cell("hoIpFlowCounterIs");
  hoIpFlowCounterDelCount_ = Impl::cell("hoIpFlowCounterDel");
  hoIpFlowCounterNotifyCount_ = Impl::cell("hoIpFlowCounterNotify");

  Zeb::Ptr<HoFlowCounterZeroReferencesNotifiee> notifiee(
      new HoFlowCounterZeroReferencesNotifiee(this));
  notifiee->hasNotificationActiveIs(true);
  zeroReferencesNotifiee_ = notifiee;
  notifieeList_.newMember(this, notifiee.get());

  hoIp6FlowCounterControl_ = ZebMirak::CollectionControl::CollectionControlIs(&hoIp6FlowCounter_);
  Impl::controlLink(hoIp6FlowCounterControlRaw_, hoIp6FlowCounterControl_);
  hoIp6FlowCounter_.entity("hoIp6FlowCounter", this, hoIp6FlowCounterId,
                           &HoFlowCounter::hoIp6FlowCounterNotify,
                           &HoFlowCounter::hoIp6FlowCounterNotifyMountStatus,
                           &HoFlowCounter::hoIp6FlowCounterNotifyQuiesced);

  hoIpFlowCounterControl_ = ZebMirak::CollectionControl::CollectionControlIs(&hoIpFlowCounter_);
  Impl::controlLink(hoIpFlowCounterControlRaw_, hoIpFlowCounterControl_);
  hoIpFlowCounter_.entity("hoIpFlowCounter", this, hoIpFlowCounterId,
                          &HoFlowCounter::hoIpFlowCounterNotify,
                          &HoFlowCounter::hoIpFlowCounterNotifyMountStatus,
                          &HoFlowCounter::hoIpFlowCounterNotifyQuiesced);
}

// The members then go in reverse order of declaration: IPv6 control and
// collection, IPv4 control and collection, the notifiee.
HoFlowCounter::~HoFlowCounter() {
  notifieeList_.deleteAll();
  // A control that somebody still holds outlives the entity; it must not
  // write into the entity's memory when it dies.
  Impl::controlUnlink(hoIp6FlowCounterControlRaw_);
  Impl::controlUnlink(hoIpFlowCounterControlRaw_);
}

Zeb::NotifieeListPtr HoFlowCounter::notifieeList() const {
  return const_cast<Zeb::NotifieeList&>(notifieeList_).listPtr();
}

void HoFlowCounter::handleParent(Zeb::Ptr<Zeb::Entity> const&) {
  hoIp6FlowCounter_.handleParent();
  hoIpFlowCounter_.handleParent();
}

void HoFlowCounter::HoFlowCounterZeroReferencesNotifiee::onZeroReferences() {
  HoFlowCounter* const e = entity_;
  // Each control is handed a reference to the entity, and the entity drops
  // its reference to the control.
  // A control nobody else holds dies here and nulls the entity's plain
  // pointer to it, so a later orphaning of the entity (still alive through
  // its other control) reports to no freed control.
  if (e->hoIp6FlowCounterControl_) {
    Zeb::Ptr<Zeb::Entity> self(e);
    e->hoIp6FlowCounterControl_->entityRefIs(self);
  }
  e->hoIp6FlowCounterControl_.reset();
  if (e->hoIpFlowCounterControl_) {
    Zeb::Ptr<Zeb::Entity> self(e);
    e->hoIpFlowCounterControl_->entityRefIs(self);
  }
  e->hoIpFlowCounterControl_.reset();
  Zeb::NotifieeListPtr::deleteMember(e->notifieeList(), e, this);
}

// --- IPv4 collection ---------------------------------------------------

void HoFlowCounter::hoIpFlowCounterIs(HoIpFlowCounter const& v) {
  Impl::collectionIs(hoIpFlowCounter_, hoIpFlowCounterCells(), notifieeList_, hoIpFlowCounterId, v);
}

HoIpFlowCounter HoFlowCounter::hoIpFlowCounterDel(IpFlowKey const& k) {
  return Impl::collectionDel(hoIpFlowCounter_, hoIpFlowCounterCells(), notifieeList_,
                             hoIpFlowCounterId, k);
}

void HoFlowCounter::hoIpFlowCounterDelAll() {
  Impl::collectionDelAll(hoIpFlowCounter_, [this](IpFlowKey const& k) { hoIpFlowCounterDel(k); });
}

void HoFlowCounter::hoIpFlowCounterCommit(HoIpFlowCounter const* v) {
  Impl::collectionCommit(hoIpFlowCounter_, hoIpFlowCounterCells(), notifieeList_, hoIpFlowCounterId,
                         v);
}

void HoFlowCounter::hoIpFlowCounterNotify(IpFlowKey const& k) {
  Impl::collectionNotify(hoIpFlowCounterCells(), notifieeList_, hoIpFlowCounterId, k);
}

void HoFlowCounter::hoIpFlowCounterNotifyQuiesced(bool q) {
  Impl::collectionNotifyQuiesced(hoIpFlowCounterControlRaw_, q);
}

void HoFlowCounter::hoIpFlowCounterNotifyMountStatus() {
  Impl::collectionNotifyMountStatus(hoIpFlowCounter_, hoIpFlowCounterControlRaw_);
}

void HoFlowCounter::hoIpFlowCounterControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) {
  Impl::controlIs(hoIpFlowCounterControl_, c, notifieeList_, hoIpFlowCounterControlId);
}

// --- IPv6 collection ---------------------------------------------------

void HoFlowCounter::hoIp6FlowCounterIs(HoIp6FlowCounter const& v) {
  Impl::collectionIs(hoIp6FlowCounter_, hoIp6FlowCounterCells(), notifieeList_, hoIp6FlowCounterId,
                     v);
}

HoIp6FlowCounter HoFlowCounter::hoIp6FlowCounterDel(Ip6FlowKey const& k) {
  return Impl::collectionDel(hoIp6FlowCounter_, hoIp6FlowCounterCells(), notifieeList_,
                             hoIp6FlowCounterId, k);
}

void HoFlowCounter::hoIp6FlowCounterDelAll() {
  Impl::collectionDelAll(hoIp6FlowCounter_,
                         [this](Ip6FlowKey const& k) { hoIp6FlowCounterDel(k); });
}

void HoFlowCounter::hoIp6FlowCounterCommit(HoIp6FlowCounter const* v) {
  Impl::collectionCommit(hoIp6FlowCounter_, hoIp6FlowCounterCells(), notifieeList_,
                         hoIp6FlowCounterId, v);
}

void HoFlowCounter::hoIp6FlowCounterNotify(Ip6FlowKey const& k) {
  Impl::collectionNotify(hoIp6FlowCounterCells(), notifieeList_, hoIp6FlowCounterId, k);
}

void HoFlowCounter::hoIp6FlowCounterNotifyQuiesced(bool q) {
  Impl::collectionNotifyQuiesced(hoIp6FlowCounterControlRaw_, q);
}

void HoFlowCounter::hoIp6FlowCounterNotifyMountStatus() {
  Impl::collectionNotifyMountStatus(hoIp6FlowCounter_, hoIp6FlowCounterControlRaw_);
}

void HoFlowCounter::hoIp6FlowCounterControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) {
  Impl::controlIs(hoIp6FlowCounterControl_, c, notifieeList_, hoIp6FlowCounterControlId);
}

}  // namespace FlowTracking
