#include "inventory/config_handler.h"

#include "inventory/config_info.h"
#include "session/session.h"
#include "varlo/config_record.h"

void sendConfigData(Session& session, std::uint16_t code) {
  varlo::varlo_config record;
  CConfigInfo().getConfigData(record);
  record.prefix = varlo::ReplyPrefix{code, true, true, 0};
  session.SendData(record.encode());
}
