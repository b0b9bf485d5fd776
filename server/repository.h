// This node's repository: the replica once the node is initialised, the order
// in which updates are proposed, and what happens to files when an update is
// applied. The service decodes requests and talks to clients; this class owns
// every step from "an update to decide" to "the update is applied and its file
// is in place".
#ifndef SERVER_REPOSITORY_H
#define SERVER_REPOSITORY_H

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "server/filestore.h"
#include "server/replica.h"
#include "server/uidsource.h"
#include "zel/paxosinit.h"

namespace zeld {

// What the engine provides: creating this node's block store from the initial
// block of "init", and opening a replica over it.
struct ReplicaFactory {
  std::function<int(const std::string& storePath, int nodeId, const Dblock& initial)> initStore;
  std::function<int(const std::string& storePath, int nodeId, const AppliedFn& applied,
                    std::unique_ptr<Replica>* out)>
      open;
  // Initialises one tiebreaker disk file (created when missing) with nSlots slots.
  std::function<int(const std::string& path, const Dblock& block, int nSlots)> initDisk;
};

// Files of the repository directory that this class keeps.
struct RepoPaths {
  std::string store;     // the block store of the engine
  std::string identity;  // the "init" body this node accepted
  std::string nodes;     // zel.nodes as last committed
};

// Test-only fault switches (zeld-testinstall reads them from the environment).
struct RepoFaults {
  bool crashBeforeLink = false;  // killed after a file update is durable, before its link
};

class Repository {
 public:
  Repository(const RepoPaths& paths, const ReplicaFactory& factory, FileStore* files,
             UidSource* uids, const RepoFaults& faults);

  // Opens the replica when the node was initialised earlier; 0 with ready()
  // false otherwise.
  int start();
  bool ready() const { return ready_.load(); }
  unsigned long long clusterId() const { return clusterId_.load(); }
  int nodeId() const { return nodeId_; }

  // Accepts "init" for the node selfId of req: stores the block, remembers
  // the request, opens the replica. EEXIST when already initialised with
  // another configuration (the same request again is accepted).
  int initialize(const InitRequest& req, int selfId);

  // The applied state; E_NOT_SERVER before init.
  int snapshot(int* seq, CommittedState* s) const;
  std::string describe() const;

  // Proposes one update. A null *uid gets the next main-stream id, handed to
  // announce before anything is decided. fresh: *uid was issued for this
  // request alone (an fput's own stream); if the state already counts it as
  // applied (the 20-stream horizon passed it) a new stream is issued and
  // announced instead. prepare runs against each state the update is proposed
  // in; staging (file updates) is linked when the update is applied.
  // 0 with *seq/*state; a prepare refusal; the engine's error.
  using Announce = std::function<void(const UpdateId& uid)>;
  using Prepare = std::function<int(const CommittedState&, const UpdateId&, ProposedUpdate*)>;
  int propose(UpdateId* uid, bool fresh, const Announce& announce, const Prepare& prepare,
              const std::string& staging, int* seq, CommittedState* state);

 private:
  void applied(int seq, const CommittedState& s, const ProposedUpdate& inp);
  int openReplica();

  RepoPaths paths_;
  ReplicaFactory factory_;
  FileStore* files_;
  UidSource* uids_;
  RepoFaults faults_;
  std::unique_ptr<Replica> replica_;
  std::atomic<bool> ready_{false};
  std::atomic<unsigned long long> clusterId_{0};
  int nodeId_ = -1;
  mutable std::mutex initMu_;  // init against start and other inits
  std::mutex proposeMu_;       // one proposal at a time: ids are decided in issue order
  std::mutex stagingMu_;
  std::map<std::string, std::string> staging_;  // uidString -> staging path
};

}  // namespace zeld

#endif  // SERVER_REPOSITORY_H
