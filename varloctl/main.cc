// varloctl: the console-side tool that finds agents and sends them commands.
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "varloctl/app.h"
#include "varloctl/ctl_error.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
  std::optional<std::string> envPassword;
  if (const char* p = std::getenv("VARLO_PASSWORD")) envPassword = p;
  const int status = varloctl::App::run(args, envPassword, std::cout, std::cerr);
  if (status == varloctl::kOk && !(std::cout << std::flush)) {
    std::cerr << "varloctl: cannot write the result\n";
    return varloctl::kFailed;
  }
  return status;
}
