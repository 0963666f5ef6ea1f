// varloctl against a scripted agent on 127.0.0.1: what the commands send and
// show, how they fail, and discovery.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "test_support.h"
#include "varloctl_fake_agent.h"

using namespace varloctl_test;
using test_support::listHeader;
using A = FakeAgent;

namespace {

Bytes note(int index, const std::string& text) {
  return record(260, {{3, bytes({index})}, {4, pstring(text)}});
}

Bytes ipEntry(int last, int hw) {
  return record(40, {{0, bytes({10, 0, 0, last, 10, 0, 0, 1, 255, 0, 0, 0, 2, 0, 0, 0, 0, hw})}});
}

const Bytes kHw = bytes({0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e});
const Bytes kNetReply = record(104, {{0, bytes({0, 2, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4})},
                                     {28, bytes({192, 0, 2, 10, 192, 0, 2, 1, 255, 255, 255, 0})},
                                     {40, kHw + bytes({0, 0, 0, 4})},
                                     {98, kHw}});

struct Dialogue {
  Words words;
  Script script;
  std::string out;
};

// Commands that the agent answers to the end.
std::vector<Dialogue> dialogues() {
  Script notesSet = {A::expect(header(21, kEmpty)), A::send(reply(324, 21, 1, 0))};
  Script notesGet = {A::expect(header(22, kSecret)), A::send(reply(324, 0, 1, 0))};
  for (int i = 0; i < 10; ++i) {
    notesSet.push_back(A::expect(note(i, i == 3 ? "rack 4, \"top\"" : "")));
    notesSet.push_back(A::send(reply(324, 0, 1, 0)));
    notesGet.push_back(A::send(note(i, i == 0 ? "first" : i == 7 ? "tab\there" : "")));
    notesGet.push_back(A::expect(reply(324, 0, 1, 1)));
  }
  const auto piece = [](std::ptrdiff_t from, std::ptrdiff_t to) {
    return A::send(Bytes(kNetReply.begin() + from, kNetReply.begin() + to));
  };
  return {
      // One record in three pieces is still one record.
      {{"--password", "secret", "network"},
       {A::expect(header(2, kSecret)), piece(0, 3), A::pause(100), piece(3, 50), A::pause(100),
        piece(50, 104)},
       "interface found   yes\n"
       "ip address        192.0.2.10\n"
       "gateway           192.0.2.1\n"
       "subnet mask       255.255.255.0\n"
       "hardware address  00:1a:2b:3c:4d:5e\n"},
      {{"ipaddrs"},
       {A::expect(header(28, kEmpty)),
        A::send(listHeader(28, 0, 2) + ipEntry(5, 1) + ipEntry(6, 2)),
        A::send(listHeader(28, 1, 1) + ipEntry(17, 0xab))},
       "IP ADDRESS  GATEWAY   SUBNET MASK  HARDWARE ADDRESS\n"
       "10.0.0.5    10.0.0.1  255.0.0.0    02:00:00:00:00:01\n"
       "10.0.0.6    10.0.0.1  255.0.0.0    02:00:00:00:00:02\n"
       "10.0.0.17   10.0.0.1  255.0.0.0    02:00:00:00:00:ab\n"},
      {{"ipaddrs"}, {A::expect(header(28, kEmpty)), A::send(listHeader(28, 1, 0))}, "(none)\n"},
      // Ten notes in lock step, the one given in its place.
      {{"notes", "set", "3", "rack 4, \"top\""}, notesSet, "index   3\nstored  yes\n"},
      // Control characters never reach the terminal; rows have no trailing blanks.
      {{"--password", "secret", "notes", "get"},
       notesGet,
       "INDEX  TEXT\n0      first\n1\n2\n3\n4\n5\n6\n7      tab\\x09here\n8\n9\n"},
  };
}

}  // namespace

TEST(VarloctlDialogue, CommandsShowTheRepliesAndTimeOutAtEveryReceive) {
  for (const Dialogue& d : dialogues()) {
    SCOPED_TRACE(d.words.back());
    Result r = play(d.script, d.words);
    EXPECT_EQ(r.mismatch, "");
    EXPECT_TRUE(r.extra.empty());
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, d.out);
    // The agent stops half-way through each record it sends in turn.
    for (std::size_t cut = 0; cut < d.script.size(); ++cut) {
      if (d.script[cut].kind != A::Step::Send) continue;
      SCOPED_TRACE("cut at step " + std::to_string(cut));
      Script script(d.script.begin(), d.script.begin() + static_cast<std::ptrdiff_t>(cut));
      const Bytes& whole = d.script[cut].data;
      script.push_back(A::send(Bytes(whole.begin(), whole.begin() + (whole.size() + 1) / 2)));
      const auto start = std::chrono::steady_clock::now();
      r = play(script, d.words, "0.1");
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
      EXPECT_EQ(r.status, 5);
      EXPECT_NE(r.err.find("timed out after 0.1 s"), std::string::npos) << r.err;
    }
  }
}

