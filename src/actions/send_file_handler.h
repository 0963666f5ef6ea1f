// Send File (18): one file into the folder its code names; desktop links
// for the desktop codes, the agent's own package installed, or the file
// started in the console user's name when the console asks.
#pragma once

#include <cstdint>
#include <string>

#include "actions/package_installer.h"
#include "base/host_paths.h"
#include "varlo/records.h"

class Session;

void sendFile(Session& session, std::uint16_t code);

// The package code and name that make a received file the agent's update.
inline constexpr std::uint32_t kPackageFolderCode = 0x58585859;  // 'XXXY'
inline constexpr const char* kPackageName = "Varlo.pkg.tar.gz";

// The folder the request's code names, with the console's name; throws the
// text the console is to be told when there is none.
std::string getFolderPath(Session& session, const varlo::varlo_manage::Bytes& request);
// The Pascal name at offset 68, up to its first NUL.
std::string requestName(const varlo::varlo_manage::Bytes& request);

struct TransferSettings {
  std::string usersRoot = host_paths::kUsersRoot;
  std::string packageFolder = "/tmp/";
  InstallSettings install;
};

void sendFile(Session& session, const TransferSettings& settings);
