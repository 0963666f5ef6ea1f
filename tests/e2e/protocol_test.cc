// The agent on the network: probes, the password gate, the session rules
// and the network inventory, from a peer inside the sandbox's network.
#include <arpa/inet.h>
#include <dirent.h>
#include <poll.h>
#include <sys/utsname.h>

#include <atomic>
#include <optional>
#include <cstdio>
#include <thread>

#include <gmock/gmock.h>

#include "console_end.h"
#include "prefs/prefs.h"
#include "sandbox/agent_test.h"
#include "varlo/net_records.h"
#include "varlo/probe.h"

namespace sandbox {
namespace {

using namespace std::chrono_literals;
using test_support::Bytes;
using test_support::ConsoleEnd;
using test_support::prefixOf;
using namespace varlo;

constexpr std::uint32_t ip(int a, int b, int c, int d) {
  return std::uint32_t(a) << 24 | std::uint32_t(b) << 16 | std::uint32_t(c) << 8 | std::uint32_t(d);
}

// Sends one datagram of `size` bytes to the agent and returns its answer.
Bytes probe(std::size_t size, std::chrono::milliseconds wait = 1000ms) {
  UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(kAgentPort);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const Bytes datagram(size, 0);
  sendto(fd.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  pollfd p{fd.get(), POLLIN, 0};
  if (poll(&p, 1, static_cast<int>(wait.count())) <= 0) return {};
  Bytes reply(1000);
  const ssize_t n = recv(fd.get(), reply.data(), reply.size(), 0);
  reply.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  return reply;
}

std::array<std::uint8_t, 6> macOf(const std::string& text) {
  std::array<unsigned, 6> v{};
  std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]);
  std::array<std::uint8_t, 6> out{};
  for (int i = 0; i < 6; ++i) out[i] = static_cast<std::uint8_t>(v[i]);
  return out;
}

// The kernel release as the console's version number, worked out here
// independently of the agent: two BCD digits of major, then minor and patch
// capped at 9; then the console's shift of the major into the third digit.
std::uint32_t expectedOsVersion() {
  utsname un{};
  uname(&un);
  unsigned major = 0, minor = 0, patch = 0;
  std::sscanf(un.release, "%u.%u.%u", &major, &minor, &patch);
  const std::uint32_t r = ((major / 10 % 10) << 12) | ((major % 10) << 8) |
                          (std::min(minor, 9u) << 4) | std::min(patch, 9u);
  return (r & 0x0FFF) | (((r >> 4) & 0x0F00) * 10);
}

const std::string kLongHost = "host-name-of-forty-characters-0123456789";  // 40
const std::string kCutHost = kLongHost.substr(0, 31);

class ProtocolTest : public AgentTest {
 protected:
  Options sandboxOptions() const override {
    Options o = AgentTest::sandboxOptions();
    o.hostName = kLongHost;
    // The cut name is what the agent looks up; it names the second interface.
    o.hosts = "127.0.0.1\tlocalhost\n198.51.100.7\t" + kCutHost + "\n";
    return o;
  }

  void seedPassword(const std::string& password) {
    PrefsSources sources;
    sources.localPrefsDir = box().hostPath("/var/lib");
    CPrefs prefs(sources);
    prefs.init();
    ASSERT_EQ(prefs.changePassword(password), 0);
  }

  void seedNote(const std::string& text) {
    PrefsSources sources;
    sources.localPrefsDir = box().hostPath("/var/lib");
    CPrefs prefs(sources);
    prefs.init();
    ASSERT_EQ(prefs.storeNotes(text.c_str(), 0, false), 0);
  }

  std::string mac(const std::string& name) {
    return readFile(box().hostPath("/sys/class/net/" + name + "/address")).value_or("");
  }
};

TEST_F(ProtocolTest, ProbeOfExactly470BytesIsAnsweredWithTheHost) {
  addInterface("eth0", "192.0.2.10/24");
  sh("ip route add default via 192.0.2.1 dev eth0");
  addInterface("eth1", "198.51.100.7/24");
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());
  ASSERT_TRUE(net.entered());

