#include "admin/change_password_handler.h"

#include "prefs/password_block.h"
#include "prefs/prefs.h"
#include "session/session.h"
#include "varlo/records.h"

void changePassword(Session& session, std::uint16_t code) {
  varlo::WireRecord<8> request{};
  bool ok = session.ReceiveData(request) == 0;
  if (ok) ok = session.prefs().changePassword(password_block::pascalText(request, 20)) == 0;
  // Answered also when the request never came, so the console is not left waiting.
  session.SendData(varlo::varlo_manage::reply(code, ok, true));
}
