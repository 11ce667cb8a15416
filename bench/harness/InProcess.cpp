// The in-process ceiling of the peer benchmark: std::unordered_map and
// absl::flat_hash_map in one process (no sharing, no concurrent writer),
// measured on the same rows and in the same order as the shared tables.
#include <cstring>
#include <memory>
#include <tuple>
#include <unordered_map>

#include <absl/container/flat_hash_map.h>
#include <absl/hash/hash.h>
#include <fmt/format.h>

#include "Harness.h"

namespace Peers {

namespace {

// absl's own hash over the key's fields, as an absl user would write it.
struct AbslKeyHash {
  size_t operator()(Key const& k) const noexcept {
    auto const& f = k.ipFlowKey();
    uint32_t src, dst;
    std::memcpy(&src, &f.srcAddr(), 4);
    std::memcpy(&dst, &f.dstAddr(), 4);
    uint64_t intf;
    std::memcpy(&intf, &k.intfId(), 8);
    return absl::Hash<std::tuple<uint32_t, uint16_t, uint32_t, uint32_t, uint32_t, uint16_t,
                                 uint16_t, uint8_t, uint64_t>>{}(
        std::make_tuple(f.vrfId(), f.vlanId(), src, dst, static_cast<uint32_t>(f.ipProtocol()),
                        f.srcPort(), f.dstPort(), static_cast<uint8_t>(f.direction()), intf));
  }
};

template <typename Map>
Figures runMap(char const* system, Config const& c, Workload const& w, int rep) {
  Figures f;
  auto step = [&](char const* s) { progress(system, w.n, rep, c.reps, s); };
  Map m;
  step("insert");
  f.insert = timeOnce(w.n, [&](uint32_t i) {
    Value const& v = w.rows[w.order[i]];
    m.insert_or_assign(v.key(), v);
  });
  if (m.size() != w.n) fail(system, fmt::format("{} members after {} inserts", m.size(), w.n));

  step("overwrite");
  Value row;
  f.overwrite = timeOnce(w.n, [&](uint32_t i) {
    row = w.rows[w.order[i]];
    row.updateTimeIs(1);
    m.insert_or_assign(row.key(), row);
  });

  step("walk");
  uint64_t walked = 0;
  f.walk = timePasses(1, c.minLookupSeconds, [&](uint32_t) {
    Value v;
    for (auto const& [k, val] : m) {
      v = val;
      walked += v.createTime() < w.n;
    }
  });
  if (walked % w.n)
    fail(system, fmt::format("a walk met {} entries, not a multiple of {}", walked, w.n));
  f.walk /= w.n;

  step("lookup");
  ReaderResult const r = measureLookups(w, c.minLookupSeconds, [&m](Key const& k, Value& out) {
    auto it = m.find(k);
    if (it == m.end()) return false;
    out = it->second;
    return true;
  });
  if (r.wrong) fail(system, fmt::format("{} wrong lookups", r.wrong));
  f.hit = r.hit;
  f.miss = r.miss;

  step("remove");
  uint32_t missing = 0;
  f.remove = timeOnce(w.n, [&](uint32_t i) { missing += m.erase(w.hitKeys[i]) != 1; });
  if (missing) fail(system, fmt::format("{} removes found no row", missing));

  if (rep == 0) {
    step("memory");
    std::unique_ptr<Map> fresh;
    f.bytes = static_cast<double>(heapGrowth([&] {
                fresh = std::make_unique<Map>();
                for (uint32_t i : w.order) fresh->insert_or_assign(w.keys[i], w.rows[i]);
              })) /
              w.n;
  }
  return f;
}

}  // namespace

Figures runStdUnorderedMap(Config const& c, Workload const& w, int rep) {
  return runMap<std::unordered_map<Key, Value, KeyHash>>("std::unordered_map", c, w, rep);
}

Figures runAbslFlatHashMap(Config const& c, Workload const& w, int rep) {
  return runMap<absl::flat_hash_map<Key, Value, AbslKeyHash>>("absl::flat_hash_map", c, w, rep);
}

}  // namespace Peers
