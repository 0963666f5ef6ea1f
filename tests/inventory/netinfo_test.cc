#include "inventory/netinfo.h"
#include "inventory/route_dump.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netpacket/packet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "test_support.h"
#include "base/util.h"

namespace {

std::uint32_t ip(const char* text) {
  in_addr a{};
  EXPECT_EQ(inet_pton(AF_INET, text, &a), 1) << text;
  return ntohl(a.s_addr);
}

// An interface list built by hand, in the order a getifaddrs would give it.
class IfList {
 public:
  IfList& packet(const std::string& name, std::vector<unsigned char> hw) {
    Node& n = add(name);
    auto* sll = reinterpret_cast<sockaddr_ll*>(&n.addr);
    sll->sll_family = AF_PACKET;
    sll->sll_halen = static_cast<unsigned char>(hw.size());
    std::copy_n(hw.begin(), std::min(hw.size(), sizeof sll->sll_addr), sll->sll_addr);
    n.ifa.ifa_addr = reinterpret_cast<sockaddr*>(&n.addr);
    return *this;
  }
  IfList& inet(const std::string& name, const char* addr, const char* mask = "255.255.255.0") {
    Node& n = add(name);
    n.ifa.ifa_addr = sin(n.addr, addr);
    if (mask != nullptr) n.ifa.ifa_netmask = sin(n.mask, mask);
    return *this;
  }
  IfList& inet6(const std::string& name, const char* addr) {
    Node& n = add(name);
    auto* s6 = reinterpret_cast<sockaddr_in6*>(&n.addr);
    s6->sin6_family = AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, addr, &s6->sin6_addr), 1);
    n.ifa.ifa_addr = reinterpret_cast<sockaddr*>(s6);
    return *this;
  }
  ifaddrs* head() {
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
      nodes_[i].ifa.ifa_name = nodes_[i].name.data();
      nodes_[i].ifa.ifa_next = i + 1 < nodes_.size() ? &nodes_[i + 1].ifa : nullptr;
    }
    return nodes_.empty() ? nullptr : &nodes_.front().ifa;
  }

 private:
  struct Node {
    ifaddrs ifa{};
    std::string name;
    sockaddr_storage addr{}, mask{};
  };
  Node& add(const std::string& name) {
    nodes_.emplace_back().name = name;  // a deque never moves its elements
    return nodes_.back();
  }
  static sockaddr* sin(sockaddr_storage& st, const char* text) {
    auto* s = reinterpret_cast<sockaddr_in*>(&st);
    s->sin_family = AF_INET;
    s->sin_addr.s_addr = htonl(ip(text));
    return reinterpret_cast<sockaddr*>(s);
  }
  std::deque<Node> nodes_;
};

struct FakeSource : NetSource {
  IfList list;
  std::optional<std::vector<DefaultRoute>> routes = std::vector<DefaultRoute>{};
  // Kernel indexes; a name not listed takes its place of first appearance.
  std::map<std::string, unsigned> indexes;
  int routeDumps = 0;
  InterfaceList interfaces() override { return InterfaceList(list.head(), [](ifaddrs*) {}); }
  std::optional<std::vector<DefaultRoute>> defaultRoutes() override {
    ++routeDumps;
    return routes;
  }
  unsigned indexOf(const std::string& name) override {
    if (auto it = indexes.find(name); it != indexes.end()) return it->second;
    std::vector<std::string> seen;
    for (const ifaddrs* i = list.head(); i != nullptr; i = i->ifa_next)
      if (std::find(seen.begin(), seen.end(), i->ifa_name) == seen.end()) seen.push_back(i->ifa_name);
    return static_cast<unsigned>(std::find(seen.begin(), seen.end(), name) - seen.begin() + 1);
  }
};

std::string dotted(unsigned long a) {
  in_addr in{htonl(static_cast<std::uint32_t>(a))};
  char buf[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &in, buf, sizeof buf);
  return buf;
}

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
  EXPECT_EQ(n.getNextInterface(a, g, m, hw, sizeof hw), 512);
  return out;
}

const std::vector<unsigned char> kHw = {2, 0, 0, 0, 0, 1};
const std::vector<unsigned char> kZeroHw(6, 0);

}  // namespace

