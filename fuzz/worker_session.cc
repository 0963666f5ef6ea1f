// A worker serving one console connection, driven over a socket pair: the
// first input byte picks Change Password, Assign DBMS Key, Store Notes or
// Retrieve Notes (its low two bits) and, with its top bit, a wrong password;
// the header for it is sent, then the rest of the input as the console's
// requests and replies, and the console's sending side is shut so every
// receive ends at once.
//
// Each run starts from the same preferences file. What the worker sends
// back, the settings it holds afterwards and what a fresh reader finds in
// the file it wrote are all checked against what the console sent.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "console_drain.h"
#include "prefs/password_block.h"
#include "prefs/prefs.h"
#include "session/vlworker.h"
#include "varlo/commands.h"
#include "varlo/records.h"

using namespace varlo;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint16_t kCommands[] = {kChangePasswordCommand, kAssignDbmsKeyCommand,
                                       kStoreNotesCommand, kRetrieveNotesCommand};
// Ten notes with ten replies is the longest dialogue; more only fills the
// socket buffer.
constexpr std::size_t kMaxBody = 16 * 1024;
constexpr std::uint32_t kStartKey = 7;

// The notes every run starts with; the reader keeps 298 characters of the
// long one and a note record carries 255 of them.
const std::map<int, std::string>& startNotes() {
  static const std::map<int, std::string> notes = {
      {0, "first note"}, {3, " leading blank"}, {7, std::string(300, 'n')}, {9, "last"}};
  return notes;
}

struct Folder {
  std::string path;
  Folder() {
    const char* base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
    path = std::string(base) + "/varlo_fuzz_XXXXXX";
    if (mkdtemp(path.data()) == nullptr) std::abort();
  }
  ~Folder() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
  }
};

const Folder& folder() {
  static const Folder f;
  return f;
}

PrefsSources sources() {
  PrefsSources s;
  s.localPrefsDir = folder().path;
  s.prefsFallbackDir = folder().path;
  s.utmp = folder().path + "/utmp";
  s.wtmp = folder().path + "/wtmp";
  s.logindSeats = folder().path + "/seats";
  s.folders.clear();
  return s;
}

void writeStartFile() {
  const std::string dir = folder().path + "/VarloPrefs";
  std::filesystem::create_directories(dir);
  std::ofstream out(dir + "/.varlo", std::ios::binary | std::ios::trunc);
  out << CPrefs::kDbmsKey << " " << kStartKey << "\n";
  for (const auto& [index, text] : startNotes()) out << "Note" << index << " " << text << "\n";
}

// A note as a fresh reader finds it: the writer puts a line break inside a
// value out as a blank, and the reader keeps 298 characters.
std::string asReadBack(std::string text) {
  for (char& c : text)
    if (c == '\n' || c == '\r') c = ' ';
  return text.substr(0, CPrefs::kLineLimit - 2);
}

std::map<int, std::string> notesOf(CPrefs& prefs) {
  std::map<int, std::string> notes;
  for (int i = 0; i < CPrefs::kNoteCount; ++i) {
    std::string text;
    if (prefs.retrieveNote(text, i) == 0) notes[i] = text;
  }
  return notes;
}

std::map<int, std::string> readBack(const std::map<int, std::string>& notes) {
  std::map<int, std::string> out;
  for (const auto& [index, text] : notes) out[index] = asReadBack(text);
  return out;
}

using fuzz_support::ConsoleDrain;

