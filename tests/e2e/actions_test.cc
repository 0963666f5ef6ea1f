// The actions against the real agent, with recording stand-ins for
// /sbin/shutdown, notify-send and xdg-open and the clock calls recorded by a
// preloaded shim: nothing here shuts down, re-clocks or installs anything.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <utmpx.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "console_end.h"
#include "sandbox/agent_test.h"
#include "varlo/action_records.h"

namespace sandbox {
namespace {

using namespace std::chrono_literals;
using test_support::Bytes;
using test_support::ConsoleEnd;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class ActionsTest : public AgentTest {
 protected:
  Options sandboxOptions() const override {
    Options o = AgentTest::sandboxOptions();
    o.standIns = true;
    return o;
  }
  std::vector<std::string> agentEnv() const override {
    // A sanitized agent must accept a library preloaded before its runtime.
    const char* asan = std::getenv("ASAN_OPTIONS");
    return {"LD_PRELOAD=" VARLO_CLOCK_SHIM,
            "ASAN_OPTIONS=" + std::string(asan ? asan : "") + ":verify_asan_link_order=0"};
  }

  // The recordings of one stand-in: arguments, then uid/gid/groups, then env.
  std::vector<std::vector<std::string>> recorded(const std::string& name) {
    std::vector<std::vector<std::string>> out;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(box().hostPath("/tmp/standins"), ec)) {
      if (e.path().filename().string().rfind(name + ".", 0) != 0) continue;
      std::vector<std::string> lines;
      std::istringstream in(readFile(e.path()).value_or(""));
      for (std::string l; std::getline(in, l);) lines.push_back(l);
      out.push_back(lines);
    }
    return out;
  }

  // Waits for the agent's answer of `size` bytes to a command.
  Bytes command(std::uint16_t code, const Bytes& request, std::size_t size,
                std::chrono::milliseconds wait = 3s) {
    auto console = ConsoleEnd::connectTo();
    EXPECT_TRUE(console.sendHeader(code, ""));
    if (!request.empty()) {
      EXPECT_TRUE(console.send(request.data(), request.size()));
    }
    return console.receive(size, wait);
  }

  void logIn(const char* user) {
    utmpx login{};
    login.ut_type = USER_PROCESS;
    std::strcpy(login.ut_line, "tty1");
    std::strcpy(login.ut_user, user);
    login.ut_tv.tv_sec = time(nullptr);
    std::ofstream(box().hostPath("/run/utmp"), std::ios::binary)
        .write(reinterpret_cast<const char*>(&login), sizeof login);
  }
};

Bytes be32(std::uint32_t v) { return {Bytes::value_type(v >> 24), Bytes::value_type(v >> 16),
                                      Bytes::value_type(v >> 8), Bytes::value_type(v)}; }

// The console's side of Send File up to the data: request, flags, fork header.
bool startSendFile(ConsoleEnd& console, std::uint32_t folder, const std::string& name,
                   std::uint32_t length) {
  auto request = varlo::varlo_manage::reply(0, false, false);
  varlo::put32<varlo::varlo_manage::KeyValue>(request, folder);
  varlo::putPString<varlo::varlo_manage::Message>(request, name);
  const auto ok = [&] {
    const Bytes r = console.receive(varlo::varlo_manage::kSize);
    return r.size() == varlo::varlo_manage::kSize && r[2] == 1;
  };
  auto header = varlo::varlo_cmd_header{}.encode();
  header[2] = 1;
  const std::uint8_t flags[2] = {1, 0};
  return console.sendHeader(18, "") && console.send(request) && ok() && console.send(header) &&
         console.send(flags, 2) && ok() && console.send(header) && console.send(be32(length).data(), 4) &&
         ok();
}

TEST_F(ActionsTest, AFullDiskKeepsNoPartialFileAndShutdownEndsATransferAtOnce) {
  sh("mkdir -p /root/Desktop && mount -t tmpfs -o size=64k tmpfs /root/Desktop");
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());
  {
    auto console = ConsoleEnd::connectTo();
    ASSERT_TRUE(startSendFile(console, 0x6465736B /* desk */, "big.bin", 200000));
    auto chunk = varlo::varlo_cmd_header{}.encode();
    chunk[2] = chunk[3] = 1;
    console.send(chunk);
    console.send(be32(200000).data(), 4);
    console.send(std::string(200000, 'x').data(), 200000);
    Bytes refusal;
    for (int i = 0; i < 3 && refusal.empty(); ++i) {
      const Bytes r = console.receive(varlo::varlo_manage::kSize);
      if (r.size() == varlo::varlo_manage::kSize && r[2] == 0) refusal = r;
    }
    ASSERT_FALSE(refusal.empty());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&refusal[69]), refusal[68]),
              "Failed to receive data.");
  }
  EXPECT_FALSE(std::filesystem::exists(box().hostPath("/root/Desktop/big.bin")));

  // A transfer that stalls half way: the agent still stops within two seconds.
  auto console = ConsoleEnd::connectTo();
  ASSERT_TRUE(startSendFile(console, 0x58585858 /* XXXX */, "stalled.bin", 1 << 20));
  auto chunk = varlo::varlo_cmd_header{}.encode();
  chunk[2] = chunk[3] = 1;
  console.send(chunk);
  console.send(be32(1 << 20).data(), 4);
  console.send(std::string(4096, 'y').data(), 4096);
  std::this_thread::sleep_for(200ms);
  const auto start = std::chrono::steady_clock::now();
  agent.signal(SIGTERM);
  ASSERT_TRUE(agent.wait(5s).has_value());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_THAT(log(), HasSubstr("Shutdown completed"));
}

