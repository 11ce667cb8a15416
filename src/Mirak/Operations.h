// Mirak::Ops: the policy type of one table of the family, and its parts.
//
// The whole table family (writer, reader, shadow, placeholders, front object)
// is generic over one type, `Ops`, that names what differs between tables:
// the key, the stored value, how a key is got from a value and hashed, how a
// value is copied in and out of a slot, which change queue the writer feeds.
// An `Ops` is a small value (it carries the table's hash seed); every table
// object keeps its own copy.
//
// The instance used by every table is
//
//   Mirak::Ops<Key, Value,
//              Mirak::KeyOps<Key, Value, Mirak::KeyRetrieval<Key, Value, &Value::fwkKey>,
//                            Mirak::Hash<Key, false>>,
//              Mirak::ValueOps<Key, Value, Mirak::Marshall<Value>, Mirak::Allocator<Value>>,
//              Mirak::SlotAllocator<Key, Value>, TesselWriterType, Mirak::NullPrevValueAnchor>
//
// Policy members, as generic code uses them (the concept `TablePolicy` below
// states the same requirements to the compiler). For a policy `Ops`, an
// object `ops` of it, a key `k` and a value `v`:
//
//   Ops::Key              The key. Copyable, `==` and `<` (the order of
//                         entries with equal hashes inside a chain). Plain
//                         bytes: it lies inside the value in the files.
//   Ops::Value            What a slot holds: trivially copyable, holding
//                         nothing that points outside itself, because its
//                         bytes are the table's format. The key is part of it.
//   Ops::KeyOps           Key retrieval, hashing and order; holds `hashSeed`.
//   Ops::ValueOps         Copying values to and from slots, the default value.
//   Ops::SlotAllocator    Policy slot for the allocation of slots; the slot
//                         table allocates from its own free list, so the one
//                         instance is empty.
//   Ops::TesselWriter     The kind of change queue the writer feeds:
//                         Tessel::TesselWriter for tables that readers can
//                         shadow, Tessel::DummyTesselWriter (no queue) for
//                         the others.
//   Ops::PrevValueAnchor  Policy slot for keeping the previous value of an
//                         overwritten entry. Every table takes
//                         NullPrevValueAnchor: no previous value is kept.
//
//   ops.hashSeed()        u32 seed of the key hash; the writer draws it when
//   ops.hashSeedIs(s)     it formats a table, a reader takes it from the
//                         table's header. Two processes agree on a key's
//                         bucket only if their seeds agree.
//   ops.hash(k)           u32 hash of `k` under the seed: KeyOps::hash.
//   Ops::key(v)           The key inside `v`, by const reference or by value.
//   Ops::keyEqual(a, b)   Key equality and order.
//   Ops::keyLess(a, b)
//   Ops::defaultValue()   The process-wide default value of the type: what a
//                         failed lookup hands back. One object per type, made
//                         on first use; its address is stable.
//   Ops::valueSize        Bytes of a value in a slot: sizeof(Value).
//   Ops::valueTypeName()  The type name stored in the table's header: the
//                         record's name, not the wrapper's (ValueTypeName).
//   Ops::keyText(k)       Text of a key or value for traces and assertion
//   Ops::valueText(v)     messages: fmt's formatter if the type has one, else
//                         str(), else operator<<, else its bytes in hex.
//
// The parts, each usable on its own:
//
//   Hash<Key, false>      hash(k, seed) = k.hash(seed). A key type without a
//                         `hash` member provides a free function
//                         `uint32_t mirakHash(Key const&, uint32_t seed)` in
//                         its own namespace, found by argument-dependent
//                         lookup (a one-byte enumeration key, for example).
//   Hash<Key, true>       The key is a single 1- or 4-byte attribute without
//                         padding: Zeb::hashSingleAttr(seed, k).
//   KeyRetrieval<Key, Value, get>
//                         key(v) = std::invoke(get, v): `get` is a member
//                         function or a data member of Value.
//   Marshall<Value>       Copies a value as bytes, adds nothing: the bytes of
//                         a slot are the bytes of the value in memory.
//   Allocator<Value>      type_default(): the default value of the type.
//
// Thread safety: a policy object is a value; its members are const except
// hashSeedIs. Allocator<Value>::type_default() may be called from any thread.
#pragma once

#include <concepts>
#include <cstdint>
#include <cstring>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

#include <fmt/format.h>

#include "Zeb/Hash.h"

