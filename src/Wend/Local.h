// Wend::Local<T>: a resizable array in private memory of one process.
//
// Used as Wend::Local<bool> for the validator's marks: one per slot or queue
// position, possibly millions of them. Each element is a plain T, so a bool
// takes one byte (not one bit): a million marks cost a megabyte, far below the
// table they check, and every mark is a real bool& with no proxy and no
// read-modify-write of neighbours. Large arrays come from the allocator's
// mmap path and go back to the system when the array dies or shrinks.
//
// Contract:
//   - resize(n, fill) keeps the first min(n, size()) elements and sets the new
//     ones to `fill`; an allocation failure throws
//     Lomi::MemoryResourceException and leaves the array as it was.
//   - operator[] and at() check the index: out of range throws
//     Lomi::CorruptionDetectedException. Indices come from table content
//     (slot numbers, queue positions), so a bad one is damage to report, not
//     a reason to touch memory outside the array.
//   - One thread per object.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>

#include "Lomi/Exception.h"

namespace Wend {

template <typename T>
class Local {
 public:
  Local() = default;
  explicit Local(size_t n, T const& fill = T()) { resize(n, fill); }
  Local(Local&&) noexcept = default;
  Local& operator=(Local&&) noexcept = default;

  void resize(size_t n, T const& fill = T()) {
    if (n == size_) return;
    std::unique_ptr<T[]> grown;
    try {
      grown.reset(new T[n]);
    } catch (std::bad_alloc const&) {
      throw Lomi::MemoryResourceException(
          "cannot allocate a local array of {} elements of {} bytes", n, sizeof(T));
    }
    size_t kept = std::min(n, size_);
    std::copy(data_.get(), data_.get() + kept, grown.get());
    std::fill(grown.get() + kept, grown.get() + n, fill);
    data_ = std::move(grown);
    size_ = n;
  }

  // Sets every element to `value`, keeping the size.
  void fill(T const& value) { std::fill(data_.get(), data_.get() + size_, value); }

  T& operator[](size_t i) { return data_[checked(i)]; }
  T const& operator[](size_t i) const { return data_[checked(i)]; }
  T& at(size_t i) { return data_[checked(i)]; }
  T const& at(size_t i) const { return data_[checked(i)]; }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* data() { return data_.get(); }
  T const* data() const { return data_.get(); }

 private:
  size_t checked(size_t i) const {
    if (i >= size_) {
      throw Lomi::CorruptionDetectedException("local array index {} is out of range, size {}", i,
                                              size_);
    }
    return i;
  }

  std::unique_ptr<T[]> data_;
  size_t size_ = 0;
};

}  // namespace Wend
