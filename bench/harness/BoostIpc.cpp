// Boost.Interprocess in the peer benchmark: a boost::unordered_map in a
// managed_shared_memory segment (a file under /dev/shm), guarded by an
// interprocess_sharable_mutex in the same segment. The writer (this
// process) takes the mutex exclusively per write; readers in forked
// processes open the segment by name and take it sharably per lookup.
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#include <boost/unordered_map.hpp>

#include <functional>
#include <string>

#include <fmt/format.h>

#include "Harness.h"

namespace Peers {

namespace {

namespace bip = boost::interprocess;

constexpr char kSystem[] = "Boost.Interprocess";

using Segment = bip::managed_shared_memory;
using Entry = std::pair<Key const, Value>;
using EntryAllocator = bip::allocator<Entry, Segment::segment_manager>;
using ShmMap = boost::unordered_map<Key, Value, KeyHash, std::equal_to<Key>, EntryAllocator>;
using Mutex = bip::interprocess_sharable_mutex;

// The segment holds room for the rows, the map's nodes and bucket array and
// the allocator's headers; it is sparse, so only what is touched is memory.
size_t segmentSize(uint32_t n) {
  return (size_t{1} << 20) + size_t{n} * 512;
}

ReaderResult readerLookups(std::string const& name, Workload const& w, double minSeconds) {
  Segment segment(bip::open_only, name.c_str());
  auto* map = segment.find<ShmMap>("map").first;
  auto* mutex = segment.find<Mutex>("mutex").first;
  if (!map || !mutex) fail(kSystem, "the reader found no map in segment " + name);
  return measureLookups(w, minSeconds, [&](Key const& k, Value& out) {
    bip::sharable_lock<Mutex> lock(*mutex);
    auto it = map->find(k);
    if (it == map->end()) return false;
    out = it->second;
    return true;
  });
}

}  // namespace

Figures runBoostInterprocess(Config const& c, Workload const& w, int rep) {
  std::string const name = fmt::format("flowtables-peers-boost-{}-{}", ::getpid(), w.n);
  bip::shared_memory_object::remove(name.c_str());
  Figures f;
  auto step = [&](char const* s) { progress(kSystem, w.n, rep, c.reps, s); };
  {
    Segment segment(bip::create_only, name.c_str(), segmentSize(w.n));
    auto* mutex = segment.construct<Mutex>("mutex")();
    auto* map = segment.construct<ShmMap>("map")(0, KeyHash(), std::equal_to<Key>(),
                                                 EntryAllocator(segment.get_segment_manager()));
    auto put = [&](Value const& v) {
      bip::scoped_lock<Mutex> lock(*mutex);
      map->insert_or_assign(v.key(), v);
    };

    step("insert");
    f.insert = timeOnce(w.n, [&](uint32_t i) { put(w.rows[w.order[i]]); });
    if (map->size() != w.n)
      fail(kSystem, fmt::format("{} members after {} inserts", map->size(), w.n));
    f.bytes = static_cast<double>(allocatedBytesOf("/dev/shm/" + name)) / w.n;

    step("overwrite");
    Value row;
    f.overwrite = timeOnce(w.n, [&](uint32_t i) {
      row = w.rows[w.order[i]];
      row.updateTimeIs(1);
      put(row);
    });

    step("walk");
    uint64_t walked = 0;
    f.walk = timePasses(1, c.minLookupSeconds, [&](uint32_t) {
      bip::sharable_lock<Mutex> lock(*mutex);
      Value v;
      for (auto const& [k, val] : *map) {
        v = val;
        walked += v.createTime() < w.n;
      }
    });
    if (walked % w.n)
      fail(kSystem, fmt::format("a walk met {} entries, not a multiple of {}", walked, w.n));
    f.walk /= w.n;

    auto overwrite = [&](uint32_t i, uint32_t version) {
      row = w.rows[i];
      row.updateTimeIs(version);
      put(row);
    };
    for (Load load : {Load::idle, Load::busy, Load::paced}) {
      step(loadName(load));
      ReaderResult const r = readUnderLoad(
          kSystem, load, w.n, [&] { return readerLookups(name, w, c.minLookupSeconds); },
          overwrite);
      if (r.wrong) fail(kSystem, fmt::format("{} wrong lookups with {}", r.wrong, loadName(load)));
      (load == Load::idle ? f.hit : load == Load::busy ? f.hitBusy : f.hitPaced) = r.hit;
      (load == Load::idle ? f.miss : load == Load::busy ? f.missBusy : f.missPaced) = r.miss;
    }

    step("remove");
    uint32_t missing = 0;
    f.remove = timeOnce(w.n, [&](uint32_t i) {
      bip::scoped_lock<Mutex> lock(*mutex);
      missing += map->erase(w.hitKeys[i]) != 1;
    });
    if (missing) fail(kSystem, fmt::format("{} removes found no row", missing));
    segment.destroy_ptr(map);
  }
  bip::shared_memory_object::remove(name.c_str());
  return f;
}

}  // namespace Peers
