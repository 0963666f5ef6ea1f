// The commands varloctl knows. Adding one is a Command class and a row here;
// the parser and the help texts are made from the rows.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "varloctl/command.h"

namespace varloctl {

struct ArgumentSpec {
  std::string_view name;  // e.g. "INDEX"
  std::string_view help;
};

struct OptionSpec {
  std::string_view name;   // e.g. "--days"
  std::string_view value;  // e.g. "N"; empty for a flag such as --yes
  std::string_view help;
};

struct CommandSpec {
  std::string_view name;  // the words after HOST, e.g. "notes get"
  std::string_view summary;
  // Checks the arguments (usage CtlError) and builds the command. Each of
  // its options that was given follows the arguments as a name and a value
  // (empty for a flag), in the order of `options`.
  std::unique_ptr<Command> (*make)(const std::vector<std::string>& arguments);
  std::vector<ArgumentSpec> arguments = {};
  std::vector<OptionSpec> options = {};

  // "notes set INDEX TEXT [--opt V]", for the help texts.
  std::string form() const;
};

// The value of option name among a command's arguments past the first
// `count`, or nothing when it was not given.
std::optional<std::string> optionValue(const std::vector<std::string>& arguments,
                                       std::size_t count, std::string_view name);

const std::vector<CommandSpec>& commandTable();

}  // namespace varloctl
