// varloctl discover against a fake responder on 127.0.0.1.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "varloctl/app.h"
#include "varloctl_fake_agent.h"

using namespace varloctl_test;

namespace {

const Bytes kProbeReply = record(470, {{0, bytes({0, 0, 0x05, 0x60})},
                                       {4, bytes({5, 'a', 'l', 'p', 'h', 'a'})},
                                       {38, bytes({0, 4})},
                                       {40, bytes({0, 0, 0x06, 0x10})},
                                       {48, bytes({192, 0, 2, 7})},
                                       {190, bytes({3, 'b', 'o', 'b'})},
                                       {226, bytes({0, 0, 0x06, 0x10})},
                                       {230, bytes({0, 0, 0x01, 0x00})}});

struct Result {
  int status;
  std::string out;
  std::string err;
};

Result discover(std::vector<std::string> args) {
  std::ostringstream out, err;
  const int status = varloctl::App::run(args, std::nullopt, out, err);
  return {status, out.str(), err.str()};
}

}  // namespace

TEST(VarloctlDiscovery, ListsEachAnsweringAddressOnce) {
  // Datagrams of the wrong size are not answers; a repeated answer counts once.
  FakeProbeResponder responder({Bytes(100, 1), kProbeReply, Bytes(471, 0), kProbeReply});
  const Result r = discover({"discover", "--broadcast", "127.0.0.1", "--port",
                             std::to_string(responder.port()), "--timeout", "0.3"});
  responder.join();
  EXPECT_EQ(responder.probe(), Bytes(470, 0));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "ADDRESS    HOST NAME  OS VERSION  USER  DBMS KEY  AGENT VERSION\n"
            "127.0.0.1  alpha      6.1.0       bob   256       5.6.0\n");
}

TEST(VarloctlDiscovery, OneHostEndsAtItsAnswer) {
  FakeProbeResponder responder({kProbeReply});
  const auto start = std::chrono::steady_clock::now();
  const Result r = discover({"--json", "discover", "127.0.0.1", "--port",
                             std::to_string(responder.port()), "--timeout", "5"});
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "[\n"
            "  {\n"
            "    \"address\": \"127.0.0.1\",\n"
            "    \"host_name\": \"alpha\",\n"
            "    \"os_version\": \"6.1.0\",\n"
            "    \"user\": \"bob\",\n"
            "    \"dbms_key\": 256,\n"
            "    \"agent_version\": \"5.6.0\"\n"
            "  }\n"
            "]\n");
}

TEST(VarloctlDiscovery, NoAnswerIsATimeout) {
  FakeProbeResponder responder({Bytes(10, 0)});
  const Result r = discover(
      {"discover", "127.0.0.1", "--port", std::to_string(responder.port()), "--timeout", "0.3"});
  EXPECT_EQ(r.status, 5);
  EXPECT_EQ(r.err, "varloctl: no agent answered within 0.3 s\n");
  EXPECT_EQ(r.out, "");
}
