// A stand-in for an agent on 127.0.0.1, for the varloctl tests: a TCP peer
// that plays one scripted dialogue. Every wait is bounded, so a client fault
// fails a test instead of hanging it.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "varloctl/app.h"
#include "varloctl/interrupt.h"

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

// A socket on 127.0.0.1 and the port it got; reads on it wait at most 5 s.
inline UniqueFd loopbackSocket(int type, std::uint16_t& port) {
  UniqueFd fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ::bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a);
  ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&a), &len);
  port = ntohs(a.sin_port);
  const timeval bound{5, 0};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
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
    pollfd p{listener_.get(), POLLIN, 0};
    if (::poll(&p, 1, 5000) <= 0) return void(mismatch_ = "no connection");
    UniqueFd conn(::accept(listener_.get(), nullptr, nullptr));  // inherits the bound on reads
    for (const Step& s : script_) {
      if (s.kind == Step::Close) return;
      if (s.kind == Step::Pause) std::this_thread::sleep_for(std::chrono::milliseconds(s.ms));
      if (s.kind == Step::Send) ::send(conn.get(), s.data.data(), s.data.size(), MSG_NOSIGNAL);
      if (s.kind != Step::Expect) continue;
      Bytes got(s.data.size());
      const ssize_t n = ::recv(conn.get(), got.data(), got.size(), MSG_WAITALL);
      if (got != s.data)
        return void(mismatch_ = "expected " + std::to_string(s.data.size()) + " bytes, got " +
                                std::to_string(n) + " that differ");
    }
    std::uint8_t buf[512];
    for (ssize_t n; (n = ::recv(conn.get(), buf, sizeof buf, 0)) > 0;)
      extra_.insert(extra_.end(), buf, buf + n);
  }

  std::vector<Step> script_;
  UniqueFd listener_;
  std::uint16_t port_ = 0;
  std::thread thread_;
  std::string mismatch_;
  Bytes extra_;
};

using Script = std::vector<FakeAgent::Step>;
using Words = std::vector<std::string>;

// The password blocks the agent deciphers (DES under the key made from
// "qorvelt") for "secret" and for no password.
inline const Bytes kSecret = bytes({0xb1, 0x6e, 0xd7, 0x45, 0x29, 0x07, 0x5b, 0x4d});
inline const Bytes kEmpty = bytes({0xae, 0xc6, 0xc2, 0x38, 0xc7, 0x44, 0xdb, 0xad});

inline Bytes header(int code, const Bytes& block) {
  return bytes({code >> 8, code & 0xFF, 0, 0}) + block;
}

inline Bytes pstring(const std::string& s) {
  return bytes({int(s.size())}) + Bytes(s.begin(), s.end());
}

inline Bytes be32(std::uint32_t v) {
  return bytes({int(v >> 24), int(v >> 16 & 0xFF), int(v >> 8 & 0xFF), int(v & 0xFF)});
}

// A reply record: prefix command, success, last, status; the rest zero.
inline Bytes reply(std::size_t size, int code, int success, int last, int status = 0) {
  return record(size, {{0, bytes({code >> 8, code & 0xFF, success, last, status})}});
}

struct Result {
  int status;
  std::string out, err, mismatch;
  Bytes extra;
};

// varloctl args; terminal: whether its standard error is one; ask: how the
// terminal answers a question (none: there is no terminal to ask on).
inline Result ctl(const Words& args, bool terminal = false, const varloctl::App::Ask& ask = {}) {
  std::ostringstream out, err;
  const int status = varloctl::App::run(args, std::nullopt, out, err, terminal, ask);
  return {status, out.str(), err.str(), "", {}};
}

// varloctl ... 127.0.0.1 words, against an agent that plays script.
inline Result play(Script script, Words words, const std::string& timeout = "2",
                   bool terminal = false, const varloctl::App::Ask& ask = {}) {
  FakeAgent agent(std::move(script));
  words.insert(words.begin(),
               {"--port", std::to_string(agent.port()), "--timeout", timeout, "127.0.0.1"});
  const Result r = ctl(words, terminal, ask);
  agent.join();
  return {r.status, r.out, r.err, agent.mismatch(), agent.extra()};
}

// A Ctrl-C 300 ms from now: SIGINT to this thread, caught as varloctl's
// handler catches it (breaking a poll with EINTR), or only the flag raised.
class CtrlCLater {
 public:
  explicit CtrlCLater(bool bySignal = true) {
    struct sigaction sa {};
    sa.sa_handler = [](int) { varloctl::Interrupt::raise(); };
    installed_ = sigaction(SIGINT, &sa, &old_) == 0;
    varloctl::Interrupt::clear();
    const pthread_t self = pthread_self();
    bySignal = bySignal && installed_;  // an uncaught SIGINT would end the tests
    thread_ = std::thread([self, bySignal] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      bySignal ? void(pthread_kill(self, SIGINT)) : varloctl::Interrupt::raise();
    });
  }
  ~CtrlCLater() {
    thread_.join();
    if (installed_) sigaction(SIGINT, &old_, nullptr);
    varloctl::Interrupt::clear();
  }
  CtrlCLater(const CtrlCLater&) = delete;
  CtrlCLater& operator=(const CtrlCLater&) = delete;
  bool installed() const { return installed_; }

 private:
  struct sigaction old_ {};
  bool installed_ = false;
  std::thread thread_;
};

}  // namespace varloctl_test
