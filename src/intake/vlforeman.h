// Gives each accepted connection a worker on a thread of its own, and reaps
// finished workers and the processes they started. It is a worker itself,
// for the list of children it inherits from reaped workers.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <list>
#include <memory>

#include "base/thread.h"
#include "intake/vlsemaphore.h"
#include "session/vlworker.h"

class VLBuffer;

class VLForeman : public VLWorker {
 public:
  explicit VLForeman(VLBuffer& buffer, CommandTable table = commandTable());
  ~VLForeman() override;

  // The foreman thread's body; returns after exit().
  void run();
  void checkWorkers();
  // Collects the processes every worker started and reaps those that have
  // ended; runs at each wake-up and once a second, so no child stays a
  // zombie for long.
  void reapChildren();
  // From the main thread: stop after the current wake-up.
  void exit();

 private:
  struct Hand {
    std::unique_ptr<VLWorker> worker;
    Thread thread;
  };
  void hire();

  VLBuffer& buffer_;
  std::atomic<bool> quit_{false};
  Semaphore sem_;
  std::list<Hand> crew_;  // in creation order
};
