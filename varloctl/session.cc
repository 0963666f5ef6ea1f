#include "varloctl/session.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

#include <cstring>
#include <utility>

#include "varloctl/ctl_error.h"
#include "varloctl/interrupt.h"
#include "varloctl/wire_text.h"

namespace varloctl {
namespace {

std::string errnoText(int err) { return std::strerror(err); }

bool peerGone(int err) { return err == EPIPE || err == ECONNRESET; }

}  // namespace

Session::Session(UniqueFd fd, std::string peerName, int timeoutMs)
    : fd_(std::move(fd)), peer_(std::move(peerName)), timeoutMs_(timeoutMs) {
  if (fd_.valid()) ::fcntl(fd_.get(), F_SETFL, ::fcntl(fd_.get(), F_GETFL) | O_NONBLOCK);
}

Session Session::connect(std::uint32_t addr, std::uint16_t port, int timeoutMs) {
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(port);
  sa.sin_addr.s_addr = htonl(addr);
  char name[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &sa.sin_addr, name, sizeof name);
  return open({sa}, name, timeoutMs);
}

std::vector<std::uint8_t> Session::receiveSome(std::size_t len, int waitMs) {
  std::vector<std::uint8_t> out;
  while (out.size() < len) {
    pollfd p{fd_.get(), POLLIN, 0};
    if (::poll(&p, 1, waitMs) <= 0) break;
    std::uint8_t buf[4096];
    const ssize_t n = ::recv(fd_.get(), buf, std::min(sizeof buf, len - out.size()), 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) break;
    out.insert(out.end(), buf, buf + n);
  }
  return out;
}

bool Session::closedByPeer(int waitMs) {
  pollfd p{fd_.get(), POLLIN, 0};
  if (::poll(&p, 1, waitMs) <= 0) return false;
  char c;
  return ::recv(fd_.get(), &c, 1, 0) == 0;
}

Session Session::open(const std::vector<sockaddr_in>& addresses, const std::string& peerName,
                      int timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  int lastError = EHOSTUNREACH;
  for (const sockaddr_in& addr : addresses) {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd.valid()) throw CtlError(kUnreachable, "cannot create a socket: " + errnoText(errno));
    Session s(std::move(fd), peerName, timeoutMs);
    if (::connect(s.fd_.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0)
      return s;
    if (errno != EINPROGRESS && errno != EINTR) {  // EINTR: it goes on in the background
      lastError = errno;
      continue;
    }
    if (!s.wait(POLLOUT, deadline))
      throw CtlError(kTimeout,
                     "could not connect to " + peerName + " within " + secondsText(timeoutMs));
    int err = 0;
    socklen_t len = sizeof err;
    if (::getsockopt(s.fd_.get(), SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
    if (err == 0) return s;
    lastError = err;
  }
  if (lastError == ECONNREFUSED)
    throw CtlError(kUnreachable, "connection refused by " + peerName + " (is the agent running?)");
  throw CtlError(kUnreachable, "cannot connect to " + peerName + ": " + errnoText(lastError));
}

void Session::stopIfInterrupted() const {
  if (!Interrupt::raised()) return;
  ::shutdown(fd_.get(), SHUT_RDWR);
  Interrupt::check();
}

bool Session::wait(short events, Clock::time_point deadline) const {
  for (;;) {
    stopIfInterrupted();
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd p{fd_.get(), events, 0};
    const int n =
        ::poll(&p, 1, static_cast<int>(std::min<std::int64_t>(left, Interrupt::kSliceMs)));
    if (n > 0) return true;  // errors and hang-ups show in the call that follows
    if (n < 0 && errno != EINTR)
      throw CtlError(kFailed, "waiting for " + peer_ + " failed: " + errnoText(errno));
  }
}

void Session::timedOut(const char* what) const {
  throw CtlError(kTimeout,
                 std::string(what) + " " + peer_ + " timed out after " + secondsText(timeoutMs_));
}

void Session::send(const std::uint8_t* data, std::size_t len) {
  stopIfInterrupted();
  if (sendFailed_) return;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs_);
  std::size_t sent = 0;
  while (sent < len) {
    const ssize_t n = ::send(fd_.get(), data + sent, len - sent, MSG_NOSIGNAL);
    if (n >= 0) {
      sent += static_cast<std::size_t>(n);
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (!wait(POLLOUT, deadline)) timedOut("sending to");
      continue;
    }
    if (peerGone(errno)) {
      sendFailed_ = true;
      return;
    }
    throw CtlError(kClosed, "sending to " + peer_ + " failed: " + errnoText(errno));
  }
}

void Session::receive(std::uint8_t* data, std::size_t len) {
  // Also here: an agent that never pauses would keep the waits from running.
  stopIfInterrupted();
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs_);
  std::size_t got = 0;
  while (got < len) {
    const ssize_t n = ::recv(fd_.get(), data + got, len - got, 0);
    if (n > 0) {
      got += static_cast<std::size_t>(n);
      receivedAny_ = true;
      continue;
    }
    if (n == 0 || peerGone(errno)) {
      if (got != 0)
        throw CtlError(kClosed, "the agent closed the connection in the middle of a reply");
      if (receivedAny_)
        throw CtlError(kClosed, "the agent closed the connection before the end of its answer");
      throw CtlError(kClosed, "the agent refused the command or closed the connection");
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (!wait(POLLIN, deadline)) timedOut("waiting for a reply from");
      continue;
    }
    throw CtlError(kClosed, "receiving from " + peer_ + " failed: " + errnoText(errno));
  }
}

}  // namespace varloctl
