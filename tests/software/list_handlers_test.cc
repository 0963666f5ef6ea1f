// The bytes of the four named-entry lists: batches, slot rules, stop and
// refusal, and the heartbeat on the session socket while collecting.
#include "software/controls_handler.h"
#include "software/ctrl_panels.h"
#include "software/extensions.h"
#include "software/extensions_handler.h"
#include "software/font.h"
#include "software/fonts_handler.h"
#include "software/list_heartbeat.h"
#include "software/named_list.h"
#include "software/services.h"
#include "software/services_handler.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "test_support.h"
#include "varlo/software_records.h"

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

namespace {

const std::string kSoftware = std::string(VARLO_FIXTURES) + "/software";

struct SocketPair {
  UniqueFd agent, console;
  SocketPair() {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    agent.reset(fds[0]);
    console.reset(fds[1]);
  }
  // Everything sent so far, without waiting for more.
  Bytes drain() {
    Bytes out;
    std::uint8_t buf[4096];
    for (;;) {
      pollfd p{console.get(), POLLIN, 0};
      if (poll(&p, 1, 0) <= 0) break;
      const ssize_t n = read(console.get(), buf, sizeof buf);
      if (n <= 0) break;
      out.insert(out.end(), buf, buf + n);
    }
    return out;
  }
};

// The heartbeat's bytes: whole copies of the list's empty first header.
void expectBeats(const Bytes& got, int code, std::size_t atLeast, std::size_t atMost) {
  const Bytes header = test_support::listHeader(code, 0, 0);
  ASSERT_EQ(got.size() % header.size(), 0u);
  const std::size_t beats = got.size() / header.size();
  EXPECT_GE(beats, atLeast);
  EXPECT_LE(beats, atMost);
  for (std::size_t i = 0; i < beats; ++i)
    EXPECT_EQ(Bytes(got.begin() + i * 14, got.begin() + (i + 1) * 14), header) << "beat " << i;
}

std::string slotName(const Bytes& batch, std::size_t slot) {
  return varlo::varlo_app::decodeAt(batch.data() + slot * 48).name;
}

// A font folder of count BDF fonts, named NN-<suffix>.bdf, and the
// configuration that lists only it.
std::string fontFolder(const test_support::TempDir& dir, int count, const std::string& suffix) {
  const std::string sample =
      test_support::slurp(kSoftware + "/fonts/files/varlo-sans.bdf").value_or("");
  fs::create_directories(dir / "fonts");
  for (int i = 0; i < count; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "%02d-", i);
    // The family differs so that fontconfig keeps each as a font of its own.
    std::string text = sample;
    const auto at = text.find("FAMILY_NAME \"Varlo Sans\"");
    text.replace(at, 24, "FAMILY_NAME \"F" + std::to_string(i) + "\"");
    test_support::spit(dir / "fonts/" + name + (i == 0 ? suffix : std::string("f")) + ".bdf", text);
  }
  test_support::spit(dir / "fonts.conf", "<?xml version=\"1.0\"?>\n<fontconfig><dir>" +
                                             (dir / "fonts") + "</dir><cachedir>" +
                                             (dir / "cache") + "</cachedir></fontconfig>\n");
  return dir / "fonts.conf";
}

}  // namespace

