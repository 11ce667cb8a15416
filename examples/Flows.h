// The flows both example agents agree on: flow i's key and rows, and the
// state the writer leaves behind. The reader checks the tables against it.
#pragma once

#include <cstdint>
#include <string>

#include <FlowTracking/Factories.h>

namespace Example {

using namespace FlowTracking;

// [rows]
// Flow i: a distinct 5-tuple for every i (the source address carries it),
// arriving on one of 8 interfaces.
inline HoIpFlowKey flowKey(uint32_t i) {
  IpFlowKey k;
  k.vrfIdIs(0);
  k.srcAddrIs(Nimbet::IpAddr(0x0a000000u + i));  // 10.0.0.0 + i
  k.dstAddrIs(Nimbet::IpAddr(0xc0a80001u));      // 192.168.0.1
  k.ipProtocolIs(Nimbet::IpProtocol(6));         // TCP
  k.srcPortIs(static_cast<uint16_t>(1024 + i % 50000));
  k.dstPortIs(443);
  return HoIpFlowKey(k, Nimbet::IntfId(100 + i % 8, 0));
}

inline HoIpFlowConfig configRow(uint32_t i) {
  HoIpFlowConfig r(flowKey(i));
  r.createTimeIs(1.7e9 + i);
  r.updateTimeIs(1.7e9 + i);
  r.cachedIntfIdIs(Nimbet::IntfId(200 + i % 8, 0));
  return r;
}

inline HoIpFlowStatus statusRow(uint32_t i, HoFlowState state) {
  HoIpFlowStatus r(flowKey(i));
  r.hoFlowStateIs(state);
  r.createTimeIs(1.7e9 + i);
  r.updateTimeIs(1.7e9 + i + 1);
  return r;
}

// What the writer leaves: every tenth flow (i % 10 == 9) removed again, the
// others configured and offloaded.
inline bool kept(uint32_t i) {
  return i % 10 != 9;
}
// [rows]

// The entities of one agent. The same names in both processes give the same
// table directories: <root>/offload/config/hoIpFlowConfig and
// <root>/offload/status/hoIpFlowStatus.
// [entities]
struct Entities {
  Zeb::Ptr<HoFlowConfig> parent = hoFlowConfigFactory("offload");
  Zeb::Ptr<HoFlowConfig> config = hoFlowConfigFactory("config");
  Zeb::Ptr<HoFlowStatus> status = hoFlowStatusFactory("status");

  Entities() {
    // Joining the tree gives each collection its path; until then it is a
    // private table of this process.
    config->parentIs(parent.get());
    status->parentIs(parent.get());
  }
  // Leaving the tree detaches both collections: a writer lets go of its
  // files (they stay for readers and for the next writer), a reader stops
  // following them.
  ~Entities() {
    status->parentIs(nullptr);
    config->parentIs(nullptr);
  }
  void mount(Mirak::MapDescriptor const& d) {
    config->hoIpFlowConfigControl()->init(d);
    status->hoIpFlowStatusControl()->init(d);
  }
  // 1: attached to the writer's files (a writer is mounted once init returns).
  bool mounted() const {
    return config->hoIpFlowConfigControlRaw()->mountStatus() == 1 &&
           status->hoIpFlowStatusControlRaw()->mountStatus() == 1;
  }
};
// [entities]

// The first difference between a status collection (a reader's view of the
// table or a shadow's copy) and the statuses the writer leaves, by lookup of
// every flow and by a walk; "" when they agree.
// [status-check]
inline std::string statusDifference(HoFlowStatus const& status, uint32_t flows) {
  auto const& statuses = status.hoIpFlowStatus();
  uint32_t keptFlows = 0;
  for (uint32_t i = 0; i < flows; i++) {
    bool found = false;
    auto const* s = statuses.safeLookup(flowKey(i), found, nullptr);
    if (found != kept(i))
      return "status row of flow " + std::to_string(i) + " present: " + std::to_string(found);
    if (found && !(*s == TableValue<HoIpFlowStatus>(statusRow(i, hoFlowStateOffloaded)))) {
      return "status of flow " + std::to_string(i) + " differs";
    }
    keptFlows += kept(i);
  }
  uint32_t walked = 0;
  for (HoFlowStatus::HoIpFlowStatusMap::IteratorConst it(&statuses); it.valid(); it.advance()) {
    ++walked;
  }
  if (walked != keptFlows) {
    return "walked " + std::to_string(walked) + " status rows, expected " +
           std::to_string(keptFlows);
  }
  return "";
}
// [status-check]

}  // namespace Example
