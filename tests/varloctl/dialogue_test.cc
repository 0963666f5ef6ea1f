// varloctl's side of each command, against a scripted peer on 127.0.0.1.
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "varloctl/app.h"
#include "varloctl_fake_agent.h"

using namespace varloctl_test;

namespace {

const Bytes kSecret = bytes({0xb1, 0x6e, 0xd7, 0x45, 0x29, 0x07, 0x5b, 0x4d});
const Bytes kEmpty = bytes({0xae, 0xc6, 0xc2, 0x38, 0xc7, 0x44, 0xdb, 0xad});

Bytes header(int code, const Bytes& block) { return bytes({code >> 8, code & 0xFF, 0, 0}) + block; }

// A reply record: prefix command, success, last, status; the rest zero.
Bytes reply(std::size_t size, int code, int success, int last, int status = 0) {
  return record(size, {{0, bytes({code >> 8, code & 0xFF, success, last, status})}});
}

Bytes note(int index, const std::string& text) {
  Bytes r = record(260, {{0, bytes({0, 0, 0, index})}});
  r[4] = static_cast<std::uint8_t>(text.size());
  std::copy(text.begin(), text.end(), r.begin() + 5);
  return r;
}

const Bytes kNetReply = record(104, {{0, bytes({0x00, 0x02, 0x01, 0x01, 0x00})},
                                     {12, bytes({0, 0, 0, 4})},
                                     {28, bytes({192, 0, 2, 10})},
                                     {32, bytes({192, 0, 2, 1})},
                                     {36, bytes({255, 255, 255, 0})},
                                     {40, bytes({0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e})},
                                     {46, bytes({0, 0, 0, 4})},
                                     {98, bytes({0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e})}});

struct Result {
  int status;
  std::string out;
  std::string err;
};

Result run(const FakeAgent& agent, std::vector<std::string> words,
           const std::optional<std::string>& env = std::nullopt, const char* timeout = "2") {
  std::vector<std::string> args = {"--port", std::to_string(agent.port()), "--timeout", timeout,
                                   "127.0.0.1"};
  args.insert(args.end(), words.begin(), words.end());
  std::ostringstream out, err;
  const int status = varloctl::App::run(args, env, out, err);
  return {status, out.str(), err.str()};
}

}  // namespace

TEST(VarloctlDialogue, NetworkHeaderAndTable) {
  FakeAgent agent({FakeAgent::expect(header(2, kSecret)), FakeAgent::send(kNetReply)});
  const Result r = run(agent, {"--password", "secret", "network"});
  agent.join();
  EXPECT_EQ(agent.mismatch(), "");
  EXPECT_TRUE(agent.extra().empty());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "interface found   yes\n"
            "ip address        192.0.2.10\n"
            "gateway           192.0.2.1\n"
            "subnet mask       255.255.255.0\n"
            "hardware address  00:1a:2b:3c:4d:5e\n");
  EXPECT_EQ(r.err, "");
}

TEST(VarloctlDialogue, NetworkAsJsonWithTheEnvironmentsPasswordInPieces) {
  // A reply that arrives in three pieces is one record.
  FakeAgent agent(
      {FakeAgent::expect(header(2, kSecret)),
       FakeAgent::send(Bytes(kNetReply.begin(), kNetReply.begin() + 3)), FakeAgent::pause(100),
       FakeAgent::send(Bytes(kNetReply.begin() + 3, kNetReply.begin() + 50)), FakeAgent::pause(100),
       FakeAgent::send(Bytes(kNetReply.begin() + 50, kNetReply.end()))});
  const Result r = run(agent, {"network", "--json"}, "secret");
  agent.join();
  EXPECT_EQ(agent.mismatch(), "");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "{\n"
            "  \"interface_found\": true,\n"
            "  \"ip_address\": \"192.0.2.10\",\n"
            "  \"gateway\": \"192.0.2.1\",\n"
            "  \"subnet_mask\": \"255.255.255.0\",\n"
            "  \"hardware_address\": \"00:1a:2b:3c:4d:5e\"\n"
            "}\n");
}