TEST(NetInfo, GatewayComesFromTheKernelIndexNotTheListPosition) {
  auto src = std::make_shared<FakeSource>();
  // docker0 (index 3) came and went: eth0 is 2, wlan0 4.
  src->list.packet("eth0", kHw).inet("eth0", "192.0.2.10").packet("wlan0", kHw)
      .inet("wlan0", "198.51.100.10");
  src->indexes = {{"eth0", 2}, {"wlan0", 4}};
  src->routes = std::vector<DefaultRoute>{{4, ip("198.51.100.1")}, {2, ip("192.0.2.1")}};
  CNetInfo n(src);
  ASSERT_EQ(n.enumInterfaces(), 0);
  EXPECT_EQ(drain(n), (std::vector<std::string>{
                          "192.0.2.10 gw 192.0.2.1/255.255.255.0 02:00:00:00:00:01",
                          "198.51.100.10 gw 198.51.100.1/255.255.255.0 02:00:00:00:00:01"}));
}

TEST(NetInfo, NameOrderAndListPositionAsIndex) {
  auto src = std::make_shared<FakeSource>();
  src->list.packet("lo", kZeroHw).packet("wlan0", {2, 0, 0, 0, 0, 0x20}).packet("eth1", kHw)
      .inet("lo", "127.0.0.1", "255.0.0.0").inet("wlan0", "192.0.2.20")
      .inet("eth1", "198.51.100.10", "255.255.0.0").inet6("wlan0", "2001:db8::20");
  // lo is 1, wlan0 2, eth1 3; the first route of an index wins.
  src->routes = std::vector<DefaultRoute>{{3, ip("198.51.100.1")}, {2, ip("192.0.2.1")},
                                          {2, ip("192.0.2.99")}, {7, ip("203.0.113.1")}};
  CNetInfo n(src);
  ASSERT_EQ(n.enumInterfaces(), 0);
  EXPECT_EQ(drain(n), (std::vector<std::string>{
                          "198.51.100.10 gw 198.51.100.1/255.255.0.0 02:00:00:00:00:01",
                          "192.0.2.20 gw 192.0.2.1/255.255.255.0 02:00:00:00:00:20"}));
  EXPECT_EQ(src->routeDumps, 1);  // one dump serves every interface

  unsigned long gw = 1;
  EXPECT_EQ(n.getGatewayAddr(2, gw), 0);
  EXPECT_EQ(gw, ip("192.0.2.1"));
  EXPECT_EQ(n.getGatewayAddr(4, gw), 0);
  EXPECT_EQ(gw, 0u);
}

TEST(NetInfo, LookupsSearchForwardFromTheFirstElementOfTheName) {
  auto src = std::make_shared<FakeSource>();
  // No default route anywhere: reported with gateway 0.
  src->list.inet6("eth0", "fe80::1").packet("eth0", kHw).inet("eth0", "10.2.0.1", "255.0.0.0");
  CNetInfo n(src);
  ASSERT_EQ(n.enumInterfaces(), 0);
  EXPECT_EQ(drain(n), std::vector<std::string>{"10.2.0.1 gw 0.0.0.0/255.0.0.0 02:00:00:00:00:01"});

  ifaddrs* head = src->list.head();
  unsigned char v6[16] = {};
  ASSERT_EQ(CNetInfo::getIP6Address(head, "eth0", v6), 0);
  EXPECT_EQ(v6[0], 0xfe);
  EXPECT_EQ(v6[15], 1);
  EXPECT_EQ(CNetInfo::getIP6Address(head->ifa_next, "eth0", v6), -1);  // behind the position
  std::uint32_t a = 0;
  EXPECT_EQ(CNetInfo::getIPAddress(head, "eth1", a), -1);
}

TEST(NetInfo, UnusableInterfacesAreRejected) {
  auto src = std::make_shared<FakeSource>();
  src->list.packet("lo", kZeroHw).inet("lo", "127.0.0.1", "255.0.0.0")
      .packet("v6only", kHw).inet6("v6only", "2001:db8::1")
      .inet("tun0", "10.8.0.1")                       // no link-level element
      .packet("sit0", {}).inet("sit0", "10.9.0.1")    // zero-length link address
      .packet("nomask", kHw).inet("nomask", "10.7.0.1", nullptr)
      // Only the first IPv4 address of a name counts, and a rejected name is
      // never looked at again.
      .packet("odd", kHw).inet("odd", "126.0.0.1").inet("odd", "10.6.0.1")
      .packet("zero", kHw).inet("zero", "0.1.2.3")
      .packet("ten", kHw).inet("ten", "10.0.0.1")  // all its bits lie within 127.0.0.1
      .packet("good", kHw).inet("good", "10.0.0.2", "255.0.0.0");
  // Rejected names still count: good is the ninth.
  src->routes = std::vector<DefaultRoute>{{8, ip("10.0.0.253")}, {9, ip("10.0.0.254")}};
  CNetInfo n(src);
  ASSERT_EQ(n.enumInterfaces(), 0);
  EXPECT_EQ(drain(n),
            std::vector<std::string>{"10.0.0.2 gw 10.0.0.254/255.0.0.0 02:00:00:00:00:01"});
}

