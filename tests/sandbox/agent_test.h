// Test fixture that runs the real agent binary inside a fresh sandbox.
#pragma once

#include <cstdlib>
#include <memory>

#include "sandbox/sandbox.h"

namespace sandbox {

using test_support::messagesOf;  // the log's message texts, without their time stamps

class AgentTest : public ::testing::Test {
 protected:
  // The agent under test: this build's, or the one VARLO_AGENT names (the TSan build's).
  static inline const std::string kAgent = [] {
    const char* other = std::getenv("VARLO_AGENT");
    return std::string(other != nullptr ? other : VARLO_BINARY_DIR "/varlo");
  }();
  // Threads beyond the agent's own, as VARLO_EXTRA_THREADS says (ThreadSanitizer runs one).
  static std::size_t extraThreads() {
    const char* n = std::getenv("VARLO_EXTRA_THREADS");
    return n != nullptr ? static_cast<std::size_t>(std::atoi(n)) : 0;
  }
  static constexpr const char* kCtl = VARLO_BINARY_DIR "/varloctl";
  static constexpr const char* kLog = "/var/log/Varlo.log";
  static constexpr const char* kPidFile = "/var/run/varlo.pid";

  // Tests that need another host name or hosts file change these first.
  virtual Options sandboxOptions() const {
    Options o;
    o.readOnlyBinds = {VARLO_BINARY_DIR};
    if (kAgent.rfind(VARLO_BINARY_DIR "/", 0) != 0)
      o.readOnlyBinds.push_back(kAgent.substr(0, kAgent.rfind('/')));
    return o;
  }

  void SetUp() override {
    box_ = std::make_unique<Sandbox>(sandboxOptions());
    if (!box_->ok()) GTEST_SKIP() << "no namespace sandbox here: " << box_->error();
  }

  Sandbox& box() { return *box_; }

  // What the agent's environment holds beyond the plain one.
  virtual std::vector<std::string> agentEnv() const { return {}; }

  // Starts the agent in the foreground; waits for its pid file, the last step of start-up.
  Process startAgent() {
    Process agent = box_->spawn({kAgent, "nodaemon"}, agentEnv());
    const bool up = waitUntil([&] { return readFile(box_->hostPath(kPidFile)).has_value(); },
                              std::chrono::seconds(10));
    EXPECT_TRUE(up) << "agent did not write its pid file; output:\n" << agent.output();
    return agent;
  }

  // Stops the agent as a service manager would and returns its exit code.
  std::optional<int> stopAgent(Process& agent) {
    agent.signal(SIGTERM);
    agent.wait(std::chrono::seconds(10));
    return agent.exitCode();
  }

  // Runs a shell script inside as root; a failing step fails the test.
  void sh(const std::string& script) {
    const auto r = box_->run({"/bin/sh", "-ec", script});
    ASSERT_TRUE(r.has_value()) << "timed out: " << script;
    ASSERT_EQ(r->exitCode, 0) << script << "\n" << r->output;
  }

  // varloctl inside the sandbox; its exit code and what it printed.
  Sandbox::Result ctl(std::vector<std::string> args) {
    args.insert(args.begin(), kCtl);
    const auto r = box_->run(args, std::chrono::seconds(20));
    EXPECT_TRUE(r.has_value()) << "varloctl did not finish";
    return r.value_or(Sandbox::Result{-1, ""});
  }

  // A veth pair "name"/"name"p inside, up, with name at addr/prefix.
  void addInterface(const std::string& name, const std::string& addrWithPrefix) {
    sh("ip link set lo up; ip link add " + name + " type veth peer name " + name +
       "p; ip addr add " + addrWithPrefix + " dev " + name + "; ip link set " + name +
       " up; ip link set " + name + "p up");
  }

  std::string log() { return readFile(box_->hostPath(kLog)).value_or(""); }
  std::vector<std::string> logMessages() { return messagesOf(log()); }

 private:
  std::unique_ptr<Sandbox> box_;
};

}  // namespace sandbox
