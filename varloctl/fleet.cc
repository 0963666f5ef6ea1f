#include "varloctl/fleet.h"

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

#include "varloctl/ctl_error.h"
#include "varloctl/interrupt.h"

namespace varloctl {
namespace {

// Descriptors open in this process now, or -1 when /proc is not there.
long openDescriptors() {
  DIR* dir = ::opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  long n = 0;
  while (const dirent* e = ::readdir(dir))
    if (e->d_name[0] != '.') ++n;
  ::closedir(dir);
  return n - 1;  // the directory's own
}

}  // namespace

int Fleet::workersFor(int wanted, rlim_t limit, long open, std::string& warning) {
  if (limit == RLIM_INFINITY) return wanted;
  const long free = static_cast<long>(std::min<rlim_t>(limit, 1 << 30)) - open - kSpareDescriptors;
  const long fit = std::max(1L, free / kDescriptorsPerWorker);
  if (fit >= wanted) return wanted;
  warning = "--parallel " + std::to_string(wanted) + " lowered to " + std::to_string(fit) +
            ": at most " + std::to_string(limit) + " files may be open (ulimit -n)";
  return static_cast<int>(fit);
}

int Fleet::workersAllowed(int wanted, std::string& warning) {
  rlimit rl{};
  if (::getrlimit(RLIMIT_NOFILE, &rl) != 0) return wanted;
  long open = openDescriptors();
  if (open < 0) open = kSpareDescriptors;
  const rlim_t need = static_cast<rlim_t>(open + kSpareDescriptors +
                                          static_cast<long>(wanted) * kDescriptorsPerWorker);
  if (rl.rlim_cur != RLIM_INFINITY && rl.rlim_cur < need) {
    rlimit raised = rl;
    raised.rlim_cur = rl.rlim_max == RLIM_INFINITY ? need : std::min(need, rl.rlim_max);
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) rl = raised;
  }
  return workersFor(wanted, rl.rlim_cur, open, warning);
}

std::vector<Fleet::Outcome> Fleet::run(const std::vector<HostList::Host>& hosts, const Job& job,
                                       const Report& report) const {
  // What a host that no worker took shows: only Ctrl-C leaves one.
  std::vector<Outcome> outcomes(hosts.size(), Outcome{kInterrupted, {}, "interrupted"});
  std::atomic<std::size_t> next{0};
  std::mutex mu;
  std::condition_variable changed;
  std::size_t done = 0, failed = 0, running = 0;

  const auto finish = [&](std::size_t i, Outcome o) {
    const bool bad = o.status != kOk;
    outcomes[i] = std::move(o);
    const std::lock_guard lock(mu);
    ++done;
    failed += bad ? 1 : 0;
    changed.notify_all();
  };
  const auto work = [&] {
    for (std::size_t i; !Interrupt::raised() && (i = next++) < hosts.size();) {
      const HostList::Host& host = hosts[i];
      if (!host.error.empty()) {
        finish(i, {kUnreachable, {}, host.error});
        continue;
      }
      try {
        finish(i, {kOk, job(host.name), {}});
      } catch (const CtlError& e) {
        finish(i, {e.status(), {}, e.what()});
      } catch (const std::exception& e) {
        finish(i, {kFailed, {}, e.what()});
      }
    }
    const std::lock_guard lock(mu);
    --running;
    changed.notify_all();
  };

  const std::size_t count =
      std::min<std::size_t>(static_cast<std::size_t>(std::max(parallel_, 1)), hosts.size());
  std::vector<std::jthread> workers;
  workers.reserve(count);
  try {
    while (workers.size() < count) {
      {
        const std::lock_guard lock(mu);
        ++running;
      }
      try {
        workers.emplace_back(work);
      } catch (...) {
        const std::lock_guard lock(mu);
        --running;
        throw;
      }
    }
  } catch (const std::system_error&) {
    // Fewer threads than asked for still get through the list.
    if (workers.empty()) throw CtlError(kFailed, "cannot start a thread for the hosts");
  }

  std::unique_lock lock(mu);
  while (running > 0) {
    changed.wait_for(lock, std::chrono::milliseconds(100));
    if (!report || running == 0) continue;
    const std::size_t d = done, f = failed;
    lock.unlock();
    report(d, f);
    lock.lock();
  }
  lock.unlock();
  workers.clear();  // each has left its loop; this joins them
  return outcomes;
}

}  // namespace varloctl
