// varloctl's file transfers and system actions against a scripted agent:
// the exact bytes sent, the answers shown, refusals with their text.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "test_support.h"
#include "varloctl/clock_time.h"
#include "varloctl/ctl_error.h"
#include "varloctl/file_transfer.h"
#include "varloctl/package_archive.h"
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
  spit(dir / "empty", "");
  const struct {
    Words words;
    Bytes request;
    std::vector<std::string> chunks;
    std::string out;
  } cases[] = {
      {{"send", dir / "data.bin"},
       nameRecord("data.bin", 0, "XXXX"),
       {data.substr(0, kChunk), data.substr(kChunk)},
       "name              data.bin\nfolder code       XXXX\nfiles             1\n"
       "bytes             " + std::to_string(kChunk + 10) + "\nlaunch requested  no\n"},
      // An empty file is one empty last chunk.
      {{"send", "--launch", dir / "empty", "--folder=desk"},
       nameRecord("empty", 1, "desk"),
       {""},
       "name              empty\nfolder code       desk\nfiles             1\n"
       "bytes             0\nlaunch requested  yes\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words.back());
    Script s = {A::expect(header(18, kEmpty) + c.request), A::send(kAck)};
    std::uint32_t size = 0;
    for (const auto& ch : c.chunks) size += std::uint32_t(ch.size());
    fileSteps(s, size, c.chunks);
    const Result r = play(s, c.words);
    EXPECT_EQ(r.mismatch, "");
    EXPECT_TRUE(r.extra.empty());
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, "");  // no terminal, no progress line
  }
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
      {{}, false, table, false},
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

TEST(VarloctlUpdateDialogue, ThePackageGoesAsTheUpdateArchive) {
  TempDir dir;
  constexpr std::size_t kChunk = varloctl::FileSender::kChunk;
  const std::string deb = "!<arch>\ndebian-binary   " + std::string(kChunk, 'p');
  spit(dir / "varlo_2.1_amd64.deb", deb);
  struct stat st {};
  ASSERT_EQ(::stat((dir / "varlo_2.1_amd64.deb").c_str(), &st), 0);
  const auto archive = varloctl::packageArchive("varlo_2.1_amd64.deb",
                                                Bytes(deb.begin(), deb.end()), st.st_mtime);
  ASSERT_GT(archive.size(), kChunk);
  Script s = {A::expect(header(18, kEmpty) + nameRecord("Varlo.pkg.tar.gz", 0, "XXXY")),
              A::send(kAck)};
  fileSteps(s, std::uint32_t(archive.size()),
            {std::string(archive.begin(), archive.begin() + kChunk),
             std::string(archive.begin() + kChunk, archive.end())});
  const Result r = play(s, {"update", dir / "varlo_2.1_amd64.deb"});
  EXPECT_EQ(r.mismatch, "");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("archive     Varlo.pkg.tar.gz\n"), std::string::npos) << r.out;
}

