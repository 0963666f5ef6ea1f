// Load generator for the agent on loopback, and the peers it is measured
// against: the same client code, the same machine, the same run.
//
//   varlo_bench echo-server PORT          UDP and TCP echo on PORT
//   varlo_bench probe HOST PORT N         N probe round trips, one at a time
//   varlo_bench snmp-get HOST PORT N [COMMUNITY]
//                                         N SNMPv2c GETs of sysName.0, one at
//                                         a time (community "public" unless given)
//   varlo_bench snmp-walk HOST PORT N OID [COMMUNITY]
//                                         N SNMPv2c walks (GETNEXT) of the subtree
//                                         OID, each timed whole
//   varlo_bench sessions HOST PORT C SECS [CODE]
//                                         C clients in a loop of sessions
//   varlo_bench run N CMD [ARGS...]       runs a command N times, output dropped
//   varlo_bench software HOST PORT N CODE one software list at a time, N times:
//                                         Applications (6) or the file-extension
//                                         census (23); figures lines for the
//                                         first batch, the whole answer less the
//                                         agent's 10 ms pauses between batches,
//                                         and the whole answer
//
// A session is one command: IP Address (28, the default) or Processes (3),
// a header then list batches until the last; or Configuration (1), one
// record. Against the echo peer it is a 12-byte header echoed back.
//
// Every measurement ends with a line of its figures for scripts to read:
//   p50_us=... p99_us=... mean_us=... per_s=... n=...
// probe and snmp-get exit 1 when not one request was answered, snmp-walk when
// a walk fails.
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
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "prefs/password_block.h"
#include "varloctl/ctl_error.h"
#include "varloctl/session.h"
#include "varlo/config_record.h"
#include "varlo/net_records.h"
#include "varlo/process_records.h"
#include "varlo/probe.h"
#include "varlo/records.h"
#include "varlo/software_records.h"

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
  double sum = 0;
  for (const double m : micros) sum += m;
  const double mean = micros.empty() ? 0.0 : sum / micros.size();
  std::printf("%s: %zu in %.2f s = %.0f/s  p50 %.1f us  p99 %.1f us\n", what, micros.size(),
              seconds, micros.size() / seconds, pct(0.50), pct(0.99));
  std::printf("  p50_us=%.2f p99_us=%.2f mean_us=%.2f per_s=%.1f n=%zu\n", pct(0.50), pct(0.99),
              mean, micros.size() / seconds, micros.size());
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

// What a datagram received while waiting for the reply to request i is.
enum class Reply {
  kAnswer,  // the reply to request i
  kStale,   // a late reply to an earlier request, which had been given up on
  kWrong,   // anything else: request i is counted unanswered
};

// One kind of request/reply exchange over UDP.
struct Exchange {
  const char* what;  // names the report
  const char* noun;  // what goes unanswered, plural
  std::function<void(int i, std::vector<std::uint8_t>& datagram)> make;
  std::function<Reply(int i, const std::uint8_t* reply, std::size_t size)> check;
};

// Sends count requests one at a time, each given a second for its reply.
int roundTrips(const char* host, int port, int count, const Exchange& x) {
  UniqueFd fd(socket(AF_INET, SOCK_DGRAM, 0));
  const sockaddr_in sa = addressOf(host, port);
  std::vector<std::uint8_t> datagram, reply(2048);
  std::vector<double> micros;
  int lost = 0;
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    x.make(i, datagram);
    const auto t0 = Clock::now();
    const auto giveUp = t0 + std::chrono::seconds(1);
    sendto(fd.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&sa), sizeof sa);
    Reply verdict = Reply::kWrong;
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(giveUp - Clock::now());
      pollfd p{fd.get(), POLLIN, 0};
      if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
      const ssize_t n = recv(fd.get(), reply.data(), reply.size(), 0);
      verdict = n < 0 ? Reply::kWrong : x.check(i, reply.data(), static_cast<std::size_t>(n));
      if (verdict != Reply::kStale) break;
    }
    if (verdict != Reply::kAnswer) {
      ++lost;
      continue;
    }
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  report(x.what, micros, std::chrono::duration<double>(Clock::now() - start).count());
  if (lost) std::printf("  %d %s unanswered\n", lost, x.noun);
  return micros.empty() && count > 0 ? 1 : 0;
}

