// The bounded probe against fake mounts whose calls the test holds and
// releases at will, standing in for a server that has gone away.
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

// The servers behind the fake mounts. Shared with every call the probe
// makes, so a call still held when a test ends has something to wait on.
struct FakeServer {
  struct Mount {
    int error = 0;  // what both calls fail with, if not 0
    bool directory = true;
    fsblkcnt_t blocks = 0;
    fsblkcnt_t available = 0;
    unsigned long fragment = 4096;
  };

  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, Mount> mounts;
  std::set<std::string> held;
  std::map<std::string, int> calls;  // stat and statvfs alike

  void hold(const std::string& path) {
    std::lock_guard lock(mutex);
    held.insert(path);
  }
  void release(const std::string& path) {
    std::lock_guard lock(mutex);
    held.erase(path);
    changed.notify_all();
  }
  void releaseAll() {
    std::lock_guard lock(mutex);
    held.clear();
    changed.notify_all();
  }
  int callsTo(const std::string& path) {
    std::lock_guard lock(mutex);
    return calls[path];
  }

  // Counts the call, waits while the path is held, then answers as its
  // mount says (ENOENT for a path it does not know).
  template <typename Fill>
  int answer(const std::string& path, Fill fill) {
    std::unique_lock lock(mutex);
    ++calls[path];
    changed.wait(lock, [&] { return held.count(path) == 0; });
    const auto it = mounts.find(path);
    if (it == mounts.end()) return ENOENT;
    if (it->second.error != 0) return it->second.error;
    fill(it->second);
    return 0;
  }
};

CMountProbe::StatCall statOf(std::shared_ptr<FakeServer> server) {
  return [server](const std::string& path, struct stat& out) {
    return server->answer(path, [&](const FakeServer::Mount& m) {
      out.st_mode = m.directory ? S_IFDIR | 0755 : S_IFREG | 0644;
    });
  };
}

CMountProbe::StatvfsCall statvfsOf(std::shared_ptr<FakeServer> server) {
  return [server](const std::string& path, struct statvfs& out) {
    return server->answer(path, [&](const FakeServer::Mount& m) {
      out.f_blocks = m.blocks;
      out.f_bavail = m.available;
      out.f_frsize = m.fragment;
    });
  };
}

template <typename Cond>
bool waitFor(Cond cond, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!cond()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

std::chrono::milliseconds since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

class BoundedMountProbe : public ::testing::Test {
 protected:
  void TearDown() override {
    probe_.reset();
    server_->releaseAll();
    // Each helper thread holds the server until its call has returned; once
    // the test's is the only reference, none is left to outlive the test.
    EXPECT_TRUE(waitFor([&] { return server_.use_count() == 1; }, 5s));
  }

  CMountProbe& probe(std::chrono::milliseconds bound) {
    probe_ = std::make_unique<CMountProbe>(statOf(server_), statvfsOf(server_), bound);
    return *probe_;
  }

  std::shared_ptr<FakeServer> server_ = std::make_shared<FakeServer>();
  std::unique_ptr<CMountProbe> probe_;
};

// Long enough that a prompt answer never misses it, even under a sanitizer.
constexpr auto kGenerous = 5000ms;
// Short enough to wait out in a test.
constexpr auto kShort = 150ms;

}  // namespace

TEST_F(BoundedMountProbe, PromptAnswersPassThrough) {
  struct Case {
    const char* path;
    FakeServer::Mount mount;
    Status status;
    bool directory;
    int error;
  };
  const Case cases[] = {
      {"/", {0, true, 1000, 250, 4096}, Status::kOk, true, 0},
      {"/srv/data", {0, true, 1ull << 40, 7, 512}, Status::kOk, true, 0},
      {"/etc/hostname", {0, false, 10, 5, 1024}, Status::kOk, false, 0},
      {"/mnt/gone", {ENOENT, true, 1, 1, 1}, Status::kError, false, ENOENT},
      {"/mnt/denied", {EACCES, true, 1, 1, 1}, Status::kError, false, EACCES},
      {"/mnt/stale", {ESTALE, true, 1, 1, 1}, Status::kError, false, ESTALE},
  };
  for (const Case& c : cases) server_->mounts[c.path] = c.mount;
  CMountProbe& p = probe(kGenerous);

  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const auto dir = p.isDirectory(c.path);
    EXPECT_EQ(dir.status, c.status);
    EXPECT_EQ(dir.value, c.directory);
    EXPECT_EQ(dir.error, c.error);

    const auto vfs = p.statvfs(c.path);
    EXPECT_EQ(vfs.status, c.status);
    EXPECT_EQ(vfs.error, c.error);
    if (c.status == Status::kOk) {
      EXPECT_EQ(vfs.value.f_blocks, c.mount.blocks);
      EXPECT_EQ(vfs.value.f_bavail, c.mount.available);
      EXPECT_EQ(vfs.value.f_frsize, c.mount.fragment);
    } else {
      EXPECT_EQ(vfs.value.f_blocks, 0u);
    }
    // Answered calls leave nothing in flight: each ask is a call of its own.
    EXPECT_EQ(server_->callsTo(c.path), 2);
  }
}

