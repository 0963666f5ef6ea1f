// varloctl's software commands against a scripted agent: framing, progress, Ctrl-C, failures.
#include <gtest/gtest.h>

#include <chrono>

#include "test_support.h"
#include "varloctl_fake_agent.h"

using namespace varloctl_test;
using test_support::listHeader;
using A = FakeAgent;

namespace {

// Stale bytes behind the name and the version, left by a longer entry.
Bytes app(const std::string& name, const std::string& version, std::uint32_t index) {
  return record(48, {{0, pstring(name) + bytes({'x'})}, {33, pstring(version) + bytes({'z'})},
                     {44, be32(index)}});
}

// A census header: a heartbeat when count is 0 and last is not set.
Bytes extHeader(int code, int last, int count, std::uint32_t scanned) {
  return record(34, {{1, bytes({code, 1, last})}, {13, bytes({count})}, {14, be32(scanned)}});
}

// count is the number of files less one, as the agent sends it.
Bytes ext(const std::string& name, std::uint32_t sizeKb, std::uint32_t count) {
  return record(30, {{0, pstring(name)}, {6, be32(sizeKb)}, {10, be32(count)}});
}

Bytes request(std::uint32_t days) { return record(82, {{12, be32(days)}}); }

}  // namespace

TEST(VarloctlSoftwareDialogue, ListsSkipHeartbeatsAndShowOnlyWhatTheLengthBytesSay) {
  const struct {
    std::string word;
    int code;
    std::string version, out;
  } cases[] = {
      {"apps", 6, "1.5", "NAME  VERSION\nBo    1.5\nCu    1.5\n"},
      {"fonts", 9, "stale", "NAME\nBo\nCu\n"},  // no version, whatever the field holds
      {"services", 10, "Running", "NAME  STATUS\nBo    Running\nCu    Running\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.word);
    // More heartbeats than the entry limit allows batches: not a runaway agent.
    Bytes beats;
    for (int i = 0; i < 110000; ++i) beats = std::move(beats) + listHeader(c.code, 0, 0);
    const Result r = play({A::expect(header(c.code, kEmpty)), A::send(beats),
                           A::send(listHeader(c.code, 0, 1) + app("Bo", c.version, 1)),
                           A::send(listHeader(c.code, 1, 1) + app("Cu", c.version, 2))},
                          {c.word});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, c.out);
  }
}

TEST(VarloctlCensusDialogue, DaysAtOffset12FilesAsCountPlusOneProgressOnATerminalOnly) {
  const struct {
    Words words;
    std::uint32_t days;
    bool terminal;
    std::string err, out;
  } cases[] = {
      {{"census"}, 0, true, "\rscanned 10 files\rscanned 20 files\r" + std::string(16, ' ') + "\r",
       "(no extension)  2048     5\n"},
      {{"census", "--days", "30"}, 30, false, "", "(no extension)  2048     5\n"},
      {{"--json", "census", "--days", "3650"}, 3650, true, "",  // the count as sent too
       "\"\",\n    \"size_kb\": 2048,\n    \"files\": 5,\n    \"ext_count\": 4\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words.back());
    const Result r = play({A::expect(header(23, kEmpty) + request(c.days)),
                           A::send(extHeader(23, 0, 0, 10) + extHeader(23, 0, 0, 20)),
                           A::send(extHeader(23, 0, 1, 20) + ext("", 2048, 4)),
                           A::send(extHeader(23, 1, 0, 20))},
                          c.words, "2", c.terminal);
    EXPECT_EQ(r.mismatch, "");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, c.err);
    EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
  }
}

TEST(VarloctlProfilerDialogue, ShowsEachPartitionWithItsExtensions) {
  const auto volume = [](const std::string& name, std::uint32_t total, std::uint32_t free) {
    return record(50, {{0, pstring(name)}, {34, be32(total)}, {38, be32(free)}});
  };
  const Result r = play({A::expect(header(30, kEmpty) + request(7)),
                         A::send(listHeader(30, 0, 1) + volume("Macintosh HD", 10239, 5120)),
                         A::send(extHeader(30, 0, 0, 10) + extHeader(30, 0, 0, 20)),
                         A::send(extHeader(23, 1, 1, 20) + ext("txt", 12, 0)),
                         A::send(listHeader(30, 0, 1) + volume("Data", 200, 15)),
                         A::send(extHeader(30, 0, 0, 0) + extHeader(23, 1, 0, 0)),
                         A::send(listHeader(30, 1, 0))},
                        {"profiler", "--days", "7"}, "2", true);
  EXPECT_EQ(r.mismatch, "");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "name       Macintosh HD\nremote     no\ntotal mib  1023.9\nfree mib   512.0\n\n"
            "extensions:\n  EXTENSION  SIZE KB  FILES\n  txt        12       1\n\n"
            "name       Data\nremote     no\ntotal mib  20.0\nfree mib   1.5\n\n"
            "extensions:\n  (none)\n");
  // A shorter line blanks what is left of the longer one before it.
  const std::string on = " files on Macintosh HD";
  EXPECT_EQ(r.err, "\rscanned 10" + on + "\rscanned 20" + on + "\rscanned 0 files on Data" +
                       std::string(9, ' ') + "\r" + std::string(23, ' ') + "\r");
}

TEST(VarloctlSoftwareDialogue, ACutOffAgentAndAWrongPasswordEndWithTheirExitStatus) {
  Result r = play({A::expect(header(9, kEmpty)), A::send(listHeader(9, 0, 1) + Bytes(20, 'x')),
                   A::close()}, {"fonts"});
  EXPECT_EQ(r.status, 4);
  EXPECT_EQ(r.err, "varloctl: the agent closed the connection in the middle of a reply\n");
  r = play({A::expect(header(23, kEmpty) + request(0)), A::send(reply(34, 23, 0, 1, 0xFF)),
            A::close()}, {"census"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.err, "varloctl: wrong password\n");
}

TEST(VarloctlInterrupt, CtrlCClosesTheConnectionAndExits130) {
  // A real SIGINT breaks poll() with EINTR; the flag alone is one just before poll().
  for (const bool bySignal : {true, false}) {
    const auto start = std::chrono::steady_clock::now();
    Result r;
    {
      const CtrlCLater ctrlC(bySignal);
      ASSERT_TRUE(ctrlC.installed());
      // The agent reads until the tool hangs up: only a closed connection ends in time.
      r = play({A::expect(header(23, kEmpty) + request(0)), A::send(extHeader(23, 0, 0, 20))},
               {"census"}, "10", true);
    }
    EXPECT_EQ(r.status, 130) << bySignal;
    // The progress line is gone before the message.
    EXPECT_EQ(r.err, "\rscanned 20 files\r" + std::string(16, ' ') + "\rvarloctl: interrupted\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << bySignal;
  }
}
