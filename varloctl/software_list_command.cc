#include "varloctl/software_list_command.h"

namespace varloctl {

const SoftwareListCommand::Kind SoftwareListCommand::kApps{varlo::kApplicationsCommand,
                                                           "applications", "version"};
const SoftwareListCommand::Kind SoftwareListCommand::kControls{varlo::kControlPanelsCommand,
                                                               "control panels", "version"};
const SoftwareListCommand::Kind SoftwareListCommand::kExtensions{varlo::kExtensionsCommand,
                                                                 "extensions", "version"};
// Fonts have no version; the agent leaves the field empty.
const SoftwareListCommand::Kind SoftwareListCommand::kFonts{varlo::kFontsCommand, "fonts", ""};
// A service's version field carries its state: Running, Stopped or Unknown.
const SoftwareListCommand::Kind SoftwareListCommand::kServices{varlo::kStartupItemsCommand,
                                                               "services", "status"};

std::unique_ptr<Command> SoftwareListCommand::makeApps(const std::vector<std::string>&) {
  return std::make_unique<SoftwareListCommand>(kApps);
}

std::unique_ptr<Command> SoftwareListCommand::makeControls(const std::vector<std::string>&) {
  return std::make_unique<SoftwareListCommand>(kControls);
}

std::unique_ptr<Command> SoftwareListCommand::makeExtensions(const std::vector<std::string>&) {
  return std::make_unique<SoftwareListCommand>(kExtensions);
}

std::unique_ptr<Command> SoftwareListCommand::makeFonts(const std::vector<std::string>&) {
  return std::make_unique<SoftwareListCommand>(kFonts);
}

std::unique_ptr<Command> SoftwareListCommand::makeServices(const std::vector<std::string>&) {
  return std::make_unique<SoftwareListCommand>(kServices);
}

Value SoftwareListCommand::run(Session& session) {
  const std::string noun(kind_.noun);
  Value list = Value::array();
  for (const auto& entry : receiveList<varlo::varlo_app>(
           session, "the agent could not list its " + noun, noun, kMaxEntries, kMaxHeartbeats))
    list.push_back(describe(kind_, entry));
  return list;
}

Value SoftwareListCommand::describe(const Kind& kind, const varlo::varlo_app& entry) {
  // The running number is the entry's place in the list, which the array
  // keeps; it is not shown.
  Value v = Value{{"name", entry.name}};
  if (!kind.versionKey.empty()) v[std::string(kind.versionKey)] = entry.version;
  return v;
}

}  // namespace varloctl