TEST_F(BoundedMountProbe, DeadMountIsUnreachableUntilItsCallReturns) {
  server_->mounts["/mnt/dead"] = {0, true, 1000, 500, 4096};
  server_->mounts["/mnt/alive"] = {0, true, 2000, 100, 4096};
  server_->hold("/mnt/dead");
  CMountProbe& p = probe(kShort);

  auto start = Clock::now();
  const auto first = p.statvfs("/mnt/dead");
  const auto waited = since(start);
  EXPECT_EQ(first.status, Status::kUnreachable);
  EXPECT_EQ(first.value.f_blocks, 0u);
  EXPECT_GE(waited, kShort - 10ms);
  EXPECT_LT(waited, kShort + 1000ms);
  EXPECT_EQ(server_->callsTo("/mnt/dead"), 1);

  // While that call stays blocked, either question about the mount is
  // answered at once and asks nothing.
  for (int round = 0; round < 3; ++round) {
    start = Clock::now();
    EXPECT_EQ(p.statvfs("/mnt/dead").status, Status::kUnreachable);
    EXPECT_EQ(p.isDirectory("/mnt/dead").status, Status::kUnreachable);
    EXPECT_LT(since(start), kShort / 2);
  }
  EXPECT_EQ(server_->callsTo("/mnt/dead"), 1);

  // Other mounts do not wait behind it.
  start = Clock::now();
  const auto alive = p.statvfs("/mnt/alive");
  EXPECT_LT(since(start), kShort);
  ASSERT_EQ(alive.status, Status::kOk);
  EXPECT_EQ(alive.value.f_blocks, 2000u);
  EXPECT_EQ(p.isDirectory("/mnt/alive").status, Status::kOk);

  // Once the late call returns, the next ask is a fresh call that answers.
  server_->release("/mnt/dead");
  CMountProbe::Answer<struct statvfs> again;
  EXPECT_TRUE(waitFor(
      [&] {
        again = p.statvfs("/mnt/dead");
        return again.status != Status::kUnreachable;
      },
      2000ms));
  ASSERT_EQ(again.status, Status::kOk);
  EXPECT_EQ(again.value.f_blocks, 1000u);
  EXPECT_EQ(again.value.f_bavail, 500u);
  EXPECT_EQ(server_->callsTo("/mnt/dead"), 2);
}

TEST_F(BoundedMountProbe, ConcurrentAsksOfADeadMountMakeOneCall) {
  server_->mounts["/mnt/dead"] = {};
  server_->hold("/mnt/dead");
  CMountProbe& p = probe(kShort);

  std::atomic<int> unreachable{0};
  std::vector<std::thread> sessions;
  for (int i = 0; i < 16; ++i)
    sessions.emplace_back([&, i] {
      const bool reached = i % 2 ? p.isDirectory("/mnt/dead").ok() : p.statvfs("/mnt/dead").ok();
      if (!reached) ++unreachable;
    });
  for (std::thread& t : sessions) t.join();
  EXPECT_EQ(unreachable, 16);
  EXPECT_EQ(server_->callsTo("/mnt/dead"), 1);
}

TEST_F(BoundedMountProbe, StopRequestEndsTheWait) {
  server_->mounts["/mnt/dead"] = {};
  server_->mounts["/mnt/alive"] = {};
  server_->hold("/mnt/dead");
  CMountProbe& p = probe(10000ms);

  Status status = Status::kOk;
  std::jthread session([&](std::stop_token stop) { status = p.statvfs("/mnt/dead", stop).status; });
  ASSERT_TRUE(waitFor([&] { return server_->callsTo("/mnt/dead") == 1; }, 2000ms));
  const auto start = Clock::now();
  session.request_stop();
  session.join();
  EXPECT_LT(since(start), 1000ms);
  EXPECT_EQ(status, Status::kUnreachable);

  // A caller already told to stop gets no answer and starts no call, even of
  // a mount that would answer.
  std::stop_source stopped;
  stopped.request_stop();
  for (const char* path : {"/mnt/alive", "/mnt/dead"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(p.statvfs(path, stopped.get_token()).status, Status::kUnreachable);
    EXPECT_EQ(p.isDirectory(path, stopped.get_token()).status, Status::kUnreachable);
  }
  EXPECT_EQ(server_->callsTo("/mnt/dead"), 1);
  // Had a stopped ask started a call, it would still hold the mount (this ask
  // is unreachable) or would have been counted.
  EXPECT_TRUE(p.statvfs("/mnt/alive").ok());
  EXPECT_EQ(server_->callsTo("/mnt/alive"), 1);
}

TEST_F(BoundedMountProbe, BlockedCallOutlivesTheProbe) {
  server_->mounts["/mnt/dead"] = {};
  server_->hold("/mnt/dead");
  {
    CMountProbe gone(statOf(server_), statvfsOf(server_), kShort);
    EXPECT_EQ(gone.isDirectory("/mnt/dead").status, Status::kUnreachable);
  }
  // The call returns into state the probe no longer owns; ASan would see a
  // write to freed memory, and TearDown waits for the thread to end.
  server_->release("/mnt/dead");
  EXPECT_TRUE(waitFor([&] { return server_.use_count() == 1; }, 2000ms));
}

TEST_F(BoundedMountProbe, SystemCallsAnswerForRealPaths) {
  CMountProbe real({}, {}, kGenerous);
  const std::string tmp = ::testing::TempDir();
  const auto dir = real.isDirectory(tmp);
  ASSERT_EQ(dir.status, Status::kOk);
  EXPECT_TRUE(dir.value);
  const auto vfs = real.statvfs(tmp);
  ASSERT_EQ(vfs.status, Status::kOk);
  EXPECT_GT(vfs.value.f_blocks, 0u);
  const auto missing = real.statvfs(tmp + "/varlo-no-such-mount");
  EXPECT_EQ(missing.status, Status::kError);
  EXPECT_EQ(missing.error, ENOENT);
}
