// The HosStateCounter entity: construction, teardown and attribute operations.
#include "FlowTracking/HosStateCounterEntity.h"

#include <fmt/format.h>

template class ZebMirak::ZebMirakMap<
    FlowTracking::HosStateCounter, FlowTracking::HosStateCounterEntry,
    FlowTracking::HosStateCounterKey, FlowTracking::HosStateCounterOps>;

namespace FlowTracking {

Zeb::AllocTrackTypeInfo HosStateCounter::zebAllocTrackTypeInfo_;

void* HosStateCounter::operator new(size_t size) {
  return Zeb::trackedAlloc<HosStateCounter>(size, 8);
}

void HosStateCounter::operator delete(void* p, size_t size) {
  Zeb::trackedFree<HosStateCounter>(p, size);
}

Zeb::Ptr<HosStateCounter> hosStateCounterFactory(Zeb::String const& name) {
  Zeb::Ptr<HosStateCounter> entity(new HosStateCounter(name));
  entity->hasNotificationActiveIs(true);
  return entity;
}

Zeb::Ptr<HosStateCounter> HosStateCounter::HosStateCounterIs(Zeb::String const& name) {
  return hosStateCounterFactory(name);
}

Zeb::String HosStateCounter::mountPath(Zeb::String const& ftrTypeStr) {
  return Zeb::String(fmt::format("flowtracking/{}/hwOffload/counter/status", ftrTypeStr));
}

// IPv6 before IPv4 throughout; each collection is bound only once its
// control exists, since binding reports to the control.
HosStateCounter::HosStateCounter(Zeb::String const& name) : Zeb::Entity(name) {
  hosStateIp6CounterIsCount_ = Impl::cell("hosStateIp6CounterIs");
  hosStateIp6CounterDelCount_ = Impl::cell("hosStateIp6CounterDel");
  hosStateIp6CounterNotifyCount_ = Impl::cell("hosStateIp6CounterNotify");
  hosStateIpCounterIsCount_ = Impl::cell("hosStateIpCounterIs");
  hosStateIpCounterDelCount_ = Impl::cell("hosStateIpCounterDel");
  hosStateIpCounterNotifyCount_ = Impl::cell("hosStateIpCounterNotify");

  Zeb::Ptr<HosStateCounterZeroReferencesNotifiee> notifiee(
      new HosStateCounterZeroReferencesNotifiee(this));
  notifiee->hasNotificationActiveIs(true);
  zeroReferencesNotifiee_ = notifiee;
  notifieeList_.newMember(this, notifiee.get());

  hosStateIp6CounterControl_ =
      ZebMirak::CollectionControl::CollectionControlIs(&hosStateIp6Counter_);
  Impl::controlLink(hosStateIp6CounterControlRaw_, hosStateIp6CounterControl_);
  hosStateIp6Counter_.entity("hosStateIp6Counter", this, hosStateIp6CounterId,
                             &HosStateCounter::hosStateIp6CounterNotify,
                             &HosStateCounter::hosStateIp6CounterNotifyMountStatus,
                             &HosStateCounter::hosStateIp6CounterNotifyQuiesced);

  hosStateIpCounterControl_ = ZebMirak::CollectionControl::CollectionControlIs(&hosStateIpCounter_);
  Impl::controlLink(hosStateIpCounterControlRaw_, hosStateIpCounterControl_);
  hosStateIpCounter_.entity("hosStateIpCounter", this, hosStateIpCounterId,
                            &HosStateCounter::hosStateIpCounterNotify,
                            &HosStateCounter::hosStateIpCounterNotifyMountStatus,
                            &HosStateCounter::hosStateIpCounterNotifyQuiesced);
}

// The members then go in reverse order of declaration: IPv6 control and
// collection, IPv4 control and collection, the notifiee.
HosStateCounter::~HosStateCounter() {
  notifieeList_.deleteAll();
  // A control that somebody still holds outlives the entity; it must not
  // write into the entity's memory when it dies.
  Impl::controlUnlink(hosStateIp6CounterControlRaw_);
  Impl::controlUnlink(hosStateIpCounterControlRaw_);
}

Zeb::NotifieeListPtr HosStateCounter::notifieeList() const {
  return const_cast<Zeb::NotifieeList&>(notifieeList_).listPtr();
}

void HosStateCounter::handleParent(Zeb::Ptr<Zeb::Entity> const&) {
  hosStateIp6Counter_.handleParent();
  hosStateIpCounter_.handleParent();
}

void HosStateCounter::HosStateCounterZeroReferencesNotifiee::onZeroReferences() {
  HosStateCounter* const e = entity_;
  // Each control is handed a reference to the entity, and the entity drops
  // its reference to the control.
  // A control nobody else holds dies here and nulls the entity's plain
  // pointer to it, so a later orphaning of the entity (still alive through
  // its other control) reports to no freed control.
  if (e->hosStateIp6CounterControl_) {
    Zeb::Ptr<Zeb::Entity> self(e);
    e->hosStateIp6CounterControl_->entityRefIs(self);
  }
  e->hosStateIp6CounterControl_.reset();
  if (e->hosStateIpCounterControl_) {
    Zeb::Ptr<Zeb::Entity> self(e);
    e->hosStateIpCounterControl_->entityRefIs(self);
  }
  e->hosStateIpCounterControl_.reset();
  Zeb::NotifieeListPtr::deleteMember(e->notifieeList(), e, this);
}

// --- IPv4 collection ---------------------------------------------------

void HosStateCounter::hosStateIpCounterIs(HosStateCounterEntry v) {
  Impl::collectionIs(hosStateIpCounter_, hosStateIpCounterCells(), notifieeList_,
                     hosStateIpCounterId, v);
}

HosStateCounterEntry HosStateCounter::hosStateIpCounterDel(HosStateCounterKey k) {
  return Impl::collectionDel(hosStateIpCounter_, hosStateIpCounterCells(), notifieeList_,
                             hosStateIpCounterId, k);
}

void HosStateCounter::hosStateIpCounterDelAll() {
  Impl::collectionDelAll(hosStateIpCounter_,
                         [this](HosStateCounterKey const& k) { hosStateIpCounterDel(k); });
}

void HosStateCounter::hosStateIpCounterCommit(HosStateCounterEntry const* v) {
  Impl::collectionCommit(hosStateIpCounter_, hosStateIpCounterCells(), notifieeList_,
                         hosStateIpCounterId, v);
}

void HosStateCounter::hosStateIpCounterNotify(HosStateCounterKey const& k) {
  Impl::collectionNotify(hosStateIpCounterCells(), notifieeList_, hosStateIpCounterId, k);
}

void HosStateCounter::hosStateIpCounterNotifyQuiesced(bool q) {
  Impl::collectionNotifyQuiesced(hosStateIpCounterControlRaw_, q);
}

void HosStateCounter::hosStateIpCounterNotifyMountStatus() {
  Impl::collectionNotifyMountStatus(hosStateIpCounter_, hosStateIpCounterControlRaw_);
}

void HosStateCounter::hosStateIpCounterControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) {
  Impl::controlIs(hosStateIpCounterControl_, c, notifieeList_, hosStateIpCounterControlId);
}

