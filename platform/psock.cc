#include "platform/psock.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

namespace {

int RealConnect(int fd, const struct sockaddr* sa, socklen_t len) {
  return ::connect(fd, sa, len) < 0 ? errno : 0;
}

PlatConnectFn connectFn = RealConnect;

}  // namespace

int PlatSocket(int family, int type, int* fdOut) {
  int fd = ::socket(family, type | SOCK_CLOEXEC, 0);
  *fdOut = fd;
  return fd < 0 ? errno : 0;
}

int PlatSetNonBlocking(int fd, bool on) {
  int fl = ::fcntl(fd, F_GETFL, 0);
  if (fl < 0) return errno;
  fl = on ? (fl | O_NONBLOCK) : (fl & ~O_NONBLOCK);
  return ::fcntl(fd, F_SETFL, fl) < 0 ? errno : 0;
}

int PlatSetNoDelay(int fd) {
  int one = 1;
  return ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) < 0 ? errno : 0;
}

int PlatSetRecvBuf(int fd, int bytes) {
  return ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) < 0 ? errno : 0;
}

int PlatConnect(int fd, const struct sockaddr* sa, socklen_t len) {
  int rc;
  do {
    rc = connectFn(fd, sa, len);
  } while (rc == EINTR);
  return rc;
}

PlatConnectFn PlatSetConnectFn(PlatConnectFn fn) {
  PlatConnectFn old = connectFn;
  connectFn = fn ? fn : RealConnect;
  return old;
}

int PlatPoll(struct pollfd* fds, int nfds, int timeoutMs, int* ready) {
  int n;
  do {
    n = ::poll(fds, static_cast<nfds_t>(nfds), timeoutMs);
  } while (n < 0 && errno == EINTR);
  *ready = n < 0 ? 0 : n;
  return n < 0 ? errno : 0;
}

int PlatSend(int fd, const void* buf, size_t len, int flags, size_t* sent) {
  ssize_t n;
  do {
    n = ::send(fd, buf, len, flags | MSG_NOSIGNAL);
  } while (n < 0 && errno == EINTR);
  *sent = n < 0 ? 0 : static_cast<size_t>(n);
  return n < 0 ? errno : 0;
}

int PlatRecv(int fd, void* buf, size_t len, int flags, size_t* got) {
  ssize_t n;
  do {
    n = ::recv(fd, buf, len, flags);
  } while (n < 0 && errno == EINTR);
  *got = n < 0 ? 0 : static_cast<size_t>(n);
  return n < 0 ? errno : 0;
}

int PlatGetPeerName(int fd, struct sockaddr_storage* ss, socklen_t* len) {
  *len = sizeof *ss;
  return ::getpeername(fd, reinterpret_cast<struct sockaddr*>(ss), len) < 0 ? errno : 0;
}

int PlatSocketPair(int fds[2]) {
  return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) < 0 ? errno : 0;
}
