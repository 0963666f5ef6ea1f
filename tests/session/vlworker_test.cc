// One session on a socket pair: the worker on one end, the test as the
// console on the other.
#include "session/vlworker.h"

#include "session/session.h"

#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <sstream>
#include <thread>

#include "prefs/prefs.h"
#include "test_support.h"
#include "console_end.h"
#include "varlo/records.h"

using namespace varlo;
using namespace std::chrono_literals;
using test_support::Bytes;

namespace {

class WorkerSession : public ::testing::Test {
 protected:
  void SetUp() override {
    PrefsSources sources;
    sources.localPrefsDir = prefsDir_.path;
    sources.utmp = prefsDir_ / "utmp";
    sources.wtmp = prefsDir_ / "wtmp";
    sources.logindSeats = prefsDir_ / "seats";
    sources.folders.clear();
    prefs_ = std::make_unique<CPrefs>(sources);
    prefs_->init();
  }

  void TearDown() override {
    if (thread_.joinable()) thread_.join();
  }

  // Starts a worker on a fresh connection.
  void start() {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    console_ = test_support::ConsoleEnd(fds[1]);
    worker_ = std::make_unique<VLWorker>(prefs_.get());
    VLWorker::task task{fds[0], {}, {}};
    ASSERT_EQ(worker_->init(&task), 0);
    thread_ = std::thread(&VLWorker::run, worker_.get());
  }

  // Ends the session and the worker, which closes its end.
  void finish() {
    thread_.join();
    EXPECT_TRUE(worker_->finished());
    worker_.reset();
  }

  void send(const void* data, std::size_t n) { ASSERT_TRUE(console_.send(data, n)); }
  template <std::size_t N>
  void send(const WireRecord<N>& r) {
    send(r.data(), N);
  }
  void sendHeader(std::uint16_t command, const std::string& password) {
    ASSERT_TRUE(console_.sendHeader(command, password));
  }
  Bytes receive(std::size_t n, std::chrono::milliseconds wait = 3000ms) {
    return console_.receive(n, wait);
  }
  bool closedByAgent() { return console_.closedByPeer(); }

  test_support::TempDir prefsDir_;
  test_support::LogCapture log_;
  std::unique_ptr<CPrefs> prefs_;
  std::unique_ptr<VLWorker> worker_;
  std::thread thread_;
  test_support::ConsoleEnd console_;
};

using test_support::prefixOf;
Bytes prefix(const Bytes& record) { return prefixOf(record); }

}  // namespace

TEST_F(WorkerSession, UnknownCodeIsLoggedAndUnanswered) {
  start();
  sendHeader(11, "");
  EXPECT_TRUE(closedByAgent());
  const std::string who = "Worker Thread: " + std::to_string(worker_->id());
  finish();
  const auto lines = log_.messages();
  EXPECT_TRUE(log_.contains(who + " starting"));
  EXPECT_TRUE(log_.contains(who + " received unknown command: 11"));
  EXPECT_TRUE(log_.contains(who + " finished"));
  EXPECT_EQ(lines.back(), who + " successfully closed socket.");
}

TEST_F(WorkerSession, WrongPasswordGetsTheRejectionRecordOfItsCommand) {
  ASSERT_EQ(prefs_->changePassword("right"), 0);
  struct Case {
    std::uint16_t code;
    std::size_t size;
  };
  for (const Case c : {Case{12, 268}, Case{1, 1272}, Case{3, 14}, Case{23, 34}, Case{33, 324},
                       Case{34, 324}, Case{24, 0}, Case{11, 0}}) {
    start();
    sendHeader(c.code, "wrong");
    const Bytes reply = receive(2000, 1500ms);
    finish();
    ASSERT_EQ(reply.size(), c.size) << "command " << c.code;
    if (c.size == 0) continue;
    EXPECT_EQ(prefix(reply), (Bytes{0, static_cast<std::uint8_t>(c.code), 0, 1, 0xFF}));
    EXPECT_EQ(std::count(reply.begin() + 5, reply.end(), 0), static_cast<long>(c.size - 5));
  }
  EXPECT_TRUE(log_.contains("Password did not validate!"));
}

TEST_F(WorkerSession, SilentConsoleTimesOutAfterASecond) {
  start();
  const auto before = std::chrono::steady_clock::now();
  EXPECT_TRUE(receive(1, 3000ms).empty());
  const auto waited = std::chrono::steady_clock::now() - before;
  EXPECT_GE(waited, 900ms);
  EXPECT_LT(waited, 2500ms);
  const std::string id = std::to_string(worker_->id());
  finish();
  EXPECT_TRUE(log_.contains("Worker " + id + " did not receive data in a timely manner"));

  // A header split by a pause longer than a second fails too.
  start();
  send("\x00\x11\x00", 3);
  std::this_thread::sleep_for(1300ms);
  // The agent has given up by now, so this may find the connection closed.
  ::send(console_.fd(), "\x00\x00\x00\x00\x00\x00\x00\x00\x00", 9, MSG_NOSIGNAL);
  EXPECT_TRUE(closedByAgent());
  finish();
}

TEST_F(WorkerSession, ChangePasswordAndItsFailedRequest) {
  start();
  sendHeader(17, "");
  send("\x03new\0\0\0\0", 8);
  Bytes reply = receive(324);
  ASSERT_EQ(reply.size(), 324u);
  EXPECT_EQ(prefix(reply), (Bytes{0, 17, 1, 1, 0}));
  finish();
  EXPECT_EQ(prefs_->validatePassword("new"), 1);

  // The request never comes: the reply still goes out, as a failure.
  start();
  sendHeader(17, "new");
  reply = receive(324, 3000ms);
  ASSERT_EQ(reply.size(), 324u);
  EXPECT_EQ(prefix(reply), (Bytes{0, 17, 0, 1, 0}));
  finish();
  EXPECT_EQ(prefs_->validatePassword("new"), 1);
}

