// IP Address (28): every usable interface in batches of ten.
#pragma once

#include <cstdint>

#include "session/record_sink.h"

class CNetInfo;
class Session;

// Full batches are logged ("Sending 10ip addresses", as the console's
// operators know it); the closing one is not. 0, or -1 once the sink refuses.
int sendIpAddressList(CNetInfo& info, const RecordSink& sink);

void sendIPAddrs(Session& session, std::uint16_t code);