TEST(SendNamedList, FontSlotsAreClearedTheOthersKeepStaleBytes) {
  // Slot 0 holds a long name and version in the first batch and short ones
  // in the second.
  std::vector<std::pair<std::string, std::string>> entries;
  entries.emplace_back("a-name-of-thirty-one-characters", "1234567890");
  for (int i = 1; i < 10; ++i) entries.emplace_back("n" + std::to_string(i), "v");
  entries.emplace_back("ab", "9");
  for (const bool clear : {true, false}) {
    test_support::BlockRecorder rec;
    std::size_t at = 0;
    ASSERT_EQ(sendNamedList(7, rec.sink(), {}, clear,
                            [&](std::string& n, std::string& v) {
                              if (at == entries.size()) return -1;
                              n = entries[at].first;
                              v = entries[at].second;
                              ++at;
                              return 0;
                            }),
              0);
    ASSERT_EQ(rec.blocks.size(), 4u);
    EXPECT_EQ(rec.blocks[2], test_support::listHeader(7, 1, 1));
    const Bytes& slot = rec.blocks[3];
    ASSERT_EQ(slot.size(), 48u);
    EXPECT_EQ(Bytes(slot.begin(), slot.begin() + 3), (Bytes{2, 'a', 'b'}));
    EXPECT_EQ(Bytes(slot.begin() + 33, slot.begin() + 35), (Bytes{1, '9'}));
    EXPECT_EQ(Bytes(slot.begin() + 44, slot.end()), (Bytes{0, 0, 0, 11}));
    if (clear) {
      EXPECT_EQ(Bytes(slot.begin() + 3, slot.begin() + 33), Bytes(30, 0));
      EXPECT_EQ(Bytes(slot.begin() + 35, slot.begin() + 44), Bytes(9, 0));
    } else {
      EXPECT_EQ(std::string(slot.begin() + 3, slot.begin() + 32), "name-of-thirty-one-characters");
      EXPECT_EQ(std::string(slot.begin() + 35, slot.begin() + 44), "234567890");
    }
  }
}

TEST(SendNamedList, AStopOrARefusedBlockEndsWithoutAClosingHeader) {
  const auto twenty = [] {
    return [n = 0](std::string& name, std::string& version) mutable {
      if (n == 20) return -1;
      name = "e" + std::to_string(n++);
      version.clear();
      return 0;
    };
  };
  {
    test_support::BlockRecorder rec;
    int pauses = 0;
    EXPECT_EQ(sendNamedList(8, rec.sink(), [&] { return ++pauses < 1; }, false, twenty()), -1);
    EXPECT_EQ(pauses, 1);
    ASSERT_EQ(rec.blocks.size(), 2u);  // the first batch only
    EXPECT_EQ(rec.blocks[0], test_support::listHeader(8, 0, 10));
  }
  for (std::size_t refuse = 0; refuse < 4; ++refuse) {
    test_support::BlockRecorder rec;
    rec.refuseAt = refuse;
    EXPECT_EQ(sendNamedList(8, rec.sink(), [] { return true; }, false, twenty()), -1);
    EXPECT_EQ(rec.calls, refuse + 1) << "nothing is sent after a refusal";
  }
}

TEST(SendFontList, TwentyFontsAreTwoFullBatchesAndAnEmptyClosingHeader) {
  test_support::LogCapture log;
  test_support::TempDir dir;
  CFont fonts(fontFolder(dir, 20, "a-font-file-name-longer-than-the-field"));
  SocketPair pair;
  test_support::BlockRecorder rec;
  int pauses = 0;
  ASSERT_EQ(sendFontList(fonts, rec.sink(), [&] { return ++pauses > 0; }, pair.agent.get()), 0);
  EXPECT_EQ(pauses, 2);
  ASSERT_EQ(rec.blocks.size(), 5u);
  EXPECT_EQ(rec.blocks[0], test_support::listHeader(9, 0, 10));
  EXPECT_EQ(rec.blocks[2], test_support::listHeader(9, 0, 10));
  EXPECT_EQ(rec.blocks[4], test_support::listHeader(9, 1, 0));
  ASSERT_EQ(rec.blocks[1].size(), 480u);
  ASSERT_EQ(rec.blocks[3].size(), 480u);
  EXPECT_EQ(slotName(rec.blocks[1], 0), "00-a-font-file-name-longer-than");  // cut to 31
  EXPECT_EQ(slotName(rec.blocks[3], 9), "19-f.bdf");
  for (std::size_t s = 0; s < 10; ++s) {
    const auto e = varlo::varlo_app::decodeAt(rec.blocks[3].data() + s * 48);
    EXPECT_EQ(e.version, "");
    EXPECT_EQ(e.index, 11 + s);
    // Cleared slot: nothing of batch one's longer names behind the short one.
    EXPECT_EQ(Bytes(rec.blocks[3].begin() + s * 48 + 9, rec.blocks[3].begin() + s * 48 + 44),
              Bytes(35, 0));
  }
  expectBeats(pair.drain(), 9, 1, 2);
}

