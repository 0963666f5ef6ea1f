// CLI11's help texts in varloctl's terms: usage lines that put the hosts
// before the command, and the command list with each command's arguments.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace varloctl {

class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter();
  std::string make_usage(const CLI::App* app, std::string name) const override;
  std::string make_subcommand(const CLI::App* sub) const override;

  // The words that name app below the program, e.g. "notes set".
  static std::string commandName(const CLI::App* app);
};

}  // namespace varloctl
