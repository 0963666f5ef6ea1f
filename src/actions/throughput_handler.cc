#include "actions/throughput_handler.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "base/unique_fd.h"
#include "session/session.h"
#include "varlo/commands.h"
#include "varlo/records.h"
#include "varlo/volume_records.h"

namespace {

constexpr std::size_t kBlock = 8192;
constexpr int kBlocks = 128;

bool writeBlocks(int fd, const std::vector<char>& zeros) {
  for (int i = 0; i < kBlocks; ++i) {
    for (std::size_t done = 0; done < kBlock;) {
      const ssize_t n = ::write(fd, zeros.data() + done, kBlock - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
  }
  return true;
}

varlo::varlo_list_header::Bytes header(bool last) {
  return varlo::varlo_list_header{
      varlo::ReplyPrefix{varlo::kThroughputCommand, true, last, 0}, 0,
      static_cast<std::uint16_t>(last ? 0 : 1)}
      .encode();
}

}  // namespace

std::string throughputFilePath(const std::string& mountPoint) {
  return mountPoint == "/" ? "/vltmp" : mountPoint + "/vltmp";
}

void throughputTest(Session& session, const std::vector<CHDInfo::partition>& partitions) {
  std::vector<char> buffer(kBlock + 1, 0);
  for (const CHDInfo::partition& p : partitions) {
    if (session.stopRequested()) return;
    const std::string path = throughputFilePath(p.path);
    {
      // Not followed if it is a link: the partition may be anyone's to write.
      UniqueFd out(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
      const bool written = out.valid() && writeBlocks(out.get(), buffer);
      if (!written) {
        // A full disk leaves no partial file behind either.
        if (out.valid()) ::unlink(path.c_str());
        session.log(" Unable to create temp file on partition " + p.name);
        continue;
      }
    }
    varlo::varlo_volume record;
    record.name = p.name;
    session.SendData(header(false));
    session.SendData(record.encode());

    UniqueFd in(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!in.valid()) {
      session.log("Unable to open temp file. File: " + path);
      continue;
    }
    for (int i = 0; i < kBlocks; ++i) {
      std::size_t got = 0;
      while (got < kBlock) {
        const ssize_t n = ::read(in.get(), buffer.data() + got, kBlock - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
      }
      session.SendData(buffer.data(), static_cast<int>(kBlock));
    }
    in.reset();
    ::unlink(path.c_str());

    varlo::varlo_cmd_header::Bytes goAhead{};
    if (session.ReceiveData(goAhead) != 0) break;
  }
  session.SendData(header(true));
}

void throughputTest(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  CHDInfo disks(HostRoots{}, MountProbe::system(session.stopToken()));
  // Local partitions only, and none whose mount did not answer.
  disks.enumPartitions(true);
  std::vector<CHDInfo::partition> usable;
  for (CHDInfo::partition p; disks.getNextPartition(p) == 0;)
    if (p.local && p.reachable) usable.push_back(p);
  throughputTest(session, usable);
}