  EXPECT_TRUE(probe(469).empty());
  EXPECT_TRUE(probe(471).empty());
  const Bytes wire = probe(470);
  ASSERT_EQ(wire.size(), 470u);
  varlo_probe_reply::Bytes bytes{};
  std::copy(wire.begin(), wire.end(), bytes.begin());
  const auto reply = varlo_probe_reply::decode(bytes);
  EXPECT_EQ(reply.agentVersion, 0x560u);
  EXPECT_EQ(reply.hostName, kCutHost);
  EXPECT_EQ(reply.osType, 4);
  EXPECT_EQ(reply.osVersion, expectedOsVersion());
  EXPECT_EQ(getU32(wire.data() + 226), expectedOsVersion());
  // The address the name resolves to is primary, though eth0 comes first.
  EXPECT_EQ(reply.ipAddress, ip(198, 51, 100, 7));
  EXPECT_EQ(reply.gateway, 0u);
  EXPECT_EQ(reply.subnetMask, ip(255, 255, 255, 0));
  EXPECT_EQ(reply.hwAddress, macOf(mac("eth1")));
  EXPECT_EQ(reply.otherIp[0], ip(192, 0, 2, 10));
  EXPECT_EQ(reply.otherGateway[0], ip(192, 0, 2, 1));
  EXPECT_EQ(reply.otherMask[0], ip(255, 255, 255, 0));
  EXPECT_EQ(reply.otherIp[1], 0u);
  EXPECT_EQ(reply.dbmsKey, 0u);
  EXPECT_EQ(reply.userName, "");

  // Only the one probe was seen.
  EXPECT_TRUE(waitUntil(
      [&] {
        const auto m = logMessages();
        return std::count(m.begin(), m.end(), "Sent probe response") == 1;
      },
      2000ms));
  const auto messages = logMessages();
  EXPECT_EQ(std::count(messages.begin(), messages.end(), "Probe Source: 127.0.0.1"), 1);
}

TEST_F(ProtocolTest, EveryCodeWithAWrongPasswordGetsItsRejectionRecord) {
  seedPassword("right");
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());
  // Sizes of the records each command answers with, as the console reads them.
  auto expectedSize = [](int code) -> std::size_t {
    if (code == 1) return 1272;
    if (code == 2) return 104;
    if (code == 5) return 224;
    if (code == 12 || code == 13) return 268;
    if (code == 23) return 34;
    if ((code >= 14 && code <= 22) || code == 33 || code == 34) return 324;
    if ((code >= 3 && code <= 10) || code == 25 || code == 26 || code == 27 || code == 28 ||
        code == 30)
      return 14;
    return 0;
  };
  for (int code = 0; code <= 40; ++code) {
    ConsoleEnd console = ConsoleEnd::connectTo();
    ASSERT_TRUE(console.connected());
    ASSERT_TRUE(console.sendHeader(static_cast<std::uint16_t>(code), "wrong"));
    const Bytes reply = console.receive(2000, 2000ms);
    ASSERT_EQ(reply.size(), expectedSize(code)) << "code " << code;
    EXPECT_TRUE(reply.empty() || console.closedByPeer()) << "code " << code;
    if (reply.empty()) continue;
    EXPECT_EQ(prefixOf(reply), (Bytes{0, static_cast<std::uint8_t>(code), 0, 1, 0xFF}));
    EXPECT_EQ(std::count(reply.begin(), reply.end(), 0), static_cast<long>(reply.size()) - 3);
  }
  // No command was carried out or even logged.
  for (const auto& m : logMessages()) EXPECT_EQ(m.find(" received "), std::string::npos) << m;
}

TEST_F(ProtocolTest, SilentConnectionIsDroppedAfterASecond) {
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());
  ConsoleEnd console = ConsoleEnd::connectTo();
  ASSERT_TRUE(console.connected());
  const auto before = std::chrono::steady_clock::now();
  EXPECT_TRUE(console.closedByPeer(5000ms));
  const auto waited = std::chrono::steady_clock::now() - before;
  EXPECT_GE(waited, 900ms);
  EXPECT_LT(waited, 3000ms);
  EXPECT_TRUE(waitUntil(
      [&] {
        const auto m = logMessages();
        return std::any_of(m.begin(), m.end(), [](const std::string& line) {
          return line.find("did not receive data in a timely manner") != std::string::npos;
        });
      },
      2000ms));
}

