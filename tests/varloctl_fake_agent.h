// Stand-ins for an agent on 127.0.0.1, for the varloctl tests: a TCP peer
// that plays one scripted dialogue, and a UDP peer that answers one probe.
// Every wait is bounded, so a client fault fails a test instead of hanging it.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/unique_fd.h"

namespace varloctl_test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes bytes(std::initializer_list<int> list) { return Bytes(list.begin(), list.end()); }

// A zero record of `size` bytes with each field's bytes at its offset.
inline Bytes record(std::size_t size,
                    std::initializer_list<std::pair<std::size_t, Bytes>> fields = {}) {
  Bytes r(size, 0);
  for (const auto& [offset, b] : fields)
    std::copy(b.begin(), b.end(), r.begin() + static_cast<std::ptrdiff_t>(offset));
  return r;
}

inline Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

inline constexpr int kPeerWaitMs = 5000;

inline bool readable(int fd, int ms = kPeerWaitMs) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, ms) > 0;
}

inline UniqueFd loopbackSocket(int type, std::uint16_t& port) {
  UniqueFd fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ::bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a);
  ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&a), &len);
  port = ntohs(a.sin_port);
  return fd;
}

class FakeAgent {
 public:
  struct Step {
    enum Kind { Expect, Send, Pause, Close } kind;
    Bytes data;
    int ms = 0;
  };
  static Step expect(Bytes b) { return {Step::Expect, std::move(b)}; }
  static Step send(Bytes b) { return {Step::Send, std::move(b)}; }
  static Step pause(int ms) { return {Step::Pause, {}, ms}; }
  static Step close() { return {Step::Close, {}}; }

  // Plays the steps on the first connection; after the last one it reads
  // until the client hangs up (unless told to close), recording any extra.
  explicit FakeAgent(std::vector<Step> script) : script_(std::move(script)) {
    listener_ = loopbackSocket(SOCK_STREAM, port_);
    ::listen(listener_.get(), 1);
    thread_ = std::thread([this] { play(); });
  }
  ~FakeAgent() { join(); }

  std::uint16_t port() const { return port_; }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  // Valid after join(): what the script expected but did not get, and what
  // came after the script's last expectation.
  const std::string& mismatch() const { return mismatch_; }
  const Bytes& extra() const { return extra_; }

 private:
  void play() {
    if (!readable(listener_.get())) return void(mismatch_ = "no connection");
    UniqueFd conn(::accept(listener_.get(), nullptr, nullptr));
    for (const Step& s : script_) {
      if (s.kind == Step::Close) return;
      if (s.kind == Step::Pause) std::this_thread::sleep_for(std::chrono::milliseconds(s.ms));
      if (s.kind == Step::Send) ::send(conn.get(), s.data.data(), s.data.size(), MSG_NOSIGNAL);
      if (s.kind == Step::Expect) {
        Bytes got(s.data.size());
        std::size_t n = 0;
        while (n < got.size() && readable(conn.get())) {
          const ssize_t r = ::recv(conn.get(), got.data() + n, got.size() - n, 0);
          if (r <= 0) break;
          n += static_cast<std::size_t>(r);
        }
        if (n != got.size() || got != s.data) {
          mismatch_ = "expected " + std::to_string(s.data.size()) + " bytes, got " +
                      std::to_string(n) + (n == got.size() ? " that differ" : "");
          return;
        }
      }
    }
    std::uint8_t buf[512];
    while (readable(conn.get())) {
      const ssize_t r = ::recv(conn.get(), buf, sizeof buf, 0);
      if (r <= 0) break;
      extra_.insert(extra_.end(), buf, buf + r);
    }
  }

  std::vector<Step> script_;
  UniqueFd listener_;
  std::uint16_t port_ = 0;
  std::thread thread_;
  std::string mismatch_;
  Bytes extra_;
};

// Answers the first datagram with each of `replies`, in order.
class FakeProbeResponder {
 public:
  explicit FakeProbeResponder(std::vector<Bytes> replies) : replies_(std::move(replies)) {
    socket_ = loopbackSocket(SOCK_DGRAM, port_);
    thread_ = std::thread([this] {
      if (!readable(socket_.get())) return;
      sockaddr_in from{};
      socklen_t len = sizeof from;
      probe_.resize(2048);
      const ssize_t n = ::recvfrom(socket_.get(), probe_.data(), probe_.size(), 0,
                                   reinterpret_cast<sockaddr*>(&from), &len);
      probe_.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
      for (const Bytes& r : replies_)
        ::sendto(socket_.get(), r.data(), r.size(), 0, reinterpret_cast<sockaddr*>(&from), len);
    });
  }
  ~FakeProbeResponder() { join(); }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  std::uint16_t port() const { return port_; }
  const Bytes& probe() const { return probe_; }  // after join()

 private:
  std::vector<Bytes> replies_;
  UniqueFd socket_;
  std::uint16_t port_ = 0;
  std::thread thread_;
  Bytes probe_;
};

}  // namespace varloctl_test
