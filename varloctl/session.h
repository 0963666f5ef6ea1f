// One TCP connection to an agent, carrying one command. Every wait is
// bounded: connecting, and each whole record sent or received, must finish
// within the time-out, so a silent or trickling agent cannot hang the tool.
// Ctrl-C (Interrupt) ends any wait: the socket is shut down and the
// interrupted CtlError thrown.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "varlo/coding.h"

namespace varloctl {

class Session {
 public:
  // Tries the addresses in turn; throws CtlError (unreachable or timeout).
  static Session open(const std::vector<sockaddr_in>& addresses, const std::string& peerName,
                      int timeoutMs);

  // The agent at addr (host order) and port.
  static Session connect(std::uint32_t addr, std::uint16_t port, int timeoutMs);

  // Takes a connected socket (made non-blocking here).
  Session(UniqueFd fd, std::string peerName, int timeoutMs);

  void send(const std::uint8_t* data, std::size_t len);
  template <std::size_t N>
  void send(const varlo::WireRecord<N>& r) {
    send(r.data(), N);
  }

  // Exactly len bytes. A connection closed before the first byte means the
  // agent refused the command (or the password's record was never sent).
  void receive(std::uint8_t* data, std::size_t len);
  template <std::size_t N>
  varlo::WireRecord<N> receive() {
    varlo::WireRecord<N> r{};
    receive(r.data(), N);
    return r;
  }

  // Up to len bytes: what arrives before the agent closes the connection or
  // stays silent for waitMs. Never throws.
  std::vector<std::uint8_t> receiveSome(std::size_t len, int waitMs);
  // True when the agent closes the connection without another byte.
  bool closedByPeer(int waitMs);

  const std::string& peerName() const { return peer_; }
  int fd() const { return fd_.get(); }
  int timeoutMs() const { return timeoutMs_; }
  // For the replies that the agent gives only after a known delay.
  void setTimeoutMs(int ms) { timeoutMs_ = ms; }

 private:
  using Clock = std::chrono::steady_clock;
  // Waits for events until the deadline; false on time-out.
  bool wait(short events, Clock::time_point deadline) const;
  [[noreturn]] void timedOut(const char* what) const;
  // Throws the interrupted CtlError, after a shutdown that tells the agent
  // at once, when Ctrl-C was pressed.
  void stopIfInterrupted() const;

  UniqueFd fd_;
  std::string peer_;
  int timeoutMs_;
  // The agent dropped the connection while we were sending. It may still
  // have answered first (a rejected password), so the next receive decides.
  bool sendFailed_ = false;
  // Some of the answer came: a close now cuts it short rather than refusing.
  bool receivedAny_ = false;
};

}  // namespace varloctl
