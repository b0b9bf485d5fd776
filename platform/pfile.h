// Thin wrappers round file-system calls. Each returns 0 or the system error
// number, retries EINTR itself, and is the only place that reads errno.
#ifndef PLATFORM_PFILE_H
#define PLATFORM_PFILE_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

// Size of the buffer that path conversion fills.
constexpr size_t kPlatPathMax = 1024;

int PlatOpen(const char* path, int flags, int mode, int* fdOut);
int PlatClose(int fd);
// One read(2); *got receives the byte count (0 at end of file).
int PlatRead(int fd, void* buf, size_t len, size_t* got);
// One write(2); *put receives the byte count.
int PlatWrite(int fd, const void* buf, size_t len, size_t* put);
// Forces the file to stable storage (through the file-system seam).
int PlatFsync(int fd);
// Turns O_DIRECT on or off for fd (through the file-system seam); EINVAL when
// the file system refuses it.
int PlatSetDirect(int fd, bool on);
int PlatStat(const char* path, struct stat* st);
int PlatFstat(int fd, struct stat* st);
// rename(2), through the file-system seam.
int PlatRename(const char* from, const char* to);
// Forces the directory's entries (a rename into it, say) to stable storage,
// through the file-system seam.
int PlatSyncDir(const char* dir);
int PlatUnlink(const char* path);
int PlatMkdir(const char* path, unsigned mode);
// Copies the path into buf (kPlatPathMax bytes); ENAMETOOLONG when it does not fit.
int PlatPathConvert(const char* path, char* buf, size_t bufLen);
// Opens path only if it is a regular file, without blocking on a FIFO or a
// device on the way: EINVAL for anything else. flags as for open(2).
int PlatOpenRegular(const char* path, int flags, int* fdOut);
// Removes the directory and everything in it without following symbolic links
// (a link is removed, never its target). ENOENT when path does not exist.
int PlatRemoveTree(const char* path);
// The system's text for an error number.
const char* PlatStrError(int err);

// The operations that durability rests on. Tests install their own to make a
// step fail or to record the order of the steps (PlatSetFsOps).
class PlatFsOps {
 public:
  virtual ~PlatFsOps() = default;
  virtual int fsync(int fd);
  virtual int rename(const char* from, const char* to);
  virtual int syncDir(const char* dir);
  // Turns O_DIRECT on or off for fd; EINVAL when the file system refuses it.
  virtual int setDirect(int fd, bool on);
};
// Installs ops (nullptr restores the real ones); returns the previous ones.
PlatFsOps* PlatSetFsOps(PlatFsOps* ops);

// An owned descriptor, closed on destruction.
class PlatFd {
 public:
  PlatFd() = default;
  explicit PlatFd(int fd) : fd_(fd) {}
  ~PlatFd() { reset(); }
  PlatFd(const PlatFd&) = delete;
  PlatFd& operator=(const PlatFd&) = delete;
  int get() const { return fd_; }
  int* out() {
    reset();
    return &fd_;
  }
  // Closes now; the result of the close (0 when there was nothing to close).
  int reset();

 private:
  int fd_ = -1;
};

#endif  // PLATFORM_PFILE_H
