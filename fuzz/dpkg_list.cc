// A dpkg list file. The package is listed once exactly when one of its
// words names a regular file with an execute bit, however the words are
// ordered, repeated, cut or mixed with binary bytes; a word holding a NUL
// names nothing. The package name of any path has no ':' or '/'.
#include <stdlib.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "core/vllog.h"
#include "software/apps.h"

namespace {

std::string root;

void put(const std::string& path, mode_t mode) {
  std::filesystem::create_directories(std::filesystem::path(root + "/files" + path).parent_path());
  std::ofstream(root + "/files" + path) << "x";
  chmod((root + "/files" + path).c_str(), mode);
}

// What a plain stat of each word says.
bool ownsProgram(const std::string& text) {
  std::istringstream in(text);
  std::string word;
  while (in >> word) {
    if (word.size() > 4096 || word.find('\0') != std::string::npos) continue;
    struct stat st {};
    if (stat((root + "/files" + word).c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        (st.st_mode & 0111) != 0)
      return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char dir[] = "/tmp/fuzz_dpkg_list_XXXXXX";
  if (mkdtemp(dir) == nullptr) __builtin_trap();
  root = dir;
  Log = new VLLog(root, root);
  Log->init();
  std::filesystem::create_directories(root + "/info");
  put("/usr/bin/run", 0755);
  put("/usr/share/run.sh", 0700);
  put("/usr/bin/doc", 0644);
  put("/usr/lib/x/libexec/helper", 0711);
  std::filesystem::create_directories(root + "/files/usr/sbin/dir");
  atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  const std::string name = CApps::packageOfListFile(text);
  if (name.find_first_of(":/") != std::string::npos) __builtin_trap();
  if (!name.empty() && text.find(name) == std::string::npos) __builtin_trap();

  const std::string list = root + "/info/pkg:amd64.list";
  std::ofstream(list, std::ios::binary | std::ios::trunc) << text;
  AppSources sources;
  sources.dpkgRoot = root;
  sources.filesRoot = root + "/files";
  sources.searchPath = "";
  sources.exeDirs = {};
  CApps apps({}, sources);
  if (apps.processListFile(list) != 0) __builtin_trap();
  const auto& added = apps.added();
  if (added.size() != (ownsProgram(text) ? 1u : 0u)) __builtin_trap();
  if (!added.empty() && (added.begin()->first != "pkg" || !added.begin()->second.empty()))
    __builtin_trap();
  return 0;
}
