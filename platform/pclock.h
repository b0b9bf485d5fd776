// Time and sleeping. Every pause of the program goes through PlatSleepUs and
// every deadline reads PlatNowMs, so that tests can replace them (the sleep and
// clock seams) and observe pauses and time-outs without waiting.
#ifndef PLATFORM_PCLOCK_H
#define PLATFORM_PCLOCK_H

#include <ctime>

using PlatSleepFn = void (*)(long long usec);
using PlatNowFn = long long (*)();

// Monotonic milliseconds, for time-outs and deadlines.
long long PlatNowMs();
// Installs a replacement clock (nullptr restores the real one); returns the old one.
PlatNowFn PlatSetNowFn(PlatNowFn fn);
// Wall-clock seconds since the epoch.
time_t PlatTimeSec();
void PlatSleepUs(long long usec);

// The deadline of the whole command (ZEL_DEADLINE), in PlatNowMs time; 0 = none.
void PlatSetCommandDeadline(long long atMs);
long long PlatCommandDeadline();
// The moment timeoutMs from now, brought forward to the command's deadline: every
// wait of a connect, send or receive ends by then.
long long PlatDeadlineAfter(long long timeoutMs);
// Milliseconds left before the command's deadline (never below 0); -1 when none.
long long PlatCommandTimeLeft();
// Installs a replacement for sleeping (nullptr restores the real one); returns the old one.
PlatSleepFn PlatSetSleepFn(PlatSleepFn fn);

#endif  // PLATFORM_PCLOCK_H
