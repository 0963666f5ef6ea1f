#include "session/command_table.h"

#include "actions/launch_app_handler.h"
#include "actions/quit_process_handler.h"
#include "actions/send_file_handler.h"
#include "actions/send_folder_handler.h"
#include "actions/send_message_handler.h"
#include "actions/shutdown_handler.h"
#include "actions/sync_clock_handler.h"
#include "actions/throughput_handler.h"
#include "admin/change_password_handler.h"
#include "admin/dbms_key_handler.h"
#include "admin/retrieve_notes_handler.h"
#include "admin/store_notes_handler.h"
#include "inventory/config_handler.h"
#include "inventory/disks_handler.h"
#include "inventory/ipaddrs_handler.h"
#include "inventory/network_handler.h"
#include "inventory/pci_handler.h"
#include "inventory/processes_handler.h"
#include "inventory/scsi_handler.h"
#include "inventory/volumes_handler.h"
#include "software/apps_handler.h"
#include "software/backup_profiler_handler.h"
#include "software/controls_handler.h"
#include "software/extensions_handler.h"
#include "software/file_ext_handler.h"
#include "software/fonts_handler.h"
#include "software/services_handler.h"
#include "varlo/commands.h"
#include "varlo/config_record.h"
#include "varlo/records.h"

namespace {

using namespace varlo;

constexpr std::size_t kList = varlo_list_header::kSize;
constexpr std::size_t kManage = varlo_manage::kSize;

// The texts are the log's: the two file commands end in a full stop, the
// others do not.
constexpr CommandRow kTable[] = {
    {kConfigurationCommand, " received Configuration command", kConfigRecordSize, &sendConfigData},
    {kNetworkingCommand, " received Networking command", kNetRecordSize, &sendNetworkData},
    {kProcessesCommand, " received Processes command", kList, &sendProcessData},
    {kVolumesCommand, " received Volumes command", kList, &sendVolumeData},
    {kScsiCommand, " received SCSI command", kScsiRecordSize, &sendSCSIData},
    {kApplicationsCommand, " received Applications command", kList, &sendAppsData},
    {kControlPanelsCommand, " received Control Panels command", kList, &sendControlsData},
    {kExtensionsCommand, " received Extensions command", kList, &sendExtensionData},
    {kFontsCommand, " received Fonts command", kList, &sendFontData},
    {kStartupItemsCommand, " received Startup Items command", kList, &sendServiceData},
    {kShutdownCommand, " received Shutdown/Reboot command", kShutdownRecordSize, &shutdownSystem},
    {kRebootCommand, " received Shutdown/Reboot command", kShutdownRecordSize, &shutdownSystem},
    {kSyncClockCommand, " received Sync Clock command", kManage, &syncClock},
    {kQuitProcessCommand, " received Quit Process command", kManage, &killProcess},
    {kLaunchAppCommand, " received Launch App command", kManage, &launchApp},
    {kChangePasswordCommand, " received Change Password command", kManage, &changePassword},
    {kSendFileCommand, " received Send File command.", kManage, &sendFile},
    {kSendFolderCommand, " received Send Folder command.", kManage, &sendFolder},
    {kSendMessageCommand, " received Send Message command", kManage, &sendMessage},
    {kStoreNotesCommand, " received Store Notes command", kManage, &storeNotes},
    {kRetrieveNotesCommand, " received Retrieve Notes command", kManage, &sendNotes},
    {kFileExtensionCommand, " received File Extension command", kExtensionsRecordSize,
     &sendFileExtData},
    {kThroughputCommand, " received Throughput command", 0, &throughputTest},
    {kLocalVolumesCommand, " received Volumes command", kList, &sendVolumeData},
    {kHardDiskCommand, " received Hard Disk command", kList, &sendDiskData},
    {kPciCommand, " received PCI command", kList, &sendPCIData},
    {kIpAddressCommand, " received IP Address command", kList, &sendIPAddrs},
    {kBackupProfilerCommand, " received Backup Profiler command", kList, &runBackupProfiler},
    {kAssignDbmsKeyCommand, " received Assign DBMS Key command", kManage, &assignDBMSKey},
    {kUnservedManageCommand, nullptr, kManage, nullptr},
};

}  // namespace

CommandTable commandTable() { return kTable; }

const CommandRow* findCommand(CommandTable table, std::uint16_t code) {
  for (const CommandRow& row : table)
    if (row.code == code) return &row;
  return nullptr;
}
