// varloctl's software inventory against a scripted agent: the named lists,
// the census and the profiler, their heartbeats and progress line, and
// Ctrl-C in the middle of an answer.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"
#include "varloctl/interrupt.h"
#include "varloctl_fake_agent.h"

using namespace varloctl_test;
using test_support::listHeader;
using A = FakeAgent;

namespace {

// A named entry; tails are stale bytes behind the strings, left there by a
// longer entry of an earlier batch.
Bytes app(const std::string& name, const std::string& version, std::uint32_t index,
          const std::string& nameTail = "", const std::string& versionTail = "") {
  return record(48, {{0, pstring(name) + Bytes(nameTail.begin(), nameTail.end())},
                     {33, pstring(version) + Bytes(versionTail.begin(), versionTail.end())},
                     {44, be32(index)}});
}

// A census header: a heartbeat when count is 0 and last is not set.
Bytes extHeader(int code, int last, int count, std::uint32_t scanned) {
  return record(34, {{0, bytes({code >> 8, code & 0xFF, 1, last, 0})},
                     {12, bytes({count >> 8, count & 0xFF})},
                     {14, be32(scanned)}});
}

// ext_count is the number of files less one, as the agent sends it.
Bytes ext(const std::string& name, std::uint32_t sizeKb, std::uint32_t count,
          const std::string& tail = "") {
  return record(
      30,
      {{0, pstring(name) + Bytes(tail.begin(), tail.end())}, {6, be32(sizeKb)}, {10, be32(count)}});
}

Bytes volume(const std::string& name, std::uint32_t total, std::uint32_t free) {
  return record(50, {{0, pstring(name)}, {34, be32(total)}, {38, be32(free)}});
}

Bytes request(std::uint32_t days) { return record(82, {{12, be32(days)}}); }

// JSON on one line: the newlines and the indentation after them removed.
std::string compact(const std::string& json) {
  std::string out;
  for (std::size_t i = 0; i < json.size(); ++i) {
    if (json[i] != '\n') {
      out += json[i];
      continue;
    }
    while (i + 1 < json.size() && json[i + 1] == ' ') ++i;
  }
  return out;
}

const Script kCensus = {
    A::expect(header(23, kEmpty) + request(0)),
    A::send(extHeader(23, 0, 0, 0)),
    A::send(extHeader(23, 0, 0, 10)),
    A::send(extHeader(23, 0, 0, 20)),
    A::send(extHeader(23, 0, 2, 20) + ext("txt", 12, 0) + ext("jpeg", 2048, 4)),
    // "c" over "cpp"; files without an extension under the empty one.
    A::send(extHeader(23, 1, 2, 20) + ext("c", 3, 1, "pp") + ext("", 40, 9)),
};

const Script kProfiler = {
    A::expect(header(30, kEmpty) + request(7)),
    A::send(listHeader(30, 0, 1) + volume("Macintosh HD", 10239, 5120)),
    A::send(extHeader(30, 0, 0, 10)),
    A::send(extHeader(30, 0, 0, 20)),
    A::send(extHeader(23, 1, 1, 20) + ext("txt", 12, 0)),
    A::send(listHeader(30, 0, 1) + volume("Data", 200, 15)),
    A::send(extHeader(30, 0, 0, 0)),
    A::send(extHeader(23, 1, 0, 0)),
    A::send(listHeader(30, 1, 0)),
};

const std::string kBlank16(16, ' ');

}  // namespace

