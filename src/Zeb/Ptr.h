// Zeb::Ptr<T>: the counted pointer of objects derived from Zeb::PtrInterface.
//
// Contract: a non-null Ptr holds one reference to its object; copying takes
// another, moving hands it over, destroying or reassigning drops it, and the
// drop of the last reference may delete the object (Zeb/PtrInterface.h).
// Constructing from a raw pointer takes a new reference: `Ptr<E>(new E(...))`
// owns the new object. A Ptr is as thread-safe as the count of its object:
// distinct Ptrs to one object may be used by distinct threads only with
// `VFPtrInterface::threadSafePointers_` set; one Ptr is never shared between
// threads without a lock.
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <utility>

#include "Zeb/PtrInterface.h"

namespace Zeb {

template <typename T>
class Ptr {
 public:
  using element_type = T;

  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) : p_(p) { ref(p_); }
  Ptr(Ptr const& o) : p_(o.p_) { ref(p_); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <typename U>
  requires std::convertible_to<U*, T*> Ptr(Ptr<U> const& o) : p_(o.get()) { ref(p_); }
  template <typename U>
  requires std::convertible_to<U*, T*> Ptr(Ptr<U>&& o)
  noexcept : p_(o.release()) {}
  ~Ptr() { unref(p_); }

  // The new reference is taken before the old one is dropped, so assigning
  // a Ptr that is reachable only through the old object is safe.
  Ptr& operator=(Ptr const& o) {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) {
    Ptr(p).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) {
    reset();
    return *this;
  }

  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  void reset() { Ptr().swap(*this); }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }
  // Gives up the reference without dropping it; the caller now owns it and
  // must hand it to another Ptr or call deleteRef().
  T* release() noexcept { return std::exchange(p_, nullptr); }

  template <typename U>
  friend bool operator==(Ptr const& a, Ptr<U> const& b) noexcept {
    return a.get() == b.get();
  }
  template <typename U>
  friend std::strong_ordering operator<=>(Ptr const& a, Ptr<U> const& b) noexcept {
    return std::compare_three_way{}(a.get(), b.get());
  }
  friend bool operator==(Ptr const& a, T const* b) noexcept { return a.get() == b; }
  friend bool operator==(Ptr const& a, std::nullptr_t) noexcept { return a.get() == nullptr; }

 private:
  static void ref(T* p) {
    if (p) static_cast<PtrInterface const*>(p)->newRef();
  }
  static void unref(T* p) {
    if (p) static_cast<PtrInterface const*>(p)->deleteRef();
  }

  T* p_ = nullptr;
};

// A reference that keeps `p` alive for the length of an operation that calls
// out (to notifiees, which may drop the last outside reference) and then goes
// on using `p`: `p` then dies when the operation lets go of this reference,
// not under it. Null when `p` is null or has no reference: while it is being
// built, or while its zero-references dispatch runs, taking and dropping a
// reference would delete it.
template <typename T>
Ptr<T> keepAlive(T* p) {
  if (!p || static_cast<PtrInterface const*>(p)->references() == 0) return Ptr<T>();
  return Ptr<T>(p);
}

template <typename T, typename U>
Ptr<T> ptrStaticCast(Ptr<U> const& p) {
  return Ptr<T>(static_cast<T*>(p.get()));
}

// Null when the object is not a T.
template <typename T, typename U>
Ptr<T> ptrDynamicCast(Ptr<U> const& p) {
  return Ptr<T>(dynamic_cast<T*>(p.get()));
}

}  // namespace Zeb

template <typename T>
struct std::hash<Zeb::Ptr<T>> {
  size_t operator()(Zeb::Ptr<T> const& p) const noexcept { return std::hash<T*>{}(p.get()); }
};
