// Writing a log from a forked child of the (threaded) agent, where only
// async-signal-safe calls may run: no allocation, no stdio.
#pragma once

namespace child_log {

// The whole text, unless the log could not be opened (-1) or a write fails.
void put(int fd, const char* text);

// TEXT then the number in decimal, then a line end.
void putLine(int fd, const char* text, long number);

}  // namespace child_log
