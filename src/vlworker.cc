#include "vlworker.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <utility>

#include "config_info.h"
#include "hd_info.h"
#include "list_batches.h"
#include "netinfo.h"
#include "pci_linux.h"
#include "process_info.h"
#include "scsi_linux.h"
#include "prefs.h"
#include "util.h"
#include "varlo/config_record.h"
#include "varlo/net_records.h"
#include "vllog.h"

using namespace varlo;

std::atomic<unsigned> VLWorker::nextID{0};

namespace {

struct CommandName {
  std::uint16_t code;
  const char* text;
};

// Every command the console knows, with the words the log gives it.
constexpr CommandName kCommands[] = {
    {1, " received Configuration command"},
    {2, " received Networking command"},
    {3, " received Processes command"},
    {4, " received Volumes command"},
    {25, " received Volumes command"},
    {5, " received SCSI command"},
    {6, " received Applications command"},
    {7, " received Control Panels command"},
    {8, " received Extensions command"},
    {9, " received Fonts command"},
    {10, " received Startup Items command"},
    {12, " received Shutdown/Reboot command"},
    {13, " received Shutdown/Reboot command"},
    {14, " received Sync Clock command"},
    {15, " received Quit Process command"},
    {16, " received Launch App command"},
    {17, " received Change Password command"},
    {18, " received Send File command."},
    {19, " received Send Folder command."},
    {20, " received Send Message command"},
    {21, " received Store Notes command"},
    {22, " received Retrieve Notes command"},
    {23, " received File Extension command"},
    {24, " received Throughput command"},
    {26, " received Hard Disk command"},
    {27, " received PCI command"},
    {28, " received IP Address command"},
    {30, " received Backup Profiler command"},
    {33, " received Assign DBMS Key command"},
};

const char* commandText(std::uint16_t code) {
  for (const CommandName& c : kCommands)
    if (c.code == code) return c.text;
  return nullptr;
}

// The size of the record a refused command would have answered with; 0
// where the console expects nothing.
std::size_t rejectionSize(std::uint16_t code) {
  switch (code) {
    case 1: return kConfigRecordSize;
    case 2: return kNetRecordSize;
    case 3: case 4: case 25: case 26: case 6: case 7: case 8: case 9: case 10:
    case 27: case 28: case 30:
      return varlo_list_header::kSize;
    case 5: return kScsiRecordSize;
    case 12: case 13: return kShutdownRecordSize;
    case 23: return kExtensionsRecordSize;
    default:
      if ((code >= 14 && code <= 22) || code == 33 || code == 34) return varlo_manage::kSize;
      return 0;
  }
}

varlo_manage::Bytes manageReply(std::uint16_t command, bool success, bool last) {
  varlo_manage::Bytes r{};
  ReplyPrefix{command, success, last, 0}.encodeInto(r);
  return r;
}

// A Pascal string of a fixed-size wire field as a C string. The source is
// copied into a buffer a byte longer than any length byte can claim, so a
// lying length never reads or writes past the field.
std::string pascalToC(const std::uint8_t* field, std::size_t fieldSize, int max) {
  char src[257] = {};
  char dst[257] = {};
  std::memcpy(src, field, fieldSize < sizeof src ? fieldSize : sizeof src);
  Util::PtoCString(src, dst, max);
  return std::string(dst);
}

}  // namespace

VLWorker::VLWorker(CPrefs* prefs)
    : prefs_(prefs ? prefs : Prefs), id_(nextID++) {}

VLWorker::~VLWorker() {
  if (task_) {
    shutdown(task_->socket, SHUT_RDWR);
    std::stringstream line;
    if (close(task_->socket) == 0) {
      line << who() << " successfully closed socket.";
    } else {
      line << who() << " could not close socket. Error: " << errno;
    }
    Log->LogMessage(line);
  }
}

std::string VLWorker::who() const { return "Worker Thread: " + std::to_string(id_); }

