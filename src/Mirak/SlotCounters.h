// Mirak::SlotCounters: how many entries of a private copy lie in each size
// class of slot index, so that the copy can tell how far its slot array may
// shrink without losing an entry.
//
// Class of index i: 0 if i >> shift is 0, else the bit width of i >> shift.
// `shift` is the largest power of two not above the table slots that fit in
// the slot file's first page, so class 0 never asks for less than that page.
// A class covers the indices [2^(c-1) << shift, 2^c << shift); the mask has
// bit c set while class c is not empty.
//
// Thread safety: none; the shadow's one thread.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

namespace Mirak {

class SlotCounters {
 public:
  // `firstPageSlots`: table slots in the first page of the slot file after
  // its header (0 if the header fills the page).
  explicit SlotCounters(uint32_t firstPageSlots)
      : shift_(firstPageSlots > 1 ? std::bit_width(firstPageSlots) - 1 : 0) {}

  void add(uint32_t index) {
    uint32_t const c = classOf(index);
    counts_[c]++;
    mask_ |= uint64_t(1) << c;
  }
  void remove(uint32_t index) {
    uint32_t const c = classOf(index);
    if (counts_[c] > 0 && --counts_[c] == 0) mask_ &= ~(uint64_t(1) << c);
  }

  // A slot count that holds every occupied index: the end of the highest
  // non-empty class, capped at 2^32 - 1. 0 when nothing is occupied.
  uint32_t largestOccupied() const {
    if (mask_ == 0) return 0;
    uint32_t const top = std::bit_width(mask_) - 1;
    uint64_t const end = top == 0 ? (uint64_t(1) << shift_) : (uint64_t(1) << top) << shift_;
    return end > 0xffffffffull ? 0xffffffffu : uint32_t(end);
  }
  uint32_t shift() const { return shift_; }

 private:
  uint32_t classOf(uint32_t index) const {
    uint32_t const high = index >> shift_;
    return high == 0 ? 0 : uint32_t(std::bit_width(high));
  }

  uint32_t shift_;
  uint64_t mask_ = 0;
  std::array<uint32_t, 33> counts_{};
};

}  // namespace Mirak
