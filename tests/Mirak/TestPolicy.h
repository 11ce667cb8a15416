// A small table policy for the tests of the generic table code: a test
// record wrapped like a flow record, the Ops instance over it, and a
// hand-written minimal policy that shows the least a policy must offer.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "Mirak/Operations.h"
#include "Zeb/Hash.h"
#include "ZebMirak/ValueWrapper.h"

namespace MirakTest {

struct TestKey;
// Runs at every hash of a TestKey on the thread that set it. A reader hashes
// the key of each slot it passes right after it loaded that slot's link, so
// the protocol tests pause a reader there, on a slot of their choice.
inline thread_local std::function<void(TestKey const&)> testKeyHashHook;
// Runs at every comparison (equality or order) of two TestKeys on the thread
// that set it, with the right-hand key. A lookup compares keys only on a slot
// whose rhash equals its key's, after it copied that slot: a pause there
// holds a lookup between its read of the row and the checks that end the
// operation.
inline thread_local std::function<void(TestKey const&)> testKeyCompareHook;

// Two attributes hashed field by field, like the flow keys.
struct TestKey {
  uint32_t id = 0;
  uint16_t zone = 0;

  uint32_t hash(uint32_t seed) const {
    if (testKeyHashHook) testKeyHashHook(*this);
    Zeb::Hash h(seed);
    h.hashMix<4>(&id);
    uint32_t z = zone;
    h.hashMix<4>(&z);
    return h.result();
  }
  friend bool operator==(TestKey const& a, TestKey const& b) {
    if (testKeyCompareHook) testKeyCompareHook(b);
    return a.id == b.id && a.zone == b.zone;
  }
  friend bool operator<(TestKey const& a, TestKey const& b) {
    if (testKeyCompareHook) testKeyCompareHook(b);
    return a.id != b.id ? a.id < b.id : a.zone < b.zone;
  }
};

struct TestRecord {
  TestKey key_;
  uint64_t count = 7;  // a non-zero default, so the default value is recognisable
  uint32_t flags = 0;

  TestKey const& key() const { return key_; }
  friend bool operator==(TestRecord const& a, TestRecord const& b) {
    return a.key_ == b.key_ && a.count == b.count && a.flags == b.flags;
  }
  friend std::ostream& operator<<(std::ostream& os, TestRecord const& r) {
    return os << "TestRecord(" << r.key_.id << "/" << r.key_.zone << " count " << r.count << ")";
  }
};

// A record whose key is a data member, not an accessor.
struct FieldKeyRecord {
  uint32_t key = 0;
  uint32_t value = 0;
};

// A one-byte key without a hash member: it hashes through mirakHash, found
// by argument-dependent lookup.
enum class ByteKey : uint8_t { none = 0, low = 1, high = 2 };
inline uint32_t mirakHash(ByteKey k, uint32_t seed) {
  return Zeb::hashSingleAttr(seed, k);
}

using TestValue = ZebMirak::ZebMirakMapValueWrapper<TestRecord, TestKey, &TestRecord::key, false>;

// A row of the test table and its key. The flags mix id and count, so rows
// that differ in either differ in more than one word.
inline TestKey key(uint32_t id, uint16_t zone = 0) {
  return TestKey{id, zone};
}
inline TestValue row(uint32_t id, uint64_t count = 1, uint16_t zone = 0) {
  TestRecord r;
  r.key_ = key(id, zone);
  r.count = count;
  r.flags = id * 2654435761u ^ static_cast<uint32_t>(count);
  return TestValue(r);
}
using FieldKeyValue =
    ZebMirak::ZebMirakMapValueWrapper<FieldKeyRecord, uint32_t, &FieldKeyRecord::key, false>;

struct TestQueueWriter {};

// The policy of the test record over a given queue writer.
template <typename QueueWriter>
using TestOpsWith = Mirak::Ops<
    TestKey, TestValue,
    Mirak::KeyOps<TestKey, TestValue, Mirak::KeyRetrieval<TestKey, TestValue, &TestValue::fwkKey>,
                  Mirak::Hash<TestKey, false>>,
    Mirak::ValueOps<TestKey, TestValue, Mirak::Marshall<TestValue>, Mirak::Allocator<TestValue>>,
    Mirak::SlotAllocator<TestKey, TestValue>, QueueWriter, Mirak::NullPrevValueAnchor>;
using TestOps = TestOpsWith<TestQueueWriter>;

// The least a policy has to give the generic table code (the concept
// Mirak::TablePolicy), written out by hand over a plain integer table.
struct MinimalOps {
  using Key = uint32_t;
  using Value = uint32_t;  // the value is its own key
  using KeyOps = void;
  using ValueOps = void;
  using SlotAllocator = void;
  using TesselWriter = TestQueueWriter;
  using PrevValueAnchor = Mirak::NullPrevValueAnchor;

  static constexpr uint32_t valueSize = sizeof(Value);

  uint32_t seed = 0;
  uint32_t hashSeed() const { return seed; }
  void hashSeedIs(uint32_t s) { seed = s; }
  uint32_t hash(Key const& k) const { return Zeb::hashSingleAttr(seed, k); }
  static Key const& key(Value const& v) { return v; }
  static bool keyEqual(Key const& a, Key const& b) { return a == b; }
  static bool keyLess(Key const& a, Key const& b) { return a < b; }
  static Value const& defaultValue() {
    static Value const v = 0xdeadbeef;
    return v;
  }
  static std::string_view valueTypeName() { return "uint32_t"; }
  static std::string keyText(Key const& k) { return fmt::format("{}", k); }
  static std::string valueText(Value const& v) { return fmt::format("{}", v); }
};

}  // namespace MirakTest

template <>
struct Mirak::ValueTypeName<MirakTest::TestRecord> {
  static constexpr std::string_view value = "MirakTest::TestRecord";
};

template <>
struct fmt::formatter<MirakTest::TestKey> : fmt::formatter<std::string_view> {
  template <typename Ctx>
  auto format(MirakTest::TestKey const& k, Ctx& ctx) const {
    return fmt::format_to(ctx.out(), "{}/{}", k.id, k.zone);
  }
};
