// Where the agent finds and keeps things on a Linux host. Each is a default:
// the classes that use one take it as an argument, so tests can hand them a
// fixture tree instead.
#pragma once

namespace host_paths {

inline constexpr const char* kPidFile = "/var/run/varlo.pid";
inline constexpr const char* kLogDir = "/var/log";
inline constexpr const char* kLogFallbackDir = "/tmp";
inline constexpr const char* kLogFileName = "Varlo.log";

inline constexpr const char* kLocalPrefsDir = "/var/lib";
inline constexpr const char* kPrefsFallbackDir = "/var/tmp/";

inline constexpr const char* kWtmp = "/var/log/wtmp";
inline constexpr const char* kUtmp = "/run/utmp";
inline constexpr const char* kLogindSeats = "/run/systemd/seats";

inline constexpr const char* kProcRoot = "/proc";
inline constexpr const char* kProcVersion = "/proc/version";
inline constexpr const char* kSelfExe = "/proc/self/exe";
inline constexpr const char* kUsersRoot = "/home";

inline constexpr const char* kFontsFolder = "/usr/local/share/fonts/";
inline constexpr const char* kStartupItemsFolder = "/etc/init.d/";
inline constexpr const char* kInitScripts = "/etc/init.d";
// Present only while systemd is the running init.
inline constexpr const char* kSystemdRunDir = "/run/systemd/system";
// Where desktop entries live when XDG_DATA_DIRS is unset.
inline constexpr const char* kXdgDataDirs = "/usr/local/share/:/usr/share/";
inline constexpr const char* kLdSoConf = "/etc/ld.so.conf";

inline constexpr const char* kSysRoot = "/sys";
inline constexpr const char* kEtcRoot = "/etc";
inline constexpr const char* kDpkgRoot = "/var/lib/dpkg";

// Under the proc root: the mounted file systems, and which kinds need no
// block device.
inline constexpr const char* kMountInfo = "/self/mountinfo";
inline constexpr const char* kFilesystems = "/filesystems";

}  // namespace host_paths
