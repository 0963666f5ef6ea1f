#include "software/services_handler.h"

#include <chrono>

#include "session/session.h"
#include "software/list_heartbeat.h"
#include "software/services.h"
#include "varlo/commands.h"

int sendServiceList(CServices& services, const RecordSink& sink, const BatchPause& pause,
                    int beatSocket) {
  {
    ListHeartbeat beat(beatSocket, varlo::kStartupItemsCommand);
    services.enumServices();
  }
  services.resetPtr();
  return sendNamedList(
      varlo::kStartupItemsCommand, sink, pause, false,
      [&services](std::string& n, std::string& v) { return services.getNextService(n, v); });
}

void sendServiceData(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  CServices services;
  sendServiceList(services, session.sink(),
                  [&session] { return session.waitFor(std::chrono::milliseconds(10)); },
                  session.socket());
}
