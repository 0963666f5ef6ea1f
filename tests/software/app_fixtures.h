// Hosts for the applications tests: files of a given mode, and a stand-in
// rpm that prints a given listing over a tree of files.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "software/app_sources.h"
#include "test_support.h"

namespace app_fixtures {

// A file of the given mode under root, its folders made as needed.
inline void putFile(const std::string& root, const std::string& path, mode_t mode,
                    const std::string& text = "") {
  std::filesystem::create_directories(std::filesystem::path(root + path).parent_path());
  test_support::spit(root + path, text);
  EXPECT_EQ(::chmod((root + path).c_str(), mode), 0) << path;
}

// Sources where neither dpkg nor rpm exists and no folder is searched.
inline AppSources nowhere(const test_support::TempDir& dir) {
  return {.dpkgRoot = dir / "no-dpkg", .filesRoot = "", .exeDirs = {},
          .searchPath = dir / "no-bin", .rpmName = "rpm"};
}

// An rpm on its own search path that answers only `rpm --query --all
// --queryformat F`: it saves F in dir/format and prints listing, then runs
// tail. Every path in executables exists under dir/files with mode 0755.
struct FakeRpm {
  test_support::TempDir dir;

  explicit FakeRpm(const std::string& listing, const std::vector<std::string>& executables = {},
                   const std::string& tail = "") {
    test_support::spit(dir / "listing", listing);
    putFile(dir.path, "/bin/rpm", 0755,
            "#!/bin/sh\n[ \"$#: $1 $2 $3\" = \"4: --query --all --queryformat\" ] || exit 3\n"
            "printf %s \"$4\" > '" + dir / "format" + "'\ncat '" + dir / "listing" + "'\n" + tail);
    for (const std::string& exe : executables) putFile(dir / "files", exe, 0755);
  }

  AppSources sources() const {
    AppSources s = nowhere(dir);
    s.searchPath = dir / "empty-bin" + ":" + dir / "bin";
    s.filesRoot = dir / "files";
    return s;
  }
};

}  // namespace app_fixtures
