// The dpkg status file. Whatever the bytes, the versions read are those a
// plain word-by-word reading of the stanzas gives: a package followed by
// another before its Version gets "0", one still waiting at the end gets
// the version read last.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "core/vllog.h"
#include "software/apps.h"

namespace {

std::string root;
VLLog* fuzzLog = nullptr;

std::map<std::string, std::string> reference(const std::string& text) {
  std::istringstream in(text);
  std::map<std::string, std::string> versions;
  std::string word, name, version = "0";
  bool pending = false;
  while (in >> word) {
    if (word == "Package:") {
      if (pending) versions[name] = "0";
      pending = static_cast<bool>(in >> name);
    } else if (word == "Version:" && pending) {
      std::string v;
      if (!(in >> v)) break;
      version = v;
      versions[name] = version;
      pending = false;
    }
  }
  if (pending) versions[name] = version;
  return versions;
}

bool hasLongWord(const std::string& text, std::size_t limit) {
  std::istringstream in(text);
  std::string word;
  while (in >> word)
    if (word.size() > limit) return true;
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char dir[] = "/tmp/fuzz_dpkg_status_XXXXXX";
  if (mkdtemp(dir) == nullptr) __builtin_trap();
  root = dir;
  fuzzLog = new VLLog(root, root);
  fuzzLog->init();
  Log = fuzzLog;
  atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::ofstream(root + "/status", std::ios::binary | std::ios::trunc) << text;
  AppSources sources;
  sources.dpkgRoot = root;
  sources.searchPath = "";
  sources.exeDirs = {};
  CApps apps({}, sources);
  std::map<std::string, std::string> versions;
  apps.createVersionList(versions);

  for (const auto& [name, version] : versions) {
    if (name.empty() || version.empty()) __builtin_trap();
    if (name.size() > 4097 || version.size() > 4097) __builtin_trap();
  }
  // Words past the reader's bound are cut; every other input reads alike.
  if (!hasLongWord(text, 4096) && versions != reference(text)) __builtin_trap();
  return 0;
}
