// The agent on the network: probes, the password gate and the session rules,
// from a peer inside the sandbox's network.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <utmpx.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "console_end.h"
#include "sandbox/agent_test.h"
#include "varlo/probe.h"
#include "varloctl/wire_text.h"

namespace sandbox {
namespace {

using namespace std::chrono_literals;
using namespace varlo;
using test_support::Bytes;
using test_support::ConsoleEnd;
using test_support::prefixOf;

// Sends one datagram of `size` bytes to the agent and returns its answer.
Bytes probe(std::size_t size) {
  UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const timeval second{1, 0};
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second);
  const sockaddr_in to{AF_INET, htons(kAgentPort), {htonl(INADDR_LOOPBACK)}, {}};
  Bytes b(std::max<std::size_t>(size, 1000), 0);
  sendto(fd.get(), b.data(), size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  b.resize(static_cast<std::size_t>(std::max<ssize_t>(recv(fd.get(), b.data(), b.size(), 0), 0)));
  return b;
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

std::size_t entriesOf(const std::string& dir) {
  return std::distance(std::filesystem::directory_iterator(dir), {});
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

  void SetUp() override {
    AgentTest::SetUp();
    if (IsSkipped()) return;
    // What an earlier run left: a DBMS key, the password "secret" and a note.
    const std::string prefs = box().hostPath("/var/lib/VarloPrefs");
    ASSERT_EQ(mkdir(prefs.c_str(), 0700), 0);
    std::ofstream(prefs + "/.varlo") << "dbkey= 4242\nebp= /:5;5<196954/431\nNote0 kept\n";
  }
};

TEST_F(ProtocolTest, ProbeOfExactly470BytesIsAnsweredWithTheHost) {
  addInterface("eth0", "192.0.2.10/24");
  sh("ip route add default via 192.0.2.1 dev eth0");
  addInterface("eth1", "198.51.100.7/24");
  // A user logged in on the console.
  utmpx login{};
  login.ut_type = USER_PROCESS;
  std::strcpy(login.ut_line, "tty1");
  std::strcpy(login.ut_user, "carol");
  std::ofstream(box().hostPath("/run/utmp"), std::ios::binary)
      .write(reinterpret_cast<const char*>(&login), sizeof login);
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());

  EXPECT_TRUE(probe(469).empty());
  EXPECT_TRUE(probe(471).empty());
  const Bytes wire = probe(470);
  ASSERT_EQ(wire.size(), 470u);
  varlo_probe_reply::Bytes bytes{};
  std::copy(wire.begin(), wire.end(), bytes.begin());
  const auto reply = varlo_probe_reply::decode(bytes);
  EXPECT_EQ(reply.agentVersion, 0x560u);
  EXPECT_EQ(reply.hostName, kCutHost);
  EXPECT_EQ(reply.osVersion, expectedOsVersion());
  EXPECT_EQ(getU32(wire.data() + 226), expectedOsVersion());
  // The address the name resolves to is primary, though eth0 comes first.
  EXPECT_EQ(varloctl::dotted(reply.ipAddress), "198.51.100.7");
  EXPECT_EQ(reply.gateway, 0u);
  EXPECT_EQ(varloctl::dotted(reply.subnetMask), "255.255.255.0");
  EXPECT_EQ(varloctl::hardwareAddress(reply.hwAddress) + "\n",
            readFile(box().hostPath("/sys/class/net/eth1/address")));
  EXPECT_EQ(varloctl::dotted(reply.otherIp[0]), "192.0.2.10");
  EXPECT_EQ(varloctl::dotted(reply.otherGateway[0]), "192.0.2.1");
  EXPECT_EQ(varloctl::dotted(reply.otherMask[0]), "255.255.255.0");
  EXPECT_EQ(reply.otherIp[1], 0u);
  EXPECT_EQ(reply.userName, "carol");
  EXPECT_EQ(reply.dbmsKey, 4242u);
}

TEST_F(ProtocolTest, WrongPasswordsGetTheirCodesRejectionRecordAndSilenceIsDropped) {
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());
  // The size of the record each code answers with; the codes not named get nothing.
  std::map<int, std::size_t> sizes = {{1, 1272}, {2, 104},  {5, 224},
                                      {12, 268}, {13, 268}, {23, 34}};
  for (int code : {3, 4, 6, 7, 8, 9, 10, 25, 26, 27, 28, 30}) sizes[code] = 14;
  for (int code : {14, 15, 16, 17, 18, 19, 20, 21, 22, 33, 34}) sizes[code] = 324;
  for (int code = 0; code <= 40; ++code) {
    SCOPED_TRACE(code);
    ConsoleEnd console = ConsoleEnd::connectTo();
    ASSERT_TRUE(console.connected() && console.sendHeader(std::uint16_t(code), "wrong"));
    const Bytes reply = console.receive(2000, 2000ms);
    ASSERT_EQ(reply.size(), sizes[code]);
    EXPECT_TRUE(reply.empty() || console.closedByPeer());
    if (reply.empty()) continue;
    EXPECT_EQ(prefixOf(reply), (Bytes{0, static_cast<std::uint8_t>(code), 0, 1, 0xFF}));
    EXPECT_EQ(std::count(reply.begin(), reply.end(), 0), static_cast<long>(reply.size()) - 3);
  }
  // No command was carried out or even logged.
  for (const auto& m : logMessages()) EXPECT_EQ(m.find(" received "), std::string::npos) << m;

