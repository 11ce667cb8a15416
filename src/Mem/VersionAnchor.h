// Mem::VersionAnchor and Mem::CacheVersionAnchor: proof of which version of a
// slot's value a read returned.
//
// A table object that hands out a value notes the slot's `versionFlags` word
// as it was read, where that word lies (its offset from the mapping's base)
// and the base. Comparing the live word with the noted one later tells
// whether the value handed out is still the current one: the writer moves the
// word on every overwrite, removal and re-use of the slot, so any change of
// the entry shows, with no look at the key.
//
// offset:
//   kNeverSet (0xfffffffe)  nothing was read since construction or reset;
//                           asking about such an anchor is a caller's error;
//   kGone     (0xffffffff)  the slot no longer lies in the table (it was
//                           shrunk away): never current;
//   otherwise               byte offset of the word from `base`.
//
// The pointer-free pair (word, offset) is a CacheVersionAnchor: it can be kept
// beside a cached value and compared later, also after a remap moved `base`.
#pragma once

#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "Lomi/Exception.h"

namespace Mem {

struct CacheVersionAnchor {
  static constexpr uint32_t kNeverSet = 0xfffffffeu;
  static constexpr uint32_t kGone = 0xffffffffu;

  uint32_t word = 0;
  uint32_t offset = kNeverSet;

  friend bool operator==(CacheVersionAnchor const&, CacheVersionAnchor const&) = default;
};

struct VersionAnchor {
  static constexpr uint32_t kNeverSet = CacheVersionAnchor::kNeverSet;
  static constexpr uint32_t kGone = CacheVersionAnchor::kGone;

  uint32_t word = 0;
  uint32_t offset = kNeverSet;
  void const* base = nullptr;

  // Notes `*wordAddr` as read with value `seen`; `mappingBase` is the start of
  // the mapping that holds the word.
  void set(uint32_t seen, void const* wordAddr, void const* mappingBase) {
    word = seen;
    offset = static_cast<uint32_t>(static_cast<char const*>(wordAddr) -
                                   static_cast<char const*>(mappingBase));
    base = mappingBase;
  }
  // Back to the state of a default-constructed anchor (after a failed read).
  void reset() { *this = VersionAnchor(); }
  // The slot left the table: the anchor can never be current again.
  void gone() { offset = kGone; }

  bool neverSet() const { return offset == kNeverSet; }
  bool isGone() const { return offset == kGone; }

  // Whether the word at base + offset still holds `word`. Precondition: the
  // anchor was set (not kNeverSet) and `base` still maps the table; a holder
  // that remapped must have rebased or marked the anchor gone. The load is an
  // acquire, pairing with the writer's release store of the word, so a caller
  // that sees the same word may rely on the value it read earlier.
  bool current() const {
    if (offset == kGone || offset == kNeverSet || base == nullptr) return false;
    auto const* w = reinterpret_cast<uint32_t const*>(static_cast<char const*>(base) + offset);
    return __atomic_load_n(w, __ATOMIC_ACQUIRE) == word;
  }

  CacheVersionAnchor cache() const { return CacheVersionAnchor{word, offset}; }
};

// A value changed after it was read: raised by `validateVersionAnchor`, with
// an empty text unless a caller gives one.
class VersionMismatchException : public Lomi::Exception {
 public:
  VersionMismatchException() : Lomi::Exception(std::string()) {}
  using Lomi::Exception::Exception;
};

}  // namespace Mem

template <>
struct fmt::formatter<Mem::CacheVersionAnchor> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Mem::CacheVersionAnchor const& a, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "word:{:#x} offset:{:#x}", a.word, a.offset);
  }
};

template <>
struct fmt::formatter<Mem::VersionAnchor> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Mem::VersionAnchor const& a, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "word:{:#x} offset:{:#x} base:{}", a.word, a.offset,
                          fmt::ptr(a.base));
  }
};
