// Building blocks of request and reply bodies for tests of the client requests.
#ifndef TESTS_SUPPORT_WIREBODIES_H
#define TESTS_SUPPORT_WIREBODIES_H

#include <string>

#include "support/recordcheck.h"
#include "zel/paxosdata.h"
#include "zel/paxosutils.h"

inline std::string V(long long v, int bias) {
  char b[MaxSizeVarUInt];
  return std::string(b, DumpVarUInt(b, v, bias));
}
// The text and its NUL byte.
inline std::string S(const std::string& s) {
  return s + std::string(1, '\0');
}
inline unsigned int Crc(const std::string& d) {
  return finalcrc(partialcrc(reinterpret_cast<const unsigned char*>(d.data()), d.size(), 0),
                  d.size());
}
// A "seq_commit" body.
inline std::string Commit(int seq, const CommittedState& s) {
  return V(seq, 0) + Encode(s);
}

#endif  // TESTS_SUPPORT_WIREBODIES_H
