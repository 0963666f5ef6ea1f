// CNetInfo on hand-built interface lists and routes; the route dump parser.
#include "inventory/netinfo.h"
#include "inventory/route_dump.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <netpacket/packet.h>

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "base/util.h"
#include "test_support.h"

namespace {

const std::string kHw = "hw 020000000001";

std::uint32_t ip(const char* text) { return ntohl(inet_addr(text)); }

std::string dotted(unsigned long a) {
  return inet_ntoa(in_addr{htonl(static_cast<std::uint32_t>(a))});
}

sockaddr* inet(sockaddr_storage& st, const char* text) {
  auto* s = reinterpret_cast<sockaddr_in*>(&st);
  s->sin_family = AF_INET;
  s->sin_addr.s_addr = inet_addr(text);
  return reinterpret_cast<sockaddr*>(s);
}

// Interfaces as getifaddrs lists them, each element with a link address ("hw
// 020000000001") or an IPv4 address and mask; the kernel's indexes and routes.
struct FakeSource : NetSource {
  struct Node {
    ifaddrs ifa{};
    std::string name;
    sockaddr_storage addr{}, mask{};
  };
  std::deque<Node> nodes;                   // a deque never moves its elements
  std::map<std::string, unsigned> indexes;  // a name not listed has none
  std::optional<std::vector<DefaultRoute>> routes = std::vector<DefaultRoute>{};

  FakeSource& add(const std::string& name, const std::string& addr,
                  const char* mask = "255.255.255.0") {
    Node& n = nodes.emplace_back();
    n.name = name;
    n.ifa.ifa_name = n.name.data();
    n.ifa.ifa_addr = reinterpret_cast<sockaddr*>(&n.addr);
    if (nodes.size() > 1) nodes[nodes.size() - 2].ifa.ifa_next = &n.ifa;
    if (addr.rfind("hw", 0) == 0) {
      auto* sll = reinterpret_cast<sockaddr_ll*>(&n.addr);
      sll->sll_family = AF_PACKET;
      for (std::size_t i = 3; i + 1 < addr.size(); i += 2)
        sll->sll_addr[sll->sll_halen++] =
            static_cast<unsigned char>(std::stoi(addr.substr(i, 2), nullptr, 16));
    } else {
      inet(n.addr, addr.c_str());
      if (mask != nullptr) n.ifa.ifa_netmask = inet(n.mask, mask);
    }
    return *this;
  }
  InterfaceList interfaces() override {
    return InterfaceList(nodes.empty() ? nullptr : &nodes.front().ifa, [](ifaddrs*) {});
  }
  std::optional<std::vector<DefaultRoute>> defaultRoutes() override { return routes; }
  unsigned indexOf(const std::string& name) override {
    return indexes.count(name) != 0 ? indexes[name] : 0;
  }
};

// Every usable interface as "address gw gateway/mask hw".
std::vector<std::string> drain(CNetInfo& n) {
  std::vector<std::string> out;
  unsigned long a = 0, g = 0, m = 0;
  unsigned char hw[6];
  char text[18];
  while (n.getNextInterface(a, g, m, hw, sizeof hw) == 0) {
    Util::formatEthAddr(hw, text);
    out.push_back(dotted(a) + " gw " + dotted(g) + "/" + dotted(m) + " " + text);
  }
  return out;
}

}  // namespace

TEST(NetInfo, GatewayComesFromTheKernelIndexNotTheListPosition) {
  auto src = std::make_shared<FakeSource>();
  // docker0 (index 3) came and went: eth0 is 2, wlan0 4.
  src->add("eth0", kHw).add("eth0", "192.0.2.10").add("wlan0", kHw).add("wlan0", "198.51.100.10");
  src->indexes = {{"eth0", 2}, {"wlan0", 4}};
  // The first route of an index wins; docker0's is left over.
  src->routes = std::vector<DefaultRoute>{{4, ip("198.51.100.1")}, {3, ip("203.0.113.1")},
                                          {2, ip("192.0.2.1")}, {2, ip("192.0.2.99")}};
  CNetInfo n(src);
  ASSERT_EQ(n.enumInterfaces(), 0);
  EXPECT_EQ(drain(n), (std::vector<std::string>{
                          "192.0.2.10 gw 192.0.2.1/255.255.255.0 02:00:00:00:00:01",
                          "198.51.100.10 gw 198.51.100.1/255.255.255.0 02:00:00:00:00:01"}));
}

