// notes get: the agent's ten notes, each answered before the next comes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varloctl/command.h"

namespace varloctl {

class NotesGetCommand : public CommandOf<NotesGetCommand> {
 public:
  static constexpr std::uint16_t kCode = 22;

  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  std::uint16_t code() const override { return kCode; }
  Value run(Session& session) override;
};

}  // namespace varloctl
