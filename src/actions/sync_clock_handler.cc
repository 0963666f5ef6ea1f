#include "actions/sync_clock_handler.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "session/session.h"
#include "varlo/action_records.h"
#include "varlo/commands.h"

namespace {

std::string timeText(std::time_t t) {
  char buf[64];
  return ctime_r(&t, buf) != nullptr ? buf : "";
}

long localOffset() {
  tzset();
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local.tm_gmtoff;
}

}  // namespace

std::int64_t clockTarget(std::uint32_t consoleSeconds, long gmtOffset) {
  return static_cast<std::int64_t>(consoleSeconds) - varlo::varlo_clock_request::kEpochOffset +
         std::labs(gmtOffset);
}

std::string clockFailureText(int error) {
  switch (error) {
    case EINVAL:
      return "The time parameter was invalid";
    case ENOSYS:
      return "System does not support the settime function";
    case EPERM:
      return "Root priviledges are needed to set the time";
    default:
      return "Could not set the time.  Error: " + std::to_string(error);
  }
}

void syncClock(Session& session, long gmtOffset, const ClockSetter& setClock) {
  using varlo::varlo_manage;
  varlo::varlo_clock_request::Bytes request{};
  // Not checked, as the console has always had it: a request cut short
  // leaves the time 0.
  if (session.ReceiveData(request) != 0) request = {};
  const std::uint32_t seconds = varlo::get32<varlo::varlo_clock_request::Seconds>(request);

  const timeval target{static_cast<time_t>(clockTarget(seconds, gmtOffset)), 0};
  const std::string before = timeText(std::time(nullptr));
  const int error = setClock(target);
  if (error == 0) {
    session.log("Old Time: " + before + "New Time: " + timeText(std::time(nullptr)));
    session.SendData(varlo_manage::reply(varlo::kSyncClockCommand, true, true));
    return;
  }
  const std::string text = clockFailureText(error);
  session.log(text);
  auto reply = varlo_manage::reply(varlo::kSyncClockCommand, false, true);
  varlo::putPString<varlo_manage::Message>(reply, text);
  session.SendData(reply);
}

void syncClock(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  syncClock(session, localOffset(), [](const timeval& tv) {
    return ::settimeofday(&tv, nullptr) == 0 ? 0 : errno;
  });
}
