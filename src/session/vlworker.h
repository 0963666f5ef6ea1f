// Serves one accepted connection on its own thread: reads the command
// header, checks the password and carries out exactly one command, found
// in the command table.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "session/command_table.h"
#include "varlo/records.h"

class CPrefs;
class Session;
namespace varlo {
struct varlo_config;
struct varlo_net;
}

class VLWorker {
 public:
  // What the foreman hands over: the connection and any bytes already read.
  struct task {
    int socket = -1;
    sockaddr_in peer{};
    std::vector<char> data;
  };

  // Takes the next worker number. Null prefs: the process-wide ones.
  explicit VLWorker(CPrefs* prefs = nullptr, CommandTable table = commandTable());
  virtual ~VLWorker();
  VLWorker(const VLWorker&) = delete;
  VLWorker& operator=(const VLWorker&) = delete;

  // Takes the connection; -1 (logged) for a null task.
  int init(const task* t);
  void run();
  void ProcessCommand(std::uint16_t command);

  bool finished() const { return finished_.load(); }
  CommandTable table() const { return table_; }
  unsigned id() const { return id_; }
  // Moves the ids of the processes this worker started to out.
  void returnPids(std::vector<pid_t>& out);
  // From any thread: the command under way stops at its next step, and the
  // worker writes nothing more.
  void requestStop();

  // The console's names for the commands served; each runs its handler.
  void getConfigData(varlo::varlo_config& record);
  void getNetworkData(varlo::varlo_net& record);
  void sendProcessData();
  void sendVolumeData(std::uint16_t command);
  void sendDiskData();
  void sendSCSIData();
  void sendPCIData();
  void sendIPAddrs();
  void changePassword();
  void assignDBMSKey();
  void storeNotes();
  void sendNotes();
  void sendAppsData();
  void sendControlsData();
  void sendExtensionData();
  void sendFontData();
  void sendServiceData();
  void sendFileExtData();
  void shutdownSystem(bool reboot);
  void syncClock();
  void killProcess();
  void sendMessage();
  void launchApp();
  void sendFile();
  void receiveFolder();
  void throughputTest();
  void runBackupProfiler();

 protected:
  std::vector<pid_t> pids_;

 private:
  static std::atomic<unsigned> nextID;

  CPrefs* prefs_;
  CommandTable table_;
  std::atomic<bool> finished_{false};
  unsigned id_;
  std::unique_ptr<Session> session_;
};