TEST_F(WorkerSession, AssignDbmsKeyEchoesTheRequest) {
  start();
  sendHeader(33, "");
  varlo_manage::Bytes request{};
  for (std::size_t i = 0; i < request.size(); ++i) request[i] = static_cast<std::uint8_t>(i * 7);
  putU32(request.data() + 36, 0xDEADBEEF);
  send(request);
  const Bytes reply = receive(324);
  finish();
  ASSERT_EQ(reply.size(), 324u);
  EXPECT_EQ(prefix(reply), (Bytes{0, 33, 1, 1, 0}));
  EXPECT_TRUE(std::equal(reply.begin() + 5, reply.end(), request.begin() + 5));
  EXPECT_EQ(prefs_->dbmsKey(), 0xDEADBEEFu);
}

TEST_F(WorkerSession, StoreNotesCollectsTenAndWritesOnce) {
  start();
  sendHeader(21, "");
  EXPECT_EQ(prefix(receive(324)), (Bytes{0, 21, 1, 0, 0}));
  for (std::uint32_t i = 0; i < 10; ++i) {
    send(varlo_note{i, i % 3 == 0 ? "note " + std::to_string(i) : ""}.encode());
    EXPECT_EQ(prefix(receive(324)), (Bytes{0, 21, 1, 0, 0})) << i;
  }
  EXPECT_TRUE(closedByAgent());
  finish();
  const auto file = test_support::slurp(prefs_->prefsFile());
  ASSERT_TRUE(file.has_value());
  EXPECT_EQ(*file, "Note0 note 0\nNote3 note 3\nNote6 note 6\nNote9 note 9\n");

  // Dropped after the fourth note: four handed over, nothing written.
  start();
  sendHeader(21, "");
  receive(324);
  for (std::uint32_t i = 0; i < 4; ++i) {
    send(varlo_note{i, "again " + std::to_string(i)}.encode());
    receive(324);
  }
  console_.close();
  finish();
  std::string text;
  ASSERT_EQ(prefs_->retrieveNote(text, 3), 0);
  EXPECT_EQ(text, "again 3");
  EXPECT_EQ(test_support::slurp(prefs_->prefsFile()), file);
}

TEST_F(WorkerSession, RetrieveNotesStopsAtTheConsolesRefusal) {
  ASSERT_EQ(prefs_->storeNotes(std::string(300, 'x').c_str(), 0, false), 0);
  ASSERT_EQ(prefs_->storeNotes("second", 1, false), 0);
  start();
  sendHeader(22, "");
  EXPECT_EQ(prefix(receive(324)), (Bytes{0, 0, 1, 0, 0}));
  for (std::uint32_t i = 0; i < 3; ++i) {
    const Bytes wire = receive(varlo_note::kSize);
    ASSERT_EQ(wire.size(), varlo_note::kSize);
    varlo_note::Bytes record;
    std::copy(wire.begin(), wire.end(), record.begin());
    const varlo_note note = varlo_note::decode(record);
    EXPECT_EQ(note.index, i);
    const std::string expected[] = {std::string(255, 'x'), "second", ""};  // the first cut to the field
    EXPECT_EQ(note.text, expected[i]);
    send(varlo_manage::acknowledgement(i != 2));
  }
  EXPECT_TRUE(closedByAgent());  // notes 3 to 9 never come
  finish();
  EXPECT_TRUE(log_.contains("Received a false result from Pathmere"));
}

TEST_F(WorkerSession, FileDataArrivesInAcknowledgedChunks) {
  std::stringstream file;
  int result = -2;
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  console_ = test_support::ConsoleEnd(fds[1]);
  Session session(fds[0], 7, *prefs_);
  thread_ = std::thread([&] { result = session.receiveFileData(file); });

  const std::string first(5000, 'a');  // more than one 3072-byte piece
  auto chunk = [&](const std::string& data, bool last) {
    send(Bytes{0, 0, 1, static_cast<std::uint8_t>(last), 0, 0, 0, 0, 0, 0, 0, 0}.data(), 12);
    std::uint8_t length[4];
    putU32(length, static_cast<std::uint32_t>(data.size()));
    send(length, 4);
    send(data.data(), data.size());
    EXPECT_EQ(prefix(receive(324)), (Bytes{0, 0, 1, 1, 0}));
  };
  chunk(first, false);
  chunk("", false);  // an empty chunk is acknowledged like any other
  chunk("tail", true);
  EXPECT_EQ(prefix(receive(324)), (Bytes{0, 0, 1, 1, 0}));  // the closing acknowledgement
  thread_.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(file.str(), first + "tail");
  EXPECT_TRUE(log_.contains("Received: 5004 bytes total"));

  // A length that never arrives is answered with the refusal.
  thread_ = std::thread([&] { result = session.receiveFileData(file); });
  send(Bytes{0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}.data(), 12);
  const Bytes refusal = receive(324);
  thread_.join();
  EXPECT_EQ(result, -1);
  ASSERT_EQ(refusal.size(), 324u);
  EXPECT_EQ(prefix(refusal), (Bytes{0, 0, 0, 1, 0}));
  EXPECT_EQ(refusal[68], std::strlen("Failed to receive data."));
}
