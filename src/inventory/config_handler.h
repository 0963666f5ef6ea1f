// Configuration (1): the machine in one record.
#pragma once

#include <cstdint>

class Session;

void sendConfigData(Session& session, std::uint16_t code);
