// Links on every user's desktop to what the console sent into a desktop
// folder code: USERS/NAME/Desktop/LINKNAME -> target. Each level is opened
// without following links, so a user's own links never redirect root.
#pragma once

#include <cstdint>
#include <string>

#include "base/host_paths.h"

class Session;

void makeDesktopLinks(Session& session, const std::string& target, const std::string& linkName,
                      bool replaceExisting, const std::string& usersRoot = host_paths::kUsersRoot);

// The folder codes whose deliveries get desktop links.
bool isLinkFolderCode(std::uint32_t code);
