// The discovery exchange on UDP port 4347: any 470-byte datagram is a probe,
// and the answer is one 470-byte description of the host.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "varlo/coding.h"
#include "varlo/version.h"

namespace varlo {

inline constexpr std::uint16_t kAgentPort = 4347;

// Fields packed on 2-byte boundaries, so some words start at even offsets.
struct varlo_probe_reply {
  static constexpr std::size_t kSize = 470;
  static constexpr std::size_t kOtherInterfaces = 10;
  static constexpr std::uint32_t kAgentVersion = ::varlo::kAgentVersion;
  static constexpr std::uint16_t kOsType = 4;
  using Bytes = WireRecord<kSize>;
  using AgentVersion = Field<0, 4>;
  using HostName = Field<4, 33>;
  using OsType = Field<38, 2>;
  using OsVersion = Field<40, 4>;
  using IpAddress = Field<48, 4>;
  using Gateway = Field<52, 4>;
  using SubnetMask = Field<56, 4>;
  using HwAddress = Field<60, 6>;
  using AtNetwork = Field<66, 2>;
  using AtNode = Field<68, 2>;
  using OtherIp = Field<70, 40>;
  using OtherGateway = Field<110, 40>;
  using OtherMask = Field<150, 40>;
  using UserName = Field<190, 33>;
  using OsVersion2 = Field<226, 4>;
  using DbmsKey = Field<230, 4>;
  static_assert(DbmsKey::end + 236 == kSize);

  std::uint32_t agentVersion = kAgentVersion;
  std::string hostName;
  std::uint16_t osType = kOsType;
  std::uint32_t osVersion = 0;
  // IPv4 addresses as numbers: 192.0.2.1 is 0xC0000201.
  std::uint32_t ipAddress = 0;
  std::uint32_t gateway = 0;
  std::uint32_t subnetMask = 0;
  std::array<std::uint8_t, 6> hwAddress{};
  std::uint16_t atNetwork = 0;
  std::uint16_t atNode = 0;
  std::array<std::uint32_t, kOtherInterfaces> otherIp{};
  std::array<std::uint32_t, kOtherInterfaces> otherGateway{};
  std::array<std::uint32_t, kOtherInterfaces> otherMask{};
  std::string userName;
  std::uint32_t dbmsKey = 0;

  Bytes encode() const {
    Bytes r{};
    put32<AgentVersion>(r, agentVersion);
    putPString<HostName>(r, hostName);
    put16<OsType>(r, osType);
    put32<OsVersion>(r, osVersion);
    put32<IpAddress>(r, ipAddress);
    put32<Gateway>(r, gateway);
    put32<SubnetMask>(r, subnetMask);
    std::memcpy(r.data() + HwAddress::offset, hwAddress.data(), HwAddress::width);
    put16<AtNetwork>(r, atNetwork);
    put16<AtNode>(r, atNode);
    for (std::size_t i = 0; i < kOtherInterfaces; ++i) {
      putU32(r.data() + OtherIp::offset + 4 * i, otherIp[i]);
      putU32(r.data() + OtherGateway::offset + 4 * i, otherGateway[i]);
      putU32(r.data() + OtherMask::offset + 4 * i, otherMask[i]);
    }
    putPString<UserName>(r, userName);
    put32<OsVersion2>(r, osVersion);
    put32<DbmsKey>(r, dbmsKey);
    return r;
  }

  static varlo_probe_reply decode(const Bytes& r) {
    varlo_probe_reply p;
    p.agentVersion = get32<AgentVersion>(r);
    p.hostName = std::string(getPString<HostName>(r));
    p.osType = get16<OsType>(r);
    p.osVersion = get32<OsVersion>(r);
    p.ipAddress = get32<IpAddress>(r);
    p.gateway = get32<Gateway>(r);
    p.subnetMask = get32<SubnetMask>(r);
    std::memcpy(p.hwAddress.data(), r.data() + HwAddress::offset, HwAddress::width);
    p.atNetwork = get16<AtNetwork>(r);
    p.atNode = get16<AtNode>(r);
    for (std::size_t i = 0; i < kOtherInterfaces; ++i) {
      p.otherIp[i] = getU32(r.data() + OtherIp::offset + 4 * i);
      p.otherGateway[i] = getU32(r.data() + OtherGateway::offset + 4 * i);
      p.otherMask[i] = getU32(r.data() + OtherMask::offset + 4 * i);
    }
    p.userName = std::string(getPString<UserName>(r));
    p.dbmsKey = get32<DbmsKey>(r);
    return p;
  }
};

}  // namespace varlo
