#include "platform/plisten.h"

#include <errno.h>
#include <netinet/in.h>
#include <unistd.h>

int PlatListen(const struct sockaddr* sa, socklen_t len, int backlog, int* fdOut) {
  *fdOut = -1;
  int fd = ::socket(sa->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  int one = 1;
  if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) < 0 || ::bind(fd, sa, len) < 0 ||
      ::listen(fd, backlog) < 0) {
    int rc = errno;
    ::close(fd);
    return rc;
  }
  *fdOut = fd;
  return 0;
}

int PlatAccept(int listenFd, int* fdOut) {
  int fd;
  do {
    fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  *fdOut = fd;
  return fd < 0 ? errno : 0;
}

int PlatLocalPort(int fd, int* port) {
  struct sockaddr_storage ss = {};
  socklen_t len = sizeof ss;
  if (::getsockname(fd, reinterpret_cast<struct sockaddr*>(&ss), &len) < 0) return errno;
  if (ss.ss_family == AF_INET) {
    *port = ntohs(reinterpret_cast<struct sockaddr_in*>(&ss)->sin_port);
  } else {
    *port = ntohs(reinterpret_cast<struct sockaddr_in6*>(&ss)->sin6_port);
  }
  return 0;
}
