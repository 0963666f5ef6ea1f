// PLACEHOLDER until the bounded probe lands.
#pragma once
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <cerrno>
#include <stop_token>
#include <string>
class CMountProbe {
 public:
  enum class Status { kOk, kError, kUnreachable };
  template <typename T> struct Answer { Status status; T value; int error; };
  static CMountProbe& instance() { static CMountProbe p; return p; }
  Answer<struct stat> stat(const std::string& path, std::stop_token = {}) {
    struct stat st{}; if (::stat(path.c_str(), &st) != 0) return {Status::kError, st, errno}; return {Status::kOk, st, 0}; }
  Answer<struct statvfs> statvfs(const std::string& path, std::stop_token = {}) {
    struct statvfs st{}; if (::statvfs(path.c_str(), &st) != 0) return {Status::kError, st, errno}; return {Status::kOk, st, 0}; }
};
