#include "actions/send_file_handler.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "actions/desktop_links.h"
#include "actions/file_receiver.h"
#include "actions/launch_app_handler.h"
#include "actions/package_installer.h"
#include "base/unique_fd.h"
#include "base/util.h"
#include "prefs/prefs.h"
#include "session/session.h"

std::string getFolderPath(Session& session, const varlo::varlo_manage::Bytes& request) {
  std::string path;
  if (session.prefs().getFolderLocation(varlo::get32<varlo::varlo_manage::KeyValue>(request),
                                        path) != 0)
    throw std::string("Could not find file path to save file");
  return path;
}

std::string requestName(const varlo::varlo_manage::Bytes& request) {
  std::string name(varlo::getPString<varlo::varlo_manage::Message>(request));
  name.resize(std::min(name.size(), name.find('\0')));
  return name;
}

void sendFile(Session& session, const TransferSettings& settings) {
  varlo::varlo_manage::Bytes request{};
  // Not examined, as the console has always had it: a short request reads as zeros.
  if (session.ReceiveData(request) != 0) request = {};
  const bool launch = request[2] != 0;
  const std::uint32_t folderCode = varlo::get32<varlo::varlo_manage::KeyValue>(request);
  std::string path;
  try {
    path = getFolderPath(session, request);
  } catch (const std::string& message) {
    session.sendBadACK(message);
    return;
  }
  const std::string name = requestName(request);
  const bool install = name == kPackageName && folderCode == kPackageFolderCode;
  if (install) {
    path = settings.packageFolder;
    session.log("Receiving Varlo package.");
  }
  session.log("File Path: " + path);
  session.log("File Name: " + name);

  if (const int r = Util::makeDir(path, true); r != 0) {
    const std::string text = "Unable to create path " + path + " Error: " + std::to_string(r);
    session.log(text);
    session.sendBadACK(text);
    return;
  }
  UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid()) {
    session.log("Unable to get parent directory reference.");
    session.sendBadACK("Unable to get parent directory reference.");
    return;
  }
  // A file that did not arrive whole is neither linked, installed nor run.
  if (!FileReceiver(session).receiveFile(folder.get(), path, name)) return;

  if (isLinkFolderCode(folderCode))
    makeDesktopLinks(session, path + name, name + ".link", true, settings.usersRoot);
  if (install) {
    if (const pid_t pid = replaceVL(path, name, settings.install); pid > 0) session.addChild(pid);
    return;
  }
  CPrefs& prefs = session.prefs();
  if (!launch || prefs.launchBlocked()) return;
  // The folder, not the file, gains the owner's execute bit. A folder that
  // has it is left alone: rewriting a set-group-id folder's mode is refused
  // in the agent's service (RestrictSUIDSGID).
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 ||
      ((st.st_mode & S_IXUSR) == 0 && ::chmod(path.c_str(), st.st_mode | S_IXUSR) != 0)) {
    session.log("Unable to set executable bit on file " + path + " Error: " + std::to_string(errno));
    return;
  }
  prefs.checkForUser();
  const pid_t pid = launchApplication(path + name, prefs.userName(), static_cast<uid_t>(prefs.uid()),
                                      static_cast<gid_t>(prefs.gid()));
  if (pid > 0) session.addChild(pid);
}

void sendFile(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  sendFile(session, TransferSettings{});
}
