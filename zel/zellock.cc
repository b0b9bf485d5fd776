#include "zel/zellock.h"

#include <condition_variable>
#include <mutex>

#include "zel/paxosutils.h"

namespace {

struct LockSlot {
  std::mutex mu;
  std::condition_variable cv;
  int shared = 0;
  int exclusive = 0;
};

LockSlot slots[kZelLockSlots];

}  // namespace

void ZELLockInit() {
  for (auto& s : slots) {
    std::lock_guard<std::mutex> g(s.mu);
    s.shared = 0;
    s.exclusive = 0;
  }
}

void ZELLock::acquire(LMode mode) {
  ZASSERT(index_ >= 0 && index_ < kZelLockSlots);
  LockSlot& s = slots[index_];
  std::unique_lock<std::mutex> g(s.mu);
  if (mode == LMODE_SHARED) {
    s.cv.wait(g, [&] { return s.exclusive <= 0; });
    s.shared++;
  } else if (mode == LMODE_EXCLUSIVE) {
    s.cv.wait(g, [&] { return s.shared + s.exclusive <= 0; });
    s.exclusive++;
  }
  mode_ = mode;
}

void ZELLock::release() {
  if (mode_ == LMODE_NONE) return;
  LockSlot& s = slots[index_];
  {
    std::lock_guard<std::mutex> g(s.mu);
    if (mode_ == LMODE_SHARED) s.shared--;
    if (mode_ == LMODE_EXCLUSIVE) s.exclusive--;
    s.cv.notify_all();
  }
  mode_ = LMODE_NONE;
}
