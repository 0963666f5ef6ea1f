// Finds agents: one probe datagram to a host or a broadcast address, then
// every well-formed answer until the time-out, one per answering address.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "varlo/probe.h"
#include "varloctl/value.h"

namespace varloctl {

class Discovery {
 public:
  struct Agent {
    std::uint32_t address = 0;  // where the answer came from
    varlo::varlo_probe_reply reply;
  };

  // broadcast: keep listening for the whole time-out; otherwise the first
  // answer ends the wait.
  Discovery(std::string target, std::uint16_t port, int timeoutMs, bool broadcast);

  // Sorted by address; empty when nobody answered. Throws CtlError when the
  // probe cannot be sent.
  std::vector<Agent> run() const;

  static Value describe(const std::vector<Agent>& agents);

 private:
  std::string target_;
  std::uint16_t port_;
  int timeoutMs_;
  bool broadcast_;
};

}  // namespace varloctl
