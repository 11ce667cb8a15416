// The bit-reversed walk of the bucket table.
//
// THE SPLIT-ORDERED WALK
//
// All entries of a table form one list sorted by rhash, the key hash with its
// 32 bits reversed. A key with hash h lives in bucket h mod numBuckets, that
// is, in the bucket named by the low `bits` bits of h, which are the HIGH bits
// of rhash reversed. So the buckets, visited in the order of their indices
// read backwards, cut the sorted list into consecutive pieces: bucket b holds
// exactly the rhash values whose top `bits` bits are reverse(b).
//
// Worked example, 3 bits (8 buckets):
//
//   walk step   rhash prefix   bucket (prefix read backwards)
//   0           000            000 = 0
//   1           001            100 = 4
//   2           010            010 = 2
//   3           011            110 = 6
//   4           100            001 = 1
//   5           101            101 = 5
//   6           110            011 = 3
//   7           111            111 = 7   last: its chain ends the table
//
// so the successors of 0..7 are 4, 5, 6, 7, 2, 3, 1, 0 (the last one wraps).
//
// WHAT HAPPENS WHEN THE TABLE DOUBLES
//
// Going from n = 2^k to 2n buckets appends one bit to every prefix: bucket b
// splits into b (new top bit 0) and b + n (new top bit 1), and b + n comes
// right after b in the new walk. The list itself does not change, which is why
// a grow only cuts chains and never moves an entry. For b < n/2 the successor
// is always b + n/2 (the short form the writer checks), since the top bit of b
// is the first bit of its reversed prefix.
//
// Limits: `bits` runs from 1 to 31 (bucket indices are 31 bits; bit 31 of a
// link marks an end of chain). Outside that range, and in particular for a
// table of one bucket (bits 0), the result is 0xffffffff: there is no
// successor.
#pragma once

#include <bit>
#include <cstdint>

namespace MirakCore {

// The successor of `index` when `bits`-bit numbers are counted in bit-reversed
// form: reverse, add 1, reverse back. The last index of the walk (all `bits`
// bits set) wraps to 0. Returns 0xffffffff if `bits` - 1 is above 30.
constexpr uint32_t bitReversePermute(uint32_t index, uint32_t bits) {
  if (bits - 1u > 30u) return 0xffffffffu;
  uint32_t const shift = 32u - bits;
  uint32_t const v = index << shift;
  // Adding 1 to the reversed number: the lowest zero bit of the reversed value
  // is the highest zero bit of v; set it and clear the ones below it in the
  // reversed value, i.e. above it in v. The bits below `shift` are zero, so a
  // zero bit always exists; if only those remain, the walk wraps to 0.
  uint32_t const k = 31u - static_cast<uint32_t>(std::countl_zero(~v));
  uint32_t const below = (k == 31u) ? 0xffffffffu : ((1u << (k + 1u)) - 1u);
  return ((v | (1u << k)) & below) >> shift;
}

// The bucket `ahead` steps after `bucket` in the walk of 2^bits buckets,
// wrapping after the last; for walks that request lines ahead of their
// cursor. `bits` from 1 to 31; 0 otherwise.
constexpr uint32_t bucketAhead(uint32_t bucket, uint32_t bits, uint32_t ahead) {
  if (bits - 1u > 30u) return 0;
  auto reverse = [](uint32_t v) {
    v = ((v >> 1) & 0x55555555u) | ((v & 0x55555555u) << 1);
    v = ((v >> 2) & 0x33333333u) | ((v & 0x33333333u) << 2);
    v = ((v >> 4) & 0x0f0f0f0fu) | ((v & 0x0f0f0f0fu) << 4);
    v = ((v >> 8) & 0x00ff00ffu) | ((v & 0x00ff00ffu) << 8);
    return (v >> 16) | (v << 16);
  };
  uint32_t const shift = 32u - bits;
  // The walk step of `bucket` is its index read backwards.
  uint32_t const step = reverse(bucket << shift);
  return reverse(((step + ahead) << shift) >> shift) >> shift;
}

// log2 of a power of two.
constexpr uint32_t log2OfPowerOfTwo(uint32_t powerOfTwo) {
  return static_cast<uint32_t>(std::countr_zero(powerOfTwo));
}

}  // namespace MirakCore
