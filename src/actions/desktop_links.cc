#include "actions/desktop_links.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/unique_fd.h"
#include "session/session.h"
#include "software/dir_iterator_linux.h"

bool isLinkFolderCode(std::uint32_t code) {
  return code == 0x6465736B /* desk */ || code == 0x73686466 /* shdf */ ||
         code == 0x616D6E75 /* amnu */;
}

void makeDesktopLinks(Session& session, const std::string& target, const std::string& linkName,
                      bool replaceExisting, const std::string& usersRoot) {
  CDirIteratorLinux users;
  if (getUsersRootDir(users, usersRoot) == 0) return;
  for (std::string home; users.getNextDirectory(home);) {
    if (home.find("Shared") != std::string::npos) continue;
    const std::string link = home + "/Desktop/" + linkName;
    UniqueFd homeFd(::open(home.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    UniqueFd desktop(homeFd.valid() ? ::openat(homeFd.get(), "Desktop",
                                               O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)
                                    : -1);
    if (replaceExisting && desktop.valid()) ::unlinkat(desktop.get(), linkName.c_str(), 0);
    if (!desktop.valid() || ::symlinkat(target.c_str(), desktop.get(), linkName.c_str()) != 0)
      session.log("Unable to create link from " + link + " to " + target +
                  ".  Error: " + std::to_string(errno));
  }
}
