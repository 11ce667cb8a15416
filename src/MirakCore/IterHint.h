// MirakCore::IterHint: a caller's position in a walk of a table.
//
// The caller owns the hint and hands it back with the key of the entry last
// returned; `next` uses it to jump straight to that entry's slot, and falls
// back to a walk from the key's bucket (the slow path) when the slot no longer
// holds the same word. A default hint matches no slot: its word has OCCUPIED
// clear, which no live entry has, so the first `next` with it takes the slow
// path.
#pragma once

#include <cstddef>
#include <cstdint>

#include <fmt/format.h>

namespace MirakCore {

struct IterHint {
  static constexpr uint32_t kNone = 0xffffffffu;

  // The full `versionFlags` word of the slot last returned, as read with its value.
  uint32_t versionFlags = 0;
  // Index of that slot.
  uint32_t slotIndex = kNone;
  // The bucket in which it was found; kNone sends the next step to the slow path.
  uint32_t bucket = kNone;

  friend bool operator==(IterHint const&, IterHint const&) = default;
};

static_assert(sizeof(IterHint) == 12);
static_assert(offsetof(IterHint, versionFlags) == 0);
static_assert(offsetof(IterHint, slotIndex) == 4);
static_assert(offsetof(IterHint, bucket) == 8);

}  // namespace MirakCore

template <>
struct fmt::formatter<MirakCore::IterHint> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(MirakCore::IterHint const& h, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "IterHint{{ version {}, slot {}, bucket {} }}", h.versionFlags,
                          h.slotIndex, h.bucket);
  }
};
