// Mem::VersionedRef<unsigned int>: a (version, value) pair read and written as
// one 8-byte access. Layout: version u32 at offset 0, value u32 at offset 4.
// Every rewrite of a pair adds to the version in the same store, so a reader
// that loads the pair twice sees any rewrite, even one that put the value back.
#pragma once

#include <cstddef>
#include <cstdint>

#include <fmt/format.h>

namespace Mem {

template <typename T>
struct alignas(8) VersionedRef {
  static_assert(sizeof(T) == 4, "a versioned pair is 8 bytes");
  uint32_t version;
  T value;

  friend bool operator==(VersionedRef const&, VersionedRef const&) = default;
};

static_assert(sizeof(VersionedRef<unsigned int>) == 8);
static_assert(offsetof(VersionedRef<unsigned int>, version) == 0);
static_assert(offsetof(VersionedRef<unsigned int>, value) == 4);

}  // namespace Mem

template <typename T>
struct fmt::formatter<Mem::VersionedRef<T>> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(Mem::VersionedRef<T> const& r, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "{:#x}:{}", r.version, r.value);
  }
};
