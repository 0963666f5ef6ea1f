#include "intake/vlnetwork.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "intake/vlbuffer.h"
#include "core/vllog.h"

using varlo::varlo_probe_reply;

namespace {

std::string dotted(const sockaddr_in& addr) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text);
  return text;
}

void logWithErrno(const char* text) {
  std::stringstream line;
  line << text << errno;
  Log->LogMessage(line);
}

}  // namespace

VLNetwork::VLNetwork(VLBuffer& buffer, Describer describe, std::uint16_t port)
    : buffer_(buffer), describe_(std::move(describe)), port_(port) {}

VLNetwork::~VLNetwork() {
  Log->LogMessage("Networking shutting down");
  Log->LogMessage("Closing network sockets");
  closeSocket(UDP);
  closeSocket(TCP);
}

int VLNetwork::init() {
  if (initSocket(UDP) != 0 || initSocket(TCP) != 0) return -1;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    logWithErrno("Failed to create exit pipe, varlo will take longer to shutdown.  Error: ");
    return 0;
  }
  exitPipe_[0].reset(fds[0]);
  exitPipe_[1].reset(fds[1]);
  return 0;
}

int VLNetwork::initSocket(socketTypes type) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port_);
  addr.sin_addr.s_addr = htonl(INADDR_ANY);

  if (type == UDP) {
    if (udpSocket_.valid()) {
      Log->LogMessage("UDP socket is already valid, cannot initialize.");
      return -1;
    }
    // Non-blocking: a round of the loop never waits on a datagram.
    udpSocket_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!udpSocket_.valid()) {
      logWithErrno("Could not initialize UDP socket. Error: ");
      return -1;
    }
    if (bind(udpSocket_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      logWithErrno("Unable to bind probe socket to port 4347.  Error: ");
      return -1;
    }
    Log->LogMessage("Successfully bound UDP port 4347");
    return 0;
  }
  if (type == TCP) {
    if (tcpSocket_.valid()) {
      Log->LogMessage("TCP socket is already valid, cannot initialize.");
      return -1;
    }
    tcpSocket_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!tcpSocket_.valid()) {
      logWithErrno("Failed to create tcp socket.  Error: ");
      return -1;
    }
    // Sessions closed at shutdown linger in TIME_WAIT; a restart must still bind.
    const int on = 1;
    setsockopt(tcpSocket_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(tcpSocket_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      logWithErrno("Unable to bind tcp socket.  Error: ");
      return -1;
    }
    Log->LogMessage("Successfully bound TCP port 4347");
    if (listen(tcpSocket_.get(), 5) != 0) {
      const int err = errno;
      tcpSocket_.reset();
      errno = err;
      logWithErrno("Failed to listen on tcp socket.  Error: ");
      return -1;
    }
    Log->LogMessage("Varlo listening on port 4347");
    return 0;
  }
  Log->LogMessage("Cannot initialize unknown socket type.");
  return -1;
}

void VLNetwork::closeSocket(socketTypes type) {
  if (type == UDP) {
    if (!udpSocket_.valid()) return;
    if (close(udpSocket_.release()) == 0) {
      Log->LogMessage("Successfully closed probe socket");
    } else {
      Log->LogMessage("Error closing probe socket");
    }
    return;
  }
  if (!tcpSocket_.valid()) return;
  if (shutdown(tcpSocket_.get(), SHUT_RDWR) != 0) {
    logWithErrno("Error shutting probe_socket.  Error: ");
  }
  if (close(tcpSocket_.release()) == 0) {
    Log->LogMessage("Successfully closed tcp socket");
  } else {
    Log->LogMessage("Error closing tcp socket");
  }
}

void VLNetwork::getExitVal(bool& out) {
  std::lock_guard<std::mutex> lock(mutex_);
  out = exitFlag_;
}

void VLNetwork::exit() {
  std::lock_guard<std::mutex> lock(mutex_);
  exitFlag_ = true;
  if (!exitPipe_[1].valid()) return;
  if (write(exitPipe_[1].get(), "exit", 5) != 5) {
    logWithErrno("Failed to write to exit pipe.  Error: ");
  }
}

void VLNetwork::run() {
  Log->LogMessage("Network Thread: Starting main loop");
  bool quit = false;
  getExitVal(quit);
  while (!quit) {
    pollfd fds[3] = {{exitPipe_[0].get(), POLLIN, 0},
                     {udpSocket_.get(), POLLIN, 0},
                     {tcpSocket_.get(), POLLIN, 0}};
    const int ready = poll(fds, 3, 60 * 1000);
    getExitVal(quit);
    if (quit) break;
    if (ready < 0) {
      if (errno != EINTR) logWithErrno("Select() returned an error.  Error: ");
      continue;
    }
    // The exit pipe wins: the other sockets of this round are left alone.
    if (ready == 0 || (fds[0].revents & POLLIN)) continue;
    if (fds[1].revents & POLLIN) handleProbe();
    // Every connection waiting is taken: with a backlog of five, a burst of
    // consoles would otherwise overflow the queue and stall for seconds.
    if (fds[2].revents & POLLIN)
      while (acceptConnection()) {
      }
  }
  Log->LogMessage("Network thread: exit flag set");
}

bool VLNetwork::acceptConnection() {
  sockaddr_in peer{};
  socklen_t len = sizeof peer;
  const int fd = accept4(tcpSocket_.get(), reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
  if (fd < 0) {
    // Not an error: the peer gave up first, or someone else took it.
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED ||
        errno == EPROTO) {
      return false;
    }
    logWithErrno("Error when accepting TCP connection.  Error: ");
    closeSocket(TCP);
    // Wait out the trouble (descriptors running out, say), but leave at once
    // when asked to stop.
    pollfd pipe{exitPipe_[0].get(), POLLIN, 0};
    poll(&pipe, exitPipe_[0].valid() ? 1 : 0, 70 * 1000);
    bool quit = false;
    getExitVal(quit);
    if (quit) return false;
    if (initSocket(TCP) != 0) {
      Log->LogMessage("Failed to reinitialize TCP socket. Shutting down");
      std::exit(0);
    }
    return false;
  }
  // Sessions are served in blocking mode by their workers.
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  Log->LogMessage("Received TCP request from " + dotted(peer));
  buffer_.push(fd, peer, nullptr, 0);
  return true;
}

int VLNetwork::handleProbe() {
  varlo_probe_reply::Bytes wire{};
  sockaddr_in source{};
  socklen_t len = sizeof source;
  // MSG_TRUNC reports the datagram's real length, so 471 bytes are not
  // mistaken for a probe.
  const ssize_t got = recvfrom(udpSocket_.get(), wire.data(), wire.size(), MSG_TRUNC,
                               reinterpret_cast<sockaddr*>(&source), &len);
  if (got != static_cast<ssize_t>(varlo_probe_reply::kSize)) return 0;
  Log->LogMessage("Probe Source: " + dotted(source));
  wire = describe_().encode();
  if (sendto(udpSocket_.get(), wire.data(), wire.size(), MSG_NOSIGNAL,
             reinterpret_cast<sockaddr*>(&source), len) < 0) {
    logWithErrno("Failed to send probe response. Error: ");
    return 0;
  }
  Log->LogMessage("Sent probe response");
  return 1;
}