TEST(VarloctlDialogue, IpAddrsReadsBatchesUntilTheLastHeader) {
  const auto entry = [](int last, int hw) {
    return record(40, {{0, bytes({10, 0, 0, last})},
                       {4, bytes({10, 0, 0, 1})},
                       {8, bytes({255, 0, 0, 0})},
                       {12, bytes({2, 0, 0, 0, 0, hw})}});
  };
  FakeAgent agent({FakeAgent::expect(header(28, kEmpty)),
                   FakeAgent::send(record(14, {{0, bytes({0, 28, 1, 0, 0})}, {12, bytes({0, 2})}}) +
                                   entry(5, 1) + entry(6, 2)),
                   FakeAgent::send(record(14, {{0, bytes({0, 28, 1, 1, 0})}, {12, bytes({0, 1})}}) +
                                   entry(17, 0xab))});
  const Result r = run(agent, {"ipaddrs"});
  agent.join();
  EXPECT_EQ(agent.mismatch(), "");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "IP ADDRESS  GATEWAY   SUBNET MASK  HARDWARE ADDRESS\n"
            "10.0.0.5    10.0.0.1  255.0.0.0    02:00:00:00:00:01\n"
            "10.0.0.6    10.0.0.1  255.0.0.0    02:00:00:00:00:02\n"
            "10.0.0.17   10.0.0.1  255.0.0.0    02:00:00:00:00:ab\n");

  FakeAgent none({FakeAgent::expect(header(28, kEmpty)), FakeAgent::send(reply(14, 28, 1, 1))});
  const Result n = run(none, {"ipaddrs", "--json"});
  EXPECT_EQ(n.status, 0) << n.err;
  EXPECT_EQ(n.out, "[]\n");
}

TEST(VarloctlDialogue, ListWithoutALastHeaderIsCutOff) {
  Bytes endless;
  for (int i = 0; i < 8193; ++i) endless = endless + reply(14, 28, 1, 0);
  FakeAgent agent({FakeAgent::expect(header(28, kEmpty)), FakeAgent::send(endless)});
  const Result r = run(agent, {"ipaddrs"});
  EXPECT_EQ(r.status, 7);
  EXPECT_NE(r.err.find("without a last one"), std::string::npos) << r.err;
}

TEST(VarloctlDialogue, WrongPasswordOnEveryCommand) {
  const struct {
    std::vector<std::string> words;
    int code;
    std::size_t size;
  } cases[] = {
      {{"network"}, 2, 104},     {{"ipaddrs"}, 28, 14},       {{"password", "x"}, 17, 324},
      {{"dbkey", "7"}, 33, 324}, {{"notes", "get"}, 22, 324}, {{"notes", "set", "1", "t"}, 21, 324},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.code);
    // The agent answers at once and hangs up, unread request bytes or not.
    FakeAgent agent({FakeAgent::expect(header(c.code, kSecret)),
                     FakeAgent::send(reply(c.size, c.code, 0, 1, 0xFF)), FakeAgent::close()});
    std::vector<std::string> words = {"--password", "secret"};
    words.insert(words.end(), c.words.begin(), c.words.end());
    const Result r = run(agent, words);
    agent.join();
    EXPECT_EQ(agent.mismatch(), "");
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "varloctl: wrong password\n");
    EXPECT_EQ(r.out, "");
  }
}

TEST(VarloctlDialogue, PeerThatClosesEarly) {
  // An unknown code: the agent hangs up without a byte.
  FakeAgent refused({FakeAgent::expect(header(2, kEmpty)), FakeAgent::close()});
  Result r = run(refused, {"network"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "varloctl: the agent refused the command or closed the connection\n");

  FakeAgent cut({FakeAgent::expect(header(2, kEmpty)),
                 FakeAgent::send(Bytes(kNetReply.begin(), kNetReply.begin() + 50)),
                 FakeAgent::close()});
  r = run(cut, {"network"});
  EXPECT_EQ(r.status, 4);
  EXPECT_NE(r.err.find("in the middle of a reply"), std::string::npos) << r.err;
  EXPECT_EQ(r.out, "");
}

TEST(VarloctlDialogue, SilentPeerTimesOut) {
  FakeAgent agent({FakeAgent::expect(header(22, kEmpty))});
  const auto start = std::chrono::steady_clock::now();
  const Result r = run(agent, {"notes", "get"}, std::nullopt, "0.3");
  const auto elapsed = std::chrono::steady_clock::now() - start;
  agent.join();
  EXPECT_EQ(r.status, 5);
  EXPECT_NE(r.err.find("timed out after 0.3 s"), std::string::npos) << r.err;
  EXPECT_GE(elapsed, std::chrono::milliseconds(290));
  EXPECT_LT(elapsed, std::chrono::seconds(3));
  EXPECT_TRUE(agent.extra().empty());
}

TEST(VarloctlDialogue, NobodyListening) {
  // Bound but not listening: the connection is refused.
  std::uint16_t port = 0;
  const UniqueFd holder = loopbackSocket(SOCK_STREAM, port);
  std::ostringstream out, err;
  const int status = varloctl::App::run({"--port", std::to_string(port), "127.0.0.1", "network"},
                                        std::nullopt, out, err);
  EXPECT_EQ(status, 6);
  EXPECT_NE(err.str().find("connection refused"), std::string::npos) << err.str();
}

TEST(VarloctlDialogue, PasswordSendsThePlainPascalString) {
  FakeAgent agent({FakeAgent::expect(header(17, kEmpty) + bytes({3, 'n', 'e', 'w', 0, 0, 0, 0})),
                   FakeAgent::send(reply(324, 17, 1, 1))});
  Result r = run(agent, {"password", "new"});
  agent.join();
  EXPECT_EQ(agent.mismatch(), "");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "password changed  yes\n");

  FakeAgent refusing({FakeAgent::expect(header(17, kEmpty) + bytes({0, 0, 0, 0, 0, 0, 0, 0})),
                      FakeAgent::send(reply(324, 17, 0, 1))});
  r = run(refusing, {"password", ""});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "varloctl: the agent could not change its password\n");
}

