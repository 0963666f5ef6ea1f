// The commands varloctl knows. Adding one is a Command class and a row here.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "varloctl/command.h"

namespace varloctl {

struct CommandSpec {
  std::string_view name;       // the words after HOST, e.g. "notes get"
  std::string_view arguments;  // for the usage text, e.g. "INDEX TEXT"
  std::size_t argumentCount;
  std::string_view summary;
  // Checks the arguments (usage CtlError) and builds the command. Each of
  // its options that was given follows the arguments as a name and a value
  // (empty for a flag), in the order of `options`.
  std::unique_ptr<Command> (*make)(const std::vector<std::string>& arguments);
  // The command's own options, with their values, e.g. "--days N"; one
  // without a value ("--yes") is a flag.
  std::vector<std::string_view> options = {};
};

// The value of option name among a command's arguments past the first
// `count`, or nothing when it was not given.
std::optional<std::string> optionValue(const std::vector<std::string>& arguments,
                                       std::size_t count, std::string_view name);

const std::vector<CommandSpec>& commandTable();

}  // namespace varloctl
