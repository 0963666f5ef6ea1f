// One agent command: the dialogue that follows the command header on its
// connection, and what it has to show for it.
#pragma once

#include <cstdint>
#include <string>

#include "varlo/records.h"
#include "varloctl/ctl_error.h"
#include "varloctl/session.h"
#include "varloctl/value.h"

namespace varloctl {

class Command {
 public:
  virtual ~Command() = default;
  virtual std::uint16_t code() const = 0;
  // Runs after the header was sent; throws CtlError when it cannot finish.
  virtual Value run(Session& session) = 0;
  // Told before run() when the output is JSON, for commands that show more there.
  virtual void setJson(bool) {}

 protected:
  // The first reply of a command is where a rejected password shows: a
  // record of that reply's size with status 0xFF in its prefix.
  template <std::size_t N>
  static varlo::WireRecord<N> receiveFirstReply(Session& session) {
    auto r = session.receive<N>();
    if (varlo::ReplyPrefix::decodeFrom(r).status == varlo::ReplyPrefix::kPasswordRejected)
      throw CtlError(kWrongPassword, "wrong password");
    return r;
  }

  // Throws a failure CtlError with `failure` when the success byte is 0.
  template <std::size_t N>
  static void requireSuccess(const varlo::WireRecord<N>& r, const std::string& failure) {
    if (!varlo::ReplyPrefix::decodeFrom(r).success) throw CtlError(kFailed, failure);
  }
};

}  // namespace varloctl
