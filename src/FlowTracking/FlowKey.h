// FlowTracking::IpFlowKey and FlowTracking::Ip6FlowKey: the plain 5-tuple flow
// keys (with VRF, VLAN and direction) that key the counter tables and sit
// inside the offload keys.
//
// Plain values: trivially copyable, no pointers. Their bytes are part of the
// table format, pinned below; the bytes no field covers have no meaning, are
// left alone by the constructors and are never hashed or compared.
//
// Text form (strep), every literal exact, no blanks added or dropped:
//   Value('FlowTracking::IpFlowKey', ** {'vrfId': 1, 'vlanId': 10,
//     'srcAddr': 10.0.0.1, 'dstAddr': 10.0.0.2, 'ipProtocol': ipProtoTcp,
//     'srcPort': 80, 'dstPort': 443, 'direction': trafficDirectionIngress})
// (one line; Ip6FlowKey the same with its own type name and IPv6 addresses).
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "FlowTracking/StrepFormatter.h"
#include "Nimbet/IpAddr.h"
#include "Nimbet/IpProtocol.h"
#include "Zeb/Strep.h"
#include "Zeb/String.h"

namespace FlowTracking {

using VrfId = uint32_t;
using VlanId = uint16_t;

inline constexpr VrfId kDefaultVrfId = 0xffffff;

// What IpFlowKey and Ip6FlowKey share: every field, accessor and operation;
// the two differ only in `A`, the address type. `Self` is the key class
// itself, which keeps the two bases distinct types (an IpFlowKey never
// compares with an Ip6FlowKey) and names the type in the text form. Not used
// on its own; the members are defined and instantiated in FlowKey.cpp.
template <typename Self, typename A>
class FlowKeyFields {
 public:
  using Addr = A;

  FlowKeyFields() = default;
  // The parsing constructor of the text form; moves `it` behind what it read.
  // Throws Zeb::RangeException naming the field that does not parse.
  FlowKeyFields(Zeb::StrepIt& it, Zeb::StrepIt const& end);

  VrfId vrfId() const { return vrfId_; }
  VlanId vlanId() const { return vlanId_; }
  Addr const& srcAddr() const { return srcAddr_; }
  Addr const& dstAddr() const { return dstAddr_; }
  Nimbet::IpProtocol ipProtocol() const { return ipProtocol_; }
  // The low byte of the ipProtocol word.
  uint8_t ipProtocolNumber() const { return static_cast<uint8_t>(ipProtocol_ & 0xffu); }
  uint16_t srcPort() const { return srcPort_; }
  uint16_t dstPort() const { return dstPort_; }
  Nimbet::TrafficDirection direction() const { return direction_; }

  void vrfIdIs(VrfId v) { vrfId_ = v; }
  void vlanIdIs(VlanId v) { vlanId_ = v; }
  void srcAddrIs(Addr const& v) { srcAddr_ = v; }
  void dstAddrIs(Addr const& v) { dstAddr_ = v; }
  void ipProtocolIs(Nimbet::IpProtocol v) { ipProtocol_ = v; }
  void srcPortIs(uint16_t v) { srcPort_ = v; }
  void dstPortIs(uint16_t v) { dstPort_ = v; }
  void directionIs(Nimbet::TrafficDirection v) { direction_ = v; }

  // Field by field (never the bytes between fields), with `seed`: the fields
  // packed into 64-bit words and folded by 128-bit multiplies.
  uint32_t hash(unsigned int seed) const;
  bool operator==(FlowKeyFields const& o) const;
  // Lexicographic in field order; addresses in network byte order.
  bool operator<(FlowKeyFields const& o) const;

  // A short human text, e.g. "vrf 1 vlan 10 ipProtoTcp 10.0.0.1:80 -> ..."
  // (IPv6 addresses in brackets: "[2001:db8::1]:80"); not parsed.
  Zeb::String str() const;

