// The commands varloctl knows. Adding one is a Command class and a row here.
#pragma once

#include <memory>
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
  // Checks the arguments (usage CtlError) and builds the command. When the
  // option was given, its name and value follow the arguments.
  std::unique_ptr<Command> (*make)(const std::vector<std::string>& arguments);
  // The one option of the command's own, with its value, e.g. "--days N".
  std::string_view option = {};
};

const std::vector<CommandSpec>& commandTable();

}  // namespace varloctl
