#include "varloctl/discovery.h"

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "base/unique_fd.h"
#include "varloctl/ctl_error.h"
#include "varloctl/interrupt.h"
#include "varloctl/resolver.h"
#include "varloctl/wire_text.h"

namespace varloctl {

Discovery::Discovery(std::string target, std::uint16_t port, int timeoutMs, bool broadcast)
    : target_(std::move(target)), port_(port), timeoutMs_(timeoutMs), broadcast_(broadcast) {}

std::vector<Discovery::Agent> Discovery::run() const {
  using Clock = std::chrono::steady_clock;
  const sockaddr_in to = resolveIPv4(target_, port_).front();

  UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.valid())
    throw CtlError(kUnreachable, std::string("cannot create a socket: ") + std::strerror(errno));
  const int on = 1;
  if (::setsockopt(fd.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0)
    throw CtlError(kUnreachable, std::string("cannot enable broadcast: ") + std::strerror(errno));

  // The agent answers any datagram of exactly this size; the contents are unread.
  const varlo::varlo_probe_reply::Bytes probe{};
  if (::sendto(fd.get(), probe.data(), probe.size(), 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof to) != static_cast<ssize_t>(probe.size()))
    throw CtlError(kUnreachable,
                   "cannot send the probe to " + target_ + ": " + std::strerror(errno));

  std::vector<Agent> agents;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs_);
  for (;;) {
    Interrupt::check();
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) break;
    pollfd p{fd.get(), POLLIN, 0};
    const int n =
        ::poll(&p, 1, static_cast<int>(std::min<std::int64_t>(left, Interrupt::kSliceMs)));
    if (n == 0 || (n < 0 && errno == EINTR)) continue;
    if (n < 0) break;

    // One byte more than a reply, so that longer datagrams show as such.
    std::uint8_t buf[varlo::varlo_probe_reply::kSize + 1];
    sockaddr_in from{};
    socklen_t fromLen = sizeof from;
    const ssize_t got =
        ::recvfrom(fd.get(), buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
    // Errors here are ICMP reports or stray datagrams; keep listening.
    if (got != static_cast<ssize_t>(varlo::varlo_probe_reply::kSize)) continue;

    const std::uint32_t address = ntohl(from.sin_addr.s_addr);
    const bool seen = std::any_of(agents.begin(), agents.end(),
                                  [&](const Agent& a) { return a.address == address; });
    if (!seen) {
      varlo::varlo_probe_reply::Bytes bytes;
      std::memcpy(bytes.data(), buf, bytes.size());
      agents.push_back(Agent{address, varlo::varlo_probe_reply::decode(bytes)});
    }
    if (!broadcast_) break;
  }
  std::sort(agents.begin(), agents.end(),
            [](const Agent& a, const Agent& b) { return a.address < b.address; });
  return agents;
}

Value Discovery::describe(const std::vector<Agent>& agents) {
  Value list = Value::array();
  for (const Agent& a : agents) {
    const auto& r = a.reply;
    list.push_back(Value{{"address", dotted(a.address)},
                         {"host_name", r.hostName},
                         {"os_version", osVersion(r.osVersion)},
                         {"user", r.userName},
                         {"dbms_key", r.dbmsKey},
                         {"agent_version", agentVersion(r.agentVersion)}});
  }
  return list;
}

}  // namespace varloctl
