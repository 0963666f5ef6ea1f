#include "varloctl/arg_parser.h"

#include <algorithm>
#include <sstream>
#include <string_view>
#include <utility>

#include "varlo/probe.h"
#include "varloctl/command_table.h"
#include "varloctl/numbers.h"
#include "varloctl/password_block.h"

namespace varloctl {
namespace {

constexpr const char* kSeeHelp = " (see varloctl --help)";

std::vector<std::string_view> words(std::string_view s) {
  std::vector<std::string_view> out;
  while (!s.empty()) {
    const auto space = s.find(' ');
    out.push_back(s.substr(0, space));
    if (space == std::string_view::npos) break;
    s.remove_prefix(space + 1);
  }
  return out;
}

// The row whose words open `rest`, the longest if several do.
const CommandSpec* findCommand(const std::vector<std::string>& rest, std::size_t& used) {
  const CommandSpec* best = nullptr;
  used = 0;
  for (const CommandSpec& spec : commandTable()) {
    const auto w = words(spec.name);
    if (w.size() > rest.size() || w.size() <= used) continue;
    bool match = true;
    for (std::size_t i = 0; i < w.size(); ++i) match = match && rest[i] == w[i];
    if (match) {
      best = &spec;
      used = w.size();
    }
  }
  return best;
}

std::string_view optionName(std::string_view option) { return option.substr(0, option.find(' ')); }

// The form of option name among the spec's, e.g. "--days N"; empty when it has none.
std::string_view findOption(const CommandSpec& spec, std::string_view name) {
  for (std::string_view o : spec.options)
    if (optionName(o) == name) return o;
  return {};
}

bool isFlag(std::string_view option) { return option.find(' ') == std::string_view::npos; }

// The commands that take the option named name, e.g. "census and profiler".
std::string commandsTaking(std::string_view name) {
  std::vector<std::string_view> names;
  for (const CommandSpec& spec : commandTable())
    if (!findOption(spec, name).empty()) names.push_back(spec.name);
  std::string out;
  for (std::size_t i = 0; i < names.size(); ++i)
    out += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + std::string(names[i]);
  return out;
}

std::string form(const CommandSpec& spec) {
  std::string out(spec.name);
  if (!spec.arguments.empty()) out += " " + std::string(spec.arguments);
  for (std::string_view o : spec.options) out += " [" + std::string(o) + "]";
  return out;
}

[[noreturn]] void unknownCommand(const std::string& word) {
  std::string choices;
  for (const CommandSpec& spec : commandTable()) {
    const auto w = words(spec.name);
    if (w.size() > 1 && w[0] == word) choices += (choices.empty() ? "" : ", ") + std::string(w[1]);
  }
  if (!choices.empty()) throw usageError("'" + word + "' needs one of: " + choices + kSeeHelp);
  throw usageError("unknown command '" + word + "'" + kSeeHelp);
}

}  // namespace

Invocation ArgParser::parse(const std::vector<std::string>& args,
                            const std::optional<std::string>& envPassword) {
  Invocation inv;
  std::optional<std::string> password, timeout, port, broadcast;
  // Options of some command's own, by name, checked once the command is known.
  std::vector<std::pair<std::string, std::string>> commandOptions;
  std::vector<std::string> positional;
  bool optionsDone = false;

  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (optionsDone || a.size() < 2 || a[0] != '-') {
      positional.push_back(a);
      continue;
    }
    if (a == "--") {
      optionsDone = true;
      continue;
    }
    if (a == "-h" || a == "--help") {
      inv.mode = Invocation::Mode::Help;
      return inv;
    }
    const auto eq = a.find('=');
    const std::string name = a.substr(0, eq);
    if (name == "--json") {
      if (eq != std::string::npos) throw usageError("--json takes no value");
      inv.json = true;
      continue;
    }
    std::optional<std::string>* slot = name == "--password"    ? &password
                                       : name == "--timeout"   ? &timeout
                                       : name == "--port"      ? &port
                                       : name == "--broadcast" ? &broadcast
                                                               : nullptr;
    if (slot == nullptr && !commandsTaking(name).empty()) {
      for (const auto& given : commandOptions)
        if (given.first == name) throw usageError(name + " is given twice");
      bool flag = false;
      for (const CommandSpec& spec : commandTable())
        if (const auto o = findOption(spec, name); !o.empty()) flag = isFlag(o);
      if (flag) {
        if (eq != std::string::npos) throw usageError(name + " takes no value");
        commandOptions.emplace_back(name, "");
        continue;
      }
      commandOptions.emplace_back(name, "");
      if (eq != std::string::npos)
        commandOptions.back().second = a.substr(eq + 1);
      else if (i + 1 < args.size())
        commandOptions.back().second = args[++i];
      else
        throw usageError(name + " needs a value");
      continue;
    }
    if (slot == nullptr) throw usageError("unknown option '" + a + "'" + kSeeHelp);
    if (eq != std::string::npos)
      *slot = a.substr(eq + 1);
    else if (i + 1 < args.size())
      *slot = args[++i];
    else
      throw usageError(name + " needs a value");
  }

