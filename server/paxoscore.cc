#include "server/paxoscore.h"

#include <algorithm>
#include <sstream>

#include "server/inputcheck.h"
#include "zel/paxosutils.h"

namespace zeld {

namespace {

constexpr long long kNever = 1LL << 62;
// A read barrier that saw an undecided input looks again this soon: its
// proposer is usually about to announce the decision.
constexpr long long kBarrierRepollMs = 10;

bool hasInp(const SharedBlock& b) {
  return b.inp.type != ProposedUpdate::noUpdate;
}

// Same update: by uid when it has one, else by its bytes.
bool sameUpdate(const ProposedUpdate& a, const ProposedUpdate& b) {
  if (!a.uid.isNull() || !b.uid.isNull()) return a.uid == b.uid && a.type == b.type;
  std::string x(a.getSize(), '\0'), y(b.getSize(), '\0');
  a.dump(&x[0]);
  b.dump(&y[0]);
  return x == y;
}

const char* phaseName(PaxosCore::Phase p) {
  static const char* const names[] = {"starting", "idle",     "poll",    "phase1",
                                      "phase2",   "announce", "backoff", "faulted"};
  return names[p];
}

}  // namespace

bool IsQuorum(const DiskShape& s, const std::vector<char>& ok) {
  int nodes = 0, tbs = 0;
  for (int i = 0; i < s.size() && i < static_cast<int>(ok.size()); i++) {
    if (!ok[i]) continue;
    if (i < s.nodeStores)
      nodes++;
    else
      tbs++;
  }
  if (s.tiebreakers == 0) return s.nodeStores > 0 && 2 * nodes > s.nodeStores;
  return 2 * tbs > s.tiebreakers && nodes >= std::max(s.minNodes, 0);
}

PaxosCore::PaxosCore(const Options& o) : o_(o), rng_(o.seed) {}

int PaxosCore::start(const std::vector<SlotBlock>& own, long long now) {
  const SharedBlock* base = nullptr;
  for (const SlotBlock& s : own)
    if (s.present && BlockEncodable(s.block) && (base == nullptr || s.block.seq > base->seq))
      base = &s.block;
  if (base == nullptr) return 2;
  own_.reset(base->seq, base->committed);
  enterSeq(now);
  if (mySlot_ >= 0 && mySlot_ < static_cast<int>(own.size()) && own[mySlot_].present) {
    const SharedBlock& mine = own[mySlot_].block;
    if (mine.seq == own_.seq && SameState(mine.committed, own_.committed)) {
      own_.mbal = mine.mbal;
      if (hasInp(mine) && mine.bal != BallotNumber()) {
        own_.bal = mine.bal;
        own_.inp = mine.inp;
      }
    }
  }
  started_ = true;
  startAttempt(kStarting, now);
  return 0;
}

void PaxosCore::enterSeq(long long now) {
  (void)now;
  mySlot_ = -1;
  for (const NodeDescriptor& n : own_.committed->config.nodes)
    if (n.id == o_.nodeId && n.slot >= 0 && n.slot < kDiskSlots) mySlot_ = n.slot;
  shape_ = o_.shape ? o_.shape(*own_.committed) : DiskShape();
  maxRound_ = 0;
  pendingSeenSeq_ = -1;
  diskSeq_.assign(shape_.size(), -1);
  diskRc_.assign(shape_.size(), -1);
}

uint64_t PaxosCore::submit(const PrepareFn& prepare, long long now) {
  Request r;
  uint64_t id = nextId_++;
  r.id = id;
  r.prepare = prepare;
  r.deadline = now + o_.requestMs;
  if (fault_ != 0 || queue_.size() >= o_.maxQueue) {
    complete(r, fault_ != 0 ? 148 : 819);
    return id;
  }
  queue_.push_back(std::move(r));
  if (phase_ == kIdle) maybeStart(now);
  return id;
}

uint64_t PaxosCore::barrier(long long now) {
  Barrier b;
  b.id = nextId_++;
  b.deadline = now + o_.requestMs;
  b.needRead = readsStarted_ + 1;
  if (fault_ != 0 || barriers_.size() >= o_.maxQueue) {
    emit(b.id, fault_ != 0 ? 148 : 819);
    return b.id;
  }
  barriers_.push_back(b);
  if (phase_ == kIdle && queue_.empty()) startAttempt(kPoll, now);
  return b.id;
}

void PaxosCore::releaseBarriers(long long upTo, int rc) {
  size_t keep = 0;
  for (Barrier& b : barriers_) {
    if (b.needRead > upTo && rc == 0) {
      barriers_[keep++] = b;
      continue;
    }
    emit(b.id, rc);
  }
  barriers_.resize(keep);
}

void PaxosCore::emit(uint64_t id, int rc) {
  Completion c;
  c.id = id;
  c.rc = rc;
  c.seq = own_.seq;
  if (rc == 0) c.state = own_.committed;
  done_.push_back(std::move(c));
}

void PaxosCore::complete(Request& r, int rc) {
  if (r.answered) return;
  r.answered = true;
  emit(r.id, rc);
}

void PaxosCore::finishHead(int rc) {
  complete(queue_.front(), rc);
  queue_.pop_front();
}

// Whether the head request is in the state (answered 0 and popped).
bool PaxosCore::headDone() {
  if (queue_.empty()) return false;
  Request& h = queue_.front();
  if (h.preparedSeq < 0 || h.u.uid.isNull() || own_.committed->includes(h.u.uid) == 0) return false;
  finishHead(0);
  return true;
}

void PaxosCore::startAttempt(Phase p, long long now) {
  phase_ = p;
  ++tag_;
  ok_.assign(shape_.size(), 0);
  seen_.assign(shape_.size(), 0);
  abort_ = false;
  catchSeq_ = -1;
  bestBal_ = BallotNumber();
  bestInp_.reset();
  if (hasInp(own_) && own_.bal != BallotNumber()) {
    bestBal_ = own_.bal;
    bestInp_ = own_.inp;
  }
  phaseDeadline_ = now + o_.phaseMs;
  if (o_.point && (p == kPhase1 || p == kPhase2)) o_.point(p == kPhase1 ? "phase1" : "phase2");
  if (p != kPhase2) attemptRead_ = ++readsStarted_;
  if (p == kPhase1) ballotRead_ = attemptRead_;
  bool write = p == kPhase1 || p == kPhase2 || p == kAnnounce;
  if (write) {
    if (own_.seq < lastWrittenSeq_) broken_ = "own block's seq went down";
    if ((own_.bal == BallotNumber()) != !hasInp(own_)) broken_ = "bal zero but input present";
    lastWrittenSeq_ = own_.seq;
  }
  for (int d = 0; d < shape_.size(); d++) {
    DiskOp op;
    op.tag = tag_;
    op.disk = d;
    op.seq = own_.seq;
    op.write = write;
    if (write) {
      op.slot = mySlot_;
      op.block = own_;
    }
    ops_.push_back(std::move(op));
  }
}

bool PaxosCore::examine(const std::vector<SlotBlock>& slots, int disk) {
  bool headAtSeq = false;
  for (int i = 0; i < static_cast<int>(slots.size()) && i < kDiskSlots; i++) {
    if (!slots[i].present) continue;
    const SharedBlock& b = slots[i].block;
    diskSeq_[disk] = std::max(diskSeq_[disk], b.seq);
    if (slots[i].headOnly) {
      // Sent without its state because the store holds a newer block, whose
      // state this node takes; at or above this seq it is useless otherwise.
      if (b.seq >= own_.seq) headAtSeq = true;
      continue;
    }
    if (b.seq > own_.seq) {
      if (b.seq > catchSeq_) {
        catchSeq_ = b.seq;
        catchState_ = b.committed;
      } else if (b.seq == catchSeq_ && !SameState(b.committed, catchState_)) {
        fault_ = 148;
        faultWhy_ = "two blocks of one seq hold different states";
      }
      continue;
    }
    if (b.seq < own_.seq) continue;
    if (!SameState(b.committed, own_.committed)) {
      fault_ = 148;
      faultWhy_ = "a block of this seq holds another state";
      continue;
    }
    maxRound_ = std::max(maxRound_, b.mbal.first);
    if (i == mySlot_ && b.moreRecentThan(own_)) {
      // Written by an earlier life of this node: keep its promise and its input.
      if (b.mbal > own_.mbal) own_.mbal = b.mbal;
      if (hasInp(b) && b.bal > own_.bal) {
        own_.bal = b.bal;
        own_.inp = b.inp;
      }
      if (phase_ == kPhase1 || phase_ == kPhase2) abort_ = true;
    } else if (b.mbal > own_.mbal && (phase_ == kPhase1 || phase_ == kPhase2)) {
      abort_ = true;
    }
    if (hasInp(b) && b.bal > bestBal_) {
      bestBal_ = b.bal;
      bestInp_ = b.inp;
    }
  }
  return !headAtSeq || catchSeq_ > own_.seq;
}

void PaxosCore::onReply(const DiskReply& r, long long now) {
  if (r.tag != tag_ || r.disk < 0 || r.disk >= static_cast<int>(seen_.size()) || seen_[r.disk])
    return;
  if (phase_ == kIdle || phase_ == kBackoff || phase_ == kFaulted) return;
  seen_[r.disk] = 1;
  diskRc_[r.disk] = r.rc;
  bool readable = (r.rc == 0 || r.rc == kErrNotOwner || r.rc == kErrStaleWrite) &&
                  r.slots.size() == static_cast<size_t>(kDiskSlots);
  if (readable) readable = examine(r.slots, r.disk);
  if (fault_ != 0) return setFault(faultWhy_.c_str(), now);
  if (catchSeq_ > own_.seq) return catchUp(now);
  if (abort_) return backoff(now);
  if (r.rc == 0 && readable) ok_[r.disk] = 1;
  if (IsQuorum(shape_, ok_)) return advance(now);
  if (phase_ != kStarting && std::find(seen_.begin(), seen_.end(), 0) == seen_.end()) {
    // Every disk answered and there is no quorum: no point waiting out the phase.
    if (phase_ == kPoll || phase_ == kAnnounce) {
      phase_ = kIdle;
      idleSince_ = now;
      maybeStart(now);
    } else {
      backoff(now);
    }
  }
}

void PaxosCore::advance(long long now) {
  fails_ = 0;
  switch (phase_) {
    case kStarting:
    case kPoll: {
      bool pending = hasInp(own_) || bestBal_ != BallotNumber();
      bool stuck = phase_ == kStarting || pendingSeenSeq_ == own_.seq;
      pendingSeenSeq_ = pending ? own_.seq : -1;
      if (!pending) releaseBarriers(attemptRead_, 0);
      phase_ = kIdle;
      idleSince_ = now;
      if (pending && stuck && mySlot_ >= 0) {
        // An input accepted but never decided (its proposer stopped): finish it.
        recovering_ = true;
        return startBallot(now);
      }
      return maybeStart(now);
    }
    case kPhase1: {
      if (bestBal_ != BallotNumber()) {
        value_ = bestInp_;
      } else if (!recovering_ && !queue_.empty()) {
        value_ = queue_.front().u;
      } else {
        recovering_ = false;
        phase_ = kIdle;
        idleSince_ = now;
        return maybeStart(now);
      }
      own_.bal = own_.mbal;
      own_.inp = value_;
      return startAttempt(kPhase2, now);
    }
    case kPhase2:
      return decide(now);
    case kAnnounce:
      if (bestBal_ == BallotNumber()) releaseBarriers(attemptRead_, 0);
      phase_ = kIdle;
      idleSince_ = now;
      return maybeStart(now);
    default:
      return;
  }
}

void PaxosCore::decide(long long now) {
  const char* why = "";
  if (CheckInput(*own_.committed, value_, &why) != 0) {
    std::string msg = std::string("decided input cannot be applied: ") + why;
    return setFault(msg.c_str(), now);
  }
  trace(3, "node %d: seq %d decided %s", o_.nodeId, own_.seq, value_.toString().c_str());
  if (o_.point) o_.point("decided");
  own_.inp = value_;
  own_.applyInp();
  recovering_ = false;
  AppliedEvent e;
  e.seq = own_.seq;
  e.state = own_.committed;
  e.inp = value_;
  applied_.push_back(std::move(e));
  if (o_.point) o_.point("applied");
  enterSeq(now);
  // This ballot's phase 1 read a quorum: whatever was decided before it began is
  // in the state now (a decided input is the one every later ballot carries).
  releaseBarriers(ballotRead_, 0);
  if (!queue_.empty() && queue_.front().preparedSeq >= 0) {
    Request& h = queue_.front();
    if (sameUpdate(h.u, value_)) finishHead(0);
  }
  headDone();
  phase_ = kIdle;
  maybeStart(now);
  // The next ballot's first write announces the decision; without one, announce it.
  if (phase_ == kIdle) startAttempt(kAnnounce, now);
}

void PaxosCore::catchUp(long long now) {
  trace(2, "node %d: catching up from seq %d to %d", o_.nodeId, own_.seq, catchSeq_);
  own_.reset(catchSeq_, catchState_);
  recovering_ = false;
  AppliedEvent e;
  e.seq = own_.seq;
  e.state = own_.committed;
  e.caughtUp = true;
  applied_.push_back(std::move(e));
  enterSeq(now);
  while (headDone()) {
  }
  // An earlier life of this node may have voted at the new seq: read a quorum,
  // taking back its own blocks, before writing anything there.
  startAttempt(kStarting, now);
}

void PaxosCore::backoff(long long now) {
  fails_ = std::min(fails_ + 1, 16);
  long long span = o_.backoffMinMs << std::min(fails_, 8);
  span = std::min(std::max(span, o_.backoffMinMs), o_.backoffMaxMs);
  std::uniform_int_distribution<long long> pick(o_.backoffMinMs, std::max(o_.backoffMinMs, span));
  phase_ = kBackoff;
  wakeAt_ = now + pick(rng_);
}

void PaxosCore::startBallot(long long now) {
  own_.mbal = BallotNumber(std::max(maxRound_, own_.mbal.first) + 1, o_.nodeId);
  startAttempt(kPhase1, now);
}

void PaxosCore::maybeStart(long long now) {
  while (phase_ == kIdle && !queue_.empty()) {
    Request& h = queue_.front();
    if (fault_ != 0) {
      finishHead(148);
      continue;
    }
    if (mySlot_ < 0) {
      // Not a quorum node of this configuration: others must drive it.
      finishHead(819);
      continue;
    }
    if (h.preparedSeq != own_.seq) {
      ProposedUpdate u;
      int rc = h.prepare ? h.prepare(*own_.committed, &u) : 22;
      h.u = u;
      h.preparedSeq = own_.seq;
      if (!u.uid.isNull() && own_.committed->includes(u.uid) != 0) {
        finishHead(0);
        continue;
      }
      if (rc != 0) {
        finishHead(rc);
        continue;
      }
      const char* why = "";
      if (CheckInput(*own_.committed, u, &why) != 0) {
        trace(1, "node %d: prepared update refused: %s", o_.nodeId, why);
        finishHead(22);
        continue;
      }
      long long size =
          static_cast<long long>(EncodedState(own_.committed)->size()) + 2LL * u.getSize() + 256;
      if (size > kMaxBlockBytes) {
        finishHead(34);
        continue;
      }
    }
    return startBallot(now);
  }
}

void PaxosCore::setFault(const char* why, long long now) {
  (void)now;
  trace(0, "node %d: agreement fault at seq %d: %s", o_.nodeId, own_.seq, why);
  fault_ = 148;
  faultWhy_ = why;
  phase_ = kFaulted;
  while (!queue_.empty()) finishHead(148);
  releaseBarriers(0, 148);
}

void PaxosCore::tick(long long now) {
  for (Request& r : queue_)
    if (!r.answered && r.deadline <= now) complete(r, 819);
  for (size_t i = 0; i < barriers_.size();) {
    if (barriers_[i].deadline > now) {
      i++;
      continue;
    }
    emit(barriers_[i].id, 819);
    barriers_.erase(barriers_.begin() + static_cast<long>(i));
  }
  switch (phase_) {
    case kStarting:
      if (now >= phaseDeadline_) startAttempt(kStarting, now);
      break;
    case kPoll:
    case kAnnounce:
      if (now >= phaseDeadline_) {
        phase_ = kIdle;
        idleSince_ = now;
        maybeStart(now);
      }
      break;
    case kPhase1:
    case kPhase2:
      if (now >= phaseDeadline_) backoff(now);
      break;
    case kBackoff:
      if (now >= wakeAt_) {
        phase_ = kIdle;
        if (recovering_ && mySlot_ >= 0) {
          startBallot(now);
        } else {
          recovering_ = false;
          idleSince_ = now;
          maybeStart(now);
        }
      }
      break;
    case kIdle:
      if (queue_.empty() && now >= idleSince_ + idlePollMs()) startAttempt(kPoll, now);
      break;
    default:
      break;
  }
}

long long PaxosCore::nextWake() const {
  long long t = kNever;
  for (const Request& r : queue_)
    if (!r.answered) t = std::min(t, r.deadline);
  for (const Barrier& b : barriers_) t = std::min(t, b.deadline);
  switch (phase_) {
    case kStarting:
    case kPoll:
    case kAnnounce:
    case kPhase1:
    case kPhase2:
      t = std::min(t, phaseDeadline_);
      break;
    case kBackoff:
      t = std::min(t, wakeAt_);
      break;
    case kIdle:
      if (queue_.empty()) t = std::min(t, idleSince_ + idlePollMs());
      break;
    default:
      break;
  }
  return t;
}

long long PaxosCore::idlePollMs() const {
  return barriers_.empty() ? o_.pollMs : std::min(o_.pollMs, kBarrierRepollMs);
}

bool PaxosCore::settled() const {
  return started_ && phase_ != kStarting && !recovering_;
}

std::vector<DiskOp> PaxosCore::takeOps() {
  return std::move(ops_);
}
std::vector<Completion> PaxosCore::takeCompletions() {
  return std::move(done_);
}
std::vector<AppliedEvent> PaxosCore::takeApplied() {
  return std::move(applied_);
}

std::string PaxosCore::checkInvariants() const {
  if (!broken_.empty()) return broken_;
  if ((own_.bal == BallotNumber()) != !hasInp(own_)) return "bal zero exactly when inp is empty";
  if (own_.bal > own_.mbal) return "bal above mbal";
  return "";
}

std::string PaxosCore::describe() const {
  std::ostringstream os;
  os << "node " << o_.nodeId << " slot " << mySlot_ << " seq " << own_.seq << " phase "
     << phaseName(phase_) << " mbal " << own_.mbal << " bal " << own_.bal << " inp "
     << own_.inp.toString() << " queued " << queue_.size() << " barriers " << barriers_.size();
  if (fault_ != 0) os << " fault " << fault_ << " (" << faultWhy_ << ")";
  os << "\n";
  for (int d = 0; d < shape_.size(); d++)
    os << "  disk " << d << (d < shape_.nodeStores ? " node store" : " tiebreaker") << " last rc "
       << diskRc_[d] << " highest seq seen " << diskSeq_[d] << "\n";
  return os.str();
}

}  // namespace zeld
