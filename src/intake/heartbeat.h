// Keeps a slow command's session alive: a second thread sends the same small
// block on the socket once a second until the worker stops it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

class CHeartBeat {
 public:
  explicit CHeartBeat(int socket) : socket_(socket) {}
  ~CHeartBeat();
  CHeartBeat(const CHeartBeat&) = delete;
  CHeartBeat& operator=(const CHeartBeat&) = delete;

  // Brings the copy up to date before each send (a census's files counted so
  // far); it runs on the heartbeat's thread.
  using Refresh = std::function<void(std::uint8_t* block)>;

  // The block is always copied, so the caller's buffer may go at once.
  void startHeartbeat(const std::uint8_t* data, std::size_t dataLen, Refresh refresh = {});
  // Returns once the thread has sent its last block; at once when none runs.
  int stopHeartbeat();
  int getExitStatus();

 private:
  void run();

  int socket_;  // not owned
  std::vector<std::uint8_t> block_;
  Refresh refresh_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool exitFlag_ = false;
  std::thread thread_;
};