int probe(const char* host, int port, int count) {
  // A probe carries no sequence number: any reply of the right size is taken.
  return roundTrips(host, port, count,
                    {"probe round trips", "probes",
                     [](int, std::vector<std::uint8_t>& d) { d.assign(varlo::varlo_probe_reply::kSize, 0); },
                     [](int, const std::uint8_t*, std::size_t n) {
                       return n == varlo::varlo_probe_reply::kSize ? Reply::kAnswer : Reply::kWrong;
                     }});
}

// SNMPv2c GetRequest for sysName.0, BER by hand:
//   30 L  02 01 01  04 Lc community
//         A0 1C  02 04 <request-id>  02 01 00  02 01 00
//                30 0E  30 0C  06 08 2B 06 01 02 01 01 05 00  05 00
// Request ids start at 0x10000000 so that they always take exactly four
// bytes, as BER's shortest form of a positive INTEGER; the datagram then
// keeps one size and the id is patched in place.
constexpr std::uint32_t kFirstRequestId = 0x10000000;

std::vector<std::uint8_t> snmpGetSysName(const std::string& community) {
  const std::uint8_t pdu[] = {0xA0, 0x1C, 0x02, 0x04, 0, 0, 0, 0, 0x02, 0x01, 0x00, 0x02, 0x01, 0x00,
                              0x30, 0x0E, 0x30, 0x0C, 0x06, 0x08, 0x2B, 0x06, 0x01, 0x02, 0x01, 0x01,
                              0x05, 0x00, 0x05, 0x00};
  static_assert(sizeof pdu == 2 + 0x1C);
  const std::uint8_t head[] = {0x30, static_cast<std::uint8_t>(5 + community.size() + sizeof pdu),
                               0x02, 0x01, 0x01, 0x04, static_cast<std::uint8_t>(community.size())};
  std::vector<std::uint8_t> d(sizeof head + community.size() + sizeof pdu);
  std::memcpy(d.data(), head, sizeof head);
  std::memcpy(d.data() + sizeof head, community.data(), community.size());
  std::memcpy(d.data() + sizeof head + community.size(), pdu, sizeof pdu);
  return d;
}

// One BER element: its tag and where its contents lie.
struct Ber {
  std::uint8_t tag = 0;
  const std::uint8_t* body = nullptr;
  std::size_t size = 0;
};

// Reads the element at p (before end) and moves p past it; false when it
// does not fit. Tags of one byte and definite lengths, as SNMP uses.
bool nextBer(const std::uint8_t*& p, const std::uint8_t* end, Ber& out) {
  if (end - p < 2) return false;
  out.tag = *p++;
  std::size_t size = *p++;
  if (size & 0x80) {
    const std::size_t bytes = size & 0x7F;
    if (bytes == 0 || bytes > 4 || static_cast<std::size_t>(end - p) < bytes) return false;
    size = 0;
    for (std::size_t k = 0; k < bytes; ++k) size = size << 8 | *p++;
  }
  if (static_cast<std::size_t>(end - p) < size) return false;
  out.body = p;
  out.size = size;
  p += size;
  return true;
}

bool berInteger(const Ber& e, std::int64_t& value) {
  if (e.tag != 0x02 || e.size == 0 || e.size > 4) return false;
  value = static_cast<std::int8_t>(e.body[0]);
  for (std::size_t k = 1; k < e.size; ++k) value = value * 256 + e.body[k];
  return true;
}

