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

int PlatPreadFull(int fd, void* buf, size_t len, off_t off, size_t* done) {
  size_t got = 0;
  int rc = 0;
  while (got < len) {
    ssize_t n =
        ::pread(fd, static_cast<char*>(buf) + got, len - got, off + static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      rc = errno;
      break;
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  if (done != nullptr) *done = got;
  return rc;
}

int PlatPwriteFull(int fd, const void* buf, size_t len, off_t off) {
  size_t put = 0;
  while (put < len) {
    ssize_t n =
        ::pwrite(fd, static_cast<const char*>(buf) + put, len - put, off + static_cast<off_t>(put));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) return EIO;
    put += static_cast<size_t>(n);
  }
  return 0;
}

int PlatFdatasync(int fd) {
  int rc;
  do {
    rc = ::fdatasync(fd);
  } while (rc < 0 && errno == EINTR);
  return rc < 0 ? errno : 0;
}

int PlatFtruncate(int fd, off_t len) {
  int rc;
  do {
    rc = ::ftruncate(fd, len);
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