namespace Mirak {

// ---------------------------------------------------------------------------
// Text of keys and values in messages.

template <typename T>
std::string toText(T const& v) {
  if constexpr (fmt::is_formattable<T>::value) {
    return fmt::format("{}", v);
  } else if constexpr (requires { v.str(); }) {
    return std::string(std::string_view(v.str()));
  } else if constexpr (requires(std::ostream & os) { os << v; }) {
    std::ostringstream os;
    os << v;
    return os.str();
  } else {
    // Padding bytes show here as whatever they hold; this is only a message.
    std::string out = "0x";
    auto const* p = reinterpret_cast<unsigned char const*>(&v);
    for (size_t i = 0; i < sizeof(T); ++i) fmt::format_to(std::back_inserter(out), "{:02x}", p[i]);
    return out;
  }
}

// ---------------------------------------------------------------------------
// The type name of a value in the table header.

// Specialise with `static constexpr std::string_view value` for each record.
// A wrapper that names its record as `Record` inherits the record's name.
template <typename T, typename = void>
struct ValueTypeName {};

template <typename T>
struct ValueTypeName<T, std::void_t<typename T::Record>> : ValueTypeName<typename T::Record> {};

// ---------------------------------------------------------------------------
// Key hashing.

namespace detail {
// Stops the unqualified call below from finding anything but what
// argument-dependent lookup brings.
void mirakHash() = delete;

template <typename Key>
concept HasHashMember = requires(Key const& k, uint32_t seed) {
  { k.hash(seed) } -> std::convertible_to<uint32_t>;
};

template <typename Key>
concept HasMirakHash = requires(Key const& k, uint32_t seed) {
  { mirakHash(k, seed) } -> std::convertible_to<uint32_t>;
};

template <typename Key>
uint32_t adlMirakHash(Key const& k, uint32_t seed) {
  return static_cast<uint32_t>(mirakHash(k, seed));
}
}  // namespace detail

template <typename Key, bool SingleAttr>
struct Hash;

template <typename Key>
struct Hash<Key, false> {
  static_assert(detail::HasHashMember<Key> || detail::HasMirakHash<Key>,
                "a table key needs `uint32_t hash(uint32_t seed) const` or a free "
                "`uint32_t mirakHash(Key const&, uint32_t seed)` in its namespace");

  static uint32_t hash(Key const& k, uint32_t seed) {
    if constexpr (detail::HasHashMember<Key>) {
      return static_cast<uint32_t>(k.hash(seed));
    } else {
      return detail::adlMirakHash(k, seed);
    }
  }
};

template <typename Key>
struct Hash<Key, true> {
  static_assert((sizeof(Key) == 1 || sizeof(Key) == 4) &&
                    std::has_unique_object_representations_v<Key>,
                "Hash<Key, true> takes a key of one 1- or 4-byte attribute without padding");

  static uint32_t hash(Key const& k, uint32_t seed) { return Zeb::hashSingleAttr(seed, k); }
};

// ---------------------------------------------------------------------------
// Key retrieval and key operations.

template <typename Key, typename Value, auto Get>
struct KeyRetrieval {
  static decltype(auto) key(Value const& v) { return std::invoke(Get, v); }
};

template <typename K, typename V, typename Retrieval, typename Hasher>
struct KeyOps {
  using Key = K;
  using Value = V;

  static_assert(
      std::is_same_v<std::remove_cvref_t<decltype(Retrieval::key(std::declval<V const&>()))>, K>,
      "the key retrieval of a table must give the table's key type");

  uint32_t hashSeed = 0;

  uint32_t hash(Key const& k) const { return Hasher::hash(k, hashSeed); }
  static decltype(auto) key(Value const& v) { return Retrieval::key(v); }
  static bool equal(Key const& a, Key const& b) { return a == b; }
  static bool less(Key const& a, Key const& b) { return a < b; }
  static std::string toString(Key const& k) { return toText(k); }
};

// ---------------------------------------------------------------------------
// Value operations.

template <typename Value>
struct Marshall {
  static_assert(std::is_trivially_copyable_v<Value>,
                "a table value is stored by its bytes: it must be trivially copyable");

  static void marshall(void* destination, Value const& v) {
    std::memcpy(destination, &v, sizeof(Value));
  }
  static void unmarshall(Value& destination, void const* source) {
    std::memcpy(&destination, source, sizeof(Value));
  }
};

template <typename Value>
struct Allocator {
  // Built on first use; a function-local static, so its construction is safe
  // from any thread and its address never changes.
  static Value const& type_default() {
    static Value const value{};
    return value;
  }
};

template <typename K, typename V, typename MarshallT, typename AllocatorT>
struct ValueOps {
  using Key = K;
  using Value = V;
  using Marshall = MarshallT;
  using Allocator = AllocatorT;

