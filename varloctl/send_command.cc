#include "varloctl/send_command.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "base/unique_fd.h"
#include "varloctl/command_table.h"
#include "varloctl/file_transfer.h"

namespace varloctl {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxName = 255;  // the Pascal string's
constexpr std::uint64_t kMaxFile = 0xFFFFFFFFu;  // the data fork's length is 32 bits
constexpr int kMaxDepth = 128;

std::string shown(const std::string& path) { return Command::agentText(path); }

void checkName(const std::string& name, const std::string& path) {
  if (name.size() > kMaxName)
    throw usageError("the name of " + shown(path) + " has " + std::to_string(name.size()) +
                     " bytes; the agent takes at most 255");
}

SendItem planAt(const std::string& path, std::string name, std::size_t& skipped, int depth) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0)
    throw usageError("cannot read " + shown(path) + ": " + std::strerror(errno));
  checkName(name, path);
  SendItem item{std::move(name), path, S_ISDIR(st.st_mode), 0, {}};
  if (S_ISREG(st.st_mode)) {
    if (static_cast<std::uint64_t>(st.st_size) > kMaxFile)
      throw usageError(shown(path) + " is larger than the 4 GiB a transfer can carry");
    item.size = static_cast<std::uint64_t>(st.st_size);
    return item;
  }
  if (!item.folder) throw usageError(shown(path) + " is neither a file nor a folder");
  if (depth > kMaxDepth) throw usageError(shown(path) + " lies too deep in its tree");
  std::error_code ec;
  fs::directory_iterator it(path, ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    const fs::file_status s = it->symlink_status(ec);
    if (ec) break;
    if (!fs::is_regular_file(s) && !fs::is_directory(s)) {
      ++skipped;
      continue;
    }
    const std::string child = it->path().filename().string();
    item.children.push_back(planAt(path + "/" + child, child, skipped, depth + 1));
  }
  if (ec) throw usageError("cannot read " + shown(path) + ": " + ec.message());
  std::sort(item.children.begin(), item.children.end(),
            [](const SendItem& a, const SendItem& b) { return a.name < b.name; });
  return item;
}

std::uint64_t totalSize(const SendItem& item) {
  std::uint64_t total = item.size;
  for (const SendItem& c : item.children) total += totalSize(c);
  return total;
}

// Reads the file at path, opened without following a link.
struct FileReader {
  explicit FileReader(const std::string& path)
      : path_(path), fd_(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC)) {
    if (!fd_.valid())
      throw CtlError(kFailed, "cannot open " + shown(path) + ": " + std::strerror(errno));
  }
  std::size_t operator()(std::uint8_t* data, std::size_t len) {
    for (;;) {
      const ssize_t n = ::read(fd_.get(), data, len);
      if (n >= 0) return static_cast<std::size_t>(n);
      if (errno != EINTR)
        throw CtlError(kFailed, "cannot read " + shown(path_) + ": " + std::strerror(errno));
    }
  }
  std::string path_;
  UniqueFd fd_;
};

struct FolderSender {
  Session& session;
  FileSender& sender;
  std::size_t files = 0, folders = 0;

  // The item record, its is-folder and end-of-folder bytes.
  void item(const std::string& name, bool folder, bool end) {
    // One write a step: a small second write would wait for the agent's ACK.
    const auto r = nameRecord(name, 1);
    std::vector<std::uint8_t> step(r.begin(), r.end());
    step.push_back(folder ? 1 : 0);
    step.push_back(end ? 1 : 0);
    session.send(step.data(), step.size());
  }

  void contents(const SendItem& folder) {
    for (const SendItem& c : folder.children) {
      const std::string what = shown(c.name);
      item(c.name, c.folder, false);
      sender.acknowledged(what);
      if (!c.folder) {
        FileReader read(c.path);
        sender.sendFile(c.name, c.size, std::ref(read));
        ++files;
        continue;
      }
      ++folders;
      contents(c);
      item(c.name, false, true);
      sender.acknowledged("the end of " + what);
    }
  }
};

}  // namespace

SendItem SendItem::plan(const std::string& path, std::size_t& skipped) {
  std::string name = fs::path(path).lexically_normal().filename().string();
  if (name.empty() || name == "." || name == "..") {
    std::error_code ec;
    name = fs::weakly_canonical(fs::path(path), ec).filename().string();
  }
  if (name.empty() || name == "." || name == "..")
    throw usageError("cannot tell what to name " + shown(path) + " on the agent");
  return planAt(path, name, skipped, 0);
}

std::string folderCodeText(std::uint32_t code) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) s += static_cast<char>(code >> shift & 0xFF);
  return s;
}

SendCommand::SendCommand(SendItem item, std::uint32_t folder, bool launch, std::size_t skipped)
    : item_(std::move(item)), folder_(folder), launch_(launch), skipped_(skipped) {}

std::unique_ptr<Command> SendCommand::make(const std::vector<std::string>& arguments) {
  const auto code = optionValue(arguments, 1, "--folder");
  const std::uint32_t folder = code ? folderCode(*code) : kDefaultFolder;
  const bool launch = optionValue(arguments, 1, "--launch").has_value();
  struct stat st {};
  if (launch && ::stat(arguments.at(0).c_str(), &st) == 0 && S_ISDIR(st.st_mode))
    throw usageError("--launch applies to a file, not a folder");
  std::size_t skipped = 0;
  SendItem item = SendItem::plan(arguments.at(0), skipped);
  return std::make_unique<SendCommand>(std::move(item), folder, launch, skipped);
}

std::uint64_t SendCommand::sendOne(
    Session& session, Progress* progress, const std::string& name, std::uint32_t folder,
    bool launch, std::uint64_t size,
    const std::function<std::size_t(std::uint8_t*, std::size_t)>& read) {
  FileSender sender(session, progress, size);
  session.send(nameRecord(name, launch ? 1 : 0, folder));
  sender.acknowledged(shown(name), true);
  sender.sendFile(name, size, read);
  return sender.sent();
}

Value SendCommand::run(Session& session) {
  Value result = {{"name", item_.name}, {"folder_code", folderCodeText(folder_)}};
  if (!item_.folder) {
    FileReader read(item_.path);
    const auto bytes = sendOne(session, progress_, item_.name, folder_, launch_, item_.size,
                               std::ref(read));
    result["files"] = 1;
    result["bytes"] = bytes;
    result["launch_requested"] = launch_;
    return result;
  }
  FileSender sender(session, progress_, totalSize(item_));
  session.send(nameRecord(item_.name, 0, folder_));
  sender.acknowledged(shown(item_.name), true);
  FolderSender folder{session, sender};
  folder.contents(item_);
  folder.item(item_.name, false, true);
  sender.acknowledged("the end of " + shown(item_.name));
  result["files"] = folder.files;
  result["folders"] = folder.folders;
  result["bytes"] = sender.sent();
  result["skipped"] = skipped_;
  return result;
}

}  // namespace varloctl