TEST(SendExtensionList, ModulesOfTheFixtureBehindAHeartbeat) {
  test_support::LogCapture log;
  CExtensions ext(HostRoots{kSoftware + "/proc", kSoftware + "/sys"});
  SocketPair pair;
  test_support::BlockRecorder rec;
  ASSERT_EQ(sendExtensionList(ext, rec.sink(), [] { return true; }, pair.agent.get()), 0);
  ASSERT_EQ(rec.blocks.size(), 4u);  // 12 modules
  EXPECT_EQ(rec.blocks[2], test_support::listHeader(8, 1, 2));
  const auto first = varlo::varlo_app::decodeAt(rec.blocks[1].data() + 5 * 48);
  EXPECT_EQ(first.name + " " + first.version, "nvidia_uvm 555.42.06");
  const auto last = varlo::varlo_app::decodeAt(rec.blocks[3].data() + 48);
  EXPECT_EQ(last.name + " " + last.version + " " + std::to_string(last.index), "vxlan 0.1 12");
  // "vsock" over "bridge": the array is cleared once only.
  EXPECT_EQ(std::string(rec.blocks[3].begin() + 6, rec.blocks[3].begin() + 7), "e");
  expectBeats(pair.drain(), 8, 1, 2);
}

TEST(SendServiceList, ServicesOfTheFixtureBehindAHeartbeat) {
  test_support::LogCapture log;
  CServices services(HostRoots{kSoftware + "/proc"}, kSoftware + "/etc/init.d", "/nonexistent");
  SocketPair pair;
  test_support::BlockRecorder rec;
  ASSERT_EQ(sendServiceList(services, rec.sink(), [] { return true; }, pair.agent.get()), 0);
  ASSERT_EQ(rec.blocks.size(), 2u);
  EXPECT_EQ(rec.blocks[0], test_support::listHeader(10, 1, 4));
  const auto e = varlo::varlo_app::decodeAt(rec.blocks[1].data() + 3 * 48);
  EXPECT_EQ(e.name + " " + e.version + " " + std::to_string(e.index), "sysctl Unknown 4");
  expectBeats(pair.drain(), 10, 1, 2);
}

TEST(SendControlsList, NoHeartbeatAndNamesWithoutVersions) {
  test_support::LogCapture log;
  CCtrlPanels panels({kSoftware + "/xdg/local", kSoftware + "/xdg/share"});
  test_support::BlockRecorder rec;
  ASSERT_EQ(sendControlsList(panels, rec.sink(), [] { return true; }), 0);
  ASSERT_EQ(rec.blocks.size(), 2u);
  EXPECT_EQ(rec.blocks[0], test_support::listHeader(7, 1, 6));
  const auto e = varlo::varlo_app::decodeAt(rec.blocks[1].data() + 4 * 48);
  EXPECT_EQ(e.name, "Printers With A Very Long Name ");
  EXPECT_EQ(e.version, "");
  EXPECT_EQ(e.index, 5u);
}

TEST(ListHeartbeat, BeatsOnceASecondWhileASlowCollectorRuns) {
  SocketPair pair;
  {
    ListHeartbeat beat(pair.agent.get(), 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(2300));
    beat.stop();
    // Stopped: nothing more arrives, however long the list takes.
    const Bytes during = pair.drain();
    expectBeats(during, 10, 3, 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  }
  EXPECT_TRUE(pair.drain().empty());
}

TEST(ListHeartbeat, NoSocketNoBeat) {
  ListHeartbeat beat(-1, 9);
  beat.stop();
}
