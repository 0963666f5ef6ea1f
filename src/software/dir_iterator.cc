#include "software/dir_iterator.h"

void CDirIterator::addFile(const std::string& file) { files.push_back(file); }

void CDirIterator::addDir(const std::string& dir) { dirs.push_back(dir); }

bool CDirIterator::getNextFile(std::string& file) {
  if (!getCurrFile(file)) return false;
  ++fileCursor;
  return true;
}

bool CDirIterator::getNextDirectory(std::string& dir) {
  if (!getCurrentDirectory(dir)) return false;
  ++dirCursor;
  return true;
}

bool CDirIterator::getCurrFile(std::string& file) const {
  if (fileCursor >= files.size()) return false;
  file = files[fileCursor];
  return true;
}

bool CDirIterator::getCurrentDirectory(std::string& dir) const {
  if (dirCursor >= dirs.size()) return false;
  dir = dirs[dirCursor];
  return true;
}
