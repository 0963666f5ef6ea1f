// One-level directory lister: splits a directory's entries into files and
// sub-directories and hands each list out one entry at a time.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

class CDirIterator {
 public:
  CDirIterator() = default;
  virtual ~CDirIterator() = default;
  CDirIterator(const CDirIterator&) = delete;
  CDirIterator& operator=(const CDirIterator&) = delete;

  // Fills files and dirs from the open directory: 0, or -1 when it cannot be
  // read (the lists are then left as they were).
  virtual int scanDirectory() = 0;

  // A new iterator of the same kind opened on path, returned even when the
  // open failed (it is then empty).
  virtual std::unique_ptr<CDirIterator> recurseIntoDirectory(const std::string& path) = 0;
  // The same for the directory under the directory cursor, which stays put;
  // null when every directory has been handed out.
  virtual std::unique_ptr<CDirIterator> recurseIntoDirectory() = 0;

  // Binds to path and scans it. Earlier entries are kept, so a second open
  // appends; both cursors go back to the first entry.
  virtual bool openDirectory(const std::string& path) = 0;

  // Destroys an iterator from recurseIntoDirectory; null or this object is
  // left alone.
  virtual void closeDirectory(std::unique_ptr<CDirIterator> other) = 0;

  void addFile(const std::string& file);
  void addDir(const std::string& dir);

  // Copy out the entry under the cursor and advance; false at the end, with
  // the argument untouched.
  bool getNextFile(std::string& file);
  bool getNextDirectory(std::string& dir);
  // The same without advancing.
  bool getCurrFile(std::string& file) const;
  bool getCurrentDirectory(std::string& dir) const;

 protected:
  std::string path;
  std::vector<std::string> files;
  // Cursors are indices so that entries added after an open do not leave
  // them dangling.
  std::size_t fileCursor = 0;
  std::vector<std::string> dirs;
  std::size_t dirCursor = 0;
  std::unique_ptr<CDirIterator> child;
};
