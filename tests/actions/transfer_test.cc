// Send File and Send Folder against a console scripted here: what lands on
// disk (data, AppleDouble sidecar, desktop links), the acknowledgements,
// and the names and links that must never let a write leave the folder.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "actions/apple_double.h"
#include "actions/send_file_handler.h"
#include "actions/send_folder_handler.h"
#include "console_end.h"
#include "prefs/prefs.h"
#include "session/session.h"
#include "test_support.h"

namespace {

using test_support::Bytes;
namespace fs = std::filesystem;

constexpr std::uint32_t kDesk = 0x6465736B;
constexpr std::uint32_t kRoot = 0x58585858;  // 'XXXX'

TEST(AppleDouble, HeaderAndFinderInfoAsRfc1740LaysThemOut) {
  const auto h = AppleDouble::header(0x1234);
  const Bytes expected = {0x00, 0x05, 0x16, 0x07, 0x00, 0x02, 0x00, 0x00,  // magic, version
                          0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // filler
                          0x00, 0x02,                                      // two entries
                          0, 0, 0, 9, 0, 0, 0, 50, 0, 0, 0, 32,            // Finder Info
                          0, 0, 0, 2, 0, 0, 0, 82, 0, 0, 0x12, 0x34};      // resource fork
  EXPECT_EQ(Bytes(h.begin(), h.end()), expected);
  const auto info = AppleDouble::finderInfo(0x54455854 /* TEXT */, 0x74747874 /* ttxt */, 0x0101);
  Bytes want(32, 0);
  std::copy_n("TEXTttxt", 8, want.begin());
  want[9] = 0x01;  // the "inited" bit 0x0100 is the Finder's own and is dropped
  EXPECT_EQ(Bytes(info.begin(), info.end()), want);
}

class TransferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* d : {"root", "home/ann/Desktop", "home/Shared/Desktop", "prefs"})
      fs::create_directories(dir_ / d);
    PrefsSources sources;
    sources.localPrefsDir = dir_ / "prefs";
    sources.folders = {{kRoot, dir_ / "root"}, {kDesk, dir_ / "root"}};
    prefs_ = std::make_unique<CPrefs>(sources);
    prefs_->init();
    settings_.usersRoot = dir_ / "home";
  }

  // Runs the handler against a console on the other end of a socket pair.
  template <typename Script>
  void run(void (*handler)(Session&, const TransferSettings&), Script script) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    Session session(fds[0], 1, *prefs_);
    console_ = test_support::ConsoleEnd(fds[1]);
    std::thread agent([&] { handler(session, settings_); });
    script();
    agent.join();
    for (const pid_t pid : session.takeChildren()) waitpid(pid, nullptr, 0);
  }

  static varlo::varlo_manage::Bytes request(std::uint32_t folder, const std::string& name,
                                            bool flag = false) {
    auto r = varlo::varlo_manage::reply(0, false, false);
    r[2] = flag;
    varlo::put32<varlo::varlo_manage::KeyValue>(r, folder);
    varlo::putPString<varlo::varlo_manage::Message>(r, name);
    return r;
  }

  // "ok", or the refusal's text; "" when nothing came.
  std::string ack() {
    const Bytes r = console_.receive(varlo::varlo_manage::kSize, std::chrono::milliseconds(3000));
    if (r.size() != varlo::varlo_manage::kSize) return "";
    return r[2] ? "ok" : std::string(reinterpret_cast<const char*>(&r[69]), r[68]);
  }

  void sendHeader(bool go, bool last = false) {
    auto h = varlo::varlo_cmd_header{}.encode();
    h[2] = go;
    h[3] = last;
    console_.send(h);
  }
  void sendU32(std::uint32_t v) {
    std::uint8_t b[4];
    varlo::putU32(b, v);
    console_.send(b, 4);
  }

  // One fork in chunks of at most 4000 bytes, each acknowledged.
  void sendFork(const std::string& bytes) {
    for (std::size_t at = 0;;) {
      const std::size_t n = std::min<std::size_t>(4000, bytes.size() - at);
      sendHeader(true, at + n == bytes.size());
      sendU32(static_cast<std::uint32_t>(n));
      console_.send(bytes.data() + at, n);
      EXPECT_EQ(ack(), "ok");
      at += n;
      if (at == bytes.size()) break;
    }
    EXPECT_EQ(ack(), "ok") << "the second acknowledgement after the last chunk";
  }

  // The dialogue of one file after the agent's first acknowledgement.
  void sendFileBody(const std::string& data, const std::string& resource, bool typed) {
    sendHeader(true);
    const std::uint8_t flags[2] = {1, static_cast<std::uint8_t>(!resource.empty())};
    console_.send(flags, 2);
    EXPECT_EQ(ack(), "ok");
    sendHeader(true);
    sendU32(static_cast<std::uint32_t>(data.size()));
    EXPECT_EQ(ack(), "ok");
    sendFork(data);
    if (!resource.empty()) {
      sendHeader(true);
      sendU32(static_cast<std::uint32_t>(resource.size()));
      EXPECT_EQ(ack(), "ok");
      sendFork(resource);
    }
    sendHeader(true);
    Bytes info(122, 0);
    if (typed) std::copy_n("TEXTttxt\x01\x01", 10, info.begin() + 32);
    console_.send(info.data(), info.size());
    EXPECT_EQ(ack(), "ok");
  }

  test_support::TempDir dir_;
  test_support::LogCapture log_;
  std::unique_ptr<CPrefs> prefs_;
  TransferSettings settings_;
  test_support::ConsoleEnd console_;
};

