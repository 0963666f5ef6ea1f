// Records of the Networking (2) and IP Address (28) commands.
#pragma once

#include <array>
#include <cstdint>

#include "varlo/coding.h"
#include "varlo/commands.h"
#include "varlo/records.h"

namespace varlo {

// The first usable interface, in name order.
struct varlo_net {
  static constexpr std::size_t kSize = kNetRecordSize;
  static constexpr std::uint32_t kTag = 4;
  using Bytes = WireRecord<kSize>;
  using NetTag = Field<12, 4>;
  using NetStatus = Field<16, 1>;
  using IpAddr = Field<28, 4>;
  using GatewayAddr = Field<32, 4>;
  using NetMask = Field<36, 4>;
  using HwAddr = Field<40, 6>;
  using AtTag = Field<46, 4>;
  using AtStatus = Field<50, 1>;
  using AtNet = Field<62, 2>;
  using AtNode = Field<64, 1>;
  using AtZone = Field<65, 33>;
  using HwAddrCopy = Field<98, 6>;
  static_assert(HwAddrCopy::end == kSize);

  ReplyPrefix prefix;
  std::uint32_t netTag = 0;
  bool found = false;  // an interface was found: its fields and the tags are set
  std::uint32_t ipAddr = 0;
  std::uint32_t gatewayAddr = 0;
  std::uint32_t netMask = 0;
  std::array<std::uint8_t, 6> hwAddr{};
  std::uint16_t atNet = 0;
  std::uint8_t atNode = 0;

  Bytes encode() const {
    Bytes r{};
    prefix.encodeInto(r);
    put32<NetTag>(r, netTag);
    if (!found) return r;
    put8<NetStatus>(r, 0);
    put32<IpAddr>(r, ipAddr);
    put32<GatewayAddr>(r, gatewayAddr);
    put32<NetMask>(r, netMask);
    std::memcpy(r.data() + HwAddr::offset, hwAddr.data(), HwAddr::width);
    put32<AtTag>(r, kTag);
    put8<AtStatus>(r, 0);
    put16<AtNet>(r, atNet);
    put8<AtNode>(r, atNode);
    putPString<AtZone>(r, "");
    std::memcpy(r.data() + HwAddrCopy::offset, hwAddr.data(), HwAddrCopy::width);
    return r;
  }

  static varlo_net decode(const Bytes& r) {
    varlo_net n;
    n.prefix = ReplyPrefix::decodeFrom(r);
    n.netTag = get32<NetTag>(r);
    n.found = get32<AtTag>(r) == kTag;
    n.ipAddr = get32<IpAddr>(r);
    n.gatewayAddr = get32<GatewayAddr>(r);
    n.netMask = get32<NetMask>(r);
    std::memcpy(n.hwAddr.data(), r.data() + HwAddr::offset, HwAddr::width);
    n.atNet = get16<AtNet>(r);
    n.atNode = get8<AtNode>(r);
    return n;
  }
};

// One interface of the IP Address list; batches of up to ten follow a
// varlo_list_header (the varlo_ipaddrs header).
struct varlo_ipaddr {
  static constexpr std::size_t kSize = 40;
  static constexpr std::size_t kBatch = 10;
  using Bytes = WireRecord<kSize>;
  using IpAddr = Field<0, 4>;
  using GatewayAddr = Field<4, 4>;
  using NetMask = Field<8, 4>;
  using HwAddr = Field<12, 6>;
  static_assert(HwAddr::end + 22 == kSize);

  std::uint32_t ipAddr = 0;
  std::uint32_t gatewayAddr = 0;
  std::uint32_t netMask = 0;
  std::array<std::uint8_t, 6> hwAddr{};

  void writeSlot(std::uint8_t* p) const {
    std::memset(p, 0, kSize);
    putU32(p + IpAddr::offset, ipAddr);
    putU32(p + GatewayAddr::offset, gatewayAddr);
    putU32(p + NetMask::offset, netMask);
    std::memcpy(p + HwAddr::offset, hwAddr.data(), HwAddr::width);
  }

  static varlo_ipaddr decodeAt(const std::uint8_t* p) {
    varlo_ipaddr a;
    a.ipAddr = getU32(p + IpAddr::offset);
    a.gatewayAddr = getU32(p + GatewayAddr::offset);
    a.netMask = getU32(p + NetMask::offset);
    std::memcpy(a.hwAddr.data(), p + HwAddr::offset, HwAddr::width);
    return a;
  }
};

}  // namespace varlo
