#include "admin/store_notes_handler.h"

#include "prefs/prefs.h"
#include "session/session.h"
#include "varlo/records.h"

void storeNotes(Session& session, std::uint16_t code) {
  using namespace varlo;
  const auto ack = varlo_manage::reply(code, true, false);
  if (session.SendData(ack) != 0) return;
  std::uint32_t lastIndex = 0;
  for (int i = 0; i < varlo_note::kCount; ++i) {
    varlo_note::Bytes wire{};
    if (session.ReceiveData(wire) != 0) return;
    if (session.SendData(ack) != 0) return;
    const varlo_note note = varlo_note::decode(wire);
    lastIndex = note.index;
    session.prefs().storeNotes(note.text.c_str(), static_cast<int>(note.index), true);
  }
  // The empty closing store writes the collected notes out.
  session.prefs().storeNotes("", static_cast<int>(lastIndex), false);
}
