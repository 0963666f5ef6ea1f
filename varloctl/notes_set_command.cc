#include "varloctl/notes_set_command.h"

#include "varloctl/numbers.h"

namespace varloctl {

std::unique_ptr<Command> NotesSetCommand::make(const std::vector<std::string>& arguments) {
  const auto index = static_cast<std::uint32_t>(
      parseUnsigned(arguments.at(0), varlo::varlo_note::kCount - 1, "the note index"));
  const std::string& text = arguments.at(1);
  if (text.empty())
    throw usageError("the note text is empty; the agent leaves a note unchanged when given none");
  if (text.size() > kMaxText)
    throw usageError("the note text has " + std::to_string(text.size()) +
                     " bytes; a note holds at most 255");
  // The agent keeps notes one to a line of its preferences file.
  if (text.find_first_of("\r\n") != std::string::npos)
    throw usageError("the note text must be a single line");
  return std::make_unique<NotesSetCommand>(index, text);
}

Value NotesSetCommand::run(Session& session) {
  using varlo::varlo_manage;
  using varlo::varlo_note;
  const auto ready = receiveFirstReply<varlo_manage::kSize>(session);
  requireSuccess(ready, "the agent refused to store notes");
  for (std::uint32_t i = 0; i < varlo_note::kCount; ++i) {
    session.send(varlo_note{i, i == index_ ? text_ : std::string()}.encode());
    const auto ack = session.receive<varlo_manage::kSize>();
    requireSuccess(ack, "the agent did not accept note " + std::to_string(i));
  }
  return Value{{"index", index_}, {"stored", true}};
}

}  // namespace varloctl