TEST_F(ProtocolTest, NetworkingAndIpAddressesDescribeTheInterfaces) {
  // Eleven usable interfaces: a full batch of ten, then one.
  for (int i = 0; i <= 10; ++i)
    addInterface("eth" + std::to_string(i), "192.0.2." + std::to_string(10 + i) + "/24");
  sh("ip route add default via 192.0.2.1 dev eth0");
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());

  ConsoleEnd console = ConsoleEnd::connectTo();
  ASSERT_TRUE(console.sendHeader(kNetworkingCommand, ""));
  bool whole = false;
  const auto record = console.receiveRecord<varlo_net>(&whole);
  ASSERT_TRUE(whole);
  EXPECT_EQ(record.prefix.command, 2);
  EXPECT_TRUE(record.prefix.success && record.prefix.last);
  EXPECT_EQ(record.netTag, 4u);
  // The first in name order.
  EXPECT_EQ(record.ipAddr, ip(192, 0, 2, 10));
  EXPECT_EQ(record.gatewayAddr, ip(192, 0, 2, 1));
  EXPECT_EQ(record.netMask, ip(255, 255, 255, 0));
  EXPECT_EQ(record.hwAddr, macOf(mac("eth0")));

  ConsoleEnd list = ConsoleEnd::connectTo();
  ASSERT_TRUE(list.sendHeader(kIpAddressCommand, ""));
  std::vector<varlo_ipaddr> entries;
  std::vector<varlo_list_header> headers;
  for (;;) {
    bool ok = false;
    const auto header = list.receiveRecord<varlo_list_header>(&ok);
    ASSERT_TRUE(ok);
    headers.push_back(header);
    const Bytes body = list.receive(header.count * varlo_ipaddr::kSize);
    ASSERT_EQ(body.size(), header.count * varlo_ipaddr::kSize);
    for (std::size_t i = 0; i < header.count; ++i)
      entries.push_back(varlo_ipaddr::decodeAt(body.data() + i * varlo_ipaddr::kSize));
    if (header.prefix.last) break;
  }
  ASSERT_EQ(headers.size(), 2u);
  EXPECT_EQ(headers[0].count, 10);
  EXPECT_FALSE(headers[0].prefix.last);
  EXPECT_EQ(headers[1].count, 1);
  EXPECT_EQ(headers[1].prefix.command, 28);
  ASSERT_EQ(entries.size(), 11u);
  // Name order: eth0, eth1, eth10, eth2, ...
  EXPECT_EQ(entries[0].ipAddr, ip(192, 0, 2, 10));
  EXPECT_EQ(entries[0].gatewayAddr, ip(192, 0, 2, 1));
  EXPECT_EQ(entries[2].ipAddr, ip(192, 0, 2, 20));
  EXPECT_EQ(entries[2].gatewayAddr, 0u);
  EXPECT_EQ(entries[2].hwAddr, macOf(mac("eth10")));
  EXPECT_TRUE(waitUntil(
      [&] {
        const auto m = logMessages();
        return std::find(m.begin(), m.end(), "Sending 10ip addresses") != m.end();
      },
      2000ms));
}

