#include "platform/pfileio.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "platform/pfile.h"

int PlatPread(int fd, void* buf, size_t len, off_t off, size_t* got) {
  size_t done = 0;
  while (done < len) {
    ssize_t n = ::pread(fd, static_cast<char*>(buf) + done, len - done, off + done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *got = done;
      return errno;
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  *got = done;
  return 0;
}

int PlatPwrite(int fd, const void* buf, size_t len, off_t off) {
  size_t done = 0;
  while (done < len) {
    ssize_t n = ::pwrite(fd, static_cast<const char*>(buf) + done, len - done, off + done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) return EIO;
    done += static_cast<size_t>(n);
  }
  return 0;
}

int PlatFtruncate(int fd, off_t len) {
  int rc;
  do {
    rc = ::ftruncate(fd, len);
  } while (rc < 0 && errno == EINTR);
  return rc < 0 ? errno : 0;
}

int PlatFsyncDir(const char* dir) {
  int fd = -1;
  int rc = PlatOpen(dir, O_RDONLY | O_DIRECTORY, 0, &fd);
  if (rc != 0) return rc;
  rc = PlatFsync(fd);
  PlatClose(fd);
  return rc;
}

int PlatLink(const char* from, const char* to) {
  return ::link(from, to) < 0 ? errno : 0;
}

int PlatLockFile(const char* path, int* fdOut) {
  int fd = -1;
  int rc = PlatOpen(path, O_RDWR | O_CREAT, 0644, &fd);
  if (rc != 0) return rc;
  int lr;
  do {
    lr = ::flock(fd, LOCK_EX | LOCK_NB);
  } while (lr < 0 && errno == EINTR);
  if (lr < 0) {
    rc = errno;
    PlatClose(fd);
    return rc;
  }
  *fdOut = fd;
  return 0;
}

int PlatWriteFileDurably(const std::string& path, const std::string& data) {
  std::string tmp = path + ".tmp." + std::to_string(::getpid());
  int fd = -1;
  int rc = PlatOpen(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644, &fd);
  if (rc != 0) return rc;
  rc = PlatPwrite(fd, data.data(), data.size(), 0);
  if (rc == 0) rc = PlatFsync(fd);
  int crc = PlatClose(fd);
  if (rc == 0) rc = crc;
  if (rc == 0) rc = PlatRename(tmp.c_str(), path.c_str());
  if (rc != 0) {
    PlatUnlink(tmp.c_str());
    return rc;
  }
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  return PlatFsyncDir(dir.c_str());
}

int PlatReadFile(const std::string& path, std::string* data) {
  data->clear();
  int fd = -1;
  int rc = PlatOpen(path.c_str(), O_RDONLY, 0, &fd);
  if (rc != 0) return rc;
  char buf[65536];
  for (;;) {
    size_t got = 0;
    rc = PlatRead(fd, buf, sizeof buf, &got);
    if (rc != 0 || got == 0) break;
    data->append(buf, got);
  }
  PlatClose(fd);
  return rc;
}
