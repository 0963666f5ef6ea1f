// varloctl from the parsed command line to the exit status.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace varloctl {

class App {
 public:
  // args without the program name. The result goes to out; a failure is one
  // line on err, and the result is the exit status. When errIsTerminal, long
  // commands show their progress on err (not with --json).
  static int run(const std::vector<std::string>& args,
                 const std::optional<std::string>& envPassword, std::ostream& out,
                 std::ostream& err, bool errIsTerminal = false);
};

}  // namespace varloctl