// A GetResponse to request i, without error, whose one value is an OCTET
// STRING (not an exception such as noSuchObject).
Reply checkGetResponse(int i, const std::uint8_t* reply, std::size_t n) {
  const std::uint8_t* p = reply;
  Ber message, version, community, pdu;
  if (!nextBer(p, reply + n, message) || message.tag != 0x30) return Reply::kWrong;
  p = message.body;
  const std::uint8_t* end = message.body + message.size;
  std::int64_t v = 0;
  if (!nextBer(p, end, version) || !berInteger(version, v) || v != 1) return Reply::kWrong;
  if (!nextBer(p, end, community) || community.tag != 0x04) return Reply::kWrong;
  if (!nextBer(p, end, pdu) || pdu.tag != 0xA2) return Reply::kWrong;
  p = pdu.body;
  end = pdu.body + pdu.size;
  Ber id, status, index, list, bind, name, value;
  std::int64_t requestId = 0, errorStatus = 0;
  if (!nextBer(p, end, id) || !berInteger(id, requestId)) return Reply::kWrong;
  const std::int64_t expected = kFirstRequestId + static_cast<std::uint32_t>(i);
  if (requestId >= kFirstRequestId && requestId < expected) return Reply::kStale;
  if (requestId != expected) return Reply::kWrong;
  if (!nextBer(p, end, status) || !berInteger(status, errorStatus) || errorStatus != 0)
    return Reply::kWrong;
  if (!nextBer(p, end, index) || !nextBer(p, end, list) || list.tag != 0x30) return Reply::kWrong;
  p = list.body;
  if (!nextBer(p, list.body + list.size, bind) || bind.tag != 0x30) return Reply::kWrong;
  p = bind.body;
  end = bind.body + bind.size;
  if (!nextBer(p, end, name) || name.tag != 0x06 || !nextBer(p, end, value) || value.tag != 0x04)
    return Reply::kWrong;
  return Reply::kAnswer;
}

int snmpGet(const char* host, int port, int count, const std::string& community) {
  if (community.size() > 64) {
    std::fprintf(stderr, "snmp-get: community longer than 64 bytes\n");
    return 2;
  }
  const std::vector<std::uint8_t> request = snmpGetSysName(community);
  const std::size_t idAt = request.size() - 30 + 4;  // the PDU's last 30 bytes, after A0 1C 02 04
  return roundTrips(host, port, count,
                    {"snmp get round trips", "requests",
                     [&](int i, std::vector<std::uint8_t>& d) {
                       d = request;
                       const std::uint32_t id = kFirstRequestId + static_cast<std::uint32_t>(i);
                       for (int k = 0; k < 4; ++k) d[idAt + k] = static_cast<std::uint8_t>(id >> (24 - 8 * k));
                     },
                     checkGetResponse});
}

// BER's element: tag, definite length (short or long form), contents.
void putBer(std::vector<std::uint8_t>& out, std::uint8_t tag, const std::vector<std::uint8_t>& body) {
  out.push_back(tag);
  if (body.size() < 0x80) {
    out.push_back(static_cast<std::uint8_t>(body.size()));
  } else {
    int bytes = 0;
    for (std::size_t n = body.size(); n; n >>= 8) ++bytes;
    out.push_back(static_cast<std::uint8_t>(0x80 | bytes));
    for (int k = bytes - 1; k >= 0; --k) out.push_back(static_cast<std::uint8_t>(body.size() >> (8 * k)));
  }
  out.insert(out.end(), body.begin(), body.end());
}

using Oid = std::vector<std::uint32_t>;

// The contents of an OBJECT IDENTIFIER: the first two arcs in one, then each
// arc in base 128, high groups flagged.
std::vector<std::uint8_t> oidBody(const Oid& oid) {
  std::vector<std::uint8_t> out;
  auto arc = [&](std::uint32_t v) {
    std::uint8_t groups[5];
    int n = 0;
    do groups[n++] = v & 0x7F; while (v >>= 7);
    while (n > 1) out.push_back(static_cast<std::uint8_t>(groups[--n] | 0x80));
    out.push_back(groups[0]);
  };
  arc(oid[0] * 40 + oid[1]);
  for (std::size_t k = 2; k < oid.size(); ++k) arc(oid[k]);
  return out;
}

