#include "session/session.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <utility>

#include "core/vllog.h"

using namespace varlo;

Session::Session(int socket, unsigned workerId, CPrefs& prefs)
    : socket_(socket), workerId_(workerId), prefs_(prefs) {
  // The dialogues go step by step, each small record awaited by the other
  // side: held back for coalescing, two acknowledgements in a row would
  // wait for the console's delayed ACK. (Not a TCP socket in tests: ignored.)
  const int on = 1;
  if (socket_.valid()) ::setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

Session::~Session() = default;

std::string Session::who() const { return "Worker Thread: " + std::to_string(workerId_); }

void Session::log(const std::string& line) const {
  if (!stopRequested()) Log->LogMessage(line);
}

void Session::requestStop() {
  if (!stop_.request_stop()) return;
  // Wakes a transfer blocked on a slow or silent console; the descriptor
  // stays ours until close().
  if (socket_.valid()) ::shutdown(socket_.get(), SHUT_RDWR);
}

bool Session::waitFor(std::chrono::milliseconds duration) {
  std::condition_variable_any wake;
  std::unique_lock<std::mutex> lock(mutex_);
  // Nothing but a stop request (or the time) ends the wait.
  wake.wait_for(lock, stop_.get_token(), duration, [] { return false; });
  return !stop_.stop_requested();
}

void Session::finish() {
  if (socket_.valid()) ::shutdown(socket_.get(), SHUT_RDWR);
}

void Session::close() {
  if (!socket_.valid()) return;
  ::shutdown(socket_.get(), SHUT_RDWR);
  std::stringstream line;
  if (::close(socket_.release()) == 0) {
    line << who() << " successfully closed socket.";
  } else {
    line << who() << " could not close socket. Error: " << errno;
  }
  Log->LogMessage(line);
}

void Session::addChild(pid_t pid) {
  std::lock_guard<std::mutex> lock(mutex_);
  children_.push_back(pid);
}

std::vector<pid_t> Session::takeChildren() {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::exchange(children_, {});
}

int Session::SendData(const void* data, int len) {
  if (!socket_.valid()) return -1;
  if (len <= 0) return 0;
  const auto* bytes = static_cast<const char*>(data);
  int sent = 0;
  while (sent < len) {
    if (stopRequested()) return -1;
    const ssize_t n = ::send(socket_.get(), bytes + sent, static_cast<std::size_t>(len - sent),
                             MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      std::stringstream line;
      line << who() << " failed to send data.  Error: " << errno;
      log(line.str());
      return -1;
    }
    sent += static_cast<int>(n);
  }
  return 0;
}

int Session::ReceiveData(void* out, int len) {
  if (len <= 0) return -1;
  if (!socket_.valid()) return -2;
  // Staged, so that a record cut short leaves the caller's bytes as they
  // were; the pieces of a file arrive 3 KiB at a time, so no allocation then.
  char small[4096];
  std::vector<char> large;
  char* staging = small;
  if (static_cast<std::size_t>(len) > sizeof small) {
    large.resize(static_cast<std::size_t>(len));
    staging = large.data();
  }
  int received = 0;
  while (received < len) {
    if (stopRequested()) return -2;
    // What has arrived is taken at once; only an empty socket is waited on.
    const ssize_t n = ::recv(socket_.get(), staging + received,
                             static_cast<std::size_t>(len - received), MSG_DONTWAIT);
    if (n > 0) {
      received += static_cast<int>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
      log("Error checking for received data. Error: " + std::to_string(errno));
      return -2;
    }
    int ready = 0;
    if (n < 0) {
      pollfd pfd{socket_.get(), POLLIN, 0};
      do {
        ready = ::poll(&pfd, 1, 1000);
      } while (ready < 0 && errno == EINTR);
      if (stopRequested()) return -2;
    }
    // A closed peer (n == 0), or a second of silence.
    if (ready <= 0) {
      log("Worker " + std::to_string(workerId_) + " did not receive data in a timely manner");
      return -2;
    }
  }
  std::memcpy(out, staging, static_cast<std::size_t>(len));
  return 0;
}

void Session::sendGoodACK() { SendData(varlo_manage::acknowledgement(true)); }

void Session::sendBadACK(const std::string& message) {
  SendData(varlo_manage::acknowledgement(false, message));
}

void Session::sendBadPassword(const varlo_cmd_header& header, std::size_t size) {
  if (size == 0) return;
  std::vector<std::uint8_t> record(size, 0);
  WireRecord<ReplyPrefix::kSize> prefix{};
  ReplyPrefix{header.command, false, true, ReplyPrefix::kPasswordRejected}.encodeInto(prefix);
  std::memcpy(record.data(), prefix.data(), prefix.size());
  SendData(record.data(), static_cast<int>(record.size()));
}

int Session::receiveFileData(std::ostream& out) {
  return receiveFileData([&out](const char* data, std::size_t len) {
    out.write(data, static_cast<std::streamsize>(len));
    return static_cast<bool>(out);
  });
}

int Session::receiveFileData(const std::function<bool(const char*, std::size_t)>& write) {
  constexpr std::uint32_t kPiece = 3072;
  std::vector<char> piece(kPiece);
  std::uint64_t total = 0;
  for (;;) {
    varlo_cmd_header::Bytes chunk{};
    if (ReceiveData(chunk) != 0 || chunk[2] == 0) return -1;
    const bool lastChunk = chunk[3] != 0;
    WireRecord<4> lengthBytes{};
    if (ReceiveData(lengthBytes) != 0) {
      sendBadACK("Failed to receive data.");
      return -1;
    }
    const std::uint32_t length = getU32(lengthBytes.data());
    for (std::uint32_t remaining = length; remaining > 0;) {
      const std::uint32_t n = remaining < kPiece ? remaining : kPiece;
      if (ReceiveData(piece.data(), static_cast<int>(n)) != 0 || !write(piece.data(), n)) {
        sendBadACK("Failed to receive data.");
        return -1;
      }
      remaining -= n;
    }
    total += length;
    sendGoodACK();
    if (lastChunk) break;
  }
  sendGoodACK();
  char line[64];
  std::snprintf(line, sizeof line, "Received: %d bytes total", static_cast<int>(total));
  log(line);
  return 0;
}

RecordSink Session::sink() {
  return [this](const std::uint8_t* data, std::size_t len) {
    return SendData(data, static_cast<int>(len));
  };
}
