// File calls a durable server needs beyond pfile.h: positioned reads and writes,
// syncing a directory after a rename or link, hard links, and an exclusive lock
// file. Each returns 0 or the system error number and retries EINTR itself.
#ifndef PLATFORM_PFILEIO_H
#define PLATFORM_PFILEIO_H

#include <sys/types.h>

#include <cstddef>
#include <string>

// Loops until len bytes moved; a read that hits end of file early gives *got < len.
int PlatPread(int fd, void* buf, size_t len, off_t off, size_t* got);
int PlatPwrite(int fd, const void* buf, size_t len, off_t off);
int PlatFtruncate(int fd, off_t len);
// Opens the directory and fsyncs it, so that a rename or link in it is durable.
int PlatFsyncDir(const char* dir);
int PlatLink(const char* from, const char* to);
// Creates or opens path and takes an exclusive, non-blocking lock on it; the
// lock lives as long as *fdOut stays open. EWOULDBLOCK when another holds it.
int PlatLockFile(const char* path, int* fdOut);

// The atomic, durable replace: write path's temporary file, fsync it, rename it
// over path, fsync the directory. The temporary file is removed on failure.
int PlatWriteFileDurably(const std::string& path, const std::string& data);
// The whole file into *data (replaced); the error of open or read.
int PlatReadFile(const std::string& path, std::string* data);

#endif  // PLATFORM_PFILEIO_H
