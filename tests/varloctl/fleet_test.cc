// One command on a fleet of stand-in agents on loopback addresses: what it
// shows, how failures are reported without stopping the others, how many
// sessions are open at once, and that a large or hopeless run ends in time
// with no descriptor left behind.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "test_support.h"
#include "varloctl_fake_agent.h"
#include "varloctl_fleet_agent.h"

using namespace varloctl_test;
using Behaviour = FleetAgent::Behaviour;
using Clock = std::chrono::steady_clock;

namespace {

// dbkey 7: the request record, and the agent's echo of it.
const Bytes kKeyRequest = record(324, {{36, be32(7)}});
const Bytes kKeyAnswer = record(324, {{0, bytes({0, 33, 1, 1, 0})}, {36, be32(7)}});
const Behaviour kKeyAgent{kKeyRequest, kKeyAnswer};
const Behaviour kSilent{{}, {}, 0, true};

Bytes ipEntry(int last) {
  return record(40, {{0, bytes({10, 0, 0, last, 10, 0, 0, 1, 255, 0, 0, 0})}});
}

long openDescriptors() {
  long n = 0;
  DIR* d = opendir("/proc/self/fd");
  while (const dirent* e = readdir(d)) n += e->d_name[0] != '.';
  closedir(d);
  return n;
}

std::size_t lines(const std::string& s) {
  return static_cast<std::size_t>(std::count(s.begin(), s.end(), '\n'));
}

// A port on which nothing listens on 127.x.x.x: held bound, never listening.
struct DeadPort {
  std::uint16_t port = 0;
  UniqueFd held = boundAt("127.0.0.1", port);
};

}  // namespace

TEST(VarloctlFleet, EachHostsAnswerOrErrorInTheOrderGiven) {
  // 127.0.0.2 and .3 answer, .4 has no listener, .5 never answers.
  FleetOfAgents fleet({kKeyAgent, kKeyAgent, kKeyAgent, kSilent});
  ASSERT_TRUE(fleet.ready());
  test_support::TempDir dir;
  test_support::spit(
      dir / "fleet",
      "# the rack\n127.0.0.2\n\n127.0.0.3  # second\nnot a host!\n127.0.0.6\n127.0.0.5\n");
  const std::string p = std::to_string(fleet.port());
  // .4's agent is there but this list leaves it out; .6 has no listener.
  const auto start = Clock::now();
  Result r = ctl({"--port", p, "--timeout", "0.3", "@" + dir / "fleet", "dbkey", "7"});
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
  // The first failed host in the list's order decides: the garbage line.
  EXPECT_EQ(r.status, 6);
  const std::string refused = "connection refused by 127.0.0.6:" + p + " (is the agent running?)";
  const std::string silent = "waiting for a reply from 127.0.0.5:" + p + " timed out after 0.3 s";
  EXPECT_EQ(r.out,
            "HOST         DBMS KEY  ERROR\n"
            "127.0.0.2    7\n"
            "127.0.0.3    7\n"
            "not a host!            not a host name or IPv4 address\n"
            "127.0.0.6              " +
                refused +
                "\n"
                "127.0.0.5              " +
                silent + "\n");
  EXPECT_EQ(r.err,
            "varloctl: not a host!: not a host name or IPv4 address\n"
            "varloctl: 127.0.0.6: " +
                refused +
                "\n"
                "varloctl: 127.0.0.5: " +
                silent + "\n");
  EXPECT_EQ(fleet[0].served(), 1);
  EXPECT_EQ(fleet[2].served(), 0);
  EXPECT_EQ(fleet[0].mismatches() + fleet[1].mismatches(), 0);

  // JSON: one document keyed by host in the same order.
  r = ctl(
      {"--json", "--port", p, "--timeout", "0.3", "127.0.0.5,127.0.0.2,127.0.0.6", "dbkey", "7"});
  EXPECT_EQ(r.status, 5);
  const auto doc = nlohmann::ordered_json::parse(r.out);
  EXPECT_EQ(doc, nlohmann::ordered_json::parse(R"({"127.0.0.5": {"error": ")" + silent +
                                               R"(", "status": 5},
                         "127.0.0.2": {"dbms_key": 7},
                         "127.0.0.6": {"error": ")" +
                                               refused + R"(", "status": 6}})"));
  EXPECT_EQ(doc.begin().key(), "127.0.0.5");

  // All well: status 0, nothing on standard error, no ERROR column.
  r = ctl({"--port", p, "127.0.0.2/32,127.0.0.4", "dbkey", "7"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, "HOST       DBMS KEY\n127.0.0.2  7\n127.0.0.4  7\n");
}

