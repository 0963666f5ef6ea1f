// Sync Clock and Quit Process from any request, with stand-ins for
// settimeofday and kill(2) that only record what they are asked: nothing
// here touches the clock or a process.
//
// The first input byte picks the request (bit 0) and scripts the stand-ins'
// answers (the other bits).
//  Sync Clock: a 4-byte host offset from GMT (signed), then the console's
//  request sent over a socket pair (4 bytes, or fewer for one cut short).
//  The clock is set once, to the console's seconds - 2082844800 + |offset|
//  (0 seconds for a request cut short), and the one reply is a 324-byte
//  record for command 14 with last set, success as the setter said and,
//  on failure, the setter's error as text.
//  Quit Process: the 8-byte request (pid in its low word). No signal for a
//  pid below 1; otherwise SIGTERM, a probe, then SIGKILL and a probe unless
//  the first probe found the process gone, every one to that pid. One
//  324-byte reply with last set: success exactly when a probe found it gone.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "actions/quit_process_handler.h"
#include "actions/sync_clock_handler.h"
#include "console_drain.h"
#include "prefs/prefs.h"
#include "session/session.h"
#include "varlo/action_records.h"
#include "varlo/commands.h"
#include "varlo/records.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

std::uint32_t be32(const std::uint8_t* p) {
  return (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) | (std::uint32_t(p[2]) << 8) | p[3];
}

CPrefs& prefs() {
  // Never read by these handlers; built without looking at the host.
  static CPrefs* p = new CPrefs(PrefsSources{});
  return *p;
}

using fuzz_support::readAll;

// Runs handler on a session whose console has sent `input` and closed its
// sending side; the replies are small enough to wait in the socket.
template <typename Handler>
Bytes converse(const Bytes& input, Handler handler) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) std::abort();
  if (!input.empty() && ::send(fds[1], input.data(), input.size(), MSG_NOSIGNAL) !=
                            static_cast<ssize_t>(input.size()))
    std::abort();
  ::shutdown(fds[1], SHUT_WR);
  {
    Session session(fds[0], 1, prefs());
    handler(session);
  }
  Bytes out = readAll(fds[1]);
  ::close(fds[1]);
  return out;
}

// One reply record: the prefix as given, and the text (or nothing) in the
// message field, zeros elsewhere.
void checkReply(const Bytes& out, std::uint16_t command, bool success, const std::string& text) {
  if (out.size() != varlo::varlo_manage::kSize) __builtin_trap();
  varlo::varlo_manage::Bytes r{};
  std::copy(out.begin(), out.end(), r.begin());
  const varlo::ReplyPrefix prefix = varlo::ReplyPrefix::decodeFrom(r);
  if (prefix.command != command || prefix.success != success || !prefix.last || prefix.status != 0)
    __builtin_trap();
  if (out[2] > 1 || out[3] != 1) __builtin_trap();
  auto want = varlo::varlo_manage::reply(command, success, true);
  if (!text.empty()) varlo::putPString<varlo::varlo_manage::Message>(want, text);
  if (r != want) __builtin_trap();
}

void clockRequest(std::uint8_t script, const std::uint8_t* data, std::size_t size) {
  if (size < 4) return;
  const long offset = static_cast<std::int32_t>(be32(data));
  const Bytes request(data + 4, data + std::min<std::size_t>(size, 4 + 8));
  static constexpr int kErrors[] = {0, EPERM, EINVAL, ENOSYS, EFAULT, 0, 0, 0};
  const int error = kErrors[(script >> 1) & 7];

  std::vector<timeval> set;
  const Bytes out = converse(request, [&](Session& s) {
    syncClock(s, offset, [&](const timeval& tv) {
      set.push_back(tv);
      return error;
    });
  });

  const std::int64_t seconds = request.size() >= 4 ? be32(request.data()) : 0;
  const std::int64_t want = seconds - 2082844800LL + (offset < 0 ? -std::int64_t(offset) : offset);
  if (set.size() != 1 || set[0].tv_sec != want || set[0].tv_usec != 0) __builtin_trap();
  if (clockTarget(static_cast<std::uint32_t>(seconds), offset) != want) __builtin_trap();
  const std::string text = error == 0        ? ""
                           : error == EPERM  ? "Root priviledges are needed to set the time"
                           : error == EINVAL ? "The time parameter was invalid"
                           : error == ENOSYS ? "System does not support the settime function"
                                             : "Could not set the time.  Error: " + std::to_string(error);
  checkReply(out, varlo::kSyncClockCommand, error == 0, text);
}

void quitRequest(std::uint8_t script, const std::uint8_t* data, std::size_t size) {
  if (size < varlo::varlo_quit_request::kSize) return;
  varlo::varlo_quit_request::Bytes request{};
  std::copy(data, data + request.size(), request.begin());
  const std::uint32_t pid = varlo::get32<varlo::varlo_quit_request::Pid>(request);
  if (pid != be32(data + 4)) __builtin_trap();
  const auto target = static_cast<std::int32_t>(pid);

  // Bit 1: the process dies of SIGTERM, bit 2: of SIGKILL; bit 3: kill(2)
  // refuses the signals themselves.
  std::vector<std::pair<pid_t, int>> calls;
  bool alive = true;
  const Signaller signaller = [&](pid_t p, int sig) {
    calls.emplace_back(p, sig);
    if (sig == 0) return alive ? 0 : ESRCH;
    if (script & 8) return EPERM;
    if ((sig == SIGTERM && (script & 2)) || (sig == SIGKILL && (script & 4))) alive = false;
    return 0;
  };
  const Bytes out = converse({}, [&](Session& s) {
    killProcess(s, pid, signaller, std::chrono::milliseconds(0));
  });

  if (target < 1) {
    if (!calls.empty()) __builtin_trap();  // never a signal, not even a probe
    checkReply(out, 0, false,
               "Received process ID " + std::to_string(target) +
                   " killing this process could cause problems");
    return;
  }
  for (const auto& [p, sig] : calls)
    if (p != target || p < 1) __builtin_trap();
  const bool refused = (script & 8) != 0;
  const bool termKills = !refused && (script & 2);
  const bool killKills = !refused && (script & 4);
  std::vector<std::pair<pid_t, int>> want = {{target, SIGTERM}, {target, 0}};
  if (!termKills) {
    want.emplace_back(target, SIGKILL);
    want.emplace_back(target, 0);
  }
  if (calls != want) __builtin_trap();
  if (termKills || killKills) {
    checkReply(out, 0, true, "");
  } else {
    checkReply(out, 0, false, "Tried to kill process but it is still alive");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::uint8_t script = data[0];
  if (script & 1) {
    quitRequest(script, data + 1, size - 1);
  } else {
    clockRequest(script, data + 1, size - 1);
  }
  return 0;
}
