// Overlaps the disk with the connection in large transfers: a thread of its
// own reads the next chunks of a file ahead of the sender, or writes received
// chunks behind the receiver, so that neither waits for the other. When the
// file is small or the thread cannot be started, the same calls do the work
// in place.
#ifndef ZEL_XFERPIPE_H
#define ZEL_XFERPIPE_H

#include <pthread.h>

#include <condition_variable>
#include <mutex>

#include "platform/pdirect.h"

class ReadAhead {
 public:
  ReadAhead() = default;
  ~ReadAhead();
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;
  // fd: a descriptor of its own (see PlatFileReader), size bytes read in chunks
  // of chunk bytes (a multiple of kPlatDirectAlign). 0 or ENOMEM.
  int start(int fd, long long size, size_t chunk);
  // The next chunk, valid until the next call. The errors of PlatFileReader.
  int next(const char** data, size_t* len);
  // Stops reading ahead and leaves fd without O_DIRECT (as the destructor does).
  void finish();

 private:
  static constexpr int kSlots = 4;
  struct Slot {
    PlatAlignedBuf buf;
    size_t len = 0;
    int rc = 0;
  };
  static void* run(void* self);
  void readAll();
  void readChunks(std::unique_lock<std::mutex>& lk);

  PlatFileReader reader_;
  Slot slots_[kSlots];
  int nSlots_ = 0;
  long long chunks_ = 0;
  std::mutex mu_;
  std::condition_variable cv_;
  long long produced_ = 0;  // chunks read into slots
  long long consumed_ = 0;  // chunks handed out
  bool stop_ = false;
  bool ended_ = false;  // the thread reads no more
  int lastRc_ = 0;
  bool threaded_ = false;
  pthread_t thread_{};
};

class WriteBehind {
 public:
  WriteBehind() = default;
  ~WriteBehind();
  WriteBehind(const WriteBehind&) = delete;
  WriteBehind& operator=(const WriteBehind&) = delete;
  // As PlatDirectWriter::start.
  void start(int fd, long long expected);
  // Copies p to be written after what came before. 0, or the error of an
  // earlier write.
  int write(const char* p, size_t len);
  // Waits for every write and leaves fd as PlatDirectWriter::finish does.
  int finish();
  // Stops without writing what is left (as the destructor does): after it, fd
  // may be closed.
  void cancel();

 private:
  static constexpr int kSlots = 4;
  static void* run(void* self);
  void writeAll();
  int submit();  // hands the slot being filled to the thread

  PlatDirectWriter out_;
  // Aligned, so that whole slots go to the disk without another copy.
  PlatAlignedBuf slots_[kSlots];
  size_t lens_[kSlots] = {};
  size_t filling_ = 0;  // bytes in the slot being filled (number filled_)
  std::mutex mu_;
  std::condition_variable cv_;
  long long filled_ = 0;   // slots handed to the thread
  long long written_ = 0;  // slots the thread is done with
  int err_ = 0;
  bool stop_ = false;
  bool threaded_ = false;
  pthread_t thread_{};
};

#endif  // ZEL_XFERPIPE_H
