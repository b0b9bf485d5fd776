// A linearizability checker for histories of operations on named values, for
// the end-to-end tests: Wing and Gong's search with memoisation (a set of
// (linearized operations, state) pairs already explored), run name by name
// since operations on different names never interact.
//
// The model of one name: absent, or (version, value). An unconditional put
// makes version old + 1 (1 from absent); a conditional put with expected
// version e succeeds when the current version is e (absent counts as 0) and is
// refused (153) otherwise; a get returns the value and version or absence.
#ifndef TESTS_SUPPORT_LINEARIZE_H
#define TESTS_SUPPORT_LINEARIZE_H

#include <limits>
#include <string>
#include <vector>

namespace lin {

constexpr long long kNever = std::numeric_limits<long long>::max();

struct Op {
  enum Kind { kPut, kCondPut, kGet };
  enum Outcome {
    kOk,       // put/cond put applied; get read value/version
    kRefused,  // cond put refused for a version mismatch
    kAbsent,   // get found no value
    kUnknown,  // the client gave up: it may have taken effect or not
  };
  Kind kind = kGet;
  std::string name;
  std::string value;  // put: the value written; get: the value read
  int expected = 0;   // cond put: the version it expects
  Outcome outcome = kOk;
  int version = -1;             // get: the version read; put: the new version if known, else -1
  long long invoke = 0;         // when the client sent it
  long long complete = kNever;  // when the client had its answer; kNever when unknown
  int client = 0;               // for messages only
};

std::string Describe(const Op& op);

struct Verdict {
  enum Kind { kLinearizable, kNotLinearizable, kGaveUp };
  Kind kind = kLinearizable;
  std::string name;         // the name whose history failed
  std::string explanation;  // the operations of that name that could not be ordered
  long long states = 0;     // search states explored, over all names
};

// maxStates bounds the search per name; beyond it the verdict is kGaveUp.
Verdict CheckLinearizable(const std::vector<Op>& history, long long maxStates = 2000000);

}  // namespace lin

#endif  // TESTS_SUPPORT_LINEARIZE_H