  static constexpr uint32_t valueSize = sizeof(Value);

  static Value const& defaultValue() { return Allocator::type_default(); }
  static void store(void* destination, Value const& v) { Marshall::marshall(destination, v); }
  static void load(Value& destination, void const* source) {
    Marshall::unmarshall(destination, source);
  }
  static std::string toString(Value const& v) { return toText(v); }
  static std::string_view typeName() { return ValueTypeName<Value>::value; }
};

// ---------------------------------------------------------------------------
// The empty policy slots.

template <typename Key, typename Value>
struct SlotAllocator {};

struct NullPrevValueAnchor {
  static constexpr bool keepsPrevValue = false;
};

// ---------------------------------------------------------------------------
// The policy.

template <typename K, typename V, typename KeyOpsT, typename ValueOpsT, typename SlotAllocatorT,
          typename TesselWriterT, typename PrevValueAnchorT>
class Ops {
 public:
  using Key = K;
  using Value = V;
  using KeyOps = KeyOpsT;
  using ValueOps = ValueOpsT;
  using SlotAllocator = SlotAllocatorT;
  using TesselWriter = TesselWriterT;
  using PrevValueAnchor = PrevValueAnchorT;

  static_assert(std::is_same_v<typename KeyOps::Key, Key> &&
                    std::is_same_v<typename KeyOps::Value, Value>,
                "KeyOps must be made for the table's key and value");
  static_assert(std::is_same_v<typename ValueOps::Value, Value>,
                "ValueOps must be made for the table's value");
  static_assert(std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Value>,
                "keys and values lie in mapped files: they must be trivially copyable");
  static_assert(!PrevValueAnchor::keepsPrevValue, "no table of this family keeps previous values");

  static constexpr uint32_t valueSize = ValueOps::valueSize;

  Ops() = default;
  explicit Ops(uint32_t hashSeed) { keyOps.hashSeed = hashSeed; }

  KeyOps keyOps{};
  [[no_unique_address]] ValueOps valueOps{};
  [[no_unique_address]] SlotAllocator slotAllocator{};
  [[no_unique_address]] PrevValueAnchor prevValueAnchor{};

  uint32_t hashSeed() const { return keyOps.hashSeed; }
  void hashSeedIs(uint32_t seed) { keyOps.hashSeed = seed; }
  uint32_t hash(Key const& k) const { return keyOps.hash(k); }

  static decltype(auto) key(Value const& v) { return KeyOps::key(v); }
  static bool keyEqual(Key const& a, Key const& b) { return KeyOps::equal(a, b); }
  static bool keyLess(Key const& a, Key const& b) { return KeyOps::less(a, b); }
  static Value const& defaultValue() { return ValueOps::defaultValue(); }
  static std::string_view valueTypeName() { return ValueOps::typeName(); }
  static std::string keyText(Key const& k) { return KeyOps::toString(k); }
  static std::string valueText(Value const& v) { return ValueOps::toString(v); }
};

// What the generic table code requires of a policy (see the list at the top).
template <typename O>
concept TablePolicy = std::copyable<O> && std::is_trivially_copyable_v<typename O::Key> &&
    std::is_trivially_copyable_v<typename O::Value> &&
    requires(O ops, O const cops, typename O::Key const& k, typename O::Value const& v,
             uint32_t s) {
  typename O::KeyOps;
  typename O::ValueOps;
  typename O::SlotAllocator;
  typename O::TesselWriter;
  typename O::PrevValueAnchor;
  { cops.hashSeed() } -> std::same_as<uint32_t>;
  ops.hashSeedIs(s);
  { cops.hash(k) } -> std::same_as<uint32_t>;
  { O::key(v) } -> std::convertible_to<typename O::Key const&>;
  { O::keyEqual(k, k) } -> std::same_as<bool>;
  { O::keyLess(k, k) } -> std::same_as<bool>;
  { O::defaultValue() } -> std::same_as<typename O::Value const&>;
  { O::valueSize } -> std::convertible_to<uint32_t>;
  { O::valueTypeName() } -> std::convertible_to<std::string_view>;
  { O::keyText(k) } -> std::same_as<std::string>;
  { O::valueText(v) } -> std::same_as<std::string>;
};

}  // namespace Mirak