TEST(NetInfo, UnreadableRoutesRejectEveryInterface) {
  auto src = std::make_shared<FakeSource>();
  src->list.packet("eth0", kHw).inet("eth0", "10.2.0.1").packet("eth1", kHw).inet("eth1", "10.1.0.1");
  src->routes.reset();
  CNetInfo n(src);
  ASSERT_EQ(n.enumInterfaces(), 0);
  EXPECT_TRUE(drain(n).empty());
  unsigned long gw = 7;
  EXPECT_EQ(n.getGatewayAddr(1, gw), -1);
  EXPECT_EQ(gw, 0u);
}

TEST(NetInfo, ElevenInterfacesInStringOrderAndRebuild) {
  auto src = std::make_shared<FakeSource>();
  for (int i = 0; i < 11; ++i) {
    const std::string name = "eth" + std::to_string(i);
    src->list.packet(name, {2, 0, 0, 0, 0, static_cast<unsigned char>(i)})
        .inet(name, ("10.0.1." + std::to_string(i + 1)).c_str());
  }
  CNetInfo n(src);
  ASSERT_EQ(n.enumInterfaces(), 0);
  std::vector<std::string> addrs;
  for (const std::string& line : drain(n)) addrs.push_back(line.substr(0, line.find(' ')));
  EXPECT_EQ(addrs, (std::vector<std::string>{"10.0.1.1", "10.0.1.2", "10.0.1.11", "10.0.1.3",
                                             "10.0.1.4", "10.0.1.5", "10.0.1.6", "10.0.1.7",
                                             "10.0.1.8", "10.0.1.9", "10.0.1.10"}));
  n.rewind();
  EXPECT_EQ(drain(n).size(), 11u);
  src->list = IfList();
  src->list.packet("eth5", kHw).inet("eth5", "10.0.2.1");
  ASSERT_EQ(n.enumInterfaces(), 0);  // rebuilt from scratch and rewound
  EXPECT_EQ(drain(n), std::vector<std::string>{"10.0.2.1 gw 0.0.0.0/255.255.255.0 02:00:00:00:00:01"});
}

TEST(NetInfo, HardwareAddressLengths) {
  auto src = std::make_shared<FakeSource>();
  src->list.packet("a", {1, 2, 3, 4}).inet("a", "10.0.0.3")
      .packet("b", {1, 2, 3, 4, 5, 6, 7, 8}).inet("b", "10.0.0.2");
  CNetInfo n(src);
  ASSERT_EQ(n.enumInterfaces(), 0);
  unsigned long a = 0, g = 0, m = 0;
  unsigned char hw[10];
  std::memset(hw, 0xEE, sizeof hw);
  ASSERT_EQ(n.getNextInterface(a, g, m, hw, 3), 0);
  EXPECT_EQ(std::vector<unsigned char>(hw, hw + 4), (std::vector<unsigned char>{1, 2, 3, 0xEE}));
  ASSERT_EQ(n.getNextInterface(a, g, m, hw, sizeof hw), 0);
  EXPECT_EQ(std::vector<unsigned char>(hw, hw + 7),
            (std::vector<unsigned char>{1, 2, 3, 4, 5, 6, 0xEE}));
  n.rewind();
  ASSERT_EQ(n.getNextInterface(a, g, m, hw, 6), 0);
  EXPECT_EQ(std::vector<unsigned char>(hw, hw + 6), (std::vector<unsigned char>{1, 2, 3, 4, 0, 0}));
  EXPECT_EQ(n.getNextInterface(a, g, m, nullptr, 6), 0);
  EXPECT_EQ(a, ip("10.0.0.2"));

  unsigned char two[3] = {0, 0, 0xEE};
  EXPECT_EQ(CNetInfo::getHwAddress(src->list.head(), "b", two, 2), 0);
  EXPECT_EQ(two[2], 0xEE);
}

TEST(NetInfo, EmptyListAppleTalkAndNoSource) {
  auto src = std::make_shared<FakeSource>();
  CNetInfo n(src);
  EXPECT_EQ(n.enumInterfaces(), -1);
  EXPECT_TRUE(drain(n).empty());

  src->list.packet("eth0", kHw).inet("eth0", "10.0.0.2");
  ASSERT_EQ(n.enumInterfaces(), 0);
  unsigned long a = 0, g = 0, m = 0;
  ASSERT_EQ(n.getNextInterface(a, g, m, nullptr, 0), 0);
  unsigned short net = 9;
  unsigned char node = 9;
  std::string zone = "old";
  EXPECT_EQ(n.getATInterface(net, node, zone), 1);
  EXPECT_EQ(net, 0);
  EXPECT_EQ(node, 0);
  EXPECT_EQ(zone, "");
}

