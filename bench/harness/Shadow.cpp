// The shadow copies in the peer benchmark: a HoIpFlowConfig table written by
// this process, copied by a forked process into a value shadow or a keyshadow
// store (one sweep of the table through the change queue's reader), and read
// there. A value shadow answers from private memory; a keyshadow finds the key
// privately and reads the value from the table's files.
#include <memory>
#include <string>

#include <fmt/format.h>

#include "FlowTracking/TableReaders.h"
#include "FlowTracking/TableWriters.h"
#include "Harness.h"
#include "Mem/Notify.h"
#include "Mem/RootPath.h"
#include "Mirak/ShadowStore.h"
#include "Tessel/TesselReader.h"

namespace Peers {

namespace {

using Writer = FlowTracking::HoIpFlowConfigWriter;
using Reader = FlowTracking::HoIpFlowConfigReader;
using Ops = FlowTracking::HoIpFlowConfigOps;

Lomi::Platform::DebugHandler& handler() {
  return Lomi::Platform::getDebugHandler("peers");
}

// The copy in this (child) process: attach, sweep every slot, then the
// checked lookups and the copy's private bytes per entry.
template <typename Store>
ReaderResult shadowLookups(char const* system, std::string const& name, Workload const& w,
                           double minSeconds) {
  Reader reader(handler(), name, Ops(0));
  if (!reader.initialize("peers")) fail(system, "the reader could not attach to " + name);
  Tessel::TesselReader<> tessel(Mem::NaoRootPath(handler(), name, false).path(), handler());
  std::string error;
  if (!tessel.attach(reader.kestorId().value(), error)) fail(system, error);
  Mem::Notify<Key, Value> notify;
  Store store(handler(), reader, tessel, notify, false);
  if (!store.initialize()) fail(system, "the store could not start");
  reader.resize();
  for (uint32_t i = 0; i < reader.capacity(); i++) store.doSlot(i, Tessel::noSequence, true);
  if (reader.counters().members != w.n) {
    fail(system, fmt::format("{} members in the copy of {} rows", reader.counters().members, w.n));
  }
  ReaderResult r = measureLookups(w, minSeconds, [&store](Key const& k, Value& out) {
    bool found;
    Value const* v = store.lookup(k, found, &out);
    if (found && v != &out) out = *v;
    return found;
  });
  r.bytes = static_cast<double>(store.shadowMappedSize() + store.kestorMappedSize()) / w.n;
  return r;
}

template <typename Store>
Figures runShadow(char const* system, Config const& c, Workload const& w, int rep) {
  static int tableNo = 0;
  std::string const name = fmt::format("peers/s{}", tableNo++);
  Mirak::MapDescriptor d(w.n);
  auto writer = std::make_unique<Writer>(handler(), name.c_str(), d, Ops(0));
  writer->initialize("peers");
  progress(system, w.n, rep, c.reps, "fill");
  for (uint32_t i = 0; i < w.n; i++) writer->write(w.rows[w.order[i]], true);
  progress(system, w.n, rep, c.reps, "copy and read");
  ReaderProcess child(
      [&] { return shadowLookups<Store>(system, name, w, c.minLookupSeconds); });
  ReaderResult const r = child.result(system);
  if (r.wrong) fail(system, fmt::format("{} wrong lookups", r.wrong));
  Figures f;
  f.hit = r.hit;
  f.miss = r.miss;
  f.bytes = r.bytes;
  writer->cleanup();
  return f;
}

}  // namespace

Figures runValueShadow(Config const& c, Workload const& w, int rep) {
  return runShadow<Mirak::ShadowStore<Mirak::ValueShadowSlot<Ops>>>("flowtable shadow", c, w,
                                                                    rep);
}

Figures runKeyShadow(Config const& c, Workload const& w, int rep) {
  return runShadow<Mirak::KeyShadowStore<Ops>>("flowtable keyshadow", c, w, rep);
}

}  // namespace Peers
