#include "admin/dbms_key_handler.h"

#include "prefs/prefs.h"
#include "session/session.h"
#include "varlo/records.h"

void assignDBMSKey(Session& session, std::uint16_t code) {
  using varlo::varlo_manage;
  varlo_manage::Bytes request{};
  // A request cut short carries no key: the stored one stays as it was.
  const bool received = session.ReceiveData(request) == 0;
  const bool ok =
      received && session.prefs().setDBMSKey(varlo::get32<varlo_manage::KeyValue>(request)) == 0;
  varlo::ReplyPrefix{code, ok, true, 0}.encodeInto(request);
  session.SendData(request);
}
