#include "intake/heartbeat.h"

#include <poll.h>
#include <sys/socket.h>

#include <chrono>

#include "test_support.h"
#include "base/unique_fd.h"

using namespace std::chrono;

namespace {

struct Pair {
  UniqueFd agent, console;
  Pair() {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    agent.reset(fds[0]);
    console.reset(fds[1]);
  }
  // Bytes that arrive within the wait.
  std::size_t drain(milliseconds wait) {
    std::size_t total = 0;
    const auto deadline = steady_clock::now() + wait;
    for (;;) {
      const auto left = duration_cast<milliseconds>(deadline - steady_clock::now()).count();
      pollfd p{console.get(), POLLIN, 0};
      if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0) return total;
      char buf[256];
      const ssize_t n = recv(console.get(), buf, sizeof buf, 0);
      if (n <= 0) return total;
      total += static_cast<std::size_t>(n);
    }
  }
};

constexpr std::uint8_t kBlock[14] = {0, 9, 1, 0, 0};

}  // namespace

TEST(CHeartBeat, BeatsOnceASecondAndStopsAtOnce) {
  Pair pair;
  CHeartBeat beat(pair.agent.get());
  beat.startHeartbeat(kBlock, sizeof kBlock);
  // The first block goes out at once, the second a second later.
  EXPECT_EQ(pair.drain(milliseconds(1500)), 2 * sizeof kBlock);
  const auto before = steady_clock::now();
  EXPECT_EQ(beat.stopHeartbeat(), 0);
  EXPECT_LT(steady_clock::now() - before, milliseconds(500));
  EXPECT_EQ(beat.getExitStatus(), 1);
  EXPECT_EQ(pair.drain(milliseconds(1200)), 0u);  // nothing after the stop
  EXPECT_EQ(beat.stopHeartbeat(), 0);             // a second stop does not wait
}

TEST(CHeartBeat, ImmediateStopSendsOneBlockAndAGonePeerIsNoCrash) {
  Pair pair;
  {
    CHeartBeat beat(pair.agent.get());
    beat.startHeartbeat(kBlock, sizeof kBlock);
    beat.stopHeartbeat();
  }
  const std::size_t got = pair.drain(milliseconds(200));
  EXPECT_GE(got, sizeof kBlock);
  EXPECT_LE(got, 2 * sizeof kBlock);

  // With the console gone every send fails; the beat neither dies of
  // SIGPIPE nor stops on its own.
  pair.console.reset();
  CHeartBeat orphan(pair.agent.get());
  orphan.startHeartbeat(kBlock, sizeof kBlock);
  std::this_thread::sleep_for(milliseconds(1100));
  EXPECT_EQ(orphan.getExitStatus(), 0);
  EXPECT_EQ(orphan.stopHeartbeat(), 0);
}
