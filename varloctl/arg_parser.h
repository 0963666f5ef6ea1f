// The command line, checked whole before anything goes on the network.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "varloctl/command.h"

namespace varloctl {

struct Invocation {
  enum class Mode { Help, Discover, Command };
  static constexpr int kCommandTimeoutMs = 10000;
  static constexpr int kDiscoverTimeoutMs = 2000;
  static constexpr const char* kBroadcast = "255.255.255.255";

  Mode mode = Mode::Help;
  bool json = false;
  std::string password;
  int timeoutMs = kCommandTimeoutMs;
  std::uint16_t port = 0;
  std::string target;      // the agent, or where discover sends its probe
  bool broadcast = false;  // discover: collect answers for the whole time-out
  std::unique_ptr<Command> command;
};

class ArgParser {
 public:
  // args without the program name. The password comes from --password, else
  // envPassword (VARLO_PASSWORD), else is empty. Throws a usage CtlError.
  static Invocation parse(const std::vector<std::string>& args,
                          const std::optional<std::string>& envPassword);

  static std::string usage();
};

}  // namespace varloctl
