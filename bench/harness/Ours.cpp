// The flow table itself in the peer benchmark: a HoIpFlowConfig table in
// files under /dev/shm, written by this process (MirakWriter) and read by
// forked processes (MirakReader) that attach to its files.
#include <memory>
#include <string>

#include <fmt/format.h>

#include "FlowTracking/TableReaders.h"
#include "FlowTracking/TableWriters.h"
#include "Harness.h"
#include "Mem/RootPath.h"

namespace Peers {

namespace {

using Writer = FlowTracking::HoIpFlowConfigWriter;
using Reader = FlowTracking::HoIpFlowConfigReader;
constexpr char kSystem[] = "flowtable";

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("peers");
}

// The reader body: attach in this (child) process, then the checked lookups.
ReaderResult readerLookups(std::string const& name, Workload const& w, double minSeconds) {
  Reader reader(handler(), name, FlowTracking::HoIpFlowConfigOps(0));
  if (!reader.initialize("peers")) fail(kSystem, "the reader could not attach to " + name);
  ReaderResult r = measureLookups(w, minSeconds, [&reader](Key const& k, Value& out) {
    bool found;
    reader.lookup(k, found, &out);
    return found;
  });
  measureBulkLookups(w, minSeconds, r,
                     [&reader](Key const* keys, uint32_t count, Value* out, bool* found) {
                       reader.lookupBulk(keys, count, out, found);
                     });
  return r;
}

}  // namespace

Figures runOurs(Config const& c, Workload const& w, int rep) {
  static int tableNo = 0;
  std::string const name = fmt::format("peers/t{}", tableNo++);
  Mirak::MapDescriptor d(w.n);
  d.shrinkBuckets_ = true;
  auto writer =
      std::make_unique<Writer>(handler(), name.c_str(), d, FlowTracking::HoIpFlowConfigOps(0));
  writer->initialize("peers");
  Figures f;
  auto step = [&](char const* s) { progress(kSystem, w.n, rep, c.reps, s); };

  step("insert");
  f.insert = timeOnce(w.n, [&](uint32_t i) { writer->write(w.rows[w.order[i]], true); });
  if (writer->members() != w.n)
    fail(kSystem, fmt::format("{} members after {} inserts", writer->members(), w.n));
  f.bytes = static_cast<double>(allocatedBytesUnder(c.shmDir + "/" + name)) / w.n;

  step("overwrite");
  Value row;
  f.overwrite = timeOnce(w.n, [&](uint32_t i) {
    row = w.rows[w.order[i]];
    row.updateTimeIs(1);
    writer->write(row, true);
  });

  step("walk");
  uint64_t walked = 0;
  f.walk = timePasses(1, c.minLookupSeconds, [&](uint32_t) {
    Value v;
    Mirak::IterHint hint{};
    for (bool ok = writer->first(v, hint); ok; ok = writer->next(v.key(), v, hint)) walked++;
  });
  if (walked % w.n)
    fail(kSystem, fmt::format("a walk met {} entries, not a multiple of {}", walked, w.n));
  f.walk /= w.n;

  auto overwrite = [&](uint32_t i, uint32_t version) {
    row = w.rows[i];
    row.updateTimeIs(version);
    writer->write(row, true);
  };
  for (Load load : {Load::idle, Load::busy, Load::paced}) {
    step(loadName(load));
    ReaderResult const r = readUnderLoad(
        kSystem, load, w.n, [&] { return readerLookups(name, w, c.minLookupSeconds); }, overwrite);
    if (r.wrong) fail(kSystem, fmt::format("{} wrong lookups with {}", r.wrong, loadName(load)));
    (load == Load::idle ? f.hit : load == Load::busy ? f.hitBusy : f.hitPaced) = r.hit;
    (load == Load::idle ? f.miss : load == Load::busy ? f.missBusy : f.missPaced) = r.miss;
    if (load == Load::idle) {
      f.hitBulk = r.hitBulk;
      f.missBulk = r.missBulk;
    }
  }

  step("remove");
  Value removed;
  uint32_t missing = 0;
  f.remove = timeOnce(w.n, [&](uint32_t i) { missing += !writer->remove(w.hitKeys[i], removed); });
  if (missing) fail(kSystem, fmt::format("{} removes found no row", missing));
  writer->cleanup();
  return f;
}

}  // namespace Peers
