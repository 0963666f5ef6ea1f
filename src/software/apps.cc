#include "software/apps.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string_view>
#include <system_error>

#include "base/dir_handle.h"
#include "base/util.h"
#include "core/vllog.h"
#include "software/child_output.h"
#include "software/word_reader.h"

namespace {

// Longer words are no path (PATH_MAX) and no package name anyone installs.
constexpr std::size_t kMaxListWord = 4096;
constexpr std::size_t kMaxStatusWord = 4096;
// rpm's words were read 499 characters at most.
constexpr std::size_t kMaxRpmWord = 499;

// A word that cannot name a file as it stands: cut by the reader, or
// holding a NUL that would make stat look at a shorter path.
bool unusablePath(const std::string& word, std::size_t maxWord) {
  return word.size() > maxWord || word.find('\0') != std::string::npos;
}

// A path in a bin, sbin or libexec folder, where most packages keep their
// programs.
bool inProgramFolder(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return false;
  const std::string_view dir(path.data(), slash);
  return dir.ends_with("/bin") || dir.ends_with("/sbin") ||
         path.find("/libexec/") != std::string::npos;
}

}  // namespace

CApps::CApps(std::stop_token stop, AppSources sources)
    : sources_(std::move(sources)),
      outerStop_(std::move(stop), [this] { ownStop_.request_stop(); }),
      wakeOnStop_(ownStop_.get_token(), [this] { semaphore_.semUp(); }),
      stop_(ownStop_.get_token()) {}

CApps::~CApps() {
  ownStop_.request_stop();
  if (threadStarted_) thread_.join();
}

int CApps::startThread(CApps& apps) {
  try {
    apps.thread_ = Thread([&apps] { start(&apps); });
  } catch (const std::system_error& e) {
    Log->LogMessage("Unable to create application thread.  Error: " +
                    std::to_string(e.code().value()));
    return -1;
  }
  apps.threadStarted_ = true;
  return 0;
}

void* CApps::start(void* arg) {
  if (arg == nullptr) return nullptr;
  static_cast<CApps*>(arg)->findApps();
  return arg;
}

int CApps::findApps() {
  Log->LogMessage("Starting findApps");
  if (getAppsList() != 0) {
    for (const std::string& dir : sources_.exeDirs) findExeinDir(dir);
  }
  Log->LogMessage("Finished findApps");
  semaphore_.semUp();
  return 0;
}

int CApps::getAppsList() {
  struct stat st {};
  if (::stat((sources_.dpkgRoot + "/status").c_str(), &st) == 0) return getDpkgList();
  if (!findOnSearchPath(sources_.rpmName).empty()) return getRPMList();
  return -1;
}

bool CApps::hasPair(const std::string& name, const std::string& version) const {
  const auto [first, last] = apps_.equal_range(name);
  for (auto it = first; it != last; ++it)
    if (it->second == version) return true;
  return false;
}

void CApps::addApp(const std::string& name, const std::string& version) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (hasPair(name, version)) return;
    apps_.emplace(name, version);
    queue_.emplace_back(name, version);
  }
  semaphore_.semUp();
}

int CApps::getNextApp(std::string& name, std::string& version) {
  if (stop_.stop_requested()) return 1;
  // A stop raises the semaphore too, so this wait always ends.
  semaphore_.semDown();
  if (stop_.stop_requested()) return 1;
  std::lock_guard<std::mutex> lock(mutex_);
  if (queue_.empty()) return 1;
  name = std::move(queue_.front().first);
  version = std::move(queue_.front().second);
  queue_.pop_front();
  return 0;
}

void CApps::resetPtr() {
  std::size_t queued = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.clear();
    for (const auto& pair : apps_) queue_.push_back(pair);
    queued = queue_.size();
  }
  for (std::size_t i = 0; i < queued; ++i) semaphore_.semUp();
  if (queued > 0) semaphore_.semUp();
}

int CApps::findExeinDir(std::string dir) {
  DirHandle handle;
  try {
    handle.reset(Util::openDir(dir));
  } catch (const std::string& message) {
    Log->LogMessage(message);
    return -1;
  }
  std::string name;
  while (!stop_.stop_requested() && Util::getNextFile(handle.get(), name) == 0) {
    if (name == "." || name == "..") continue;
    const std::string path = dir + "/" + name;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || (st.st_mode & S_IXUSR) == 0) continue;
    addApp(path, "");
  }
  return 0;
}

CApps::PathKind CApps::kindOf(const std::string& hostPath) {
  const auto known = seen_.find(hostPath);
  if (known != seen_.end()) return known->second ? PathKind::kExecutable : PathKind::kOther;
  const std::string path = sources_.filesRoot + hostPath;
  struct stat st {};
  PathKind kind = PathKind::kOther;
  if (folders_.stat(path, st) == 0 && S_ISREG(st.st_mode))
    kind = (st.st_mode & 0111) != 0 ? PathKind::kExecutable : PathKind::kPlainFile;
  // A plain file belongs to one package; folders and links to programs
  // recur in many lists.
  if (kind != PathKind::kPlainFile) seen_.emplace(hostPath, kind == PathKind::kExecutable);
  return kind;
}

