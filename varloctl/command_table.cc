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

const std::vector<CommandSpec>& commandTable() {
  static const std::vector<CommandSpec> table = {
      {"config", "", 0, "the agent's hardware and system configuration", &ConfigCommand::make},
      {"processes", "", 0, "every running process", &ProcessesCommand::make},
      {"volumes", "", 0, "every mounted volume, local and remote", &VolumesCommand::make},
      {"volumes local", "", 0, "the local mounted volumes only", &VolumesCommand::makeLocal},
      {"disks", "", 0, "the fixed (non-removable) disks and their sizes", &DisksCommand::make},
      {"scsi", "", 0, "the SCSI devices", &ScsiCommand::make},
      {"pci", "", 0, "the PCI devices", &PciCommand::make},
      {"network", "", 0, "the first usable network interface", &NetworkCommand::make},
      {"ipaddrs", "", 0, "every interface's IPv4 address", &IpAddrsCommand::make},
      {"apps", "", 0, "the installed applications and their versions",
       &SoftwareListCommand::makeApps},
      {"controls", "", 0, "the installed control panels and their versions",
       &SoftwareListCommand::makeControls},
      {"extensions", "", 0, "the installed system extensions and their versions",
       &SoftwareListCommand::makeExtensions},
      {"fonts", "", 0, "the installed fonts", &SoftwareListCommand::makeFonts},
      {"services", "", 0, "the services started with the system, and their state",
       &SoftwareListCommand::makeServices},
      {"census", "", 0, "files counted by extension over the whole file system",
       &CensusCommand::make, {"--days N"}},
      {"profiler", "", 0, "files counted by extension on each mounted partition",
       &ProfilerCommand::make, {"--days N"}},
      {"password", "NEW", 1, "change the agent's password (at most 7 characters)",
       &PasswordCommand::make},
      {"dbkey", "N", 1, "assign the DBMS key (0 to 4294967295)", &DbKeyCommand::make},
      {"notes get", "", 0, "show the ten stored notes", &NotesGetCommand::make},
      {"notes set", "INDEX TEXT", 2, "store note INDEX (0 to 9); one line, at most 255 bytes",
       &NotesSetCommand::make},
      {"send", "PATH", 1, "copy a file, or a folder and all in it, to the agent",
       &SendCommand::make, {"--folder CODE", "--launch"}},
      {"update", "PACKAGE", 1, "send the agent a new package (.deb or .rpm) to install",
       &UpdateCommand::make},
      {"shutdown", "", 0, "shut the agent's machine down", &ShutdownCommand::makeHalt, {"--yes"}},
      {"reboot", "", 0, "restart the agent's machine", &ShutdownCommand::makeReboot, {"--yes"}},
      {"clock", "", 0, "set the agent's clock to this machine's local time", &ClockCommand::make,
       {"--time ISO8601"}},
      {"kill", "PID", 1, "end a process (SIGTERM, then SIGKILL; takes 3 to 6 s)",
       &KillCommand::make},
      {"launch", "INDEX", 1, "start application INDEX of the apps list for the console user",
       &LaunchCommand::make},
      {"message", "TEXT", 1, "show a message to the console user (at most 255 bytes)",
       &MessageCommand::make},
      {"throughput", "", 0, "time 1 MiB read from each of the agent's partitions",
       &ThroughputCommand::make},
  };
  return table;
}

}  // namespace varloctl