TEST_F(TransferTest, SendFileWritesDataSidecarAndDesktopLinks) {
  const std::string data(10000, 'd');
  run(&sendFile, [&] {
    console_.send(request(kDesk, "notes.txt"));
    EXPECT_EQ(ack(), "ok");
    sendFileBody(data, "RSRC", true);
  });
  EXPECT_EQ(test_support::slurp(dir_ / "root/notes.txt"), data);
  const auto sidecar = test_support::slurp(dir_ / "root/._notes.txt").value_or("");
  ASSERT_EQ(sidecar.size(), 82u + 4);
  const auto header = AppleDouble::header(4);
  EXPECT_EQ(sidecar.substr(0, 50), std::string(header.begin(), header.end()));
  EXPECT_EQ(sidecar.substr(50, 10), std::string("TEXTttxt\x00\x01", 10));
  EXPECT_EQ(sidecar.substr(82), "RSRC");
  EXPECT_EQ(fs::read_symlink(dir_ / "home/ann/Desktop/notes.txt.link"), dir_ / "root/notes.txt");
  EXPECT_FALSE(fs::exists(fs::symlink_status(dir_ / "home/Shared/Desktop/notes.txt.link")));
}

TEST_F(TransferTest, NamesAndLinksThatWouldLeaveTheFolderAreRefused) {
  fs::create_directories(dir_ / "elsewhere");
  test_support::spit(dir_ / "elsewhere/victim", "keep");
  fs::create_symlink(dir_ / "elsewhere/victim", dir_ / "root/planted");
  struct Case {
    std::string name;
    std::string refusal;
  };
  for (const Case& c : {Case{"..", "Invalid file name"}, Case{"a/b", "Invalid file name"},
                        Case{"", "Invalid file name"},
                        Case{"planted", "Could not create file " + dir_ / "root/planted"}}) {
    run(&sendFile, [&] {
      console_.send(request(kRoot, c.name));
      EXPECT_EQ(ack(), c.refusal) << c.name;
    });
  }
  EXPECT_EQ(test_support::slurp(dir_ / "elsewhere/victim"), "keep");
  // A folder link planted where a sub-folder goes.
  fs::create_directories(dir_ / "root/tree");
  fs::create_directory_symlink(dir_ / "elsewhere", dir_ / "root/tree/sub");
  run(&sendFolder, [&] {
    console_.send(request(kRoot, "tree"));
    EXPECT_EQ(ack(), "ok");
    console_.send(request(0, "sub", true));
    const std::uint8_t folder[2] = {1, 0};
    console_.send(folder, 2);
    EXPECT_EQ(ack(), "Unable to create directory sub Error: 20");
  });
  EXPECT_EQ(fs::directory_iterator(dir_ / "elsewhere")->path().filename(), "victim");
}

// An item record whose byte 2 is 0 ends the folder without a word.
TEST_F(TransferTest, AConsoleCanCallOffAFolder) {
  run(&sendFolder, [&] {
    console_.send(request(kRoot, "later"));
    EXPECT_EQ(ack(), "ok");
    console_.send(request(0, "x", false));
    const std::uint8_t b[2] = {0, 0};
    console_.send(b, 2);
    EXPECT_TRUE(console_.receive(1, std::chrono::milliseconds(300)).empty()) << "no reply";
  });
}

}  // namespace