bool berOid(const Ber& e, Oid& oid) {
  if (e.tag != 0x06 || e.size == 0) return false;
  oid.clear();
  std::uint64_t v = 0;
  for (std::size_t k = 0; k < e.size; ++k) {
    v = v << 7 | (e.body[k] & 0x7F);
    if (v > 0xFFFFFFFFu) return false;
    if (e.body[k] & 0x80) continue;
    if (oid.empty()) {
      const std::uint32_t first = v < 80 ? static_cast<std::uint32_t>(v / 40) : 2;
      oid.push_back(first);
      oid.push_back(static_cast<std::uint32_t>(v - first * 40));
    } else {
      oid.push_back(static_cast<std::uint32_t>(v));
    }
    v = 0;
  }
  return (e.body[e.size - 1] & 0x80) == 0;
}

bool parseOid(const char* text, Oid& oid) {
  std::istringstream in(text[0] == '.' ? text + 1 : text);
  std::string arc;
  oid.clear();
  while (std::getline(in, arc, '.')) {
    if (arc.empty() || arc.find_first_not_of("0123456789") != std::string::npos) return false;
    oid.push_back(static_cast<std::uint32_t>(std::stoul(arc)));
  }
  return oid.size() >= 2 && oid[0] <= 2;
}

// SNMPv2c GetNextRequest for one OID. The request id takes four bytes, as
// for the GETs.
std::vector<std::uint8_t> snmpGetNext(const std::string& community, std::uint32_t requestId, const Oid& oid) {
  std::vector<std::uint8_t> bind, list, pdu, message;
  putBer(bind, 0x06, oidBody(oid));
  putBer(bind, 0x05, {});
  putBer(list, 0x30, bind);
  std::vector<std::uint8_t> fields = {0x02, 0x04};
  for (int k = 0; k < 4; ++k) fields.push_back(static_cast<std::uint8_t>(requestId >> (24 - 8 * k)));
  fields.insert(fields.end(), {0x02, 0x01, 0x00, 0x02, 0x01, 0x00});
  putBer(fields, 0x30, list);
  putBer(pdu, 0xA1, fields);
  std::vector<std::uint8_t> body = {0x02, 0x01, 0x01};
  putBer(body, 0x04, std::vector<std::uint8_t>(community.begin(), community.end()));
  body.insert(body.end(), pdu.begin(), pdu.end());
  putBer(message, 0x30, body);
  return message;
}

// A GetResponse to requestId without error: its one binding's name, and
// whether its value is endOfMibView.
Reply checkNextResponse(std::uint32_t requestId, const std::uint8_t* reply, std::size_t n, Oid& name,
                        bool& endOfView) {
  const std::uint8_t* p = reply;
  Ber message, version, community, pdu, id, status, index, list, bind, oid, value;
  std::int64_t v = 0;
  if (!nextBer(p, reply + n, message) || message.tag != 0x30) return Reply::kWrong;
  p = message.body;
  const std::uint8_t* end = message.body + message.size;
  if (!nextBer(p, end, version) || !berInteger(version, v) || v != 1) return Reply::kWrong;
  if (!nextBer(p, end, community) || community.tag != 0x04) return Reply::kWrong;
  if (!nextBer(p, end, pdu) || pdu.tag != 0xA2) return Reply::kWrong;
  p = pdu.body;
  end = pdu.body + pdu.size;
  if (!nextBer(p, end, id) || !berInteger(id, v)) return Reply::kWrong;
  if (v != requestId) return v >= kFirstRequestId && v < requestId ? Reply::kStale : Reply::kWrong;
  if (!nextBer(p, end, status) || !berInteger(status, v) || v != 0) return Reply::kWrong;
  if (!nextBer(p, end, index) || !nextBer(p, end, list) || list.tag != 0x30) return Reply::kWrong;
  p = list.body;
  if (!nextBer(p, list.body + list.size, bind) || bind.tag != 0x30) return Reply::kWrong;
  p = bind.body;
  end = bind.body + bind.size;
  if (!nextBer(p, end, oid) || !berOid(oid, name) || !nextBer(p, end, value)) return Reply::kWrong;
  endOfView = value.tag == 0x82;
  return Reply::kAnswer;
}

