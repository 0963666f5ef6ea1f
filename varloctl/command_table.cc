#include "varloctl/command_table.h"

#include "varloctl/action_commands.h"
#include "varloctl/census_command.h"
#include "varloctl/config_command.h"
#include "varloctl/dbkey_command.h"
#include "varloctl/disks_command.h"
#include "varloctl/ipaddrs_command.h"
#include "varloctl/network_command.h"
#include "varloctl/notes_get_command.h"
#include "varloctl/notes_set_command.h"
#include "varloctl/password_command.h"
#include "varloctl/pci_command.h"
#include "varloctl/processes_command.h"
#include "varloctl/profiler_command.h"
#include "varloctl/scsi_command.h"
#include "varloctl/send_command.h"
#include "varloctl/software_list_command.h"
#include "varloctl/throughput_command.h"
#include "varloctl/update_command.h"
#include "varloctl/volumes_command.h"

namespace varloctl {
namespace {

constexpr OptionSpec kDays{"--days", "N",
                           "only files changed in the last N days (0 to 3650; 0, the default, "
                           "counts every file)"};
constexpr OptionSpec kYes{"--yes", "", "do not ask for confirmation"};

}  // namespace

std::string CommandSpec::form() const {
  std::string out(name);
  for (const ArgumentSpec& a : arguments) out += " " + std::string(a.name);
  for (const OptionSpec& o : options)
    out += " [" + std::string(o.name) + (o.value.empty() ? "" : " " + std::string(o.value)) + "]";
  return out;
}

std::optional<std::string> optionValue(const std::vector<std::string>& arguments, std::size_t count,
                                       std::string_view name) {
  for (std::size_t i = count; i + 1 < arguments.size(); i += 2)
    if (arguments[i] == name) return arguments[i + 1];
  return std::nullopt;
}

const std::vector<CommandSpec>& commandTable() {
  static const std::vector<CommandSpec> table = {
      {"config", "the agent's hardware and system configuration", &ConfigCommand::make},
      {"processes", "every running process", &ProcessesCommand::make},
      {"volumes", "every mounted volume, local and remote", &VolumesCommand::make},
      {"volumes local", "the local mounted volumes only", &VolumesCommand::makeLocal},
      {"disks", "the fixed (non-removable) disks and their sizes", &DisksCommand::make},
      {"scsi", "the SCSI devices", &ScsiCommand::make},
      {"pci", "the PCI devices", &PciCommand::make},
      {"network", "the first usable network interface", &NetworkCommand::make},
      {"ipaddrs", "every interface's IPv4 address", &IpAddrsCommand::make},
      {"apps", "the installed applications and their versions", &SoftwareListCommand::makeApps},
      {"controls", "the installed control panels and their versions",
       &SoftwareListCommand::makeControls},
      {"extensions", "the installed system extensions and their versions",
       &SoftwareListCommand::makeExtensions},
      {"fonts", "the installed fonts", &SoftwareListCommand::makeFonts},
      {"services", "the services started with the system, and their state",
       &SoftwareListCommand::makeServices},
      {"census",
       "files counted by extension over the whole file system",
       &CensusCommand::make,
       {},
       {kDays}},
      {"profiler",
       "files counted by extension on each mounted partition",
       &ProfilerCommand::make,
       {},
       {kDays}},
      {"password",
       "change the agent's password (at most 7 characters)",
       &PasswordCommand::make,
       {{"NEW", "the new password"}}},
      {"dbkey",
       "assign the DBMS key (0 to 4294967295)",
       &DbKeyCommand::make,
       {{"N", "the key, decimal or 0x hexadecimal"}}},
      {"notes get", "show the ten stored notes", &NotesGetCommand::make},
      {"notes set",
       "store note INDEX (0 to 9); one line, at most 255 bytes",
       &NotesSetCommand::make,
       {{"INDEX", "which note, 0 to 9"},
        {"TEXT", "the note; put -- before text that starts with -"}}},
      {"send",
       "copy a file, or a folder and all in it, to the agent",
       &SendCommand::make,
       {{"PATH", "the file or folder"}},
       {{"--folder", "CODE", "the agent's folder, a four-character code (default XXXX)"},
        {"--launch", "", "start the file once it has arrived (not for a folder)"}}},
      {"update",
       "send the agent a new package (.deb or .rpm) to install",
       &UpdateCommand::make,
       {{"PACKAGE", "the .deb or .rpm file"}}},
      {"shutdown", "shut the agent's machine down", &ShutdownCommand::makeHalt, {}, {kYes}},
      {"reboot", "restart the agent's machine", &ShutdownCommand::makeReboot, {}, {kYes}},
      {"clock",
       "set the agent's clock to this machine's local time",
       &ClockCommand::make,
       {},
       {{"--time", "ISO8601",
         "this time instead of now, e.g. 2024-05-01T13:30:00, with Z or +02:00 for elsewhere"}}},
      {"kill",
       "end a process (SIGTERM, then SIGKILL; takes 3 to 6 s)",
       &KillCommand::make,
       {{"PID", "the agent's process id"}}},
      {"launch",
       "start application INDEX of the apps list for the console user",
       &LaunchCommand::make,
       {{"INDEX", "the application's place in the apps list"}}},
      {"message",
       "show a message to the console user (at most 255 bytes)",
       &MessageCommand::make,
       {{"TEXT", "the message"}}},
      {"throughput", "time 1 MiB read from each of the agent's partitions",
       &ThroughputCommand::make},
  };
  return table;
}

}  // namespace varloctl
