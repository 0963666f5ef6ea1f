// The foreman's shutdown with commands still running: each stops at its next step.
#include "intake/vlforeman.h"

#include <thread>

#include "console_end.h"
#include "intake/vlbuffer.h"
#include "prefs/prefs.h"
#include "session/session.h"
#include "test_support.h"

using namespace std::chrono_literals;

namespace {

constexpr std::uint16_t kSleeper = 90, kFlooder = 91;

// Minutes of work, one short step at a time.
void sleeper(Session& s, std::uint16_t) {
  for (int step = 0; step < 30000 && s.waitFor(10ms);) ++step;
  s.log("sleeper done");
}

// Writes to a console that reads nothing, until a send blocks.
void flooder(Session& s, std::uint16_t) {
  const std::vector<std::uint8_t> block(1 << 16, 0x55);
  for (int step = 0; step < 100000 && !s.stopRequested(); ++step)
    if (s.SendData(block.data(), static_cast<int>(block.size())) != 0) break;
  s.log("flooder done");
}

constexpr CommandRow kTable[] = {
    {kSleeper, " received Sleeper command", 0, &sleeper},
    {kFlooder, " received Flooder command", 0, &flooder},
};

}  // namespace

TEST(VLForeman, ShutdownStopsLongCommandsWithinTwoSecondsAndSilencesThem) {
  test_support::LogCapture log;
  test_support::TempDir prefsDir;
  PrefsSources sources;
  sources.localPrefsDir = prefsDir.path;
  CPrefs prefs(sources);
  prefs.init();
  Prefs = &prefs;

  VLBuffer buffer;
  auto foreman = std::make_unique<VLForeman>(buffer, kTable);
  std::thread thread([&] { foreman->run(); });
  std::vector<test_support::ConsoleEnd> consoles;
  for (std::uint16_t code : {kSleeper, kFlooder}) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    consoles.emplace_back(fds[1]);
    ASSERT_TRUE(consoles.back().sendHeader(code, ""));
    buffer.push(fds[0], {}, nullptr, 0);
  }
  const auto logged = [&](const std::string& part) {
    const auto m = log.messages();
    return std::any_of(m.begin(), m.end(), [&](const auto& l) { return l.find(part) != l.npos; });
  };
  for (int i = 0; i < 300 && !(logged("Sleeper command") && logged("Flooder command")); ++i)
    std::this_thread::sleep_for(10ms);
  ASSERT_TRUE(logged("Sleeper command") && logged("Flooder command"));
  std::this_thread::sleep_for(200ms);  // the flooder fills the socket and blocks

  const auto before = std::chrono::steady_clock::now();
  foreman->exit();
  thread.join();
  foreman.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
  for (const char* quiet : {"sleeper done", "flooder done", "failed to send data"})
    EXPECT_FALSE(logged(quiet)) << quiet;
  for (const std::string& line : log.messages())
    EXPECT_FALSE(line.rfind("Worker Thread: ", 0) == 0 && line.ends_with(" finished")) << line;
  EXPECT_TRUE(log.contains("2 threads need to close"));
  Prefs = CPrefs::makePrefs();
}
