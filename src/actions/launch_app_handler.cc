#include "actions/launch_app_handler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "base/unique_fd.h"
#include "prefs/prefs.h"
#include "session/session.h"
#include "varlo/records.h"

namespace {

constexpr std::size_t kMaxPath = 500;
constexpr std::size_t kMaxList = 16 << 20;

void answer(Session& session, bool success, const std::string& text = {}) {
  using varlo::varlo_manage;
  auto reply = varlo_manage::reply(0, success, true);
  if (!text.empty()) varlo::putPString<varlo_manage::Message>(reply, text);
  session.SendData(reply);
}

// The list as the agent wrote it: a regular file of root's, not a link or
// a file somebody else put in /tmp under that name.
std::optional<std::string> readList(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st {};
  if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != 0 ||
      st.st_size > static_cast<off_t>(kMaxList))
    return std::nullopt;
  std::string text(static_cast<std::size_t>(st.st_size), '\0');
  std::size_t got = 0;
  while (got < text.size()) {
    const ssize_t n = ::read(fd.get(), text.data() + got, text.size() - got);
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  text.resize(got);
  return text;
}

}  // namespace

std::optional<std::string> findListedApp(const std::string& listText, unsigned long index) {
  std::istringstream in(listText);
  for (std::string line; std::getline(in, line);) {
    std::size_t digits = 0;
    unsigned long value = 0;
    bool overflow = false;
    while (digits < line.size() && line[digits] >= '0' && line[digits] <= '9') {
      overflow |= value > (~0UL - 9) / 10;
      value = value * 10 + static_cast<unsigned long>(line[digits++] - '0');
    }
    if (digits == 0 || overflow || value != index) continue;
    return line.substr(digits, kMaxPath);
  }
  return std::nullopt;
}

std::optional<UserProcess> launchProcess(std::string path, const std::string& user, uid_t uid,
                                         gid_t gid, const LaunchSettings& settings) {
  // Never as root: an unknown user or root at the console launches nothing.
  auto child = UserProcess::forUser(user, uid, gid, true);
  if (!child) return std::nullopt;
  if (!path.empty() && path[0] == ' ') path.erase(0, 1);
  child->program = UserProcess::findProgram("xdg-open", settings.searchPath);
  child->argv = {"xdg-open", path};
  child->logPath = settings.childLog;
  child->logLines = {"Launching application \"xdg-open\" with arg: " + path};
  child->launchFailure = "Unable to launch application " + path;
  const std::string systemdRun =
      UserProcess::transientUnitClient(settings.systemdMarker, settings.searchPath);
  if (systemdRun.empty() || child->program.empty()) return child;
  return child->throughManager(systemdRun, UserProcess::transientUnitName("launch"));
}

pid_t launchApplication(std::string path, const std::string& user, uid_t uid, gid_t gid,
                        const LaunchSettings& settings) {
  const auto child = launchProcess(std::move(path), user, uid, gid, settings);
  return child ? child->start() : -1;
}

void launchApp(Session& session, std::uint32_t index, const LaunchSettings& settings) {
  CPrefs& prefs = session.prefs();
  if (prefs.checkForUser() == 0) {
    answer(session, false, "No user is logged in to launch application");
    return;
  }
  const std::string user = prefs.userName();
  const auto uid = static_cast<uid_t>(prefs.uid());
  const auto gid = static_cast<gid_t>(prefs.gid());

  const auto list = readList(settings.listPath);
  if (!list) {
    session.log("Could not open Application Cache");
    answer(session, false, "Could not open Application Cache");
    return;
  }
  const auto found = findListedApp(*list, index);
  if (!found) {
    answer(session, false, "The application could not be found");
    return;
  }
  session.log("Found application " + *found);

  const pid_t pid = launchApplication(*found, user, uid, gid, settings);
  if (pid < 0) {
    answer(session, false, "The application could not be launched");
    return;
  }
  session.addChild(pid);
  answer(session, true);
  session.waitFor(settings.hold);
}

void launchApp(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  varlo::WireRecord<4> request{};
  if (session.ReceiveData(request) != 0) return;
  if (session.prefs().launchBlocked()) return;
  launchApp(session, varlo::getU32(request.data()), LaunchSettings{});
}
