// Control objects of collections, and the entity path helper.
#include "ZebMirak/CollectionControl.h"

#include "Lomi/Exception.h"

namespace ZebParcel {

CollectionControl::~CollectionControl() = default;

void CollectionControl::mountStatusIs(MountStatus status) {
  mountStatus_ = status;
  ++mountStatusReports_;
}

void CollectionControl::entityRefIs(Zeb::Ptr<Zeb::Entity> const& entity) {
  entityRef_ = entity;
}

Zeb::String Util::fullName(Zeb::Ptr<Zeb::Entity const> const& entity) {
  if (!entity) throw Lomi::RuntimeException("fullName of a null entity");
  return entity->fullName();
}

}  // namespace ZebParcel

namespace ZebMirak {

Zeb::AllocTrackTypeInfo CollectionControl::zebAllocTrackTypeInfo_;

CollectionControl::CollectionControl(Mirak::ControlBase* collection) : collection_(collection) {}

CollectionControl::~CollectionControl() {
  if (reportLink_) *reportLink_ = nullptr;
}

Zeb::Ptr<CollectionControl> CollectionControl::CollectionControlIs(Mirak::ControlBase* collection) {
  Zeb::Ptr<CollectionControl> control(new CollectionControl(collection));
  control->hasNotificationActiveIs(true);
  return control;
}

void CollectionControl::quiescedIs(bool quiesced) {
  quiesced_ = quiesced;
  ++quiescedReports_;
}

// Controls are tracked with 4-byte alignment, entities with 8.
void* CollectionControl::operator new(size_t size) {
  return Zeb::trackedAlloc<CollectionControl>(size, 4);
}

void CollectionControl::operator delete(void* p, size_t size) {
  Zeb::trackedFree<CollectionControl>(p, size);
}

}  // namespace ZebMirak
