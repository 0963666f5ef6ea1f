// The console's end of a session in tests: varloctl's session, answering what came
// and whether the agent hung up instead of throwing.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <optional>

#include "varlo/probe.h"
#include "varlo/records.h"
#include "varloctl/ctl_error.h"
#include "varloctl/password_block.h"
#include "varloctl/session.h"

namespace test_support {

using Bytes = std::vector<std::uint8_t>;

class ConsoleEnd {
 public:
  ConsoleEnd() = default;
  // One end of a socket pair.
  explicit ConsoleEnd(int fd) : session_(varloctl::Session(UniqueFd(fd), "worker", 3000)) {}

  static ConsoleEnd connectTo(std::uint32_t addr = INADDR_LOOPBACK,
                              std::uint16_t port = varlo::kAgentPort) {
    ConsoleEnd end;
    try {
      end.session_ = varloctl::Session::connect(addr, port, 3000);
    } catch (const varloctl::CtlError&) {
    }
    return end;
  }

  bool connected() const { return session_.has_value(); }
  int fd() const { return session_ ? session_->fd() : -1; }
  void close() { session_.reset(); }

  bool send(const void* data, std::size_t n) {
    if (!session_) return false;
    try {
      session_->send(static_cast<const std::uint8_t*>(data), n);
      return true;
    } catch (const varloctl::CtlError&) {
      return false;
    }
  }
  template <std::size_t N>
  bool send(const varlo::WireRecord<N>& r) {
    return send(r.data(), N);
  }
  bool sendHeader(std::uint16_t command, const std::string& password) {
    return send(varloctl::PasswordBlock::header(command, password));
  }

  // Exactly n bytes, or what came before the peer closed or went quiet.
  Bytes receive(std::size_t n, std::chrono::milliseconds wait = std::chrono::seconds(3)) {
    return session_->receiveSome(n, static_cast<int>(wait.count()));
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
    return session_->closedByPeer(static_cast<int>(wait.count()));
  }

 private:
  std::optional<varloctl::Session> session_;
};

inline Bytes prefixOf(const Bytes& record) {
  return Bytes(record.begin(), record.begin() + std::min<std::size_t>(5, record.size()));
}

}  // namespace test_support
