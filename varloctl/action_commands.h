// The commands that act on the agent's machine: shutdown and reboot (12,
// 13), clock (14), kill (15), launch (16), message (20).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "varloctl/clock_time.h"
#include "varloctl/command.h"

namespace varloctl {

class ShutdownCommand : public CommandOf<ShutdownCommand> {
 public:
  static constexpr std::uint16_t kHalt = 12;
  static constexpr std::uint16_t kReboot = 13;

  static std::unique_ptr<Command> makeHalt(const std::vector<std::string>& arguments);
  static std::unique_ptr<Command> makeReboot(const std::vector<std::string>& arguments);
  ShutdownCommand(bool reboot, bool confirmed) : reboot_(reboot), confirmed_(confirmed) {}
  std::uint16_t code() const override { return reboot_ ? kReboot : kHalt; }
  std::string confirmation(const std::string& host) const override;
  Value run(Session& session) override;

 private:
  bool reboot_, confirmed_;
};

class ClockCommand : public CommandOf<ClockCommand> {
 public:
  static constexpr std::uint16_t kCode = 14;

  // With --time, that time; else the time when the command runs.
  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  ClockCommand(std::optional<std::uint32_t> seconds, LocalOffset offset)
      : seconds_(seconds), offset_(std::move(offset)) {}
  std::uint16_t code() const override { return kCode; }
  Value run(Session& session) override;

 private:
  std::optional<std::uint32_t> seconds_;
  LocalOffset offset_;
};

class KillCommand : public CommandOf<KillCommand> {
 public:
  static constexpr std::uint16_t kCode = 15;
  // The agent answers after 3 s when the process ends at once, else after 6 s.
  static constexpr int kAgentDelayMs = 6000;

  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  explicit KillCommand(std::uint32_t pid) : pid_(pid) {}
  std::uint16_t code() const override { return kCode; }
  Value run(Session& session) override;

 private:
  std::uint32_t pid_;
};

class LaunchCommand : public CommandOf<LaunchCommand> {
 public:
  static constexpr std::uint16_t kCode = 16;

  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  explicit LaunchCommand(std::uint32_t index) : index_(index) {}
  std::uint16_t code() const override { return kCode; }
  Value run(Session& session) override;

 private:
  std::uint32_t index_;
};

class MessageCommand : public CommandOf<MessageCommand> {
 public:
  static constexpr std::uint16_t kCode = 20;
  static constexpr std::size_t kMaxText = 255;

  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  explicit MessageCommand(std::string text) : text_(std::move(text)) {}
  std::uint16_t code() const override { return kCode; }
  Value run(Session& session) override;

 private:
  std::string text_;
};

}  // namespace varloctl
