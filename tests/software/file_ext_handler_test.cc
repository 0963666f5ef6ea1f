#include "software/file_ext_handler.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <thread>

#include "base/unique_fd.h"
#include "software/file_ext.h"
#include "test_support.h"

namespace {

using namespace std::chrono_literals;
using test_support::TempDir;
using varlo::varlo_extension;
using varlo::varlo_extensions;
using Bytes = std::vector<std::uint8_t>;

Bytes readAll(int fd) {
  Bytes out;
  std::uint8_t buf[4096];
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) return out;
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) return out;
    out.insert(out.end(), buf, buf + n);
  }
}

varlo_extensions headerAt(const Bytes& b, std::size_t at) {
  varlo_extensions::Bytes r{};
  std::copy(b.begin() + at, b.begin() + at + varlo_extensions::kSize, r.begin());
  return varlo_extensions::decode(r);
}

TEST(CensusCutoff, DaysBackFromNow) {
  const std::time_t now = 1700000000;
  EXPECT_EQ(censusCutoff(0, now), 0u);
  EXPECT_EQ(censusCutoff(-3, now), 0u);
  EXPECT_EQ(censusCutoff(1, now), now - 86400);
  EXPECT_EQ(censusCutoff(2147483647, now), 0u) << "before 1970: every file counts";
  EXPECT_EQ(filesScannedOf(25), 20u);
  EXPECT_EQ(filesScannedOf(9), 0u);
}

// A census held up at a mount that takes its time to answer: the console
// sees the heartbeat once a second with the files counted so far, then
// the extensions in batches of ten behind headers carrying the final count.
TEST(CensusAnswer, HeartbeatsWhileTheWalkRunsThenBatches) {
  TempDir dir;
  // 25 files of 11 extensions (a0 .. a9, plus "longer" ones of 5 letters).
  for (int i = 0; i < 25; ++i)
    test_support::spit(dir / ("f" + std::to_string(i) + (i < 10 ? ".a" + std::to_string(i) : ".slowx")),
                       "x");
  ASSERT_EQ(mkdir((dir / "mnt").c_str(), 0755), 0);
  test_support::spit(dir / "mnt/late.late", "x");

  CensusWalk::Options options;
  options.gates = {{dir / "mnt", CensusWalk::Gate::kProbe}};
  options.reachable = [](const std::string&) {
    std::this_thread::sleep_for(2200ms);
    return true;
  };
  options.threads = 1;
  CFileExt census(dir.path, options);

  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  UniqueFd agent(fds[0]), console(fds[1]);
  const RecordSink sink = [&](const std::uint8_t* data, std::size_t len) {
    return write(agent.get(), data, len) == static_cast<ssize_t>(len) ? 0 : -1;
  };
  int pauses = 0;
  ASSERT_EQ(answerCensus(
                census, [&](unsigned long& files) { return census.enumFileExts(files, 0); },
                varlo::kBackupProfilerCommand, agent.get(), sink,
                [&] { return ++pauses, true; }),
            0);
  const Bytes wire = readAll(console.get());

  std::size_t at = 0;
  std::vector<std::uint32_t> beats;
  while (at + varlo_extensions::kSize <= wire.size()) {
    const auto h = headerAt(wire, at);
    if (h.prefix.command != varlo::kBackupProfilerCommand) break;
    EXPECT_EQ(h.count, 0);
    EXPECT_FALSE(h.prefix.last);
    beats.push_back(h.filesScanned);
    at += varlo_extensions::kSize;
  }
  ASSERT_GE(beats.size(), 2u) << "a beat a second through a walk of over two";
  EXPECT_EQ(beats.back(), 20u) << "the 25 files before the slow mount, to a multiple of 10";

  const auto first = headerAt(wire, at);
  EXPECT_EQ(first.prefix.command, varlo::kFileExtensionCommand);
  EXPECT_EQ(first.count, 10);
  EXPECT_FALSE(first.prefix.last);
  EXPECT_EQ(first.filesScanned, 20u);
  at += varlo_extensions::kSize;
  const std::size_t batch1 = at;
  at += 10 * varlo_extension::kSize;
  const auto last = headerAt(wire, at);
  EXPECT_TRUE(last.prefix.last);
  EXPECT_EQ(last.count, 2);
  at += varlo_extensions::kSize;
  const std::size_t batch2 = at;
  ASSERT_EQ(wire.size(), batch2 + 2 * varlo_extension::kSize);
  EXPECT_EQ(pauses, 1);

  std::map<std::string, std::uint32_t> counts;
  for (std::size_t i = 0; i < 12; ++i) {
    const std::size_t slot = i < 10 ? batch1 + i * 30 : batch2 + (i - 10) * 30;
    const auto e = varlo_extension::decodeAt(wire.data() + slot);
    counts[e.name] = e.count;
    // A slot keeps the bytes of the earlier batch's entry behind a shorter name.
    if (i >= 10) {
      const std::size_t earlier = batch1 + (i - 10) * 30;
      for (std::size_t k = 1 + e.name.size(); k < 5; ++k)
        EXPECT_EQ(wire[slot + k], wire[earlier + k]) << e.name << " byte " << k;
    }
  }
  EXPECT_EQ(counts["slow"], 14u) << "15 files of \"slowx\", sent cut to four letters";
  EXPECT_EQ(counts["a0"], 0u);
  EXPECT_EQ(counts["late"], 0u);
}

TEST(CensusAnswer, AFailedSendEndsTheAnswerWithoutAClosingHeader) {
  TempDir dir;
  for (int i = 0; i < 12; ++i) test_support::spit(dir / ("f." + std::to_string(100 + i)), "x");
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  UniqueFd agent(fds[0]), console(fds[1]);
  for (std::size_t refuse : {0u, 1u}) {
    CFileExt census(dir.path);
    test_support::BlockRecorder recorder;
    recorder.refuseAt = refuse;
    EXPECT_EQ(answerCensus(
                  census, [&](unsigned long& files) { return census.enumFileExts(files, 0); },
                  varlo::kFileExtensionCommand, agent.get(), recorder.sink(), [] { return true; }),
              -1);
    EXPECT_EQ(recorder.blocks.size(), refuse) << "nothing after the refused block";
  }
}

}  // namespace
