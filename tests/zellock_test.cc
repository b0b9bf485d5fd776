#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "zel/zellock.h"

namespace {

TEST(ZELLockTest, ExclusiveHoldersNeverOverlap) {
  ZELLockInit();
  std::atomic<int> inside{0}, maxExclusiveSeen{0};
  std::vector<std::thread> ts;
  for (int t = 0; t < 4; t++) {
    ts.emplace_back([&, t] {
      for (int i = 0; i < 200; i++) {
        ZELLock l(3);
        bool ex = (t % 2) == 0;
        l.acquire(ex ? LMODE_EXCLUSIVE : LMODE_SHARED);
        int now = ++inside;
        if (ex && now > maxExclusiveSeen) maxExclusiveSeen = now;
        --inside;
        l.release();
        l.release();  // a second release is harmless
      }
    });
  }
  for (auto& th : ts) th.join();
  EXPECT_EQ(maxExclusiveSeen.load(), 1);
  ZELLock a(3), b(4);  // slots are independent
  a.acquire(LMODE_EXCLUSIVE);
  b.acquire(LMODE_EXCLUSIVE);
  a.release();
  EXPECT_EQ(std::make_pair(a.mode(), b.mode()), std::make_pair(LMODE_NONE, LMODE_EXCLUSIVE));
  b.release();
}

}  // namespace
