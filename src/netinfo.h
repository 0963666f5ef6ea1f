// The machine's network interfaces, one entry per interface name, for the
// Networking and IP Address commands.
#pragma once

#include <ifaddrs.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// An IPv4 route with destination length 0.
struct DefaultRoute {
  int oif = 0;                // output interface index
  std::uint32_t gateway = 0;  // host order; 0 for a route without a gateway
};

// The two platform queries CNetInfo needs, so tests can hand it a fixture.
class NetSource {
 public:
  // Whoever builds the list decides how it is released (freeifaddrs for the
  // system's; nothing for a list a test owns).
  using InterfaceList = std::unique_ptr<ifaddrs, void (*)(ifaddrs*)>;

  virtual ~NetSource() = default;

  // Null when the list cannot be read or is empty.
  virtual InterfaceList interfaces() = 0;

  // Default routes of the main IPv4 table in table order; nullopt when the
  // table cannot be read at all.
  virtual std::optional<std::vector<DefaultRoute>> defaultRoutes() = 0;
};

// getifaddrs and an rtnetlink route dump.
class SystemNetSource : public NetSource {
 public:
  InterfaceList interfaces() override;
  std::optional<std::vector<DefaultRoute>> defaultRoutes() override;
};

namespace route_dump {

enum class Status { More, Done, Error };

// Parses one received buffer of an RTM_GETROUTE dump, appending every
// unicast default route of the main table (one per next hop of a multipath
// route). seq and portid 0 accept messages from anyone.
Status parse(const void* buf, std::size_t len, unsigned seq, unsigned portid,
             std::vector<DefaultRoute>& out);

}  // namespace route_dump

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

  explicit CNetInfo(int socket);
  CNetInfo(int socket, std::shared_ptr<NetSource> source);
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

  // The gateway of the first default route out of interface index; 0 with
  // gateway 0 when there is none, -1 only when the routes cannot be read.
  int getGatewayAddr(short index, unsigned long& gateway);

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
  std::optional<netdata> buildEntry(const ifaddrs* from, const std::string& name,
                                    std::uint16_t index);

  int socket_;  // the worker's; kept for its owner, not used here
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
