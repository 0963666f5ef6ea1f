#include "intake/heartbeat.h"

#include <sys/socket.h>

#include <cassert>
#include <chrono>
#include <system_error>

CHeartBeat::~CHeartBeat() {
  stopHeartbeat();
}

void CHeartBeat::startHeartbeat(const std::uint8_t* data, std::size_t dataLen, Refresh refresh) {
  assert(data != nullptr && "data != 0");
  assert(dataLen != 0 && "dataLen != 0");
  if (thread_.joinable()) return;
  block_.assign(data, data + dataLen);
  refresh_ = std::move(refresh);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    exitFlag_ = false;
  }
  try {
    thread_ = std::thread(&CHeartBeat::run, this);
  } catch (const std::system_error&) {
    // No beat: the worker still answers, only without keep-alives.
  }
}

int CHeartBeat::stopHeartbeat() {
  if (!thread_.joinable()) return 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    exitFlag_ = true;
  }
  wake_.notify_all();
  thread_.join();
  return 0;
}

int CHeartBeat::getExitStatus() {
  std::lock_guard<std::mutex> lock(mutex_);
  return exitFlag_ ? 1 : 0;
}

void CHeartBeat::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  // The first block goes out before the flag is looked at, so even a stop
  // right after the start lets one through.
  do {
    lock.unlock();
    if (refresh_) refresh_(block_.data());
    // A peer that has gone makes this fail; the rhythm goes on until stopped.
    [[maybe_unused]] ssize_t n = send(socket_, block_.data(), block_.size(), MSG_NOSIGNAL);
    lock.lock();
    wake_.wait_for(lock, std::chrono::seconds(1), [this] { return exitFlag_; });
  } while (!exitFlag_);
}
