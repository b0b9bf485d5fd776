#include "support/linearize.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using lin::kNever;
using lin::Op;
using lin::Verdict;

Op Make(Op::Kind k, const std::string& name, const std::string& value, long long inv,
        long long comp, Op::Outcome out, int version, int expected = 0) {
  Op o;
  o.kind = k;
  o.name = name;
  o.value = value;
  o.invoke = inv;
  o.complete = comp;
  o.outcome = out;
  o.version = version;
  o.expected = expected;
  return o;
}
Op Put(const std::string& v, long long inv, long long comp, Op::Outcome out = Op::kOk,
       int version = -1, const std::string& name = "a") {
  return Make(Op::kPut, name, v, inv, comp, out, version);
}
Op CondPut(int expected, const std::string& v, long long inv, long long comp,
           Op::Outcome out = Op::kOk) {
  return Make(Op::kCondPut, "a", v, inv, comp, out, -1, expected);
}
Op Get(const std::string& v, int version, long long inv, long long comp,
       const std::string& name = "a") {
  return Make(Op::kGet, name, v, inv, comp, Op::kOk, version);
}
Op Absent(long long inv, long long comp) {
  return Make(Op::kGet, "a", "", inv, comp, Op::kAbsent, -1);
}

TEST(LinearizeTest, HandMadeHistories) {
  struct Case {
    const char* what;
    std::vector<Op> ops;
    bool linearizable;
  } cases[] = {
      {"empty history", {}, true},
      {"put then get", {Put("x", 0, 1), Get("x", 1, 2, 3)}, true},
      {"get during a put sees the old state", {Put("x", 0, 10), Absent(2, 3)}, true},
      {"get during a put sees the new state", {Put("x", 0, 10), Get("x", 1, 2, 3)}, true},
      {"gets during a put cannot go back",
       {Put("x", 0, 10), Get("x", 1, 2, 3), Absent(4, 5)},
       false},
      {"stale read", {Put("x", 0, 1), Put("y", 2, 3), Get("x", 1, 4, 5)}, false},
      {"lost update: two puts, one version",
       {Put("x", 0, 5), Put("y", 1, 6), Get("y", 1, 7, 8)},
       false},
      {"two concurrent puts in either order",
       {Put("x", 0, 5), Put("y", 1, 6), Get("x", 2, 7, 8)},
       true},
      {"put reports the version it made", {Put("x", 0, 1, Op::kOk, 2)}, false},
      {"conditional put succeeded twice on one version",
       {Put("x", 0, 1), CondPut(1, "a", 2, 5), CondPut(1, "b", 3, 6)},
       false},
      {"one of two conditional puts refused",
       {Put("x", 0, 1), CondPut(1, "a", 2, 5), CondPut(1, "b", 3, 6, Op::kRefused),
        Get("a", 2, 7, 8)},
       true},
      {"refused with nothing in the way",
       {Put("x", 0, 1), CondPut(1, "a", 2, 3, Op::kRefused)},
       false},
      {"conditional put on an absent name expects 0",
       {CondPut(0, "a", 0, 1), Get("a", 1, 2, 3)},
       true},
      {"read of a value never written", {Put("x", 0, 1), Get("z", 1, 2, 3)}, false},
      {"unknown put that took effect",
       {Put("z", 0, kNever, Op::kUnknown), Get("z", 1, 5, 6)},
       true},
      {"unknown put that did not", {Put("z", 0, kNever, Op::kUnknown), Absent(5, 6)}, true},
      {"unknown put seen, then gone",
       {Put("z", 0, kNever, Op::kUnknown), Get("z", 1, 5, 6), Absent(7, 8)},
       false},
      {"unknown put seen before it was sent",
       {Get("z", 1, 0, 1), Put("z", 2, kNever, Op::kUnknown)},
       false},
      {"unknown conditional put refused or applied",
       {Put("x", 0, 1), CondPut(1, "c", 2, kNever, Op::kUnknown), Get("x", 1, 3, 4),
        Get("c", 2, 5, 6)},
       true},
      {"names are independent",
       {Put("x", 0, 10), Put("p", 1, 2, Op::kOk, 1, "b"), Get("p", 1, 3, 4, "b"),
        Get("x", 1, 5, 6)},
       true},
  };
  for (const Case& c : cases) {
    Verdict v = lin::CheckLinearizable(c.ops);
    EXPECT_EQ(v.kind, c.linearizable ? Verdict::kLinearizable : Verdict::kNotLinearizable)
        << c.what << "\n"
        << v.explanation;
    EXPECT_EQ(v.name, c.linearizable ? "" : "a") << c.what;
  }
}