// One walk of the subtree root: GETNEXTs until the name leaves it or the
// agent's view ends. Each step is given five seconds, as a table may be
// rebuilt on the first. -1 when the walk fails, else the entries.
long snmpWalkOnce(int fd, const sockaddr_in& sa, const std::string& community, const Oid& root,
                  std::uint32_t& requestId) {
  std::vector<std::uint8_t> reply(65536);
  Oid at = root, name;
  for (long entries = 0;; ++entries) {
    const std::vector<std::uint8_t> request = snmpGetNext(community, ++requestId, at);
    sendto(fd, request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&sa), sizeof sa);
    Reply verdict = Reply::kStale;
    bool endOfView = false;
    while (verdict == Reply::kStale) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 5000) <= 0) return -1;
      const ssize_t n = recv(fd, reply.data(), reply.size(), 0);
      if (n < 0) return -1;
      verdict = checkNextResponse(requestId, reply.data(), static_cast<std::size_t>(n), name, endOfView);
    }
    if (verdict != Reply::kAnswer) return -1;
    if (endOfView || name.size() <= root.size() || !std::equal(root.begin(), root.end(), name.begin()))
      return entries;
    if (!std::lexicographical_compare(at.begin(), at.end(), name.begin(), name.end())) return -1;  // a loop
    at = name;
  }
}

int snmpWalk(const char* host, int port, int count, const char* oidText, const std::string& community) {
  Oid root;
  if (!parseOid(oidText, root)) {
    std::fprintf(stderr, "snmp-walk: bad OID %s\n", oidText);
    return 2;
  }
  UniqueFd fd(socket(AF_INET, SOCK_DGRAM, 0));
  const sockaddr_in sa = addressOf(host, port);
  std::uint32_t requestId = kFirstRequestId;
  std::vector<double> micros;
  long entries = 0;
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    const auto t0 = Clock::now();
    const long got = snmpWalkOnce(fd.get(), sa, community, root, requestId);
    if (got < 0 || (i > 0 && got != entries)) {
      std::fprintf(stderr, "snmp-walk: walk %d of %s failed or changed size\n", i + 1, oidText);
      return 1;
    }
    entries = got;
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  char what[128];
  std::snprintf(what, sizeof what, "snmp walks of %s (%ld entries each)", oidText, entries);
  report(what, micros, std::chrono::duration<double>(Clock::now() - start).count());
  return 0;
}

// Size of one list entry of the command, or 0 for a single-record reply.
std::size_t entrySize(std::uint16_t code) {
  if (code == varlo::kProcessesCommand) return varlo::varlo_proc::kSize;
  return code == varlo::kConfigurationCommand ? 0 : varlo::varlo_ipaddr::kSize;
}

// One session, through the console end varloctl uses; false when it did
// not complete.
bool session(const sockaddr_in& sa, const varlo::varlo_cmd_header::Bytes& header,
             std::uint16_t code) {
  try {
    varloctl::Session link = varloctl::Session::open({sa}, "peer", 5000);
    link.send(header);
    varlo::varlo_list_header::Bytes head{};
    // The echo peer returns the 12 header bytes; the agent its list batches.
    link.receive(head.data(), header.size());
    if (std::memcmp(head.data(), header.data(), header.size()) == 0) return true;
    if (entrySize(code) == 0) {
      std::vector<std::uint8_t> rest(varlo::varlo_config::kSize - header.size());
      link.receive(rest.data(), rest.size());
      return true;
    }
    link.receive(head.data() + header.size(), head.size() - header.size());
    for (;;) {
      const auto h = varlo::varlo_list_header::decode(head);
      std::vector<std::uint8_t> body(h.count * entrySize(code));
      if (!body.empty()) link.receive(body.data(), body.size());
      if (h.prefix.last) return true;
      link.receive(head.data(), head.size());
    }
  } catch (const varloctl::CtlError&) {
    return false;
  }
}

