// The agent's two listening sockets on port 4347: UDP for discovery probes,
// answered here at once, and TCP for command sessions, handed to the
// foreman through the connection buffer.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "base/unique_fd.h"
#include "varlo/probe.h"

class VLBuffer;

class VLNetwork {
 public:
  enum socketTypes { UDP = 0, TCP = 1 };

  // describe gives the reply to a probe; it must not block.
  using Describer = std::function<varlo::varlo_probe_reply()>;

  VLNetwork(VLBuffer& buffer, Describer describe, std::uint16_t port = varlo::kAgentPort);
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

 private:
  bool acceptConnection();

  VLBuffer& buffer_;
  Describer describe_;
  std::uint16_t port_;
  std::mutex mutex_;
  bool exitFlag_ = false;
  UniqueFd udpSocket_;
  UniqueFd tcpSocket_;
  UniqueFd exitPipe_[2];
};
