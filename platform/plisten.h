// Listening sockets for a server: bind, listen and accept, each returning 0 or
// the system error number.
#ifndef PLATFORM_PLISTEN_H
#define PLATFORM_PLISTEN_H

#include <sys/socket.h>

// A stream socket bound to sa with SO_REUSEADDR, listening with backlog.
int PlatListen(const struct sockaddr* sa, socklen_t len, int backlog, int* fdOut);
// One accept; the new socket is close-on-exec. EAGAIN when none is pending on a
// non-blocking listener.
int PlatAccept(int listenFd, int* fdOut);
// The port a bound socket has (an ephemeral one after binding port 0).
int PlatLocalPort(int fd, int* port);

#endif  // PLATFORM_PLISTEN_H
