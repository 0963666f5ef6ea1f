// send PATH [--folder CODE] [--launch]: a file with Send File (18), or a
// whole folder tree with Send Folder (19), into the agent's folder that
// CODE names.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "varloctl/command.h"

namespace varloctl {

// What is sent, read from the disk before connecting.
struct SendItem {
  std::string name;  // as the agent gets it
  std::string path;  // here
  bool folder = false;
  std::uint64_t size = 0;
  std::vector<SendItem> children;  // a folder's, by name

  // A regular file or a folder and, depth first, all below it; links and
  // other special files are left out and counted in skipped. A usage error
  // when the path cannot be read or a name cannot be sent.
  static SendItem plan(const std::string& path, std::size_t& skipped);
};

class SendCommand : public CommandOf<SendCommand> {
 public:
  static constexpr std::uint16_t kFileCode = 18;
  static constexpr std::uint16_t kFolderCode = 19;
  static constexpr std::uint32_t kDefaultFolder = 0x58585858;  // 'XXXX'

  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  SendCommand(SendItem item, std::uint32_t folder, bool launch, std::size_t skipped);
  std::uint16_t code() const override { return item_.folder ? kFolderCode : kFileCode; }
  void setProgress(Progress* progress) override { progress_ = progress; }
  Value run(Session& session) override;

  // Send File of one file, however it is read; the result's bytes.
  static std::uint64_t sendOne(Session& session, Progress* progress, const std::string& name,
                               std::uint32_t folder, bool launch, std::uint64_t size,
                               const std::function<std::size_t(std::uint8_t*, std::size_t)>& read);

 private:
  SendItem item_;
  std::uint32_t folder_;
  bool launch_;
  std::size_t skipped_;
  Progress* progress_ = nullptr;
};

// "desk" from 0x6465736B.
std::string folderCodeText(std::uint32_t code);

}  // namespace varloctl
