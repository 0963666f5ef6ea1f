// varloctl's file transfers and system actions against a scripted agent:
// the exact bytes sent, the answers shown, refusals with their text.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "test_support.h"
#include "varloctl/clock_time.h"
#include "varloctl/ctl_error.h"
#include "varloctl/file_transfer.h"
#include "varloctl_fake_agent.h"

using namespace varloctl_test;
using test_support::listHeader;
using test_support::spit;
using test_support::TempDir;
using A = FakeAgent;

namespace {

const Bytes kAck = reply(324, 0, 1, 1);
const Bytes kStep = bytes({0, 0, 1, 0}) + Bytes(8, 0);

Bytes refused(const std::string& text) {
  Bytes r = reply(324, 0, 0, 1);
  const Bytes p = pstring(text);
  std::copy(p.begin(), p.end(), r.begin() + 68);
  return r;
}

Bytes code4(const char* c) { return Bytes(c, c + 4); }

// Send File's request, and Send Folder's request and item records.
Bytes nameRecord(const std::string& name, int byte2, const char* code = "\0\0\0\0") {
  return record(324, {{2, bytes({byte2})}, {36, code4(code)}, {68, pstring(name)}});
}

Bytes chunk(bool last, const std::string& data) {
  return bytes({0, 0, 1, last ? 1 : 0}) + Bytes(8, 0) + be32(std::uint32_t(data.size())) +
         Bytes(data.begin(), data.end());
}

// A file's dialogue after the agent acknowledged its creation; data in the
// chunks given.
void fileSteps(Script& s, std::uint32_t size, const std::vector<std::string>& chunks) {
  s.push_back(A::expect(kStep + bytes({1, 0})));
  s.push_back(A::send(kAck));
  s.push_back(A::expect(kStep + be32(size)));
  s.push_back(A::send(kAck));
  for (std::size_t i = 0; i < chunks.size(); ++i) {
    s.push_back(A::expect(chunk(i + 1 == chunks.size(), chunks[i])));
    s.push_back(A::send(kAck));
  }
  s.push_back(A::send(kAck));
  s.push_back(A::expect(kStep + Bytes(122, 0)));
  s.push_back(A::send(kAck));
}

}  // namespace

TEST(VarloctlSendDialogue, AFileGoesInAcknowledgedChunks) {
  TempDir dir;
  constexpr std::size_t kChunk = varloctl::FileSender::kChunk;
  std::string data(kChunk + 10, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 251);
  spit(dir / "data.bin", data);
  Script s = {A::expect(header(18, kEmpty) + nameRecord("data.bin", 1, "desk")), A::send(kAck)};
  fileSteps(s, std::uint32_t(data.size()), {data.substr(0, kChunk), data.substr(kChunk)});
  const Result r = play(s, {"send", "--launch", dir / "data.bin", "--folder=desk"});
  EXPECT_EQ(r.mismatch, "");
  EXPECT_TRUE(r.extra.empty());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "name              data.bin\nfolder code       desk\nfiles             1\n"
                   "bytes             " + std::to_string(kChunk + 10) + "\nlaunch requested  yes\n");
  EXPECT_EQ(r.err, "");  // no terminal, no progress line
}

