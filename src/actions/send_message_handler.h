// Send Message (20): the record echoed at once, then the text shown to the
// console user with notify-send in their name, or written to their
// terminals where that cannot run. Nothing is waited for.
#pragma once

#include <cstdint>
#include <string>

#include "base/host_paths.h"

class Session;

void sendMessage(Session& session, std::uint16_t code);

struct MessageSettings {
  std::string searchPath = "/usr/local/bin:/usr/bin:/bin";
  std::string utmp = host_paths::kUtmp;
  std::string devRoot = "/dev";
};

void sendMessage(Session& session, const MessageSettings& settings);

// Writes the text to each terminal of the user's sessions that is a
// terminal of theirs; the number written to.
int writeToTerminals(const std::string& user, unsigned uid, const std::string& text,
                     const MessageSettings& settings);