TEST_F(ActionsTest, ConsoleToolSendsATreeByteForByteWithDesktopLinks) {
  // A few hundred files of assorted sizes in nested folders.
  const std::string tree = box().hostPath("/data/tree");
  std::size_t files = 0;
  for (int d = 0; d < 12; ++d) {
    const std::string dir = tree + "/d" + std::to_string(d) + (d % 3 == 0 ? "/inner" : "");
    std::filesystem::create_directories(dir);
    for (int f = 0; f < 25; ++f, ++files)
      test_support::spit(dir + "/f" + std::to_string(f), std::string((f * 7919) % 70000, char('a' + f % 26)));
  }
  std::filesystem::create_directories(box().hostPath("/home/ann/Desktop"));
  sh("mkdir -p /root/Desktop");
  Process agent = startAgent();

  const auto sent = ctl({"127.0.0.1", "send", "/data/tree", "--folder", "desk"});
  ASSERT_EQ(sent.exitCode, 0) << sent.output;
  std::size_t compared = 0;
  for (const auto& e : std::filesystem::recursive_directory_iterator(tree)) {
    if (!e.is_regular_file()) continue;
    const std::string rel = e.path().string().substr(tree.size());
    EXPECT_EQ(readFile(box().hostPath("/root/Desktop/tree" + rel)), readFile(e.path())) << rel;
    ++compared;
  }
  EXPECT_EQ(compared, files);
  EXPECT_EQ(std::filesystem::read_symlink(box().hostPath("/home/ann/Desktop/tree.link")),
            "/root/Desktop/tree");

  const auto one = ctl({"127.0.0.1", "send", "/data/tree/d1/f3"});
  ASSERT_EQ(one.exitCode, 0) << one.output;
  EXPECT_EQ(readFile(box().hostPath("/f3")), readFile(tree + "/d1/f3"));

  // The launch flag: the folder gains its owner's execute bit, the file is opened as the user.
  logIn("nobody");
  sh("chmod 0600 /root/Desktop");
  const auto launched = ctl({"127.0.0.1", "send", "/data/tree/d1/f3", "--folder", "desk", "--launch"});
  ASSERT_EQ(launched.exitCode, 0) << launched.output;
  EXPECT_EQ(std::filesystem::status(box().hostPath("/root/Desktop")).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write |
                std::filesystem::perms::owner_exec);
  ASSERT_TRUE(waitUntil([&] { return recorded("xdg-open").size() == 1; }, 3s));
  const auto opened = recorded("xdg-open")[0];
  EXPECT_THAT(std::vector<std::string>(opened.begin(), opened.begin() + 3),
              ElementsAre("/root/Desktop/f3", "--", "65534"));
}

