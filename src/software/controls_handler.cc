#include "software/controls_handler.h"

#include <chrono>

#include "session/session.h"
#include "software/ctrl_panels.h"
#include "varlo/commands.h"

int sendControlsList(CCtrlPanels& panels, const RecordSink& sink, const BatchPause& pause) {
  panels.enumControls();
  panels.resetPtr();
  return sendNamedList(varlo::kControlPanelsCommand, sink, pause, false,
                       [&panels](std::string& n, std::string& v) { return panels.getNextControl(n, v); });
}

void sendControlsData(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  CCtrlPanels panels;
  sendControlsList(panels, session.sink(),
                   [&session] { return session.waitFor(std::chrono::milliseconds(10)); });
}
