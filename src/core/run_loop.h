// The main thread's wait: a self-pipe that signal handlers write to, polled
// together with the login listener's descriptor.
#pragma once

class LoginListener;

class RunLoop {
 public:
  enum Event : char { kQuit = 'Q', kBrokenPipe = 'P' };

  // Makes the pipe; call before installing the signal handlers. False when
  // the pipe cannot be made.
  static bool prepare();

  // Async-signal-safe: queues one event byte for the main thread.
  static void post(Event event);

  // Blocks until a quit event arrives, serving the listener (may be null)
  // meanwhile. Logs the signal lines on the main thread, where it is safe.
  static void run(LoginListener* listener);
};
