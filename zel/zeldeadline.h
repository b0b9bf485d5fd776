// ZEL_DEADLINE=SECONDS: the whole command ends no later than that. Connect,
// send and receive waits are cut to what is left and no retry pause may run past
// it (platform/pclock.h holds the deadline).
#ifndef ZEL_ZELDEADLINE_H
#define ZEL_ZELDEADLINE_H

#include <string>

// Milliseconds of a ZEL_DEADLINE text: a decimal number of seconds above 0 (a
// fraction is allowed) and at most 10^7. False for anything else.
bool ParseDeadlineSeconds(const char* text, long long* ms);

// Reads ZEL_DEADLINE and sets the command's deadline from now. Unset or empty:
// nothing changes. A bad value gives the message to report, else "".
std::string ApplyDeadlineFromEnv();

#endif  // ZEL_ZELDEADLINE_H
