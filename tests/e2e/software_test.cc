// The software lists against the real agent: applications from a package
// database the test controls (batches, stale bytes, the list file), the
// services, control panels, fonts and modules from their host sources, and
// varloctl's view of each, checked against what the machine's own tools say.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "console_end.h"
#include "sandbox/agent_test.h"
#include "varlo/software_records.h"

namespace sandbox {
namespace {

using namespace std::chrono_literals;
using namespace varlo;
using test_support::Bytes;
using test_support::ConsoleEnd;
using ::testing::ElementsAre;

struct NamedList {
  std::vector<int> counts;  // per batch; heartbeats (empty, not last) left out
  Bytes slots;              // every batch's record bytes, in order
  std::vector<varlo_app> entries;
  bool whole = false;  // a last header came and the agent then hung up
};

NamedList readNamedList(std::uint16_t code) {
  NamedList list;
  auto console = ConsoleEnd::connectTo();
  if (!console.sendHeader(code, "")) return list;
  for (;;) {
    bool ok = false;
    const auto header = console.receiveRecord<varlo_list_header>(&ok);
    if (!ok || header.prefix.command != code) return list;
    if (header.count == 0 && !header.prefix.last) continue;  // a heartbeat
    const Bytes body = console.receive(header.count * varlo_app::kSize);
    if (body.size() != header.count * varlo_app::kSize) return list;
    list.counts.push_back(header.count);
    list.slots.insert(list.slots.end(), body.begin(), body.end());
    for (std::size_t i = 0; i < header.count; ++i)
      list.entries.push_back(varlo_app::decodeAt(body.data() + i * varlo_app::kSize));
    if (header.prefix.last) break;
  }
  list.whole = console.closedByPeer();
  return list;
}

std::string run(const std::string& command) {
  std::string out;
  if (FILE* p = popen(command.c_str(), "re")) {
    char buf[4096];
    for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    pclose(p);
  }
  return out;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) out.push_back(line);
  return out;
}

const std::string kLongName = "package-with-a-name-longer-than-thirty-one";

class SoftwareTest : public AgentTest {
 protected:
  Options sandboxOptions() const override {
    Options o = AgentTest::sandboxOptions();
    o.readOnlyBinds.push_back(VARLO_FIXTURES);
    return o;
  }

  // A package database of `count` packages, each owning one program, over
  // the host's (inside the sandbox only).
  void packages(int count) {
    const std::string db = box().hostPath("/var/lib/fakedpkg");
    // Emptied, not replaced: the mount holds on to the folder itself.
    std::filesystem::remove_all(db + "/info");
    std::filesystem::create_directories(db + "/info");
    std::filesystem::create_directories(box().hostPath("/opt/apps"));
    std::string status;
    for (int i = 1; i <= count; ++i) {
      // The first one's name and version are longer than the records hold.
      const std::string name = i == 1 ? kLongName : "p" + std::to_string(i);
      const std::string version = i == 1 ? "1:2.36-9+deb12u4" : "1." + std::to_string(i);
      const std::string program = "/opt/apps/prog" + std::to_string(i);
      test_support::spit(box().hostPath(program), "#!/bin/sh\n");
      chmod(box().hostPath(program).c_str(), 0755);
      test_support::spit(db + "/info/" + name + (i % 2 ? ":amd64" : "") + ".list",
                         "/.\n/opt\n/opt/apps\n" + program + "\n");
      status += "Package: " + name + "\nStatus: install ok installed\nVersion: " + version + "\n\n";
    }
    test_support::spit(db + "/status", status);
    if (!mounted_) sh("mount --bind /var/lib/fakedpkg /var/lib/dpkg");
    mounted_ = true;
  }

  bool mounted_ = false;
};

TEST_F(SoftwareTest, ApplicationsComeInBatchesOfTenWithTheirListFile) {
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());
  struct Case {
    int packages;
    std::vector<int> counts;
  };
  for (const Case& c : {Case{0, {0}}, Case{10, {10, 0}}, Case{11, {10, 1}}}) {
    packages(c.packages);
    const NamedList list = readNamedList(kApplicationsCommand);
    EXPECT_TRUE(list.whole) << c.packages;
    EXPECT_EQ(list.counts, c.counts) << c.packages;

    // One line per application, numbered from 1 as the records are.
    const auto file = lines(readFile(box().hostPath("/tmp/applist")).value_or(""));
    ASSERT_EQ(file.size(), list.entries.size()) << c.packages;
    std::set<std::string> names;
    for (std::size_t i = 0; i < list.entries.size(); ++i) {
      const varlo_app& e = list.entries[i];
      EXPECT_EQ(e.index, i + 1);
      const bool cut = e.name.size() == 31;
      EXPECT_EQ(file[i], std::to_string(i + 1) + " " + (cut ? kLongName : e.name)) << "whole there";
      names.insert(e.name);
      if (e.name.rfind("package-with", 0) == 0) {
        EXPECT_EQ(e.name, kLongName.substr(0, 31));
        EXPECT_EQ(e.version, "1:2.36-9+d") << "cut to ten";
      } else {
        EXPECT_EQ(e.version, "1." + e.name.substr(1)) << "the version of a multi-arch package too";
      }
    }
    EXPECT_EQ(names.size(), static_cast<std::size_t>(c.packages));
    if (c.packages == 11) {
      // The last batch's slot keeps the first batch's bytes behind its
      // shorter strings.
      const std::uint8_t* first = list.slots.data();
      const std::uint8_t* again = list.slots.data() + 10 * varlo_app::kSize;
      for (std::size_t k = 1 + again[0]; k < 32; ++k) EXPECT_EQ(again[k], first[k]) << k;
      for (std::size_t k = 34 + again[33]; k < 44; ++k) EXPECT_EQ(again[k], first[k]) << k;
    }
  }
}

