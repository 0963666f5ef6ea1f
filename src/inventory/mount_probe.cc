#include "inventory/mount_probe.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <set>
#include <utility>

// Owned by the probe and by every helper thread, so a call that returns
// after the probe (or its caller) is gone still has somewhere to write.
struct CMountProbe::Shared {
  std::mutex mutex;
  std::set<std::string> busy;  // mount points with a call in flight
};

namespace {

// One call's outcome, guarded by Shared::mutex.
template <typename T>
struct Pending {
  std::condition_variable_any answered;
  bool done = false;
  int error = 0;
  T value{};
};

// A stat() and its wrapper need little; many may be stuck at once.
constexpr std::size_t kHelperStack = 128 * 1024;

void* runTask(void* arg) {
  std::unique_ptr<std::function<void()>> task(static_cast<std::function<void()>*>(arg));
  (*task)();
  return nullptr;
}

// 0, or the error number of pthread_create.
int startDetached(std::function<void()> task) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, kHelperStack);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  // A signal to the process may go to any thread that does not block it; one
  // stuck in a dead mount could take SIGTERM and sit on it until the server
  // answers.
  sigset_t blocked, old;
  sigfillset(&blocked);
  for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigdelset(&blocked, fault);
  pthread_sigmask(SIG_SETMASK, &blocked, &old);
  auto owned = std::make_unique<std::function<void()>>(std::move(task));
  pthread_t thread;
  const int err = pthread_create(&thread, &attr, runTask, owned.get());
  if (err == 0) owned.release();
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  pthread_attr_destroy(&attr);
  return err;
}

}  // namespace

CMountProbe& CMountProbe::instance() {
  static CMountProbe probe;
  return probe;
}

CMountProbe::CMountProbe(StatCall stat, StatvfsCall statvfs, std::chrono::milliseconds bound)
    : shared_(std::make_shared<Shared>()),
      stat_(std::move(stat)),
      statvfs_(std::move(statvfs)),
      bound_(bound) {
  if (!stat_)
    stat_ = [](const std::string& path, struct stat& out) {
      return ::stat(path.c_str(), &out) == 0 ? 0 : errno;
    };
  if (!statvfs_)
    statvfs_ = [](const std::string& path, struct statvfs& out) {
      return ::statvfs(path.c_str(), &out) == 0 ? 0 : errno;
    };
}

template <typename T>
CMountProbe::Answer<T> CMountProbe::ask(const std::string& path,
                                        const std::function<int(const std::string&, T&)>& call,
                                        std::stop_token stop) {
  Answer<T> answer;
  if (stop.stop_requested()) return answer;
  std::unique_lock lock(shared_->mutex);
  if (!shared_->busy.insert(path).second) return answer;

  auto pending = std::make_shared<Pending<T>>();
  auto task = [shared = shared_, pending, call, path] {
    T value{};
    const int error = call(path, value);
    std::lock_guard done(shared->mutex);
    pending->value = value;
    pending->error = error;
    pending->done = true;
    // Reachable again: the next ask starts a fresh call.
    shared->busy.erase(path);
    pending->answered.notify_all();
  };
  // No thread to ask with: say why rather than blame the mount.
  if (const int err = startDetached(std::move(task)); err != 0) {
    shared_->busy.erase(path);
    answer.status = Status::kError;
    answer.error = err;
    return answer;
  }
  const auto deadline = std::chrono::steady_clock::now() + bound_;
  if (!pending->answered.wait_until(lock, stop, deadline, [&] { return pending->done; }))
    return answer;
  if (pending->error != 0) {
    answer.status = Status::kError;
    answer.error = pending->error;
  } else {
    answer.status = Status::kOk;
    answer.value = pending->value;
  }
  return answer;
}

CMountProbe::Answer<bool> CMountProbe::isDirectory(const std::string& mountPoint,
                                                   std::stop_token stop) {
  const Answer<struct stat> st = ask<struct stat>(mountPoint, stat_, std::move(stop));
  return {st.status, st.ok() && S_ISDIR(st.value.st_mode), st.error};
}

CMountProbe::Answer<struct statvfs> CMountProbe::statvfs(const std::string& mountPoint,
                                                         std::stop_token stop) {
  return ask<struct statvfs>(mountPoint, statvfs_, std::move(stop));
}
