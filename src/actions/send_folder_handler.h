// Send Folder (19): a folder tree, item by item, into the folder its code
// names. Every level is made and opened relative to its parent without
// following links, so the tree can only grow inside that folder.
#pragma once

#include <cstdint>

#include "actions/send_file_handler.h"

class Session;

void sendFolder(Session& session, std::uint16_t code);
void sendFolder(Session& session, const TransferSettings& settings);
