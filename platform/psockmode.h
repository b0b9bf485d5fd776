// Reading a socket's blocking mode, so that a layer that switches it for a
// while can put it back.
#ifndef PLATFORM_PSOCKMODE_H
#define PLATFORM_PSOCKMODE_H

// *on is whether O_NONBLOCK is set. Returns 0 or the system error number.
int PlatGetNonBlocking(int fd, bool* on);

#endif  // PLATFORM_PSOCKMODE_H
