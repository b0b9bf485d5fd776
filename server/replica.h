// The agreement engine's boundary: what the request service (server/service*)
// asks of it, and the "disks" it runs over. Nothing here knows sockets or paths;
// the service builds the disks and hands them in, tests build in-memory ones.
//
// Ownership of this header: the engine. The service codes against it; a change
// that the service needs is made here first and both sides follow.
#ifndef SERVER_REPLICA_H
#define SERVER_REPLICA_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "zel/sharedblock.h"

namespace zeld {

// Every disk has this many slots; a node owns the slot its NodeDescriptor names.
constexpr int kDiskSlots = 8;
// Largest encoded Dblock a disk holds: a block's committed state travels in
// replies, which carry at most 8 MiB of body.
constexpr int kMaxBlockBytes = 8 * 1024 * 1024 - 64 * 1024;
// Refusals of Disk::writeRead (system error numbers): the writer does not own
// the slot, or the block is older than the one the slot holds. Both still read.
constexpr int kErrNotOwner = 1;      // EPERM
constexpr int kErrStaleWrite = 116;  // ESTALE

// One slot as read back: absent when never written, or when both copies are
// torn or fail their checksum (never read as data).
struct SlotBlock {
  bool present = false;
  SharedBlock block;
  // A remote store left out the block's committed state (block.committed is
  // empty): the block is of a seq below the reader's, or below the newest
  // block the store holds, whose state the reader takes instead.
  bool headOnly = false;
};

// A disk of Disk Paxos: kDiskSlots slots of one Dblock each. Implementations:
// this node's own block store (a file), another node's store reached with
// "pxread"/"pxwrite"/"pxrdwr", a tiebreaker disk file, an in-memory disk.
// Calls may block (the engine does not call one disk from two threads at once);
// each returns 0 or an error code and never aborts on what it reads.
class Disk {
 public:
  virtual ~Disk() = default;
  // Durably writes b into slot, then reads every slot into *out (kDiskSlots
  // entries). Refused with kErrNotOwner when writer does not own that slot in
  // the latest configuration the store holds (or b brings), kErrStaleWrite when
  // b is older than the slot's block; a refusal still fills *out. Rewriting the
  // block a slot holds is a success. One call is one round trip for a remote disk.
  virtual int writeRead(int writerId, int slot, const SharedBlock& b,
                        std::vector<SlotBlock>* out) = 0;
  virtual int read(std::vector<SlotBlock>* out) = 0;
  // As read, for a reader at instance seq: a remote store sends the blocks the
  // reader never looks at the state of as heads (SlotBlock::headOnly), so that
  // a reply carries one state, not one per lagging node.
  virtual int readFor(int seq, std::vector<SlotBlock>* out) {
    (void)seq;
    return read(out);
  }
  // For traces and dump: "node 2", "/path/disk0".
  virtual std::string label() const = 0;
};

// Which disks an instance runs over, derived by the service from a committed
// state (node stores from zel.nodes, tiebreaker files from zel.disks).
struct DiskSet {
  std::vector<std::shared_ptr<Disk>> nodeStores;   // one per configured node, own store included
  std::vector<std::shared_ptr<Disk>> tiebreakers;  // may be empty
  int minNodes = 1;
};

// Resolves an update against the state of the instance it is proposed in:
// checks conditions, chooses versions, and fills *u; or returns the refusal
// (153, 154, 152 ...) that ends the request. Called again for each instance
// the update is proposed in; must be deterministic over the state. Sets u->uid
// even when refusing: an update the state already includes is answered 0.
using PrepareFn = std::function<int(const CommittedState& state, ProposedUpdate* u)>;

// Called after each decided instance is applied and durable, in seq order,
// before the proposer's reply goes out (staged files are linked here). seq is
// the instance after it: the pair (seq, state) is what a reply carries.
using AppliedFn =
    std::function<void(int seq, const CommittedState& state, const ProposedUpdate& inp)>;

// Called when the node skipped instances by taking a newer block's state (no
// inputs to replay): fetch the files the state names before serving them.
using CaughtUpFn = std::function<void(int seq, const CommittedState& state)>;

// Which disks an instance runs over, given the state it starts from.
using DiskSetFn = std::function<DiskSet(const CommittedState& state)>;

class Replica {
 public:
  virtual ~Replica() = default;
  // Drives one update to a decision. 0 with *seq/*state after it is applied;
  // the prepare refusal; 819 when no quorum answers within the bound (well under
  // the client's 120 s); 148 when blocks disagree on a committed state.
  // An update whose uid the state already includes returns 0 at once.
  virtual int submit(const PrepareFn& prepare, int* seq, StateRef* state) = 0;
  // The latest applied state (a read: no agreement round).
  virtual void snapshot(int* seq, StateRef* state) const = 0;
  // The applied state once a quorum read begun after the call shows nothing
  // decided beyond it: what a linearizable read answers from. 0, 819 without a
  // quorum within the bound, 148 on a fault. Alone in its configuration (one
  // node store, no tiebreakers) the node's own state is that state already.
  virtual int barrier(int* seq, StateRef* state) = 0;
  // Engine state for "dump" and "status".
  virtual std::string describe() const = 0;
  // The process is stopping: waiting and later calls of submit and barrier
  // answer 819 at once. The engine's threads end with the object.
  virtual void stop() = 0;
};

struct ReplicaOptions {
  int nodeId = 0;
  std::shared_ptr<Disk> ownStore;  // this node's block store; must be initialised
  DiskSetFn disks;                 // the disk set of each instance, ownStore among them
  AppliedFn applied;               // may be empty
  CaughtUpFn caughtUp;             // may be empty
  long long requestMs = 20000;     // submit answers 819 after this
  long long phaseMs = 2000;        // a phase without a quorum is retried after this
  long long pollMs = 1000;         // an idle node reads the disks this often to catch up
  unsigned seed = 0;               // back-off randomness; 0 picks one from the clock
  long long settleMs = 20000;      // OpenReplica waits this long for a first quorum read
  // Test builds only: the process kills itself at this point of a ballot
  // ("phase1", "phase2", "decided", "applied"); empty: never.
  std::string crashAt;
};

// Opens a replica that starts from the newest block of its own store and runs
// until destroyed. 0, or 2 when the store holds no block (not initialised), or
// the store's read error. prepare and the callbacks run on the engine's thread
// or, for prepare, on the submitting thread under the engine's lock: they must
// not call the replica. A submit answered 819 stays queued and is
// still driven to a decision (prepare may run after submit returned).
int OpenReplica(const ReplicaOptions& opts, std::unique_ptr<Replica>* out);

}  // namespace zeld

#endif  // SERVER_REPLICA_H