namespace {

// A route dump as the kernel would send it.
struct Dump {
  std::vector<char> buf = std::vector<char>(16384);
  std::size_t used = 0;

  nlmsghdr* msg(std::uint16_t type, std::uint32_t seq = 0) {
    nlmsghdr* h = mnl_nlmsg_put_header(buf.data() + used);
    h->nlmsg_type = type;
    h->nlmsg_flags = NLM_F_MULTI;
    h->nlmsg_seq = seq;
    return h;
  }
  nlmsghdr* route(std::uint8_t dstLen, std::uint8_t table, std::uint8_t type = RTN_UNICAST) {
    nlmsghdr* h = msg(RTM_NEWROUTE);
    auto* r = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(h, sizeof(rtmsg)));
    r->rtm_family = AF_INET;
    r->rtm_dst_len = dstLen;
    r->rtm_table = table;
    r->rtm_type = type;
    return h;
  }
  void end(nlmsghdr* h) { used += h->nlmsg_len; }
  route_dump::Status parse(std::vector<DefaultRoute>& out, unsigned seq = 0) {
    return route_dump::parse(buf.data(), used, seq, 0, out);
  }
};

void gateway(nlmsghdr* h, const char* text) { mnl_attr_put_u32(h, RTA_GATEWAY, htonl(ip(text))); }

std::set<std::pair<int, std::uint32_t>> pairs(const std::vector<DefaultRoute>& routes) {
  std::set<std::pair<int, std::uint32_t>> s;
  for (const DefaultRoute& r : routes) s.insert({r.oif, r.gateway});
  return s;
}

}  // namespace

TEST(NetInfoRouteDump, KeepsUnicastDefaultsOfTheMainTable) {
  Dump d;
  nlmsghdr* h = d.route(0, RT_TABLE_MAIN);
  mnl_attr_put_u32(h, RTA_OIF, 4);
  gateway(h, "192.0.2.1");
  d.end(h);
  h = d.route(0, RT_TABLE_MAIN);  // no gateway: a point-to-point default
  mnl_attr_put_u32(h, RTA_OIF, 5);
  d.end(h);
  h = d.route(0, RT_TABLE_COMPAT);  // the full table id is in RTA_TABLE
  mnl_attr_put_u32(h, RTA_TABLE, RT_TABLE_MAIN);
  mnl_attr_put_u32(h, RTA_OIF, 6);
  d.end(h);
  h = d.route(0, RT_TABLE_MAIN);  // two next hops
  nlattr* mp = mnl_attr_nest_start(h, RTA_MULTIPATH);
  for (int oif : {7, 8}) {
    auto* nh = static_cast<rtnexthop*>(mnl_nlmsg_put_extra_header(h, sizeof(rtnexthop)));
    nh->rtnh_ifindex = oif;
    gateway(h, oif == 7 ? "198.51.100.7" : "198.51.100.8");
    nh->rtnh_len = static_cast<unsigned short>(reinterpret_cast<char*>(mnl_nlmsg_get_payload_tail(h)) -
                                               reinterpret_cast<char*>(nh));
  }
  mnl_attr_nest_end(h, mp);
  d.end(h);
  for (auto [dstLen, table, type] : {std::tuple{24, RT_TABLE_MAIN, RTN_UNICAST},
                                     std::tuple{0, RT_TABLE_LOCAL, RTN_UNICAST},
                                     std::tuple{0, RT_TABLE_MAIN, RTN_UNREACHABLE}}) {
    h = d.route(dstLen, table, type);
    mnl_attr_put_u32(h, RTA_OIF, 9);
    gateway(h, "203.0.113.9");
    d.end(h);
  }
  h = d.route(0, RT_TABLE_MAIN);
  mnl_attr_put_u32(h, RTA_TABLE, 100);
  mnl_attr_put_u32(h, RTA_OIF, 10);
  d.end(h);

  std::vector<DefaultRoute> out;
  ASSERT_EQ(d.parse(out), route_dump::Status::More);
  EXPECT_EQ(pairs(out), (std::set<std::pair<int, std::uint32_t>>{
                            {4, ip("192.0.2.1")}, {5, 0}, {6, 0},
                            {7, ip("198.51.100.7")}, {8, ip("198.51.100.8")}}));
  d.end(d.msg(NLMSG_DONE));
  out.clear();
  EXPECT_EQ(d.parse(out), route_dump::Status::Done);
  EXPECT_EQ(out.size(), 5u);
}

