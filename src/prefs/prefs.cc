#include "prefs/prefs.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "prefs/login_records.h"
#include "base/unique_fd.h"
#include "base/small_file.h"
#include "base/util.h"
#include "core/vllog.h"

CPrefs* Prefs = CPrefs::makePrefs();

namespace {

constexpr std::int16_t kSystemDomain = -32766;
constexpr std::int16_t kLocalDomain = -32765;
constexpr std::int16_t kUserDomain = -32763;

std::string agentHome() {
  std::vector<char> buf(16384);
  passwd pw{};
  passwd* found = nullptr;
  if (getpwuid_r(geteuid(), &pw, buf.data(), buf.size(), &found) == 0 && found && pw.pw_dir) {
    return pw.pw_dir;
  }
  const char* home = std::getenv("HOME");
  return home ? home : "";
}

bool isDirectory(const std::string& path) {
  struct stat st{};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool writeAll(int fd, const std::string& data) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

std::string noteKey(int index) { return "Note" + std::to_string(index); }

}  // namespace

PrefsSources PrefsSources::defaults() {
  PrefsSources s;
  s.folders[fourCC("XXXX")] = "/";
  s.folders[fourCC("font")] = host_paths::kFontsFolder;
  s.folders[fourCC("strt")] = host_paths::kStartupItemsFolder;
  const std::string home = agentHome();
  if (!home.empty()) s.folders[fourCC("desk")] = home + "/Desktop/";
  return s;
}

const std::vector<locationmap>& CPrefs::locationTable() {
  // The console's folder ids. Some pairings look odd (three ids share one
  // folder type) but the console relies on them as they are.
  static const std::vector<locationmap> table = {
      {kSystemDomain, fourCC("XXXX"), fourCC("root"), "StartupVolume", ""},
      {kUserDomain, fourCC("desk"), fourCC("sdat"), "Desktop", ""},
      {kSystemDomain, fourCC("ctrl"), fourCC("ppan"), "ControlPanel", ""},
      {kSystemDomain, fourCC("extn"), fourCC("kext"), "Extension", ""},
      {kLocalDomain, fourCC("font"), fourCC("font"), "Fonts", ""},
      {kSystemDomain, fourCC("macs"), fourCC("macs"), "System", ""},
      {kSystemDomain, fourCC("pref"), fourCC("ppan"), "Preferences", ""},
      {kSystemDomain, fourCC("strt"), fourCC("empz"), "StartupItems", ""},
      {kUserDomain, fourCC("shdf"), fourCC("sdat"), "ShutdownItems", ""},
      {kUserDomain, fourCC("amnu"), fourCC("sdat"), "AppleMenu", ""},
  };
  return table;
}

CPrefs* CPrefs::makePrefs() {
  static CPrefs instance;
  return &instance;
}

CPrefs::CPrefs(PrefsSources sources) : sources_(std::move(sources)) {}

void CPrefs::init() {
  createPrefsFolder(findPrefsPath());
  prefsFile_ = prefsPath_ + "/.varlo";

  utsname un{};
  const std::string machine = uname(&un) == 0 ? un.machine : "unknown";
  Log->LogMessage("Linux Varlo running on " + machine + " architecture.");

  createLocationMap();

  if (readPrefs() == 0) {
    std::string ebp;
    if (getBinaryPassword(ebp) == 0) {
      std::uint8_t cipher[8] = {};
      convertFromBinary(ebp, cipher);
      char plain[8] = {};
      Util::Decrypt(reinterpret_cast<const char*>(cipher), plain, 8);
      // Eight bytes with no zero among them are an eight-character password.
      std::lock_guard<std::mutex> lock(mutex_);
      password_.assign(plain, strnlen(plain, sizeof plain));
    }
    unsigned long key = 0;
    retrieveKey(key);
    std::lock_guard<std::mutex> lock(mutex_);
    dbmsKey_ = static_cast<std::uint32_t>(key);
    auto block = values_.find(kLaunchBlockKey);
    launchBlocked_ = (block != values_.end() && block->second == "1") ? 1 : 0;
  }

  setAppPath();

  if (checkForUser() == 0) findLastLogin();
}

std::string CPrefs::findPrefsPath() const {
  if (isDirectory(sources_.localPrefsDir)) return sources_.localPrefsDir;
  return sources_.prefsFallbackDir;
}

void CPrefs::createPrefsFolder(const std::string& parent) {
  const std::string folder = parent + "/VarloPrefs";
  if (Util::makeDir(folder, false) == 0 && isDirectory(folder)) {
    // The file holds the password: only root may look inside.
    chmod(folder.c_str(), 0700);
    prefsPath_ = folder;
  } else {
    prefsPath_ = parent;
  }
}

int CPrefs::readPrefs() {
  const auto text = readSmallFile(prefsFile_, kMaxFileSize);
  if (!text) {
    Log->LogMessage("Could not open preferences file");
    return -1;
  }
  std::map<std::string, std::string> read;
  parsePrefs(*text, read);
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [key, value] : read) values_.emplace(key, value);
  return 0;
}

