// The console's end of a session, for tests: sends headers and records and
// reads replies with a deadline, so a silent agent fails a test instead of
// hanging it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "prefs/des_cipher.h"
#include "base/unique_fd.h"
#include "varlo/probe.h"
#include "varlo/records.h"

namespace test_support {

using Bytes = std::vector<std::uint8_t>;

class ConsoleEnd {
 public:
  ConsoleEnd() = default;
  explicit ConsoleEnd(int fd) : fd_(fd) {}

  // A TCP session with the agent at addr (host order).
  static ConsoleEnd connectTo(std::uint32_t addr = INADDR_LOOPBACK,
                              std::uint16_t port = varlo::kAgentPort) {
    ConsoleEnd end(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(addr);
    if (connect(end.fd_.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) end.fd_.reset();
    return end;
  }

  bool connected() const { return fd_.valid(); }
  int fd() const { return fd_.get(); }
  void close() { fd_.reset(); }

  bool send(const void* data, std::size_t n) {
    return ::send(fd_.get(), data, n, MSG_NOSIGNAL) == static_cast<ssize_t>(n);
  }
  template <std::size_t N>
  bool send(const varlo::WireRecord<N>& r) {
    return send(r.data(), N);
  }

  // The header the console opens a session with: the password as a Pascal
  // string, enciphered.
  bool sendHeader(std::uint16_t command, const std::string& password) {
    DesCipher::Block plain{};
    plain[0] = static_cast<std::uint8_t>(password.size());
    std::memcpy(plain.data() + 1, password.data(), std::min<std::size_t>(password.size(), 7));
    varlo::varlo_cmd_header h;
    h.command = command;
    DesCipher::instance().encrypt(plain.data(), h.passwordBlock.data(), 8);
    return send(h.encode());
  }

  // Exactly n bytes, or what came before the peer closed or went quiet.
  Bytes receive(std::size_t n, std::chrono::milliseconds wait = std::chrono::seconds(3)) {
    Bytes out;
    while (out.size() < n) {
      pollfd p{fd_.get(), POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(wait.count())) <= 0) break;
      std::uint8_t buf[4096];
      const ssize_t got = recv(fd_.get(), buf, std::min(sizeof buf, n - out.size()), 0);
      if (got <= 0) break;
      out.insert(out.end(), buf, buf + got);
    }
    return out;
  }

  template <typename Record>
  Record receiveRecord(bool* ok = nullptr) {
    const Bytes b = receive(Record::kSize);
    typename Record::Bytes wire{};
    const bool whole = b.size() == Record::kSize;
    if (whole) std::copy(b.begin(), b.end(), wire.begin());
    if (ok) *ok = whole;
    return Record::decode(wire);
  }

  // True when the agent closes the session without sending another byte.
  bool closedByPeer(std::chrono::milliseconds wait = std::chrono::seconds(3)) {
    pollfd p{fd_.get(), POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(wait.count())) <= 0) return false;
    char c;
    return recv(fd_.get(), &c, 1, 0) == 0;
  }

 private:
  UniqueFd fd_;
};

inline Bytes prefixOf(const Bytes& record) {
  return Bytes(record.begin(), record.begin() + std::min<std::size_t>(5, record.size()));
}

}  // namespace test_support
