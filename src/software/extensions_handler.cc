#include "software/extensions_handler.h"

#include <chrono>

#include "session/session.h"
#include "software/extensions.h"
#include "software/list_heartbeat.h"
#include "varlo/commands.h"

int sendExtensionList(CExtensions& extensions, const RecordSink& sink, const BatchPause& pause,
                      int beatSocket) {
  {
    ListHeartbeat beat(beatSocket, varlo::kExtensionsCommand);
    extensions.enumKernelExtensions();
  }
  extensions.resetPtr();
  return sendNamedList(
      varlo::kExtensionsCommand, sink, pause, false,
      [&extensions](std::string& n, std::string& v) { return extensions.getNextLibrary(n, v); });
}

void sendExtensionData(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  CExtensions extensions;
  sendExtensionList(extensions, session.sink(),
                    [&session] { return session.waitFor(std::chrono::milliseconds(10)); },
                    session.socket());
}
