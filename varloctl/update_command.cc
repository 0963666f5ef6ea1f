#include "varloctl/update_command.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "base/unique_fd.h"
#include "varloctl/package_archive.h"
#include "varloctl/send_command.h"

namespace varloctl {

std::unique_ptr<Command> UpdateCommand::make(const std::vector<std::string>& arguments) {
  const std::string& path = arguments.at(0);
  const std::string shown = agentText(path);
  const std::string name = path.substr(path.rfind('/') + 1);
  const auto endsWith = [&name](const char* suffix) {
    const std::size_t n = std::strlen(suffix);
    return name.size() > n && name.compare(name.size() - n, n, suffix) == 0;
  };
  if (!endsWith(".deb") && !endsWith(".rpm"))
    throw usageError("the package must be a .deb or .rpm file, not " + shown);
  // The archive names it in the tar header's 100 bytes with its folder.
  if (name.size() > 90) throw usageError("the package's file name is longer than 90 bytes");
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st {};
  if (!fd.valid() || ::fstat(fd.get(), &st) != 0)
    throw usageError("cannot read " + shown + ": " + std::strerror(errno));
  if (!S_ISREG(st.st_mode)) throw usageError(shown + " is not a file");
  if (static_cast<std::uint64_t>(st.st_size) > kMaxPackage)
    throw usageError(shown + " is larger than 1 GiB");
  std::vector<std::uint8_t> package(static_cast<std::size_t>(st.st_size));
  std::size_t got = 0;
  while (got < package.size()) {
    const ssize_t n = ::read(fd.get(), package.data() + got, package.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw usageError("cannot read " + shown + ": " + std::strerror(errno));
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  if (got != package.size()) throw usageError(shown + " changed while it was read");
  return std::make_unique<UpdateCommand>(name, packageArchive(name, package, st.st_mtime));
}

Value UpdateCommand::run(Session& session) {
  std::size_t at = 0;
  const std::vector<std::uint8_t>& archive = *archive_;
  const auto read = [&archive, &at](std::uint8_t* data, std::size_t len) {
    const std::size_t n = std::min(len, archive.size() - at);
    std::memcpy(data, archive.data() + at, n);
    at += n;
    return n;
  };
  const auto bytes = SendCommand::sendOne(session, progress_, kArchiveName, kPackageFolder, false,
                                          archive.size(), read);
  return Value{{"package", name_},
               {"archive", kArchiveName},
               {"bytes", static_cast<std::int64_t>(bytes)},
               {"installing", "in the background; the agent restarts when done"}};
}

}  // namespace varloctl
