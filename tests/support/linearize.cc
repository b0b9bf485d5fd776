#include "linearize.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <unordered_set>

namespace lin {

namespace {

struct State {
  bool present = false;
  int version = 0;
  std::string value;
};

// The state after op, or false when op's recorded result cannot happen in s.
bool step(const State& s, const Op& op, State* n) {
  int cur = s.present ? s.version : 0;
  bool apply = false;
  switch (op.kind) {
    case Op::kPut:
      if (op.outcome == Op::kRefused || op.outcome == Op::kAbsent) return false;
      apply = true;
      break;
    case Op::kCondPut:
      if (op.outcome == Op::kOk && cur != op.expected) return false;
      if (op.outcome == Op::kRefused && cur == op.expected) return false;
      if (op.outcome == Op::kAbsent) return false;
      apply = cur == op.expected && op.outcome != Op::kRefused;
      break;
    case Op::kGet:
      if (op.outcome == Op::kAbsent) return !s.present && (*n = s, true);
      if (op.outcome != Op::kOk || !s.present || s.value != op.value) return false;
      if (op.version >= 0 && s.version != op.version) return false;
      *n = s;
      return true;
  }
  *n = s;
  if (!apply) return true;
  n->present = true;
  n->version = cur + 1;
  n->value = op.value;
  return op.outcome != Op::kOk || op.version < 0 || op.version == n->version;
}

class Search {
 public:
  Search(const std::vector<Op>& ops, long long maxStates)
      : ops_(ops), done_((ops.size() + 63) / 64), max_(maxStates) {
    for (const Op& o : ops_) required_ += o.outcome != Op::kUnknown;
  }

  bool run() { return dfs(State()); }
  bool gaveUp() const { return gaveUp_; }
  long long states() const { return states_; }

 private:
  bool isDone(size_t i) const { return (done_[i / 64] >> (i % 64)) & 1; }
  void flip(size_t i) { done_[i / 64] ^= uint64_t{1} << (i % 64); }

  std::string key(const State& s) const {
    std::string k(reinterpret_cast<const char*>(done_.data()), done_.size() * 8);
    k += s.present ? 'p' : 'a';
    k += std::to_string(s.version) + ":" + s.value;
    return k;
  }

  bool dfs(const State& s) {
    if (doneRequired_ == required_) return true;
    if (gaveUp_ || !seen_.insert(key(s)).second) return false;
    if (++states_ > max_) {
      gaveUp_ = true;
      return false;
    }
    // An operation may come next only if no pending one completed before it began.
    long long minComplete = kNever;
    for (size_t i = 0; i < ops_.size(); i++)
      if (!isDone(i)) minComplete = std::min(minComplete, ops_[i].complete);
    for (size_t i = 0; i < ops_.size() && ops_[i].invoke <= minComplete; i++) {
      State n;
      if (isDone(i) || !step(s, ops_[i], &n)) continue;
      flip(i);
      bool req = ops_[i].outcome != Op::kUnknown;
      doneRequired_ += req;
      if (dfs(n)) return true;
      doneRequired_ -= req;
      flip(i);
    }
    return false;
  }

  const std::vector<Op>& ops_;  // sorted by invocation
  std::vector<uint64_t> done_;
  size_t required_ = 0, doneRequired_ = 0;
  std::unordered_set<std::string> seen_;
  long long states_ = 0, max_;
  bool gaveUp_ = false;
};

const char* outcomeText(Op::Outcome o) {
  switch (o) {
    case Op::kOk:
      return "ok";
    case Op::kRefused:
      return "refused";
    case Op::kAbsent:
      return "absent";
    case Op::kUnknown:
      return "unknown";
  }
  return "?";
}

}  // namespace

std::string Describe(const Op& op) {
  static const char* kinds[] = {"vput", "cvput", "vget"};
  std::string s = "c" + std::to_string(op.client) + " " + kinds[op.kind] + " " + op.name;
  if (op.kind == Op::kCondPut) s += " if v" + std::to_string(op.expected);
  if (op.kind != Op::kGet) s += " =" + op.value;
  s += std::string(" -> ") + outcomeText(op.outcome);
  if (op.kind == Op::kGet && op.outcome == Op::kOk) s += " " + op.value;
  if (op.version >= 0) s += " v" + std::to_string(op.version);
  s += " [" + std::to_string(op.invoke) + ", " +
       (op.complete == kNever ? std::string("never") : std::to_string(op.complete)) + "]";
  return s;
}

Verdict CheckLinearizable(const std::vector<Op>& history, long long maxStates) {
  std::map<std::string, std::vector<Op>> byName;
  for (const Op& op : history) {
    // A read whose answer never came tells nothing.
    if (op.kind == Op::kGet && op.outcome == Op::kUnknown) continue;
    byName[op.name].push_back(op);
  }
  Verdict v;
  for (auto& entry : byName) {
    std::vector<Op>& ops = entry.second;
    std::stable_sort(ops.begin(), ops.end(),
                     [](const Op& a, const Op& b) { return a.invoke < b.invoke; });
    Search search(ops, maxStates);
    bool ok = search.run();
    v.states += search.states();
    if (ok) continue;
    v.kind = search.gaveUp() ? Verdict::kGaveUp : Verdict::kNotLinearizable;
    v.name = entry.first;
    for (const Op& op : ops) v.explanation += Describe(op) + "\n";
    return v;
  }
  return v;
}

}  // namespace lin