TEST(LinearizeTest, SearchIsBounded) {
  std::vector<Op> ops;
  for (int i = 0; i < 40; i++) ops.push_back(Put("v" + std::to_string(i), 0, 100));
  ops.push_back(Get("none", 1, 200, 201));
  EXPECT_EQ(lin::CheckLinearizable(ops, 5000).kind, Verdict::kGaveUp);
}

// Histories of a simulated linearizable store: each operation takes effect at a
// random moment between its invocation and completion, in that order on one
// register per name. Some clients give up on an operation, which then takes
// effect or not.
std::vector<Op> Simulate(unsigned seed) {
  std::mt19937 rng(seed);
  auto r = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  struct Timed {
    Op op;
    long long effect;
    bool applies;
  };
  std::vector<Timed> all;
  for (int c = 0; c < 4; c++) {
    long long t = r(5);
    for (int i = 0; i < 12; i++) {
      Timed x;
      x.op.client = c;
      x.op.name = r(2) ? "a" : "b";
      x.op.kind = static_cast<Op::Kind>(r(3));
      x.op.value = "c" + std::to_string(c) + "." + std::to_string(i);
      x.op.expected = r(4);
      x.op.invoke = t + r(4);
      x.effect = x.op.invoke + r(12);
      x.op.complete = x.effect + r(12);
      x.applies = true;
      if (r(10) == 0) {
        x.applies = r(2);
        t = x.op.invoke + 20;
        x.op.complete = kNever;
        x.op.outcome = Op::kUnknown;
      } else {
        t = x.op.complete;
      }
      all.push_back(x);
    }
  }
  std::stable_sort(all.begin(), all.end(),
                   [](const Timed& a, const Timed& b) { return a.effect < b.effect; });
  std::map<std::string, std::pair<int, std::string>> store;  // name -> version, value
  std::vector<Op> history;
  for (Timed& x : all) {
    Op& op = x.op;
    bool unknown = op.outcome == Op::kUnknown;
    auto it = store.find(op.name);
    int cur = it == store.end() ? 0 : it->second.first;
    if (op.kind == Op::kGet) {
      if (it == store.end()) {
        op.outcome = Op::kAbsent;
      } else {
        op.value = it->second.second;
        op.version = cur;
      }
    } else if (op.kind == Op::kCondPut && cur != op.expected) {
      if (!unknown) op.outcome = Op::kRefused;
    } else if (x.applies) {
      store[op.name] = {cur + 1, op.value};
      if (!unknown && r(2)) op.version = cur + 1;
    }
    if (unknown && op.kind == Op::kGet) op.outcome = Op::kUnknown;
    history.push_back(op);
  }
  return history;
}

TEST(LinearizeTest, SimulatedLinearizableStorePasses) {
  for (unsigned seed = 1; seed <= 60; seed++) {
    std::vector<Op> h = Simulate(seed);
    Verdict v = lin::CheckLinearizable(h);
    ASSERT_EQ(v.kind, Verdict::kLinearizable) << "seed " << seed << "\n" << v.explanation;

    // A read of a value nobody wrote breaks any history.
    auto read = std::find_if(
        h.begin(), h.end(), [](const Op& o) { return o.kind == Op::kGet && o.outcome == Op::kOk; });
    if (read == h.end()) continue;
    read->value = "forged";
    EXPECT_EQ(lin::CheckLinearizable(h).kind, Verdict::kNotLinearizable) << "seed " << seed;
  }
}

}  // namespace
