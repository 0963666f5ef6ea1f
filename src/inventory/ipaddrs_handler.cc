#include "inventory/ipaddrs_handler.h"

#include <string>

#include "core/vllog.h"
#include "inventory/netinfo.h"
#include "session/list_batches.h"
#include "session/session.h"
#include "varlo/net_records.h"

int sendIpAddressList(CNetInfo& info, const RecordSink& sink) {
  using varlo::varlo_ipaddr;
  ListBatches<varlo_ipaddr> batches(varlo::kIpAddressCommand, sink, [](std::size_t n) {
    Log->LogMessage("Sending " + std::to_string(n) + "ip addresses");
  });
  info.enumInterfaces();  // an empty map just gives an empty closing batch
  info.rewind();
  varlo_ipaddr entry;
  unsigned long address = 0, gateway = 0, mask = 0;
  while (info.getNextInterface(address, gateway, mask, entry.hwAddr.data(), 6) == 0) {
    entry.ipAddr = static_cast<std::uint32_t>(address);
    entry.gatewayAddr = static_cast<std::uint32_t>(gateway);
    entry.netMask = static_cast<std::uint32_t>(mask);
    if (batches.add(entry) != 0) return -1;
  }
  return batches.finish();
}

void sendIPAddrs(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  CNetInfo info;
  sendIpAddressList(info, session.sink());
}
