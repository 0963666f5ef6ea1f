#include "actions/send_message_handler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "actions/user_process.h"
#include "base/unique_fd.h"
#include "prefs/login_records.h"
#include "prefs/prefs.h"
#include "session/session.h"
#include "varlo/records.h"

namespace {

constexpr const char* kTitle = "Pathmere Notification";
constexpr std::size_t kMaxText = 299;  // the C string the text was always read into

}  // namespace

int writeToTerminals(const std::string& user, unsigned uid, const std::string& text,
                     const MessageSettings& settings) {
  const std::string banner = std::string("\r\n") + kTitle + "\r\n" + text + "\r\n";
  int written = 0;
  for (const std::string& line : LoginRecords::terminalsOf(settings.utmp, user)) {
    // A terminal that would block, or is not the user's, gets nothing.
    UniqueFd tty(::open((settings.devRoot + "/" + line).c_str(),
                        O_WRONLY | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!tty.valid() || ::fstat(tty.get(), &st) != 0 || !S_ISCHR(st.st_mode) || st.st_uid != uid)
      continue;
    if (::write(tty.get(), banner.data(), banner.size()) > 0) ++written;
  }
  return written;
}

void sendMessage(Session& session, const MessageSettings& settings) {
  using varlo::varlo_manage;
  varlo_manage::Bytes record{};
  if (session.ReceiveData(record) != 0) return;
  const std::string_view field = varlo::getPString<varlo_manage::Message>(record);
  std::string text(field.substr(0, std::min(field.size(), kMaxText)));
  text.resize(std::min(text.size(), text.find('\0')));

  // The console has its answer before anything is shown.
  varlo::put8<varlo::ReplyPrefix::Success>(record, 1);
  varlo::put8<varlo::ReplyPrefix::Last>(record, 1);
  session.SendData(record);

  if (std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; })) {
    session.log("SendMessage: Failed to create CFString from message.");
    return;
  }
  CPrefs& prefs = session.prefs();
  if (prefs.checkForUser() == 0) return;
  const std::string user = prefs.userName();
  const auto uid = static_cast<uid_t>(prefs.uid());
  // Never as root: an unknown user or root at the console is shown nothing.
  auto child = UserProcess::forUser(user, uid, static_cast<gid_t>(prefs.gid()), false);
  if (!child) return;
  child->program = UserProcess::findProgram("notify-send", settings.searchPath);
  child->argv = {"notify-send", kTitle, text};
  int execError = 0;
  const pid_t pid = child->program.empty() ? -1 : child->start(&execError);
  if (pid > 0) session.addChild(pid);
  if (pid < 0 || execError != 0) writeToTerminals(user, uid, text, settings);
}

void sendMessage(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  sendMessage(session, MessageSettings{});
}