TEST(VarloctlSoftwareDialogue, ListsSkipHeartbeatsAndShowOnlyWhatTheLengthBytesSay) {
  const struct {
    std::string word;
    int code;
    std::vector<std::string> versions;
    std::string out;
  } cases[] = {
      {"apps",
       6,
       {"1.5", "10.0.1", "9"},
       "NAME               VERSION\nTextEdit           1.5\nPreview Long Name  10.0.1\n"
       "Bo                 9\n"},
      {"controls",
       7,
       {"1.5", "10.0.1", "9"},
       "NAME               VERSION\nTextEdit           1.5\nPreview Long Name  10.0.1\n"
       "Bo                 9\n"},
      {"extensions",
       8,
       {"1.5", "", "9"},
       "NAME               VERSION\nTextEdit           1.5\nPreview Long Name\nBo                 "
       "9\n"},
      // Fonts have no version, whatever bytes the field holds.
      {"fonts", 9, {"", "", "stale"}, "NAME\nTextEdit\nPreview Long Name\nBo\n"},
      {"services",
       10,
       {"Running", "Stopped", "Unknown"},
       "NAME               STATUS\nTextEdit           Running\nPreview Long Name  Stopped\n"
       "Bo                 Unknown\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.word);
    const Script script = {
        A::expect(header(c.code, kEmpty)),
        A::send(listHeader(c.code, 0, 0)),
        A::send(listHeader(c.code, 0, 0)),
        A::send(listHeader(c.code, 0, 2) + app("TextEdit", c.versions[0], 1) +
                app("Preview Long Name", c.versions[1], 2)),
        A::send(listHeader(c.code, 1, 1) + app("Bo", c.versions[2], 3, "pha", "zzz")),
    };
    const Result r = play(script, {c.word});
    EXPECT_EQ(r.mismatch, "");
    EXPECT_TRUE(r.extra.empty());
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, "");
  }
  const Result r = play(
      {A::expect(header(10, kEmpty)), A::send(listHeader(10, 1, 1) + app("cron", "Running", 1))},
      {"--json", "services"});
  EXPECT_EQ(compact(r.out), "[{\"name\": \"cron\",\"status\": \"Running\"}]") << r.err;
}

TEST(VarloctlSoftwareDialogue, HeartbeatsDoNotCountAsBatches) {
  // More empty headers than the batch limit allows batches: a long
  // collection, not a runaway agent.
  const std::size_t many = 110000;
  Bytes fontBeats, censusBeats;
  for (std::size_t i = 0; i < many; ++i) {
    const Bytes font = listHeader(9, 0, 0), census = extHeader(23, 0, 0, std::uint32_t(i * 10));
    fontBeats.insert(fontBeats.end(), font.begin(), font.end());
    censusBeats.insert(censusBeats.end(), census.begin(), census.end());
  }
  Result r = play({A::expect(header(9, kEmpty)), A::send(fontBeats),
                   A::send(listHeader(9, 1, 1) + app("Courier", "", 1))},
                  {"fonts"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "NAME\nCourier\n");
  r = play({A::expect(header(23, kEmpty) + request(0)), A::send(censusBeats),
            A::send(extHeader(23, 1, 1, 0) + ext("txt", 1, 0))},
           {"census"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "EXTENSION  SIZE KB  FILES\ntxt        1        1\n");
}

TEST(VarloctlCensusDialogue, SendsTheDaysAtOffset12AndShowsFilesAsCountPlusOne) {
  const struct {
    Words words;
    std::uint32_t days;
  } cases[] = {
      {{"census"}, 0},
      {{"census", "--days", "30"}, 30},
      {{"--days=0x1e", "census"}, 30},
      {{"census", "--days=3650"}, 3650},
      {{"census", "--days", "0"}, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words.back());
    Script script = kCensus;
    script[0] = A::expect(header(23, kEmpty) + request(c.days));
    const Result r = play(script, c.words);
    EXPECT_EQ(r.mismatch, "");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "EXTENSION       SIZE KB  FILES\n"
              "txt             12       1\n"
              "jpeg            2048     5\n"
              "c               3        2\n"
              "(no extension)  40       10\n");
  }
  // JSON keeps the count as sent beside the number of files, and the empty
  // extension empty.
  const Result r = play(kCensus, {"--json", "census"});
  EXPECT_EQ(compact(r.out),
            "[{\"extension\": \"txt\",\"size_kb\": 12,\"files\": 1,\"ext_count\": 0},"
            "{\"extension\": \"jpeg\",\"size_kb\": 2048,\"files\": 5,\"ext_count\": 4},"
            "{\"extension\": \"c\",\"size_kb\": 3,\"files\": 2,\"ext_count\": 1},"
            "{\"extension\": \"\",\"size_kb\": 40,\"files\": 10,\"ext_count\": 9}]")
      << r.err;
}

TEST(VarloctlCensusDialogue, ProgressOnlyOnATerminalAndNeverWithJson) {
  const struct {
    bool terminal, json;
    std::string err;
  } cases[] = {
      {true, false, "\rscanned 0 files\rscanned 10 files\rscanned 20 files\r" + kBlank16 + "\r"},
      {false, false, ""},
      {true, true, ""},
      {false, true, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.terminal) + std::to_string(c.json));
    const Result r =
        play(kCensus, c.json ? Words{"--json", "census"} : Words{"census"}, "2", c.terminal);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, c.err);
    EXPECT_NE(r.out.find("jpeg"), std::string::npos);
  }
}