int VLWorker::init(const task* t) {
  if (t == nullptr) {
    char text[299];
    std::snprintf(text, sizeof text, "Worker %u received a null task pointer!", id_);
    Log->LogMessage(text);
    return -1;
  }
  task_ = *t;
  return 0;
}

void VLWorker::returnPids(std::vector<pid_t>& out) {
  out.insert(out.end(), pids_.begin(), pids_.end());
  pids_.clear();
}

void VLWorker::interrupt() {
  if (task_) shutdown(task_->socket, SHUT_RDWR);
}

void VLWorker::run() {
  Log->LogMessage(who() + " starting");
  if (!task_) {
    Log->LogMessage(who() + " does not have a task.  Finished working");
    finished_ = true;
    return;
  }
  varlo_cmd_header::Bytes wire{};
  if (ReceiveData(wire) == 0) {
    const auto header = varlo_cmd_header::decode(wire);
    if (prefs_->validatePassword(checkPassword(header)) == 1) {
      ProcessCommand(header.command);
    } else {
      sendBadPassword(header);
    }
  }
  // Tell the console at once that the session is over; the socket itself is
  // closed when the foreman reaps this worker.
  shutdown(task_->socket, SHUT_RDWR);
  finished_ = true;
  Log->LogMessage(who() + " finished");
}

std::string VLWorker::checkPassword(const varlo_cmd_header& header) const {
  std::uint8_t plain[8];
  Util::Decrypt(reinterpret_cast<const char*>(header.passwordBlock.data()),
                reinterpret_cast<char*>(plain), 8);
  return pascalToC(plain, sizeof plain, 8);
}

void VLWorker::ProcessCommand(std::uint16_t command) {
  const char* text = commandText(command);
  if (text == nullptr) {
    Log->LogMessage(who() + " received unknown command: " + std::to_string(command));
    return;
  }
  Log->LogMessage(who() + text);
  switch (command) {
    case kConfigurationCommand: {
      varlo_config record;
      getConfigData(record);
      record.prefix = ReplyPrefix{kConfigurationCommand, true, true, 0};
      SendData(record.encode());
      break;
    }
    case 3:
      sendProcessData();
      break;
    case 4:
    case 25:
      sendVolumeData(command);
      break;
    case 26:
      sendDiskData();
      break;
    case 5:
      sendSCSIData();
      break;
    case 27:
      sendPCIData();
      break;
    case kNetworkingCommand: {
      varlo_net record;
      getNetworkData(record);
      record.prefix = ReplyPrefix{kNetworkingCommand, true, true, 0};
      SendData(record.encode());
      break;
    }
    case kIpAddressCommand:
      sendIPAddrs();
      break;
    case 17:
      changePassword();
      break;
    case 21:
      storeNotes();
      break;
    case 22:
      sendNotes();
      break;
    case 33:
      assignDBMSKey();
      break;
    default:
      break;  // known to the console, not served by this agent yet
  }
}

int VLWorker::SendData(const void* data, int len) {
  if (!task_) return -1;
  if (len <= 0) return 0;
  const auto* bytes = static_cast<const char*>(data);
  int sent = 0;
  while (sent < len) {
    const ssize_t n = send(task_->socket, bytes + sent, static_cast<std::size_t>(len - sent),
                           MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      std::stringstream line;
      line << who() << " failed to send data.  Error: " << errno;
      Log->LogMessage(line);
      return -1;
    }
    sent += static_cast<int>(n);
  }
  return 0;
}

