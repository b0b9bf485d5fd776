#include "platform/ptemp.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/pclock.h"
#include "platform/pfile.h"

namespace {

// Paths of the temporary files open in this process, for the signal handler:
// fixed storage, because the handler may only call async-signal-safe functions.
constexpr int kTempSlots = 8;
constexpr size_t kTempPathMax = kPlatPathMax + 64;
char tempPaths[kTempSlots][kTempPathMax];
sig_atomic_t tempUsed[kTempSlots];

int registerTemp(const std::string& path) {
  if (path.size() + 1 > kTempPathMax) return -1;
  for (int i = 0; i < kTempSlots; i++) {
    sig_atomic_t expected = 0;
    // 2 marks a slot being filled, which the handler skips.
    if (!__atomic_compare_exchange_n(&tempUsed[i], &expected, 2, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE)) {
      continue;
    }
    memcpy(tempPaths[i], path.c_str(), path.size() + 1);
    __atomic_store_n(&tempUsed[i], 1, __ATOMIC_RELEASE);
    return i;
  }
  return -1;  // more than kTempSlots at once: no clean-up on a signal for this one
}

void unregisterTemp(int slot) {
  if (slot >= 0) __atomic_store_n(&tempUsed[slot], 0, __ATOMIC_RELEASE);
}

extern "C" void onStopSignal(int sig) {
  int saved = errno;
  for (int i = 0; i < kTempSlots; i++) {
    if (__atomic_load_n(&tempUsed[i], __ATOMIC_ACQUIRE) == 1) ::unlink(tempPaths[i]);
  }
  errno = saved;
  ::signal(sig, SIG_DFL);
  ::raise(sig);
}

// "<pid>.<tid>" with both all digits; the pid, or -1 when text is not of that form.
long parseTempSuffix(const char* text) {
  const char* dot = strchr(text, '.');
  if (dot == nullptr || dot == text || dot[1] == '\0') return -1;
  long pid = 0;
  for (const char* p = text; p < dot; p++) {
    if (*p < '0' || *p > '9' || pid > 100000000) return -1;
    pid = pid * 10 + (*p - '0');
  }
  for (const char* p = dot + 1; *p; p++) {
    if (*p < '0' || *p > '9') return -1;
  }
  return pid;
}

}  // namespace

std::string PlatTmpName(const std::string& path) {
  unsigned int tid = static_cast<unsigned int>(syscall(SYS_gettid));
  return path + ".tmp." + std::to_string(getpid()) + "." + std::to_string(tid);
}

int PlatRemoveStaleTemps(const std::string& target) {
  size_t slash = target.rfind('/');
  std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : target.substr(0, slash);
  std::string prefix = (slash == std::string::npos ? target : target.substr(slash + 1)) + ".tmp.";
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return 0;
  int removed = 0;
  while (struct dirent* e = ::readdir(d)) {
    if (strncmp(e->d_name, prefix.c_str(), prefix.size()) != 0) continue;
    long pid = parseTempSuffix(e->d_name + prefix.size());
    if (pid <= 0 || pid == getpid()) continue;
    // Only a process that is known to be gone loses its file (EPERM: alive).
    if (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
    if (::unlinkat(::dirfd(d), e->d_name, 0) == 0) removed++;
  }
  ::closedir(d);
  return removed;
}

void PlatInstallTempCleanup() {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = onStopSignal;
  sigemptyset(&sa.sa_mask);
  for (int sig : {SIGINT, SIGTERM}) {
    struct sigaction old;
    // A signal the caller's parent set to be ignored stays ignored.
    if (::sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
    ::sigaction(sig, &sa, nullptr);
  }
}

PlatTempFile::~PlatTempFile() {
  remove();
}

int PlatTempFile::create(const std::string& target, unsigned mode) {
  remove();
  PlatRemoveStaleTemps(target);
  std::string path = PlatTmpName(target);
  // A leftover of an earlier process with this very pid and tid.
  PlatUnlink(path.c_str());
  slot_ = registerTemp(path);
  int rc = PlatOpen(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, static_cast<int>(mode),
                    &fd_);
  if (rc != 0) {
    unregisterTemp(slot_);
    slot_ = -1;
    return rc;
  }
  path_ = path;
  return 0;
}

int PlatTempFile::close() {
  if (fd_ < 0) return 0;
  int rc = PlatClose(fd_);
  fd_ = -1;
  return rc;
}

void PlatTempFile::release() {
  close();
  unregisterTemp(slot_);
  slot_ = -1;
  path_.clear();
}

void PlatTempFile::remove() {
  close();
  if (!path_.empty()) PlatUnlink(path_.c_str());
  release();
}

int PlatAtomicReplace(const std::string& path, const void* data, size_t len, unsigned mode) {
  PlatTempFile tmp;
  int rc = tmp.create(path, mode);
  if (rc != 0) return rc;
  const char* p = static_cast<const char*>(data);
  size_t done = 0;
  while (done < len) {
    size_t put = 0;
    rc = PlatWrite(tmp.fd(), p + done, len - done, &put);
    if (rc != 0) return rc;
    if (put == 0) return EIO;
    done += put;
  }
  rc = PlatFsync(tmp.fd());
  if (rc == 0) rc = tmp.close();
  if (rc == 0) rc = PlatRename(tmp.path().c_str(), path.c_str());
  if (rc != 0) return rc;
  tmp.release();
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  return PlatSyncDir(dir.c_str());
}

PlatLockFile::~PlatLockFile() {
  unlock();
}

int PlatLockFile::lock(const std::string& path, long long waitMs) {
  unlock();
  int rc = PlatOpen(path.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK, 0644, &fd_);
  if (rc == ELOOP) rc = EINVAL;  // a symbolic link planted at the lock's name
  if (rc != 0) return rc;
  struct stat st;
  rc = PlatFstat(fd_, &st);
  if (rc == 0 && !S_ISREG(st.st_mode)) rc = EINVAL;
  long long deadline = PlatNowMs() + waitMs;
  while (rc == 0 && ::flock(fd_, LOCK_EX | LOCK_NB) < 0) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) {
      rc = errno;
    } else if (PlatNowMs() >= deadline) {
      rc = ETIMEDOUT;
    } else {
      PlatSleepUs(20000);
    }
  }
  if (rc != 0) unlock();
  return rc;
}

void PlatLockFile::unlock() {
  if (fd_ < 0) return;
  PlatClose(fd_);  // releases the lock
  fd_ = -1;
}
