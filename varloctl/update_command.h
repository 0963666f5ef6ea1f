// update PACKAGE: the agent's new package, wrapped as the archive that its
// Send File takes for an update and installs in the background.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "varloctl/command.h"

namespace varloctl {

class UpdateCommand : public CommandOf<UpdateCommand> {
 public:
  static constexpr std::uint16_t kCode = 18;
  static constexpr std::uint32_t kPackageFolder = 0x58585859;  // 'XXXY'
  static constexpr const char* kArchiveName = "Varlo.pkg.tar.gz";
  static constexpr std::size_t kMaxPackage = 1u << 30;

  // Refuses a file that is not a .deb or .rpm, or cannot be read.
  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  UpdateCommand(std::string name, std::vector<std::uint8_t> archive)
      : name_(std::move(name)),
        archive_(std::make_shared<const std::vector<std::uint8_t>>(std::move(archive))) {}
  std::uint16_t code() const override { return kCode; }
  void setProgress(Progress* progress) override { progress_ = progress; }
  Value run(Session& session) override;

 private:
  std::string name_;
  // Up to 1 GiB, read once however many hosts it goes to.
  std::shared_ptr<const std::vector<std::uint8_t>> archive_;
  Progress* progress_ = nullptr;
};

}  // namespace varloctl