TEST_F(ProtocolTest, ManyConcurrentSessionsAreAllServedAndLeaveNothingBehind) {
  seedNote("kept");
  Process agent = startAgent();
  const std::string pid = *readFile(box().hostPath(kPidFile));
  const std::string proc = box().hostPath("/proc/" + pid);
  auto count = [](const std::string& dir) {
    std::size_t n = 0;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return n;
    while (const dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
    return n;
  };
  const std::size_t idleThreads = count(proc + "/task");
  const std::size_t idleFds = count(proc + "/fd");
  // main, network, foreman, the host watcher and the name resolver
  EXPECT_EQ(idleThreads, 5u + extraThreads());

  // Every console holds its session open by taking its time over the ten
  // notes, so that all sessions are open together. One thread plays every
  // console, so that the agent's threads are not starved of the CPU. A new
  // session opens once the agent has taken up the previous one: consoles
  // that open connections faster than the agent accepts them overflow its
  // five-deep listen queue and wait a second for the kernel to retry.
  constexpr int kSessions = 200;
  constexpr auto kPause = 400ms;  // well inside the agent's one-second wait
  struct Console {
    ConsoleEnd end;
    Bytes pending;  // bytes of the record being read
    int notesSeen = 0;
    bool acknowledged = false;
    std::optional<std::chrono::steady_clock::time_point> replyAt;
    bool done = false;
  };
  std::vector<Console> consoles(kSessions);
  int opened = 0;
  std::atomic<int> answered{0};
  std::size_t peakThreads = 0;
  {
    Sandbox::NetworkScope net(box());
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (answered < kSessions && std::chrono::steady_clock::now() < deadline) {
      if (opened < kSessions && (opened == 0 || consoles[opened - 1].acknowledged)) {
        Console& next = consoles[opened++];
        next.end = ConsoleEnd::connectTo();
        ASSERT_TRUE(next.end.connected());
        ASSERT_TRUE(next.end.sendHeader(22, ""));
      }
      peakThreads = std::max(peakThreads, count(proc + "/task"));
      std::vector<pollfd> fds;
      for (int k = 0; k < opened; ++k)
        fds.push_back({consoles[k].done ? -1 : consoles[k].end.fd(), POLLIN, 0});
      poll(fds.data(), fds.size(), 1);
      const auto now = std::chrono::steady_clock::now();
      for (std::size_t k = 0; k < fds.size(); ++k) {
        Console& c = consoles[k];
        if (c.done) continue;
        if (c.replyAt && now >= *c.replyAt) {
          c.replyAt.reset();
          c.end.send(varlo_manage::acknowledgement(true));
        }
        if (!(fds[k].revents & (POLLIN | POLLHUP))) continue;
        const std::size_t want = c.acknowledged ? varlo_note::kSize : varlo_manage::kSize;
        std::uint8_t buf[512];
        const ssize_t n = recv(c.end.fd(), buf, want - c.pending.size(), 0);
        if (n <= 0) {  // closed: complete only after all ten notes
          c.done = true;
          if (c.notesSeen == varlo_note::kCount) ++answered;
          continue;
        }
        c.pending.insert(c.pending.end(), buf, buf + n);
        if (c.pending.size() < want) continue;
        if (!c.acknowledged) {
          c.acknowledged = prefixOf(c.pending) == Bytes{0, 0, 1, 0, 0};
        } else {
          varlo_note::Bytes wire{};
          std::copy(c.pending.begin(), c.pending.end(), wire.begin());
          const varlo_note note = varlo_note::decode(wire);
          if (note.index == static_cast<std::uint32_t>(c.notesSeen) &&
              note.text == (c.notesSeen == 0 ? "kept" : ""))
            ++c.notesSeen;
          c.replyAt = now + kPause;
        }
        c.pending.clear();
      }
    }
  }
  EXPECT_EQ(answered.load(), kSessions);
  EXPECT_GE(peakThreads, idleThreads + kSessions * 9 / 10);
  // Workers end on their own; the last ones are reaped at the next wake-up.
  EXPECT_TRUE(waitUntil([&] { return count(proc + "/task") == idleThreads; }, 5000ms))
      << count(proc + "/task") << " threads";
  {
    Sandbox::NetworkScope net(box());
    ConsoleEnd wake = ConsoleEnd::connectTo();
    ASSERT_TRUE(wake.sendHeader(11, ""));
    EXPECT_TRUE(wake.closedByPeer());
  }
  // Every session's descriptor is closed but the newest, still to be reaped.
  EXPECT_TRUE(waitUntil([&] { return count(proc + "/fd") <= idleFds + 1; }, 5000ms))
      << count(proc + "/fd") << " descriptors against " << idleFds << " idle";
  EXPECT_EQ(stopAgent(agent), 0);
}

}  // namespace
}  // namespace sandbox
