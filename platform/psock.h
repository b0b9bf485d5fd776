// Thin wrappers round socket calls: each returns 0 or the system error number
// and retries EINTR itself.
#ifndef PLATFORM_PSOCK_H
#define PLATFORM_PSOCK_H

#include <poll.h>
#include <sys/socket.h>

#include <cstddef>

// The connect seam: tests replace it to reach the in-progress and time-out paths.
using PlatConnectFn = int (*)(int fd, const struct sockaddr* sa, socklen_t len);

int PlatSocket(int family, int type, int* fdOut);
int PlatSetNonBlocking(int fd, bool on);
int PlatSetNoDelay(int fd);
int PlatSetRecvBuf(int fd, int bytes);
// One connect(2) through the seam; EINPROGRESS and EALREADY are returned as such.
int PlatConnect(int fd, const struct sockaddr* sa, socklen_t len);
PlatConnectFn PlatSetConnectFn(PlatConnectFn fn);
// Waits for the events; *ready is the count of ready descriptors (0 on time-out).
int PlatPoll(struct pollfd* fds, int nfds, int timeoutMs, int* ready);
int PlatSend(int fd, const void* buf, size_t len, int flags, size_t* sent);
int PlatRecv(int fd, void* buf, size_t len, int flags, size_t* got);
int PlatGetPeerName(int fd, struct sockaddr_storage* ss, socklen_t* len);
int PlatSocketPair(int fds[2]);

#endif  // PLATFORM_PSOCK_H
