// Zeb::PtrInterface: the base of every counted object (entities, controls,
// notifiees), and its observer base `PtrInterface::NotifieeConst`.
//
// Contract:
// - The reference count lives in the object (intrusive); `Zeb::Ptr<T>` moves
//   it. A new object starts at 0 references; the first Ptr makes it 1.
// - Counted objects live on the heap, made by `new` (which goes through
//   `zebMemAlloc`), and are owned only through Ptr. An object on the stack or
//   inside another object must never be put into a Ptr: its last reference
//   would delete it.
// - When the count falls to 0 the object is told with `zeroReferencesIs(true)`.
//   The default tells the notifiees of `notifieeList()` with
//   `onZeroReferences()`. Such a notifiee may take a new reference (hand the
//   object to someone who outlives it); the object is then not deleted, and
//   is told `zeroReferencesIs(false)`. A reference taken and dropped again
//   inside that dispatch does not start a second one. When the dispatch ends
//   with 0 references, the object is deleted through its virtual destructor.
//   That dispatch must not throw (the last reference is often dropped in a
//   destructor): an exception from it is asserted.
// - Counting is plain, one thread per object, unless
//   `VFPtrInterface::threadSafePointers_` is set (before a second thread
//   touches counted objects); then it uses atomic read-modify-writes
//   (acq_rel on the decrement, so the deleting thread sees every write made
//   before the other references were dropped).
// - Deleting an object that still has references is a broken promise: the
//   destructor asserts, since every Ptr left would point into freed memory.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <typeinfo>

#include "Zeb/AllocTracking.h"

namespace Zeb {

// Attribute ids of the generic interface: 2 and up in values, 258 and up in
// entities.
using AttributeId = uint32_t;

class Module;

// (module, type index) of a type in the generic interface (Zeb/Module.h).
// The module is null for types that are not registered.
struct FwkType {
  Module const* module = nullptr;
  uint32_t index = 0;
  friend bool operator==(FwkType const&, FwkType const&) = default;
};

class NotifieeList;
struct NotifieeListPtr;

class VFPtrInterface {
 public:
  // Set once, before counted objects are shared between threads.
  static inline std::atomic<bool> threadSafePointers_{false};
};

class PtrInterface : public VFPtrInterface {
 public:
  class NotifieeConst;

  PtrInterface() = default;
  PtrInterface(PtrInterface const&) = delete;
  PtrInterface& operator=(PtrInterface const&) = delete;

  // The observers of this object; the default has none ({0, null}).
  virtual NotifieeListPtr notifieeList() const;
  // Notifiees that are not active are skipped by every dispatch. Objects
  // start inactive: a factory or owner activates them once built.
  virtual void hasNotificationActiveIs(bool active);
  // true: the count fell to 0 (see the contract above). false: a notifiee
  // took a new reference during that dispatch, and the object lives on.
  virtual void zeroReferencesIs(bool zero);
  virtual FwkType fwkType() const;
  virtual ~PtrInterface();

  uint32_t references() const;
  bool hasNotificationActive() const { return notificationActive_; }

  void newRef() const;
  // May delete the object: the caller must not touch it afterwards.
  void deleteRef() const;

  // The memory of counted objects, counted in AllocTracking::totals().
  static void* zebMemAlloc(size_t size);
  static void zebMemFree(void* p, size_t size);
  static void* operator new(size_t size) { return zebMemAlloc(size); }
  static void operator delete(void* p, size_t size) { zebMemFree(p, size); }

 private:
  void handleZeroReferences();

  mutable uint32_t references_ = 0;
  bool notificationActive_ = false;
  bool inZeroReferences_ = false;
};

// An observer of one counted object (usually an entity). It is itself a
// counted object: a NotifieeList holds a reference to each member, so a
// notifiee that removes itself during a dispatch lives until its call returns.
// Typed notifiees of an entity derive from this and turn `onAttribute` into
// per-attribute calls, e.g. 258 with the key of an IPv4 row, 259 with none.
class PtrInterface::NotifieeConst : public PtrInterface {
 public:
  // The observed object's last reference went away (see PtrInterface).
  virtual void onZeroReferences() {}
  // Attribute `id` of the observed object changed. `key` points at the key of
  // the changed row for a collection attribute and is null for attributes
  // without key; it is valid during the call only.
  virtual void onAttribute(AttributeId id, void const* key) {
    (void)id;
    (void)key;
  }

  static AllocTrackTypeInfo zebAllocTrackTypeInfo_;
  static void* operator new(size_t size);
  static void operator delete(void* p, size_t size);
};

// What `notifieeList()` returns: `kind` 1 and the list's address when the
// object has one; otherwise all zeros.
struct NotifieeListPtr {
  uintptr_t kind = 0;
  NotifieeList* list = nullptr;
  uintptr_t reserved0 = 0;
  uintptr_t reserved1 = 0;

  // Removes `notifiee` from the list of `owner`; nothing if not a member or
  // if there is no list.
  static void deleteMember(NotifieeListPtr const& list, PtrInterface const* owner,
                           PtrInterface::NotifieeConst const* notifiee);
};

// Tracked allocation for classes with a static `zebAllocTrackTypeInfo_`
// (see Zeb/AllocTracking.h). The tracking happens before the memory is taken
// and is undone when it is returned.
template <typename T>
void* trackedAlloc(size_t size, size_t alignment) {
  AllocTrackTypeInfo::_trackAllocation(&T::zebAllocTrackTypeInfo_, typeid(T), size, alignment);
  try {
    return PtrInterface::zebMemAlloc(size);
  } catch (...) {
    AllocTrackTypeInfo::trackDeallocation(&T::zebAllocTrackTypeInfo_, size);
    throw;
  }
}

template <typename T>
void trackedFree(void* p, size_t size) {
  AllocTrackTypeInfo::trackDeallocation(&T::zebAllocTrackTypeInfo_, size);
  PtrInterface::zebMemFree(p, size);
}

}  // namespace Zeb
