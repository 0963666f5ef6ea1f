// The keep-alive of a list command whose collector is slow: the list's
// empty first header (count 0, last 0), sent once a second on the session
// socket until the collector is done.
#pragma once

#include <cstdint>

#include "intake/heartbeat.h"

class ListHeartbeat {
 public:
  // A negative socket: no heartbeat.
  ListHeartbeat(int socket, std::uint16_t command);
  ~ListHeartbeat() { stop(); }
  ListHeartbeat(const ListHeartbeat&) = delete;
  ListHeartbeat& operator=(const ListHeartbeat&) = delete;

  // Returns once the beat can no longer write; the list may then go out.
  void stop() { beat_.stopHeartbeat(); }

 private:
  CHeartBeat beat_;
};
