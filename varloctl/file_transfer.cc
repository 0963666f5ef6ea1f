#include "varloctl/file_transfer.h"

#include <algorithm>

#include <vector>

#include "varloctl/command.h"
#include "varloctl/ctl_error.h"
#include "varloctl/progress.h"
#include "varloctl/table_writer.h"

namespace varloctl {
namespace {

using varlo::varlo_manage;

constexpr std::size_t kFileInfoSize = 122;
// The progress line is redrawn at most this often.
constexpr auto kRedraw = std::chrono::milliseconds(200);

std::uint8_t* append(std::vector<std::uint8_t>& out, std::size_t n) {
  out.resize(out.size() + n);
  return out.data() + out.size() - n;
}

}  // namespace

std::uint32_t folderCode(const std::string& text) {
  std::uint32_t code = 0;
  bool printable = text.size() == 4;
  for (char c : text) {
    printable = printable && c >= 0x20 && c < 0x7F;
    code = code << 8 | static_cast<std::uint8_t>(c);
  }
  if (!printable)
    throw usageError("the folder code must be four printable characters, e.g. desk, not '" +
                     TableWriter::text(text) + "'");
  return code;
}

varlo::varlo_cmd_header::Bytes stepHeader(bool last) {
  varlo::varlo_cmd_header::Bytes h{};
  h[2] = 1;
  h[3] = last ? 1 : 0;
  return h;
}

varlo_manage::Bytes nameRecord(const std::string& name, std::uint8_t byte2, std::uint32_t code) {
  varlo_manage::Bytes r{};
  r[2] = byte2;
  varlo::put32<varlo_manage::KeyValue>(r, code);
  varlo::putPString<varlo_manage::Message>(r, name);
  return r;
}

FileSender::FileSender(Session& session, Progress* progress, std::uint64_t total)
    : session_(session),
      progress_(progress),
      total_(total),
      start_(std::chrono::steady_clock::now()),
      shown_(start_) {}

void FileSender::acknowledged(const std::string& what, bool first) {
  varlo_manage::Bytes r{};
  session_.receive(r.data(), r.size());
  const auto prefix = varlo::ReplyPrefix::decodeFrom(r);
  if (first && prefix.status == varlo::ReplyPrefix::kPasswordRejected)
    throw CtlError(kWrongPassword, "wrong password");
  if (prefix.success) return;
  const auto reason = varlo::getPString<varlo_manage::Message>(r);
  throw CtlError(kFailed, "the agent refused " + what +
                              (reason.empty() ? std::string() : ": " + Command::agentText(reason)));
}

void FileSender::sendFile(const std::string& name, std::uint64_t size, const Reader& read) {
  const std::string what = TableWriter::text(name);
  std::vector<std::uint8_t> out;
  // The forks: data only.
  const auto h = stepHeader();
  out.assign(h.begin(), h.end());
  out.push_back(1);
  out.push_back(0);
  session_.send(out.data(), out.size());
  acknowledged(what);

  out.assign(h.begin(), h.end());
  varlo::putU32(append(out, 4), static_cast<std::uint32_t>(size));
  session_.send(out.data(), out.size());
  acknowledged(what);

  // One chunk read ahead: the chunk before an empty read is the last one.
  // Small files, a folder's usual fare, need no 4 MiB buffers.
  const auto chunkSize = static_cast<std::size_t>(
      std::min<std::uint64_t>(kChunk, std::max<std::uint64_t>(size, 1)));
  std::vector<std::uint8_t> chunk(chunkSize), next(chunkSize);
  const auto fill = [&read](std::vector<std::uint8_t>& buf) {
    std::size_t n = 0;
    for (std::size_t got; n < buf.size() && (got = read(buf.data() + n, buf.size() - n)) > 0;)
      n += got;
    return n;
  };
  std::size_t length = fill(chunk);
  for (;;) {
    const std::size_t nextLength = length == 0 ? 0 : fill(next);
    const bool last = nextLength == 0;
    out.clear();
    const auto c = stepHeader(last);
    out.insert(out.end(), c.begin(), c.end());
    varlo::putU32(append(out, 4), static_cast<std::uint32_t>(length));
    out.insert(out.end(), chunk.begin(), chunk.begin() + static_cast<std::ptrdiff_t>(length));
    session_.send(out.data(), out.size());
    acknowledged(what);
    sent_ += length;
    report(false);
    if (last) break;
    chunk.swap(next);
    length = nextLength;
  }
  acknowledged(what);  // the whole data fork

  out.assign(h.begin(), h.end());
  out.resize(out.size() + kFileInfoSize, 0);
  session_.send(out.data(), out.size());
  acknowledged(what);
  report(true);
}

void FileSender::report(bool force) {
  if (progress_ == nullptr) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && now - shown_ < kRedraw) return;
  shown_ = now;
  progress_->transfer(sent_, total_, std::chrono::duration<double>(now - start_).count());
}

}  // namespace varloctl