// The archive is what tar and gzip make of it: checked with the system's tar
// (the agent unpacks it with that too).
TEST(VarloctlPackageArchive, UnpacksToTheFolderWithThePackage) {
  if (::access("/bin/tar", X_OK) != 0 && ::access("/usr/bin/tar", X_OK) != 0)
    GTEST_SKIP() << "no tar here";
  for (const std::size_t size : {std::size_t(0), std::size_t(511), std::size_t(200000)}) {
    SCOPED_TRACE(size);
    TempDir dir;
    std::string package(size, '\0');
    for (std::size_t i = 0; i < size; ++i) package[i] = static_cast<char>(i % 253);
    const auto archive =
        varloctl::packageArchive("x_1.0_all.deb", Bytes(package.begin(), package.end()), 1700000000);
    spit(dir / "Varlo.pkg.tar.gz", std::string(archive.begin(), archive.end()));
    const std::string cmd = "cd '" + dir.path + "' && tar -xzf Varlo.pkg.tar.gz 2>&1";
    FILE* p = ::popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    char buf[256];
    std::string complaints;
    while (std::fgets(buf, sizeof buf, p) != nullptr) complaints += buf;
    EXPECT_EQ(::pclose(p), 0) << complaints;
    EXPECT_EQ(complaints, "");
    EXPECT_EQ(test_support::slurp(dir / "Varlo.pkg/x_1.0_all.deb"), package);
    struct stat st {};
    ASSERT_EQ(::stat((dir / "Varlo.pkg/x_1.0_all.deb").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1700000000);
  }
}

TEST(VarloctlActionDialogue, RequestsAndAnswers) {
  const Bytes shutdownOk = reply(268, 0, 1, 1);
  Bytes notRoot = reply(268, 0, 0, 1);
  const Bytes rootText = pstring("Varlo needs root privileges to shutdown system");
  std::copy(rootText.begin(), rootText.end(), notRoot.begin() + 12);
  Bytes echo = record(324, {{68, pstring("Back at 5, \"sorry\"")}});
  Bytes echoed = echo;
  echoed[2] = echoed[3] = 1;
  const struct {
    Words words;
    Script script;
    int status;
    std::string out, err;
  } cases[] = {
      {{"reboot", "--yes"},
       {A::expect(header(13, kEmpty)), A::send(shutdownOk)},
       0,
       "rebooting  yes\n",
       ""},
      {{"shutdown", "--yes"},
       {A::expect(header(12, kEmpty)), A::send(notRoot)},
       1,
       "",
       "the agent did not shut down: Varlo needs root privileges to shutdown system"},
      // A local time is sent as it is, whatever this machine's zone.
      {{"clock", "--time", "2024-03-01T12:00:00"},
       {A::expect(header(14, kEmpty) + be32(3792139200u)), A::send(reply(324, 14, 1, 1))},
       0,
       "clock set to        2024-03-01 12:00:00\nseconds since 1904  3792139200\n",
       ""},
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
      {{"message", "Back at 5, \"sorry\""},
       {A::expect(header(20, kEmpty) + echo), A::send(echoed)},
       0,
       "message  Back at 5, \"sorry\"\nshown    yes\n",
       ""},
      {{"launch", "7"},
       {A::expect(header(16, kEmpty) + be32(7)), A::send(kAck)},
       0,
       "index     7\nlaunched  yes\n",
       ""},
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
      {{"shutdown"}, answer(""), 1, "not confirmed"},
      {{"reboot"}, answer(std::nullopt), 1, "not confirmed"},
      {{"shutdown"}, {}, 2, "shut down 127.0.0.1: no terminal to confirm on; give --yes"},
      {{"reboot", "--json"}, {}, 2, "reboot 127.0.0.1: no terminal to confirm on"},
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
      {"1970-01-01T00:00:00Z", -18000, 2082844800 - 18000},
      {"1970-01-01T00:00:00-0530", 0, 2082844800 + 19800},
      {"2024-02-29T23:59:59", 0, 3792095999},
      {"2023-02-29T12:00:00", 0, -1},
      {"2024-13-01T12:00:00", 0, -1},
      {"2024-01-01T24:00:00", 0, -1},
      {"2024-01-01T12:00:00+1", 0, -1},
      {"2024-01-01T12:00:00 ", 0, -1},
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
      {{"send"}, "usage: varloctl [OPTIONS] HOST send PATH [--folder CODE] [--launch]"},
      {{"send", dir / "missing"}, "cannot read"},
      {{"send", dir / "fifo"}, "is neither a file nor a folder"},
      {{"send", dir / "f", "--folder", "abc"}, "the folder code must be four printable"},
      {{"send", dir / "f", "--folder", "ab\tc"}, "the folder code must be four printable"},
      {{"send", dir / "f", "--folder", "desk", "--folder", "shdf"}, "--folder is given twice"},
      {{"send", dir / "f", "--launch=1"}, "--launch takes no value"},
      {{"send", dir / "d", "--launch"}, "--launch applies to a file, not a folder"},
      {{"send", dir / std::string(256, 'n')}, "cannot read"},
      {{"clock", "--folder", "desk"}, "--folder applies to send only"},
      {{"clock", "--yes"}, "--yes applies to shutdown and reboot only"},
      {{"clock", "--time", "yesterday"}, "the time must look like 2024-05-01T13:30:00"},
      {{"clock", "--time"}, "--time needs a value"},
      {{"kill", "0"}, "the process id must not be 0"},
      {{"kill", "2147483648"}, "the process id must be a number from 0 to 2147483647"},
      {{"kill", "-5"}, "unknown option '-5'"},
      {{"launch", "4294967296"}, "the application index must be a number"},
      {{"message", ""}, "the message is empty"},
      {{"message", std::string(256, 'm')}, "the message has 256 bytes"},
      {{"message", "a", "b"}, "usage: varloctl [OPTIONS] HOST message TEXT"},
      {{"update", dir / "notes.txt"}, "the package must be a .deb or .rpm file"},
      {{"update", dir / "gone.deb"}, "cannot read"},
      {{"throughput", "x"}, "usage: varloctl [OPTIONS] HOST throughput"},
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
