#include "software/apps_handler.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>

#include "base/unique_fd.h"
#include "session/list_batches.h"
#include "session/session.h"
#include "software/apps.h"
#include "varlo/software_records.h"

namespace {

constexpr std::chrono::milliseconds kBatchPause{10};

// The text a C string of it would hold.
std::string cText(const std::string& s) { return s.substr(0, s.find('\0')); }

void writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // a full disk loses the list, never the answer
    done += static_cast<std::size_t>(n);
  }
}

}  // namespace

int sendAppList(CApps& apps, const RecordSink& sink, const std::function<bool()>& pause,
                const std::string& listPath) {
  using varlo::varlo_app;
  // Not followed if it is a link: /tmp is anyone's, and this is a root write.
  UniqueFd list(::open(listPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                       0644));
  ListBatches<varlo_app> batches(varlo::kApplicationsCommand, sink);
  batches.setPause(pause);
  if (CApps::startThread(apps) != 0) return batches.finish();

  std::uint32_t index = 0;
  std::string path, version;
  while (apps.getNextApp(path, version) == 0) {
    ++index;
    path = cText(path);
    if (list.valid()) writeAll(list.get(), std::to_string(index) + " " + path + "\n");
    varlo_app entry;
    entry.name = path.substr(path.rfind('/') + 1);  // all of it without a '/'
    entry.version = cText(version);
    entry.index = index;
    if (batches.add(entry) != 0) return -1;
  }
  if (apps.stopRequested()) return -1;
  return batches.finish();
}

void sendAppsData(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  CApps apps(session.stopToken());
  sendAppList(apps, session.sink(), [&session] { return session.waitFor(kBatchPause); });
}
