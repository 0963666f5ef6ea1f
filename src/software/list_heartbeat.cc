#include "software/list_heartbeat.h"

#include "varlo/records.h"

ListHeartbeat::ListHeartbeat(int socket, std::uint16_t command) : beat_(socket) {
  if (socket < 0) return;
  varlo::varlo_list_header header;
  header.prefix = varlo::ReplyPrefix{command, true, false, 0};
  const auto block = header.encode();
  beat_.startHeartbeat(block.data(), block.size());
}
