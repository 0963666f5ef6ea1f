// Load generator for the agent on loopback, and the trivial echo peer it is
// measured against: the same client code, the same machine, the same run.
//
//   varlo_bench echo-server PORT          UDP and TCP echo on PORT
//   varlo_bench probe HOST PORT N         N probe round trips, one at a time
//   varlo_bench sessions HOST PORT C SECS [CODE]
//                                         C clients in a loop of sessions
//   varlo_bench run N CMD [ARGS...]       runs a command N times, output dropped
//
// A session is one command: IP Address (28, the default) or Processes (3),
// a header then list batches until the last; or Configuration (1), one
// record. Against the echo peer it is a 12-byte header echoed back.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <thread>
#include <vector>

#include "prefs/des_cipher.h"
#include "base/unique_fd.h"
#include "varlo/config_record.h"
#include "varlo/net_records.h"
#include "varlo/process_records.h"
#include "varlo/probe.h"
#include "varlo/records.h"

namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in addressOf(const char* host, int port) {
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, host, &sa.sin_addr);
  return sa;
}

bool readExactly(int fd, std::uint8_t* out, std::size_t n) {
  std::size_t got = 0;
  while (got < n) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 5000) <= 0) return false;
    const ssize_t r = recv(fd, out + got, n - got, 0);
    if (r <= 0) return false;
    got += static_cast<std::size_t>(r);
  }
  return true;
}

void report(const char* what, std::vector<double>& micros, double seconds) {
  std::sort(micros.begin(), micros.end());
  auto pct = [&](double p) {
    return micros.empty() ? 0.0 : micros[static_cast<std::size_t>(p * (micros.size() - 1))];
  };
  std::printf("%s: %zu in %.2f s = %.0f/s  p50 %.1f us  p99 %.1f us\n", what, micros.size(),
              seconds, micros.size() / seconds, pct(0.50), pct(0.99));
}

int echoServer(int port) {
  const sockaddr_in sa = addressOf("0.0.0.0", port);
  UniqueFd udp(socket(AF_INET, SOCK_DGRAM, 0));
  UniqueFd tcp(socket(AF_INET, SOCK_STREAM, 0));
  const int on = 1;
  setsockopt(tcp.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(udp.get(), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) != 0 ||
      bind(tcp.get(), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) != 0 ||
      listen(tcp.get(), 5) != 0) {
    std::perror("echo-server");
    return 1;
  }
  // One thread per connection, as the agent does, so that the comparison is
  // of the work done and not of the threading model.
  std::thread([fd = udp.get()] {
    std::uint8_t buf[2048];
    for (;;) {
      sockaddr_in from{};
      socklen_t len = sizeof from;
      const ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
      if (n > 0) sendto(fd, buf, static_cast<std::size_t>(n), 0, reinterpret_cast<sockaddr*>(&from), len);
    }
  }).detach();
  for (;;) {
    const int c = accept(tcp.get(), nullptr, nullptr);
    if (c < 0) continue;
    std::thread([c] {
      std::uint8_t buf[varlo::varlo_cmd_header::kSize];
      if (readExactly(c, buf, sizeof buf)) send(c, buf, sizeof buf, MSG_NOSIGNAL);
      shutdown(c, SHUT_RDWR);
      close(c);
    }).detach();
  }
}

int probe(const char* host, int port, int count) {
  UniqueFd fd(socket(AF_INET, SOCK_DGRAM, 0));
  const sockaddr_in sa = addressOf(host, port);
  std::vector<std::uint8_t> datagram(varlo::varlo_probe_reply::kSize, 0), reply(2048);
  std::vector<double> micros;
  int lost = 0;
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    const auto t0 = Clock::now();
    sendto(fd.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&sa), sizeof sa);
    pollfd p{fd.get(), POLLIN, 0};
    if (poll(&p, 1, 1000) <= 0 || recv(fd.get(), reply.data(), reply.size(), 0) != 470) {
      ++lost;
      continue;
    }
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  report("probe round trips", micros, std::chrono::duration<double>(Clock::now() - start).count());
  if (lost) std::printf("  %d probes unanswered\n", lost);
  return 0;
}

