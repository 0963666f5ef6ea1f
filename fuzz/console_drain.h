// The console's reading side of the fuzzed sessions: one thread for the whole
// fuzzing run (a thread a run costs more than the run), handed each
// connection in turn and reading it to its end while the agent writes, so
// that many replies never fill the socket.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace fuzz_support {

using Bytes = std::vector<std::uint8_t>;

inline Bytes readAll(int fd) {
  Bytes out;
  std::uint8_t buf[8192];
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return out;
    out.insert(out.end(), buf, buf + n);
  }
}

class ConsoleDrain {
 public:
  static ConsoleDrain& instance() {
    static ConsoleDrain* drain = new ConsoleDrain;  // its thread runs until exit
    return *drain;
  }

  void start(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    fd_ = fd;
    done_ = false;
    wake_.notify_all();
  }

  Bytes wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [this] { return done_; });
    return std::move(out_);
  }

 private:
  ConsoleDrain() { std::thread([this] { loop(); }).detach(); }

  void loop() {
    for (;;) {
      int fd;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return fd_ >= 0; });
        fd = std::exchange(fd_, -1);
      }
      Bytes out = readAll(fd);
      std::lock_guard<std::mutex> lock(mutex_);
      out_ = std::move(out);
      done_ = true;
      wake_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  int fd_ = -1;
  bool done_ = false;
  Bytes out_;
};

}  // namespace fuzz_support
