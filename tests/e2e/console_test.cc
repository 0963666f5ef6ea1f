// What a person does from the console tool: find the agent, secure it,
// label it, leave notes, read its network side; and it all survives a
// restart.
#include <gmock/gmock.h>

#include "sandbox/agent_test.h"

namespace sandbox {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr int kWrongPassword = 3;

TEST_F(AgentTest, AdministeredAgentKeepsItsSettingsAcrossARestart) {
  addInterface("eth0", "192.0.2.10/24");
  sh("ip route add default via 192.0.2.1 dev eth0");
  Process agent = startAgent();

  auto found = ctl({"discover", "--broadcast", "127.255.255.255", "--json"});
  ASSERT_EQ(found.exitCode, 0) << found.output;
  EXPECT_THAT(found.output, HasSubstr("varlo-sandbox"));

  auto r = ctl({"127.0.0.1", "password", "s3cret"});
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_EQ(ctl({"127.0.0.1", "network"}).exitCode, kWrongPassword);
  r = ctl({"--password", "s3cret", "127.0.0.1", "dbkey", "4242"});
  ASSERT_EQ(r.exitCode, 0) << r.output;
  r = ctl({"--password", "s3cret", "127.0.0.1", "notes", "set", "4", "rack B, shelf 2"});
  ASSERT_EQ(r.exitCode, 0) << r.output;

  ASSERT_EQ(stopAgent(agent), 0);
  agent = startAgent();

  // The new password, and only it, opens the restarted agent.
  EXPECT_EQ(ctl({"127.0.0.1", "notes", "get"}).exitCode, kWrongPassword);
  EXPECT_EQ(ctl({"--password", "wrong", "127.0.0.1", "ipaddrs"}).exitCode, kWrongPassword);
  // The password may come from the environment, out of shell history.
  const auto fromEnv = box().run({"/usr/bin/env", "VARLO_PASSWORD=s3cret", kCtl, "--json",
                                  "127.0.0.1", "notes", "get"});
  ASSERT_TRUE(fromEnv.has_value());
  ASSERT_EQ(fromEnv->exitCode, 0) << fromEnv->output;
  EXPECT_THAT(fromEnv->output, HasSubstr("rack B, shelf 2"));

  found = ctl({"discover", "127.0.0.1", "--json"});
  ASSERT_EQ(found.exitCode, 0) << found.output;
  EXPECT_THAT(found.output, HasSubstr("4242"));

  r = ctl({"--password", "s3cret", "--json", "127.0.0.1", "network"});
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_THAT(r.output, HasSubstr("192.0.2.10"));
  EXPECT_THAT(r.output, HasSubstr("192.0.2.1\""));
  EXPECT_THAT(r.output, HasSubstr("255.255.255.0"));
  const std::string mac = readFile(box().hostPath("/sys/class/net/eth0/address")).value_or("?");
  EXPECT_THAT(r.output, HasSubstr(mac.substr(0, 17)));

  r = ctl({"--password", "s3cret", "127.0.0.1", "ipaddrs"});
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_THAT(r.output, HasSubstr("192.0.2.10"));
  EXPECT_THAT(r.output, Not(HasSubstr("127.0.0.1")));
  EXPECT_EQ(stopAgent(agent), 0);
}

TEST_F(AgentTest, ConsoleToolReportsAnAbsentAgentWithoutHanging) {
  // Nothing listens yet: refused at once, not a hang.
  auto r = ctl({"--timeout", "2", "127.0.0.1", "network"});
  EXPECT_NE(r.exitCode, 0);
  EXPECT_THAT(r.output, HasSubstr("varloctl:"));
  r = ctl({"discover", "127.0.0.1", "--timeout", "0.5"});
  EXPECT_NE(r.exitCode, 0);

  // The same commands work once it is there.
  Process agent = startAgent();
  EXPECT_EQ(ctl({"127.0.0.1", "network"}).exitCode, 0);
  EXPECT_EQ(ctl({"discover", "127.0.0.1", "--timeout", "0.5"}).exitCode, 0);
  EXPECT_EQ(stopAgent(agent), 0);
}

}  // namespace
}  // namespace sandbox
