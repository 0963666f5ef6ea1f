// What a person does from the console tool against the real agent: find it,
// secure it, label it, leave notes, across a restart; and read its inventory,
// checked against what the machine itself reports, lists in their batches.
#include <gmock/gmock.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <filesystem>

#include "console_end.h"
#include "sandbox/agent_test.h"
#include "varlo/net_records.h"
#include "varlo/process_records.h"
#include "varlo/volume_records.h"

namespace sandbox {
namespace {

using namespace std::chrono_literals;
using test_support::Bytes;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

std::vector<std::string> namesIn(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir, ec))
    names.push_back(e.path().filename());
  return names;
}

std::size_t countOf(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// List `code` read as the console reads it: each batch's count (-1 for a
// reply that breaks off or goes on after the last), the entries in `entries`.
std::vector<int> listBatches(std::uint16_t code, std::size_t entrySize, Bytes& entries) {
  auto console = test_support::ConsoleEnd::connectTo();
  if (!console.connected() || !console.sendHeader(code, "")) return {-1};
  std::vector<int> counts;
  for (bool last = false; !last;) {
    bool whole = false;
    const auto header = console.receiveRecord<varlo::varlo_list_header>(&whole);
    const Bytes body = console.receive(header.count * entrySize);
    if (!whole || header.prefix.command != code || body.size() != header.count * entrySize)
      return counts.push_back(-1), counts;
    last = header.prefix.last;
    counts.push_back(header.count);
    entries.insert(entries.end(), body.begin(), body.end());
  }
  if (!console.closedByPeer()) counts.push_back(-1);
  return counts;
}

TEST_F(AgentTest, ConsoleToolAdministersTheAgentAcrossARestart) {
  // Nobody there yet: refused or unanswered at once, not a hang.
  EXPECT_EQ(ctl({"127.0.0.1", "network"}).exitCode, 6);
  EXPECT_EQ(ctl({"discover", "127.0.0.1", "--timeout", "0.5"}).exitCode, 5);

  Process agent = startAgent();
  EXPECT_THAT(ctl({"discover", "--broadcast", "127.255.255.255", "--timeout", "0.5"}).output,
              HasSubstr("varlo-sandbox"));
  ASSERT_EQ(ctl({"127.0.0.1", "password", "s3cret"}).exitCode, 0);
  EXPECT_EQ(ctl({"127.0.0.1", "network"}).exitCode, 3);
  ASSERT_EQ(ctl({"--password", "s3cret", "127.0.0.1", "dbkey", "4242"}).exitCode, 0);
  ASSERT_EQ(ctl({"--password", "s3cret", "127.0.0.1", "notes", "set", "4", "rack B"}).exitCode, 0);

  ASSERT_EQ(stopAgent(agent), 0);
  agent = startAgent();
  // The preferences the first run left were read.
  const auto messages = logMessages();
  EXPECT_EQ(std::count(messages.begin(), messages.end(), "Could not open preferences file"), 0);
  // The new password, and only it, opens the restarted agent.
  EXPECT_EQ(ctl({"127.0.0.1", "notes", "get"}).exitCode, 3);
  // The password may come from the environment, out of shell history.
  const auto notes =
      box().run({"/usr/bin/env", "VARLO_PASSWORD=s3cret", kCtl, "127.0.0.1", "notes", "get"});
  EXPECT_THAT(notes.value_or(Sandbox::Result{-1, ""}).output, HasSubstr("\n4      rack B\n"));
  EXPECT_THAT(ctl({"discover", "127.0.0.1"}).output, HasSubstr("  4242  "));
  EXPECT_EQ(stopAgent(agent), 0);
}

TEST_F(AgentTest, ConsoleToolShowsTheMachinesInventoryAndListsComeInBatches) {
  // Eleven interfaces: more than one batch of addresses.
  for (int i = 0; i <= 10; ++i)
    addInterface("eth" + std::to_string(i), "192.0.2." + std::to_string(10 + i) + "/24");
  sh("ip route add default via 192.0.2.1 dev eth0");
  Process agent = startAgent();
  const std::string agentPid = *readFile(box().hostPath(kPidFile));
  // The sandbox's own process table: its init, the agent, and what we start.
  const auto pids = [&] {
    auto names = namesIn(box().hostPath("/proc"));
    std::erase_if(names, [](const std::string& n) { return !std::isdigit(n[0]); });
    return names;
  };
  std::vector<Process> sleepers;
  while (pids().size() < 20) sleepers.push_back(box().spawn({"/bin/sleep", "60"}));
  ASSERT_EQ(pids().size(), 20u);
  // Each sleeper is named so once its exec is done.
  const std::vector<std::string> pgrep = {"/usr/bin/pgrep", "-c", "-x", "sleep"};
  const std::string all = std::to_string(sleepers.size()) + "\n";
  ASSERT_TRUE(
      waitUntil([&] { return box().run(pgrep).value_or(Sandbox::Result{}).output == all; }, 5s));

  {  // Processes, then addresses, as the agent sends them: in batches of ten.
    Sandbox::NetworkScope net(box());
    Bytes entries, addresses;
    EXPECT_THAT(listBatches(3, varlo::varlo_proc::kSize, entries), ElementsAre(10, 10, 0));
    EXPECT_THAT(listBatches(28, varlo::varlo_ipaddr::kSize, addresses), ElementsAre(10, 1));
    std::vector<std::string> ids;
    std::size_t sleeping = 0;
    for (std::size_t at = 0; at < entries.size(); at += varlo::varlo_proc::kSize) {
      const auto p = varlo::varlo_proc::decodeAt(entries.data() + at);
      ids.push_back(std::to_string(p.id));
      sleeping += p.name == "sleep";
      EXPECT_EQ(p.type, varlo::varlo_proc::kTypeAppl);
      EXPECT_TRUE(ids.back() != agentPid || (p.name == "varlo" && p.size > 0)) << p.name;
    }
    EXPECT_THAT(ids, ::testing::UnorderedElementsAreArray(pids()));
    EXPECT_EQ(sleeping, sleepers.size());
  }

  const auto show = [&](std::vector<std::string> words) {
    words.insert(words.begin(), "127.0.0.1");
    const auto r = ctl(words);
    EXPECT_EQ(r.exitCode, 0) << words[1] << ": " << r.output;
    return r.output;
  };
  const auto mac = [&](int i) {
    return readFile(box().hostPath("/sys/class/net/eth" + std::to_string(i) + "/address"));
  };
  // The first interface in name order; then all of them in that order, only
  // eth0 with the gateway.
  EXPECT_EQ(show({"network"}),
            "interface found   yes\nip address        192.0.2.10\ngateway           192.0.2.1\n"
            "subnet mask       255.255.255.0\nhardware address  " +
                mac(0).value_or("?"));
  std::string table = "IP ADDRESS  GATEWAY    SUBNET MASK    HARDWARE ADDRESS\n";
  for (int i : {0, 1, 10, 2, 3, 4, 5, 6, 7, 8, 9})
    table += "192.0.2." + std::to_string(10 + i) + (i ? "  0.0.0.0    " : "  192.0.2.1  ") +
             "255.255.255.0  " + mac(i).value_or("?");
  EXPECT_EQ(show({"ipaddrs"}), table);

  struct sysinfo si {};
  ASSERT_EQ(sysinfo(&si), 0);
  const std::string config = show({"config"});
  EXPECT_THAT(config, HasSubstr("\ncpu count         " + std::to_string(get_nprocs()) + "\n"));
  EXPECT_THAT(config,
              HasSubstr("\nphysical ram mib  " +
                        std::to_string(std::uint64_t{si.totalram} * si.mem_unit >> 20) + "\n"));
  EXPECT_THAT(show({"--json", "processes"}), HasSubstr("\"name\": \"varlo\""));

  // /usr inside is the host's file system bound read-only: its size is known.
  // Pseudo and memory file systems are not volumes.
  struct statvfs usr {};
  ASSERT_EQ(statvfs("/usr", &usr), 0);
  const auto units = varlo::varlo_volume::units(std::uint64_t{usr.f_blocks} * usr.f_frsize);
  const std::string total = std::to_string(units / 10) + "." + std::to_string(units % 10);
  for (const auto& volumes : {show({"--json", "volumes"}), show({"--json", "volumes", "local"})}) {
    EXPECT_THAT(volumes, HasSubstr("\"/usr\",\n    \"remote\": false,\n    \"total_mib\": \"" +
                                   total + "\""));
    EXPECT_THAT(volumes, Not(AnyOf(HasSubstr("\"/tmp\""), HasSubstr("\"/proc\""))));
  }
  // Disks: the block devices with a device behind them that cannot be ejected.
  const std::string disks = show({"--json", "disks"});
  std::size_t fixed = 0;
  for (const auto& name : namesIn(box().hostPath("/sys/block"))) {
    const std::string dir = box().hostPath("/sys/block/" + name);
    if (access((dir + "/device").c_str(), F_OK) != 0 || readFile(dir + "/removable") != "0\n")
      continue;
    ++fixed;
    EXPECT_THAT(disks, HasSubstr("\"name\": \"" + name + "\""));
  }
  EXPECT_EQ(countOf(disks, "\"name\""), fixed);

  // The SCSI and PCI devices the kernel knows; without a physical slot name
  // a PCI device's slot is its function's address.
  std::size_t scsi = 0;
  for (const auto& name : namesIn(box().hostPath("/sys/bus/scsi/devices")))
    scsi += countOf(name, ":") == 3;
  EXPECT_EQ(countOf(show({"--json", "scsi"}), "\"type_name\""), scsi);
  const std::string pci = show({"--json", "pci"});
  const auto functions = namesIn(box().hostPath("/sys/bus/pci/devices"));
  EXPECT_EQ(countOf(pci, "\"vendor_id\""), functions.size());
  for (const auto& f : functions) {
    const auto vendor = readFile(box().hostPath("/sys/bus/pci/devices/" + f + "/vendor"));
    const std::string slot = "\"slot\": \"" + f + "\"";
    EXPECT_TRUE(pci.find(slot) == std::string::npos ||
                pci.find(slot + ",\n    \"vendor_id\": \"" +
                         vendor.value_or("0x????").substr(2, 4)) != std::string::npos)
        << f << " in " << pci;
  }
  EXPECT_EQ(stopAgent(agent), 0);
}

}  // namespace
}  // namespace sandbox