TEST(VarloctlProfilerDialogue, ShowsEachPartitionWithItsExtensions) {
  Result r = play(kProfiler, {"profiler", "--days", "7"}, "2", true);
  EXPECT_EQ(r.mismatch, "");
  EXPECT_TRUE(r.extra.empty());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "name       Macintosh HD\n"
            "remote     no\n"
            "total mib  1023.9\n"
            "free mib   512.0\n"
            "\n"
            "extensions:\n"
            "  EXTENSION  SIZE KB  FILES\n"
            "  txt        12       1\n"
            "\n"
            "name       Data\n"
            "remote     no\n"
            "total mib  20.0\n"
            "free mib   1.5\n"
            "\n"
            "extensions:\n"
            "  (none)\n");
  // A shorter line blanks what is left of the longer one before it.
  EXPECT_EQ(r.err,
            "\rscanned 10 files on Macintosh HD\rscanned 20 files on Macintosh HD"
            "\rscanned 0 files on Data" +
                std::string(9, ' ') + "\r" + std::string(23, ' ') + "\r");

  r = play(kProfiler, {"--json", "profiler", "--days", "7"});
  EXPECT_EQ(compact(r.out),
            "[{\"name\": \"Macintosh HD\",\"remote\": false,\"total_mib\": \"1023.9\","
            "\"free_mib\": \"512.0\",\"extensions\": [{\"extension\": \"txt\",\"size_kb\": 12,"
            "\"files\": 1,\"ext_count\": 0}]},"
            "{\"name\": \"Data\",\"remote\": false,\"total_mib\": \"20.0\",\"free_mib\": \"1.5\","
            "\"extensions\": []}]")
      << r.err;

  r = play({A::expect(header(30, kEmpty) + request(0)), A::send(listHeader(30, 1, 0))},
           {"profiler"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "(none)\n");
}

TEST(VarloctlSoftwareDialogue, FailuresEndWithAClearErrorAndTheirExitStatus) {
  const Bytes fontsExpect = header(9, kEmpty);
  const Bytes censusExpect = header(23, kEmpty) + request(0);
  const Bytes profilerExpect = header(30, kEmpty) + request(0);
  const Bytes half = app("Courier", "", 1);
  const Bytes lastExtHeader = extHeader(23, 1, 0, 0);
  const struct {
    Words words;
    Script script;
    int status;
    std::string err;
  } cases[] = {
      // The agent stops between records, and inside one.
      {{"fonts"},
       {A::expect(fontsExpect), A::send(listHeader(9, 0, 0)), A::send(listHeader(9, 0, 1) + half),
        A::close()},
       4,
       "the agent closed the connection before the end of its answer"},
      {{"fonts"},
       {A::expect(fontsExpect),
        A::send(listHeader(9, 0, 1) + Bytes(half.begin(), half.begin() + 20)), A::close()},
       4,
       "the agent closed the connection in the middle of a reply"},
      {{"census"},
       {A::expect(censusExpect), A::send(extHeader(23, 0, 0, 10)), A::close()},
       4,
       "the agent closed the connection before the end of its answer"},
      {{"census"},
       {A::expect(censusExpect), A::send(extHeader(23, 1, 2, 10) + ext("txt", 1, 0)), A::close()},
       4,
       "the agent closed the connection before the end of its answer"},
      {{"profiler"},
       {A::expect(profilerExpect), A::send(listHeader(30, 0, 1) + volume("Data", 1, 1)),
        A::send(extHeader(30, 0, 0, 10)),
        A::send(Bytes(lastExtHeader.begin(), lastExtHeader.begin() + 17)), A::close()},
       4,
       "the agent closed the connection in the middle of a reply"},
      // The census of a partition ended, but not the list of partitions.
      {{"profiler"},
       {A::expect(profilerExpect), A::send(listHeader(30, 0, 1) + volume("Data", 1, 1)),
        A::send(extHeader(23, 1, 0, 0)), A::close()},
       4,
       "the agent closed the connection before the end of its answer"},
      // Framing that makes no sense: two partitions behind one header, one
      // behind the last.
      {{"profiler"},
       {A::expect(profilerExpect), A::send(listHeader(30, 0, 2)), A::close()},
       7,
       "the agent's partition header has a count of 2; expected 1"},
      {{"profiler"},
       {A::expect(profilerExpect), A::send(listHeader(30, 1, 1)), A::close()},
       7,
       "the agent's last partition header has a count of 1; expected 0"},
      // A census the agent reports as failed.
      {{"census"},
       {A::expect(censusExpect), A::send(reply(34, 23, 0, 1)), A::close()},
       1,
       "the agent could not count its files"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words.front() + ": " + c.err);
    const Result r = play(c.script, c.words);
    EXPECT_EQ(r.mismatch, "");
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.err, "varloctl: " + c.err + "\n");
    EXPECT_EQ(r.out, "");
  }
  // A rejected password shows in the first reply of each kind of answer.
  const struct {
    std::string word;
    int code;
    std::size_t size;
  } refused[] = {{"apps", 6, 14}, {"fonts", 9, 14}, {"census", 23, 34}, {"profiler", 30, 14}};
  for (const auto& c : refused) {
    SCOPED_TRACE(c.word);
    const Bytes sent = header(c.code, kEmpty) + (c.code == 6 || c.code == 9 ? Bytes{} : request(0));
    const Result r =
        play({A::expect(sent), A::send(reply(c.size, c.code, 0, 1, 0xFF)), A::close()}, {c.word});
    EXPECT_EQ(r.mismatch, "");
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "varloctl: wrong password\n");
  }
}

