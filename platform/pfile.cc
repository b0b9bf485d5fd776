#include "platform/pfile.h"

#include <dirent.h>
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

namespace {

PlatFsOps realFsOps;
PlatFsOps* fsOps = &realFsOps;

}  // namespace

int PlatFsOps::fsync(int fd) {
  int rc;
  do {
    rc = ::fsync(fd);
  } while (rc < 0 && errno == EINTR);
  return rc < 0 ? errno : 0;
}

int PlatFsOps::rename(const char* from, const char* to) {
  return ::rename(from, to) < 0 ? errno : 0;
}

int PlatFsOps::syncDir(const char* dir) {
  int fd = -1;
  int rc = PlatOpen(dir, O_RDONLY | O_DIRECTORY, 0, &fd);
  if (rc != 0) return rc;
  rc = PlatFsOps::fsync(fd);
  // Some file systems cannot sync a directory; that is no failure of ours.
  if (rc == EINVAL) rc = 0;
  PlatClose(fd);
  return rc;
}

int PlatFsOps::setDirect(int fd, bool on) {
  int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0) return errno;
  flags = on ? flags | O_DIRECT : flags & ~O_DIRECT;
  return ::fcntl(fd, F_SETFL, flags) < 0 ? errno : 0;
}

PlatFsOps* PlatSetFsOps(PlatFsOps* ops) {
  PlatFsOps* old = fsOps;
  fsOps = ops != nullptr ? ops : &realFsOps;
  return old;
}

int PlatFd::reset() {
  if (fd_ < 0) return 0;
  int rc = PlatClose(fd_);
  fd_ = -1;
  return rc;
}

int PlatFsync(int fd) {
  return fsOps->fsync(fd);
}

int PlatSyncDir(const char* dir) {
  return fsOps->syncDir(dir);
}

int PlatSetDirect(int fd, bool on) {
  return fsOps->setDirect(fd, on);
}

int PlatStat(const char* path, struct stat* st) {
  return ::stat(path, st) < 0 ? errno : 0;
}

int PlatFstat(int fd, struct stat* st) {
  return ::fstat(fd, st) < 0 ? errno : 0;
}

int PlatRename(const char* from, const char* to) {
  return fsOps->rename(from, to);
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

int PlatOpenRegular(const char* path, int flags, int* fdOut) {
  *fdOut = -1;
  int fd = -1;
  // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
  int rc = PlatOpen(path, flags | O_NONBLOCK | O_NOCTTY, 0, &fd);
  if (rc != 0) return rc;
  struct stat st;
  rc = PlatFstat(fd, &st);
  if (rc == 0 && !S_ISREG(st.st_mode)) rc = EINVAL;
  if (rc == 0 && ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK & ~O_ACCMODE) < 0) rc = errno;
  if (rc != 0) {
    PlatClose(fd);
    return rc;
  }
  *fdOut = fd;
  return 0;
}

namespace {

// Empties the directory open as dirFd, never following a link.
int removeEntries(int dirFd) {
  DIR* d = ::fdopendir(dirFd);
  if (d == nullptr) {
    int rc = errno;
    ::close(dirFd);
    return rc;
  }
  int result = 0;
  while (struct dirent* e = ::readdir(d)) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    if (::unlinkat(dirFd, e->d_name, 0) == 0) continue;
    if (errno != EISDIR && errno != EPERM) {
      if (result == 0) result = errno;
      continue;
    }
    int sub = ::openat(dirFd, e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (sub < 0) {
      if (result == 0) result = errno;
      continue;
    }
    int rc = removeEntries(sub);
    if (rc == 0 && ::unlinkat(dirFd, e->d_name, AT_REMOVEDIR) < 0) rc = errno;
    if (rc != 0 && result == 0) result = rc;
  }
  ::closedir(d);
  return result;
}

}  // namespace

int PlatRemoveTree(const char* path) {
  int fd = ::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    // A link or a plain file where the directory should be: remove just that.
    if (errno == ENOTDIR || errno == ELOOP) return ::unlink(path) < 0 ? errno : 0;
    return errno;
  }
  int rc = removeEntries(fd);  // takes fd
  if (rc == 0 && ::rmdir(path) < 0) rc = errno;
  return rc;
}

const char* PlatStrError(int err) {
  return strerror(err);
}
