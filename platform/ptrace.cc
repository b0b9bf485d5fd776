#include "platform/ptrace.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

int PlatTraceOpen(const char* dev, int* fdOut) {
  int fd = ::open(dev, O_WRONLY | O_CLOEXEC);
  *fdOut = fd;
  return fd < 0 ? errno : 0;
}

int PlatTraceGetLevel(int fd, int* level) {
  int v = 0;
  if (::ioctl(fd, 10, &v) < 0) {
    *level = 0;
    return errno;
  }
  *level = v;
  return 0;
}

void PlatTraceWrite(int fd, const char* text) {
  if (fd < 0) return;
  ssize_t rc = ::write(fd, text, strlen(text));
  (void)rc;  // tracing is best effort
}

void PlatTraceClose(int fd) {
  if (fd >= 0) ::close(fd);
}
