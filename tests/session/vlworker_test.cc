// Sessions on a loopback connection: the worker at one end, the test as the console.
#include "session/vlworker.h"

#include <netinet/in.h>
#include <unistd.h>

#include <thread>

#include "console_end.h"
#include "prefs/prefs.h"
#include "test_support.h"

using namespace varlo;
using namespace std::chrono_literals;
using test_support::Bytes;
using test_support::prefixOf;

namespace {

// A loopback TCP connection: the agent's end, then the console's.
std::array<int, 2> connectedPair() {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in at{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t len = sizeof at;
  auto* addr = reinterpret_cast<sockaddr*>(&at);
  EXPECT_EQ(bind(listener, addr, len) | listen(listener, 1) | getsockname(listener, addr, &len), 0);
  const int console = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(connect(console, addr, len), 0);
  const std::array<int, 2> fds{accept(listener, nullptr, nullptr), console};
  close(listener);
  return fds;
}

// The first five bytes of each record in a run of records of one size.
std::vector<Bytes> prefixes(const Bytes& run, std::size_t size) {
  std::vector<Bytes> out;
  for (std::size_t at = 0; at < run.size(); at += size)
    out.push_back(prefixOf(Bytes(run.begin() + at, run.end())));
  return out;
}

class WorkerSession : public ::testing::Test {
 protected:
  void SetUp() override {
    PrefsSources sources;
    sources.localPrefsDir = prefsDir_.path;
    sources.folders.clear();
    prefs_ = std::make_unique<CPrefs>(sources);
    prefs_->init();
  }
  void TearDown() override {
    if (thread_.joinable()) thread_.join();
  }

  // A worker on a fresh connection, sent the header of code unless that is negative.
  void start(int code, const std::string& password = "") {
    const auto fds = connectedPair();
    console_ = test_support::ConsoleEnd(fds[1]);
    worker_ = std::make_unique<VLWorker>(prefs_.get());
    VLWorker::task task{fds[0], {}, {}};
    ASSERT_EQ(worker_->init(&task), 0);
    id_ = std::to_string(worker_->id());
    thread_ = std::thread(&VLWorker::run, worker_.get());
    if (code >= 0) {
      ASSERT_TRUE(console_.sendHeader(static_cast<std::uint16_t>(code), password));
    }
  }
  // Waits for the worker to end; it closes its end.
  void finish() {
    thread_.join();
    EXPECT_TRUE(worker_->finished());
    worker_.reset();
  }
  // A whole session: header, input, end of input; what the agent sent until it closed.
  Bytes exchange(int code, const Bytes& input, const std::string& password = "") {
    start(code, password);
    EXPECT_TRUE(console_.send(input.data(), input.size()));
    shutdown(console_.fd(), SHUT_WR);
    const Bytes out = console_.receive(1 << 16);
    finish();
    return out;
  }

  test_support::TempDir prefsDir_;
  test_support::LogCapture log_;
  std::unique_ptr<CPrefs> prefs_;
  std::unique_ptr<VLWorker> worker_;
  std::string id_;
  std::thread thread_;
  test_support::ConsoleEnd console_;
};

}  // namespace

TEST_F(WorkerSession, UnknownCodeIsLoggedAndUnanswered) {
  EXPECT_TRUE(exchange(11, {}).empty());
  const std::string who = "Worker Thread: " + id_;
  const auto m = log_.messages();
  EXPECT_EQ(std::vector(m.end() - std::min<std::size_t>(4, m.size()), m.end()),
            (std::vector<std::string>{who + " starting", who + " received unknown command: 11",
                                      who + " finished", who + " successfully closed socket."}));
}

TEST_F(WorkerSession, WrongPasswordGetsTheRejectionRecordOfItsCommand) {
  ASSERT_EQ(prefs_->changePassword("right"), 0);
  for (const auto& [code, size] : {std::pair{12, 268}, {1, 1272}, {3, 14}, {23, 34}, {33, 324},
                                   {34, 324}, {24, 0}, {11, 0}}) {
    const Bytes reply = exchange(code, {}, "wrong");
    ASSERT_EQ(reply.size(), static_cast<std::size_t>(size)) << "command " << code;
    if (size == 0) continue;
    EXPECT_EQ(prefixOf(reply), (Bytes{0, static_cast<std::uint8_t>(code), 0, 1, 0xFF}));
    EXPECT_EQ(std::count(reply.begin() + 5, reply.end(), 0), size - 5);
  }
  EXPECT_TRUE(log_.contains("Password did not validate!"));
}

TEST_F(WorkerSession, ASplitHeaderOrAResetEndsTheSession) {
  start(-1);  // a header split by a pause longer than a second
  ASSERT_TRUE(console_.send("\x00\x11\x00", 3));
  std::this_thread::sleep_for(1300ms);
  // The agent has given up by now, so this may find the connection closed.
  ::send(console_.fd(), "\x00\x00\x00\x00\x00\x00\x00\x00\x00", 9, MSG_NOSIGNAL);
  EXPECT_TRUE(console_.closedByPeer());
  finish();
  EXPECT_TRUE(log_.contains("Worker " + id_ + " did not receive data in a timely manner"));

  start(-1);
  const linger abort{1, 0};  // the close sends a reset, not the end of the stream
  ASSERT_EQ(setsockopt(console_.fd(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort), 0);
  console_.close();
  finish();
  EXPECT_EQ(log_.count("Error checking for received data. Error: 104"), 1);
  EXPECT_FALSE(log_.contains("Worker " + id_ + " did not receive data in a timely manner"));
}

TEST_F(WorkerSession, ChangePasswordAndARequestThatNeverComes) {
  EXPECT_EQ(prefixOf(exchange(17, {3, 'n', 'e', 'w', 0, 0, 0, 0})), (Bytes{0, 17, 1, 1, 0}));
  EXPECT_EQ(prefs_->validatePassword("new"), 1);
  const Bytes failed = exchange(17, {}, "new");  // the reply still goes out, as a failure
  EXPECT_EQ(failed.size(), 324u);
  EXPECT_EQ(prefixOf(failed), (Bytes{0, 17, 0, 1, 0}));
  EXPECT_EQ(prefs_->validatePassword("new"), 1);
}

// Only a whole request sets the key (and is echoed); one cut short fails, the key kept.
TEST_F(WorkerSession, AssignDbmsKeyTakesOnlyAWholeRequest) {
  ASSERT_EQ(prefs_->setDBMSKey(77), 0);
  Bytes request(324);
  for (std::size_t i = 0; i < request.size(); ++i) request[i] = static_cast<std::uint8_t>(i * 7);
  putU32(request.data() + 36, 0xDEADBEEF);
  for (const std::size_t sent : {0ul, 2ul, 38ul, request.size()}) {
    const bool whole = sent == request.size();
    const Bytes reply = exchange(33, Bytes(request.begin(), request.begin() + sent));
    ASSERT_EQ(reply.size(), 324u) << sent;
    EXPECT_EQ(prefixOf(reply), (Bytes{0, 33, whole, 1, 0})) << sent;
    const Bytes echo = whole ? request : Bytes(324);
    EXPECT_TRUE(std::equal(reply.begin() + 5, reply.end(), echo.begin() + 5)) << sent;
    EXPECT_EQ(prefs_->dbmsKey(), whole ? 0xDEADBEEFu : 77u) << sent;
  }
}

TEST_F(WorkerSession, StoreNotesKeepsIndexesZeroToNineWritesOnceAndNotBeforeTheTenth) {
  const auto notes = [](std::initializer_list<std::pair<std::uint32_t, std::string>> list) {
    Bytes wire;
    for (const auto& [index, text] : list) {
      const auto note = varlo_note{index, text}.encode();
      wire.insert(wire.end(), note.begin(), note.end());
    }
    return wire;
  };
  const Bytes acks = exchange(21, notes({{0, "note 0"}, {1, ""}, {2, ""}, {3, "note 3"}, {10, "ten"},
                                         {0xFFFFFFFF, "max"}, {6, "note 6"}, {7, ""}, {8, ""},
                                         {9, "note 9"}}));
  EXPECT_EQ(prefixes(acks, 324), std::vector(11, Bytes{0, 21, 1, 0, 0}));
  const auto file = test_support::slurp(prefs_->prefsFile());
  EXPECT_EQ(file, "Note0 note 0\nNote3 note 3\nNote6 note 6\nNote9 note 9\n");
  EXPECT_EQ(log_.count("Note index 10 is out of range, note not stored"), 1);
  EXPECT_EQ(log_.count("Note index -1 is out of range, note not stored"), 1);
  EXPECT_EQ(log_.count("Successfully wrote notes to file"), 1);

  // Ended after the fourth note: four handed over, nothing written.
  EXPECT_EQ(prefixes(exchange(21, notes({{0, "a"}, {1, "b"}, {2, "c"}, {3, "again 3"}})), 324),
            std::vector(5, Bytes{0, 21, 1, 0, 0}));
  std::string text;
  ASSERT_EQ(prefs_->retrieveNote(text, 3), 0);
  EXPECT_EQ(text, "again 3");
  EXPECT_EQ(test_support::slurp(prefs_->prefsFile()), file);
}

TEST_F(WorkerSession, RetrieveNotesStopsAtTheConsolesRefusal) {
  ASSERT_EQ(prefs_->storeNotes(std::string(300, 'x').c_str(), 0, false), 0);
  ASSERT_EQ(prefs_->storeNotes("second", 1, false), 0);
  Bytes acks;
  for (bool ok : {true, true, false}) {
    const auto ack = varlo_manage::acknowledgement(ok);
    acks.insert(acks.end(), ack.begin(), ack.end());
  }
  const Bytes out = exchange(22, acks);
  ASSERT_EQ(out.size(), 324 + 3 * varlo_note::kSize);  // notes 3 to 9 never come
  EXPECT_EQ(prefixOf(out), (Bytes{0, 0, 1, 0, 0}));
  const std::string expected[] = {std::string(255, 'x'), "second", ""};  // cut to the field
  for (std::uint32_t i = 0; i < 3; ++i) {
    varlo_note::Bytes wire;
    std::copy_n(out.begin() + 324 + i * varlo_note::kSize, wire.size(), wire.begin());
    EXPECT_EQ(varlo_note::decode(wire).index, i);
    EXPECT_EQ(varlo_note::decode(wire).text, expected[i]);
  }
  EXPECT_TRUE(log_.contains("Received a false result from Pathmere"));
}
