#include "zel/sharedblock.h"

#include <cstring>
#include <deque>
#include <mutex>

#include "zel/dblockhead.h"
#include "zel/paxosutils.h"

namespace {

// States recently encoded or decoded, newest first. A round touches the state of
// its instance and, on lagging disks, one or two older ones.
constexpr size_t kRecentStates = 4;

struct Recent {
  StateRef state;
  std::shared_ptr<const std::string> bytes;
};

std::mutex recentMu;
std::deque<Recent>& recent() {
  static std::deque<Recent>* r = new std::deque<Recent>;  // outlives every thread
  return *r;
}

void remember(const StateRef& s, std::shared_ptr<const std::string> bytes) {
  std::deque<Recent>& r = recent();
  r.push_front(Recent{s, std::move(bytes)});
  if (r.size() > kRecentStates) r.pop_back();
}

}  // namespace

const StateRef& EmptyState() {
  static const StateRef* e = new StateRef(std::make_shared<const CommittedState>());
  return *e;
}

bool SameState(const StateRef& a, const StateRef& b) {
  return a == b || (a && b && *a == *b);
}

std::shared_ptr<const std::string> EncodedState(const StateRef& s) {
  {
    std::lock_guard<std::mutex> g(recentMu);
    std::deque<Recent>& r = recent();
    for (size_t i = 0; i < r.size(); i++) {
      if (r[i].state != s) continue;
      Recent hit = r[i];
      r.erase(r.begin() + static_cast<long>(i));
      r.push_front(hit);
      return hit.bytes;
    }
  }
  auto bytes = std::make_shared<std::string>(static_cast<size_t>(s->getSize()), '\0');
  char* e = s->dump(&(*bytes)[0]);
  ZASSERT(e == &(*bytes)[0] + bytes->size());
  std::lock_guard<std::mutex> g(recentMu);
  remember(s, bytes);
  return bytes;
}

const char* LoadSharedState(const char* p, const char* end, StateRef* out) {
  if (p == nullptr || end < p) return nullptr;
  size_t left = static_cast<size_t>(end - p);
  {
    std::lock_guard<std::mutex> g(recentMu);
    // Decoding is deterministic and reads exactly the bytes of one encoding, so
    // bytes that begin with a known state's encoding decode to that state.
    for (const Recent& r : recent()) {
      const std::string& b = *r.bytes;
      if (b.size() <= left && memcmp(p, b.data(), b.size()) == 0) {
        *out = r.state;
        return p + b.size();
      }
    }
  }
  auto s = std::make_shared<CommittedState>();
  const char* q = s->load(p, end);
  if (q == nullptr) return nullptr;
  StateRef ref = std::move(s);
  // Remembered with the encoding this process would write, so that what it
  // sends of a state never depends on how a peer spelled it.
  auto bytes = std::make_shared<std::string>(static_cast<size_t>(ref->getSize()), '\0');
  ref->dump(&(*bytes)[0]);
  std::lock_guard<std::mutex> g(recentMu);
  remember(ref, std::move(bytes));
  *out = std::move(ref);
  return q;
}

SharedBlock::SharedBlock(const Dblock& b)
    : seq(b.seq),
      committed(std::make_shared<const CommittedState>(b.committed)),
      mbal(b.mbal),
      bal(b.bal),
      inp(b.inp),
      leaderChallengeVersion(b.leaderChallengeVersion) {}

Dblock SharedBlock::toDblock() const {
  Dblock d;
  d.seq = seq;
  d.committed = *committed;
  d.mbal = mbal;
  d.bal = bal;
  d.inp = inp;
  d.leaderChallengeVersion = leaderChallengeVersion;
  return d;
}

bool SharedBlock::moreRecentThan(const SharedBlock& o) const {
  return BlockMoreRecent(*this, o);
}

void SharedBlock::reset(int newSeq, const StateRef& c) {
  seq = newSeq;
  committed = c ? c : EmptyState();
  mbal = BallotNumber();
  bal = BallotNumber();
  inp.reset();
  if (committed->leaderVersion > leaderChallengeVersion) leaderChallengeVersion = 0;
}

void SharedBlock::applyInp() {
  auto next = std::make_shared<CommittedState>(*committed);
  next->apply(inp);
  reset(seq + 1, std::move(next));
}

int SharedBlock::getHeadSize() const {
  return BlockHeadSize(*this);
}

int SharedBlock::getSize() const {
  return getHeadSize() + static_cast<int>(EncodedState(committed)->size());
}

char* SharedBlock::dumpHead(char* p) const {
  return DumpBlockHead(p, *this);
}

char* SharedBlock::dump(char* p) const {
  p = dumpHead(p);
  std::shared_ptr<const std::string> s = EncodedState(committed);
  memcpy(p, s->data(), s->size());
  return p + s->size();
}

const char* SharedBlock::loadHead(const char* p, const char* end) {
  return LoadBlockHead(p, end, this);
}

const char* SharedBlock::load(const char* p, const char* end) {
  return LoadSharedState(loadHead(p, end), end, &committed);
}

std::string SharedBlock::toString() const {
  return toDblock().toString();
}

bool SharedBlock::operator==(const SharedBlock& o) const {
  return seq == o.seq && mbal == o.mbal && bal == o.bal && inp == o.inp &&
         leaderChallengeVersion == o.leaderChallengeVersion && SameState(committed, o.committed);
}
