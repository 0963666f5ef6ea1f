// The agent's persistent settings (session password, DBMS key, notes) in a
// small key/value file, plus what it knows of the host: the console user,
// the folder it runs from and the map from the console's folder ids to paths.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/host_paths.h"

// A four-character code as the console writes it: 'font' == 0x666F6E74.
constexpr std::uint32_t fourCC(const char (&s)[5]) {
  return (std::uint32_t(std::uint8_t(s[0])) << 24) | (std::uint32_t(std::uint8_t(s[1])) << 16) |
         (std::uint32_t(std::uint8_t(s[2])) << 8) | std::uint32_t(std::uint8_t(s[3]));
}

// One row of the console's folder table.
struct locationmap {
  std::int16_t domain;
  std::uint32_t id;
  std::uint32_t type;
  std::string name;
  std::string path;
};

// Where CPrefs looks for things; tests point these at fixture trees.
struct PrefsSources {
  std::string localPrefsDir = host_paths::kLocalPrefsDir;
  std::string prefsFallbackDir = host_paths::kPrefsFallbackDir;
  std::string wtmp = host_paths::kWtmp;
  std::string utmp = host_paths::kUtmp;
  std::string logindSeats = host_paths::kLogindSeats;
  std::string selfExe = host_paths::kSelfExe;
  // The host folder behind each folder id that has one; a folder counts only
  // when it exists.
  std::map<std::uint32_t, std::string> folders;

  static PrefsSources defaults();
};

class CPrefs {
 public:
  static constexpr std::uint32_t kAppFolderId = fourCC("XXXY");
  static constexpr const char* kPasswordKey = "ebp=";
  static constexpr const char* kDbmsKey = "dbkey=";
  static constexpr const char* kLaunchBlockKey = "launchblock=";
  static constexpr std::size_t kLineLimit = 300;  // a value keeps at most 298 characters
  static constexpr int kNoteCount = 10;             // notes 0 to 9
  static constexpr std::size_t kMaxFileSize = 1 << 20;

  static CPrefs* makePrefs();
  explicit CPrefs(PrefsSources sources = PrefsSources::defaults());
  CPrefs(const CPrefs&) = delete;
  CPrefs& operator=(const CPrefs&) = delete;

  void init();

  int readPrefs();
  int writePrefs();
  // The file's "key value" lines into out; the first occurrence of a key wins.
  static void parsePrefs(const std::string& text, std::map<std::string, std::string>& out);

  int validatePassword(const std::string& given);
  int validatePassword(const char* given);
  int changePassword(std::string newPassword);
  int changePassword(const char* newPassword);
  int setDBMSKey(unsigned long key);
  int retrieveKey(unsigned long& key);
  int getBinaryPassword(std::string& text);

  int checkForUser();
  void findLastLogin();
  void setAppPath();

  void createLocationMap();
  int getLocationPath(const locationmap& row, std::string& path) const;
  int getFolderLocation(std::uint32_t id, std::string& path);
  void createLocationFile();
  void setLocationFile(std::string path) { locationFile_ = std::move(path); }

  int storeNotes(const char* text, int index, bool deferWrite);
  int retrieveNote(std::string& text, int index);

  // The 8 cipher bytes as 16 characters and back.
  static std::string convert2Binary(const std::uint8_t* cipher);
  static bool convertFromBinary(const std::string& text, std::uint8_t* cipher);

  std::uint32_t dbmsKey() const;
  std::string userName() const;
  int uid() const;
  int gid() const;
  std::string appPath() const;
  bool launchBlocked() const;
  const std::string& prefsPath() const { return prefsPath_; }
  const std::string& prefsFile() const { return prefsFile_; }

  static const std::vector<locationmap>& locationTable();

 private:
  std::string findPrefsPath() const;
  void createPrefsFolder(const std::string& parent);
  // Replaces the file with the current values; 0 or an errno. Caller holds mutex_.
  int writeLocked();
  void setUser(const std::string& name, int uid, int gid);

  PrefsSources sources_;
  // Workers, the probe and the login listener all touch these; the lock keeps
  // a change from tearing a string another thread is reading. Nothing is
  // logged while it is held.
  mutable std::mutex mutex_;
  int launchBlocked_ = 0;
  std::uint32_t dbmsKey_ = 0;
  std::string password_;
  std::string prefsPath_;
  std::string prefsFile_;
  std::string appPath_ = "/usr/bin/";
  std::string userName_;
  int uid_ = -1;
  int gid_ = -1;
  std::map<std::string, std::string> values_;
  std::map<std::int32_t, std::pair<std::string, std::string>> locations_;
  std::string locationFile_;
};

// The agent's one preferences object.
extern CPrefs* Prefs;
