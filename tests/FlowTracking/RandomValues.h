// Random keys and records for the flow record tests: every field drawn over
// its whole range (times with fractions, counters above 2^32, protocol words
// and states without names), from a caller-owned generator with a fixed seed.
#pragma once

#include <cstdint>
#include <random>

#include "FlowTracking/FlowKey.h"
#include "FlowTracking/HoFlowConfig.h"
#include "FlowTracking/HoFlowCounter.h"
#include "FlowTracking/HoFlowKey.h"
#include "FlowTracking/HoFlowStatus.h"
#include "FlowTracking/HosStateCounter.h"

namespace FlowTrackingTest {

using Rng = std::mt19937_64;

template <typename T>
T uniform(Rng& rng) {
  return static_cast<T>(rng());
}

// A time: mostly realistic (seconds since 1970 with a fraction), sometimes an
// arbitrary finite f64 bit pattern, sometimes a signed zero.
inline double randomTime(Rng& rng) {
  switch (rng() % 4) {
    case 0: {
      double const t = std::uniform_real_distribution<double>(0, 2e9)(rng);
      return t;
    }
    case 1: {
      for (;;) {
        uint64_t const bits = rng();
        double d;
        static_assert(sizeof d == sizeof bits);
        __builtin_memcpy(&d, &bits, sizeof d);
        if (d == d && d - d == 0) return d;  // finite
      }
    }
    case 2:
      return (rng() & 1) ? 0.0 : -0.0;
    default:
      return static_cast<double>(rng() % 100000) / 1024.0;
  }
}

inline Nimbet::IntfId randomIntf(Rng& rng) {
  switch (rng() % 4) {
    case 0:
      return Nimbet::IntfId();
    case 1:
      return Nimbet::IntfId(static_cast<Nimbet::IntfKind>(1 + rng() % 6),
                            static_cast<uint32_t>(rng() % 0x1000000), 0);
    case 2:
      return Nimbet::IntfId(static_cast<Nimbet::IntfKind>(1 + rng() % 6),
                            static_cast<uint32_t>(rng() % 0x1000000), uniform<uint32_t>(rng));
    default:
      return Nimbet::IntfId(uniform<uint32_t>(rng), uniform<uint32_t>(rng));
  }
}

inline Nimbet::EthAddr randomEth(Rng& rng) {
  Nimbet::EthAddr::Bytes b;
  for (auto& x : b) x = uniform<uint8_t>(rng);
  return Nimbet::EthAddr(b);
}

inline Ovie::VlanTag randomTag(Rng& rng) {
  return Ovie::VlanTag(uniform<uint32_t>(rng), uniform<uint8_t>(rng));
}

inline Nimbet::IpAddr randomAddr(Rng& rng, Nimbet::IpAddr*) {
  return Nimbet::IpAddr(uniform<uint32_t>(rng));
}

inline Nimbet::Ip6Addr randomAddr(Rng& rng, Nimbet::Ip6Addr*) {
  Nimbet::Ip6Addr::Bytes b{};
  int const shape = static_cast<int>(rng() % 3);
  for (size_t i = 0; i < b.size(); i++) {
    // Runs of zero groups exercise the "::" compression.
    bool const zero = shape == 1 ? (i >= 4 && i < 12) : shape == 2 ? (i < 10) : false;
    b[i] = zero ? 0 : uniform<uint8_t>(rng);
  }
  if (shape == 2) b[10] = b[11] = 0xff;  // an IPv4-mapped address
  return Nimbet::Ip6Addr(b);
}

template <typename K>
K randomFlowKey(Rng& rng) {
  K k;
  k.vrfIdIs(uniform<uint32_t>(rng));
  k.vlanIdIs(uniform<uint16_t>(rng));
  k.srcAddrIs(randomAddr(rng, static_cast<typename K::Addr*>(nullptr)));
  k.dstAddrIs(randomAddr(rng, static_cast<typename K::Addr*>(nullptr)));
  static constexpr Nimbet::IpProtocol kNamed[] = {Nimbet::ipProtoTcp, Nimbet::ipProtoUdp,
                                                  Nimbet::ipProtoIcmp, Nimbet::ipProtoUnknown};
  k.ipProtocolIs((rng() & 1) ? kNamed[rng() % 4]
                             : static_cast<Nimbet::IpProtocol>(uniform<uint32_t>(rng)));
  k.srcPortIs(uniform<uint16_t>(rng));
  k.dstPortIs(uniform<uint16_t>(rng));
  k.directionIs(
      static_cast<Nimbet::TrafficDirection>(rng() % 4 == 0 ? uniform<uint8_t>(rng) : rng() % 3));
  return k;
}

inline FlowTracking::HoFlowState randomState(Rng& rng) {
  return static_cast<FlowTracking::HoFlowState>(rng() % 3 == 0 ? uniform<uint8_t>(rng) : rng() % 6);
}

// A random value of any flow key or record: every field the type has is set
// (a record's key by the same rule).
template <typename T>
struct Random {
  static T make(Rng& rng) {
    using namespace FlowTracking;
    if constexpr (std::is_same_v<T, IpFlowKey> || std::is_same_v<T, Ip6FlowKey>) {
      return randomFlowKey<T>(rng);
    } else if constexpr (std::is_same_v<T, HosStateCounterKey>) {
      return T(randomState(rng));
    } else if constexpr (requires { typename T::FlowKey; }) {
      auto const flow = Random<typename T::FlowKey>::make(rng);
      return T(flow, randomIntf(rng));
    } else {
      T r(Random<typename T::Key>::make(rng));
      if constexpr (requires { r.hoFlowStateIs(HoFlowState()); }) r.hoFlowStateIs(randomState(rng));
      if constexpr (requires { r.packetsIs(0); }) {
        r.intfIdIs(randomIntf(rng));
        // Above 2^32 most of the time, all 64 bits sometimes.
        r.packetsIs((rng() & 1) ? rng() : (1ull << 32) + rng() % 1000000);
        r.bytesIs(rng());
      }
      if constexpr (requires { r.createTimeIs(0.0); }) {
        r.createTimeIs(randomTime(rng));
        r.updateTimeIs(randomTime(rng));
      }
      if constexpr (requires { r.srcEthAddrIs(Nimbet::EthAddr()); }) {
        r.srcEthAddrIs(randomEth(rng));
        r.dstEthAddrIs(randomEth(rng));
        r.dot1qVlanTagIs(randomTag(rng));
        r.dot1qCustomerVlanTagIs(randomTag(rng));
        r.cachedIntfIdIs(randomIntf(rng));
      }
      if constexpr (requires { r.hosEntriesIs(0); }) r.hosEntriesIs(uniform<uint32_t>(rng));
      if constexpr (requires { r.hoFlowsIs(0); }) r.hoFlowsIs(uniform<uint32_t>(rng));
      return r;
    }
  }
};

}  // namespace FlowTrackingTest
