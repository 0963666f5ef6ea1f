// Small helpers shared by the unit tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "core/vllog.h"
#include "session/record_sink.h"

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

// The message texts of a log, without their time stamps.
inline std::vector<std::string> messagesOf(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const auto sep = line.find(":   ");
    out.push_back(sep == std::string::npos ? line : line.substr(sep + 4));
  }
  return out;
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
  using B = std::uint8_t;
  return {B(code >> 8), B(code), 1, B(last), 0, 0, 0, 0, 0, 0, 0, 0, B(count >> 8), B(count)};
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

  std::vector<std::string> messages() const { return messagesOf(slurp(log_.path()).value_or("")); }
  bool contains(const std::string& message) const { return count(message) > 0; }
  long count(const std::string& message) const {
    const auto m = messages();
    return std::count(m.begin(), m.end(), message);
  }

 private:
  TempDir dir_;
  VLLog log_;
  VLLog* saved_;
};

}  // namespace test_support
