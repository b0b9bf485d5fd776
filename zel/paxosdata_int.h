// Shared by the paxosdata*.cc files only.
#ifndef ZEL_PAXOSDATA_INT_H
#define ZEL_PAXOSDATA_INT_H

#include <algorithm>

#include "zel/paxosdata.h"
#include "zel/paxosutils.h"

// The record files form one unit: their assertions name zel/paxosdata.
#define PD_ASSERT_T(cond, text) \
  ((cond) ? (void)0 : assert_failed("zel/paxosdata.cc", __LINE__, text))
#define PD_ASSERT_M(cond, text, ...) \
  ((cond) ? (void)0 : assert_failed("zel/paxosdata.cc", __LINE__, text, __VA_ARGS__))

namespace paxosdata_internal {

// Room for at most the entries that could fit in the remaining input, so a
// damaged count cannot make us allocate gigabytes.
inline size_t ReserveFor(int count, const char* p, const char* end, int minEntry) {
  long room = (end - p) / minEntry;
  return static_cast<size_t>(std::min<long>(count, room));
}

}  // namespace paxosdata_internal

#endif  // ZEL_PAXOSDATA_INT_H