void CPrefs::parsePrefs(const std::string& text, std::map<std::string, std::string>& out) {
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    // A file edited on another system ends its lines in "\r\n".
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::size_t keyStart = line.find_first_not_of(" \t\r\f\v");
    if (keyStart == std::string::npos) continue;
    std::size_t keyEnd = line.find_first_of(" \t\r\f\v", keyStart);
    if (keyEnd == std::string::npos) keyEnd = line.size();
    std::string key = line.substr(keyStart, keyEnd - keyStart);
    // The rest of the line within the reader's limit, less the separator;
    // an overlong line loses its tail, never the lines after it.
    std::string rest = line.substr(keyEnd, kLineLimit - 1);
    std::string value = rest.empty() ? std::string() : rest.substr(1);
    out.emplace(std::move(key), std::move(value));  // the first occurrence wins
  }
}

int CPrefs::writeLocked() {
  std::string text;
  for (const auto& [key, value] : values_) {
    std::string oneLine = value;
    // A line break inside a value would forge a line of its own.
    std::replace(oneLine.begin(), oneLine.end(), '\n', ' ');
    std::replace(oneLine.begin(), oneLine.end(), '\r', ' ');
    text += key + " " + oneLine + "\n";
  }

  // Written beside the file and renamed over it, so a crash or a full disk
  // leaves either the old file or the new one, never a torn one.
  std::string tmp = prefsFile_ + ".XXXXXX";
  UniqueFd fd(mkostemp(tmp.data(), O_CLOEXEC));
  if (!fd.valid()) return errno;
  int err = 0;
  if (fchmod(fd.get(), 0600) != 0 || !writeAll(fd.get(), text) || fsync(fd.get()) != 0) {
    err = errno ? errno : EIO;
  }
  if (err == 0 && close(fd.release()) != 0) err = errno;
  if (err == 0 && rename(tmp.c_str(), prefsFile_.c_str()) != 0) err = errno;
  if (err != 0) {
    unlink(tmp.c_str());
    return err;
  }
  UniqueFd dir(open(prefsPath_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.valid()) fsync(dir.get());
  return 0;
}

int CPrefs::writePrefs() {
  int err;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    err = writeLocked();
  }
  if (err != 0) {
    Log->LogMessage("Unable to open preferences file for writing");
    return -1;
  }
  return 0;
}

int CPrefs::validatePassword(const std::string& given) {
  bool valid;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    valid = given == password_;
  }
  if (valid) return 1;
  Log->LogMessage("Password did not validate!");
  return 0;
}

int CPrefs::validatePassword(const char* given) {
  return validatePassword(std::string(given ? given : ""));
}

int CPrefs::changePassword(std::string newPassword) {
  // The stored form holds the first eight bytes, zero-padded.
  char plain[8] = {};
  std::memcpy(plain, newPassword.data(), std::min<std::size_t>(newPassword.size(), 8));
  std::uint8_t cipher[8];
  Util::Encrypt(plain, reinterpret_cast<char*>(cipher), 8);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    password_ = std::move(newPassword);
    values_[kPasswordKey] = convert2Binary(cipher);
  }
  const int result = writePrefs();
  Log->LogMessage(result == 0 ? "Password Change Successful" : "Password Change Failed");
  return result;
}

int CPrefs::changePassword(const char* newPassword) {
  return changePassword(std::string(newPassword ? newPassword : ""));
}

int CPrefs::setDBMSKey(unsigned long key) {
  const auto key32 = static_cast<std::uint32_t>(key);  // the console's key is 32 bits wide
  {
    std::lock_guard<std::mutex> lock(mutex_);
    values_[kDbmsKey] = std::to_string(key32);
    dbmsKey_ = key32;
  }
  if (writePrefs() != 0) {
    Log->LogMessage("Unable to set the DBMS Key");
    return -1;
  }
  Log->LogMessage("DBMS Key was set successfully");
  return 0;
}

int CPrefs::retrieveKey(unsigned long& key) {
  key = 0;
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = values_.find(kDbmsKey);
  if (it == values_.end()) return -1;
  std::uint32_t parsed = 0;
  const std::string& text = it->second;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (ec != std::errc() || end == text.data()) return -1;
  key = parsed;
  return 0;
}

int CPrefs::getBinaryPassword(std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = values_.find(kPasswordKey);
  if (it == values_.end()) return -1;
  text = it->second;
  return 0;
}

std::string CPrefs::convert2Binary(const std::uint8_t* cipher) {
  std::string text;
  for (int i = 0; i < 8; ++i) {
    // The high nibble is taken with the sign, so 8..15 become '(' to '/'.
    const int high = static_cast<std::int8_t>(cipher[i]) >> 4;
    text += static_cast<char>(0x30 + high);
    text += static_cast<char>(0x30 + (cipher[i] & 0x0F));
  }
  return text;
}

