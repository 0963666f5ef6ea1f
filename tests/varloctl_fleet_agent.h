// Stand-ins for a fleet of agents for the varloctl tests. 127.0.0.0/8 is
// all loopback on Linux, so each agent listens on an address of its own
// (127.0.0.2, 127.0.0.3, ...) and all on the same port, which a CIDR and
// --port then reach. Each answers every connection the same way, one at a
// time; a Gauge shared by several counts the requests they hold at once.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "varloctl_fake_agent.h"

namespace varloctl_test {

// Requests held between reading one and answering it, now and at most.
struct Gauge {
  std::atomic<int> now{0}, peak{0};
  void enter() {
    const int n = ++now;
    for (int p = peak; n > p && !peak.compare_exchange_weak(p, n);) {
    }
  }
  void leave() { --now; }
};

// A TCP socket bound to address:port (0: any free port), or an invalid one.
inline UniqueFd boundAt(const std::string& address, std::uint16_t& port) {
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  ::inet_pton(AF_INET, address.c_str(), &a.sin_addr);
  socklen_t len = sizeof a;
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return UniqueFd();
  ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&a), &len);
  port = ntohs(a.sin_port);
  return fd;
}

class FleetAgent {
 public:
  struct Behaviour {
    Bytes request;        // what must follow the command header
    Bytes answer;         // sent once the request is in
    int holdMs = 0;       // how long the request is held before the answer
    bool silent = false;  // listens, but never accepts nor answers
  };

  // listener: bound by boundAt().
  FleetAgent(UniqueFd listener, Behaviour b, Gauge* gauge)
      : listener_(std::move(listener)), b_(std::move(b)), gauge_(gauge) {
    ::listen(listener_.get(), 64);
    if (!b_.silent) thread_ = std::thread([this] { serve(); });
  }
  ~FleetAgent() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  FleetAgent(const FleetAgent&) = delete;
  FleetAgent& operator=(const FleetAgent&) = delete;

  int served() const { return served_; }
  int mismatches() const { return mismatches_; }

 private:
  void serve() {
    while (!stop_) {
      pollfd p{listener_.get(), POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      UniqueFd conn(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!conn.valid()) continue;
      const timeval bound{5, 0};
      ::setsockopt(conn.get(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
      Bytes got(12 + b_.request.size());
      const ssize_t n = ::recv(conn.get(), got.data(), got.size(), MSG_WAITALL);
      if (n != static_cast<ssize_t>(got.size()) ||
          !std::equal(b_.request.begin(), b_.request.end(), got.begin() + 12)) {
        ++mismatches_;
        continue;
      }
      if (gauge_ != nullptr) gauge_->enter();
      std::this_thread::sleep_for(std::chrono::milliseconds(b_.holdMs));
      if (gauge_ != nullptr) gauge_->leave();
      ::send(conn.get(), b_.answer.data(), b_.answer.size(), MSG_NOSIGNAL);
      ++served_;
      // Until the client hangs up, so that it reads the whole answer.
      std::uint8_t buf[256];
      while (::recv(conn.get(), buf, sizeof buf, 0) > 0) {
      }
    }
  }

  UniqueFd listener_;
  Behaviour b_;
  Gauge* gauge_;
  std::atomic<bool> stop_{false};
  std::atomic<int> served_{0}, mismatches_{0};
  std::thread thread_;
};

// Agents on 127.0.0.2, 127.0.0.3, ... one for each behaviour, on one port.
class FleetOfAgents {
 public:
  explicit FleetOfAgents(const std::vector<FleetAgent::Behaviour>& behaviours) {
    // A port free on every address; another program may hold one.
    for (int attempt = 0; attempt < 20 && agents_.empty(); ++attempt) {
      std::vector<UniqueFd> listeners;
      port_ = 0;
      for (std::size_t i = 0; i < behaviours.size(); ++i) {
        UniqueFd fd = boundAt(address(i), port_);
        if (!fd.valid()) break;
        listeners.push_back(std::move(fd));
      }
      if (listeners.size() != behaviours.size()) continue;
      for (std::size_t i = 0; i < behaviours.size(); ++i)
        agents_.push_back(
            std::make_unique<FleetAgent>(std::move(listeners[i]), behaviours[i], &gauge_));
    }
  }

  static std::string address(std::size_t i) { return "127.0.0." + std::to_string(i + 2); }
  std::uint16_t port() const { return port_; }
  bool ready() const { return !agents_.empty(); }
  const Gauge& gauge() const { return gauge_; }
  const FleetAgent& operator[](std::size_t i) const { return *agents_.at(i); }

 private:
  Gauge gauge_;
  std::uint16_t port_ = 0;
  std::vector<std::unique_ptr<FleetAgent>> agents_;
};

}  // namespace varloctl_test
