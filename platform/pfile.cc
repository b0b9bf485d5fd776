#include "platform/pfile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int PlatOpen(const char* path, int flags, int mode, int* fdOut) {
  *fdOut = -1;
  int fd;
  do {
    fd = ::open(path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno;
  *fdOut = fd;
  return 0;
}

int PlatClose(int fd) {
  // close(2) must not be retried on EINTR: the descriptor is gone either way.
  return ::close(fd) == 0 || errno == EINTR ? 0 : errno;
}

int PlatRead(int fd, void* buf, size_t len, size_t* got) {
  ssize_t n;
  do {
    n = ::read(fd, buf, len);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    *got = 0;
    return errno;
  }
  *got = static_cast<size_t>(n);
  return 0;
}

int PlatWrite(int fd, const void* buf, size_t len, size_t* put) {
  ssize_t n;
  do {
    n = ::write(fd, buf, len);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    *put = 0;
    return errno;
  }
  *put = static_cast<size_t>(n);
  return 0;
}

int PlatFsync(int fd) {
  int rc;
  do {
    rc = ::fsync(fd);
  } while (rc < 0 && errno == EINTR);
  return rc < 0 ? errno : 0;
}

int PlatStat(const char* path, struct stat* st) {
  return ::stat(path, st) < 0 ? errno : 0;
}

int PlatFstat(int fd, struct stat* st) {
  return ::fstat(fd, st) < 0 ? errno : 0;
}

int PlatRename(const char* from, const char* to) {
  return ::rename(from, to) < 0 ? errno : 0;
}

int PlatUnlink(const char* path) {
  return ::unlink(path) < 0 ? errno : 0;
}

int PlatMkdir(const char* path, unsigned mode) {
  return ::mkdir(path, static_cast<mode_t>(mode)) < 0 ? errno : 0;
}

int PlatPathConvert(const char* path, char* buf, size_t bufLen) {
  size_t n = strlen(path);
  if (n + 1 > bufLen) return ENAMETOOLONG;
  memcpy(buf, path, n + 1);
  return 0;
}

int PlatSystem(const char* cmd, int* status) {
  int rc = ::system(cmd);
  *status = rc;
  return rc < 0 ? errno : 0;
}

const char* PlatStrError(int err) {
  return strerror(err);
}