// Size of one list entry of the command, or 0 for a single-record reply.
std::size_t entrySize(std::uint16_t code) {
  return code == 3 ? varlo::varlo_proc::kSize : code == 1 ? 0 : varlo::varlo_ipaddr::kSize;
}

// One session; false when it did not complete.
bool session(const sockaddr_in& sa, const varlo::varlo_cmd_header::Bytes& header,
             std::uint16_t code) {
  UniqueFd fd(socket(AF_INET, SOCK_STREAM, 0));
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&sa), sizeof sa) != 0) return false;
  if (send(fd.get(), header.data(), header.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(header.size()))
    return false;
  varlo::varlo_list_header::Bytes head{};
  // The echo peer returns the 12 header bytes; the agent its list batches.
  if (!readExactly(fd.get(), head.data(), header.size())) return false;
  if (std::memcmp(head.data(), header.data(), header.size()) == 0) return true;
  if (entrySize(code) == 0) {
    std::vector<std::uint8_t> rest(varlo::varlo_config::kSize - header.size());
    return readExactly(fd.get(), rest.data(), rest.size());
  }
  if (!readExactly(fd.get(), head.data() + header.size(), head.size() - header.size())) return false;
  for (;;) {
    const auto h = varlo::varlo_list_header::decode(head);
    std::vector<std::uint8_t> body(h.count * entrySize(code));
    if (!body.empty() && !readExactly(fd.get(), body.data(), body.size())) return false;
    if (h.prefix.last) return true;
    if (!readExactly(fd.get(), head.data(), head.size())) return false;
  }
}

int sessions(const char* host, int port, int clients, double seconds, std::uint16_t code) {
  const sockaddr_in sa = addressOf(host, port);
  varlo::varlo_cmd_header h;
  h.command = code;
  DesCipher::Block empty{};
  DesCipher::instance().encrypt(empty.data(), h.passwordBlock.data(), 8);
  const auto header = h.encode();

  std::vector<std::vector<double>> perClient(static_cast<std::size_t>(clients));
  std::atomic<int> failed{0};
  const auto start = Clock::now();
  const auto deadline = start + std::chrono::duration<double>(seconds);
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      while (Clock::now() < deadline) {
        const auto t0 = Clock::now();
        if (session(sa, header, code)) {
          perClient[static_cast<std::size_t>(c)].push_back(
              std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
        } else {
          ++failed;
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  std::vector<double> all;
  for (auto& v : perClient) all.insert(all.end(), v.begin(), v.end());
  char what[64];
  std::snprintf(what, sizeof what, "command %u sessions, %d client%s", code, clients,
                clients == 1 ? "" : "s");
  report(what, all, std::chrono::duration<double>(Clock::now() - start).count());
  if (failed) std::printf("  %d sessions failed\n", failed.load());
  return 0;
}

int runCommand(int count, char** argv) {
  std::vector<double> micros;
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    const auto t0 = Clock::now();
    const pid_t child = fork();
    if (child == 0) {
      const int devnull = open("/dev/null", O_WRONLY);
      dup2(devnull, 1);
      execvp(argv[0], argv);
      _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      std::fprintf(stderr, "%s failed\n", argv[0]);
      return 1;
    }
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  report(argv[0], micros, std::chrono::duration<double>(Clock::now() - start).count());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "echo-server" && argc == 3) return echoServer(std::atoi(argv[2]));
  if (mode == "probe" && argc == 5) return probe(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
  if (mode == "sessions" && (argc == 6 || argc == 7))
    return sessions(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), std::atof(argv[5]),
                    static_cast<std::uint16_t>(argc == 7 ? std::atoi(argv[6]) : 28));
  if (mode == "run" && argc >= 4) return runCommand(std::atoi(argv[2]), argv + 3);
  std::fprintf(stderr,
               "usage: varlo_bench echo-server PORT | probe HOST PORT N | "
               "sessions HOST PORT CLIENTS SECONDS [CODE] | run N CMD [ARGS...]\n");
  return 2;
}