  // A console that sends nothing is dropped after a second.
  ConsoleEnd silent = ConsoleEnd::connectTo();
  ASSERT_TRUE(silent.connected());
  const auto before = std::chrono::steady_clock::now();
  EXPECT_TRUE(silent.closedByPeer(5000ms));
  EXPECT_GE(std::chrono::steady_clock::now() - before, 900ms);
  EXPECT_LT(std::chrono::steady_clock::now() - before, 3000ms);
}

TEST_F(ProtocolTest, ManyConcurrentSessionsAreAllServedAndLeaveNothingBehind) {
  Process agent = startAgent();
  const std::string proc = box().hostPath("/proc/" + *readFile(box().hostPath(kPidFile)));
  const std::size_t idleThreads = entriesOf(proc + "/task"), idleFds = entriesOf(proc + "/fd");
  // main, network, foreman, the host watcher and the name resolver
  EXPECT_EQ(idleThreads, 5u + extraThreads());

  // Consoles open one at a time (faster would overflow the agent's five-deep
  // listen queue), each worker then waiting up to a second for the first
  // note's acknowledgement. Then each console takes a note in turn, ten times.
  constexpr int kSessions = 100;
  std::vector<ConsoleEnd> consoles(kSessions);
  std::vector<std::uint32_t> notes(kSessions);  // the right notes each console got
  Sandbox::NetworkScope net(box());
  for (ConsoleEnd& c : consoles) {
    c = ConsoleEnd::connectTo();
    ASSERT_TRUE(c.connected() && c.sendHeader(22, "secret"));
    ASSERT_EQ(prefixOf(c.receive(varlo_manage::kSize)), (Bytes{0, 0, 1, 0, 0}));
  }
  EXPECT_EQ(entriesOf(proc + "/task"), idleThreads + kSessions);
  for (std::uint32_t i = 0; i < varlo_note::kCount; ++i) {
    for (int k = 0; k < kSessions; ++k) {
      if (notes[k] != i) continue;
      bool whole = false;
      const auto note = consoles[k].receiveRecord<varlo_note>(&whole);
      notes[k] += whole && note.index == i && note.text == (i == 0 ? "kept" : "");
      consoles[k].send(varlo_manage::acknowledgement(true));
    }
  }
  for (int k = 0; k < kSessions; ++k)
    EXPECT_TRUE(notes[k] == 10 && consoles[k].closedByPeer()) << k;
  // Workers end on their own; the last ones are reaped at the next wake-up.
  EXPECT_TRUE(waitUntil([&] { return entriesOf(proc + "/task") == idleThreads; }, 5000ms))
      << entriesOf(proc + "/task") << " threads";
  ConsoleEnd wake = ConsoleEnd::connectTo();
  ASSERT_TRUE(wake.connected() && wake.sendHeader(11, "secret"));
  EXPECT_TRUE(wake.closedByPeer());
  // Every session's descriptor is closed but the newest, still to be reaped.
  EXPECT_TRUE(waitUntil([&] { return entriesOf(proc + "/fd") <= idleFds + 1; }, 5000ms))
      << entriesOf(proc + "/fd") << " descriptors against " << idleFds << " idle";
  EXPECT_EQ(stopAgent(agent), 0);
}

}  // namespace
}  // namespace sandbox
