// Temporary files beside a target, atomic replacement of a file, and the
// advisory lock files that serialise commands sharing a fixed file.
//
// A temporary name is the target, ".tmp.", the process id and the thread id.
// Temporary files that this process has open are removed when it is stopped by
// SIGINT or SIGTERM (PlatInstallTempCleanup), and those of processes that no
// longer exist are removed the next time the same target is written.
#ifndef PLATFORM_PTEMP_H
#define PLATFORM_PTEMP_H

#include <cstddef>
#include <string>

// path + ".tmp." + pid + "." + thread id.
std::string PlatTmpName(const std::string& path);
// Removes the temporary files of target whose process is gone. Returns how many.
int PlatRemoveStaleTemps(const std::string& target);
// Installs the SIGINT / SIGTERM handler that removes the open temporary files
// and then lets the signal take its course. Idempotent.
void PlatInstallTempCleanup();

// A fresh temporary file beside a target, created without following links and
// removed on destruction unless released.
class PlatTempFile {
 public:
  PlatTempFile() = default;
  ~PlatTempFile();
  PlatTempFile(const PlatTempFile&) = delete;
  PlatTempFile& operator=(const PlatTempFile&) = delete;

  // Creates PlatTmpName(target) write-only with mode (after the stale temporary
  // files of target are cleared). Returns 0 or the error number.
  int create(const std::string& target, unsigned mode);
  int fd() const { return fd_; }
  const std::string& path() const { return path_; }
  // Closes the descriptor (if open); the close's result.
  int close();
  // The file now lives on under another name: forget it.
  void release();
  // Closes and removes the file now.
  void remove();

 private:
  int fd_ = -1;
  int slot_ = -1;  // in the signal clean-up registry
  std::string path_;
};

// Replaces path with data: a temporary file beside it, write, sync, rename onto
// path, sync of the directory. On failure the temporary file is removed and
// path is either untouched or (after the rename, when only the directory sync
// failed) already the new contents. Returns 0 or the error number.
int PlatAtomicReplace(const std::string& path, const void* data, size_t len, unsigned mode);

// An exclusive advisory lock on a lock file, held until destruction.
class PlatLockFile {
 public:
  PlatLockFile() = default;
  ~PlatLockFile();
  PlatLockFile(const PlatLockFile&) = delete;
  PlatLockFile& operator=(const PlatLockFile&) = delete;
  // Opens (creating, never through a link) and locks path, waiting at most
  // waitMs. ETIMEDOUT when another holder kept it; EINVAL when path is not a
  // regular file.
  int lock(const std::string& path, long long waitMs);
  void unlock();

 private:
  int fd_ = -1;
};

#endif  // PLATFORM_PTEMP_H