TEST(NetInfo, InterfacesThatCannotBeDescribedAreLeftOut) {
  auto src = std::make_shared<FakeSource>();
  src->add("lo", kHw).add("lo", "127.0.0.1", "255.0.0.0")
      .add("noipv4", kHw)
      .add("tun0", "10.8.0.1")                    // no link-level element
      .add("sit0", "hw").add("sit0", "10.9.0.1")  // zero-length link address
      .add("nomask", kHw).add("nomask", "10.7.0.1", nullptr)
      // Only the first IPv4 address of a name counts, and a rejected name is
      // never looked at again.
      .add("odd", kHw).add("odd", "126.0.0.1").add("odd", "10.6.0.1")
      .add("good", kHw).add("good", "10.0.0.2", "255.0.0.0");
  src->indexes = {{"good", 9}};
  src->routes = std::vector<DefaultRoute>{{9, ip("10.0.0.254")}};
  CNetInfo n(src);
  ASSERT_EQ(n.enumInterfaces(), 0);
  EXPECT_EQ(drain(n),
            std::vector<std::string>{"10.0.0.2 gw 10.0.0.254/255.0.0.0 02:00:00:00:00:01"});
}

namespace {

// A route dump as the kernel would send it, one message per route.
struct Dump {
  std::vector<char> buf = std::vector<char>(4096);
  std::size_t used = 0;

  void route(std::uint8_t dstLen, std::uint8_t table, int oif, const char* gateway = nullptr,
             std::uint32_t fullTable = 0) {
    nlmsghdr* h = mnl_nlmsg_put_header(buf.data() + used);
    h->nlmsg_type = RTM_NEWROUTE;
    h->nlmsg_flags = NLM_F_MULTI;
    *static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(h, sizeof(rtmsg))) =
        rtmsg{AF_INET, dstLen, 0, 0, table, RTPROT_BOOT, RT_SCOPE_UNIVERSE, RTN_UNICAST, 0};
    mnl_attr_put_u32(h, RTA_OIF, static_cast<std::uint32_t>(oif));
    if (gateway != nullptr) mnl_attr_put_u32(h, RTA_GATEWAY, htonl(ip(gateway)));
    if (fullTable != 0) mnl_attr_put_u32(h, RTA_TABLE, fullTable);
    used += h->nlmsg_len;
  }
  // From a buffer of exactly what was received, so that a read past it shows
  // under AddressSanitizer.
  route_dump::Status parse(std::vector<DefaultRoute>& out) const {
    const std::vector<char> exact(buf.begin(), buf.begin() + static_cast<std::ptrdiff_t>(used));
    return route_dump::parse(exact.data(), exact.size(), 0, 0, out);
  }
};

}  // namespace

TEST(NetInfoRouteDump, KeepsUnicastDefaultsOfTheMainTable) {
  Dump d;
  d.route(0, RT_TABLE_MAIN, 4, "192.0.2.1");
  d.route(0, RT_TABLE_MAIN, 5);                             // no gateway: a point-to-point default
  d.route(0, RT_TABLE_COMPAT, 6, nullptr, RT_TABLE_MAIN);  // the full id is in RTA_TABLE
  d.route(24, RT_TABLE_MAIN, 7, "203.0.113.7");             // not a default
  d.route(0, RT_TABLE_MAIN, 9, "203.0.113.9", 300);        // a table past 255
  std::vector<DefaultRoute> out;
  ASSERT_EQ(d.parse(out), route_dump::Status::More);
  std::vector<std::pair<int, std::string>> got;
  for (const DefaultRoute& r : out) got.emplace_back(r.oif, dotted(r.gateway));
  EXPECT_EQ(got, (std::vector<std::pair<int, std::string>>{
                     {4, "192.0.2.1"}, {5, "0.0.0.0"}, {6, "0.0.0.0"}}));
}

TEST(NetInfoRouteDump, RefusesMessagesThatRunPastWhatWasReceived) {
  Dump cut, truncated, huge;
  cut.route(0, RT_TABLE_MAIN, 2);
  cut.used -= 6;  // the message's length runs past the buffer
  truncated.route(0, RT_TABLE_MAIN, 2);
  truncated.buf[0] = 20;  // nlmsg_len: the header and 4 bytes of its rtmsg
  truncated.used = 20;
  // Sixteen bytes whose length field is 2^31 or more, which libmnl takes for negative.
  const unsigned char bytes[] = {0x14, 0x00, 0xff, 0xff, 0x00, 0x00, 0x00, 0xff,
                                 0xff, 0x00, 0x00, 0x00, 0xff, 0x00, 0x00, 0xff};
  huge.buf.assign(bytes, bytes + sizeof bytes);
  huge.used = sizeof bytes;
  std::vector<DefaultRoute> out;
  for (const Dump* d : {&cut, &truncated, &huge})
    EXPECT_EQ(d->parse(out), route_dump::Status::Error);
  EXPECT_TRUE(out.empty());
}
