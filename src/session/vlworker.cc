#include "session/vlworker.h"

#include <cstdio>

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
#include "core/vllog.h"
#include "inventory/config_info.h"
#include "inventory/disks_handler.h"
#include "inventory/ipaddrs_handler.h"
#include "inventory/netinfo.h"
#include "inventory/network_handler.h"
#include "inventory/pci_handler.h"
#include "inventory/processes_handler.h"
#include "inventory/scsi_handler.h"
#include "inventory/volumes_handler.h"
#include "prefs/password_block.h"
#include "prefs/prefs.h"
#include "session/session.h"
#include "software/apps_handler.h"
#include "software/backup_profiler_handler.h"
#include "software/controls_handler.h"
#include "software/extensions_handler.h"
#include "software/file_ext_handler.h"
#include "software/fonts_handler.h"
#include "software/services_handler.h"
#include "varlo/commands.h"

using namespace varlo;

std::atomic<unsigned> VLWorker::nextID{0};

VLWorker::VLWorker(CPrefs* prefs, CommandTable table)
    : prefs_(prefs ? prefs : Prefs),
      table_(table),
      id_(nextID++),
      session_(std::make_unique<Session>(-1, id_, *prefs_)) {}

VLWorker::~VLWorker() { session_->close(); }

int VLWorker::init(const task* t) {
  if (t == nullptr) {
    char text[299];
    std::snprintf(text, sizeof text, "Worker %u received a null task pointer!", id_);
    Log->LogMessage(text);
    return -1;
  }
  session_ = std::make_unique<Session>(t->socket, id_, *prefs_);
  return 0;
}

void VLWorker::returnPids(std::vector<pid_t>& out) {
  const std::vector<pid_t> started = session_ ? session_->takeChildren() : std::vector<pid_t>{};
  out.insert(out.end(), pids_.begin(), pids_.end());
  out.insert(out.end(), started.begin(), started.end());
  pids_.clear();
}

void VLWorker::requestStop() { session_->requestStop(); }

void VLWorker::run() {
  Session& s = *session_;
  s.log(s.who() + " starting");
  if (!s.connected()) {
    s.log(s.who() + " does not have a task.  Finished working");
    finished_ = true;
    return;
  }
  varlo_cmd_header::Bytes wire{};
  if (s.ReceiveData(wire) == 0) {
    const auto header = varlo_cmd_header::decode(wire);
    if (prefs_->validatePassword(password_block::unseal(header.passwordBlock)) == 1) {
      ProcessCommand(header.command);
    } else {
      const CommandRow* row = findCommand(table_, header.command);
      s.sendBadPassword(header, row ? row->rejectionSize : 0);
    }
  }
  // Tell the console at once that the session is over; the socket itself is
  // closed when the foreman reaps this worker.
  s.finish();
  s.log(s.who() + " finished");
  finished_ = true;
}

void VLWorker::ProcessCommand(std::uint16_t command) {
  Session& s = *session_;
  const CommandRow* row = findCommand(table_, command);
  if (row == nullptr || row->logText == nullptr) {
    s.log(s.who() + " received unknown command: " + std::to_string(command));
    return;
  }
  s.log(s.who() + row->logText);
  if (row->handler != nullptr) row->handler(s, command);
}

void VLWorker::getConfigData(varlo_config& record) { CConfigInfo().getConfigData(record); }

void VLWorker::getNetworkData(varlo_net& record) {
  CNetInfo info;
  ::getNetworkData(session_->connected(), info, record);
}

void VLWorker::sendProcessData() { ::sendProcessData(*session_, kProcessesCommand); }
void VLWorker::sendVolumeData(std::uint16_t command) { ::sendVolumeData(*session_, command); }
void VLWorker::sendDiskData() { ::sendDiskData(*session_, kHardDiskCommand); }
void VLWorker::sendSCSIData() { ::sendSCSIData(*session_, kScsiCommand); }
void VLWorker::sendPCIData() { ::sendPCIData(*session_, kPciCommand); }
void VLWorker::sendIPAddrs() { ::sendIPAddrs(*session_, kIpAddressCommand); }
void VLWorker::changePassword() { ::changePassword(*session_, kChangePasswordCommand); }
void VLWorker::assignDBMSKey() { ::assignDBMSKey(*session_, kAssignDbmsKeyCommand); }
void VLWorker::storeNotes() { ::storeNotes(*session_, kStoreNotesCommand); }
void VLWorker::sendNotes() { ::sendNotes(*session_, kRetrieveNotesCommand); }
void VLWorker::sendAppsData() { ::sendAppsData(*session_, kApplicationsCommand); }
void VLWorker::sendControlsData() { ::sendControlsData(*session_, kControlPanelsCommand); }
void VLWorker::sendExtensionData() { ::sendExtensionData(*session_, kExtensionsCommand); }
void VLWorker::sendFontData() { ::sendFontData(*session_, kFontsCommand); }
void VLWorker::sendServiceData() { ::sendServiceData(*session_, kStartupItemsCommand); }
void VLWorker::shutdownSystem(bool reboot) {
  ::shutdownSystem(*session_, reboot ? kRebootCommand : kShutdownCommand);
}
void VLWorker::syncClock() { ::syncClock(*session_, kSyncClockCommand); }
void VLWorker::killProcess() { ::killProcess(*session_, kQuitProcessCommand); }
void VLWorker::sendMessage() { ::sendMessage(*session_, kSendMessageCommand); }
void VLWorker::launchApp() { ::launchApp(*session_, kLaunchAppCommand); }
void VLWorker::sendFile() { ::sendFile(*session_, kSendFileCommand); }
void VLWorker::receiveFolder() { ::sendFolder(*session_, kSendFolderCommand); }
void VLWorker::throughputTest() { ::throughputTest(*session_, kThroughputCommand); }
void VLWorker::sendFileExtData() { ::sendFileExtData(*session_, kFileExtensionCommand); }
void VLWorker::runBackupProfiler() { ::runBackupProfiler(*session_, kBackupProfilerCommand); }
