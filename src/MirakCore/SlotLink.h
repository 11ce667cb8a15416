// MirakCore::SlotLink: the 8-byte link of a slot or a bucket head, stored and
// loaded as one access (version u32 at 0, next u32 at 4).
//
// `next` reads:
//   bit 31 clear            the index of the next slot of this chain;
//   bit 31 set, not ~0u     end of this chain; the low 31 bits name the bucket
//                           that comes next in the walk of the whole table;
//   0xffffffff              end of the whole table (only the last bucket of
//                           the walk, numBuckets - 1, ends so).
// `version` moves by 4 on every store of the link, in slots and buckets alike.
#pragma once

#include <cstddef>
#include <cstdint>

#include <fmt/format.h>

namespace MirakCore {

struct alignas(8) SlotLink {
  static constexpr uint32_t kEndOfChain = 0x80000000u;
  static constexpr uint32_t kEndOfTable = 0xffffffffu;
  static constexpr uint32_t kVersionStep = 4;

  uint32_t version;
  uint32_t next;

  static constexpr bool isEndOfChain(uint32_t next) { return (next & kEndOfChain) != 0; }
  static constexpr uint32_t endOfChainTo(uint32_t bucket) { return bucket | kEndOfChain; }
  static constexpr uint32_t indexOf(uint32_t next) { return next & ~kEndOfChain; }

  friend bool operator==(SlotLink const&, SlotLink const&) = default;
};

static_assert(sizeof(SlotLink) == 8);
static_assert(offsetof(SlotLink, version) == 0);
static_assert(offsetof(SlotLink, next) == 4);

}  // namespace MirakCore

template <>
struct fmt::formatter<MirakCore::SlotLink> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(MirakCore::SlotLink const& l, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "{:#x}:{:#x}", l.version, l.next);
  }
};
