// The console-login listener: a log-in written to utmp while the agent runs
// shows in the next probe reply, and the listener's set-up line reaches the
// log although the set-up runs before the log opens.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <utmpx.h>

#include <cstring>
#include <fstream>

#include "sandbox/agent_test.h"
#include "varlo/probe.h"

namespace sandbox {
namespace {

using namespace std::chrono_literals;

std::string probedUser() {
  UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const timeval second{1, 0};
  setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &second, sizeof second);
  const sockaddr_in to{AF_INET, htons(varlo::kAgentPort), {htonl(INADDR_LOOPBACK)}, {}};
  varlo::varlo_probe_reply::Bytes reply{};
  std::vector<std::uint8_t> request(reply.size(), 0);
  sendto(fd.get(), request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&to),
         sizeof to);
  if (recv(fd.get(), reply.data(), reply.size(), 0) != static_cast<ssize_t>(reply.size())) return "?";
  return varlo::varlo_probe_reply::decode(reply).userName;
}

void logIn(const std::string& utmp, const char* user, const char* line, time_t when) {
  utmpx login{};
  login.ut_type = USER_PROCESS;
  std::strcpy(login.ut_line, line);
  std::strcpy(login.ut_user, user);
  login.ut_tv.tv_sec = when;
  std::ofstream(utmp, std::ios::binary | std::ios::app)
      .write(reinterpret_cast<const char*>(&login), sizeof login);
}

TEST_F(AgentTest, ALogInAtTheConsoleShowsInTheNextProbe) {
  const std::string utmp = box().hostPath("/run/utmp");
  const time_t now = time(nullptr);
  logIn(utmp, "carol", "tty1", now);
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());
  sh("ip link set lo up");
  EXPECT_EQ(probedUser(), "carol");

  logIn(utmp, "dave", "tty2", now + 10);
  EXPECT_TRUE(waitUntil([] { return probedUser() == "dave"; }, 3s)) << probedUser();

  const auto lines = logMessages();
  const auto opened = std::find(lines.begin(), lines.end(), "Log Opened Successfully");
  ASSERT_NE(opened, lines.end());
  ASSERT_NE(opened + 1, lines.end());
  EXPECT_EQ(opened[1], "Successfully set login notification handler.");
}

}  // namespace
}  // namespace sandbox
