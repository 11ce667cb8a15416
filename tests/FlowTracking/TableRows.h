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

// The key of row i: flow keys from i, with the interface of i where the key
// has one; the state counter's key is one of 256 states.
template <typename Key>
Key keyOf(uint32_t i) {
  if constexpr (std::is_same_v<Key, HosStateCounterKey>) {
    return Key(HoFlowState(i % 256));
  } else if constexpr (std::is_same_v<Key, IpFlowKey>) {
    return ipFlowKey(i);
  } else if constexpr (std::is_same_v<Key, Ip6FlowKey>) {
    return ip6FlowKey(i);
  } else if constexpr (std::is_constructible_v<Key, IpFlowKey, Nimbet::IntfId>) {
    return Key(ipFlowKey(i), intf(i));
  } else {
    return Key(ip6FlowKey(i), intf(i));
  }
}

// Row i of table Record, version v: every field the record has is set from i
// or v (a counter's createTime stays zero).
template <typename Record>
TableValue<Record> row(uint32_t i, uint32_t v = 0) {
  Record r(keyOf<typename Record::Key>(i));
  if constexpr (requires { r.hoFlowStateIs(HoFlowState()); })
    r.hoFlowStateIs(HoFlowState(1 + v % 5));
  if constexpr (requires { r.updateTimeIs(0.0); }) {
    r.createTimeIs(i + 0.25);
    r.updateTimeIs(v + 0.5);
  }
  if constexpr (requires { r.cachedIntfIdIs(intf(v)); }) r.cachedIntfIdIs(intf(v));
  if constexpr (requires { r.intfIdIs(intf(i)); }) r.intfIdIs(intf(i));
  if constexpr (requires { r.packetsIs(uint64_t()); }) {
    r.packetsIs(uint64_t(v) << 33 | i);
    r.bytesIs(uint64_t(v) * 1500);
    r.hosEntriesIs(v);
  }
  if constexpr (requires { r.hoFlowsIs(v); }) r.hoFlowsIs(v);
  return r;
}

// How many distinct keys row() can make for a table.
template <typename Record>
constexpr uint32_t keySpace() {
  return std::is_same_v<Record, HosStateCounterEntry> ? 256 : 0xffffffffu;
}

// The policy of each record's table: the config and status tables have a
// change queue, the counter tables none.
template <typename Record>
struct OpsOf {
  static constexpr bool hasQueue =
      std::is_same_v<Record, HoIpFlowConfig> || std::is_same_v<Record, HoIp6FlowConfig> ||
      std::is_same_v<Record, HoIpFlowStatus> || std::is_same_v<Record, HoIp6FlowStatus>;
  using type =
      TableOps<Record, std::conditional_t<hasQueue, ChangeQueueWriter, NoChangeQueueWriter>>;
};

using AllRecords =
    ::testing::Types<HoIpFlowConfig, HoIp6FlowConfig, HoIpFlowStatus, HoIp6FlowStatus,
                     HoIpFlowCounter, HoIp6FlowCounter, HosStateCounterEntry>;

}  // namespace FlowTrackingTest
