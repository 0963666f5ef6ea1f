// Named-entry lists: slot rules, a refused block or a stop, the heartbeat.
#include "software/font.h"
#include "software/fonts_handler.h"
#include "software/list_heartbeat.h"

#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "test_support.h"
#include "varlo/software_records.h"

using Bytes = std::vector<std::uint8_t>;

namespace {
const std::string kSoftware = std::string(VARLO_FIXTURES) + "/software";

struct SocketPair {  // agent end, console end
  int fd[2] = {-1, -1};
  SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd), 0); }
  ~SocketPair() { close(fd[0]); close(fd[1]); }
};

// What has reached the console: count copies of the list's empty first header.
void expectBeats(const SocketPair& pair, int code, std::size_t count) {
  Bytes got(4096), beats;
  got.resize(std::max<ssize_t>(recv(pair.fd[1], got.data(), got.size(), MSG_DONTWAIT), 0));
  for (const Bytes header = test_support::listHeader(code, 0, 0); count-- > 0;)
    beats.insert(beats.end(), header.begin(), header.end());
  EXPECT_EQ(got, beats) << code;
}
}  // namespace

TEST(SendFontList, TwentyFontsAreTwoFullBatchesOfClearedSlotsAndAnEmptyLastHeader) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  // 10..19: longer names, first by name, last by folder; each its own family, or merged.
  const std::string bdf = test_support::slurp(kSoftware + "/fonts/files/varlo-sans.bdf").value();
  std::filesystem::create_directories(dir / "fonts/z");
  for (int i = 10; i < 30; ++i) {
    std::string text = bdf;
    text.replace(text.find("\"Varlo Sans\""), 12, "\"F" + std::to_string(i) + "\"");
    test_support::spit(dir / (i < 20 ? "fonts/z/" : "fonts/") + std::to_string(i) +
                           (i < 20 ? "-a-name-longer-than-a-slot.bdf" : ".bdf"), text);
  }
  test_support::spit(dir / "fonts.conf", "<fontconfig><dir>" + dir / "fonts" + "</dir><cachedir>" +
                                             dir / "cache" + "</cachedir></fontconfig>\n");
  CFont fonts(dir / "fonts.conf");
  test_support::BlockRecorder rec;
  ASSERT_EQ(sendFontList(fonts, rec.sink(), [] { return true; }, -1), 0);
  ASSERT_EQ(rec.blocks.size(), 5u);
  for (int b : {0, 2}) EXPECT_EQ(rec.blocks[b], test_support::listHeader(9, 0, 10));
  EXPECT_EQ(rec.blocks[4], test_support::listHeader(9, 1, 0));
  ASSERT_EQ(rec.blocks[3].size(), 480u);
  for (std::size_t s = 0; s < 10; ++s) {
    const std::uint8_t* slot = rec.blocks[3].data() + s * 48;
    EXPECT_EQ(std::string(slot, slot + 7), "\6" + std::to_string(20 + s) + ".bdf");
    EXPECT_EQ(Bytes(slot + 7, slot + 44), Bytes(37, 0)) << "slot " << s << " was not cleared";
    EXPECT_EQ(varlo::varlo_app::decodeAt(slot).index, 11 + s);
  }
}

TEST(SendNamedList, NothingIsSentAfterARefusedBlockOrAStopNotEvenTheLastHeader) {
  // Twenty entries: header, batch, pause 1, header, batch, pause 2, last header.
  const std::size_t cases[][3] = {{0, 0, 1}, {1, 0, 2}, {2, 0, 3},  {3, 0, 4},
                                  {4, 0, 5}, {99, 1, 2}, {99, 2, 4}};  // refused block, stop, calls
  for (const auto& [refuseAt, stopAt, calls] : cases) {
    test_support::BlockRecorder rec;
    rec.refuseAt = refuseAt;
    std::size_t pauses = 0, n = 0;
    const auto next = [&](std::string&, std::string&) { return n++ < 20 ? 0 : -1; };
    EXPECT_EQ(sendNamedList(8, rec.sink(), [&] { return ++pauses != stopAt; }, false, next), -1);
    EXPECT_EQ(rec.calls, calls) << refuseAt << " " << stopAt;
  }
}

TEST(ListHeartbeat, BeatsOnceASecondWhileTheCollectorRunsAndNotAfterTheStop) {
  SocketPair pairs[3];  // modules, fonts, services
  {
    ListHeartbeat beats[] = {{pairs[0].fd[0], 8}, {pairs[1].fd[0], 9}, {pairs[2].fd[0], 10}};
    std::this_thread::sleep_for(std::chrono::milliseconds(2400));  // a slow collector
    for (auto& beat : beats) beat.stop();
    for (int i = 0; i < 3; ++i) expectBeats(pairs[i], 8 + i, 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  }
  for (int i = 0; i < 3; ++i) expectBeats(pairs[i], 8 + i, 0);
}
