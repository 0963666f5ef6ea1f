// The unit list read from a stand-in of systemd's manager, served with
// sd-bus on a private dbus-daemon.
#include "software/systemd_units.h"
#include "software/services.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "test_support.h"

extern char** environ;

namespace {

constexpr const char* kDbusDaemon = "/usr/bin/dbus-daemon";
using Map = std::map<std::string, std::string>;

// A message bus of the test's own, gone with the object.
class PrivateBus {
 public:
  explicit PrivateBus(const test_support::TempDir& dir) : socket_(dir / "bus") {
    const std::string conf = dir / "bus.conf";
    test_support::spit(conf,
                       "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration "
                       "1.0//EN\" \"http://www.freedesktop.org/standards/dbus/1.0/"
                       "busconfig.dtd\">\n<busconfig>\n  <type>session</type>\n  <listen>unix:path=" +
                           socket_ +
                           "</listen>\n  <auth>EXTERNAL</auth>\n  <policy context=\"default\">\n"
                           "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                           "    <allow eavesdrop=\"true\"/>\n    <allow own=\"*\"/>\n"
                           "  </policy>\n</busconfig>\n");
    const std::string confArg = "--config-file=" + conf;
    const char* argv[] = {kDbusDaemon, confArg.c_str(), "--nofork", "--nopidfile", nullptr};
    if (posix_spawn(&pid_, kDbusDaemon, nullptr, nullptr, const_cast<char* const*>(argv),
                    environ) != 0)
      pid_ = -1;
    for (int i = 0; i < 500 && pid_ > 0 && !std::filesystem::exists(socket_); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ~PrivateBus() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
  }
  bool up() const { return pid_ > 0 && std::filesystem::exists(socket_); }
  std::string address() const { return "unix:path=" + socket_; }

 private:
  std::string socket_;
  pid_t pid_ = -1;
};

struct Unit {
  const char* name;
  const char* active;
};

const Unit kUnits[] = {
    {"cron.service", "active"},       {"ssh.service", "inactive"},
    {"getty@tty1.service", "active"}, {"broken.service", "failed"},
    {"dbus.socket", "active"},        {"multi-user.target", "active"},
    {".service", "active"},  // no name before the suffix
    {"x.service.d", "active"},
};

int listUnits(sd_bus_message* call, void*, sd_bus_error*) {
  sd_bus_message* reply = nullptr;
  int r = sd_bus_message_new_method_return(call, &reply);
  if (r < 0) return r;
  r = sd_bus_message_open_container(reply, SD_BUS_TYPE_ARRAY, "(ssssssouso)");
  for (const Unit& u : kUnits) {
    if (r < 0) break;
    r = sd_bus_message_append(reply, "(ssssssouso)", u.name, "described", "loaded", u.active,
                              "running", "", "/org/freedesktop/systemd1/unit/x", 0u, "",
                              "/");
  }
  if (r >= 0) r = sd_bus_message_close_container(reply);
  if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return r;
}

const sd_bus_vtable kManager[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("ListUnits", "", "a(ssssssouso)", listUnits, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

// systemd's manager as far as the unit list goes, on a thread of its own.
class FakeManager {
 public:
  explicit FakeManager(const std::string& address) {
    sd_bus_new(&bus_);
    ok_ = sd_bus_set_address(bus_, address.c_str()) >= 0 && sd_bus_set_bus_client(bus_, 1) >= 0 &&
          sd_bus_start(bus_) >= 0 &&
          sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/systemd1",
                                   "org.freedesktop.systemd1.Manager", kManager, nullptr) >= 0 &&
          sd_bus_request_name(bus_, "org.freedesktop.systemd1", 0) >= 0;
    if (ok_) thread_ = std::thread([this] { serve(); });
  }
  ~FakeManager() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    sd_bus_flush_close_unref(bus_);
  }
  bool ok() const { return ok_; }

 private:
  void serve() {
    while (!stop_) {
      const int r = sd_bus_process(bus_, nullptr);
      if (r < 0) break;
      if (r == 0) sd_bus_wait(bus_, 50000);
    }
  }
  sd_bus* bus_ = nullptr;
  bool ok_ = false;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace

TEST(CSystemdUnits, ReadsTheServiceUnitsOfTheManager) {
  if (access(kDbusDaemon, X_OK) != 0) GTEST_SKIP() << "no dbus-daemon (Debian package dbus-daemon)";
  test_support::LogCapture log;
  test_support::TempDir dir;
  PrivateBus bus(dir);
  ASSERT_TRUE(bus.up()) << "dbus-daemon did not start";
  FakeManager manager(bus.address());
  ASSERT_TRUE(manager.ok());

  Map units{{"cron", "Unknown"}, {"sysctl", "Unknown"}};
  CSystemdUnits source(bus.address());
  ASSERT_EQ(source.enumUnits(units), 0);
  // ListUnitsByPatterns is unknown to this manager: the full list, filtered.
  EXPECT_EQ(units, (Map{{"broken", "Stopped"},
                        {"cron", "Running"},  // the unit's state replaces the script's guess
                        {"getty@tty1", "Running"},
                        {"ssh", "Stopped"},
                        {"sysctl", "Unknown"}}));
}

TEST(CSystemdUnits, NoManagerOnTheBusIsLoggedAndChangesNothing) {
  if (access(kDbusDaemon, X_OK) != 0) GTEST_SKIP() << "no dbus-daemon (Debian package dbus-daemon)";
  test_support::LogCapture log;
  test_support::TempDir dir;
  PrivateBus bus(dir);
  ASSERT_TRUE(bus.up());
  Map units{{"cron", "Unknown"}};
  CSystemdUnits source(bus.address());
  EXPECT_EQ(source.enumUnits(units), -1);
  EXPECT_EQ(units, (Map{{"cron", "Unknown"}}));
  const auto m = log.messages();
  ASSERT_EQ(m.size(), 2u);
  EXPECT_EQ(m[1].rfind("Unable to list the systemd units: ", 0), 0u) << m[1];
}

TEST(CSystemdUnits, NoBusAtAllIsLogged) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  Map units;
  CSystemdUnits source("unix:path=" + dir / "nobus");
  EXPECT_EQ(source.enumUnits(units), -1);
  EXPECT_TRUE(units.empty());
  EXPECT_TRUE(log.contains("Unable to connect to the system bus: No such file or directory"));
}

TEST(CServices, SystemdUnitsJoinTheScriptsOnlyWhereSystemdRuns) {
  if (access(kDbusDaemon, X_OK) != 0) GTEST_SKIP() << "no dbus-daemon (Debian package dbus-daemon)";
  test_support::LogCapture log;
  test_support::TempDir dir;
  PrivateBus bus(dir);
  ASSERT_TRUE(bus.up());
  FakeManager manager(bus.address());
  ASSERT_TRUE(manager.ok());
  const std::string software = std::string(VARLO_FIXTURES) + "/software";
  std::filesystem::create_directories(dir / "run/systemd/system");

  for (const bool systemd : {false, true}) {
    CServices services(HostRoots{software + "/proc"}, software + "/etc/init.d",
                       systemd ? dir / "run/systemd/system" : dir / "run/none", bus.address());
    ASSERT_EQ(services.enumServices(), 0);
    Map got;
    for (std::string n, v; services.getNextService(n, v) == 0;) got.emplace(n, v);
    EXPECT_EQ(got.count("getty@tty1"), systemd ? 1u : 0u);
    EXPECT_EQ(got.at("cron"), "Running");
    EXPECT_EQ(got.at("sysctl"), "Unknown");
    EXPECT_EQ(got.size(), systemd ? 7u : 4u);
  }
}
