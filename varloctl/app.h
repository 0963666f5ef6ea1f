// varloctl from the parsed command line to the exit status.
#pragma once

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace varloctl {

class App {
 public:
  // Shows a question on the terminal and reads one line of answer; nothing
  // at the end of input or on Ctrl-C.
  using Ask = std::function<std::optional<std::string>(const std::string& question)>;

  // args without the program name. The result goes to out; a failure is one
  // line on err, and the result is the exit status. When errIsTerminal, long
  // commands show their progress on err (not with --json). ask is empty when
  // there is no terminal to ask on.
  static int run(const std::vector<std::string>& args,
                 const std::optional<std::string>& envPassword, std::ostream& out,
                 std::ostream& err, bool errIsTerminal = false, const Ask& ask = {});
};

}  // namespace varloctl
