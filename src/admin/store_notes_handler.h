// Store Notes (21): ten notes from the console, each acknowledged.
#pragma once

#include <cstdint>

class Session;

void storeNotes(Session& session, std::uint16_t code);