TEST(VarloctlSendDialogue, AFolderGoesDepthFirstWithEndOfFolderRecords) {
  TempDir dir;
  ASSERT_EQ(::mkdir((dir / "top").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((dir / "top/sub").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((dir / "top/sub/deeper").c_str(), 0755), 0);
  spit(dir / "top/b.txt", "bee");
  spit(dir / "top/sub/a.txt", "ay!");
  ASSERT_EQ(::symlink("/etc/passwd", (dir / "top/link").c_str()), 0);  // left out

  const auto item = [](Script& s, const std::string& name, int folder, int end) {
    s.push_back(A::expect(nameRecord(name, 1) + bytes({folder, end})));
    s.push_back(A::send(kAck));
  };
  Script s = {A::expect(header(19, kSecret) + nameRecord("top", 0, "shdf")), A::send(kAck)};
  item(s, "b.txt", 0, 0);
  fileSteps(s, 3, {"bee"});
  item(s, "sub", 1, 0);
  item(s, "a.txt", 0, 0);
  fileSteps(s, 3, {"ay!"});
  item(s, "deeper", 1, 0);
  item(s, "deeper", 0, 1);
  item(s, "sub", 0, 1);
  item(s, "top", 0, 1);

  const std::string table =
      "name         top\nfolder code  shdf\nfiles        2\nfolders      2\nbytes        6\n"
      "skipped      1\n";
  // On a terminal the progress line shows, and is gone before the result;
  // not with --json.
  const struct {
    Words extra;
    bool terminal;
    std::string out;
    bool progress;
  } cases[] = {
      {{}, true, table, true},
      {{"--json"}, true,
       "{\n  \"name\": \"top\",\n  \"folder_code\": \"shdf\",\n  \"files\": 2,\n"
       "  \"folders\": 2,\n  \"bytes\": 6,\n  \"skipped\": 1\n}\n",
       false},
  };
  for (const auto& c : cases) {
    Words words = {"--password", "secret", "send", dir / "top", "--folder", "shdf"};
    words.insert(words.end(), c.extra.begin(), c.extra.end());
    const Result r = play(s, words, "2", c.terminal);
    EXPECT_EQ(r.mismatch, "");
    EXPECT_TRUE(r.extra.empty());
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err.find("sent 0.0 of 0.0 MB, ") != std::string::npos, c.progress) << r.err;
    if (c.progress) {
      EXPECT_EQ(r.err.back(), '\r');
    }
  }
}

TEST(VarloctlSendDialogue, RefusalsStopTheTransferWithTheAgentsText) {
  TempDir dir;
  spit(dir / "f", "xyz");
  ASSERT_EQ(::mkdir((dir / "d").c_str(), 0755), 0);
  spit(dir / "d/f", "xyz");
  const std::string text = "Could not create file /srv/f";
  Script fileCreate = {A::expect(header(18, kEmpty) + nameRecord("f", 0, "XXXX")),
                       A::send(refused(text))};
  // A full disk shows in the acknowledgement of the data.
  Script dataRefused = {A::expect(header(18, kEmpty) + nameRecord("f", 0, "XXXX")),
                        A::send(kAck),
                        A::expect(kStep + bytes({1, 0})),
                        A::send(kAck),
                        A::expect(kStep + be32(3)),
                        A::send(kAck),
                        A::expect(chunk(true, "xyz")),
                        A::send(refused("Failed to receive data."))};
  Script folderItem = {A::expect(header(19, kEmpty) + nameRecord("d", 0, "XXXX")),
                       A::send(kAck),
                       A::expect(nameRecord("f", 1) + bytes({0, 0})),
                       A::send(refused("Invalid file name"))};
  const struct {
    Words words;
    Script script;
    int status;
    std::string err;
  } cases[] = {
      {{"send", dir / "f"}, fileCreate, 1, "the agent refused f: " + text},
      {{"send", dir / "f"}, dataRefused, 1, "the agent refused f: Failed to receive data."},
      {{"send", dir / "d"}, folderItem, 1, "the agent refused f: Invalid file name"},
      {{"send", dir / "f"},
       {A::expect(header(18, kEmpty)), A::send(reply(324, 18, 0, 1, 0xFF)), A::close()},
       3,
       "wrong password"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    const Result r = play(c.script, c.words);
    EXPECT_EQ(r.mismatch, "");
    EXPECT_TRUE(r.extra.empty());  // nothing after the refusal
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

TEST(VarloctlActionDialogue, RequestsAndAnswers) {
  Bytes notRoot = reply(268, 0, 0, 1);
  const Bytes rootText = pstring("Varlo needs root privileges to shutdown system");
  std::copy(rootText.begin(), rootText.end(), notRoot.begin() + 12);
  const struct {
    Words words;
    Script script;
    int status;
    std::string out, err;
  } cases[] = {
      {{"shutdown", "--yes"},
       {A::expect(header(12, kEmpty)), A::send(notRoot)},
       1,
       "",
       "the agent did not shut down: Varlo needs root privileges to shutdown system"},
      {{"clock", "--time", "2024-03-01 12:00"},
       {A::expect(header(14, kEmpty) + be32(3792139200u)),
        A::send(refused("Root priviledges are needed to set the time"))},
       1,
       "",
       "the agent did not set its clock: Root priviledges are needed to set the time"},
      // The agent answers only after its signals had time to work: longer
      // than the time-out given for replies.
      {{"kill", "4242"},
       {A::expect(header(15, kEmpty) + be32(0) + be32(4242)), A::pause(400), A::send(kAck)},
       0,
       "pid    4242\nended  yes\n",
       ""},
      {{"kill", "0x10"},
       {A::expect(header(15, kEmpty) + be32(0) + be32(16)),
        A::send(refused("Tried to kill process but it is still alive"))},
       1,
       "",
       "the agent did not end process 16: Tried to kill process but it is still alive"},
      {{"launch", "8"},
       {A::expect(header(16, kEmpty) + be32(8)),
        A::send(refused("The application could not be found"))},
       1,
       "",
       "the agent did not launch application 8: The application could not be found"},
      // Launching blocked: the agent reads the index and says nothing.
      {{"launch", "9"},
       {A::expect(header(16, kEmpty) + be32(9)), A::close()},
       4,
       "",
       "launching applications is blocked there"},
      {{"kill", "5"},
       {A::expect(header(15, kEmpty)), A::send(reply(324, 15, 0, 1, 0xFF)), A::close()},
       3,
       "",
       "wrong password"},
      {{"reboot", "--yes"},
       {A::expect(header(13, kEmpty)), A::send(reply(268, 13, 0, 1, 0xFF)), A::close()},
       3,
       "",
       "wrong password"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words.front() + " " + c.words.back());
    const auto start = std::chrono::steady_clock::now();
    const Result r = play(c.script, c.words, "0.2");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_EQ(r.mismatch, "");
    EXPECT_TRUE(r.extra.empty());
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(r.out, c.out);
    if (c.err.empty())
      EXPECT_EQ(r.err, "");
    else
      EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
  }
}

TEST(VarloctlActionDialogue, ShutdownAndRebootAskFirst) {
  std::string asked;
  const auto answer = [&asked](std::optional<std::string> a) {
    return [&asked, a](const std::string& q) {
      asked = q;
      return a;
    };
  };
  // Told yes: the command goes.
  Result r = play({A::expect(header(13, kEmpty)), A::send(reply(268, 0, 1, 1))}, {"reboot"}, "2",
                  true, answer("y"));
  EXPECT_EQ(asked, "reboot 127.0.0.1? [y/N] ");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.mismatch, "");
  // Anything else, or no terminal at all: nothing is sent (no agent listens).
  const struct {
    Words words;
    varloctl::App::Ask ask;
    int status;
    std::string err;
  } refusals[] = {
      {{"shutdown"}, answer("n"), 1, "not confirmed; nothing was sent"},
      {{"reboot"}, answer(std::nullopt), 1, "not confirmed"},
      {{"shutdown"}, {}, 2, "shut down 127.0.0.1: no terminal to confirm on; give --yes"},
  };
  for (const auto& c : refusals) {
    SCOPED_TRACE(c.err);
    Words words = {"--port", "1", "127.0.0.1"};
    words.insert(words.end(), c.words.begin(), c.words.end());
    r = ctl(words, true, c.ask);
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
  }
}

TEST(VarloctlActionDialogue, ThroughputTimesEachPartitionAndSendsTheGoAhead) {
  const auto partition = [](const std::string& name) {
    return listHeader(24, 0, 1) + record(50, {{0, pstring(name)}}) + Bytes(1 << 20, 0x5a);
  };
  const Bytes goAhead(12, 0);
  Script s = {A::expect(header(24, kEmpty)), A::send(partition("/")), A::expect(goAhead),
              A::send(partition("/home")), A::expect(goAhead), A::send(listHeader(24, 1, 0))};
  Result r = play(s, {"throughput"});
  EXPECT_EQ(r.mismatch, "");
  EXPECT_TRUE(r.extra.empty());
  EXPECT_EQ(r.status, 0) << r.err;
  ASSERT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 3) << r.out;
  EXPECT_TRUE(r.out.starts_with("PARTITION  MICROSECONDS  MEGABYTES PER SECOND\n/  ")) << r.out;
  EXPECT_NE(r.out.find("\n/home      "), std::string::npos) << r.out;
  // Two partitions in one header: not this test's dialogue.
  r = play({A::expect(header(24, kEmpty)), A::send(listHeader(24, 0, 2))}, {"throughput"});
  EXPECT_EQ(r.status, 7);
  EXPECT_NE(r.err.find("2 partitions at once"), std::string::npos) << r.err;
}

TEST(VarloctlClockTime, LocalTimeFromIso8601) {
  const auto zone = [](std::int64_t offset) {
    return [offset](std::int64_t) { return offset; };
  };
  const struct {
    std::string text;
    std::int64_t localOffset;
    std::int64_t want;  // -1: refused
  } cases[] = {
      {"1904-01-01T00:00:00", 3600, 0},
      {"1970-01-01T00:00", -18000, 2082844800},
      {"2040-02-06T06:28:15", 0, 4294967295},
      {"2040-02-06T06:28:16", 0, -1},
      {"1903-12-31T23:59:59", 0, -1},
      // A moment elsewhere, shown in the local zone.
      {"1970-01-01T01:00:00+01:00", 7200, 2082844800 + 7200},
      {"1970-01-01T00:00:00-0530", 0, 2082844800 + 19800},
      {"2024-02-29T23:59:59", 0, 3792095999},
      {"2023-02-29T12:00:00", 0, -1},
      {"2024-01-01T24:00:00", 0, -1},
      {"2024-01-01T12:00:00+1", 0, -1},
      {"2024-1-01T12:00:00", 0, -1},
      {"now", 0, -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    std::int64_t got = -1;
    try {
      got = varloctl::clockSecondsFromIso(c.text, zone(c.localOffset));
    } catch (const varloctl::CtlError& e) {
      EXPECT_EQ(e.status(), varloctl::kUsage);
    }
    EXPECT_EQ(got, c.want);
  }
  EXPECT_EQ(varloctl::clockSecondsText(0), "1904-01-01 00:00:00");
  EXPECT_EQ(varloctl::clockSecondsText(3792095999u), "2024-02-29 23:59:59");
}

TEST(VarloctlActionArgs, BadArgumentsAreRefusedBeforeConnecting) {
  TempDir dir;
  spit(dir / "f", "x");
  spit(dir / "notes.txt", "x");
  ASSERT_EQ(::mkdir((dir / "d").c_str(), 0755), 0);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  const struct {
    Words words;
    std::string err;
  } cases[] = {
      {{"send"}, "PATH is required (see varloctl send --help)"},
      {{"send", dir / "missing"}, "cannot read"},
      {{"send", dir / "fifo"}, "is neither a file nor a folder"},
      {{"send", dir / "f", "--folder", "abc"}, "the folder code must be four printable"},
      {{"send", dir / "f", "--folder", "desk", "--folder", "shdf"},
       "--folder: At Most 1 required but received 2"},
      {{"send", dir / "d", "--launch"}, "--launch applies to a file, not a folder"},
      {{"clock", "--folder", "desk"}, "--folder applies to send only"},
      {{"clock", "--yes"}, "--yes applies to shutdown and reboot only"},
      {{"clock", "--time", "yesterday"}, "the time must look like 2024-05-01T13:30:00"},
      {{"kill", "0"}, "the process id must not be 0"},
      {{"kill", "2147483648"}, "the process id must be a number from 0 to 2147483647"},
      {{"launch", "4294967296"}, "the application index must be a number"},
      {{"message", ""}, "the message is empty"},
      {{"message", std::string(256, 'm')}, "the message has 256 bytes"},
      {{"update", dir / "notes.txt"}, "the package must be a .deb or .rpm file"},
      {{"throughput", "x"}, "unexpected argument 'x' after throughput"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    Words words = {"--port", "1", "127.0.0.1"};
    words.insert(words.end(), c.words.begin(), c.words.end());
    const Result r = ctl(words);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
  }
}
