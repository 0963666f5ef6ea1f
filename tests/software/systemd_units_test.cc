// The unit list of a stand-in for systemd's manager on a private dbus-daemon.
#include "software/systemd_units.h"

#include <signal.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <thread>

#include "test_support.h"

namespace {
// The manager's ListUnits, not ListUnitsByPatterns: name, description, load,
// active, sub, following, path, job id, job type, job path.
int manager(sd_bus_message* call, void*, sd_bus_error*) {
  if (!sd_bus_message_is_method_call(call, "org.freedesktop.systemd1.Manager", "ListUnits"))
    return 0;
  return sd_bus_reply_method_return(
      call, "a(ssssssouso)", 4, "cron.service", "", "", "active", "", "", "/u", 0u, "", "/",
      "ssh.service", "", "", "failed", "", "", "/u", 0u, "", "/", "dbus.socket", "", "", "active",
      "", "", "/u", 0u, "", "/", ".service", "", "", "active", "", "", "/u", 0u, "", "/");
}
}  // namespace

TEST(CSystemdUnits, ServiceUnitsOfTheManagerAndALogLineWithoutOne) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  // A bus of the test's own, without service folders: nothing is started for the manager.
  test_support::spit(dir / "bus.conf",
                     "<busconfig><listen>unix:path=" + dir / "bus" +
                         "</listen><policy context=\"default\"><allow own=\"*\"/><allow send_"
                         "destination=\"*\"/><allow eavesdrop=\"true\"/></policy></busconfig>");
  const std::string start = "dbus-daemon --fork --print-pid --config-file=" + dir / "bus.conf";
  FILE* out = popen((start + " 2>/dev/null").c_str(), "r");
  struct Daemon {
    int pid = 0;
    ~Daemon() { if (pid > 0) kill(pid, SIGTERM); }
  } daemon;
  const bool up = out != nullptr && fscanf(out, "%d", &daemon.pid) == 1;
  if (out != nullptr) pclose(out);
  if (!up) GTEST_SKIP() << "no dbus-daemon (Debian package dbus-daemon)";
  const std::string address = "unix:path=" + dir / "bus";
  std::map<std::string, std::string> units{{"cron", "Unknown"}, {"sysctl", "Unknown"}};
  const auto before = units;
  CSystemdUnits source(address);
  EXPECT_EQ(source.enumUnits(units), -1);  // nobody owns the manager's name yet
  EXPECT_EQ(units, before);
  EXPECT_EQ(log.messages().back().rfind("Unable to list the systemd units: ", 0), 0u);
  // The manager on a connection and a thread of its own.
  sd_bus* bus = nullptr;
  ASSERT_GE(sd_bus_new(&bus), 0);
  std::atomic<bool> stop{false};
  std::thread serve;
  if (sd_bus_set_address(bus, address.c_str()) >= 0 && sd_bus_set_bus_client(bus, 1) >= 0 &&
      sd_bus_start(bus) >= 0 &&
      sd_bus_add_object(bus, nullptr, "/org/freedesktop/systemd1", manager, nullptr) >= 0 &&
      sd_bus_request_name(bus, "org.freedesktop.systemd1", 0) >= 0)
    serve = std::thread([&] {
      for (int r = 0; !stop && r >= 0; r = sd_bus_process(bus, nullptr))
        if (r == 0) sd_bus_wait(bus, 50000);
    });
  const int result = serve.joinable() ? source.enumUnits(units) : -2;
  stop = true;
  if (serve.joinable()) serve.join();
  sd_bus_flush_close_unref(bus);
  EXPECT_EQ(result, 0);
  // The unit's state replaces the script's guess; only named service units count.
  EXPECT_EQ(units,
            (decltype(units){{"cron", "Running"}, {"ssh", "Stopped"}, {"sysctl", "Unknown"}}));
}
