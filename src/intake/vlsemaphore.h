// A counting semaphore: semUp adds one and wakes a waiter; semDown waits
// while the count is below one, then takes one.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

class Semaphore {
 public:
  explicit Semaphore(long initial = 0) : count_(initial) {}
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  void semUp();
  void semDown();
  // semDown that gives up after the timeout; true when a unit was taken.
  bool semDownFor(std::chrono::milliseconds timeout);

 private:
  std::mutex mutex_;
  std::condition_variable gate_;
  long count_;
};
