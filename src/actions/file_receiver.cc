#include "actions/file_receiver.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "actions/apple_double.h"
#include "base/unique_fd.h"
#include "session/session.h"
#include "varlo/records.h"

namespace {

constexpr const char* kStanding = "Failed to receive data.";
constexpr std::size_t kWriteBuffer = 256 * 1024;

// Collects the 3 KiB pieces the console's chunks arrive in and writes them
// in large blocks.
class BufferedFile {
 public:
  explicit BufferedFile(int fd) : fd_(fd) { buffer_.reserve(kWriteBuffer); }
  bool write(const char* data, std::size_t len) {
    if (buffer_.size() + len > kWriteBuffer && !flush()) return false;
    buffer_.insert(buffer_.end(), data, data + len);
    return true;
  }
  bool flush() {
    for (std::size_t done = 0; done < buffer_.size();) {
      const ssize_t n = ::write(fd_, buffer_.data() + done, buffer_.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
    buffer_.clear();
    return true;
  }

 private:
  int fd_;
  std::vector<char> buffer_;
};

}  // namespace

bool isValidItemName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

bool FileReceiver::receiveFile(int dirfd, const std::string& folderPath, const std::string& name) {
  Session& s = session_;
  if (!isValidItemName(name)) {
    s.sendBadACK("Invalid file name");
    return false;
  }
  const std::string full = folderPath + name;
  UniqueFd file(::openat(dirfd, name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!file.valid()) {
    s.log("Could not create file " + full);
    s.sendBadACK("Could not create file " + full);
    return false;
  }
  s.sendGoodACK();

  varlo::varlo_cmd_header::Bytes header{};
  std::uint8_t dataFlag = 0, resourceFlag = 0;
  if (s.ReceiveData(header) != 0 || s.ReceiveData(&dataFlag, 1) != 0 ||
      s.ReceiveData(&resourceFlag, 1) != 0) {
    s.sendBadACK(kStanding);
    return false;
  }
  s.sendGoodACK();

  varlo::WireRecord<4> length{};
  // Byte 2 of a header at 0 is the console calling the transfer off.
  const auto nextPart = [&]() -> int {
    header = {};
    if (s.ReceiveData(header) != 0) return s.sendBadACK(kStanding), -1;
    if (header[2] == 0) return 1;
    if (s.ReceiveData(length) != 0) return s.sendBadACK(kStanding), -1;
    s.sendGoodACK();
    return 0;
  };
  if (nextPart() != 0) return false;

  if (dataFlag != 0) {
    s.log("Receiving data fork");
    BufferedFile out(file.get());
    // A full disk keeps no partial file: gone before the console hears of it.
    const auto discard = [&] {
      file.reset();
      ::unlinkat(dirfd, name.c_str(), 0);
    };
    bool kept = true;
    const int r = s.receiveFileData([&](const char* d, std::size_t n) {
      if (!(kept = out.write(d, n))) discard();
      return kept;
    });
    if (r == 0 && !out.flush()) {
      discard();
      s.sendBadACK(kStanding);
      return false;
    }
    if (r != 0) return false;
  }

  AppleDouble sidecar;
  if (resourceFlag != 0) {
    s.log("Receiving resource fork");
    if (nextPart() != 0) return false;
    if (!sidecar.create(dirfd, name)) {
      s.log("Failed to open resource fork of file " + full);
      s.sendBadACK("Failed to open resource fork of file " + full);
      return false;
    }
    bool kept = true;
    const int r = s.receiveFileData([&](const char* d, std::size_t n) {
      return kept = sidecar.writeResource(d, n);
    });
    if (!kept) ::unlinkat(dirfd, AppleDouble::sidecarName(name).c_str(), 0);
    if (r != 0) return false;
  }

  varlo::WireRecord<122> info{};
  if (s.ReceiveData(header) != 0 || s.ReceiveData(info) != 0) {
    s.sendBadACK(kStanding);
    return false;
  }
  const auto finder = AppleDouble::finderInfo(varlo::getU32(info.data() + 32),
                                              varlo::getU32(info.data() + 36),
                                              varlo::getU16(info.data() + 40));
  const bool anyInfo = finder != AppleDouble::FinderInfo{};
  if (sidecar.isOpen() || anyInfo) {
    if ((!sidecar.isOpen() && !sidecar.create(dirfd, name)) || !sidecar.finish(finder))
      s.log("Failed to set file attributes.");
  }
  s.sendGoodACK();
  return true;
}
