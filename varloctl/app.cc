#include "varloctl/app.h"

#include <chrono>
#include <exception>

#include "varloctl/arg_parser.h"
#include "varloctl/ctl_error.h"
#include "varloctl/discovery.h"
#include "varloctl/fleet.h"
#include "varloctl/fleet_report.h"
#include "varloctl/host_list.h"
#include "varloctl/interrupt.h"
#include "varloctl/json_writer.h"
#include "varloctl/password_block.h"
#include "varloctl/progress.h"
#include "varloctl/resolver.h"
#include "varloctl/session.h"
#include "varloctl/table_writer.h"
#include "varloctl/wire_text.h"

namespace varloctl {
namespace {

Value discover(const Invocation& inv) {
  const auto agents = Discovery(inv.target, inv.port, inv.timeoutMs, inv.broadcast).run();
  if (agents.empty())
    throw CtlError(kTimeout, "no agent answered within " + secondsText(inv.timeoutMs));
  if (!inv.hostsOnly) return Discovery::describe(agents);
  // One address a line: a host file for @FILE.
  Value addresses = Value::array();
  for (const Discovery::Agent& a : agents) addresses.push_back(dotted(a.address));
  return addresses;
}

// The command on one host, over a session of its own.
Value runOn(const std::string& host, const Invocation& inv, Command& command, Progress* progress) {
  const std::string peer = host + ":" + std::to_string(inv.port);
  Session session = Session::open(resolveIPv4(host, inv.port), peer, inv.timeoutMs);
  session.send(PasswordBlock::header(command.code(), inv.password));
  command.setJson(inv.json);
  command.setProgress(progress);
  return command.run(session);
}

// Commands that act on the agent's machine go only when the user says so:
// once, for however many hosts.
void confirm(const Invocation& inv, const std::string& what, const App::Ask& ask) {
  const std::string question = inv.command->confirmation(what);
  if (question.empty()) return;
  if (!ask) throw usageError(question.substr(0, question.find('?')) +
                             ": no terminal to confirm on; give --yes to go ahead");
  const auto answer = ask(question + " [y/N] ");
  Interrupt::check();
  if (!answer || (*answer != "y" && *answer != "Y" && *answer != "yes" && *answer != "YES"))
    throw CtlError(kFailed, "not confirmed; nothing was sent");
}

std::string format(const Invocation& inv, const Value& v) {
  return inv.json ? JsonWriter::write(v) : TableWriter::write(v);
}

int runFleet(const Invocation& inv, std::ostream& out, std::ostream& err, bool errIsTerminal,
             const App::Ask& ask) {
  const std::vector<HostList::Host> hosts = HostList::parse(inv.target);
  confirm(inv, std::to_string(hosts.size()) + (hosts.size() == 1 ? " host" : " hosts"), ask);
  std::string warning;
  const int workers = Fleet::workersAllowed(inv.parallel, warning);
  if (!warning.empty()) err << "varloctl: " << warning << '\n';

  // The count of hosts done, once the run has taken a second.
  Progress progress(err, errIsTerminal);
  const auto start = std::chrono::steady_clock::now();
  const auto report = [&](std::size_t done, std::size_t failed) {
    if (std::chrono::steady_clock::now() - start < std::chrono::seconds(1)) return;
    progress.text(std::to_string(done) + "/" + std::to_string(hosts.size()) + " hosts, " +
                  std::to_string(failed) + " failed");
  };
  const auto job = [&inv](const std::string& host) {
    // Each host its own command: nothing of one run reaches another.
    const std::unique_ptr<Command> command = inv.command->clone();
    return runOn(host, inv, *command, nullptr);
  };
  const auto outcomes = Fleet(workers).run(hosts, job, report);
  progress.clear();
  Interrupt::check();

  const FleetReport fleet(hosts, outcomes);
  for (std::size_t i = 0; i < hosts.size(); ++i)
    if (outcomes[i].status != kOk)
      err << "varloctl: " << TableWriter::text(hosts[i].name) << ": " << outcomes[i].error << '\n';
  out << format(inv, inv.json ? fleet.json() : fleet.table());
  out.flush();
  return fleet.status();
}

}  // namespace

int App::run(const std::vector<std::string>& args, const std::optional<std::string>& envPassword,
             std::ostream& out, std::ostream& err, bool errIsTerminal, const Ask& ask) {
  try {
    const Invocation inv = ArgParser::parse(args, envPassword);
    Value result;
    switch (inv.mode) {
      case Invocation::Mode::Print:
        out << inv.text;
        return kOk;
      case Invocation::Mode::Discover:
        result = discover(inv);
        break;
      case Invocation::Mode::Command: {
        if (inv.fleet) return runFleet(inv, out, err, errIsTerminal, ask);
        confirm(inv, inv.target, ask);
        // Gone from the terminal before the result or an error is printed.
        Progress progress(err, errIsTerminal && !inv.json);
        result = runOn(inv.target, inv, *inv.command, &progress);
        break;
      }
    }
    out << format(inv, result);
    out.flush();
    return kOk;
  } catch (const CtlError& e) {
    err << "varloctl: " << e.what() << '\n';
    return e.status();
  } catch (const std::exception& e) {
    err << "varloctl: " << e.what() << '\n';
    return kFailed;
  }
}

}  // namespace varloctl
