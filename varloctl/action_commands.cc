#include "varloctl/action_commands.h"

#include "varlo/action_records.h"
#include "varloctl/command_table.h"
#include "varloctl/numbers.h"

namespace varloctl {

using varlo::varlo_manage;

std::unique_ptr<Command> ShutdownCommand::makeHalt(const std::vector<std::string>& arguments) {
  return std::make_unique<ShutdownCommand>(false, optionValue(arguments, 0, "--yes").has_value());
}

std::unique_ptr<Command> ShutdownCommand::makeReboot(const std::vector<std::string>& arguments) {
  return std::make_unique<ShutdownCommand>(true, optionValue(arguments, 0, "--yes").has_value());
}

std::string ShutdownCommand::confirmation(const std::string& host) const {
  if (confirmed_) return {};
  return std::string(reboot_ ? "reboot " : "shut down ") + host + "?";
}

Value ShutdownCommand::run(Session& session) {
  using varlo::varlo_shutdown;
  const auto r = receiveFirstReply<varlo_shutdown::kSize>(session);
  if (!varlo::ReplyPrefix::decodeFrom(r).success) {
    const auto reason = varlo::getPString<varlo_shutdown::Message>(r);
    const std::string failure =
        std::string("the agent did not ") + (reboot_ ? "reboot" : "shut down");
    throw CtlError(kFailed, reason.empty() ? failure : failure + ": " + agentText(reason));
  }
  return Value{{reboot_ ? "rebooting" : "shutting_down", true}};
}

std::unique_ptr<Command> ClockCommand::make(const std::vector<std::string>& arguments) {
  const auto time = optionValue(arguments, 0, "--time");
  std::optional<std::uint32_t> seconds;
  if (time) seconds = clockSecondsFromIso(*time, &systemLocalOffset);
  return std::make_unique<ClockCommand>(seconds, &systemLocalOffset);
}

Value ClockCommand::run(Session& session) {
  const std::uint32_t seconds = seconds_ ? *seconds_ : clockSecondsNow(offset_);
  varlo::varlo_clock_request::Bytes request{};
  varlo::put32<varlo::varlo_clock_request::Seconds>(request, seconds);
  session.send(request);
  const auto r = receiveFirstReply<varlo_manage::kSize>(session);
  requireManageSuccess(r, "the agent did not set its clock");
  return Value{{"clock_set_to", clockSecondsText(seconds)}, {"seconds_since_1904", seconds}};
}

std::unique_ptr<Command> KillCommand::make(const std::vector<std::string>& arguments) {
  // Pids are positive ints; the agent refuses the others anyway.
  const auto pid = parseUnsigned(arguments.at(0), 0x7FFFFFFF, "the process id");
  if (pid == 0) throw usageError("the process id must not be 0");
  return std::make_unique<KillCommand>(static_cast<std::uint32_t>(pid));
}

Value KillCommand::run(Session& session) {
  varlo::varlo_quit_request::Bytes request{};
  varlo::put32<varlo::varlo_quit_request::Pid>(request, pid_);
  session.send(request);
  session.setTimeoutMs(session.timeoutMs() + kAgentDelayMs);
  const auto r = receiveFirstReply<varlo_manage::kSize>(session);
  requireManageSuccess(r, "the agent did not end process " + std::to_string(pid_));
  return Value{{"pid", pid_}, {"ended", true}};
}

std::unique_ptr<Command> LaunchCommand::make(const std::vector<std::string>& arguments) {
  return std::make_unique<LaunchCommand>(static_cast<std::uint32_t>(
      parseUnsigned(arguments.at(0), 0xFFFFFFFFu, "the application index")));
}

Value LaunchCommand::run(Session& session) {
  varlo::WireRecord<4> request{};
  varlo::putU32(request.data(), index_);
  session.send(request);
  varlo_manage::Bytes r;
  try {
    r = receiveFirstReply<varlo_manage::kSize>(session);
  } catch (const CtlError& e) {
    // An agent that blocks launching reads the index and hangs up.
    if (e.status() != kClosed || std::string(e.what()).find("refused") == std::string::npos)
      throw;
    throw CtlError(kClosed, "the agent closed the connection without an answer: launching "
                            "applications is blocked there, or it refused the command");
  }
  requireManageSuccess(r, "the agent did not launch application " + std::to_string(index_));
  return Value{{"index", index_}, {"launched", true}};
}

std::unique_ptr<Command> MessageCommand::make(const std::vector<std::string>& arguments) {
  const std::string& text = arguments.at(0);
  if (text.empty()) throw usageError("the message is empty");
  if (text.size() > kMaxText)
    throw usageError("the message has " + std::to_string(text.size()) +
                     " bytes; it holds at most 255");
  if (text.find('\0') != std::string::npos) throw usageError("the message holds a NUL byte");
  return std::make_unique<MessageCommand>(text);
}

Value MessageCommand::run(Session& session) {
  varlo_manage::Bytes request{};
  varlo::putPString<varlo_manage::Message>(request, text_);
  session.send(request);
  const auto r = receiveFirstReply<varlo_manage::kSize>(session);
  requireManageSuccess(r, "the agent did not show the message");
  // The agent echoes the record it got.
  return Value{{"message", std::string(varlo::getPString<varlo_manage::Message>(r))},
               {"shown", true}};
}

}  // namespace varloctl
