#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "zel/zellock.h"

namespace {

TEST(ZELLockTest, ExclusiveHoldersNeverOverlapSharedOnesMay) {
  ZELLockInit();
  std::atomic<int> inside{0}, maxExclusiveSeen{0}, sharedTogether{0};
  std::vector<std::thread> ts;
  for (int t = 0; t < 4; t++) {
    ts.emplace_back([&, t] {
      for (int i = 0; i < 200; i++) {
        ZELLock l(3);
        bool ex = (t % 2) == 0;
        l.acquire(ex ? LMODE_EXCLUSIVE : LMODE_SHARED);
        int now = ++inside;
        if (ex && now > maxExclusiveSeen) maxExclusiveSeen = now;
        if (!ex && now > 1) sharedTogether++;
        --inside;
        l.release();
        l.release();  // a second release is harmless
      }
    });
  }
  for (auto& th : ts) th.join();
  EXPECT_EQ(maxExclusiveSeen.load(), 1);
  // Another thread on another slot is never blocked by slot 3.
  ZELLock a(3), b(4);
  a.acquire(LMODE_EXCLUSIVE);
  b.acquire(LMODE_EXCLUSIVE);
  EXPECT_EQ(b.mode(), LMODE_EXCLUSIVE);
  b.release();
  a.release();
  EXPECT_EQ(a.mode(), LMODE_NONE);
}

}  // namespace