int VLWorker::ReceiveData(void* out, int len) {
  if (len <= 0) return -1;
  if (!task_) return -2;
  std::vector<char> staging(static_cast<std::size_t>(len));
  int received = 0;
  while (received < len) {
    pollfd pfd{task_->socket, POLLIN, 0};
    int ready;
    do {
      ready = poll(&pfd, 1, 1000);
    } while (ready < 0 && errno == EINTR);
    ssize_t n = 0;
    if (ready > 0) {
      n = recv(task_->socket, staging.data() + received, static_cast<std::size_t>(len - received), 0);
      if (n < 0 && errno != EINTR) {
        std::stringstream line;
        line << "Error receiving data. Error: " << errno;
        Log->LogMessage(line);
        return -2;
      }
    }
    // A closed peer would otherwise make every wait return at once, forever.
    if (ready <= 0 || n == 0) {
      Log->LogMessage("Worker " + std::to_string(id_) + " did not receive data in a timely manner");
      return -2;
    }
    if (n > 0) received += static_cast<int>(n);
  }
  std::memcpy(out, staging.data(), static_cast<std::size_t>(len));
  return 0;
}

void VLWorker::sendGoodACK() { SendData(varlo_manage::acknowledgement(true)); }

void VLWorker::sendBadACK(const std::string& message) {
  SendData(varlo_manage::acknowledgement(false, message));
}

void VLWorker::sendBadPassword(const varlo_cmd_header& header) {
  const std::size_t size = rejectionSize(header.command);
  if (size == 0) return;
  std::vector<std::uint8_t> record(size, 0);
  WireRecord<ReplyPrefix::kSize> prefix{};
  ReplyPrefix{header.command, false, true, ReplyPrefix::kPasswordRejected}.encodeInto(prefix);
  std::memcpy(record.data(), prefix.data(), prefix.size());
  SendData(record.data(), static_cast<int>(record.size()));
}

int VLWorker::receiveFileData(std::ostream& out) {
  constexpr std::uint32_t kPiece = 3072;
  std::vector<char> piece(kPiece);
  std::uint64_t total = 0;
  for (;;) {
    varlo_cmd_header::Bytes chunk{};
    if (ReceiveData(chunk) != 0 || chunk[2] == 0) return -1;
    const bool lastChunk = chunk[3] != 0;
    WireRecord<4> lengthBytes{};
    if (ReceiveData(lengthBytes) != 0) {
      sendBadACK("Failed to receive data.");
      return -1;
    }
    const std::uint32_t length = getU32(lengthBytes.data());
    for (std::uint32_t remaining = length; remaining > 0;) {
      const std::uint32_t n = remaining < kPiece ? remaining : kPiece;
      if (ReceiveData(piece.data(), static_cast<int>(n)) != 0) {
        sendBadACK("Failed to receive data.");
        return -1;
      }
      out.write(piece.data(), n);
      remaining -= n;
    }
    total += length;
    sendGoodACK();
    if (lastChunk) break;
  }
  sendGoodACK();
  char line[64];
  std::snprintf(line, sizeof line, "Received: %d bytes total", static_cast<int>(total));
  Log->LogMessage(line);
  return 0;
}

RecordSink VLWorker::sink() {
  return [this](const std::uint8_t* data, std::size_t len) {
    return SendData(data, static_cast<int>(len));
  };
}

void VLWorker::getConfigData(varlo_config& record) { CConfigInfo().getConfigData(record); }

void VLWorker::sendProcessData() {
  if (!task_) return;
  CProcessInfo processes;
  sendProcessList(processes, sink());
}

void VLWorker::sendVolumeData(std::uint16_t command) {
  if (!task_) return;
  CHDInfo disks;
  sendVolumeList(disks, command, sink());
}

void VLWorker::sendDiskData() {
  if (!task_) return;
  CHDInfo disks;
  sendDiskList(disks, sink());
}

void VLWorker::sendSCSIData() {
  if (!task_) return;
  CScsiLinux scsi;
  sendScsiRecords(scsi, sink());
}

void VLWorker::sendPCIData() {
  if (!task_) return;
  CPciLinux pci;
  sendPciList(pci, sink());
}

