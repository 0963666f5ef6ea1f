#include "varloctl/notes_get_command.h"

namespace varloctl {

std::unique_ptr<Command> NotesGetCommand::make(const std::vector<std::string>&) {
  return std::make_unique<NotesGetCommand>();
}

Value NotesGetCommand::run(Session& session) {
  using varlo::varlo_manage;
  using varlo::varlo_note;
  const auto ready = receiveFirstReply<varlo_manage::kSize>(session);
  requireSuccess(ready, "the agent refused to send its notes");
  // A success byte of 0 would make the agent stop sending.
  const auto next = varlo_manage::acknowledgement(true);
  Value notes = Value::array();
  for (int i = 0; i < varlo_note::kCount; ++i) {
    const auto note = varlo_note::decode(session.receive<varlo_note::kSize>());
    notes.push_back(Value{{"index", note.index}, {"text", note.text}});
    session.send(next);
  }
  return notes;
}

}  // namespace varloctl
