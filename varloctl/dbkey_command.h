// dbkey N: assigns the agent's DBMS key.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varloctl/command.h"

namespace varloctl {

class DbKeyCommand : public CommandOf<DbKeyCommand> {
 public:
  static constexpr std::uint16_t kCode = 33;

  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  explicit DbKeyCommand(std::uint32_t key) : key_(key) {}
  std::uint16_t code() const override { return kCode; }
  Value run(Session& session) override;

 private:
  std::uint32_t key_;
};

}  // namespace varloctl
