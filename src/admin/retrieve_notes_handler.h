// Retrieve Notes (22): the ten notes to the console, each answered by it.
#pragma once

#include <cstdint>

class Session;

void sendNotes(Session& session, std::uint16_t code);
