// ZELLock: an in-process reader/writer lock over five fixed slots. Slot 3
// guards the connection cache, slot 4 the file-transfer map.
#ifndef ZEL_ZELLOCK_H
#define ZEL_ZELLOCK_H

enum LMode { LMODE_NONE = 0, LMODE_SHARED = 1, LMODE_EXCLUSIVE = 2 };

constexpr int kZelLockSlots = 5;
constexpr int kZelLockConnCache = 3;
constexpr int kZelLockFxFerMap = 4;

// Initialises the five slots; called once before any command runs.
void ZELLockInit();

// One holder's use of a slot. Whatever it still holds is released when it goes.
class ZELLock {
 public:
  explicit ZELLock(int index) : index_(index) {}
  ~ZELLock() { release(); }
  ZELLock(const ZELLock&) = delete;
  ZELLock& operator=(const ZELLock&) = delete;

  // Waits until the mode is compatible with the holders, then records it.
  void acquire(LMode mode);
  // Releases the recorded mode; releasing twice is harmless.
  void release();
  LMode mode() const { return mode_; }

 private:
  int index_;
  LMode mode_ = LMODE_NONE;
};

// Holds a slot in a mode for a scope:  ZELLockHolder l(kZelLockConnCache, LMODE_EXCLUSIVE);
class ZELLockHolder {
 public:
  ZELLockHolder(int index, LMode mode) : lock_(index) { lock_.acquire(mode); }
  ZELLockHolder(const ZELLockHolder&) = delete;
  ZELLockHolder& operator=(const ZELLockHolder&) = delete;

 private:
  ZELLock lock_;
};

#endif  // ZEL_ZELLOCK_H
