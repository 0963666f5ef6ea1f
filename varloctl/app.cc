#include "varloctl/app.h"

#include <exception>

#include "varloctl/arg_parser.h"
#include "varloctl/ctl_error.h"
#include "varloctl/discovery.h"
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
  return Discovery::describe(agents);
}

Value command(const Invocation& inv, Progress& progress) {
  const std::string peer = inv.target + ":" + std::to_string(inv.port);
  Session session = Session::open(resolveIPv4(inv.target, inv.port), peer, inv.timeoutMs);
  session.send(PasswordBlock::header(inv.command->code(), inv.password));
  inv.command->setJson(inv.json);
  inv.command->setProgress(&progress);
  return inv.command->run(session);
}

// Commands that act on the agent's machine go only when the user says so.
void confirm(const Invocation& inv, const App::Ask& ask) {
  const std::string question = inv.command->confirmation(inv.target);
  if (question.empty()) return;
  if (!ask) throw usageError(question.substr(0, question.find('?')) +
                             ": no terminal to confirm on; give --yes to go ahead");
  const auto answer = ask(question + " [y/N] ");
  Interrupt::check();
  if (!answer || (*answer != "y" && *answer != "Y" && *answer != "yes" && *answer != "YES"))
    throw CtlError(kFailed, "not confirmed; nothing was sent");
}

}  // namespace

int App::run(const std::vector<std::string>& args, const std::optional<std::string>& envPassword,
             std::ostream& out, std::ostream& err, bool errIsTerminal, const Ask& ask) {
  try {
    const Invocation inv = ArgParser::parse(args, envPassword);
    Value result;
    switch (inv.mode) {
      case Invocation::Mode::Help:
        out << ArgParser::usage();
        return kOk;
      case Invocation::Mode::Discover:
        result = discover(inv);
        break;
      case Invocation::Mode::Command: {
        confirm(inv, ask);
        // Gone from the terminal before the result or an error is printed.
        Progress progress(err, errIsTerminal && !inv.json);
        result = command(inv, progress);
        break;
      }
    }
    out << (inv.json ? JsonWriter::write(result) : TableWriter::write(result));
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
