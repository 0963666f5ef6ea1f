// The console's half of the file dialogues of Send File and Send Folder:
// each step answered by the agent's acknowledgement, the data fork in
// acknowledged chunks. No resource fork and no Finder information: a Linux
// file has neither.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "varlo/records.h"
#include "varloctl/session.h"

namespace varloctl {

class Progress;

// Four printable characters, e.g. "desk" -> 0x6465736B; a usage error otherwise.
std::uint32_t folderCode(const std::string& text);

// The 12-byte record that opens each step of a file: byte 2 go on, byte 3
// the last chunk.
varlo::varlo_cmd_header::Bytes stepHeader(bool last = false);

// A varlo_manage carrying a name at 68, byte 2 and the folder code at 36:
// the request of both commands and the item records of a folder.
varlo::varlo_manage::Bytes nameRecord(const std::string& name, std::uint8_t byte2,
                                      std::uint32_t code = 0);

class FileSender {
 public:
  // Each chunk waits for the agent's acknowledgement: large ones keep the
  // wire busy (a gigabyte is 256 round trips).
  static constexpr std::size_t kChunk = 4 * 1024 * 1024;
  // Fills up to len bytes, 0 only at the end.
  using Reader = std::function<std::size_t(std::uint8_t* data, std::size_t len)>;

  // total: the bytes of everything to send, for the progress line.
  FileSender(Session& session, Progress* progress, std::uint64_t total);

  // Reads an acknowledgement; a refusal throws with the agent's text.
  // first: where a rejected password shows.
  void acknowledged(const std::string& what, bool first = false);

  // After the agent acknowledged the file's creation: the forks, the data
  // and the file information, for a file of `size` bytes named name.
  void sendFile(const std::string& name, std::uint64_t size, const Reader& read);

  std::uint64_t sent() const { return sent_; }

 private:
  void report(bool force);

  Session& session_;
  Progress* progress_;
  std::uint64_t total_, sent_ = 0;
  std::chrono::steady_clock::time_point start_, shown_;
};

}  // namespace varloctl
