// Small helpers shared by the unit tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <cstdint>
#include <fstream>
#include <limits>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "session/record_sink.h"
#include "core/vllog.h"

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

// Keeps every block a reply hands over; refuses the block numbered refuseAt.
struct BlockRecorder {
  std::size_t refuseAt = std::numeric_limits<std::size_t>::max();
  std::vector<std::vector<std::uint8_t>> blocks;
  std::size_t calls = 0;
  RecordSink sink() {
    return [this](const std::uint8_t* data, std::size_t len) {
      if (calls++ == refuseAt) return -1;
      blocks.emplace_back(data, data + len);
      return 0;
    };
  }
};

// A list header as the console reads it, written out byte by byte.
inline std::vector<std::uint8_t> listHeader(int code, int last, int count) {
  std::vector<std::uint8_t> h(14, 0);
  h[0] = static_cast<std::uint8_t>(code >> 8);
  h[1] = static_cast<std::uint8_t>(code);
  h[2] = 1;
  h[3] = static_cast<std::uint8_t>(last);
  h[12] = static_cast<std::uint8_t>(count >> 8);
  h[13] = static_cast<std::uint8_t>(count);
  return h;
}

// Points the process-wide log at a file of the test's own for its lifetime.
class LogCapture {
 public:
  LogCapture() : log_(dir_.path, dir_.path), saved_(Log) {
    EXPECT_EQ(log_.init(), 0);
    Log = &log_;
  }
  ~LogCapture() { Log = saved_; }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The message texts so far, without their time stamps.
  std::vector<std::string> messages() const {
    std::vector<std::string> out;
    std::istringstream lines(slurp(log_.path()).value_or(""));
    for (std::string line; std::getline(lines, line);) {
      const auto sep = line.find(":   ");
      out.push_back(sep == std::string::npos ? line : line.substr(sep + 4));
    }
    return out;
  }

  bool contains(const std::string& message) const {
    for (const auto& m : messages())
      if (m == message) return true;
    return false;
  }

 private:
  TempDir dir_;
  VLLog log_;
  VLLog* saved_;
};

}  // namespace test_support
