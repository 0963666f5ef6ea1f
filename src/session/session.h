// One console connection as the worker serving it sees it: the socket and
// the byte-moving primitives every command handler uses, the preferences
// the handlers read and change, and the stop request shutdown raises.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <ostream>
#include <stop_token>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "session/record_sink.h"
#include "varlo/coding.h"
#include "varlo/records.h"

class CPrefs;

class Session {
 public:
  // Owns socket; a negative one makes a session without a connection, on
  // which every transfer fails.
  Session(int socket, unsigned workerId, CPrefs& prefs);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Writes every byte (0), or logs and returns -1. Nothing without a socket.
  int SendData(const void* data, int len);
  template <std::size_t N>
  int SendData(const varlo::WireRecord<N>& r) {
    return SendData(r.data(), static_cast<int>(N));
  }
  // Reads exactly len bytes, waiting at most a second for each piece:
  // 0, -1 for len 0, -2 on a time-out, a closed peer or an error (logged).
  int ReceiveData(void* out, int len);
  template <std::size_t N>
  int ReceiveData(varlo::WireRecord<N>& r) {
    return ReceiveData(r.data(), static_cast<int>(N));
  }

  void sendGoodACK();
  void sendBadACK(const std::string& message);
  // The refusal of a command whose password did not validate, shaped as
  // the record the console expects for that command; size 0 sends nothing.
  void sendBadPassword(const varlo::varlo_cmd_header& header, std::size_t size);
  // One file's bytes in acknowledged chunks; 0 or -1.
  int receiveFileData(std::ostream& out);
  // The same into write, which says whether the bytes were kept; when it
  // cannot (a full disk) the console is told "Failed to receive data.".
  int receiveFileData(const std::function<bool(const char* data, std::size_t len)>& write);

  // The session as a destination for a reply's records.
  RecordSink sink();

  bool connected() const { return socket_.valid(); }
  int socket() const { return socket_.get(); }
  unsigned workerId() const { return workerId_; }
  std::string who() const;  // "Worker Thread: N"
  CPrefs& prefs() { return prefs_; }

  // Logs the line unless the session has been told to stop: a stopped
  // worker writes nothing more.
  void log(const std::string& line) const;

  // From any thread: every transfer under way or to come fails at once and
  // silently, and waits end. Long handlers also check stopRequested().
  void requestStop();
  bool stopRequested() const { return stop_.stop_requested(); }
  std::stop_token stopToken() const { return stop_.get_token(); }
  // Sleeps for the duration; false when a stop cut it short.
  bool waitFor(std::chrono::milliseconds duration);

  // Tells the console at once that the session is over; the socket itself
  // stays open until close().
  void finish();
  // Shuts the connection down and closes it, logging the outcome.
  void close();

  // Processes a handler started, for the foreman to reap.
  void addChild(pid_t pid);
  std::vector<pid_t> takeChildren();

 private:
  UniqueFd socket_;
  unsigned workerId_;
  CPrefs& prefs_;
  std::stop_source stop_;
  std::mutex mutex_;  // children_ and the stop wait
  std::vector<pid_t> children_;
};
