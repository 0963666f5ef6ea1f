#include "intake/vlsemaphore.h"

void Semaphore::semUp() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
  }
  gate_.notify_one();
}

void Semaphore::semDown() {
  std::unique_lock<std::mutex> lock(mutex_);
  gate_.wait(lock, [this] { return count_ >= 1; });
  --count_;
}

bool Semaphore::semDownFor(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!gate_.wait_for(lock, timeout, [this] { return count_ >= 1; })) return false;
  --count_;
  return true;
}
