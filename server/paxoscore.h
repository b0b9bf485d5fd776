// One node's agreement engine as a deterministic state machine: Disk Paxos per
// instance seq over the disks of that instance. It emits disk operations and
// consumes their replies; time comes in as arguments. It knows no threads,
// sockets or clocks, so tests drive it directly and the runner drives it on
// real disks.
#ifndef SERVER_PAXOSCORE_H
#define SERVER_PAXOSCORE_H

#include <cstdint>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "server/replica.h"

namespace zeld {

// The disks of one instance: indexes 0..nodeStores-1 are node stores, then the
// tiebreakers.
struct DiskShape {
  int nodeStores = 0;
  int tiebreakers = 0;
  int minNodes = 1;
  int size() const { return nodeStores + tiebreakers; }
};

// Without tiebreakers a strict majority of the node stores; with them a strict
// majority of the tiebreakers and at least minNodes node stores.
bool IsQuorum(const DiskShape& s, const std::vector<char>& ok);

struct DiskOp {
  long long tag = 0;  // replies carry it back; those of older attempts are ignored
  int disk = 0;
  int seq = 0;  // the instance whose disk set disk indexes
  bool write = false;
  int slot = -1;
  SharedBlock block;
};

struct DiskReply {
  long long tag = 0;
  int disk = 0;
  int rc = 0;
  std::vector<SlotBlock> slots;
};

struct Completion {
  uint64_t id = 0;
  int rc = 0;
  int seq = 0;
  StateRef state;
};

// An applied instance (inp decided at seq - 1), or a jump to seq (caughtUp).
struct AppliedEvent {
  int seq = 0;
  StateRef state;
  ProposedUpdate inp;
  bool caughtUp = false;
};

class PaxosCore {
 public:
  struct Options {
    int nodeId = 0;
    long long requestMs = 20000;
    long long phaseMs = 2000;
    long long pollMs = 1000;
    long long backoffMinMs = 2;
    long long backoffMaxMs = 200;
    unsigned seed = 1;
    size_t maxQueue = 1024;
    std::function<DiskShape(const CommittedState&)> shape;
    // Test hook: called at "phase1" and "phase2" (a ballot's phase begins),
    // "decided" (a quorum accepted, before applying) and "applied".
    std::function<void(const char* point)> point;
  };
  enum Phase { kStarting, kIdle, kPoll, kPhase1, kPhase2, kAnnounce, kBackoff, kFaulted };

  explicit PaxosCore(const Options& o);
  // Starts from the slots of the node's own store (the newest block among them),
  // then reads a quorum before proposing. 0, or 2 when no slot holds a block.
  int start(const std::vector<SlotBlock>& own, long long now);
  // Queues an update (FIFO); its Completion comes out later.
  uint64_t submit(const PrepareFn& prepare, long long now);
  // A read barrier: its Completion (0 with the state) comes out once a quorum
  // read begun after now shows nothing that may be decided beyond the applied
  // state, so a read answered from that state misses no acknowledged update.
  uint64_t barrier(long long now);
  void onReply(const DiskReply& r, long long now);
  // Handles every time-out due at now.
  void tick(long long now);
  // When tick next has work (absolute ms).
  long long nextWake() const;

  std::vector<DiskOp> takeOps();
  std::vector<Completion> takeCompletions();
  std::vector<AppliedEvent> takeApplied();

  Phase phase() const { return phase_; }
  // Started, and no ballot of its own running (for waiting on recovery).
  bool settled() const;
  int appliedSeq() const { return own_.seq; }
  const StateRef& appliedState() const { return own_.committed; }
  const SharedBlock& block() const { return own_; }
  int fault() const { return fault_; }
  size_t queued() const { return queue_.size(); }
  // "" or what is broken: bal zero exactly when inp is empty; seq never goes down.
  std::string checkInvariants() const;
  std::string describe() const;

 private:
  struct Request {
    uint64_t id = 0;
    PrepareFn prepare;
    long long deadline = 0;
    bool answered = false;
    int preparedSeq = -1;
    ProposedUpdate u;
  };

  void enterSeq(long long now);
  void startAttempt(Phase p, long long now);
  // False when the reply cannot count: a block at this seq came without its state.
  bool examine(const std::vector<SlotBlock>& slots, int disk);
  void advance(long long now);
  void decide(long long now);
  void catchUp(long long now);
  void backoff(long long now);
  void startBallot(long long now);
  void maybeStart(long long now);
  void setFault(const char* why, long long now);
  struct Barrier {
    uint64_t id = 0;
    long long deadline = 0;
    long long needRead = 0;  // the first quorum read that may release it
  };
  void emit(uint64_t id, int rc);  // a Completion with the applied state when rc is 0
  void complete(Request& r, int rc);
  void releaseBarriers(long long upTo, int rc);
  void finishHead(int rc);
  bool headDone();
  long long idlePollMs() const;

  Options o_;
  SharedBlock own_;
  int mySlot_ = -1;
  DiskShape shape_;
  Phase phase_ = kStarting;
  bool started_ = false;
  long long tag_ = 0;
  long long phaseDeadline_ = 0;
  long long wakeAt_ = 0;
  long long idleSince_ = 0;
  int fails_ = 0;
  bool recovering_ = false;  // a ballot with no request of its own
  int pendingSeenSeq_ = -1;  // seq at which the last poll saw an undecided input
  std::vector<char> ok_, seen_;
  std::vector<int> diskSeq_, diskRc_;
  int maxRound_ = 0;
  BallotNumber bestBal_;
  ProposedUpdate bestInp_;
  int catchSeq_ = -1;
  StateRef catchState_;
  bool abort_ = false;
  ProposedUpdate value_;
  int fault_ = 0;
  std::string faultWhy_;
  int lastWrittenSeq_ = -1;
  std::string broken_;
  std::deque<Request> queue_;
  std::vector<Barrier> barriers_;
  long long readsStarted_ = 0;  // quorum reads begun: start-ups, polls, announcements, phase 1
  long long attemptRead_ = 0;   // the number of the running attempt's read
  long long ballotRead_ = 0;    // the number of the running ballot's phase 1
  uint64_t nextId_ = 1;
  std::mt19937 rng_;
  std::vector<DiskOp> ops_;
  std::vector<Completion> done_;
  std::vector<AppliedEvent> applied_;
};

}  // namespace zeld

#endif  // SERVER_PAXOSCORE_H