TEST(VarloctlDialogue, FailuresEndWithTheirExitStatus) {
  const auto fails = [](const Words& words, const Script& script, int status,
                        const std::string& err) {
    SCOPED_TRACE(words.front() + ": " + err);
    const Result r = play(script, words);
    EXPECT_EQ(r.mismatch, "");
    EXPECT_TRUE(r.extra.empty());
    EXPECT_EQ(r.status, status);
    EXPECT_NE(r.err.find(err), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
  };
  // An unknown code: the agent hangs up without a byte.
  fails({"network"}, {A::expect(header(2, kEmpty)), A::close()}, 4, "refused the command");
  Bytes endless;
  for (int i = 0; i < 8193; ++i) endless = endless + listHeader(28, 0, 0);
  fails({"ipaddrs"}, {A::expect(header(28, kEmpty)), A::send(endless)}, 7, "without a last one");
  // Nothing is sent after a refused note (the agent would read it as extra).
  Script refusedNote = {A::expect(header(21, kEmpty)), A::send(reply(324, 21, 1, 0))};
  for (int i = 0; i < 5; ++i) {
    refusedNote.push_back(A::expect(note(i, i == 0 ? "x" : "")));
    refusedNote.push_back(A::send(reply(324, 0, i < 4, 0)));
  }
  fails({"notes", "set", "0", "x"}, refusedNote, 1, "the agent did not accept note 4");
  // A rejected password shows in the first reply of each command, whatever its
  // size; the agent answers at once and hangs up, request bytes unread.
  const std::tuple<Words, int, std::size_t> rejected[] = {
      {{"config"}, 1, 1272},
      {{"network"}, 2, 104},
      {{"ipaddrs"}, 28, 14},
      {{"password", "x"}, 17, 324},
      {{"dbkey", "7"}, 33, 324},
      {{"notes", "get"}, 22, 324},
      {{"notes", "set", "1", "t"}, 21, 324},
  };
  for (const auto& [words, code, size] : rejected)
    fails(words,
          {A::expect(header(code, kEmpty)), A::send(reply(size, code, 0, 1, 0xFF)), A::close()}, 3,
          "wrong password");
}

TEST(VarloctlDiscovery, ListsEachAnswerOnceAndEndsAtTheOneHostsAnswer) {
  const Bytes answer = record(470, {{0, bytes({0, 0, 0x05, 0x60}) + pstring("alpha")},
                                    {38, bytes({0, 4, 0, 0, 0x0A, 0x39})},
                                    {48, bytes({192, 0, 2, 7})},
                                    {190, pstring("bob")},
                                    {226, bytes({0, 0, 0x0A, 0x39, 0, 0, 1, 0})}});
  // varloctl discover ... --port P words, answered by replies to its probe.
  const auto discover = [](Words words, const std::vector<Bytes>& replies) {
    std::uint16_t port = 0;
    const UniqueFd udp = loopbackSocket(SOCK_DGRAM, port);
    words.insert(words.begin() + 1, {"--port", std::to_string(port)});
    auto run = std::async(std::launch::async, [&] { return ctl(words); });
    Bytes probe(2048);
    sockaddr_in from{};
    socklen_t len = sizeof from;
    const ssize_t n = recvfrom(udp.get(), probe.data(), probe.size(), 0,
                               reinterpret_cast<sockaddr*>(&from), &len);
    EXPECT_EQ(Bytes(probe.begin(), probe.begin() + std::max<ssize_t>(n, 0)), Bytes(470, 0));
    for (const Bytes& r : replies)
      sendto(udp.get(), r.data(), r.size(), 0, reinterpret_cast<sockaddr*>(&from), len);
    return run.get();
  };
  const std::string table =
      "ADDRESS    HOST NAME  OS VERSION  USER  DBMS KEY  AGENT VERSION\n"
      "127.0.0.1  alpha      10.3.9      bob   256       5.6.0\n";
  // Broadcast: listens the whole time; datagrams of the wrong size are not
  // answers, and a repeated answer counts once.
  Result r = discover({"discover", "--broadcast", "127.0.0.1", "--timeout", "0.3"},
                      {Bytes(100, 1), answer, Bytes(471, 0), answer});
  EXPECT_EQ(r.out, table) << r.err;
  // One host: done at its answer, long before the time-out.
  const auto start = std::chrono::steady_clock::now();
  r = discover({"discover", "127.0.0.1", "--timeout", "5"}, {answer});
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(r.out, table) << r.err;
}
