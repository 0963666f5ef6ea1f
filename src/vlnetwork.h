// The agent's two listening sockets on port 4347: UDP for discovery probes,
// answered here at once, and TCP for command sessions, handed to the
// foreman through the connection buffer.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "unique_fd.h"
#include "varlo/probe.h"

class VLBuffer;

class VLNetwork {
 public:
  enum socketTypes { UDP = 0, TCP = 1 };

  explicit VLNetwork(VLBuffer& buffer, std::uint16_t port = varlo::kAgentPort);
  ~VLNetwork();
  VLNetwork(const VLNetwork&) = delete;
  VLNetwork& operator=(const VLNetwork&) = delete;

  int init();
  int initSocket(socketTypes type);
  void closeSocket(socketTypes type);
  void run();
  // 1 when a reply went out, else 0.
  int handleProbe();
  void getExitVal(bool& out);
  void exit();

  // The host as the probe reply describes it.
  static varlo::varlo_probe_reply describeHost();
  // Kernel release "6.1.0-18-amd64" to the console's version number.
  static std::uint32_t osVersionOf(const std::string& release);

 private:
  bool acceptConnection();

  VLBuffer& buffer_;
  std::uint16_t port_;
  std::mutex mutex_;
  bool exitFlag_ = false;
  UniqueFd udpSocket_;
  UniqueFd tcpSocket_;
  UniqueFd exitPipe_[2];
};
