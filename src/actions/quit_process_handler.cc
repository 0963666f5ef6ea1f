#include "actions/quit_process_handler.h"

#include <signal.h>

#include <cerrno>
#include <string>

#include "session/session.h"
#include "varlo/action_records.h"
#include "varlo/records.h"

namespace {

void answer(Session& session, bool success, const std::string& text = {}) {
  using varlo::varlo_manage;
  auto reply = varlo_manage::reply(0, success, true);
  if (!text.empty()) varlo::putPString<varlo_manage::Message>(reply, text);
  session.SendData(reply);
}

}  // namespace

void killProcess(Session& session, std::uint32_t pid, const Signaller& signal,
                 std::chrono::milliseconds grace) {
  const auto target = static_cast<std::int32_t>(pid);
  if (target < 1) {
    const std::string text =
        "Received process ID " + std::to_string(target) + " killing this process could cause problems";
    session.log(text);
    answer(session, false, text);
    return;
  }
  for (const int sig : {SIGTERM, SIGKILL}) {
    signal(target, sig);
    // A stop of the agent ends the wait; nothing more is sent then.
    if (!session.waitFor(grace)) return;
    if (signal(target, 0) == ESRCH) {
      answer(session, true);
      return;
    }
  }
  const std::string text = "Tried to kill process but it is still alive";
  session.log(text);
  answer(session, false, text);
}

void killProcess(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  varlo::varlo_quit_request::Bytes request{};
  if (session.ReceiveData(request) != 0) return;
  killProcess(session, varlo::get32<varlo::varlo_quit_request::Pid>(request),
              [](pid_t p, int sig) { return ::kill(p, sig) == 0 ? 0 : errno; });
}
