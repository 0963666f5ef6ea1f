// The machine's network interfaces, one entry per interface name, for the
// Networking and IP Address commands.
#pragma once

#include <ifaddrs.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "inventory/net_source.h"

class CNetInfo {
 public:
  struct netdata {
    std::uint32_t ip_addr = 0;  // addresses in host order: 192.0.2.1 == 0xC0000201
    std::uint32_t gateway_addr = 0;
    std::uint32_t net_mask = 0;
    unsigned char hw_addr[6] = {};
    unsigned char ip6_addr[16] = {};
    std::uint16_t at_net = 0;
    std::uint8_t at_node = 0;
    char at_zone[33] = {};
  };

  // A null source reads the host.
  explicit CNetInfo(std::shared_ptr<NetSource> source = nullptr);
  CNetInfo(const CNetInfo&) = delete;
  CNetInfo& operator=(const CNetInfo&) = delete;

  // Rebuilds the map from scratch and rewinds; 0, or -1 when the interface
  // list cannot be read or is empty.
  int enumInterfaces();

  void rewind();

  // The next usable interface in name order; 0, or 512 when none is left.
  // Copies min(hwLen, 6) bytes of the hardware address.
  int getNextInterface(unsigned long& address, unsigned long& gateway, unsigned long& netmask,
                       unsigned char* hwAddr, unsigned long hwLen);

  // AppleTalk data of the interface last returned; always 1.
  int getATInterface(unsigned short& net, unsigned char& node, std::string& zone);

  // The gateway of the first default route out of the interface with the
  // kernel index; 0 with gateway 0 when there is none, -1 only when the
  // routes cannot be read.
  int getGatewayAddr(unsigned index, unsigned long& gateway);

  // Each searches from `from` to the end of the list for the first element
  // named `name` carrying the wanted family; 0 when found, -1 when not.
  static int getIPAddress(const ifaddrs* from, const std::string& name, std::uint32_t& addr);
  static int getNetMask(const ifaddrs* from, const std::string& name, std::uint32_t& mask);
  // AF_PACKET; copies min(link address length, len, 6) bytes. A zero-length
  // link address counts as none.
  static int getHwAddress(const ifaddrs* from, const std::string& name, unsigned char* out,
                          unsigned long len);
  static int getIP6Address(const ifaddrs* from, const std::string& name, unsigned char* out);
  // Clears the entry's AppleTalk fields; getifaddrs reports no AppleTalk
  // family on Linux, so it always returns -1.
  static int getATInfo(netdata& entry);

 private:
  using Map = std::map<std::string, std::optional<netdata>>;

  int getInterfaceList(NetSource::InterfaceList& list);
  std::optional<netdata> buildEntry(const ifaddrs* from, const std::string& name, unsigned index);

  unsigned short atNet_ = 0;
  unsigned char atNode_ = 0;
  std::string atZone_;
  Map interfaces_;  // nullopt: seen but rejected, so later elements are not examined
  Map::const_iterator pos_;
  std::shared_ptr<NetSource> source_;

  // While enumInterfaces runs, the routes are dumped once and shared by
  // every getGatewayAddr call instead of one dump per interface.
  bool reuseRoutes_ = false;
  bool routesFetched_ = false;
  std::optional<std::vector<DefaultRoute>> routes_;
};
