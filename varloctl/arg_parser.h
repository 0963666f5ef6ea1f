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
  // Print: --help or --version, whose text is in `text`.
  enum class Mode { Print, Discover, Command };
  static constexpr int kCommandTimeoutMs = 10000;
  static constexpr int kDiscoverTimeoutMs = 2000;
  static constexpr const char* kBroadcast = "255.255.255.255";
  static constexpr int kDefaultParallel = 32;
  static constexpr int kMaxParallel = 1024;

  Mode mode = Mode::Print;
  std::string text;
  bool json = false;
  std::string password;
  int timeoutMs = kCommandTimeoutMs;
  std::uint16_t port = 0;
  // The agent, the hosts of a fleet (HostList's syntax), or where discover
  // sends its probe.
  std::string target;
  bool fleet = false;  // target names a list of hosts, however many
  int parallel = kDefaultParallel;
  bool broadcast = false;  // discover: collect answers for the whole time-out
  bool hostsOnly = false;  // discover: the answering addresses only
  // The command for the first host; the others run clones.
  std::unique_ptr<Command> command;
};

class ArgParser {
 public:
  // args without the program name. The password comes from --password, else
  // envPassword (VARLO_PASSWORD), else is empty. Throws a usage CtlError.
  static Invocation parse(const std::vector<std::string>& args,
                          const std::optional<std::string>& envPassword);
};

}  // namespace varloctl
