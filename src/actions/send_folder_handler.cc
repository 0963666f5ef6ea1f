#include "actions/send_folder_handler.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <vector>

#include "actions/desktop_links.h"
#include "actions/file_receiver.h"
#include "base/unique_fd.h"
#include "base/util.h"
#include "prefs/prefs.h"
#include "session/session.h"

namespace {

struct Level {
  std::string path;  // ends in '/'
  UniqueFd fd;
};

// mkdir then open, relative to the parent and never through a link.
UniqueFd makeLevel(int parent, const std::string& name, int& error) {
  if (::mkdirat(parent, name.c_str(), 0777) != 0 && errno != EEXIST) {
    error = errno;
    return UniqueFd();
  }
  UniqueFd fd(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  error = fd.valid() ? 0 : errno;
  return fd;
}

}  // namespace

void sendFolder(Session& session, const TransferSettings& settings) {
  varlo::varlo_manage::Bytes request{};
  if (session.ReceiveData(request) != 0) return;
  const std::string folderName = requestName(request);
  const std::uint32_t folderCode = varlo::get32<varlo::varlo_manage::KeyValue>(request);
  std::string base;
  try {
    if (session.prefs().getFolderLocation(folderCode, base) != 0) {
      session.sendBadACK("Could not find folder path");
      return;
    }
  } catch (const std::string& message) {
    session.sendBadACK(message);
    return;
  }
  if (!isValidItemName(folderName)) {
    session.sendBadACK("Invalid file name");
    return;
  }
  // The base folder's own ancestors may be made as paths; the tree below
  // it only relative to each level.
  int error = Util::makeDir(base, true);
  UniqueFd baseFd(error == 0 ? ::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
  if (error == 0 && !baseFd.valid()) error = errno;
  std::vector<Level> stack;
  if (error == 0) {
    UniqueFd top = makeLevel(baseFd.get(), folderName, error);
    if (error == 0) stack.push_back(Level{base + folderName + "/", std::move(top)});
  }
  if (error != 0) {
    const std::string text = "Unable to create directories.  Error: " + std::to_string(error);
    session.log(text);
    session.sendBadACK(text);
    return;
  }
  session.sendGoodACK();

  FileReceiver receiver(session);
  while (!stack.empty()) {
    // Zeroed each time: a receive that fails reads as the console's stop.
    varlo::varlo_manage::Bytes item{};
    std::uint8_t isFolder = 0, endOfFolder = 0;
    if (session.ReceiveData(item) != 0) item = {};
    session.ReceiveData(&isFolder, 1);
    session.ReceiveData(&endOfFolder, 1);
    if (item[2] == 0 || session.stopRequested()) return;
    const std::string itemName = requestName(item);

    if (endOfFolder != 0) {
      session.sendGoodACK();
      stack.pop_back();
    } else if (isFolder != 0) {
      int r = 0;
      UniqueFd fd = isValidItemName(itemName) ? makeLevel(stack.back().fd.get(), itemName, r)
                                              : UniqueFd();
      if (!isValidItemName(itemName)) {
        session.sendBadACK("Invalid file name");
        return;
      }
      if (r != 0) {
        const std::string text = "Unable to create directory " + itemName + " Error: " + std::to_string(r);
        session.log(text);
        session.sendBadACK(text);
        return;
      }
      session.sendGoodACK();
      stack.push_back(Level{stack.back().path + itemName + "/", std::move(fd)});
    } else if (!receiver.receiveFile(stack.back().fd.get(), stack.back().path, itemName)) {
      // The console has been told (or called it off): the tree ends here.
      return;
    }
  }
  if (isLinkFolderCode(folderCode))
    makeDesktopLinks(session, base + folderName, folderName + ".link", false, settings.usersRoot);
}

void sendFolder(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  sendFolder(session, TransferSettings{});
}
