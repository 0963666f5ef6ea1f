// Test fixture that runs the real agent binary inside a fresh sandbox.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox/sandbox.h"

#ifndef VARLO_BINARY_DIR
#error "VARLO_BINARY_DIR must name the build tree that holds the agent"
#endif

namespace sandbox {

class AgentTest : public ::testing::Test {
 protected:
  // The agent under test: this build's, or the one VARLO_AGENT names (the
  // ThreadSanitizer build's, driven by this plain test driver).
  static inline const std::string kAgent = [] {
    const char* other = std::getenv("VARLO_AGENT");
    return std::string(other != nullptr ? other : VARLO_BINARY_DIR "/varlo");
  }();
  // Threads of the agent's own making besides the sanitizer's (ThreadSanitizer
  // runs one more): VARLO_EXTRA_THREADS says how many such extra threads to expect.
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

  // Starts the agent in the foreground and waits until it has written its
  // pid file, the last step of its start-up.
  Process startAgent() {
    Process agent = box_->spawn({kAgent, "nodaemon"});
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

  // The log's message texts, without their time stamps.
  std::vector<std::string> logMessages() { return messagesOf(log()); }

  static std::vector<std::string> messagesOf(const std::string& text) {
    std::vector<std::string> messages;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
      const auto sep = line.find(":   ");
      messages.push_back(sep == std::string::npos ? line : line.substr(sep + 4));
    }
    return messages;
  }

 private:
  std::unique_ptr<Sandbox> box_;
};

}  // namespace sandbox
