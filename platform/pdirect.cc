#include "platform/pdirect.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "platform/pfile.h"
#include "platform/pfileio.h"

namespace {

// Large enough that the disk, not the system calls, sets the pace.
constexpr size_t kWriterBufBytes = 4u << 20;

size_t roundUp(size_t n) {
  return (n + kPlatDirectAlign - 1) / kPlatDirectAlign * kPlatDirectAlign;
}

}  // namespace

PlatAlignedBuf::~PlatAlignedBuf() {
  free(p_);
}

int PlatAlignedBuf::alloc(size_t len) {
  free(p_);
  p_ = nullptr;
  len_ = 0;
  void* p = nullptr;
  if (len == 0 || posix_memalign(&p, kPlatDirectAlign, roundUp(len)) != 0) return ENOMEM;
  p_ = static_cast<char*>(p);
  len_ = roundUp(len);
  return 0;
}

void PlatDirectWriter::start(int fd, long long expected) {
  fd_ = fd;
  direct_ = false;
  held_ = 0;
  off_ = 0;
  if (expected < static_cast<long long>(kPlatDirectAlign)) return;
  bufBytes_ = std::min(kWriterBufBytes, roundUp(static_cast<size_t>(expected)));
  direct_ = PlatSetDirect(fd, true) == 0;
}

int PlatDirectWriter::put(const char* p, size_t len) {
  int rc = PlatPwrite(fd_, p, len, off_);
  if (rc == EINVAL && direct_) {
    // Refused after all (an alignment this file system does not take): buffered.
    direct_ = false;
    rc = PlatSetDirect(fd_, false);
    if (rc == 0) rc = PlatPwrite(fd_, p, len, off_);
  }
  if (rc == 0) off_ += static_cast<off_t>(len);
  return rc;
}

int PlatDirectWriter::flush(size_t len) {
  int rc = put(buf_.data(), len);
  if (rc != 0) return rc;
  held_ -= len;
  memmove(buf_.data(), buf_.data() + len, held_);
  return 0;
}

int PlatDirectWriter::write(const void* p, size_t len) {
  const char* s = static_cast<const char*>(p);
  while (len > 0) {
    bool aligned = reinterpret_cast<uintptr_t>(s) % kPlatDirectAlign == 0;
    if (held_ == 0 && (!direct_ || (aligned && len >= kPlatDirectAlign))) {
      // Straight from the caller's memory: buffered, or whole blocks of an aligned buffer.
      size_t n = direct_ ? len - len % kPlatDirectAlign : len;
      int rc = put(s, n);
      if (rc != 0) return rc;
      s += n;
      len -= n;
      continue;
    }
    if (buf_.data() == nullptr && buf_.alloc(bufBytes_) != 0) {
      // Nothing is held without a buffer: the rest goes buffered.
      direct_ = false;
      int rc = PlatSetDirect(fd_, false);
      if (rc != 0) return rc;
      continue;
    }
    size_t n = std::min(len, buf_.size() - held_);
    memcpy(buf_.data() + held_, s, n);
    held_ += n;
    s += n;
    len -= n;
    if (held_ == buf_.size()) {
      int rc = flush(held_);
      if (rc != 0) return rc;
    }
  }
  return 0;
}

int PlatDirectWriter::finish() {
  int rc = 0;
  size_t whole = held_ - held_ % kPlatDirectAlign;
  if (direct_ && whole > 0) rc = flush(whole);
  // The tail is no whole block: it cannot go direct.
  if (rc == 0 && direct_) rc = PlatSetDirect(fd_, false);
  if (rc == 0 && held_ > 0) {
    rc = PlatPwrite(fd_, buf_.data(), held_, off_);
    if (rc == 0) off_ += static_cast<off_t>(held_);
    held_ = 0;
  }
  return rc;
}

void PlatFileReader::start(int fd, long long size, size_t chunk, bool evenIfCached) {
  fd_ = fd;
  direct_ = false;
  size_ = size;
  off_ = 0;
  chunk_ = chunk;
  if (size >= static_cast<long long>(chunk) &&
      (evenIfCached || PlatCachedBytes(fd, size) < size / 2)) {
    direct_ = PlatSetDirect(fd, true) == 0;
  }
}

int PlatFileReader::next(char* buf, size_t* len) {
  size_t want = static_cast<size_t>(std::min<long long>(size_ - off_, chunk_));
  *len = want;
  size_t got = 0;
  if (direct_) {
    // A whole number of blocks; the read stops at the end of the file.
    size_t ask = roundUp(want);
    while (got < want) {
      ssize_t n = ::pread(fd_, buf + got, ask - got, off_ + static_cast<off_t>(got));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EINVAL && got == 0) {
        direct_ = false;
        int rc = PlatSetDirect(fd_, false);
        if (rc != 0) return rc;
        break;
      }
      if (n < 0) return errno;
      if (n == 0) break;
      got += static_cast<size_t>(n);
      if (got % kPlatDirectAlign != 0) break;
    }
  }
  if (!direct_) {
    int rc = PlatPread(fd_, buf, want, off_, &got);
    if (rc != 0) return rc;
  }
  if (got < want) return ENODATA;
  off_ += static_cast<off_t>(want);
  return 0;
}

void PlatFileReader::finish() {
  if (direct_) PlatSetDirect(fd_, false);
  direct_ = false;
}

long long PlatCachedBytes(int fd, long long size) {
  if (size <= 0) return 0;
  void* map = ::mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_SHARED, fd, 0);
  if (map == MAP_FAILED) return 0;
  const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  const size_t pages = (static_cast<size_t>(size) + page - 1) / page;
  std::vector<unsigned char> vec(std::min<size_t>(pages, 16384));
  long long cached = 0;
  for (size_t first = 0; first < pages; first += vec.size()) {
    size_t n = std::min(vec.size(), pages - first);
    if (::mincore(static_cast<char*>(map) + first * page, n * page, vec.data()) != 0) break;
    for (size_t i = 0; i < n; i++) cached += vec[i] & 1;
  }
  ::munmap(map, static_cast<size_t>(size));
  return std::min(cached * static_cast<long long>(page), size);
}
