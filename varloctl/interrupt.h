// Ctrl-C as a request to stop. main's SIGINT handler raises the flag (it
// installs the handler without SA_RESTART, so a wait in poll() returns at
// once with EINTR); every wait of the tool looks at it and ends the command
// with the interrupted CtlError, so the connection is closed cleanly instead
// of the process dying in the middle of a reply.
#pragma once

#include <atomic>

namespace varloctl {

class Interrupt {
 public:
  // Safe in a signal handler: one lock-free store.
  static void raise() noexcept { flag_.store(true, std::memory_order_relaxed); }
  static bool raised() noexcept { return flag_.load(std::memory_order_relaxed); }
  static void clear() noexcept { flag_.store(false, std::memory_order_relaxed); }

  // Throws the interrupted CtlError when the flag is up.
  static void check();

  // The longest a wait sleeps between looks at the flag: a signal that lands
  // between the look and poll() does not interrupt poll().
  static constexpr int kSliceMs = 200;

 private:
  static_assert(std::atomic<bool>::is_always_lock_free);
  static inline std::atomic<bool> flag_{false};
};

}  // namespace varloctl
