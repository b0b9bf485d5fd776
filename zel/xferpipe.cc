#include "zel/xferpipe.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

namespace {

// Below this the thread costs more than the overlap gains.
constexpr long long kPipeMinBytes = 8 << 20;
// Received bytes wait for the disk in kSlots of these.
constexpr size_t kSlotBytes = 2 << 20;

}  // namespace

ReadAhead::~ReadAhead() {
  finish();
}

void ReadAhead::finish() {
  if (threaded_) {
    {
      std::lock_guard<std::mutex> g(mu_);
      stop_ = true;
    }
    cv_.notify_all();
    pthread_join(thread_, nullptr);
    threaded_ = false;
  }
  reader_.finish();
}

int ReadAhead::start(int fd, long long size, size_t chunk) {
  reader_.start(fd, size, chunk);
  chunks_ = (size + static_cast<long long>(chunk) - 1) / static_cast<long long>(chunk);
  nSlots_ = size >= kPipeMinBytes ? kSlots : 1;
  for (int i = 0; i < nSlots_ && chunks_ > 0; i++) {
    if (slots_[i].buf.alloc(static_cast<size_t>(std::min<long long>(size, chunk))) != 0) {
      if (i == 0) return ENOMEM;
      nSlots_ = i;
    }
  }
  threaded_ = nSlots_ > 1 && pthread_create(&thread_, nullptr, &ReadAhead::run, this) == 0;
  return 0;
}

void* ReadAhead::run(void* self) {
  static_cast<ReadAhead*>(self)->readAll();
  return nullptr;
}

void ReadAhead::readAll() {
  std::unique_lock<std::mutex> lk(mu_);
  readChunks(lk);
  ended_ = true;
  cv_.notify_all();
}

void ReadAhead::readChunks(std::unique_lock<std::mutex>& lk) {
  while (produced_ < chunks_) {
    // The slot of the chunk handed out last stays the caller's until its next call.
    cv_.wait(lk, [&] { return stop_ || produced_ - consumed_ < nSlots_ - 1; });
    if (stop_) return;
    Slot& s = slots_[produced_ % nSlots_];
    lk.unlock();
    s.rc = reader_.next(s.buf.data(), &s.len);
    lk.lock();
    produced_++;
    cv_.notify_all();
    if (s.rc != 0) {
      lastRc_ = s.rc;
      return;
    }
  }
}

int ReadAhead::next(const char** data, size_t* len) {
  Slot& s = slots_[consumed_ % nSlots_];
  if (!threaded_) {
    s.rc = reader_.next(s.buf.data(), &s.len);
  } else {
    std::unique_lock<std::mutex> lk(mu_);
    cv_.wait(lk, [&] { return produced_ > consumed_ || ended_; });
    // Asked past an error or the end: nothing more will come.
    if (produced_ == consumed_) return lastRc_ != 0 ? lastRc_ : ENODATA;
  }
  *data = s.buf.data();
  *len = s.len;
  int rc = s.rc;
  {
    std::lock_guard<std::mutex> g(mu_);
    consumed_++;
  }
  cv_.notify_all();
  return rc;
}

WriteBehind::~WriteBehind() {
  cancel();
}

void WriteBehind::cancel() {
  if (!threaded_) return;
  {
    std::lock_guard<std::mutex> g(mu_);
    stop_ = true;
    if (err_ == 0) err_ = ECANCELED;  // abandoned: what is left need not be written
  }
  cv_.notify_all();
  pthread_join(thread_, nullptr);
  threaded_ = false;
}

void WriteBehind::start(int fd, long long expected) {
  out_.start(fd, expected);
  if (expected < kPipeMinBytes) return;
  for (PlatAlignedBuf& b : slots_)
    if (b.alloc(kSlotBytes) != 0) return;
  threaded_ = pthread_create(&thread_, nullptr, &WriteBehind::run, this) == 0;
}

void* WriteBehind::run(void* self) {
  static_cast<WriteBehind*>(self)->writeAll();
  return nullptr;
}

void WriteBehind::writeAll() {
  std::unique_lock<std::mutex> lk(mu_);
  for (;;) {
    cv_.wait(lk, [&] { return stop_ || filled_ > written_; });
    if (filled_ == written_) return;  // stopped, nothing left
    int slot = static_cast<int>(written_ % kSlots);
    bool skip = err_ != 0;
    lk.unlock();
    int rc = skip ? 0 : out_.write(slots_[slot].data(), lens_[slot]);
    lk.lock();
    if (err_ == 0) err_ = rc;
    written_++;
    cv_.notify_all();
  }
}

int WriteBehind::submit() {
  std::unique_lock<std::mutex> lk(mu_);
  lens_[filled_ % kSlots] = filling_;
  filled_++;
  filling_ = 0;
  cv_.notify_all();
  // The next slot to fill must be free.
  cv_.wait(lk, [&] { return err_ != 0 || filled_ - written_ < kSlots; });
  return err_;
}

int WriteBehind::write(const char* p, size_t len) {
  if (!threaded_) return out_.write(p, len);
  while (len > 0) {
    PlatAlignedBuf& b = slots_[filled_ % kSlots];
    size_t n = std::min(len, b.size() - filling_);
    memcpy(b.data() + filling_, p, n);
    filling_ += n;
    p += n;
    len -= n;
    if (filling_ == b.size()) {
      int rc = submit();
      if (rc != 0) return rc;
    }
  }
  return 0;
}

int WriteBehind::finish() {
  if (threaded_) {
    int rc = filling_ > 0 ? submit() : 0;
    {
      std::lock_guard<std::mutex> g(mu_);
      stop_ = true;
    }
    cv_.notify_all();
    pthread_join(thread_, nullptr);
    threaded_ = false;
    if (rc == 0) rc = err_;
    if (rc != 0) return rc;
  }
  return out_.finish();
}
