// apps, controls, extensions, fonts, services: the named lists of the
// software inventory (codes 6 to 10), in batches behind list headers. The
// agent sends empty batches as heartbeats while it still collects.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "varlo/software_records.h"
#include "varloctl/command.h"

namespace varloctl {

class SoftwareListCommand : public CommandOf<SoftwareListCommand> {
 public:
  // What one list is called, and what its version field holds ("" when it
  // holds nothing).
  struct Kind {
    std::uint16_t code;
    std::string_view noun;
    std::string_view versionKey;
  };
  static const Kind kApps, kControls, kExtensions, kFonts, kServices;

  // Installed software is counted in the thousands; these only stop a
  // runaway peer.
  static constexpr std::size_t kMaxEntries = 1 << 20;

  static std::unique_ptr<Command> makeApps(const std::vector<std::string>& arguments);
  static std::unique_ptr<Command> makeControls(const std::vector<std::string>& arguments);
  static std::unique_ptr<Command> makeExtensions(const std::vector<std::string>& arguments);
  static std::unique_ptr<Command> makeFonts(const std::vector<std::string>& arguments);
  static std::unique_ptr<Command> makeServices(const std::vector<std::string>& arguments);

  explicit SoftwareListCommand(const Kind& kind) : kind_(kind) {}
  std::uint16_t code() const override { return kind_.code; }
  Value run(Session& session) override;

  static Value describe(const Kind& kind, const varlo::varlo_app& entry);

 private:
  const Kind& kind_;
};

}  // namespace varloctl
