// Gives each accepted connection a worker on a thread of its own, and reaps
// finished workers and the processes they started.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <list>
#include <memory>
#include <thread>
#include <vector>

#include "vlsemaphore.h"

class VLBuffer;
class VLWorker;

class VLForeman {
 public:
  explicit VLForeman(VLBuffer& buffer);
  ~VLForeman();
  VLForeman(const VLForeman&) = delete;
  VLForeman& operator=(const VLForeman&) = delete;

  // The foreman thread's body; returns after exit().
  void run();
  void checkWorkers();
  // From the main thread: stop after the current wake-up.
  void exit();

 private:
  struct Hand {
    std::unique_ptr<VLWorker> worker;
    std::thread thread;
  };
  void hire();

  VLBuffer& buffer_;
  std::atomic<bool> quit_{false};
  Semaphore sem_;
  std::list<Hand> crew_;   // in creation order
  std::vector<pid_t> pids_;  // children of reaped workers not yet collected
};
