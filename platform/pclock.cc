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

long long RealNowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

PlatSleepFn sleepFn = RealSleepUs;
long long commandDeadline = 0;
PlatNowFn nowFn = RealNowMs;

}  // namespace

long long PlatNowMs() {
  return nowFn();
}

PlatNowFn PlatSetNowFn(PlatNowFn fn) {
  PlatNowFn old = nowFn;
  nowFn = fn ? fn : RealNowMs;
  return old;
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

void PlatSetCommandDeadline(long long atMs) {
  commandDeadline = atMs;
}

long long PlatCommandDeadline() {
  return commandDeadline;
}

long long PlatDeadlineAfter(long long timeoutMs) {
  long long at = nowFn() + timeoutMs;
  return commandDeadline > 0 && commandDeadline < at ? commandDeadline : at;
}

long long PlatCommandTimeLeft() {
  if (commandDeadline <= 0) return -1;
  long long left = commandDeadline - nowFn();
  return left > 0 ? left : 0;
}
