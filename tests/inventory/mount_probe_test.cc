// The bounded probe against fake mounts whose calls the test holds at will.
#include "inventory/mount_probe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Status = CMountProbe::Status;

namespace {

constexpr auto kShort = 150ms;  // a bound short enough to wait out in a test

// The servers behind the fake mounts, shared with every call the probe makes
// so that a call still held when a test ends has something to wait on.
struct FakeServer {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, int> errors;  // what a mount answers; 0 for the rest
  std::set<std::string> held;
  std::map<std::string, int> calls;  // stat and statvfs alike

  void hold(const std::string& path, bool holding = true) {
    std::lock_guard lock(mutex);
    if (holding) held.insert(path);
    if (!holding) held.erase(path);
    changed.notify_all();
  }
  int callsTo(const std::string& path) {
    std::lock_guard lock(mutex);
    return calls[path];
  }
  // Counts the call and waits while the path is held.
  int answer(const std::string& path) {
    std::unique_lock lock(mutex);
    ++calls[path];
    changed.wait(lock, [&] { return held.count(path) == 0; });
    return errors[path];
  }
};

template <typename Cond>
bool waitFor(Cond cond, std::chrono::milliseconds timeout) {
  for (const auto deadline = Clock::now() + timeout; !cond(); std::this_thread::sleep_for(5ms))
    if (Clock::now() >= deadline) return false;
  return true;
}

class BoundedMountProbe : public ::testing::Test {
 protected:
  // The probe goes first: calls still blocked in it return into state it no
  // longer owns (AddressSanitizer would see a write to freed memory).
  void TearDown() override {
    probe_.reset();
    for (const std::string& path : std::set<std::string>(server_->held)) server_->hold(path, false);
    EXPECT_TRUE(waitFor([&] { return server_.use_count() == 1; }, 5s));
  }

  // Files lie under /etc; a mount has as many blocks as its path has
  // characters. Both are filled in whatever the answer.
  CMountProbe& probe(std::chrono::milliseconds bound) {
    auto server = server_;
    probe_ = std::make_unique<CMountProbe>(
        [server](const std::string& path, struct stat& out) {
          out.st_mode = path.rfind("/etc/", 0) == 0 ? S_IFREG : S_IFDIR;
          return server->answer(path);
        },
        [server](const std::string& path, struct statvfs& out) {
          out.f_blocks = path.size();
          return server->answer(path);
        },
        bound);
    return *probe_;
  }

  std::shared_ptr<FakeServer> server_ = std::make_shared<FakeServer>();
  std::unique_ptr<CMountProbe> probe_;
};

}  // namespace

TEST_F(BoundedMountProbe, PromptAnswersPassThroughAndEachAskIsACallOfItsOwn) {
  server_->errors["/mnt/stale"] = ESTALE;
  CMountProbe& p = probe(5000ms);
  EXPECT_EQ(p.statvfs("/srv/data").value.f_blocks, 9u);
  EXPECT_TRUE(p.isDirectory("/srv/data").value);
  EXPECT_EQ(server_->callsTo("/srv/data"), 2);
  EXPECT_EQ(p.isDirectory("/etc/hosts").status, Status::kOk);
  EXPECT_FALSE(p.isDirectory("/etc/hosts").value);
  const auto stale = p.statvfs("/mnt/stale");  // its error number, and no value
  EXPECT_EQ(stale.status, Status::kError);
  EXPECT_EQ(stale.error, ESTALE);
  EXPECT_EQ(stale.value.f_blocks, 0u);
}

TEST_F(BoundedMountProbe, DeadMountIsUnreachableAtOnceUntilItsOneCallReturns) {
  server_->hold("/mnt/dead");
  CMountProbe& p = probe(kShort);

  // Sessions asking either question at once: one call is made, its asker
  // waits the bound, and every other is answered at once.
  std::atomic<int> unreachable{0}, waited{0};
  std::vector<std::thread> sessions;
  for (int i = 0; i < 16; ++i)
    sessions.emplace_back([&, i] {
      const auto start = Clock::now();
      unreachable += !(i % 2 ? p.isDirectory("/mnt/dead").ok() : p.statvfs("/mnt/dead").ok());
      waited += Clock::now() - start >= kShort - 10ms;
      EXPECT_LT(Clock::now() - start, kShort + 1000ms);
    });
  for (std::thread& t : sessions) t.join();
  EXPECT_EQ(unreachable, 16);
  EXPECT_EQ(waited, 1);
  // So are later asks while the call stays blocked, and other mounts do not
  // wait behind it.
  auto start = Clock::now();
  EXPECT_EQ(p.isDirectory("/mnt/dead").status, Status::kUnreachable);
  EXPECT_EQ(p.statvfs("/mnt/alive").value.f_blocks, 10u);
  EXPECT_LT(Clock::now() - start, kShort / 2);
  EXPECT_EQ(server_->callsTo("/mnt/dead"), 1);

  // Once the late call returns, the next ask is a fresh call that answers.
  server_->hold("/mnt/dead", false);
  EXPECT_TRUE(waitFor([&] { return p.statvfs("/mnt/dead").value.f_blocks == 9; }, 2000ms));
  EXPECT_EQ(server_->callsTo("/mnt/dead"), 2);
}

TEST_F(BoundedMountProbe, StopRequestEndsTheWait) {
  server_->hold("/mnt/dead");
  CMountProbe& p = probe(10000ms);
  Status status = Status::kOk;
  std::jthread session([&](std::stop_token stop) { status = p.statvfs("/mnt/dead", stop).status; });
  ASSERT_TRUE(waitFor([&] { return server_->callsTo("/mnt/dead") == 1; }, 2000ms));
  const auto start = Clock::now();
  session.request_stop();
  session.join();
  EXPECT_LT(Clock::now() - start, 1000ms);
  EXPECT_EQ(status, Status::kUnreachable);
}
