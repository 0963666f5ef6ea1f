// Threads on small stacks: the agent starts one per connection, so a burst
// of a thousand connections should cost memory in proportion, not a
// thousand default 8 MiB reservations.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>

class Thread {
 public:
  static constexpr std::size_t kDefaultStack = 256 * 1024;

  Thread() = default;
  // Starts body at once; throws std::system_error when no thread can be made.
  explicit Thread(std::function<void()> body, std::size_t stackSize = kDefaultStack);
  // Joins a thread still running: none is ever left behind unowned.
  ~Thread();
  Thread(Thread&& other) noexcept;
  Thread& operator=(Thread&& other) noexcept;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  bool joinable() const { return joinable_; }
  // 0, or pthread_join's error.
  int join();

  // Runs body on a detached thread of its own, for work nobody may wait for
  // (a call that can block for ever). False when no thread could be made.
  static bool detach(std::function<void()> body, std::size_t stackSize = kDefaultStack);

 private:
  static pthread_t start(std::function<void()> body, std::size_t stackSize, bool detached,
                         int& error);

  pthread_t id_{};
  bool joinable_ = false;
};
