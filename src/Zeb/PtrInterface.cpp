// Reference counting and the zero-references protocol of counted objects.
#include "Zeb/PtrInterface.h"

#include <exception>
#include <new>

#include "Lomi/Trace.h"
#include "Zeb/Entity.h"

namespace Zeb {

namespace {
Lomi::Platform::DebugHandler& zebHandler() {
  static Lomi::Platform::DebugHandler& h = Lomi::Platform::getDebugHandler("Zeb");
  return h;
}
}  // namespace

NotifieeListPtr PtrInterface::notifieeList() const {
  return NotifieeListPtr{};
}

void PtrInterface::hasNotificationActiveIs(bool active) {
  notificationActive_ = active;
}

void PtrInterface::zeroReferencesIs(bool zero) {
  if (!zero) return;
  NotifieeListPtr list = notifieeList();
  if (list.list) list.list->visitZeroReferences();
}

FwkType PtrInterface::fwkType() const {
  return FwkType{};
}

PtrInterface::~PtrInterface() {
  FMASSERT(references_ == 0, zebHandler(), "PtrInterface",
           "deleting a counted object at {} that still has {} references", static_cast<void*>(this),
           references_);
}

uint32_t PtrInterface::references() const {
  if (threadSafePointers_.load(std::memory_order_relaxed)) {
    return std::atomic_ref<uint32_t>(references_).load(std::memory_order_acquire);
  }
  return references_;
}

void PtrInterface::newRef() const {
  if (threadSafePointers_.load(std::memory_order_relaxed)) {
    // Relaxed: a new reference is made from an existing one, which already
    // orders the object's construction before this thread's use of it.
    std::atomic_ref<uint32_t>(references_).fetch_add(1, std::memory_order_relaxed);
  } else {
    ++references_;
  }
}

void PtrInterface::deleteRef() const {
  uint32_t left;
  if (threadSafePointers_.load(std::memory_order_relaxed)) {
    // acq_rel: the thread that drops the last reference must see every write
    // that other holders made before they dropped theirs.
    left = std::atomic_ref<uint32_t>(references_).fetch_sub(1, std::memory_order_acq_rel) - 1;
  } else {
    left = --references_;
  }
  FMASSERT(left != 0xffffffffu, zebHandler(), "PtrInterface",
           "reference dropped on counted object at {} that had none",
           static_cast<void const*>(this));
  if (left == 0) const_cast<PtrInterface*>(this)->handleZeroReferences();
}

void PtrInterface::handleZeroReferences() {
  // A notifiee that takes a temporary reference and drops it again brings
  // the count back to 0 inside this dispatch; that must not start another.
  if (inZeroReferences_) return;
  inZeroReferences_ = true;
  // The last reference is often dropped by a destructor, where an exception
  // cannot travel; a zero-references handler must not throw.
  try {
    zeroReferencesIs(true);
  } catch (std::exception const& e) {
    Lomi::fmassert(zebHandler(), "PtrInterface", "handleZeroReferences",
                   "zero-references handler of {} threw: {}", static_cast<void*>(this), e.what());
  }
  inZeroReferences_ = false;
  if (references() != 0) {
    zeroReferencesIs(false);
    return;
  }
  delete this;
}

void* PtrInterface::zebMemAlloc(size_t size) {
  void* p = ::operator new(size);
  AllocTracking::totals().allocationInc(size);
  return p;
}

void PtrInterface::zebMemFree(void* p, size_t size) {
  if (!p) return;
  AllocTracking::totals().deallocationInc(size);
  ::operator delete(p);
}

AllocTrackTypeInfo PtrInterface::NotifieeConst::zebAllocTrackTypeInfo_;

void* PtrInterface::NotifieeConst::operator new(size_t size) {
  return trackedAlloc<NotifieeConst>(size, alignof(NotifieeConst));
}

void PtrInterface::NotifieeConst::operator delete(void* p, size_t size) {
  trackedFree<NotifieeConst>(p, size);
}

void NotifieeListPtr::deleteMember(NotifieeListPtr const& list, PtrInterface const* owner,
                                   PtrInterface::NotifieeConst const* notifiee) {
  if (!list.list) return;
  FMASSERT(list.list->owner() == nullptr || list.list->owner() == owner, zebHandler(),
           "NotifieeListPtr", "deleteMember: list of {} asked to remove a notifiee of {}",
           static_cast<void const*>(list.list->owner()), static_cast<void const*>(owner));
  list.list->deleteMember(notifiee);
}

}  // namespace Zeb
