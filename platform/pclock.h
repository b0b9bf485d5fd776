// Time and sleeping. Every pause of the program goes through PlatSleepUs so that
// tests can replace it (the sleep seam) and observe the pauses without waiting.
#ifndef PLATFORM_PCLOCK_H
#define PLATFORM_PCLOCK_H

#include <ctime>

using PlatSleepFn = void (*)(long long usec);

// Monotonic milliseconds, for time-outs.
long long PlatNowMs();
// Wall-clock seconds since the epoch.
time_t PlatTimeSec();
void PlatSleepUs(long long usec);
// Installs a replacement for sleeping (nullptr restores the real one); returns the old one.
PlatSleepFn PlatSetSleepFn(PlatSleepFn fn);

#endif  // PLATFORM_PCLOCK_H
