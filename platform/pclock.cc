#include "platform/pclock.h"

#include <errno.h>
#include <time.h>

namespace {

void RealSleepUs(long long usec) {
  if (usec <= 0) return;
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(usec / 1000000);
  ts.tv_nsec = static_cast<long>((usec % 1000000) * 1000);
  while (nanosleep(&ts, &ts) < 0 && errno == EINTR) {
  }
}

PlatSleepFn sleepFn = RealSleepUs;

}  // namespace

long long PlatNowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

time_t PlatTimeSec() {
  return time(nullptr);
}

void PlatSleepUs(long long usec) {
  sleepFn(usec);
}

PlatSleepFn PlatSetSleepFn(PlatSleepFn fn) {
  PlatSleepFn old = sleepFn;
  sleepFn = fn ? fn : RealSleepUs;
  return old;
}
