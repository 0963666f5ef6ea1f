#include "inventory/network_handler.h"

#include <string>

#include "core/vllog.h"
#include "inventory/netinfo.h"
#include "session/session.h"
#include "varlo/net_records.h"

void getNetworkData(bool connected, CNetInfo& info, varlo::varlo_net& record) {
  record = varlo::varlo_net{};
  if (!connected) return;
  record.netTag = varlo::varlo_net::kTag;
  if (info.enumInterfaces() != 0) {
    Log->LogMessage("Error getting network data");
    return;
  }
  info.rewind();
  unsigned long address = 0, gateway = 0, mask = 0;
  const int result = info.getNextInterface(address, gateway, mask, record.hwAddr.data(), 6);
  if (result != 0) {
    Log->LogMessage("Error getting interface information.  Error: " + std::to_string(result));
    return;
  }
  record.found = true;
  record.ipAddr = static_cast<std::uint32_t>(address);
  record.gatewayAddr = static_cast<std::uint32_t>(gateway);
  record.netMask = static_cast<std::uint32_t>(mask);
  std::string zone;
  info.getATInterface(record.atNet, record.atNode, zone);
}

void sendNetworkData(Session& session, std::uint16_t code) {
  varlo::varlo_net record;
  CNetInfo info;
  getNetworkData(session.connected(), info, record);
  // Sent whole even when nothing was found: net_tag and zeros.
  record.prefix = varlo::ReplyPrefix{code, true, true, 0};
  session.SendData(record.encode());
}