TEST_F(ActionsTest, AnUpdateReachesTheInstallerAndPlantedLinksRedirectNoWrite) {
  logIn("nobody");
  // Links another user planted where the agent and its children write in /tmp.
  sh("mkdir -p /data && echo precious > /data/precious && echo '1 /usr/bin/true' > /tmp/applist\n"
     "for f in vlinstall.log vllaunchapp.log Varlo.pkg.tar.gz; do\n"
     "  ln -s /data/precious /tmp/$f && chown -h nobody /tmp/$f\n"
     "done");
  std::string package(200001, '\0');
  for (std::size_t i = 0; i < package.size(); ++i) package[i] = static_cast<char>(i % 253);
  test_support::spit(box().hostPath("/data/varlo_2.0_amd64.deb"), package);
  Process agent = startAgent();

  const auto refused = ctl({"127.0.0.1", "update", "/data/varlo_2.0_amd64.deb"});
  EXPECT_NE(refused.exitCode, 0);
  EXPECT_THAT(refused.output, HasSubstr("Could not create file /tmp/Varlo.pkg.tar.gz"));
  {
    Sandbox::NetworkScope net(box());
    const Bytes launched = command(16, be32(1), varlo::varlo_manage::kSize);
    EXPECT_EQ(test_support::prefixOf(launched), (Bytes{0, 0, 1, 1, 0}));
  }
  ASSERT_TRUE(waitUntil([&] { return recorded("xdg-open").size() == 1; }, 3s));

  sh("rm /tmp/Varlo.pkg.tar.gz");
  const auto updated = ctl({"127.0.0.1", "update", "/data/varlo_2.0_amd64.deb"});
  ASSERT_EQ(updated.exitCode, 0) << updated.output;
  ASSERT_TRUE(waitUntil([&] { return recorded("dpkg").size() == 1; }, 5s));
  const auto installer = recorded("dpkg")[0];
  EXPECT_THAT(std::vector<std::string>(installer.begin(), installer.begin() + 6),
              ElementsAre("--install", "--recursive", "/tmp/Varlo.pkg", "--", "0", "0"));
  EXPECT_EQ(readFile(box().hostPath("/tmp/Varlo.pkg/varlo_2.0_amd64.deb")), package);
  EXPECT_EQ(readFile(box().hostPath("/data/precious")), "precious\n");
  EXPECT_TRUE(std::filesystem::is_symlink(box().hostPath("/tmp/vlinstall.log")));

  sh("rm /tmp/vlinstall.log");
  ASSERT_EQ(ctl({"127.0.0.1", "update", "/data/varlo_2.0_amd64.deb"}).exitCode, 0);
  EXPECT_TRUE(waitUntil([&] {
    return readFile(box().hostPath("/tmp/vlinstall.log")) == "Package is located at: /tmp/Varlo.pkg\n";
  }, 5s));
  EXPECT_THAT(log(), HasSubstr("Receiving Varlo package."));
}

