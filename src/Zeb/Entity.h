// Zeb::Entity, the named node of the object tree, and Zeb::NotifieeList, the
// observers of one entity.
//
// Entity contract:
// - An entity has a name and at most one parent. The tree holds no
//   references: a parent knows its children by plain pointer and a child its
//   parent. A child that dies leaves its parent's list; a parent that dies
//   makes each remaining child an orphan through `parentIs(nullptr)`, so no
//   pointer of the tree ever dangles.
// - `parentIs(p)` sets the parent and then calls `handleParent` with a
//   counted pointer to it (null for an orphan). The parent must be held by a
//   Ptr already (that temporary reference would otherwise delete it) and may
//   not be the entity or one of its descendants: both are refused with
//   Lomi::InvalidInitializeException, and nothing changes. If `handleParent`
//   throws, the new parent stays set and the exception passes to the caller.
//   Giving the same parent again does nothing.
// - Entities are used on one thread; nothing here locks.
//
// NotifieeList contract:
// - Members are counted notifiees (`PtrInterface::NotifieeConst`); the list
//   holds one reference to each. Adding a member twice adds it once.
// - `visit` calls `onAttribute` on each active member in the order they were
//   added. During a dispatch, also a nested one (a notifiee that writes to the
//   entity again): a member removed is not called after its removal, whether
//   it removed itself or another; a member added is called from the next
//   dispatch on; the member being called stays alive until its call returns.
// - While a dispatch runs, the owner (the object given to `newMember`) is
//   kept alive by a temporary reference if it is counted, so a notifiee may
//   drop the owner's last outside reference. An exception from a notifiee
//   ends the dispatch and passes to the caller; the list stays consistent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Zeb/Ptr.h"
#include "Zeb/PtrInterface.h"
#include "Zeb/String.h"

namespace Zeb {

class NotifieeList {
 public:
  using Notifiee = PtrInterface::NotifieeConst;

  NotifieeList() = default;
  NotifieeList(NotifieeList const&) = delete;
  NotifieeList& operator=(NotifieeList const&) = delete;
  // Asserts when destroyed from inside one of its own dispatches.
  ~NotifieeList();

  // Adds `notifiee` as an observer of `owner`. Returns false if it was a
  // member already. Throws Lomi::RuntimeException for a null notifiee or an
  // owner other than the first one given.
  bool newMember(PtrInterface const* owner, Notifiee* notifiee);
  // Returns false if `notifiee` was not a member.
  bool deleteMember(Notifiee const* notifiee);
  void deleteAll();

  void visit(AttributeId id) { visit(id, nullptr); }
  void visit(AttributeId id, void const* key);
  // Tells each active member that the owner lost its last reference.
  void visitZeroReferences();

  size_t members() const;
  bool isMember(Notifiee const* notifiee) const;
  PtrInterface const* owner() const { return owner_; }
  // The record of PtrInterface::notifieeList() for this list.
  NotifieeListPtr listPtr() { return NotifieeListPtr{1, this, 0, 0}; }

 private:
  class DispatchScope;
  template <typename Fn>
  void dispatch(Fn const& fn);

  // A removed member becomes null while a dispatch runs, so the indices of
  // running dispatches stay valid; the outermost dispatch compacts.
  std::vector<Ptr<Notifiee>> members_;
  PtrInterface const* owner_ = nullptr;
  uint32_t dispatchDepth_ = 0;
  bool hasHoles_ = false;
};

class Entity : public PtrInterface {
 public:
  explicit Entity(String name = String());
  ~Entity() override;

  virtual String name() const { return name_; }
  // Called by parentIs after the parent changed; `parent` is null for an
  // orphan. Entities read `parent()` rather than the argument.
  virtual void handleParent(Ptr<Entity> const& parent);

  Entity* parent() const { return parent_; }
  void parentIs(Entity* parent);
  std::vector<Entity*> const& children() const { return children_; }

  // The names from the root down to this entity, joined by "/".
  String fullName() const;

 private:
  String name_;
  Entity* parent_ = nullptr;
  std::vector<Entity*> children_;
};

}  // namespace Zeb