// --- IPv6 collection ---------------------------------------------------

void HosStateCounter::hosStateIp6CounterIs(HosStateCounterEntry v) {
  Impl::collectionIs(hosStateIp6Counter_, hosStateIp6CounterCells(), notifieeList_,
                     hosStateIp6CounterId, v);
}

HosStateCounterEntry HosStateCounter::hosStateIp6CounterDel(HosStateCounterKey k) {
  return Impl::collectionDel(hosStateIp6Counter_, hosStateIp6CounterCells(), notifieeList_,
                             hosStateIp6CounterId, k);
}

void HosStateCounter::hosStateIp6CounterDelAll() {
  Impl::collectionDelAll(hosStateIp6Counter_,
                         [this](HosStateCounterKey const& k) { hosStateIp6CounterDel(k); });
}

void HosStateCounter::hosStateIp6CounterCommit(HosStateCounterEntry const* v) {
  Impl::collectionCommit(hosStateIp6Counter_, hosStateIp6CounterCells(), notifieeList_,
                         hosStateIp6CounterId, v);
}

void HosStateCounter::hosStateIp6CounterNotify(HosStateCounterKey const& k) {
  Impl::collectionNotify(hosStateIp6CounterCells(), notifieeList_, hosStateIp6CounterId, k);
}

void HosStateCounter::hosStateIp6CounterNotifyQuiesced(bool q) {
  Impl::collectionNotifyQuiesced(hosStateIp6CounterControlRaw_, q);
}

void HosStateCounter::hosStateIp6CounterNotifyMountStatus() {
  Impl::collectionNotifyMountStatus(hosStateIp6Counter_, hosStateIp6CounterControlRaw_);
}

void HosStateCounter::hosStateIp6CounterControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) {
  Impl::controlIs(hosStateIp6CounterControl_, c, notifieeList_, hosStateIp6CounterControlId);
}

}  // namespace FlowTracking