TEST(VarloctlFleet, ListsMakeARowPerEntryAndDeeperAnswersABlockPerHost) {
  const Bytes ipHeader = bytes({0, 28, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0});
  const Behaviour two{{}, ipHeader + bytes({0, 2}) + ipEntry(5) + ipEntry(6)};
  const Behaviour none{{}, ipHeader + bytes({0, 0})};
  FleetOfAgents fleet({two, none, two});
  ASSERT_TRUE(fleet.ready());
  const std::string p = std::to_string(fleet.port());
  Result r = ctl({"--port", p, "127.0.0.2,127.0.0.3,127.0.0.4", "ipaddrs"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "HOST       IP ADDRESS  GATEWAY   SUBNET MASK  HARDWARE ADDRESS\n"
            "127.0.0.2  10.0.0.5    10.0.0.1  255.0.0.0    00:00:00:00:00:00\n"
            "127.0.0.2  10.0.0.6    10.0.0.1  255.0.0.0    00:00:00:00:00:00\n"
            "127.0.0.4  10.0.0.5    10.0.0.1  255.0.0.0    00:00:00:00:00:00\n"
            "127.0.0.4  10.0.0.6    10.0.0.1  255.0.0.0    00:00:00:00:00:00\n");
  // A single host keeps its own output: no HOST column.
  r = ctl({"--port", p, "127.0.0.2", "ipaddrs"});
  EXPECT_EQ(r.out,
            "IP ADDRESS  GATEWAY   SUBNET MASK  HARDWARE ADDRESS\n"
            "10.0.0.5    10.0.0.1  255.0.0.0    00:00:00:00:00:00\n"
            "10.0.0.6    10.0.0.1  255.0.0.0    00:00:00:00:00:00\n");
}

TEST(VarloctlFleet, NeverMoreSessionsAtOnceThanParallel) {
  // Each agent holds its request 150 ms: a worker asks the next host only
  // once it has its answer, so the agents never hold more than --parallel.
  const Behaviour held{kKeyRequest, kKeyAnswer, 150};
  for (const int parallel : {1, 4}) {
    SCOPED_TRACE(parallel);
    FleetOfAgents fleet(std::vector<Behaviour>(14, held));  // 127.0.0.2 to .15
    ASSERT_TRUE(fleet.ready());
    const auto start = Clock::now();
    const Result r = ctl({"--parallel", std::to_string(parallel), "--port",
                          std::to_string(fleet.port()), "127.0.0.0/28", "dbkey", "7"});
    const auto took = Clock::now() - start;
    // 127.0.0.1 has no agent on the port; the 13 others answer.
    EXPECT_EQ(r.status, 6);
    EXPECT_EQ(lines(r.out), 15u);
    EXPECT_LE(fleet.gauge().peak, parallel);
    // And they do run side by side (a worker starting late may miss one).
    EXPECT_GE(fleet.gauge().peak, parallel == 1 ? 1 : parallel - 1);
    // 14 holds, at most `parallel` at a time.
    EXPECT_GE(took, std::chrono::milliseconds(150 * ((13 + parallel - 1) / parallel)));
  }
}

TEST(VarloctlFleet, ThousandsOfHostsEndInTimeWithNoDescriptorLeft) {
  DeadPort dead;
  ASSERT_TRUE(dead.held.valid());
  const long before = openDescriptors();
  const auto start = Clock::now();
  // A /21 of loopback addresses: 2046 hosts, every connection refused.
  Result r = ctl({"--port", std::to_string(dead.port), "--timeout", "2", "127.1.0.0/21", "config"});
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(r.status, 6);
  EXPECT_EQ(lines(r.out), 2047u);
  EXPECT_EQ(lines(r.err), 2046u);
  EXPECT_NE(r.err.find("varloctl: 127.1.7.254: connection refused"), std::string::npos);

  // A network nobody answers for (TEST-NET-1, routed or not): each host
  // ends with its time-out or at once, never later.
  const auto unreachable = Clock::now();
  r = ctl({"--parallel", "64", "--timeout", "0.5", "192.0.2.0/26", "config"});
  EXPECT_LT(Clock::now() - unreachable, std::chrono::seconds(5));
  EXPECT_TRUE(r.status == 5 || r.status == 6) << r.status;
  EXPECT_EQ(lines(r.err), 62u);
  EXPECT_EQ(openDescriptors(), before);
}

TEST(VarloctlFleet, FewerWorkersWhenFewDescriptorsMayBeOpen) {
  // A listener on every loopback address that never accepts: each session
  // connects and then holds its socket until its time-out.
  std::uint16_t port = 0;
  const UniqueFd silent = boundAt("0.0.0.0", port);
  ASSERT_TRUE(silent.valid());
  ASSERT_EQ(listen(silent.get(), 1024), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Room for about a dozen workers' sockets besides what is open already.
    const long open = openDescriptors();
    const rlimit low{static_cast<rlim_t>(open + 40), static_cast<rlim_t>(open + 40)};
    if (setrlimit(RLIMIT_NOFILE, &low) != 0) _exit(10);
    const Result r = ctl({"--parallel", "1024", "--port", std::to_string(port), "--timeout", "0.1",
                          "127.1.0.0/25", "config"});
    const bool warned = r.err.starts_with("varloctl: --parallel 1024 lowered to 12:");
    // Every host timed out; none lacked a descriptor.
    const bool timedOut = lines(r.err) == 127 &&
                          r.err.find("Too many open files") == std::string::npos &&
                          r.err.find("timed out after 0.1 s") != std::string::npos;
    _exit(r.status == 5 && warned && timedOut ? 0 : 20 + !warned + 2 * !timedOut);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(VarloctlFleet, ShutdownAndRebootAskOnceForTheFleet) {
  const Behaviour rebooting{{}, reply(268, 0, 1, 1)};
  FleetOfAgents fleet({rebooting, rebooting, rebooting});
  ASSERT_TRUE(fleet.ready());
  const Words words = {"--port", std::to_string(fleet.port()), "127.0.0.2,127.0.0.3,127.0.0.4",
                       "reboot"};
  int asked = 0;
  std::string question;
  const auto answer = [&](std::optional<std::string> a) -> varloctl::App::Ask {
    return [&, a](const std::string& q) {
      ++asked;
      question = q;
      return a;
    };
  };
  Result r = ctl(words, true, answer("n"));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(question, "reboot 3 hosts? [y/N] ");
  EXPECT_EQ(fleet[0].served() + fleet[1].served() + fleet[2].served(), 0);
  r = ctl(words);  // no terminal
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("reboot 3 hosts: no terminal to confirm on; give --yes"), std::string::npos);
  r = ctl(words, true, answer("y"));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(r.out, "HOST       REBOOTING\n127.0.0.2  yes\n127.0.0.3  yes\n127.0.0.4  yes\n");
  Words yes = words;
  yes.push_back("--yes");
  r = ctl(yes);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(fleet[1].served(), 2);
}

TEST(VarloctlFleet, CtrlCStopsEverySessionAndExits130) {
  FleetOfAgents fleet(std::vector<Behaviour>(6, kSilent));
  ASSERT_TRUE(fleet.ready());
  const long before = openDescriptors();
  const auto start = Clock::now();
  Result r;
  {
    const CtrlCLater ctrlC;
    ASSERT_TRUE(ctrlC.installed());
    // Two at a time, each would wait 10 s for an answer.
    r = ctl({"--parallel", "2", "--port", std::to_string(fleet.port()), "--timeout", "10",
             "127.0.0.0/29", "config"});
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(r.status, 130);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "varloctl: interrupted\n");
  EXPECT_EQ(openDescriptors(), before);
}

TEST(VarloctlFleet, ProgressOnATerminalForLongRunsGoneBeforeTheResult) {
  FleetOfAgents fleet({Behaviour{kKeyRequest, kKeyAnswer, 1300}, kKeyAgent});
  ASSERT_TRUE(fleet.ready());
  const Words words = {"--port", std::to_string(fleet.port()), "127.0.0.2,127.0.0.3", "dbkey", "7"};
  Result r = ctl(words, true);
  EXPECT_EQ(r.status, 0) << r.err;
  // Shown after a second, then blanked: "\r1/2 hosts, 0 failed", "\r" + blanks + "\r".
  const std::string line = "1/2 hosts, 0 failed";
  EXPECT_EQ(r.err, "\r" + line + "\r" + std::string(line.size(), ' ') + "\r");
  EXPECT_EQ(r.out, "HOST       DBMS KEY\n127.0.0.2  7\n127.0.0.3  7\n");
  // Not without a terminal.
  r = ctl(words, false);
  EXPECT_EQ(r.err, "");
}

TEST(VarloctlFleet, DiscoveredHostsAreAHostFile) {
  // Agents on 127.0.0.2 and .3 answer the probe that reaches 127.0.0.1.
  const Bytes answer = record(470, {{0, bytes({0, 0, 0x05, 0x60}) + pstring("alpha")}});
  std::uint16_t udpPort = 0;
  const UniqueFd probed = loopbackSocket(SOCK_DGRAM, udpPort);
  auto discovered = std::async(std::launch::async, [&] {
    return ctl({"discover", "--broadcast", "127.0.0.1", "--port", std::to_string(udpPort),
                "--timeout", "0.5", "--hosts-only"});
  });
  Bytes probe(2048);
  sockaddr_in from{};
  socklen_t len = sizeof from;
  ASSERT_EQ(recvfrom(probed.get(), probe.data(), probe.size(), 0,
                     reinterpret_cast<sockaddr*>(&from), &len),
            470);
  for (const char* address : {"127.0.0.3", "127.0.0.2", "127.0.0.3"}) {
    UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, address, &a.sin_addr);
    ASSERT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    sendto(fd.get(), answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&from), len);
  }
  const Result r = discovered.get();
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "127.0.0.2\n127.0.0.3\n");

  test_support::TempDir dir;
  test_support::spit(dir / "fleet", r.out);
  FleetOfAgents fleet({kKeyAgent, kKeyAgent});
  ASSERT_TRUE(fleet.ready());
  const Result run =
      ctl({"--port", std::to_string(fleet.port()), "@" + dir / "fleet", "dbkey", "7"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "HOST       DBMS KEY\n127.0.0.2  7\n127.0.0.3  7\n");
}
