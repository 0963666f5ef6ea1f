// Test fixture that runs the real agent binary inside a fresh sandbox.
#pragma once

#include <gtest/gtest.h>

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
  static constexpr const char* kAgent = VARLO_BINARY_DIR "/varlo";
  static constexpr const char* kLog = "/var/log/Varlo.log";
  static constexpr const char* kPidFile = "/var/run/varlo.pid";

  void SetUp() override {
    box_ = std::make_unique<Sandbox>(Options{{VARLO_BINARY_DIR}});
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
