// Counts the files under a folder by file-name extension, on every CPU at
// once, and gives the extensions in the order one depth-first walk would
// first meet them: a folder's own files in listing order, then each of its
// sub-folders whole, in listing order. Sub-folders are handed to idle
// threads as they turn up and the per-subtree tallies are joined in walk
// order at the end, so the order never depends on the threads.
//
// Links are counted as files and never followed; only the one lstat-class
// call is made per file. Folders are opened relative to their parent, so
// neither path length nor depth limits the walk, and at most a few dozen
// descriptors are held per thread however deep it goes.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <stop_token>
#include <string>
#include <vector>

class CensusWalk {
 public:
  // What the walk does at a mount point below its root.
  enum class Gate {
    kSkip,   // never entered, never asked (pseudo, remote, another partition)
    kProbe,  // entered only when `reachable` says it answers
  };

  struct Options {
    // Threads walking at once, the caller's included; 0: one per CPU.
    unsigned threads = 0;
    // Mount points below the root, by path as the walk spells it (the root
    // path, then "/NAME" per level).
    std::map<std::string, Gate> gates;
    // Asked before a kProbe mount point is entered; it must not block for
    // long (the agent asks through its bounded mount probe).
    std::function<bool(const std::string& path)> reachable;
    std::stop_token stop;
  };

  struct Tally {
    std::string ext;
    std::uint32_t sizeKb = 0;  // sum of the files' kilobytes, modulo 2^32
    std::uint64_t files = 0;
  };

  explicit CensusWalk(Options options);

  // Walks root, counting the files modified at or after cutoff (seconds
  // since 1970). 0 with the tallies in first-sighting order; -1 when the
  // root cannot be opened or a stop was requested.
  int run(const std::string& root, std::uint32_t cutoff, std::vector<Tally>& out);

  // Files counted so far; safe to read from any thread while run() works.
  std::uint64_t filesCounted() const { return counted_.load(std::memory_order_relaxed); }

  // The extension the census files a name under: up to five characters
  // after the last '.', or empty when there is no '.' or more follow it.
  static std::string extensionOf(const char* name, std::size_t len);

  // Kilobytes the census adds for a file of this many 512-byte blocks: the
  // low 32 bits of the byte count, shifted right by 10.
  static std::uint32_t sizeKbOf(std::uint64_t blocks512);

 private:
  class Run;
  Options options_;
  std::atomic<std::uint64_t> counted_{0};
};