 protected:
  VrfId vrfId_ = kDefaultVrfId;
  VlanId vlanId_ = 0;
  Addr srcAddr_;
  Addr dstAddr_;
  Nimbet::IpProtocol ipProtocol_ = Nimbet::ipProtoUnknown;
  uint16_t srcPort_ = 0;
  uint16_t dstPort_ = 0;
  Nimbet::TrafficDirection direction_ = Nimbet::trafficDirectionUnknown;
};

// IpFlowKey, 28 bytes. Field offsets (the table format):
//   0 vrfId u32 | 4 vlanId u16 | 6 srcAddr 4 | 10 dstAddr 4 |
//   14 2 bytes no field | 16 ipProtocol u32 | 20 srcPort u16 | 22 dstPort u16 |
//   24 direction u8 | 25 3 bytes no field
// The addresses have alignment 1, which is what lets srcAddr stand at 6 with
// no packing of the whole struct.
class IpFlowKey : public FlowKeyFields<IpFlowKey, Nimbet::IpAddr> {
 public:
  using FlowKeyFields::FlowKeyFields;

 private:
  static void layout() {
    static_assert(std::is_trivially_copyable_v<IpFlowKey> && std::is_standard_layout_v<IpFlowKey>);
    static_assert(sizeof(IpFlowKey) == 28 && alignof(IpFlowKey) == 4);
    static_assert(offsetof(IpFlowKey, vrfId_) == 0);
    static_assert(offsetof(IpFlowKey, vlanId_) == 4);
    static_assert(offsetof(IpFlowKey, srcAddr_) == 6);
    static_assert(offsetof(IpFlowKey, dstAddr_) == 10);
    static_assert(offsetof(IpFlowKey, ipProtocol_) == 16);
    static_assert(offsetof(IpFlowKey, srcPort_) == 20);
    static_assert(offsetof(IpFlowKey, dstPort_) == 22);
    static_assert(offsetof(IpFlowKey, direction_) == 24);
  }
};

// Ip6FlowKey, 52 bytes. Field offsets (the table format):
//   0 vrfId u32 | 4 vlanId u16 | 6 srcAddr 16 | 22 dstAddr 16 |
//   38 2 bytes no field | 40 ipProtocol u32 | 44 srcPort u16 | 46 dstPort u16 |
//   48 direction u8 | 49 3 bytes no field
class Ip6FlowKey : public FlowKeyFields<Ip6FlowKey, Nimbet::Ip6Addr> {
 public:
  using FlowKeyFields::FlowKeyFields;

 private:
  static void layout() {
    static_assert(std::is_trivially_copyable_v<Ip6FlowKey> &&
                  std::is_standard_layout_v<Ip6FlowKey>);
    static_assert(sizeof(Ip6FlowKey) == 52 && alignof(Ip6FlowKey) == 4);
    static_assert(offsetof(Ip6FlowKey, vrfId_) == 0);
    static_assert(offsetof(Ip6FlowKey, vlanId_) == 4);
    static_assert(offsetof(Ip6FlowKey, srcAddr_) == 6);
    static_assert(offsetof(Ip6FlowKey, dstAddr_) == 22);
    static_assert(offsetof(Ip6FlowKey, ipProtocol_) == 40);
    static_assert(offsetof(Ip6FlowKey, srcPort_) == 44);
    static_assert(offsetof(Ip6FlowKey, dstPort_) == 46);
    static_assert(offsetof(Ip6FlowKey, direction_) == 48);
  }
};

extern template class FlowKeyFields<IpFlowKey, Nimbet::IpAddr>;
extern template class FlowKeyFields<Ip6FlowKey, Nimbet::Ip6Addr>;

Zeb::String valueToStrep(IpFlowKey const& v);
Zeb::String valueToStrep(Ip6FlowKey const& v);
std::ostream& operator<<(std::ostream& os, IpFlowKey const& v);
std::ostream& operator<<(std::ostream& os, Ip6FlowKey const& v);

}  // namespace FlowTracking

FLOWTRACKING_STREP_FORMATTER(FlowTracking::IpFlowKey);
FLOWTRACKING_STREP_FORMATTER(FlowTracking::Ip6FlowKey);
