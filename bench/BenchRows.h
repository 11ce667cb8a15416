// The rows every benchmark program measures on: HoIpFlowConfig (a 36-byte
// key inside an 84-byte record), keys made from an index so that a run can
// name any row again, the std::unordered_map they are compared with, and the
// one directory under /dev/shm a run keeps its table files in.
#pragma once

#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "FlowTracking/HoFlowConfig.h"
#include "FlowTracking/Tables.h"
#include "Mem/RootPath.h"

namespace BenchRows {

using Value = FlowTracking::TableValue<FlowTracking::HoIpFlowConfig>;

// Distinct for every i below 2^32; spread over seven VRFs and 48 interfaces.
inline FlowTracking::HoIpFlowKey keyOf(uint32_t i) {
  FlowTracking::IpFlowKey k;
  k.vrfIdIs(i % 7);
  k.srcAddrIs(Nimbet::IpAddr(0x0a000000u + i));
  k.dstAddrIs(Nimbet::IpAddr(0xc0a80000u + (i * 2654435761u >> 16)));
  k.ipProtocolIs(Nimbet::IpProtocol(6));
  k.srcPortIs(static_cast<uint16_t>(i));
  k.dstPortIs(static_cast<uint16_t>(i >> 16));
  return FlowTracking::HoIpFlowKey(k, Nimbet::IntfId(1000 + i % 48, 0));
}

// Row i at version v: the version is the update time, so an overwrite
// changes the value.
inline Value rowOf(uint32_t i, uint32_t v = 0) {
  FlowTracking::HoIpFlowConfig r(keyOf(i));
  r.createTimeIs(i);
  r.updateTimeIs(v);
  return r;
}

struct KeyHash {
  size_t operator()(FlowTracking::HoIpFlowKey const& k) const { return k.hash(0); }
};
using StdMap = std::unordered_map<FlowTracking::HoIpFlowKey, Value, KeyHash>;

// base .. base+n-1 in a fixed random order.
inline std::vector<uint32_t> shuffled(uint32_t n, uint32_t base = 0) {
  std::vector<uint32_t> v(n);
  for (uint32_t i = 0; i < n; i++) v[i] = base + i;
  std::shuffle(v.begin(), v.end(), std::mt19937(42));
  return v;
}

// Made on the first call and made the root of every table path of the run.
inline std::string const& benchRoot() {
  static std::string const root = [] {
    char tmpl[] = "/dev/shm/flowtables-bench-XXXXXX";
    std::string dir = ::mkdtemp(tmpl) ? tmpl : "/tmp";
    Mem::RootPath::baseIs(dir);
    return dir;
  }();
  return root;
}

}  // namespace BenchRows
