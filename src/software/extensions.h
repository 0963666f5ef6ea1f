// Extensions (8): the kernel modules loaded now, with the version a module
// declares. Also a collector of the shared libraries in the library folders,
// which the command does not use.
#pragma once

#include <map>
#include <string>

#include "base/host_paths.h"
#include "base/host_roots.h"

class CExtensions {
 public:
  // The library folders enumLibrarys always searches, in this order.
  static const char* const libpaths[3];

  // libRoot is put in front of every library folder and of ld.so.conf when
  // they are opened (tests hand a fixture tree); the names logged and kept
  // are the host's.
  explicit CExtensions(HostRoots roots = {}, std::string libRoot = {})
      : roots_(std::move(roots)), libRoot_(std::move(libRoot)) {}
  CExtensions(const CExtensions&) = delete;
  CExtensions& operator=(const CExtensions&) = delete;

  // Loaded modules from PROC/modules, each with SYS/module/NAME/version
  // (empty when the module has none). No PROC/modules (a kernel without
  // modules) is an empty list; 0 either way.
  int enumKernelExtensions();

  // Every "*.dylib*" file in the library folders and those ld.so.conf names.
  int enumLibrarys();
  void findExtraLibPaths(std::map<std::string, bool>& paths);
  // The name (without a leading "lib") up to pos, the version from pos + 4.
  static void parseName(const std::string& file, std::size_t pos, std::string& name,
                        std::string& version);
  void searchIncludePath(const std::string& path, std::map<std::string, bool>& paths);

  void resetPtr() { cursor_ = extensions_.begin(); }
  // -1 at the end, else the pair under the cursor and 0.
  int getNextLibrary(std::string& name, std::string& version);

  const std::map<std::string, std::string>& extensions() const { return extensions_; }

  // Bounds on what is read of the module list.
  static constexpr std::size_t kMaxModulesSize = 4 * 1024 * 1024;

 private:
  HostRoots roots_;
  std::string libRoot_;
  std::map<std::string, std::string> extensions_;
  std::map<std::string, std::string>::iterator cursor_ = extensions_.begin();
};
