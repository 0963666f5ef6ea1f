// notes set INDEX TEXT: stores one note. The agent always takes all ten;
// the nine others go with an empty text, which it leaves unchanged.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varloctl/command.h"

namespace varloctl {

class NotesSetCommand : public CommandOf<NotesSetCommand> {
 public:
  static constexpr std::uint16_t kCode = 21;
  static constexpr std::size_t kMaxText = 255;  // the note's Pascal string

  // Refuses an index past 9 and a text that is empty, too long or not one line.
  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  NotesSetCommand(std::uint32_t index, std::string text) : index_(index), text_(std::move(text)) {}
  std::uint16_t code() const override { return kCode; }
  Value run(Session& session) override;

 private:
  std::uint32_t index_;
  std::string text_;
};

}  // namespace varloctl
