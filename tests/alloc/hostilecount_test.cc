// A record whose count claims more elements than its input can hold must fail
// its load without reserving memory for the claim: a peer or a damaged file
// could otherwise make the client allocate gigabytes from a few bytes.
// The replaced operator new below is malloc underneath, so free is its match.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "zel/paxosdata.h"
#include "zel/paxosutils.h"

namespace {

std::atomic<bool> tracking{false};
std::atomic<size_t> largest{0};

}  // namespace

// Every allocation of this test binary passes here (it has a binary of its own so
// that no other test runs on these replacements); only the largest one made
// while tracking is remembered. Every form is replaced, so that each delete
// meets the allocator of its new.
static void* TrackedAlloc(size_t n) {
  if (tracking.load(std::memory_order_relaxed)) {
    size_t cur = largest.load(std::memory_order_relaxed);
    while (n > cur && !largest.compare_exchange_weak(cur, n)) {
    }
  }
  return std::malloc(n == 0 ? 1 : n);
}
void* operator new(size_t n) {
  void* p = TrackedAlloc(n);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new[](size_t n) {
  return operator new(n);
}
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  return TrackedAlloc(n);
}
void* operator new[](size_t n, const std::nothrow_t&) noexcept {
  return TrackedAlloc(n);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
  std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}

namespace {

// The count field: 2^31 - 1, then a few bytes that could hold a handful of
// elements at most.
std::string HostileCount(const std::string& before = "") {
  char b[16];
  char* e = DumpVarUInt(b, 2147483647LL, 0);
  return before + std::string(b, e) + std::string("\x01\x02\x03\x04\x05\x06", 6);
}

template <typename R>
size_t LargestAllocationOfFailedLoad(const std::string& bytes) {
  R r;
  largest = 0;
  tracking = true;
  const char* e = r.load(bytes.data(), bytes.data() + bytes.size());
  tracking = false;
  EXPECT_EQ(nullptr, e);
  return largest;
}

TEST(HostileCountTest, LoadFailsWithoutReservingForTheClaim) {
  // Far below what even the smallest claimed element (one byte) times 2^31
  // would need, and above what a few decoded elements take.
  const size_t kLimit = 4096;
  EXPECT_LT(LargestAllocationOfFailedLoad<NodeList>(HostileCount()), kLimit);
  EXPECT_LT(LargestAllocationOfFailedLoad<DiskList>(HostileCount()), kLimit);
  EXPECT_LT(LargestAllocationOfFailedLoad<ValueList>(HostileCount()), kLimit);
  EXPECT_LT(LargestAllocationOfFailedLoad<FileList>(HostileCount()), kLimit);
  EXPECT_LT(LargestAllocationOfFailedLoad<FileIdMap>(HostileCount()), kLimit);
  EXPECT_LT(LargestAllocationOfFailedLoad<ZelObjectInfoList>(HostileCount()), kLimit);
  // The committed state starts with its node list's count.
  EXPECT_LT(LargestAllocationOfFailedLoad<CommittedState>(HostileCount()), kLimit);
}

}  // namespace