TEST_F(SoftwareTest, ServicesControlPanelsFontsAndModulesFromTheirSources) {
  // Known init scripts and desktop entries over the host's; a process named
  // as one of the services runs.
  const std::string fixtures = VARLO_FIXTURES "/software";
  sh("mount --bind '" + fixtures + "/etc/init.d' /etc/init.d; "
     "mount --bind '" + fixtures + "/xdg/share/applications' /usr/share/applications; "
     "cp /bin/sleep /tmp/cron");
  Process cron = box().spawn({"/tmp/cron", "60"});
  Process agent = startAgent();
  Sandbox::NetworkScope net(box());

  const NamedList services = readNamedList(kStartupItemsCommand);
  ASSERT_TRUE(services.whole);
  std::map<std::string, std::string> status;
  for (const auto& e : services.entries) status[e.name] = e.version;
  EXPECT_EQ(status["cron"], "Running");
  EXPECT_EQ(status["snmpd"], "Unknown") << "no process of that name";
  EXPECT_EQ(status.count("rc.local"), 0u) << "no DAEMON= or NAME= of its own";
  EXPECT_TRUE(std::is_sorted(services.entries.begin(), services.entries.end(),
                             [](const auto& a, const auto& b) { return a.name < b.name; }));

  const NamedList controls = readNamedList(kControlPanelsCommand);
  ASSERT_TRUE(controls.whole);
  std::vector<std::string> panels;
  for (const auto& e : controls.entries) {
    panels.push_back(e.name);
    EXPECT_EQ(e.version, "");
  }
  // The fixture's Settings entries, one per name, names cut to 31.
  EXPECT_EQ(panels, (std::vector<std::string>{"Displays", "Keyboard and Mouse\\Touchpad", "Network (system copy)",
                                              "Power Management",
                                              std::string("Printers With A Very Long Name Beyond").substr(0, 31),
                                              "Sound"}));

  // Fonts: fontconfig's own tool on the same configuration and folders.
  const NamedList fonts = readNamedList(kFontsCommand);
  ASSERT_TRUE(fonts.whole);
  std::set<std::string> expected;
  for (const auto& file : lines(run("fc-list --format '%{file}\\n' 2>/dev/null")))
    expected.insert(file.substr(file.rfind('/') + 1).substr(0, 31));
  std::set<std::string> got;
  for (const auto& e : fonts.entries) {
    got.insert(e.name);
    EXPECT_EQ(e.version, "");
  }
  EXPECT_EQ(got, expected);

  // Modules: the kernel's list, as lsmod reads it; empty without modules.
  const NamedList modules = readNamedList(kExtensionsCommand);
  ASSERT_TRUE(modules.whole);
  std::set<std::string> loaded, listed;
  for (const auto& line : lines(readFile("/proc/modules").value_or("")))
    loaded.insert(line.substr(0, line.find(' ')).substr(0, 31));
  for (const auto& e : modules.entries) listed.insert(e.name);
  EXPECT_EQ(listed, loaded);
}

TEST_F(SoftwareTest, ConsoleToolShowsEverySoftwareList) {
  packages(3);
  test_support::spit(box().hostPath("/tmp/x.vlqz"), "");
  std::filesystem::create_directories(box().hostPath("/data"));
  for (const char* f : {"/data/a.vlqz", "/data/b.vlqz"}) test_support::spit(box().hostPath(f), "x");
  Process agent = startAgent();

  const auto apps = ctl({"127.0.0.1", "apps"});
  EXPECT_EQ(apps.exitCode, 0) << apps.output;
  EXPECT_THAT(apps.output, ::testing::HasSubstr("p2"));
  for (const char* cmd : {"fonts", "extensions", "controls", "services"}) {
    const auto r = ctl({"127.0.0.1", cmd, "--json"});
    EXPECT_EQ(r.exitCode, 0) << cmd << ": " << r.output;
    EXPECT_EQ(r.output.front(), '[') << cmd;
  }
  const auto census = ctl({"127.0.0.1", "census", "--json"});
  ASSERT_EQ(census.exitCode, 0) << census.output;
  EXPECT_THAT(census.output, ::testing::ContainsRegex(R"("extension": *"vlqz")"));
  EXPECT_THAT(census.output, ::testing::ContainsRegex(R"("vlqz",[^}]*"files": *2)"));
  const auto profiler = ctl({"127.0.0.1", "profiler", "--days", "1"});
  EXPECT_EQ(profiler.exitCode, 0) << profiler.output;
  EXPECT_THAT(profiler.output, ::testing::HasSubstr("/usr"));
}

}  // namespace
}  // namespace sandbox