TEST_F(ActionsTest, ConsoleToolDrivesEachActionThroughItsStandIn) {
  logIn("nobody");
  test_support::spit(box().hostPath("/tmp/applist"), "1 /usr/bin/true\n2 /opt/Some App\n");
  // Orphaned at once, so the sandbox's init reaps it the moment it dies.
  Process starter = box().spawn(
      {"/bin/sh", "-c", "(trap '' TERM; exec sleep 60) & echo $! > /tmp/victim.pid"});
  ASSERT_TRUE(waitUntil([&] { return readFile(box().hostPath("/tmp/victim.pid")).has_value(); }, 3s));
  const std::string pid = std::to_string(std::stoul(*readFile(box().hostPath("/tmp/victim.pid"))));
  starter.wait(3s);
  Process agent = startAgent();
  const struct {
    std::vector<std::string> args;
    std::string shows;
  } cases[] = {
      {{"shutdown", "--yes"}, "shutting down  yes\n"},
      {{"reboot", "--yes"}, "rebooting  yes\n"},
      {{"clock", "--time", "2024-03-01T12:00:00"}, "seconds since 1904  3792139200\n"},
      {{"message", "Backup at six"}, "shown    yes\n"},
      {{"message", "caf\xc3\xa9"}, "shown    yes\n"},  // echoed, never shown
      {{"launch", "2"}, "launched  yes\n"},
      {{"kill", pid}, "ended  yes\n"},
      // The root is the sandbox's tmpfs; /usr, /etc and the rest are read-only.
      {{"throughput"}, "PARTITION  MICROSECONDS  MEGABYTES PER SECOND\n/  "},
  };
  for (const auto& c : cases) {
    std::vector<std::string> words = {"127.0.0.1"};
    words.insert(words.end(), c.args.begin(), c.args.end());
    const auto start = std::chrono::steady_clock::now();
    const auto r = ctl(words);
    EXPECT_EQ(r.exitCode, 0) << c.args[0] << ": " << r.output;
    EXPECT_THAT(r.output, HasSubstr(c.shows)) << c.args[0];
    if (c.args[0] == "throughput") {
      EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 2) << "only /: " << r.output;
    }
    if (c.args[0] == "kill") {
      const auto took = std::chrono::steady_clock::now() - start;
      EXPECT_GE(took, 5900ms) << "TERM, three seconds, KILL, three seconds";
      EXPECT_LT(took, 8s);
    }
  }
  EXPECT_FALSE(std::filesystem::exists(box().hostPath("/proc/" + pid)));
  ASSERT_TRUE(waitUntil([&] {
    return recorded("shutdown").size() == 2 && recorded("notify-send").size() == 1 &&
           recorded("xdg-open").size() == 1;
  }, 3s));

  std::vector<std::string> lines;
  for (const auto& r : recorded("shutdown")) lines.push_back(r[0] + " " + r[1] + " " + r[3]);
  std::sort(lines.begin(), lines.end());
  EXPECT_THAT(lines, ElementsAre("-h now 0", "-r now 0"));
  // The console's local time less the 1904 epoch, plus the zone's offset as it always was.
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  EXPECT_EQ(readFile(box().hostPath("/tmp/clock-set")),
            std::to_string(3792139200 - 2082844800 + std::labs(local.tm_gmtoff)) + "\n");
  EXPECT_THAT(log(), HasSubstr("Old Time: "));
  EXPECT_THAT(log(), HasSubstr(" Unable to create temp file on partition /usr"));
  EXPECT_FALSE(std::filesystem::exists(box().hostPath("/vltmp")));
  EXPECT_THAT(log(), HasSubstr("SendMessage: Failed to create CFString from message."));

  const auto shown = recorded("notify-send")[0];
  EXPECT_THAT(std::vector<std::string>(shown.begin(), shown.begin() + 7),
              ElementsAre("Pathmere Notification", "Backup at six", "--", "65534", "65534", "65534", "--"));
  EXPECT_THAT(shown, ::testing::Contains("XDG_RUNTIME_DIR=/run/user/65534"));
  EXPECT_THAT(shown, ::testing::Contains("DBUS_SESSION_BUS_ADDRESS=unix:path=/run/user/65534/bus"));
  const auto opened = recorded("xdg-open")[0];
  EXPECT_THAT(std::vector<std::string>(opened.begin(), opened.begin() + 5),
              ElementsAre("/opt/Some App", "--", "65534", "65534", "65534"));
  EXPECT_THAT(opened, ::testing::Contains("DISPLAY=:0"));
  EXPECT_THAT(readFile(box().hostPath("/tmp/vllaunchapp.log")),
              ::testing::Optional(std::string("Launching application \"xdg-open\" with arg: /opt/Some App\n")));

  // No zombie among the processes, once the foreman has had its second.
  const auto zombies = [&] {
    const auto r = box().run({"/bin/sh", "-c", "grep -l '^State:.Z' /proc/[0-9]*/status | wc -l"});
    return r ? std::stoi(r->output) : -1;
  };
  EXPECT_TRUE(waitUntil([&] { return zombies() == 0; }, 3s)) << zombies() << " zombies";
}

TEST_F(ActionsTest, WithLaunchingBlockedNothingIsStarted) {
  logIn("nobody");
  sh("mkdir -p /var/lib/VarloPrefs /data /root/Desktop && echo 'launchblock= 1' > /var/lib/VarloPrefs/.varlo\n"
     "echo '1 /usr/bin/true' > /tmp/applist && echo data > /data/f && chmod 0600 /root/Desktop");
  Process agent = startAgent();
  const auto launched = ctl({"127.0.0.1", "launch", "1"});
  EXPECT_EQ(launched.exitCode, 4) << launched.output;
  const auto sent = ctl({"127.0.0.1", "send", "/data/f", "--folder", "desk", "--launch"});
  EXPECT_EQ(sent.exitCode, 0) << sent.output;
  EXPECT_EQ(readFile(box().hostPath("/root/Desktop/f")), "data\n");
  std::this_thread::sleep_for(300ms);
  EXPECT_TRUE(recorded("xdg-open").empty());
  EXPECT_EQ(std::filesystem::status(box().hostPath("/root/Desktop")).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

}  // namespace
}  // namespace sandbox
