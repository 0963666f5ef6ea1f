// config: the agent's hardware and system configuration.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varlo/config_record.h"
#include "varloctl/command.h"

namespace varloctl {

class ConfigCommand : public CommandOf<ConfigCommand> {
 public:
  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  std::uint16_t code() const override { return varlo::kConfigurationCommand; }
  Value run(Session& session) override;

  // The fields whose values never vary (and the codes Linux has no source
  // for) are of interest only to a program reading the JSON.
  void setJson(bool json) override { withFixedFields_ = json; }

  static Value describe(const varlo::varlo_config& config, bool withFixedFields);

 private:
  bool withFixedFields_ = false;
};

}  // namespace varloctl
