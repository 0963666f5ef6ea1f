#include "varloctl/help_formatter.h"

#include <sstream>

#include "varloctl/command_table.h"

namespace varloctl {
namespace {

constexpr std::size_t kColumn = 30;

const CommandSpec* specNamed(const std::string& name) {
  for (const CommandSpec& spec : commandTable())
    if (spec.name == name) return &spec;
  return nullptr;
}

// "discover [HOST] [--hosts-only]", or a command's form.
std::string form(const CLI::App* app) {
  const std::string name = HelpFormatter::commandName(app);
  if (const CommandSpec* spec = specNamed(name)) return spec->form();
  std::string out = name;
  for (const CLI::Option* o : app->get_options()) {
    if (o == app->get_help_ptr()) continue;
    const std::string shown = o->get_positional() ? o->get_name(true, false) : o->get_name();
    out += " [" + shown + "]";
  }
  return out;
}

}  // namespace

HelpFormatter::HelpFormatter() {
  column_width(kColumn);
  label("Usage", "usage");
}

std::string HelpFormatter::commandName(const CLI::App* app) {
  std::string out;
  for (; app != nullptr && app->get_parent() != nullptr; app = app->get_parent())
    out = app->get_name() + (out.empty() ? "" : " " + out);
  return out;
}

std::string HelpFormatter::make_usage(const CLI::App* app, std::string) const {
  if (app->get_parent() == nullptr)
    return "usage: varloctl [OPTIONS] HOSTS COMMAND [ARGS]\n"
           "       varloctl [OPTIONS] discover [HOST] [--hosts-only]\n";
  const std::string name = commandName(app);
  if (name == "discover") return "usage: varloctl [OPTIONS] " + form(app) + "\n";
  std::string out;
  // A word that only groups commands ("notes") shows each of them.
  if (specNamed(name) != nullptr) out = "usage: varloctl [OPTIONS] HOSTS " + form(app) + "\n";
  for (const CLI::App* sub : app->get_subcommands({}))
    out += std::string(out.empty() ? "usage: " : "       ") + "varloctl [OPTIONS] HOSTS " +
           form(sub) + "\n";
  return out;
}

std::string HelpFormatter::make_subcommand(const CLI::App* sub) const {
  std::ostringstream out;
  if (specNamed(commandName(sub)) != nullptr || sub->get_subcommands({}).empty())
    CLI::detail::format_help(out, form(sub), sub->get_description(), get_column_width());
  for (const CLI::App* child : sub->get_subcommands({})) out << make_subcommand(child);
  return out.str();
}

}  // namespace varloctl