TEST(VarloctlDialogue, DbKeyTravelsAtOffset36) {
  const Bytes key = bytes({0xde, 0xad, 0xbe, 0xef});
  FakeAgent agent({FakeAgent::expect(header(33, kEmpty) + record(324, {{36, key}})),
                   FakeAgent::send(record(324, {{0, bytes({0, 33, 1, 1, 0})}, {36, key}}))});
  const Result r = run(agent, {"--json", "dbkey", "3735928559"});
  agent.join();
  EXPECT_EQ(agent.mismatch(), "");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "{\n  \"dbms_key\": 3735928559\n}\n");
}

TEST(VarloctlDialogue, NotesSetSendsTenNotesLockStep) {
  std::vector<FakeAgent::Step> script = {FakeAgent::expect(header(21, kEmpty)),
                                         FakeAgent::send(reply(324, 21, 1, 0))};
  for (int i = 0; i < 10; ++i) {
    script.push_back(FakeAgent::expect(note(i, i == 3 ? "rack 4, \"top\"" : "")));
    script.push_back(FakeAgent::send(reply(324, 0, 1, 0)));
  }
  FakeAgent agent(script);
  const Result r = run(agent, {"notes", "set", "3", "rack 4, \"top\""});
  agent.join();
  EXPECT_EQ(agent.mismatch(), "");
  EXPECT_TRUE(agent.extra().empty());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "index   3\nstored  yes\n");
}

TEST(VarloctlDialogue, NotesSetStopsAtARefusedNote) {
  std::vector<FakeAgent::Step> script = {FakeAgent::expect(header(21, kEmpty)),
                                         FakeAgent::send(reply(324, 21, 1, 0))};
  for (int i = 0; i < 5; ++i) {
    script.push_back(FakeAgent::expect(note(i, i == 0 ? "x" : "")));
    script.push_back(FakeAgent::send(reply(324, 0, i < 4 ? 1 : 0, 0)));
  }
  FakeAgent agent(script);
  const Result r = run(agent, {"notes", "set", "0", "x"});
  agent.join();
  EXPECT_EQ(agent.mismatch(), "");
  EXPECT_TRUE(agent.extra().empty()) << "sent on after the refusal";
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "varloctl: the agent did not accept note 4\n");
}

TEST(VarloctlDialogue, NotesGetAnswersEachNote) {
  std::vector<FakeAgent::Step> script = {FakeAgent::expect(header(22, kSecret)),
                                         FakeAgent::send(reply(324, 0, 1, 0))};
  for (int i = 0; i < 10; ++i) {
    script.push_back(FakeAgent::send(note(i, i == 0 ? "first" : i == 7 ? "tab\there \"q\"" : "")));
    script.push_back(FakeAgent::expect(reply(324, 0, 1, 1)));
  }
  FakeAgent agent(script);
  const Result r = run(agent, {"--password", "secret", "--json", "notes", "get"});
  agent.join();
  EXPECT_EQ(agent.mismatch(), "");
  EXPECT_EQ(r.status, 0) << r.err;
  std::string expected = "[\n";
  for (int i = 0; i < 10; ++i) {
    const std::string text = i == 0 ? "first" : i == 7 ? "tab\\there \\\"q\\\"" : "";
    expected += "  {\n    \"index\": " + std::to_string(i) + ",\n    \"text\": \"" + text +
                "\"\n  }" + (i < 9 ? ",\n" : "\n");
  }
  EXPECT_EQ(r.out, expected + "]\n");
}