bool writeAll(int fd, const Bytes& data) {
  for (std::size_t done = 0; done < data.size();) {
    const ssize_t n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// The manage-shaped reply of the administrative commands.
void checkManage(const Bytes& out, std::size_t at, std::uint16_t command, bool success, bool last) {
  if (out.size() < at + varlo_manage::kSize) __builtin_trap();
  if (getU16(out.data() + at) != command || out[at + 2] != (success ? 1 : 0) ||
      out[at + 3] != (last ? 1 : 0) || out[at + 4] != 0)
    __builtin_trap();
}

bool allZero(const Bytes& out, std::size_t from, std::size_t to) {
  for (std::size_t i = from; i < to; ++i)
    if (out[i] != 0) return false;
  return true;
}

void changePassword(CPrefs& prefs, const Bytes& body, const Bytes& out) {
  const bool complete = body.size() >= 8;
  if (out.size() != varlo_manage::kSize) __builtin_trap();
  checkManage(out, 0, kChangePasswordCommand, complete, true);
  if (!allZero(out, ReplyPrefix::kSize, out.size())) __builtin_trap();
  std::string expected;  // a request cut short changes nothing
  if (complete) {
    WireRecord<8> request{};
    std::memcpy(request.data(), body.data(), request.size());
    expected = password_block::pascalText(request, 20);
  }
  if (prefs.validatePassword(expected) != 1) __builtin_trap();
  CPrefs fresh(sources());
  fresh.init();
  if (fresh.validatePassword(expected) != 1) __builtin_trap();
}

void assignKey(CPrefs& prefs, const Bytes& body, const Bytes& out) {
  const bool complete = body.size() >= varlo_manage::kSize;
  if (out.size() != varlo_manage::kSize) __builtin_trap();
  checkManage(out, 0, kAssignDbmsKeyCommand, complete, true);
  // The request comes back under the reply's prefix; a request cut short is
  // answered with zeros.
  for (std::size_t i = ReplyPrefix::kSize; i < out.size(); ++i)
    if (out[i] != (complete ? body[i] : 0)) __builtin_trap();
  const std::uint32_t key =
      complete ? getU32(body.data() + varlo_manage::KeyValue::offset) : kStartKey;
  if (prefs.dbmsKey() != key) __builtin_trap();
  CPrefs fresh(sources());
  fresh.init();
  if (fresh.dbmsKey() != key) __builtin_trap();
}

void storeNotes(CPrefs& prefs, const Bytes& body, const Bytes& out) {
  const std::size_t received =
      std::min<std::size_t>(body.size() / varlo_note::kSize, varlo_note::kCount);
  // One acknowledgement up front and one for each note received.
  if (out.size() != (received + 1) * varlo_manage::kSize) __builtin_trap();
  for (std::size_t i = 0; i <= received; ++i) {
    checkManage(out, i * varlo_manage::kSize, kStoreNotesCommand, true, false);
    if (!allZero(out, i * varlo_manage::kSize + ReplyPrefix::kSize, (i + 1) * varlo_manage::kSize))
      __builtin_trap();
  }
  std::map<int, std::string> expected = readBack(startNotes());
  for (std::size_t i = 0; i < received; ++i) {
    varlo_note::Bytes wire{};
    std::memcpy(wire.data(), body.data() + i * varlo_note::kSize, wire.size());
    const varlo_note note = varlo_note::decode(wire);
    // Stored as a C string: up to its first NUL; an empty one or one with
    // an index out of range changes nothing.
    const std::string text = note.text.substr(0, note.text.find('\0'));
    const int index = static_cast<int>(note.index);
    if (!text.empty() && index >= 0 && index < CPrefs::kNoteCount) expected[index] = text;
  }
  if (notesOf(prefs) != expected) __builtin_trap();
  // Only a dialogue that ran to its end writes the notes out.
  CPrefs fresh(sources());
  fresh.init();
  const auto onDisk = notesOf(fresh);
  if (onDisk != readBack(received == varlo_note::kCount ? expected : startNotes()))
    __builtin_trap();
}

// A wrong password: the command's rejection record and nothing else, and
// nothing changed.
void refused(std::uint16_t command, CPrefs& prefs, const Bytes& out) {
  if (out.size() != varlo_manage::kSize) __builtin_trap();
  if (getU16(out.data()) != command || out[2] != 0 || out[3] != 1 ||
      out[4] != ReplyPrefix::kPasswordRejected)
    __builtin_trap();
  if (!allZero(out, ReplyPrefix::kSize, out.size())) __builtin_trap();
  if (prefs.validatePassword("") != 1 || prefs.dbmsKey() != kStartKey) __builtin_trap();
  if (notesOf(prefs) != readBack(startNotes())) __builtin_trap();
}

void retrieveNotes(const Bytes& body, const Bytes& out) {
  // The agent's own acknowledgement counts as the console's reply until a
  // whole reply arrives; a reply without success ends the list.
  std::size_t sent = 0;
  bool go = true;
  for (std::size_t i = 0; i < static_cast<std::size_t>(varlo_note::kCount) && go; ++i) {
    ++sent;
    const std::size_t reply = i * varlo_manage::kSize;
    if (body.size() >= reply + varlo_manage::kSize && body[reply + ReplyPrefix::Success::offset] == 0)
      go = false;
  }
  if (out.size() != varlo_manage::kSize + sent * varlo_note::kSize) __builtin_trap();
  checkManage(out, 0, 0, true, false);
  if (!allZero(out, ReplyPrefix::kSize, varlo_manage::kSize)) __builtin_trap();
  const auto& notes = startNotes();
  for (std::size_t i = 0; i < sent; ++i) {
    varlo_note::Bytes wire{};
    std::memcpy(wire.data(), out.data() + varlo_manage::kSize + i * varlo_note::kSize, wire.size());
    const varlo_note note = varlo_note::decode(wire);
    if (note.index != i) __builtin_trap();
    const auto it = notes.find(static_cast<int>(i));
    const std::string want = it == notes.end() ? "" : asReadBack(it->second).substr(0, 255);
    if (note.text != want) __builtin_trap();
    if (varlo_note{note.index, note.text}.encode() != wire) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1 || size - 1 > kMaxBody) return 0;
  const std::uint16_t command = kCommands[data[0] % std::size(kCommands)];
  const bool wrongPassword = (data[0] & 0x80) != 0;
  const Bytes body(data + 1, data + size);

  writeStartFile();
  CPrefs prefs(sources());
  prefs.init();

  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) std::abort();
  const int console = fds[1];

  varlo_cmd_header header;
  header.command = command;
  header.passwordBlock = *password_block::seal(wrongPassword ? "guess" : "");
  const auto headerBytes = header.encode();
  Bytes sent(headerBytes.begin(), headerBytes.end());
  sent.insert(sent.end(), body.begin(), body.end());
  if (!writeAll(console, sent)) std::abort();
  ::shutdown(console, SHUT_WR);

  ConsoleDrain::instance().start(console);
  {
    VLWorker worker(&prefs);
    VLWorker::task task{fds[0], {}, {}};
    if (worker.init(&task) != 0) std::abort();
    worker.run();
    if (!worker.finished()) __builtin_trap();
  }
  const Bytes out = ConsoleDrain::instance().wait();
  ::close(console);

  if (wrongPassword) {
    refused(command, prefs, out);
    return 0;
  }
  switch (command) {
    case kChangePasswordCommand: changePassword(prefs, body, out); break;
    case kAssignDbmsKeyCommand: assignKey(prefs, body, out); break;
    case kStoreNotesCommand: storeNotes(prefs, body, out); break;
    case kRetrieveNotesCommand: retrieveNotes(body, out); break;
  }
  return 0;
}