int sessions(const char* host, int port, int clients, double seconds, std::uint16_t code) {
  const sockaddr_in sa = addressOf(host, port);
  varlo::varlo_cmd_header h;
  h.command = code;
  h.passwordBlock = *password_block::seal("");
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

// One Applications or census answer, read to its last header. first is
// when the first batch (not a heartbeat) arrived; false when incomplete.
bool softwareAnswer(const sockaddr_in& sa, std::uint16_t code, Clock::time_point start,
                    double& firstUs, std::size_t& entries, std::size_t& fullBatches) {
  const bool census = code == varlo::kFileExtensionCommand;
  const std::size_t headerSize = census ? varlo::varlo_extensions::kSize : varlo::varlo_list_header::kSize;
  const std::size_t entrySize = census ? varlo::varlo_extension::kSize : varlo::varlo_app::kSize;
  try {
    // A census of a big disk is quiet for long stretches but for its heartbeat.
    varloctl::Session link = varloctl::Session::open({sa}, "agent", 60000);
    varlo::varlo_cmd_header h;
    h.command = code;
    h.passwordBlock = *password_block::seal("");
    link.send(h.encode());
    if (census) link.send(varlo::varlo_extensions_request{0}.encode());
    std::vector<std::uint8_t> head(headerSize), body;
    firstUs = -1;
    entries = 0;
    fullBatches = 0;
    for (;;) {
      link.receive(head.data(), head.size());
      const std::uint16_t count = varlo::getU16(head.data() + 12);
      const bool last = head[3] != 0;
      if (count == 0 && !last && firstUs < 0) continue;  // a heartbeat
      if (firstUs < 0)
        firstUs = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
      body.resize(count * entrySize);
      if (!body.empty()) link.receive(body.data(), body.size());
      entries += count;
      if (count == 10 && !last) ++fullBatches;
      if (last) return true;
    }
  } catch (const varloctl::CtlError& e) {
    std::fprintf(stderr, "software answer: %s\n", e.what());
    return false;
  }
}

int software(const char* host, int port, int count, std::uint16_t code) {
  const sockaddr_in sa = addressOf(host, port);
  std::vector<double> whole, first, working;
  std::size_t entries = 0, fullBatches = 0;
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    const auto t0 = Clock::now();
    double firstUs = 0;
    if (!softwareAnswer(sa, code, t0, firstUs, entries, fullBatches)) return 1;
    whole.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    first.push_back(firstUs);
    // The agent sleeps 10 ms after each full batch, as the console has
    // always been paced: time spent waiting, not working.
    working.push_back(whole.back() - 10000.0 * static_cast<double>(fullBatches));
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  char what[96];
  std::snprintf(what, sizeof what, "command %u, first batch (%zu entries in all)", code, entries);
  report(what, first, seconds);
  std::snprintf(what, sizeof what, "command %u, whole answer less %zu pauses of 10 ms", code,
                fullBatches);
  report(what, working, seconds);
  std::snprintf(what, sizeof what, "command %u, whole answer", code);
  report(what, whole, seconds);
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
  if (mode == "snmp-get" && (argc == 5 || argc == 6))
    return snmpGet(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), argc == 6 ? argv[5] : "public");
  if (mode == "snmp-walk" && (argc == 6 || argc == 7))
    return snmpWalk(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), argv[5], argc == 7 ? argv[6] : "public");
  if (mode == "sessions" && (argc == 6 || argc == 7))
    return sessions(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), std::atof(argv[5]),
                    static_cast<std::uint16_t>(argc == 7 ? std::atoi(argv[6]) : varlo::kIpAddressCommand));
  if (mode == "run" && argc >= 4) return runCommand(std::atoi(argv[2]), argv + 3);
  if (mode == "software" && argc == 6)
    return software(argv[2], std::atoi(argv[3]), std::atoi(argv[4]),
                    static_cast<std::uint16_t>(std::atoi(argv[5])));
  std::fprintf(stderr,
               "usage: varlo_bench echo-server PORT | probe HOST PORT N | "
               "snmp-get HOST PORT N [COMMUNITY] | snmp-walk HOST PORT N OID [COMMUNITY] | "
               "sessions HOST PORT CLIENTS SECONDS [CODE] | run N CMD [ARGS...] | "
               "software HOST PORT N CODE\n");
  return 2;
}
