// volumes [local]: the agent's mounted volumes, all of them (code 4) or the
// local ones only (code 25), in batches behind list headers.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "varlo/volume_records.h"
#include "varloctl/command.h"

namespace varloctl {

class VolumesCommand : public CommandOf<VolumesCommand> {
 public:
  explicit VolumesCommand(bool localOnly) : localOnly_(localOnly) {}
  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  static std::unique_ptr<Command> makeLocal(const std::vector<std::string>& arguments);
  std::uint16_t code() const override {
    return localOnly_ ? varlo::kLocalVolumesCommand : varlo::kVolumesCommand;
  }
  Value run(Session& session) override;

  static Value describe(const varlo::varlo_volume& entry);

  // Units of 104858 bytes as mebibytes with one decimal: 10239 -> "1023.9".
  static std::string mebibytes(std::uint32_t units);

 private:
  bool localOnly_;
};

}  // namespace varloctl
