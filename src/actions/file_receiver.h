// Receives one file of Send File or Send Folder into a folder the agent
// holds open: its data fork into the file, its resource fork and Finder
// information into an AppleDouble sidecar beside it. Nothing is written
// through a link, and nothing outside the folder.
#pragma once

#include <string>

class Session;

// A name the console may give a file or folder: not empty, ".", ".." and
// without '/'.
bool isValidItemName(const std::string& name);

class FileReceiver {
 public:
  explicit FileReceiver(Session& session) : session_(session) {}

  // The file `name` in the folder dirfd, whose path (for the log and the
  // console's messages) is folderPath, ending in '/'. True when the file
  // came whole; otherwise the console has been answered as it expects (or
  // stopped the transfer itself).
  bool receiveFile(int dirfd, const std::string& folderPath, const std::string& name);

 private:
  Session& session_;
};
