// What the real kernel throws at the agent: commands still running at
// shutdown, a name server that does not answer, interfaces that come and
// go, process names with blanks, and the descriptors a daemon leaves open.
#include <fcntl.h>
#include <dirent.h>
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include <gmock/gmock.h>

#include "console_end.h"
#include "sandbox/agent_test.h"
#include "varlo/commands.h"
#include "varlo/probe.h"

namespace sandbox {
namespace {

using namespace std::chrono_literals;
using test_support::ConsoleEnd;
using Clock = std::chrono::steady_clock;

bool contains(const std::vector<std::string>& lines, const std::string& part) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& l) { return l.find(part) != std::string::npos; });
}

// One probe's reply, or nothing within three seconds.
std::optional<varlo::varlo_probe_reply> probeAgent() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(varlo::kAgentPort);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  varlo::varlo_probe_reply::Bytes wire{};
  sendto(fd, wire.data(), wire.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  pollfd p{fd, POLLIN, 0};
  const bool answered =
      poll(&p, 1, 3000) == 1 && recv(fd, wire.data(), wire.size(), 0) == ssize_t(wire.size());
  close(fd);
  if (!answered) return std::nullopt;
  return varlo::varlo_probe_reply::decode(wire);
}

TEST_F(AgentTest, ShutdownStopsRunningCommandsAtOnceAndTheyWriteNothingMore) {
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());
  // Retrieve Notes waits up to a second for the console's answer to each
  // of ten notes; these consoles never answer.
  ConsoleEnd notes = ConsoleEnd::connectTo();
  ASSERT_TRUE(notes.sendHeader(varlo::kRetrieveNotesCommand, ""));
  ConsoleEnd more = ConsoleEnd::connectTo();
  ASSERT_TRUE(more.sendHeader(varlo::kRetrieveNotesCommand, ""));
  // The foreman is worker 0: the connections' workers are 1 and 2.
  ASSERT_TRUE(waitUntil(
      [&] {
        const auto lines = logMessages();
        return contains(lines, "Worker Thread: 1 received Retrieve Notes command") &&
               contains(lines, "Worker Thread: 2 received Retrieve Notes command");
      },
      3000ms));

  const auto before = Clock::now();
  EXPECT_EQ(stopAgent(agent), 0);
  EXPECT_LT(Clock::now() - before, 2000ms);
  const auto lines = logMessages();
  const auto signal = std::find(lines.begin(), lines.end(), "Received SIGTERM or SIGQUIT signal");
  ASSERT_NE(signal, lines.end());
  const std::vector<std::string> after(signal, lines.end());
  for (const char* quiet : {"Failed to", "did not receive", "failed to send", "1 finished",
                            "2 finished"})
    EXPECT_FALSE(contains(after, quiet)) << quiet << " in\n" << ::testing::PrintToString(after);
  EXPECT_TRUE(contains(after, "2 threads need to close"));
}

class SlowNameServerTest : public AgentTest {
 protected:
  // The host name is in no hosts file, and the name server asked for it
  // never answers.
  Options sandboxOptions() const override {
    Options o = AgentTest::sandboxOptions();
    o.resolvConf = "nameserver 192.0.2.53\noptions timeout:5 attempts:2\n";
    return o;
  }
};

TEST_F(SlowNameServerTest, ProbesAndSessionsDoNotWaitForTheNameService) {
  addInterface("eth0", "192.0.2.10/24");
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());
  for (int i = 0; i < 3; ++i) {
    const auto before = Clock::now();
    ASSERT_TRUE(probeAgent().has_value()) << "probe " << i << " unanswered";
    EXPECT_LT(Clock::now() - before, 500ms) << "probe " << i;

    const auto start = Clock::now();
    ConsoleEnd console = ConsoleEnd::connectTo();
    ASSERT_TRUE(console.sendHeader(varlo::kIpAddressCommand, ""));
    EXPECT_EQ(console.receive(14).size(), 14u);
    EXPECT_LT(Clock::now() - start, 500ms) << "session " << i;
  }
  EXPECT_EQ(stopAgent(agent), 0);
}

// The probe reply follows the interfaces as they change, without a restart.
TEST_F(AgentTest, ProbeReplyFollowsInterfacesAddedWhileRunning) {
  addInterface("eth0", "192.0.2.10/24");
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());
  const auto lists = [](std::uint32_t address) {
    const auto reply = probeAgent();
    if (!reply) return false;
    return reply->ipAddress == address ||
           std::count(reply->otherIp.begin(), reply->otherIp.end(), address) > 0;
  };
  EXPECT_TRUE(lists(0xC000020A));   // 192.0.2.10
  EXPECT_FALSE(lists(0xC633640A));  // 198.51.100.10, not there yet
  addInterface("eth1", "198.51.100.10/24");
  EXPECT_TRUE(waitUntil([&] { return lists(0xC633640A); }, 2000ms));
}

TEST_F(AgentTest, GatewaysFollowTheKernelsIndexesAfterAnInterfaceWentAway) {
  addInterface("gone0", "203.0.113.9/24");
  sh("ip link del gone0");
  addInterface("eth0", "192.0.2.10/24");
  sh("ip route add default via 192.0.2.1 dev eth0");
  addInterface("eth1", "198.51.100.10/24");
  Process agent = startAgent();
  const auto r = ctl({"--json", "127.0.0.1", "ipaddrs"});
  EXPECT_EQ(r.exitCode, 0) << r.output;
  EXPECT_THAT(r.output, ::testing::HasSubstr("\"ip_address\": \"192.0.2.10\",\n"
                                             "    \"gateway\": \"192.0.2.1\""));
  EXPECT_THAT(r.output, ::testing::HasSubstr("\"ip_address\": \"198.51.100.10\",\n"
                                             "    \"gateway\": \"0.0.0.0\""));
}