std::string CApps::findOnSearchPath(const std::string& program) const {
  if (program.find('/') != std::string::npos) return program;
  std::size_t start = 0;
  const std::string& search = sources_.searchPath;
  while (start <= search.size()) {
    std::size_t end = search.find(':', start);
    if (end == std::string::npos) end = search.size();
    const std::string dir = search.substr(start, end - start);
    start = end + 1;
    if (dir.empty()) continue;  // no current folder: the agent's is "/"
    const std::string candidate = dir + "/" + program;
    struct stat st {};
    if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        ::access(candidate.c_str(), X_OK) == 0)
      return candidate;
  }
  return {};
}

int CApps::getRPMList() {
  const std::string program = findOnSearchPath(sources_.rpmName);
  ChildOutput child;
  const int error = program.empty() ? ENOENT
                                    : child.spawn(program, {sources_.rpmName, "--query", "--all",
                                                            "--queryformat",
                                                            "App: %{Name} %{Version}\n[%{Filenames}\n]"});
  if (error != 0) {
    Log->LogMessage("Could not run rpm command. Error: " + std::to_string(error));
    return -1;
  }
  WordReader words(std::move(child.output()), kMaxRpmWord, stop_);
  std::string word, version, unused;
  while (words.next(word)) {
    if (word == "App:") {
      if (!words.next(unused) || !words.next(version)) break;
      continue;
    }
    if (unusablePath(word, kMaxRpmWord)) continue;
    if (word.substr(0, 5).find("/usr") == std::string::npos) continue;
    if (Util::isNonExeFile(word)) continue;
    if (kindOf(word) == PathKind::kExecutable) addApp(word, version);
  }
  if (words.error() != 0)
    Log->LogMessage("Error reading the rpm list. Error: " + std::to_string(words.error()));
  // On a stop the child is killed rather than waited for.
  if (!stop_.stop_requested()) {
    words = WordReader(UniqueFd(), kMaxRpmWord);  // a writer still going gets SIGPIPE
    child.wait();
  }
  return 0;
}

int CApps::getDpkgList() {
  const std::string info = sources_.dpkgRoot + "/info";
  DirHandle handle;
  try {
    handle.reset(Util::openDir(info));
  } catch (const std::string& message) {
    Log->LogMessage(message);
    return -1;
  }
  versions_.clear();
  createVersionList(versions_);
  std::string name;
  while (!stop_.stop_requested() && Util::getNextFile(handle.get(), name) == 0) {
    if (name.find(".list") != std::string::npos) processListFile(info + "/" + name);
  }
  return 0;
}

void CApps::createVersionList(std::map<std::string, std::string>& versions) {
  const std::string path = sources_.dpkgRoot + "/status";
  WordReader words = WordReader::openFile(path, kMaxStatusWord, stop_);
  if (!words.valid()) {
    Log->LogMessage("Unable to open dpkg status file: " + path);
    return;
  }
  std::string word, name;
  std::string version = "0";
  bool pending = false;
  while (words.next(word)) {
    if (word == "Package:") {
      if (pending) versions[name] = "0";
      // A "Package:" that ends the file names nothing.
      pending = words.next(name);
    } else if (word == "Version:" && pending) {
      if (!words.next(word)) break;  // the version held stays for the end
      version = word;
      versions[name] = version;
      pending = false;
    }
  }
  // Unlike a package followed by another, the last one without a version
  // takes the version read before it.
  if (pending) versions[name] = version;
  if (words.error() != 0)
    Log->LogMessage("Error reading dpkg status file: " + path + " Error: " +
                    std::to_string(words.error()));
}

std::string CApps::packageOfListFile(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::size_t dot = path.rfind('.');
  if (slash == std::string::npos || dot == std::string::npos || dot < slash) return {};
  std::string name = path.substr(slash + 1, dot - slash - 1);
  // Multi-arch lists are named PACKAGE:ARCH; the status file knows PACKAGE.
  const std::size_t colon = name.find(':');
  if (colon != std::string::npos) name.resize(colon);
  return name;
}

int CApps::processListFile(const std::string& path) {
  const std::string name = packageOfListFile(path);
  const auto known = versions_.find(name);
  const std::string version = known == versions_.end() ? std::string() : known->second;
  // Listed already (another architecture's list of it): nothing here can
  // add to the answer.
  if (hasPair(name, version)) return 0;

  WordReader words = WordReader::openFile(path, kMaxListWord, stop_);
  if (!words.valid()) {
    Log->LogMessage("Unable to open file " + path);
    return -1;
  }
  // Where a package keeps its programs is looked at first: once one of them
  // is found the rest need no stat, and the order cannot change the answer.
  std::string word;
  for (const bool firstPass : {true, false}) {
    if (!firstPass && !words.rewind()) break;
    while (words.next(word)) {
      if (unusablePath(word, kMaxListWord) || inProgramFolder(word) != firstPass) continue;
      if (kindOf(word) == PathKind::kExecutable) {
        addApp(name, version);
        return 0;  // every further executable would give the same pair
      }
    }
    if (words.error() != 0) {
      Log->LogMessage("Error reading file " + path + " Error: " + std::to_string(words.error()));
      break;
    }
  }
  return 0;
}