namespace {

void raiseInterrupt(int) { varloctl::Interrupt::raise(); }

}  // namespace

TEST(VarloctlInterrupt, CtrlCClosesTheConnectionAndExits130) {
  // By a real SIGINT, which breaks poll() with EINTR, and by the flag alone,
  // as when the signal lands just before poll() starts.
  for (const bool bySignal : {true, false}) {
    SCOPED_TRACE(bySignal ? "signal" : "flag");
    struct sigaction sa {
    }, old{};
    sa.sa_handler = raiseInterrupt;
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGINT, &sa, &old), 0);
    varloctl::Interrupt::clear();
    const pthread_t self = pthread_self();
    std::thread ctrlC([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      if (bySignal)
        pthread_kill(self, SIGINT);
      else
        varloctl::Interrupt::raise();
    });
    const auto start = std::chrono::steady_clock::now();
    // The agent goes quiet after one heartbeat and reads until the tool hangs
    // up: the test only ends in time if the tool closes the connection.
    const Result r =
        play({A::expect(header(23, kEmpty) + request(0)), A::send(extHeader(23, 0, 0, 20))},
             {"census"}, "10", true);
    const auto took = std::chrono::steady_clock::now() - start;
    ctrlC.join();
    sigaction(SIGINT, &old, nullptr);
    varloctl::Interrupt::clear();
    EXPECT_EQ(r.mismatch, "");
    EXPECT_TRUE(r.extra.empty());
    EXPECT_EQ(r.status, 130);
    // The progress line is gone before the message.
    EXPECT_EQ(r.err, "\rscanned 20 files\r" + kBlank16 + "\rvarloctl: interrupted\n");
    EXPECT_EQ(r.out, "");
    EXPECT_LT(took, std::chrono::seconds(2));
  }
  // discover waits for answers the same way.
  std::uint16_t port = 0;
  const UniqueFd silent = loopbackSocket(SOCK_DGRAM, port);
  std::thread ctrlC([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    varloctl::Interrupt::raise();
  });
  const auto start = std::chrono::steady_clock::now();
  const Result r = ctl(
      {"discover", "--broadcast", "127.0.0.1", "--port", std::to_string(port), "--timeout", "10"});
  ctrlC.join();
  varloctl::Interrupt::clear();
  EXPECT_EQ(r.status, 130);
  EXPECT_EQ(r.err, "varloctl: interrupted\n");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}