TEST_F(AgentTest, ProcessNamesWithBlanksAreListed) {
  // bash keeps the name it is given; what it runs keeps its own.
  Process named = box().spawn(
      {"/bin/bash", "-c", "printf 'Web Content' > /proc/$$/comm; while :; do sleep 1; done"});
  Process agent = startAgent();
  const auto r = ctl({"127.0.0.1", "processes"});
  EXPECT_EQ(r.exitCode, 0) << r.output;
  EXPECT_THAT(r.output, ::testing::HasSubstr("Web Content"));
  EXPECT_FALSE(contains(logMessages(), "Needed 8 got"));
}

TEST_F(AgentTest, DaemonHasDevNullOnItsStandardDescriptorsAndEverythingElseCloseOnExec) {
  const auto r = box().run({kAgent});
  ASSERT_TRUE(r.has_value());
  ASSERT_TRUE(waitUntil([&] { return readFile(box().hostPath(kPidFile)).has_value(); }, 5000ms));
  // Some sessions first, so their descriptors come and go.
  ASSERT_EQ(ctl({"127.0.0.1", "ipaddrs"}).exitCode, 0);
  const std::string pid = readFile(box().hostPath(kPidFile)).value_or("");
  const std::string proc = box().hostPath("/proc/" + pid);
  for (int fd : {0, 1, 2}) {
    char target[256] = {};
    const ssize_t n =
        readlink((proc + "/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1);
    EXPECT_THAT(std::string(target, n > 0 ? static_cast<std::size_t>(n) : 0),
                ::testing::EndsWith("/dev/null"))
        << fd;
  }
  DIR* d = opendir((proc + "/fdinfo").c_str());
  ASSERT_NE(d, nullptr);
  int checked = 0;
  while (const dirent* e = readdir(d)) {
    const int fd = std::atoi(e->d_name);
    if (e->d_name[0] == '.' || fd <= 2) continue;
    const std::string info = readFile(proc + "/fdinfo/" + e->d_name).value_or("");
    const auto at = info.find("flags:");
    ASSERT_NE(at, std::string::npos);
    const unsigned long flags = std::stoul(info.substr(at + 6), nullptr, 8);
    char target[256] = {};
    [[maybe_unused]] ssize_t n = readlink((proc + "/fd/" + e->d_name).c_str(), target, 255);
    EXPECT_TRUE(flags & O_CLOEXEC) << "descriptor " << fd << " (" << target << ")";
    ++checked;
  }
  closedir(d);
  EXPECT_GE(checked, 4);  // at least the log, the self-pipe and both sockets
  sh("kill " + pid);
  EXPECT_TRUE(waitUntil([&] { return !readFile(box().hostPath(kPidFile)).has_value(); }, 3000ms));
}

}  // namespace
}  // namespace sandbox

#ifdef VARLO_SLOW_FS
namespace sandbox {
namespace {

// A remote mount whose server is gone: every call on it hangs.
TEST_F(AgentTest, DeadRemoteMountCostsVolumesItsBoundAndNothingElse) {
  sh("mkdir -p /mnt/remote");
  Process server = box().spawn({VARLO_SLOW_FS, "--hang-getattr", "forever", "/mnt/remote"});
  ASSERT_TRUE(waitUntil(
      [&] {
        return readFile(box().hostPath("/proc/1/mountinfo")).value_or("").find("fuse.sshfs") !=
               std::string::npos;
      },
      3000ms));
  Process agent = startAgent();

  // Another session is served while Volumes waits on the dead mount.
  std::optional<Sandbox::Result> volumes;
  const auto before = Clock::now();
  std::thread asking([&] { volumes = ctl({"--json", "127.0.0.1", "volumes"}); });
  std::this_thread::sleep_for(300ms);
  const auto ipStart = Clock::now();
  EXPECT_EQ(ctl({"127.0.0.1", "ipaddrs"}).exitCode, 0);
  EXPECT_LT(Clock::now() - ipStart, 1000ms);
  asking.join();
  EXPECT_LT(Clock::now() - before, 2000ms);
  ASSERT_TRUE(volumes.has_value());
  EXPECT_EQ(volumes->exitCode, 0) << volumes->output;
  EXPECT_THAT(volumes->output, ::testing::HasSubstr("\"name\": \"/mnt/remote\",\n"
                                                    "    \"remote\": true,\n"
                                                    "    \"total_mib\": \"0.0\",\n"
                                                    "    \"free_mib\": \"0.0\""));

  // Asked again, the dead mount is answered at once; the local list never asks it.
  for (const bool local : {false, true}) {
    const auto start = Clock::now();
    const auto r = local ? ctl({"127.0.0.1", "volumes", "local"}) : ctl({"127.0.0.1", "volumes"});
    EXPECT_EQ(r.exitCode, 0) << r.output;
    EXPECT_LT(Clock::now() - start, 1000ms) << local;
    EXPECT_EQ(r.output.find("/mnt/remote") == std::string::npos, local) << r.output;
  }

  // Shutdown does not wait for the call still blocked in the mount.
  const auto stopStart = Clock::now();
  agent.signal(SIGTERM);
  EXPECT_TRUE(waitUntil([&] { return contains(logMessages(), "Shutdown completed"); }, 2000ms));
  EXPECT_LT(Clock::now() - stopStart, 2000ms);
  // A thread blocked in FUSE ends only when its server does.
  server.signal(SIGTERM);
  EXPECT_TRUE(agent.wait(5000ms).has_value());
}

}  // namespace
}  // namespace sandbox
#endif
