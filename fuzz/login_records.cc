// utmp and wtmp records as read from the login record files. The console
// user and the last log-in are names of user-process records, without NUL,
// no longer than the record's name field, and never a pseudo-user; records
// past the last whole one change nothing.
#include <utmpx.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "prefs/login_records.h"

namespace {

// True when some whole user-process record of records carries name.
bool userRecordNamed(std::string_view records, const std::string& name, bool consoleLine) {
  utmpx rec;
  for (; records.size() >= sizeof rec; records.remove_prefix(sizeof rec)) {
    std::memcpy(&rec, records.data(), sizeof rec);
    if (rec.ut_type != USER_PROCESS) continue;
    if (std::string(rec.ut_user, strnlen(rec.ut_user, sizeof rec.ut_user)) != name) continue;
    const std::string line(rec.ut_line, strnlen(rec.ut_line, sizeof rec.ut_line));
    if (!consoleLine || LoginRecords::isConsoleLine(line)) return true;
  }
  return false;
}

void checkName(std::string_view records, const std::string& name, bool consoleLine) {
  if (name.size() > sizeof(utmpx::ut_user)) __builtin_trap();
  if (name.find('\0') != std::string::npos) __builtin_trap();
  if (!userRecordNamed(records, name, consoleLine)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view records(reinterpret_cast<const char*>(data), size);
  const std::string_view whole = records.substr(0, size - size % sizeof(utmpx));

  const std::string last = LoginRecords::lastLoginIn(records);
  if (!last.empty()) {
    checkName(records, last, false);
    if (last.find("shutdown") != std::string::npos || last.find("reboot") != std::string::npos)
      __builtin_trap();
  }
  if (LoginRecords::lastLoginIn(whole) != last) __builtin_trap();

  const auto user = LoginRecords::consoleUserInRecords(records);
  if (user) {
    if (user->empty()) __builtin_trap();
    checkName(records, *user, true);
  }
  if (LoginRecords::consoleUserInRecords(whole) != user) __builtin_trap();

  // The line test on the input's first bytes: a console line is ":N" or
  // "ttyN" with N from 1 to 63.
  const std::string line(records.substr(0, sizeof(utmpx::ut_line)));
  if (LoginRecords::isConsoleLine(line)) {
    const bool display = line.size() > 1 && line[0] == ':';
    const bool tty = line.size() >= 4 && line.size() <= 5 && line.compare(0, 3, "tty") == 0;
    if (!display && !tty) __builtin_trap();
    if (tty) {
      const int n = std::atoi(line.c_str() + 3);
      if (n < 1 || n > 63) __builtin_trap();
    }
  }
  return 0;
}
