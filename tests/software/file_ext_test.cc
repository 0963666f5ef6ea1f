#include "software/file_ext.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <vector>

#include "software/dir_iterator_linux.h"
#include "test_support.h"

namespace {

using test_support::TempDir;

struct Result {
  std::string ext;
  unsigned long size, count;
  bool operator==(const Result&) const = default;
};

std::vector<Result> drain(CFileExt& census) {
  std::vector<Result> out;
  Result r;
  while (census.getNextFileExt(r.ext, r.size, r.count) == 0) out.push_back(r);
  return out;
}

// The census as one thread walks it, folder by folder with the directory
// iterator, each file through the single-file helpers: what the parallel
// walk must reproduce exactly.
std::vector<Result> sequentialCensus(const std::string& root, unsigned long& files) {
  CFileExt table;
  std::vector<std::unique_ptr<CDirIterator>> stack;
  auto current = std::make_unique<CDirIteratorLinux>();
  if (!current->openDirectory(root)) return {};
  unsigned long count = 0;
  for (;;) {
    for (std::string file; current->getNextFile(file);) {
      CFileExt::extdata record;
      CFileExt::getExtension(file, record.ext);
      record.size = CFileExt::getFileSize(file);
      table.addExt(record);
      if (++count % 10 == 0) files = count;
    }
    std::string dir;
    if (current->getNextDirectory(dir)) {
      auto child = current->recurseIntoDirectory(dir);
      stack.push_back(std::move(current));
      current.reset(static_cast<CDirIteratorLinux*>(child.release()));
      continue;
    }
    if (stack.empty()) break;
    current.reset(static_cast<CDirIteratorLinux*>(stack.back().release()));
    stack.pop_back();
  }
  unsigned long ignored = 0;
  table.enumFileExts(ignored, 0);  // no root: only marks the end of results
  return drain(table);
}

void makeFile(const std::string& path, std::size_t bytes) {
  test_support::spit(path, std::string(bytes, 'x'));
}

// A tree of a few hundred folders whose files repeat extensions across
// subtrees, so that first sightings and totals depend on the walk order.
void makeTree(const std::string& root) {
  static const char* kNames[] = {"a.txt", "b.jpeg", "c.class", "d.backup", ".profile",
                                 "e",     "f.TXT",  "g.tar.gz", "h.c",     "i."};
  unsigned seed = 7;
  std::vector<std::string> dirs{root};
  for (int i = 0; i < 300; ++i) {
    seed = seed * 1103515245 + 12345;
    const std::string parent = dirs[(seed >> 8) % dirs.size()];
    const std::string dir = parent + "/d" + std::to_string(i);
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    dirs.push_back(dir);
    for (unsigned f = 0; f < (seed >> 4) % 7; ++f) {
      seed = seed * 1103515245 + 12345;
      makeFile(dir + "/" + std::to_string(f) + kNames[(seed >> 10) % 10], (seed >> 3) % 9000);
    }
  }
  symlink("..", (root + "/d0/up").c_str());  // a loop, if it were followed
}

CensusWalk::Options threads(unsigned n) {
  CensusWalk::Options o;
  o.threads = n;
  return o;
}

TEST(FileExtCensus, ParallelWalkGivesTheSequentialAnswer) {
  TempDir dir;
  makeTree(dir.path);
  unsigned long expectedFiles = 0;
  const auto expected = sequentialCensus(dir.path, expectedFiles);
  ASSERT_GT(expected.size(), 5u);
  for (unsigned n : {1u, 2u, 4u}) {
    CFileExt census(dir.path, threads(n));
    unsigned long files = 0;
    ASSERT_EQ(census.enumFileExts(files, 0), 0);
    EXPECT_EQ(drain(census), expected) << n << " threads";
    EXPECT_EQ(files, expectedFiles) << n << " threads";
  }
  // Run on its own thread, read as it finishes.
  CFileExt census(dir.path);
  ASSERT_EQ(census.enumFileExts(true, 0), 0);
  EXPECT_EQ(drain(census), expected);
}

TEST(FileExtCensus, ExtensionAndSizeRules) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"/x/a.txt", "txt"}, {"/x/.profile", ""},        {"/x/x.jpeg", "jpeg"}, {"/x/x.backup", ""},
      {"/x/x.class", "class"}, {"/x.d/file", ""},      {"a.tar.gz", "gz"},    {"/x/trailing.", ""},
      {"/x/\xff\xfe.\xe9t", "\xe9t"}};
  for (const auto& [path, want] : cases) {
    std::string ext = "stale";
    CFileExt::getExtension(path, ext);
    EXPECT_EQ(ext, want) << path;
  }
  EXPECT_EQ(CensusWalk::sizeKbOf(8), 4u);
  EXPECT_EQ(CensusWalk::sizeKbOf((std::uint64_t{5} << 30) / 512), 1u << 20)
      << "only the low 32 bits of a 5 GiB size count";
}

