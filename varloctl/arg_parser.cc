#include "varloctl/arg_parser.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>

#include "varlo/probe.h"
#include "varlo/version.h"
#include "varloctl/command_table.h"
#include "varloctl/help_formatter.h"
#include "varloctl/host_list.h"
#include "varloctl/numbers.h"
#include "varloctl/password_block.h"
#include "varloctl/table_writer.h"

namespace varloctl {
namespace {

constexpr const char* kSeeHelp = " (see varloctl --help)";

constexpr const char* kDescription =
    "Finds Varlo agents and sends them commands (UDP and TCP port 4347).\n"
    "HOSTS is one agent (a dotted IPv4 address or a host name), or a fleet:\n"
    "HOST1,HOST2,..., @FILE (one host a line, # comments), or an IPv4 CIDR\n"
    "such as 10.0.0.0/24 (its usable addresses; /16 at the widest).\n";

constexpr const char* kFooter =
    "A fleet runs the command on up to --parallel hosts at once, each with the\n"
    "time-outs of --timeout, and prints one table with a HOST column first (or,\n"
    "with --json, one document keyed by host, a failed host's value being\n"
    "{\"error\": TEXT, \"status\": N}). Each failed host is also one line on\n"
    "standard error. shutdown and reboot ask once for the whole fleet.\n"
    "COMMAND --help shows the command's own arguments and options.\n"
    "\n"
    "Exit status (of a fleet: 0 when every host succeeded, else the status of\n"
    "the first failed host in the order the hosts were given):\n"
    "  0    success\n"
    "  1    the agent reported that the command failed\n"
    "  2    usage error\n"
    "  3    wrong password\n"
    "  4    the agent refused the command or closed the connection\n"
    "  5    time-out (discover: no agent answered)\n"
    "  6    cannot connect: unknown host, connection refused, no route\n"
    "  7    the agent's reply makes no sense\n"
    "  130  interrupted (Ctrl-C)";

constexpr const char* kCommandFooter =
    "The options of varloctl --help (--password, --timeout, --port, --json,\n"
    "--parallel) go before HOSTS or after the command.";

// The commands that take the option named name, e.g. "census and profiler".
std::string commandsTaking(std::string_view name) {
  std::vector<std::string_view> names;
  for (const CommandSpec& spec : commandTable())
    for (const OptionSpec& o : spec.options)
      if (o.name == name) names.push_back(spec.name);
  std::string out;
  for (std::size_t i = 0; i < names.size(); ++i)
    out += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + std::string(names[i]);
  return out;
}

// Where the parser put each command's words, to be read once it has run.
struct Parsed {
  const CommandSpec* spec;
  std::vector<CLI::Option*> arguments;
  std::vector<CLI::Option*> options;  // in the order of spec->options
};

// The subcommand for the command's words under app, made on first use (the first
// word of "notes get" and "notes set" is one subcommand).
CLI::App* subcommandFor(CLI::App& app, std::string_view name) {
  CLI::App* at = &app;
  for (std::size_t from = 0; from <= name.size();) {
    const std::size_t space = std::min(name.find(' ', from), name.size());
    const std::string word(name.substr(from, space - from));
    CLI::App* next = nullptr;
    for (CLI::App* sub : at->get_subcommands({}))
      if (sub->get_name() == word) next = sub;
    if (next == nullptr) {
      next = at->add_subcommand(word);
      next->require_subcommand(0, 1);
      next->group("Commands");
    }
    at = next;
    from = space + 1;
  }
  return at;
}

Parsed addCommand(CLI::App& app, const CommandSpec& spec) {
  Parsed p{&spec, {}, {}};
  CLI::App* sub = subcommandFor(app, spec.name);
  sub->description(std::string(spec.summary));
  sub->footer(kCommandFooter);
  for (const ArgumentSpec& a : spec.arguments)
    p.arguments.push_back(sub->add_option(std::string(a.name))
                              ->description(std::string(a.help))
                              ->required()
                              ->type_name(""));
  for (const OptionSpec& o : spec.options) {
    const std::string name(o.name);
    CLI::Option* option = o.value.empty() ? sub->add_flag(name)->disable_flag_override()
                                          : sub->add_option(name)->type_name(std::string(o.value));
    p.options.push_back(option->description(std::string(o.help)));
  }
  return p;
}

// The subcommand the words ended in: the deepest one given.
const CLI::App* lastCommand(const CLI::App& app) {
  const CLI::App* at = &app;
  for (auto subs = at->get_subcommands(); !subs.empty(); subs = at->get_subcommands())
    at = subs.front();
  return at == &app ? nullptr : at;
}

std::string value(const CLI::Option* o) { return o->results().empty() ? "" : o->results().front(); }

std::string seeHelpOf(const CLI::App* command) {
  return " (see varloctl " + HelpFormatter::commandName(command) + " --help)";
}

// Words the parser found no place for: an unknown option or command, or
// one argument too many.
[[noreturn]] void leftOver(const std::string& word, const CLI::App* command) {
  if (word.starts_with("-"))
    throw usageError("unknown option '" + TableWriter::text(word) + "'" + kSeeHelp);
  if (command == nullptr)
    throw usageError("unknown command '" + TableWriter::text(word) + "'" + kSeeHelp);
  throw usageError("unexpected argument '" + TableWriter::text(word) + "' after " +
                   HelpFormatter::commandName(command) + seeHelpOf(command));
}

}  // namespace

Invocation ArgParser::parse(const std::vector<std::string>& args,
                            const std::optional<std::string>& envPassword) {
  if (args.empty()) throw usageError(std::string("missing HOSTS and COMMAND") + kSeeHelp);

  CLI::App app(kDescription, "varloctl");
  app.formatter(std::make_shared<HelpFormatter>());
  // Global options may also follow the command.
  app.fallthrough();
  app.set_help_flag("-h,--help", "show this text; after a command, the command's");
  app.set_version_flag("--version", std::string("varloctl ") + varlo::kVersionText,
                       "print varloctl's version");
  CLI::Option* password =
      app.add_option("--password", "session password (default: $VARLO_PASSWORD, else empty)")
          ->type_name("P");
  CLI::Option* timeout =
      app.add_option("--timeout", "seconds allowed for each reply (default 10; discover 2)")
          ->type_name("S");
  CLI::Option* broadcast =
      app.add_option("--broadcast", "discover: where to send the probe (default 255.255.255.255)")
          ->type_name("ADDR");
  CLI::Option* port = app.add_option("--port", "the agent's port (default 4347)")->type_name("N");
  Invocation inv;
  app.add_flag("--json", inv.json, "print one JSON document instead of a table")
      ->disable_flag_override();
  app.add_option("--parallel", inv.parallel,
                 "a fleet: how many hosts at once, 1 to 1024 (default 32)")
      ->type_name("N")
      ->check(CLI::Range(1, Invocation::kMaxParallel).description(""));
  CLI::Option* hosts = app.add_option("HOSTS", "the agent, or a fleet (see above)")->type_name("");

  CLI::App* discover =
      app.add_subcommand("discover", "list the agents answering a probe sent to HOST or broadcast");
  discover->footer(
      "The options of varloctl --help (--timeout, --port, --broadcast, --json) go\n"
      "before discover or after it.");
  discover->group("Commands");
  CLI::Option* discoverHost =
      discover->add_option("HOST", "the one host to probe (default: broadcast)")->type_name("");
  discover
      ->add_flag("--hosts-only", inv.hostsOnly,
                 "print only the answering addresses, one a line (a host file for @FILE)")
      ->disable_flag_override();
  std::vector<Parsed> commands;
  for (const CommandSpec& spec : commandTable()) commands.push_back(addCommand(app, spec));
  // A command's options may also come before the command, as global
  // options do; the command takes them from here. Not in the help text.
  std::map<std::string, CLI::Option*> early;
  for (const CommandSpec& spec : commandTable())
    for (const OptionSpec& o : spec.options) {
      const std::string name(o.name);
      if (early.contains(name)) continue;
      early[name] = o.value.empty() ? app.add_flag(name)->disable_flag_override()->group("")
                                    : app.add_option(name)->group("");
    }
  app.require_subcommand(0, 1);
  // After the commands, which would inherit it: left-over words are
  // reported here, in terms of the commands.
  app.allow_extras();
  app.footer(kFooter);

  try {
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    inv.text = app.help();
    return inv;
  } catch (const CLI::CallForVersion& e) {
    inv.text = std::string(e.what()) + "\n";
    return inv;
  } catch (const CLI::ParseError& e) {
    const CLI::App* command = lastCommand(app);
    throw usageError(std::string(e.what()) +
                     (command == nullptr ? std::string(kSeeHelp) : seeHelpOf(command)));
  }

  const CLI::App* command = lastCommand(app);
  for (const std::string& word : app.remaining(true))
    if (word != "--") leftOver(word, command);  // "--" only ends the options

  inv.port = varlo::kAgentPort;
  if (port->count() != 0) {
    inv.port = static_cast<std::uint16_t>(parseUnsigned(value(port), 65535, "the port"));
    if (inv.port == 0) throw usageError("the port must not be 0");
  }

  // An early option that the command does not take.
  const auto takes = [&command, &commands](const std::string& name) {
    for (const Parsed& p : commands)
      if (HelpFormatter::commandName(command) == p.spec->name)
        for (const OptionSpec& o : p.spec->options)
          if (o.name == name) return true;
    return false;
  };
  for (const auto& [name, option] : early)
    if (option->count() != 0 && (command == nullptr || !takes(name)))
      throw usageError(name + " applies to " + commandsTaking(name) + " only");

  if (command == discover) {
    if (hosts->count() != 0 && discoverHost->count() != 0)
      throw usageError("discover takes at most one HOST");
    if (hosts->count() != 0)
      throw usageError("discover takes its HOST after it: varloctl discover " +
                       TableWriter::text(value(hosts)));
    inv.mode = Invocation::Mode::Discover;
    inv.timeoutMs = timeout->count() != 0 ? parseSeconds(value(timeout), "--timeout")
                                          : Invocation::kDiscoverTimeoutMs;
    if (discoverHost->count() != 0) {
      if (broadcast->count() != 0)
        throw usageError("discover takes either HOST or --broadcast, not both");
      inv.target = value(discoverHost);
    } else {
      inv.target = broadcast->count() != 0 ? value(broadcast) : Invocation::kBroadcast;
      inv.broadcast = true;
    }
    return inv;
  }

  inv.mode = Invocation::Mode::Command;
  inv.timeoutMs = timeout->count() != 0 ? parseSeconds(value(timeout), "--timeout")
                                        : Invocation::kCommandTimeoutMs;
  if (broadcast->count() != 0) throw usageError("--broadcast applies to discover only");
  if (hosts->count() == 0) {
    if (command == nullptr) throw usageError(std::string("missing HOSTS and COMMAND") + kSeeHelp);
    throw usageError("missing HOSTS before " + HelpFormatter::commandName(command) + kSeeHelp);
  }
  inv.target = value(hosts);
  inv.fleet = HostList::isList(inv.target);
  if (command == nullptr)
    throw usageError("missing COMMAND after " + TableWriter::text(inv.target) + kSeeHelp);

  const auto parsed = std::find_if(commands.begin(), commands.end(), [&](const Parsed& p) {
    return HelpFormatter::commandName(command) == p.spec->name;
  });
  if (parsed == commands.end()) {
    // A word that only groups commands, such as "notes".
    std::string choices;
    for (const CLI::App* sub : command->get_subcommands({}))
      choices += (choices.empty() ? "" : ", ") + sub->get_name();
    throw usageError("'" + command->get_name() + "' needs one of: " + choices + kSeeHelp);
  }
  std::vector<std::string> arguments;
  for (const CLI::Option* a : parsed->arguments) arguments.push_back(value(a));
  for (std::size_t i = 0; i < parsed->options.size(); ++i) {
    const std::string name(parsed->spec->options[i].name);
    const CLI::Option* given = parsed->options[i];
    if (early[name]->count() != 0) {
      if (given->count() != 0) throw usageError(name + " is given twice");
      given = early[name];
    }
    if (given->count() == 0) continue;
    arguments.push_back(name);
    arguments.push_back(value(given));
  }
  inv.command = parsed->spec->make(arguments);

  inv.password = password->count() != 0 ? value(password) : envPassword.value_or("");
  PasswordBlock::plain(inv.password);  // refuses one the agent could not receive
  return inv;
}

}  // namespace varloctl
