// Hosts for the applications tests: a dpkg root built from text, and a
// stand-in rpm that prints a given listing over a tree of files.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "software/app_sources.h"
#include "test_support.h"

namespace app_fixtures {

// A file of the given mode under root, its folders made as needed.
inline void putFile(const std::string& root, const std::string& path, mode_t mode,
                    const std::string& text = "") {
  const std::string full = root + path;
  std::filesystem::create_directories(std::filesystem::path(full).parent_path());
  test_support::spit(full, text);
  EXPECT_EQ(::chmod(full.c_str(), mode), 0) << full;
}

// Sources where neither dpkg nor rpm exists and no folder is searched.
inline AppSources nowhere(const test_support::TempDir& dir) {
  AppSources s;
  s.dpkgRoot = dir / "no-dpkg";
  s.searchPath = dir / "no-bin";
  s.exeDirs = {};
  return s;
}

// An rpm on its own search path: it saves its last argument (the query
// format) in dir/format and prints listing; every path listed after
// executables exists under dir/files with mode 0755.
struct FakeRpm {
  test_support::TempDir dir;

  explicit FakeRpm(const std::string& listing, const std::vector<std::string>& executables = {},
                   const std::string& tail = "") {
    std::filesystem::create_directories(dir / "bin");
    test_support::spit(dir / "listing", listing);
    putFile(dir.path, "/bin/rpm", 0755,
            "#!/bin/sh\n"
            "[ $# = 4 ] && [ \"$1 $2 $3\" = \"--query --all --queryformat\" ] || exit 3\n"
            "printf '%s' \"$4\" > '" + dir / "format" + "'\n"
            "cat '" + dir / "listing" + "'\n" + tail);
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