  inv.port = varlo::kAgentPort;
  if (port) {
    inv.port = static_cast<std::uint16_t>(parseUnsigned(*port, 65535, "the port"));
    if (inv.port == 0) throw usageError("the port must not be 0");
  }
  if (positional.empty()) throw usageError(std::string("missing HOST and COMMAND") + kSeeHelp);

  if (positional[0] == "discover") {
    if (!commandOptions.empty())
      throw usageError(commandOptions.front().first + " applies to " +
                       commandsTaking(commandOptions.front().first) + " only");
    inv.mode = Invocation::Mode::Discover;
    inv.timeoutMs = timeout ? parseSeconds(*timeout, "--timeout") : Invocation::kDiscoverTimeoutMs;
    if (positional.size() > 2) throw usageError("discover takes at most one HOST");
    if (positional.size() == 2) {
      if (broadcast) throw usageError("discover takes either HOST or --broadcast, not both");
      inv.target = positional[1];
    } else {
      inv.target = broadcast.value_or(Invocation::kBroadcast);
      inv.broadcast = true;
    }
    return inv;
  }

  inv.mode = Invocation::Mode::Command;
  inv.timeoutMs = timeout ? parseSeconds(*timeout, "--timeout") : Invocation::kCommandTimeoutMs;
  if (broadcast) throw usageError("--broadcast applies to discover only");
  inv.target = positional[0];
  const std::vector<std::string> rest(positional.begin() + 1, positional.end());
  if (rest.empty()) throw usageError("missing COMMAND after " + inv.target + kSeeHelp);

  std::size_t used = 0;
  const CommandSpec* spec = findCommand(rest, used);
  if (spec == nullptr) unknownCommand(rest[0]);
  std::vector<std::string> arguments(rest.begin() + static_cast<std::ptrdiff_t>(used), rest.end());
  if (arguments.size() != spec->argumentCount)
    throw usageError("usage: varloctl [OPTIONS] HOST " + form(*spec));
  for (const auto& [name, value] : commandOptions)
    if (findOption(*spec, name).empty())
      throw usageError(name + " applies to " + commandsTaking(name) + " only");
  for (std::string_view o : spec->options)
    for (const auto& [name, value] : commandOptions)
      if (name == optionName(o)) {
        arguments.push_back(name);
        arguments.push_back(value);
      }
  inv.command = spec->make(arguments);

  inv.password = password ? *password : envPassword.value_or("");
  PasswordBlock::plain(inv.password);  // refuses one the agent could not receive
  return inv;
}

std::optional<std::string> optionValue(const std::vector<std::string>& arguments,
                                       std::size_t count, std::string_view name) {
  for (std::size_t i = count; i + 1 < arguments.size(); i += 2)
    if (arguments[i] == name) return arguments[i + 1];
  return std::nullopt;
}

std::string ArgParser::usage() {
  std::ostringstream s;
  const auto row = [&s](std::string left, std::string_view right, std::size_t column = 26) {
    left.resize(std::max(left.size() + 2, column), ' ');
    s << "  " << left << right << '\n';
  };
  s << "usage: varloctl [OPTIONS] discover [HOST]\n"
       "       varloctl [OPTIONS] HOST COMMAND [ARGS]\n"
       "\n"
       "Finds Varlo agents and sends them commands (UDP and TCP port 4347).\n"
       "HOST is a dotted IPv4 address or a host name.\n"
       "\n"
       "Commands:\n";
  row("discover [HOST]", "list the agents answering a probe sent to HOST or broadcast");
  for (const CommandSpec& spec : commandTable()) row(form(spec), spec.summary);
  s << "\nOptions:\n";
  row("--password P", "session password (default: $VARLO_PASSWORD, else empty)");
  row("--timeout S", "seconds allowed for each reply (default 10; discover 2)");
  row("--broadcast ADDR", "discover: where to send the probe (default 255.255.255.255)");
  row("--port N", "the agent's port (default 4347)");
  row("--json", "print one JSON document instead of a table");
  row("--days N", commandsTaking("--days") + ": only files changed in the last N days");
  row("", "(0 to 3650; 0, the default, counts every file)");
  row("--folder CODE", commandsTaking("--folder") +
                           ": the agent's folder, a four-character code (default XXXX)");
  row("--launch", commandsTaking("--launch") + " of a file: start it once it has arrived");
  row("--time ISO8601", commandsTaking("--time") +
                            ": this time instead of now, e.g. 2024-05-01T13:30:00[+02:00]");
  row("--yes", commandsTaking("--yes") + ": do not ask for confirmation");
  row("-h, --help", "show this text");
  s << "\nExit status:\n";
  row("0", "success", 3);
  row("1", "the agent reported that the command failed", 3);
  row("2", "usage error", 3);
  row("3", "wrong password", 3);
  row("4", "the agent refused the command or closed the connection", 3);
  row("5", "time-out (discover: no agent answered)", 3);
  row("6", "cannot connect: unknown host, connection refused, no route", 3);
  row("7", "the agent's reply makes no sense", 3);
  row("130", "interrupted (Ctrl-C)", 3);
  return s.str();
}

}  // namespace varloctl
