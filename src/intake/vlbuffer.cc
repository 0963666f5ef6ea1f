#include "intake/vlbuffer.h"

#include <algorithm>

#include "intake/vlsemaphore.h"

VLBuffer sharedBuffer;

int VLBuffer::push(int socket, const sockaddr_in& peer, const char* data, int length) {
  connInfo info;
  info.socket = socket;
  info.peer = peer;
  if (length >= 1 && data != nullptr) info.data.assign(data, data + length);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.push_back(std::move(info));
  }
  notify();  // outside the queue lock: no lock is held while another is taken
  return 0;
}

bool VLBuffer::pop(connInfo& out) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (queue_.empty()) return false;
  out = std::move(queue_.front());
  queue_.pop_front();
  return true;
}

bool VLBuffer::empty() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return queue_.empty();
}

std::size_t VLBuffer::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return queue_.size();
}

int VLBuffer::registerCallback(Semaphore* sem) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (std::find(callbacks_.begin(), callbacks_.end(), sem) != callbacks_.end()) return -1;
  callbacks_.push_back(sem);
  return 0;
}

int VLBuffer::unregisterCallback(Semaphore* sem) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = std::find(callbacks_.begin(), callbacks_.end(), sem);
  if (it == callbacks_.end()) return -1;
  callbacks_.erase(it);
  return 0;
}

void VLBuffer::notify() {
  std::vector<Semaphore*> targets;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    targets = callbacks_;
  }
  for (Semaphore* sem : targets) sem->semUp();
}
