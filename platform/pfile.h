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
int PlatFsync(int fd);
int PlatStat(const char* path, struct stat* st);
int PlatFstat(int fd, struct stat* st);
int PlatRename(const char* from, const char* to);
int PlatUnlink(const char* path);
int PlatMkdir(const char* path, unsigned mode);
// Copies the path into buf (kPlatPathMax bytes); ENAMETOOLONG when it does not fit.
int PlatPathConvert(const char* path, char* buf, size_t bufLen);
// Runs a command through the system shell; *status is its wait status.
int PlatSystem(const char* cmd, int* status);
// The system's text for an error number.
const char* PlatStrError(int err);

#endif  // PLATFORM_PFILE_H
