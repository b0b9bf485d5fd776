// Large sequential file transfers with direct I/O: the bytes move between the
// disk and one reused, aligned buffer instead of through the page cache. On a
// virtual machine whose first touch of a memory page is slow, filling fresh
// page-cache pages costs several times what the disk does, and a file that is
// written once and synced (or read once to be sent) gains nothing from them.
// Where the file system refuses direct I/O, the same calls do buffered I/O.
#ifndef PLATFORM_PDIRECT_H
#define PLATFORM_PDIRECT_H

#include <sys/types.h>

#include <cstddef>

// Offsets, lengths and buffer addresses of direct I/O are multiples of this.
constexpr size_t kPlatDirectAlign = 4096;

// An aligned buffer, freed on destruction; data() is nullptr when it could not
// be had.
class PlatAlignedBuf {
 public:
  PlatAlignedBuf() = default;
  ~PlatAlignedBuf();
  PlatAlignedBuf(const PlatAlignedBuf&) = delete;
  PlatAlignedBuf& operator=(const PlatAlignedBuf&) = delete;
  // len rounded up to kPlatDirectAlign; ENOMEM when it cannot be had.
  int alloc(size_t len);
  char* data() const { return p_; }
  size_t size() const { return len_; }

 private:
  char* p_ = nullptr;
  size_t len_ = 0;
};

// Writes a new file from offset 0 in order. Whole aligned blocks go direct,
// from the caller's memory when it is aligned, else through a buffer; the tail
// that is not a whole block is written after direct I/O is turned off again,
// so that the file ends up exactly as long as what was given. Direct
// writes reach the disk but not past its cache: durability still needs fsync.
class PlatDirectWriter {
 public:
  // fd: an empty file open for writing; expected: the bytes to come (sizes the
  // buffer). Buffered when the file system refuses direct I/O, when no whole
  // block is expected, or when no buffer can be had.
  void start(int fd, long long expected);
  // 0 or the error of a write (the bytes may be kept and written later).
  int write(const void* p, size_t len);
  // Writes what is held and leaves fd without O_DIRECT. 0 or the error.
  int finish();
  bool direct() const { return direct_; }

 private:
  int put(const char* p, size_t len);
  int flush(size_t len);

  int fd_ = -1;
  bool direct_ = false;
  size_t bufBytes_ = 0;
  PlatAlignedBuf buf_;  // for what is not whole aligned blocks; allocated when first needed
  size_t held_ = 0;     // bytes in buf_ not written yet
  off_t off_ = 0;       // where buf_ goes in the file
};

// Reads a file of known size from offset 0 in chunks: direct when the file
// is mostly not in the page cache (filling fresh pages would cost more than
// the disk), buffered when it is.
class PlatFileReader {
 public:
  // fd open for reading (its flags are changed: give it a descriptor of its
  // own); chunk: the largest read, a multiple of kPlatDirectAlign. Files
  // smaller than a chunk are read buffered; evenIfCached reads the others
  // direct whatever the page cache holds.
  void start(int fd, long long size, size_t chunk, bool evenIfCached = false);
  // The next chunk of min(chunk, rest) bytes into buf, an aligned buffer of at
  // least chunk bytes. ENODATA when the file ends early.
  int next(char* buf, size_t* len);
  // Leaves fd without O_DIRECT.
  void finish();
  bool direct() const { return direct_; }

 private:
  int fd_ = -1;
  bool direct_ = false;
  long long size_ = 0;
  off_t off_ = 0;
  size_t chunk_ = 0;
};

// Bytes of fd's first size bytes that are in the page cache (0 when it cannot
// tell).
long long PlatCachedBytes(int fd, long long size);

#endif  // PLATFORM_PDIRECT_H