void VLWorker::getNetworkData(varlo_net& record) {
  record = varlo_net{};
  if (!task_) return;
  record.netTag = varlo_net::kTag;
  if (task_->socket <= 0) return;
  CNetInfo info(task_->socket);
  if (info.enumInterfaces() != 0) {
    Log->LogMessage("Error getting network data");
    return;
  }
  info.rewind();
  unsigned long address = 0, gateway = 0, mask = 0;
  const int result = info.getNextInterface(address, gateway, mask, record.hwAddr.data(), 6);
  if (result != 0) {
    Log->LogMessage("Error getting interface information.  Error: " + std::to_string(result));
    return;
  }
  record.found = true;
  record.ipAddr = static_cast<std::uint32_t>(address);
  record.gatewayAddr = static_cast<std::uint32_t>(gateway);
  record.netMask = static_cast<std::uint32_t>(mask);
  std::string zone;
  info.getATInterface(record.atNet, record.atNode, zone);
}

void VLWorker::sendIPAddrs() {
  if (!task_) return;
  const RecordSink out = sink();
  ListBatches<varlo_ipaddr> batches(kIpAddressCommand, out, [](std::size_t n) {
    Log->LogMessage("Sending " + std::to_string(n) + "ip addresses");
  });
  CNetInfo info(task_->socket);
  info.enumInterfaces();  // an empty map just gives an empty closing batch
  info.rewind();
  varlo_ipaddr entry;
  unsigned long address = 0, gateway = 0, mask = 0;
  while (info.getNextInterface(address, gateway, mask, entry.hwAddr.data(), 6) == 0) {
    entry.ipAddr = static_cast<std::uint32_t>(address);
    entry.gatewayAddr = static_cast<std::uint32_t>(gateway);
    entry.netMask = static_cast<std::uint32_t>(mask);
    if (batches.add(entry) != 0) return;
  }
  batches.finish();
}

void VLWorker::changePassword() {
  WireRecord<8> request{};
  bool ok = ReceiveData(request) == 0;
  if (ok) ok = prefs_->changePassword(pascalToC(request.data(), request.size(), 20)) == 0;
  SendData(manageReply(17, ok, true));
}

void VLWorker::assignDBMSKey() {
  varlo_manage::Bytes request{};
  ReceiveData(request);  // on failure the key is whatever arrived, as the console expects
  const bool ok = prefs_->setDBMSKey(get32<varlo_manage::KeyValue>(request)) == 0;
  ReplyPrefix{33, ok, true, 0}.encodeInto(request);
  SendData(request);
}

void VLWorker::storeNotes() {
  const auto ack = manageReply(21, true, false);
  if (SendData(ack) != 0) return;
  std::uint32_t lastIndex = 0;
  for (int i = 0; i < varlo_note::kCount; ++i) {
    varlo_note::Bytes wire{};
    if (ReceiveData(wire) != 0) return;
    if (SendData(ack) != 0) return;
    const varlo_note note = varlo_note::decode(wire);
    lastIndex = note.index;
    prefs_->storeNotes(note.text.c_str(), static_cast<int>(note.index), true);
  }
  // The empty closing store writes the collected notes out.
  prefs_->storeNotes("", static_cast<int>(lastIndex), false);
}

void VLWorker::sendNotes() {
  // The command field of this acknowledgement stays 0, unlike Store Notes'.
  varlo_manage::Bytes reply = manageReply(0, true, false);
  if (SendData(reply) != 0) {
    Log->LogMessage("Failed to send note command acknowledgement");
    return;
  }
  for (int index = 0; index < varlo_note::kCount; ++index) {
    varlo_note note;
    note.index = static_cast<std::uint32_t>(index);
    if (prefs_->retrieveNote(note.text, index) != 0) note.text.clear();
    if (SendData(note.encode()) != 0)
      Log->LogMessage("Failed to send note " + std::to_string(index));
    if (ReceiveData(reply) != 0)
      Log->LogMessage("Failed to receive note reply on sent note " + std::to_string(index));
    if (get8<ReplyPrefix::Success>(reply) == 0) {
      Log->LogMessage("Received a false result from Pathmere");
      return;
    }
  }
}