TEST(NetInfoRouteDump, MalformedOrFailedDumps) {
  std::vector<DefaultRoute> out;
  {
    Dump d;
    nlmsghdr* h = d.msg(NLMSG_ERROR);
    auto* e = static_cast<nlmsgerr*>(mnl_nlmsg_put_extra_header(h, sizeof(nlmsgerr)));
    e->error = -EPERM;
    d.end(h);
    EXPECT_EQ(d.parse(out), route_dump::Status::Error);
  }
  {
    Dump d;  // shorter than its rtmsg
    nlmsghdr* h = d.msg(RTM_NEWROUTE);
    mnl_nlmsg_put_extra_header(h, 4);
    d.end(h);
    EXPECT_EQ(d.parse(out), route_dump::Status::Error);
  }
  {
    Dump d;  // a two-byte gateway
    nlmsghdr* h = d.route(0, RT_TABLE_MAIN);
    mnl_attr_put_u32(h, RTA_OIF, 2);
    mnl_attr_put_u16(h, RTA_GATEWAY, 1);
    d.end(h);
    EXPECT_EQ(d.parse(out), route_dump::Status::Error);
  }
  {
    Dump d;  // a next hop claiming more than its attribute holds
    nlmsghdr* h = d.route(0, RT_TABLE_MAIN);
    nlattr* mp = mnl_attr_nest_start(h, RTA_MULTIPATH);
    auto* nh = static_cast<rtnexthop*>(mnl_nlmsg_put_extra_header(h, sizeof(rtnexthop)));
    nh->rtnh_len = 200;
    mnl_attr_nest_end(h, mp);
    d.end(h);
    EXPECT_EQ(d.parse(out), route_dump::Status::Error);
  }
  {
    Dump d;  // another request's answer
    d.end(d.msg(NLMSG_DONE, 41));
    EXPECT_EQ(d.parse(out, 42), route_dump::Status::Error);
  }
  {
    Dump d;  // cut short: refused, nothing past the buffer touched
    nlmsghdr* h = d.route(0, RT_TABLE_MAIN);
    mnl_attr_put_u32(h, RTA_OIF, 2);
    d.end(h);
    d.used -= 6;
    EXPECT_EQ(d.parse(out), route_dump::Status::Error);
  }
  {
    // A length field of 2^31 or more, which libmnl would take as negative.
    const unsigned char bytes[] = {0x14, 0x00, 0xff, 0xff, 0x00, 0x00, 0x00, 0xff,
                                   0xff, 0x00, 0x00, 0x00, 0xff, 0x00, 0x00, 0xff};
    EXPECT_EQ(route_dump::parse(bytes, sizeof bytes, 0, 0, out), route_dump::Status::Error);
  }
  EXPECT_TRUE(out.empty());
}

// The running system: whatever it has, the dump must agree with the kernel's
// own text view of the main table, and every reported address must be valid.
TEST(NetInfoSystem, RoutesAgreeWithProcAndAddressesAreValid) {
  SystemNetSource sys;
  const std::optional<std::vector<DefaultRoute>> routes = sys.defaultRoutes();
  ASSERT_TRUE(routes.has_value());
  const auto got = pairs(*routes);

  std::ifstream proc("/proc/net/route");
  std::string line;
  std::getline(proc, line);
  std::size_t procDefaults = 0;
  while (std::getline(proc, line)) {
    std::istringstream in(line);
    std::string dev;
    unsigned long dst = 0, gw = 0, flags = 0, refcnt = 0, use = 0, metric = 0, mask = 0;
    in >> dev >> std::hex >> dst >> gw >> flags >> std::dec >> refcnt >> use >> metric >> std::hex >> mask;
    if (dst != 0 || mask != 0 || dev == "*") continue;
    ++procDefaults;
    // Printed as the network-order word read in host order.
    const std::pair<int, std::uint32_t> want{static_cast<int>(if_nametoindex(dev.c_str())),
                                             ntohl(static_cast<std::uint32_t>(gw))};
    EXPECT_TRUE(got.count(want)) << line;
  }
  EXPECT_EQ(procDefaults == 0, got.empty());

  CNetInfo n;
  ASSERT_EQ(n.enumInterfaces(), 0);  // there is always at least lo
  unsigned long a = 0, g = 0, m = 0;
  unsigned char hw[6];
  while (n.getNextInterface(a, g, m, hw, sizeof hw) == 0) {
    EXPECT_EQ(Util::isValidIP(a), 1) << dotted(a);
  }
}
