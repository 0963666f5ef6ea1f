#include "prefs/login_records.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <systemd/sd-login.h>
#include <utmpx.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "base/unique_fd.h"

namespace {

// glibc's utmpx functions keep one process-wide cursor and take their file
// lock under SIGALRM; the probe and the login listener run on different
// threads, so the records are read straight from the file instead.
void forEachRecord(const std::string& path, const std::function<void(const utmpx&)>& visit) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return;
  utmpx rec;
  for (;;) {
    std::size_t got = 0;
    auto* bytes = reinterpret_cast<char*>(&rec);
    while (got < sizeof rec) {
      const ssize_t n = read(fd.get(), bytes + got, sizeof rec - got);
      if (n <= 0) return;  // end of file, a torn last record, or an error
      got += static_cast<std::size_t>(n);
    }
    visit(rec);
  }
}

void forEachRecordIn(std::string_view records, const std::function<void(const utmpx&)>& visit) {
  utmpx rec;
  for (; records.size() >= sizeof rec; records.remove_prefix(sizeof rec)) {
    std::memcpy(&rec, records.data(), sizeof rec);
    visit(rec);
  }
}

std::string userOf(const utmpx& rec) {
  return std::string(rec.ut_user, strnlen(rec.ut_user, sizeof rec.ut_user));
}

// The newest user session on a console line among the records visited.
struct NewestConsoleUser {
  std::optional<std::string> newest;
  long long newestTime = 0;

  void operator()(const utmpx& rec) {
    if (rec.ut_type != USER_PROCESS) return;
    const std::string line(rec.ut_line, strnlen(rec.ut_line, sizeof rec.ut_line));
    const std::string name = userOf(rec);
    if (name.empty() || !LoginRecords::isConsoleLine(line)) return;
    const long long when = static_cast<long long>(rec.ut_tv.tv_sec) * 1000000 + rec.ut_tv.tv_usec;
    if (!newest || when > newestTime) {
      newest = name;
      newestTime = when;
    }
  }
};

// The user of the newest log-in among the records visited.
struct NewestLogin {
  std::string newest;
  long long newestTime = -1;

  void operator()(const utmpx& rec) {
    // Log-outs, boot and run-level records carry no user who logged in.
    if (rec.ut_type != USER_PROCESS) return;
    const std::string name = userOf(rec);
    if (name.empty() || name.find("shutdown") != std::string::npos ||
        name.find("reboot") != std::string::npos) {
      return;
    }
    if (rec.ut_tv.tv_sec > newestTime) {
      newest = name;
      newestTime = rec.ut_tv.tv_sec;
    }
  }
};

// Name, uid and gid from the password database; ids stay -1 for a name that
// has no entry there (a user of a directory service that is down, say).
ConsoleUser withIds(std::string name) {
  ConsoleUser user{std::move(name), -1, -1};
  std::vector<char> buf(16384);
  passwd pw{};
  passwd* found = nullptr;
  if (getpwnam_r(user.name.c_str(), &pw, buf.data(), buf.size(), &found) == 0 && found) {
    user.uid = static_cast<int>(pw.pw_uid);
    user.gid = static_cast<int>(pw.pw_gid);
  }
  return user;
}

}  // namespace

bool LoginRecords::isConsoleLine(const std::string& line) {
  auto allDigits = [](const std::string& s) {
    return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos;
  };
  if (line.size() > 1 && line[0] == ':') return allDigits(line.substr(1));
  if (line.rfind("tty", 0) != 0) return false;
  const std::string number = line.substr(3);
  if (!allDigits(number) || number[0] == '0' || number.size() > 2) return false;
  return std::atoi(number.c_str()) <= 63;
}

std::optional<ConsoleUser> LoginRecords::consoleUserFromUtmp(const std::string& utmpPath) {
  NewestConsoleUser scan;
  forEachRecord(utmpPath, std::ref(scan));
  if (!scan.newest) return std::nullopt;
  return withIds(*scan.newest);
}

std::optional<std::string> LoginRecords::consoleUserInRecords(std::string_view records) {
  NewestConsoleUser scan;
  forEachRecordIn(records, std::ref(scan));
  return scan.newest;
}

std::optional<ConsoleUser> LoginRecords::consoleUserFromLogind() {
  char* session = nullptr;
  uid_t uid = 0;
  if (sd_seat_get_active("seat0", &session, &uid) < 0) return std::nullopt;
  std::free(session);
  std::vector<char> buf(16384);
  passwd pw{};
  passwd* found = nullptr;
  if (getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  return ConsoleUser{pw.pw_name, static_cast<int>(pw.pw_uid), static_cast<int>(pw.pw_gid)};
}

std::optional<ConsoleUser> LoginRecords::findConsoleUser(const std::string& seatsDir,
                                                         const std::string& utmpPath) {
  struct stat st{};
  if (stat(seatsDir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return consoleUserFromLogind();
  return consoleUserFromUtmp(utmpPath);
}

std::string LoginRecords::lastLogin(const std::string& wtmpPath) {
  NewestLogin scan;
  forEachRecord(wtmpPath, std::ref(scan));
  return scan.newest;
}

std::string LoginRecords::lastLoginIn(std::string_view records) {
  NewestLogin scan;
  forEachRecordIn(records, std::ref(scan));
  return scan.newest;
}

std::vector<std::string> LoginRecords::terminalsOf(const std::string& utmpPath,
                                                   const std::string& user) {
  std::vector<std::string> lines;
  forEachRecord(utmpPath, [&](const utmpx& rec) {
    if (rec.ut_type != USER_PROCESS || userOf(rec) != user) return;
    const std::string line(rec.ut_line, strnlen(rec.ut_line, sizeof rec.ut_line));
    if (!line.empty() && line.find('/') != 0 && line.find("..") == std::string::npos &&
        std::find(lines.begin(), lines.end(), line) == lines.end())
      lines.push_back(line);
  });
  return lines;
}
