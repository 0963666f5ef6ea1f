// Who is at the console, and who logged in last: read from logind where it
// runs, else from the utmp and wtmp login records.
#pragma once

#include <optional>
#include <string>
#include <vector>
#include <string_view>

struct ConsoleUser {
  std::string name;
  int uid = -1;
  int gid = -1;
};

class LoginRecords {
 public:
  // logind's seat folder exists only where systemd-logind runs.
  static std::optional<ConsoleUser> findConsoleUser(const std::string& seatsDir,
                                                    const std::string& utmpPath);

  // The active session of seat0.
  static std::optional<ConsoleUser> consoleUserFromLogind();

  // The newest user session in utmp on a console line: a virtual terminal
  // (tty1..tty63) or an X display (":N").
  static std::optional<ConsoleUser> consoleUserFromUtmp(const std::string& utmpPath);

  // The user of the newest log-in in wtmp, or "" when there is none. Among
  // equal times the first wins.
  static std::string lastLogin(const std::string& wtmpPath);

  // The same two from records already read (utmpx records back to back; a
  // torn last record is ignored). The console user is given by name only.
  static std::optional<std::string> consoleUserInRecords(std::string_view records);
  static std::string lastLoginIn(std::string_view records);

  static bool isConsoleLine(const std::string& line);

  // The terminal lines ("pts/3", "tty1") of the user's sessions in utmp.
  static std::vector<std::string> terminalsOf(const std::string& utmpPath, const std::string& user);
};
