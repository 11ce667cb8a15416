// The control objects of a collection: ZebParcel::CollectionControl, the
// framework's side of a mount (mount status, the entity reference that a
// mount keeps), and ZebMirak::CollectionControl, which adds the collection
// it controls and its quiescence. Also ZebParcel::Util::fullName, the path
// of an entity in the tree.
//
// An entity makes one control per collection, with the collection's front
// object as its Mirak::ControlBase, and reports back to it through its
// ...NotifyMountStatus and ...NotifyQuiesced members. A mounting agent holds
// the control (it is counted) and drives the collection through it.
//
// Ownership: `entityRefIs` makes the control hold a counted reference to the
// entity. The entity hands it over when its own last reference goes
// (onZeroReferences), and then drops its reference to the control; so an
// entity lives on exactly as long as somebody still holds its control, and
// dies with the control's last reference otherwise.
//
// Thread safety: none; used on the owner's thread of the entity.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Mem/CollectionDescriptor.h"
#include "Mirak/MirakMap.h"
#include "Zeb/AllocTracking.h"
#include "Zeb/Entity.h"
#include "Zeb/Ptr.h"
#include "Zeb/PtrInterface.h"
#include "Zeb/String.h"

namespace ZebParcel {

// The low byte of Mem::MountStatus: 0 not mounted, 1 mounted, 2 mounted and
// synchronised, 3 a shadow flushing.
using MountStatus = uint8_t;

class CollectionControl : public Zeb::PtrInterface {
 public:
  ~CollectionControl() override;

  MountStatus mountStatus() const { return mountStatus_; }
  void mountStatusIs(MountStatus status);
  // How many times the status was reported, changed or not.
  uint64_t mountStatusReports() const { return mountStatusReports_; }

  Zeb::Ptr<Zeb::Entity> const& entityRef() const { return entityRef_; }
  void entityRefIs(Zeb::Ptr<Zeb::Entity> const& entity);

 protected:
  CollectionControl() = default;

 private:
  MountStatus mountStatus_ = 0;
  uint64_t mountStatusReports_ = 0;
  Zeb::Ptr<Zeb::Entity> entityRef_;
};

namespace Util {
// The names from the root of the tree down to the entity, joined by "/".
// Throws Lomi::RuntimeException for a null entity.
Zeb::String fullName(Zeb::Ptr<Zeb::Entity const> const& entity);
}  // namespace Util

}  // namespace ZebParcel

namespace ZebMirak {

class CollectionControl : public ZebParcel::CollectionControl {
 public:
  // `collection` is not owned; it is the front object of a collection held
  // by the same entity as this control's creator.
  explicit CollectionControl(Mirak::ControlBase* collection);
  ~CollectionControl() override;

  // The factory form: tracked allocation, notifications activated.
  static Zeb::Ptr<CollectionControl> CollectionControlIs(Mirak::ControlBase* collection);

  Mirak::ControlBase* collection() const { return collection_; }
  // Mounts the collection: its `init` (Mirak::MirakMap::init), with what
  // that throws.
  void init(Mem::CollectionDescriptor const& descriptor) { collection_->init(descriptor); }
  bool quiesced() const { return quiesced_; }
  void quiescedIs(bool quiesced);
  uint64_t quiescedReports() const { return quiescedReports_; }

  // The plain pointer through which the entity that made this control reports
  // quiescence and mount status to it. The entity may outlive the control (it
  // lets go of it when its own last reference goes, and somebody else may
  // hold the entity through its other control), so the control sets that
  // pointer to null when it dies: a later report, an orphaning say, then
  // finds no control instead of a freed one. An entity that dies first
  // unlinks itself with null. Invariant: a linked pointer is null or points
  // at this live control.
  void reportLinkIs(CollectionControl** link) { reportLink_ = link; }

  static Zeb::AllocTrackTypeInfo zebAllocTrackTypeInfo_;
  static void* operator new(size_t size);
  static void operator delete(void* p, size_t size);

 private:
  Mirak::ControlBase* collection_;
  bool quiesced_ = false;
  uint64_t quiescedReports_ = 0;
  CollectionControl** reportLink_ = nullptr;
};

}  // namespace ZebMirak