TEST(FileExtCensus, ScannedCountIsRoundedDownAndLeftAloneBelowTen) {
  TempDir dir;
  for (int i = 0; i < 25; ++i) makeFile(dir / (std::to_string(i) + ".txt"), 10);
  for (const auto& [cutoff, want] : {std::pair{0u, 20ul}, {UINT32_MAX, 7ul}}) {
    CFileExt census(dir.path, threads(2));
    unsigned long files = 7;
    ASSERT_EQ(census.enumFileExts(files, cutoff), 0);
    EXPECT_EQ(files, want) << cutoff;
  }
}

TEST(FileExtCensus, GatedMountPointsAreSkippedOrProbed) {
  TempDir dir;
  for (const char* d : {"pseudo", "disk", "dead", "plain"}) mkdir((dir / d).c_str(), 0755);
  for (const char* d : {"pseudo", "disk", "dead", "plain"})
    makeFile(dir / (std::string(d) + "/f." + d), 10);
  CensusWalk::Options options;
  options.gates = {{dir / "pseudo", CensusWalk::Gate::kSkip},
                   {dir / "disk", CensusWalk::Gate::kProbe},
                   {dir / "dead", CensusWalk::Gate::kProbe},
                   {"/elsewhere/plain", CensusWalk::Gate::kSkip}};
  std::vector<std::string> asked;
  options.reachable = [&](const std::string& path) {
    asked.push_back(path);
    return path != dir / "dead";
  };
  options.threads = 1;
  CFileExt census(dir.path, options);
  unsigned long files = 0;
  ASSERT_EQ(census.enumFileExts(files, 0), 0);
  std::set<std::string> exts;
  for (const auto& r : drain(census)) exts.insert(r.ext);
  EXPECT_EQ(exts, (std::set<std::string>{"disk", "plain"}));
  std::sort(asked.begin(), asked.end());
  EXPECT_EQ(asked, (std::vector<std::string>{dir / "dead", dir / "disk"}));
}

// Deeper than any path the kernel accepts, and deeper than the descriptors
// a process may hold: counted all the same, with no descriptor left open.
TEST(FileExtCensus, TenThousandLevelsDeep) {
  // On memory: a disk mounted with discard takes half a minute to remove
  // ten thousand folders.
  std::string base = "/dev/shm/varlo_deep_XXXXXX";
  if (mkdtemp(base.data()) == nullptr) {
    base = ::testing::TempDir() + "varlo_deep_XXXXXX";
    ASSERT_NE(mkdtemp(base.data()), nullptr);
  }
  struct Remove {
    std::string path;
    ~Remove() { std::system(("rm -rf '" + path + "'").c_str()); }
  } dir{base};
  int fd = open(dir.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const std::string longName(255, 'n');
  for (int level = 0; level < 10000; ++level) {
    const std::string name = level % 100 == 0 ? longName : "d";
    ASSERT_EQ(mkdirat(fd, name.c_str(), 0755), 0) << level;
    const int next = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(fd);
    ASSERT_GE(next, 0) << level;
    fd = next;
  }
  const int file = openat(fd, "bottom.deep", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(file, 0);
  close(file);
  close(fd);

  const auto openDescriptors = [] {
    std::size_t n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
    return n;
  };
  const std::size_t before = openDescriptors();
  CFileExt census(dir.path, threads(2));
  unsigned long files = 0;
  ASSERT_EQ(census.enumFileExts(files, 0), 0);
  const auto got = drain(census);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].ext, "deep");
  EXPECT_EQ(openDescriptors(), before);
}

TEST(FileExtCensus, UnopenableRootAndStopRequest) {
  TempDir dir;
  ASSERT_EQ(mkdir((dir / "d0").c_str(), 0755), 0);
  makeFile(dir / "d0/f.txt", 1);
  {
    CFileExt census(dir / "missing");
    unsigned long files = 99;
    EXPECT_EQ(census.enumFileExts(files, 0), -1);
    EXPECT_EQ(files, 99u);
    EXPECT_TRUE(drain(census).empty());
  }
  // Stopped before it starts, and half-way, at a mount it was about to enter.
  for (bool midway : {false, true}) {
    std::stop_source stop;
    if (!midway) stop.request_stop();
    CensusWalk::Options options;
    options.stop = stop.get_token();
    options.gates = {{dir / "d0", CensusWalk::Gate::kProbe}};
    options.reachable = [&](const std::string&) { return stop.request_stop(), true; };
    CFileExt census(dir.path, options);
    unsigned long files = 0;
    EXPECT_EQ(census.enumFileExts(files, 0), -1) << midway;
    EXPECT_TRUE(drain(census).empty()) << midway;
  }
}

}  // namespace
