// The commands the console may send, one row each: adding a command is a
// row here, a handler file and its test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

class Session;

// Serves one command on its session; code is the one received (some
// handlers serve more than one).
using CommandHandler = void (*)(Session& session, std::uint16_t code);

struct CommandRow {
  std::uint16_t code;
  // Logged after "Worker Thread: N" once the password passed; null for a
  // code that is then treated as unknown.
  const char* logText;
  // The record a wrong password is answered with; 0 sends nothing.
  std::size_t rejectionSize;
  // Null for a command this agent logs but does not answer.
  CommandHandler handler;
};

using CommandTable = std::span<const CommandRow>;

// The agent's table.
CommandTable commandTable();

// The row of code, or null when the table has none.
const CommandRow* findCommand(CommandTable table, std::uint16_t code);
