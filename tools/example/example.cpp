// Example: builds a few flow rows, hashes them, prints their text forms, and
// stores them in a private table and finds them again. The project's main
// job until the operator's CLI brings its demo.
#include <cstdio>
#include <iostream>

#include "FlowTracking/TableWriters.h"
#include "Zeb/Strep.h"

int main() {
  using namespace FlowTracking;
  Mirak::MapDescriptor desc(100);
  desc.local = true;
  HoIpFlowConfigWriter table(Lomi::Platform::getDebugHandler("example"), "example/config", desc,
                             HoIpFlowConfigOps(0));
  table.initialize("example");

  for (uint32_t i = 1; i <= 3; i++) {
    IpFlowKey flow;
    flow.vrfIdIs(1);
    flow.srcAddrIs(Nimbet::IpAddr(0x0a000000u + i));
    flow.dstAddrIs(Nimbet::IpAddr(0x0a000100u + i));
    flow.ipProtocolIs(Nimbet::ipProtoTcp);
    flow.srcPortIs(static_cast<uint16_t>(40000 + i));
    flow.dstPortIs(443);
    HoIpFlowConfig row(
        HoIpFlowKey(flow, Nimbet::IntfId(Zeb::String("Ethernet" + std::to_string(i)))));
    row.createTimeIs(1700000000.25 + i);
    row.updateTimeIs(1700000000.75 + i);
    table.write(row, true);

    Zeb::String text = valueToStrep(row);
    HoIpFlowConfig back = Zeb::strepToValue(text, static_cast<HoIpFlowConfig*>(nullptr));
    std::printf("row %u  hash(seed 0)=%08x  table hash=%08x  strep round trip: %s\n", i,
                row.key().hash(0), table.ops().hash(row.key()), back == row ? "ok" : "MISMATCH");
    std::cout << "  " << row << "\n  " << row.mirakString() << "\n";
  }
  std::printf("table %s: %u rows, capacity %u, %u buckets\n", table.mirakName().c_str(),
              table.members(), table.capacity(), table.buckets());
  TableValue<HoIpFlowConfig> v;
  Mirak::IterHint hint{};
  for (bool ok = table.first(v, hint); ok; ok = table.next(v.key(), v, hint)) {
    std::cout << "  walk: " << v.mirakString() << "\n";
  }
  return 0;
}