bool CPrefs::convertFromBinary(const std::string& text, std::uint8_t* cipher) {
  for (std::size_t i = 0; i < 8; ++i) {
    if (2 * i + 1 >= text.size()) {
      cipher[i] = 0;
      continue;
    }
    const int high = static_cast<unsigned char>(text[2 * i]) - 0x30;
    const int low = static_cast<unsigned char>(text[2 * i + 1]) - 0x30;
    cipher[i] = static_cast<std::uint8_t>((high << 4) | low);
  }
  return text.size() >= 16;
}

void CPrefs::setUser(const std::string& name, int uid, int gid) {
  std::lock_guard<std::mutex> lock(mutex_);
  userName_ = name;
  uid_ = uid;
  gid_ = gid;
}

int CPrefs::checkForUser() {
  const auto user = LoginRecords::findConsoleUser(sources_.logindSeats, sources_.utmp);
  if (!user) return 0;
  const bool ascii = user->name.size() < 128 &&
                     std::all_of(user->name.begin(), user->name.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (!ascii) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      uid_ = user->uid;
      gid_ = user->gid;
    }
    Log->LogMessage("Unable to get current username.");
    return 1;
  }
  setUser(user->name, user->uid, user->gid);
  return 1;
}

void CPrefs::findLastLogin() {
  std::string name = LoginRecords::lastLogin(sources_.wtmp);
  if (name.size() > 32) name.clear();
  std::lock_guard<std::mutex> lock(mutex_);
  userName_ = name;
}

void CPrefs::setAppPath() {
  std::string path = "/Applications/";
  char exe[4096];
  const ssize_t n = readlink(sources_.selfExe.c_str(), exe, sizeof exe - 1);
  if (n <= 0) {
    Log->LogMessage("Unable to get Varlo path.");
  } else {
    const std::string full(exe, static_cast<std::size_t>(n));
    path = full.substr(0, full.rfind('/') + 1);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  appPath_ = path;
}

void CPrefs::createLocationMap() {
  for (const locationmap& row : locationTable()) {
    std::string path;
    if (!getLocationPath(row, path)) {
      Log->LogMessage("Unable to find folder path for folder " + row.name);
      path = "/tmp/";
    }
    locations_[static_cast<std::int32_t>(row.id)] = {row.name, path};
  }
}

int CPrefs::getLocationPath(const locationmap& row, std::string& path) const {
  auto it = sources_.folders.find(row.id);
  if (it == sources_.folders.end() || !isDirectory(it->second)) return 0;
  path = it->second;
  if (path.empty() || path.back() != '/') path += '/';
  return 1;
}

int CPrefs::getFolderLocation(std::uint32_t id, std::string& path) {
  if (id == kAppFolderId) {
    path = appPath();
    return 0;
  }
  auto it = locations_.find(static_cast<std::int32_t>(id));
  if (it == locations_.end()) {
    const std::string message = "Could not find folder with ID " + std::to_string(id);
    Log->LogMessage(message);
    throw message;
  }
  path = it->second.second;
  return 0;
}

void CPrefs::createLocationFile() {
  Log->LogMessage("Checking for existance of location mapping file");
  struct stat st{};
  if (stat(locationFile_.c_str(), &st) == 0) {
    Log->LogMessage("Location mapping file exists");
    return;
  }
  Log->LogMessage("Error opening " + locationFile_ + " Error: " + std::to_string(errno));
  Log->LogMessage("Creating default location file");
  std::ofstream out(locationFile_, std::ios::out | std::ios::trunc);
  if (!out.is_open()) {
    Log->LogMessage("Could not create file!");
    return;
  }
  for (const auto& [id, entry] : locations_) out << entry.first << '\t' << entry.second << '\n';
}

int CPrefs::storeNotes(const char* text, int index, bool deferWrite) {
  if (text == nullptr) return -1;
  // The console keeps ten notes; any other index would only grow the file.
  if (*text != '\0' && (index < 0 || index >= kNoteCount)) {
    Log->LogMessage("Note index " + std::to_string(index) + " is out of range, note not stored");
  } else if (*text != '\0') {
    // An empty text leaves the note as it was: notes are never deleted.
    std::lock_guard<std::mutex> lock(mutex_);
    values_[noteKey(index)] = text;
  }
  if (!deferWrite) {
    Log->LogMessage(writePrefs() == 0 ? "Successfully wrote notes to file"
                                      : "Failed to write notes to file");
  }
  return 0;
}

int CPrefs::retrieveNote(std::string& text, int index) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = values_.find(noteKey(index));
  if (it == values_.end()) return -1;
  text = it->second;
  return 0;
}

std::uint32_t CPrefs::dbmsKey() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return dbmsKey_;
}

std::string CPrefs::userName() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return userName_;
}

int CPrefs::uid() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return uid_;
}

int CPrefs::gid() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return gid_;
}

std::string CPrefs::appPath() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return appPath_;
}

bool CPrefs::launchBlocked() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return launchBlocked_ != 0;
}
