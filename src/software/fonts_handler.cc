#include "software/fonts_handler.h"

#include <chrono>

#include "session/session.h"
#include "software/font.h"
#include "software/list_heartbeat.h"
#include "varlo/commands.h"

int sendFontList(CFont& fonts, const RecordSink& sink, const BatchPause& pause, int beatSocket) {
  {
    ListHeartbeat beat(beatSocket, varlo::kFontsCommand);
    fonts.enumFonts();
  }
  fonts.resetPtr();
  return sendNamedList(varlo::kFontsCommand, sink, pause, true,
                       [&fonts](std::string& n, std::string& v) {
                         v.clear();  // fonts carry no version
                         return fonts.getNextFont(n);
                       });
}

void sendFontData(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  CFont fonts;
  sendFontList(fonts, session.sink(),
               [&session] { return session.waitFor(std::chrono::milliseconds(10)); },
               session.socket());
}
