// Small helpers shared by the unit tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace test_support {

// A fresh directory under the test temp dir, removed with its contents.
struct TempDir {
  std::string path = ::testing::TempDir() + "varlo_test_XXXXXX";
  TempDir() { EXPECT_NE(mkdtemp(path.data()), nullptr); }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  std::string operator/(const std::string& name) const { return path + "/" + name; }
};

inline std::optional<std::string> slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

inline void spit(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

}  // namespace test_support
