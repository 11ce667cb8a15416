// Rows for the seven flow tables, made from a number, for tests that run one
// body over every table. Row i of a table has a key made from i (distinct for
// distinct i, up to the key space of the table) and fields made from i and a
// version, so a reader can tell which write it sees.
#pragma once

#include <cstdint>
#include <tuple>

#include <gtest/gtest.h>

#include "FlowTracking/Tables.h"

namespace FlowTrackingTest {

using namespace FlowTracking;

inline IpFlowKey ipFlowKey(uint32_t i) {
  IpFlowKey k;
  k.vrfIdIs(i % 7);
  k.srcAddrIs(Nimbet::IpAddr(0x0a000000u + i));
  k.dstAddrIs(Nimbet::IpAddr(0xc0a80000u + (i * 2654435761u >> 16)));
  k.ipProtocolIs(Nimbet::IpProtocol(i % 2 ? 6 : 17));
  k.srcPortIs(static_cast<uint16_t>(i));
  k.dstPortIs(static_cast<uint16_t>(i >> 16));
  return k;
}

inline Ip6FlowKey ip6FlowKey(uint32_t i) {
  Ip6FlowKey k;
  Nimbet::Ip6Addr::Bytes b{};
  b[0] = 0x20;
  b[1] = 0x01;
  for (int j = 0; j < 4; j++) b[12 + j] = static_cast<uint8_t>(i >> (24 - 8 * j));
  k.srcAddrIs(Nimbet::Ip6Addr(b));
  b[15] ^= 0x5a;
  k.dstAddrIs(Nimbet::Ip6Addr(b));
  k.ipProtocolIs(Nimbet::IpProtocol(6));
  k.srcPortIs(static_cast<uint16_t>(i));
  k.dstPortIs(static_cast<uint16_t>(i >> 16));
  return k;
}

inline Nimbet::IntfId intf(uint32_t i) {
  return Nimbet::IntfId(1000 + i % 48, 0);
}

// Row i of table Record, version v.
template <typename Record>
TableValue<Record> row(uint32_t i, uint32_t v = 0);

template <>
inline TableValue<HoIpFlowConfig> row<HoIpFlowConfig>(uint32_t i, uint32_t v) {
  HoIpFlowConfig r(HoIpFlowKey(ipFlowKey(i), intf(i)));
  r.createTimeIs(i + 0.25);
  r.updateTimeIs(v + 0.5);
  r.cachedIntfIdIs(intf(v));
  return r;
}
template <>
inline TableValue<HoIp6FlowConfig> row<HoIp6FlowConfig>(uint32_t i, uint32_t v) {
  HoIp6FlowConfig r(HoIp6FlowKey(ip6FlowKey(i), intf(i)));
  r.createTimeIs(i + 0.25);
  r.updateTimeIs(v + 0.5);
  r.cachedIntfIdIs(intf(v));
  return r;
}
template <>
inline TableValue<HoIpFlowStatus> row<HoIpFlowStatus>(uint32_t i, uint32_t v) {
  HoIpFlowStatus r(HoIpFlowKey(ipFlowKey(i), intf(i)));
  r.hoFlowStateIs(HoFlowState(1 + v % 5));
  r.createTimeIs(i + 0.25);
  r.updateTimeIs(v + 0.5);
  return r;
}
template <>
inline TableValue<HoIp6FlowStatus> row<HoIp6FlowStatus>(uint32_t i, uint32_t v) {
  HoIp6FlowStatus r(HoIp6FlowKey(ip6FlowKey(i), intf(i)));
  r.hoFlowStateIs(HoFlowState(1 + v % 5));
  r.createTimeIs(i + 0.25);
  r.updateTimeIs(v + 0.5);
  return r;
}
template <>
inline TableValue<HoIpFlowCounter> row<HoIpFlowCounter>(uint32_t i, uint32_t v) {
  HoIpFlowCounter r(ipFlowKey(i));
  r.intfIdIs(intf(i));
  r.packetsIs(uint64_t(v) << 33 | i);
  r.bytesIs(uint64_t(v) * 1500);
  r.hosEntriesIs(v);
  return r;
}
template <>
inline TableValue<HoIp6FlowCounter> row<HoIp6FlowCounter>(uint32_t i, uint32_t v) {
  HoIp6FlowCounter r(ip6FlowKey(i));
  r.intfIdIs(intf(i));
  r.packetsIs(uint64_t(v) << 33 | i);
  r.bytesIs(uint64_t(v) * 1500);
  r.hosEntriesIs(v);
  return r;
}
template <>
inline TableValue<HosStateCounterEntry> row<HosStateCounterEntry>(uint32_t i, uint32_t v) {
  HosStateCounterEntry r(HosStateCounterKey(HoFlowState(i % 256)));
  r.hoFlowsIs(v);
  return r;
}

// How many distinct keys row() can make for a table.
template <typename Record>
constexpr uint32_t keySpace() {
  return std::is_same_v<Record, HosStateCounterEntry> ? 256 : 0xffffffffu;
}

// The policy of each record's table.
template <typename Record>
struct OpsOf;
template <>
struct OpsOf<HoIpFlowConfig> {
  using type = HoIpFlowConfigOps;
};
template <>
struct OpsOf<HoIp6FlowConfig> {
  using type = HoIp6FlowConfigOps;
};
template <>
struct OpsOf<HoIpFlowStatus> {
  using type = HoIpFlowStatusOps;
};
template <>
struct OpsOf<HoIp6FlowStatus> {
  using type = HoIp6FlowStatusOps;
};
template <>
struct OpsOf<HoIpFlowCounter> {
  using type = HoIpFlowCounterOps;
};
template <>
struct OpsOf<HoIp6FlowCounter> {
  using type = HoIp6FlowCounterOps;
};
template <>
struct OpsOf<HosStateCounterEntry> {
  using type = HosStateCounterOps;
};

using AllRecords =
    ::testing::Types<HoIpFlowConfig, HoIp6FlowConfig, HoIpFlowStatus, HoIp6FlowStatus,
                     HoIpFlowCounter, HoIp6FlowCounter, HosStateCounterEntry>;

}  // namespace FlowTrackingTest
