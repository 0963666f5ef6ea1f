// Networking (2): the first usable interface, in name order, in one record.
#pragma once

#include <cstdint>

class CNetInfo;
class Session;
namespace varlo {
struct varlo_net;
}

// Fills the record from info (the prefix is left to the caller). net_tag is
// 4 whenever there is a connection; the interface fields only when one was
// found (otherwise logged).
void getNetworkData(bool connected, CNetInfo& info, varlo::varlo_net& record);

void sendNetworkData(Session& session, std::uint16_t code);
