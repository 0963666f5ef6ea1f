#include "software/census_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>

#include "base/thread.h"
#include "base/unique_fd.h"
#include "core/vllog.h"

namespace {

// An extension packed into one word: its (at most five) bytes and, above
// them, its length. The empty extension is 0.
using ExtKey = std::uint64_t;
constexpr std::size_t kMaxExt = 5;

ExtKey keyOf(const char* name, std::size_t len) {
  const void* dot = memrchr(name, '.', len);
  if (dot == nullptr) return 0;
  const std::size_t start = static_cast<std::size_t>(static_cast<const char*>(dot) - name) + 1;
  const std::size_t n = len - start;
  if (n > kMaxExt) return 0;
  ExtKey key = ExtKey{n} << 40;
  for (std::size_t i = 0; i < n; ++i)
    key |= ExtKey{static_cast<unsigned char>(name[start + i])} << (8 * i);
  return key;
}

std::string textOf(ExtKey key) {
  std::string out(static_cast<std::size_t>(key >> 40), '\0');
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = static_cast<char>((key >> (8 * i)) & 0xFF);
  return out;
}

struct Acc {
  std::uint32_t sizeKb = 0;
  std::uint64_t files = 0;
};

// The tally of one stretch of the walk, in first-sighting order.
class Summary {
 public:
  void add(ExtKey key, std::uint32_t kb) {
    // Files of one folder mostly share a handful of extensions.
    if (order_.empty() || order_[last_].first != key) {
      const auto [it, fresh] = index_.try_emplace(key, order_.size());
      if (fresh) order_.emplace_back(key, Acc{});
      last_ = it->second;
    }
    Acc& a = order_[last_].second;
    a.sizeKb += kb;  // wraps, as the 32-bit total always has
    ++a.files;
  }
  const std::vector<std::pair<ExtKey, Acc>>& order() const { return order_; }

 private:
  std::vector<std::pair<ExtKey, Acc>> order_;
  std::unordered_map<ExtKey, std::size_t> index_;
  std::size_t last_ = 0;
};

struct Task;

// A stretch of a task's walk: its own tally, or a subtree another thread
// walked (in its place in the order).
struct Segment {
  Summary summary;
  Task* child = nullptr;
};

struct Task {
  UniqueFd dir;
  std::string path;  // empty once deeper than any gate
  unsigned depth = 0;
  std::deque<Segment> segments;  // a deque: references stay valid as it grows
};

// A folder of the walk in progress: its sub-folders still to visit. Only
// the newest few keep their descriptor; an older one is reopened through
// ".." of its child when the walk climbs back to it.
struct Frame {
  UniqueFd fd;
  dev_t dev = 0;
  ino_t ino = 0;
  std::string path;
  unsigned depth = 0;
  std::vector<std::string> subdirs;
  std::size_t next = 0;
};

constexpr std::size_t kOpenLevels = 32;
constexpr std::size_t kListingBuffer = 32 * 1024;
constexpr std::uint64_t kProgressStep = 256;

std::string join(const std::string& dir, const char* name) {
  if (!dir.empty() && dir.back() == '/') return dir + name;
  return dir + "/" + name;
}

std::uint32_t modTimeOf(const struct stat& st) {
  if (st.st_mtime < 0) return 0;
  if (static_cast<std::uint64_t>(st.st_mtime) > UINT32_MAX) return UINT32_MAX;
  return static_cast<std::uint32_t>(st.st_mtime);
}

}  // namespace

class CensusWalk::Run {
 public:
  Run(const Options& options, std::uint32_t cutoff, std::atomic<std::uint64_t>& counted)
      : options_(options), cutoff_(cutoff), counted_(counted) {
    threads_ = options.threads != 0 ? options.threads : std::thread::hardware_concurrency();
    if (threads_ == 0) threads_ = 1;
  }

  int walk(const std::string& rootPath, std::vector<Tally>& out) {
    root_ = rootPath.size() > 1 && rootPath.back() == '/' ? rootPath.substr(0, rootPath.size() - 1)
                                                         : rootPath;
    learnGates();
    UniqueFd rootDir(::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!rootDir.valid()) return -1;
    Task* first = adopt(std::move(rootDir), root_, 0);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      queue_.push_back(first);
      queued_.fetch_add(1, std::memory_order_relaxed);
    }

