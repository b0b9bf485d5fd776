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

// Record lists are a count (VarUInt, bias 0) followed by each record. A load
// keeps the records decoded before a failure.
template <class List>
int SizeRecordList(const List& l) {
  int n = SizeVarUInt(static_cast<long long>(l.size()), 0);
  for (const auto& r : l) n += r.getSize();
  return n;
}

template <class List>
char* DumpRecordList(char* p, const List& l) {
  p = DumpVarUInt(p, static_cast<long long>(l.size()), 0);
  for (const auto& r : l) p = r.dump(p);
  return p;
}

template <class List>
const char* LoadRecordList(const char* p, const char* end, List* l, int minEntry) {
  l->clear();
  int count = 0;
  p = LoadVarUInt(p, end, &count, 0);
  if (p == nullptr) return nullptr;
  l->reserve(ReserveFor(count, p, end, minEntry));
  for (int i = 0; i < count; i++) {
    typename List::value_type r;
    p = r.load(p, end);
    if (p == nullptr) return nullptr;
    l->push_back(std::move(r));
  }
  return p;
}

}  // namespace paxosdata_internal

#endif  // ZEL_PAXOSDATA_INT_H
