/* Preloaded into an agent under test: the clock calls are recorded in
 * /tmp/clock-set (one line of seconds a call) and succeed without touching
 * the machine's clock, which no namespace keeps for itself. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static void record(long long seconds) {
  const int fd = open("/tmp/clock-set", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd < 0) return;
  dprintf(fd, "%lld\n", seconds);
  close(fd);
}

int settimeofday(const struct timeval* tv, const struct timezone* tz) {
  (void)tz;
  if (tv != NULL) record((long long)tv->tv_sec);
  return 0;
}

int clock_settime(clockid_t clock, const struct timespec* ts) {
  (void)clock;
  record((long long)ts->tv_sec);
  return 0;
}
