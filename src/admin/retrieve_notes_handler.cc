#include "admin/retrieve_notes_handler.h"

#include "prefs/prefs.h"
#include "session/session.h"
#include "varlo/records.h"

void sendNotes(Session& session, std::uint16_t) {
  using namespace varlo;
  // The command field of this acknowledgement stays 0, unlike Store Notes'.
  varlo_manage::Bytes reply = varlo_manage::reply(0, true, false);
  if (session.SendData(reply) != 0) {
    session.log("Failed to send note command acknowledgement");
    return;
  }
  for (int index = 0; index < varlo_note::kCount; ++index) {
    if (session.stopRequested()) return;
    varlo_note note;
    note.index = static_cast<std::uint32_t>(index);
    if (session.prefs().retrieveNote(note.text, index) != 0) note.text.clear();
    if (session.SendData(note.encode()) != 0)
      session.log("Failed to send note " + std::to_string(index));
    // A failed receive keeps the previous reply, as the console expects.
    if (session.ReceiveData(reply) != 0)
      session.log("Failed to receive note reply on sent note " + std::to_string(index));
    if (get8<ReplyPrefix::Success>(reply) == 0) {
      session.log("Received a false result from Pathmere");
      return;
    }
  }
}
