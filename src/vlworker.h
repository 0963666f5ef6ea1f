// Serves one accepted connection on its own thread: reads the command
// header, checks the password, carries out exactly one command.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "record_sink.h"
#include "varlo/coding.h"
#include "varlo/records.h"

class CPrefs;
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

  explicit VLWorker(CPrefs* prefs = nullptr);  // null: the process-wide preferences
  ~VLWorker();
  VLWorker(const VLWorker&) = delete;
  VLWorker& operator=(const VLWorker&) = delete;

  // Takes the connection; -1 (logged) for a null task.
  int init(const task* t);
  void run();
  void ProcessCommand(std::uint16_t command);

  bool finished() const { return finished_.load(); }
  unsigned id() const { return id_; }
  // Moves the ids of the processes this worker started to out.
  void returnPids(std::vector<pid_t>& out);
  // Unblocks a worker waiting on its peer, so that shutdown need not wait.
  void interrupt();

  // Writes every byte (0), or logs and returns -1. Nothing without a task.
  int SendData(const void* data, int len);
  template <std::size_t N>
  int SendData(const varlo::WireRecord<N>& r) {
    return SendData(r.data(), static_cast<int>(N));
  }
  // Reads exactly len bytes, waiting at most a second for each piece:
  // 0, -1 for len 0, -2 on a time-out, a closed peer or an error.
  int ReceiveData(void* out, int len);
  template <std::size_t N>
  int ReceiveData(varlo::WireRecord<N>& r) {
    return ReceiveData(r.data(), static_cast<int>(N));
  }

  void sendGoodACK();
  void sendBadACK(const std::string& message);
  void sendBadPassword(const varlo::varlo_cmd_header& header);
  // One file's bytes in acknowledged chunks; 0 or -1.
  int receiveFileData(std::ostream& out);

  void getConfigData(varlo::varlo_config& record);
  void sendProcessData();
  void sendVolumeData(std::uint16_t command);
  void sendDiskData();
  void sendSCSIData();
  void sendPCIData();
  void getNetworkData(varlo::varlo_net& record);
  void sendIPAddrs();
  void changePassword();
  void assignDBMSKey();
  void storeNotes();
  void sendNotes();

 private:
  std::string who() const;  // "Worker Thread: N"
  // The session as a destination for records.
  RecordSink sink();
  int socket() const { return task_ ? task_->socket : -1; }
  std::string checkPassword(const varlo::varlo_cmd_header& header) const;

  static std::atomic<unsigned> nextID;

  CPrefs* prefs_;
  std::atomic<bool> finished_{false};
  unsigned id_;
  std::optional<task> task_;
  std::vector<pid_t> pids_;
};
