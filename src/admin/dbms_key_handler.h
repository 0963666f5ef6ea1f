// Assign DBMS Key (33): the key arrives in a manage record and the record goes back.
#pragma once

#include <cstdint>

class Session;

void assignDBMSKey(Session& session, std::uint16_t code);