    std::vector<Thread> helpers;
    for (unsigned i = 1; i < threads_; ++i) {
      try {
        helpers.emplace_back([this] { work(); });
      } catch (const std::system_error&) {
        break;  // fewer hands, same answer
      }
    }
    work();
    for (Thread& t : helpers) t.join();
    if (options_.stop.stop_requested()) return -1;
    merge(*first, out);
    return 0;
  }

 private:
  // Mount points below the root, and the depths they lie at (the root's
  // sub-folders are depth 1), so that most folders need no look-up.
  void learnGates() {
    const std::string prefix = root_ == "/" ? "/" : root_ + "/";
    for (const auto& [path, gate] : options_.gates) {
      if (path.size() <= prefix.size() || path.compare(0, prefix.size(), prefix) != 0) continue;
      std::string rel = path.substr(prefix.size());
      while (!rel.empty() && rel.back() == '/') rel.pop_back();
      if (rel.empty()) continue;
      const unsigned depth = 1 + static_cast<unsigned>(std::count(rel.begin(), rel.end(), '/'));
      gates_.emplace(prefix + rel, gate);
      gateDepths_.insert(depth);
      if (depth > maxGateDepth_) maxGateDepth_ = depth;
    }
  }

  Task* adopt(UniqueFd dir, std::string path, unsigned depth) {
    auto task = std::make_unique<Task>();
    task->dir = std::move(dir);
    task->path = depth < maxGateDepth_ ? std::move(path) : std::string();
    task->depth = depth;
    task->segments.emplace_back();
    Task* raw = task.get();
    std::lock_guard<std::mutex> lock(mutex_);
    // Owned flat, so that no destructor recurses down a deep tree.
    tasks_.push_back(std::move(task));
    return raw;
  }

  bool hungry() const {
    return threads_ > 1 && queued_.load(std::memory_order_relaxed) < threads_;
  }

  void spawn(Task* task) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      queue_.push_back(task);
      queued_.fetch_add(1, std::memory_order_relaxed);
    }
    wake_.notify_one();
  }

  void work() {
    std::vector<char> buffer(kListingBuffer);
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return !queue_.empty() || active_ == 0; });
      if (queue_.empty()) break;
      Task* task = queue_.front();
      queue_.pop_front();
      queued_.fetch_sub(1, std::memory_order_relaxed);
      ++active_;
      lock.unlock();
      process(*task, buffer);
      lock.lock();
      --active_;
    }
    wake_.notify_all();
  }

  // Where a mount point may be entered: nullopt for an ordinary folder.
  std::optional<Gate> gateOf(const std::string& path, unsigned depth) const {
    if (path.empty() || gateDepths_.count(depth) == 0) return std::nullopt;
    const auto it = gates_.find(path);
    if (it == gates_.end()) return std::nullopt;
    return it->second;
  }

  // Counts the folder's files into summary and keeps its sub-folders for
  // later, in listing order. False when a stop was requested.
  bool scan(Frame& frame, Summary& summary, std::vector<char>& buffer, std::uint64_t& counted) {
    const int fd = frame.fd.get();
    for (;;) {
      if (options_.stop.stop_requested()) return false;
      const ssize_t n = getdents64(fd, buffer.data(), buffer.size());
      // A read error ends the listing like its end does; what was read counts.
      if (n <= 0) break;
      for (ssize_t pos = 0; pos < n;) {
        const auto* entry = reinterpret_cast<const struct dirent64*>(buffer.data() + pos);
        pos += entry->d_reclen;
        const char* name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
        struct stat st;
        bool known = false;
        if (entry->d_type == DT_DIR) {
          frame.subdirs.emplace_back(name);
          continue;
        }
        if (entry->d_type == DT_UNKNOWN) {
          // Some file systems leave the type out; a link stays a file.
          if (fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;  // gone
          if (S_ISDIR(st.st_mode)) {
            frame.subdirs.emplace_back(name);
            continue;
          }
          known = true;
        }
        if (!known && fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
          // Gone since it was listed: counted with time and size 0.
          std::memset(&st, 0, sizeof st);
        }
        if (modTimeOf(st) < cutoff_) continue;
        const std::size_t len = std::strlen(name);
        summary.add(keyOf(name, len),
                    CensusWalk::sizeKbOf(static_cast<std::uint64_t>(st.st_blocks)));
        if (++counted == kProgressStep) flush(counted);
      }
    }
    flush(counted);  // once per folder, so the heartbeat sees progress
    return true;
  }

  void flush(std::uint64_t& counted) {
    if (counted != 0) counted_.fetch_add(counted, std::memory_order_relaxed);
    counted = 0;
  }

  void process(Task& task, std::vector<char>& buffer) {
    std::uint64_t counted = 0;
    std::vector<Frame> stack;
    std::size_t firstOpen = 0;  // frames below this one have closed descriptors
    Summary* summary = &task.segments.back().summary;

    stack.push_back(Frame{std::move(task.dir), 0, 0, std::move(task.path), task.depth, {}, 0});
    bool going = scan(stack.back(), *summary, buffer, counted);
    while (going && !stack.empty()) {
      if (options_.stop.stop_requested()) break;
      Frame& top = stack.back();
      if (top.next == top.subdirs.size()) {
        if (!climb(stack, firstOpen)) break;
        continue;
      }
      const std::string& name = top.subdirs[top.next++];
      const unsigned depth = top.depth + 1;
      std::string path = top.depth < maxGateDepth_ && !top.path.empty()
                             ? join(top.path, name.c_str())
                             : std::string();
      if (const auto gate = gateOf(path, depth)) {
        if (*gate == Gate::kSkip) continue;
        if (!options_.reachable || !options_.reachable(path)) continue;
      }
      UniqueFd child(
          openat(top.fd.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      // A folder that cannot be opened (gone, unreadable) adds nothing.
      if (!child.valid()) continue;
      if (hungry()) {
        Task* sub = adopt(std::move(child), std::move(path), depth);
        task.segments.push_back(Segment{Summary{}, sub});
        task.segments.emplace_back();
        summary = &task.segments.back().summary;
        spawn(sub);
        continue;
      }
      stack.push_back(Frame{std::move(child), 0, 0, std::move(path), depth, {}, 0});
      if (stack.size() - firstOpen > kOpenLevels) {
        Frame& old = stack[firstOpen++];
        struct stat st{};
        fstat(old.fd.get(), &st);
        old.dev = st.st_dev;
        old.ino = st.st_ino;
        old.fd.reset();
      }
      going = scan(stack.back(), *summary, buffer, counted);
    }
    flush(counted);
  }

  // Leaves the finished folder on top of the stack. Its parent, if its
  // descriptor was given up, is reopened through ".." and must be the same
  // folder as before; if the tree was moved meanwhile, the rest of this
  // subtree is left out (logged) rather than counted in the wrong place.
  bool climb(std::vector<Frame>& stack, std::size_t& firstOpen) {
    Frame done = std::move(stack.back());
    stack.pop_back();
    if (stack.empty() || stack.size() > firstOpen) return true;
    Frame& parent = stack.back();
    UniqueFd up(openat(done.fd.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat st{};
    if (!up.valid() || fstat(up.get(), &st) != 0 || st.st_dev != parent.dev ||
        st.st_ino != parent.ino) {
      Log->LogMessage("File census: a folder was moved during the count; the rest of " +
                      (root_ == "/" ? std::string("/") : root_) + " below it is left out");
      return false;
    }
    parent.fd = std::move(up);
    --firstOpen;
    return true;
  }

  // Joins the tallies in walk order: a task's segments in turn, each
  // spawned subtree where it was met.
  void merge(Task& first, std::vector<Tally>& out) {
    std::unordered_map<ExtKey, std::size_t> index;
    std::vector<std::pair<ExtKey, Acc>> total;
    std::vector<std::pair<Task*, std::size_t>> pending{{&first, 0}};
    while (!pending.empty()) {
      auto& [task, at] = pending.back();
      if (at == task->segments.size()) {
        pending.pop_back();
        continue;
      }
      const Segment& seg = task->segments[at++];
      if (seg.child != nullptr) {
        pending.emplace_back(seg.child, 0);  // invalidates task and at: used no more
        continue;
      }
      for (const auto& [key, acc] : seg.summary.order()) {
        const auto [it, fresh] = index.try_emplace(key, total.size());
        if (fresh) total.emplace_back(key, Acc{});
        Acc& a = total[it->second].second;
        a.sizeKb += acc.sizeKb;
        a.files += acc.files;
      }
    }
    out.clear();
    out.reserve(total.size());
    for (const auto& [key, acc] : total) out.push_back(Tally{textOf(key), acc.sizeKb, acc.files});
  }

  const Options& options_;
  const std::uint32_t cutoff_;
  std::atomic<std::uint64_t>& counted_;
  unsigned threads_ = 1;
  std::string root_;
  std::unordered_map<std::string, Gate> gates_;
  std::set<unsigned> gateDepths_;
  unsigned maxGateDepth_ = 0;

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Task*> queue_;
  std::atomic<unsigned> queued_{0};
  unsigned active_ = 0;
  std::vector<std::unique_ptr<Task>> tasks_;
};

CensusWalk::CensusWalk(Options options) : options_(std::move(options)) {}

int CensusWalk::run(const std::string& root, std::uint32_t cutoff, std::vector<Tally>& out) {
  counted_.store(0, std::memory_order_relaxed);
  Run walk(options_, cutoff, counted_);
  return walk.walk(root, out);
}

std::string CensusWalk::extensionOf(const char* name, std::size_t len) {
  return textOf(keyOf(name, len));
}

std::uint32_t CensusWalk::sizeKbOf(std::uint64_t blocks512) {
  return static_cast<std::uint32_t>(blocks512 * 512) >> 10;
}
