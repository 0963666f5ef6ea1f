// First-in, first-out hand-over of accepted connections from the network
// thread to the foreman. Readers register a semaphore, raised once per push.
#pragma once

#include <netinet/in.h>

#include <deque>
#include <mutex>
#include <vector>

class Semaphore;

class VLBuffer {
 public:
  struct connInfo {
    int socket = -1;
    sockaddr_in peer{};
    std::vector<char> data;  // bytes already read for the connection, if any
  };

  VLBuffer() = default;
  VLBuffer(const VLBuffer&) = delete;
  VLBuffer& operator=(const VLBuffer&) = delete;

  // Queues the connection (data is copied only when length >= 1) and raises
  // every registered semaphore once. Returns 0.
  int push(int socket, const sockaddr_in& peer, const char* data, int length);
  // Takes the oldest connection; false when there is none.
  bool pop(connInfo& out);
  bool empty() const;
  std::size_t size() const;

  // 0, or -1 when already registered / not registered.
  int registerCallback(Semaphore* sem);
  int unregisterCallback(Semaphore* sem);
  void notify();

 private:
  mutable std::mutex mutex_;
  std::deque<connInfo> queue_;
  std::vector<Semaphore*> callbacks_;  // not owned
};

// The one buffer between the network thread and the foreman.
extern VLBuffer sharedBuffer;
