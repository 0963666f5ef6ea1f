// A FUSE file system standing in for a remote one whose server has gone: an
// empty root whose statfs (and on request getattr) sleeps before answering.
// It mounts as type fuse.sshfs, a kind the agent takes as remote.
//
//   slow_fs [--hang-getattr] SECONDS|forever MOUNTPOINT [FUSE options]
//
// SECONDS 0 sleeps for ever too. It stays in the foreground until unmounted
// (fusermount3 -u MOUNTPOINT, umount -l) or sent SIGTERM.
#define FUSE_USE_VERSION 31

#include <errno.h>
#include <fuse.h>
#include <fuse_lowlevel.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

static unsigned delaySeconds;  // 0: for ever
static int hangGetattr;

// Returns after the delay, or once the file system is told to exit. It
// polls: libfuse blocks SIGTERM in its workers and will not cancel one busy
// with a request, so nothing else would wake it.
static void stall(void) {
  struct fuse_session* se = fuse_get_session(fuse_get_context()->fuse);
  const struct timespec tick = {0, 100 * 1000 * 1000};
  for (unsigned long ticks = 0; !fuse_session_exited(se); ++ticks) {
    if (delaySeconds != 0 && ticks >= delaySeconds * 10ul) return;
    nanosleep(&tick, NULL);
  }
}

static int slowGetattr(const char* path, struct stat* st, struct fuse_file_info* fi) {
  (void)fi;
  if (strcmp(path, "/") != 0) return -ENOENT;
  if (hangGetattr) stall();
  memset(st, 0, sizeof *st);
  st->st_mode = S_IFDIR | 0755;
  st->st_nlink = 2;
  return 0;
}

static int slowReaddir(const char* path, void* buf, fuse_fill_dir_t fill, off_t offset,
                       struct fuse_file_info* fi, enum fuse_readdir_flags flags) {
  (void)offset, (void)fi, (void)flags;
  if (strcmp(path, "/") != 0) return -ENOENT;
  fill(buf, ".", NULL, 0, 0);
  fill(buf, "..", NULL, 0, 0);
  return 0;
}

static int slowStatfs(const char* path, struct statvfs* st) {
  (void)path;
  stall();
  memset(st, 0, sizeof *st);
  st->f_bsize = st->f_frsize = 4096;
  st->f_blocks = 1u << 20;  // 4 GiB, half of it free
  st->f_bfree = st->f_bavail = 1u << 19;
  st->f_namemax = 255;
  return 0;
}

static const struct fuse_operations ops = {
    .getattr = slowGetattr,
    .readdir = slowReaddir,
    .statfs = slowStatfs,
};

int main(int argc, char* argv[]) {
  int first = 1;
  if (argc > 1 && strcmp(argv[1], "--hang-getattr") == 0) {
    hangGetattr = 1;
    first = 2;
  }
  if (argc - first < 2) {
    fprintf(stderr, "usage: %s [--hang-getattr] SECONDS|forever MOUNTPOINT [FUSE options]\n",
            argv[0]);
    return 2;
  }
  const char* delay = argv[first];
  if (strcmp(delay, "forever") != 0) {
    char* end = NULL;
    const unsigned long seconds = strtoul(delay, &end, 10);
    if (delay[0] < '0' || delay[0] > '9' || *end != '\0' || seconds > 1000000) {
      fprintf(stderr, "%s: not a number of seconds: %s\n", argv[0], delay);
      return 2;
    }
    delaySeconds = (unsigned)seconds;
  }

  // Foreground, and the type the agent sees in mountinfo: fuse.sshfs.
  char* args[argc + 4];
  int n = 0;
  args[n++] = argv[0];
  args[n++] = "-f";
  args[n++] = "-o";
  // max_idle_threads: libfuse 3.14 warns about its own default otherwise.
  args[n++] = "fsname=slow_fs,subtype=sshfs,max_idle_threads=10";
  for (int i = first + 1; i < argc; ++i) args[n++] = argv[i];
  args[n] = NULL;
  return fuse_main(n, args, &ops, NULL);
}
