// What varloctl reports when it stops early: one line of text and the exit
// status that tells scripts which kind of failure it was.
#pragma once

#include <stdexcept>
#include <string>

namespace varloctl {

enum ExitStatus : int {
  kOk = 0,
  kFailed = 1,         // the agent reported failure, or an unexpected error here
  kUsage = 2,          // the command line cannot be carried out
  kWrongPassword = 3,  // the agent rejected the session password
  kClosed = 4,         // the agent refused the command or closed the connection
  kTimeout = 5,        // nothing came back in time (or no agent answered)
  kUnreachable = 6,    // no connection: name not resolved, refused, no route
  kBadReply = 7,       // the agent's reply does not make sense
  kInterrupted = 130,  // stopped by Ctrl-C, as shells report a SIGINT
};

class CtlError : public std::runtime_error {
 public:
  CtlError(ExitStatus status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  ExitStatus status() const { return status_; }

 private:
  ExitStatus status_;
};

inline CtlError usageError(const std::string& message) { return CtlError(kUsage, message); }

}  // namespace varloctl
