// This node's repository: the replica once the node is initialised, the order
// in which updates are proposed, and what happens to files when an update is
// applied. The service decodes requests and talks to clients; this class owns
// every step from "an update to decide" to "the update is applied and its file
// is in place".
#ifndef SERVER_REPOSITORY_H
#define SERVER_REPOSITORY_H

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "server/filestore.h"
#include "server/peers.h"
#include "server/pxserve.h"
#include "server/replica.h"
#include "server/uidsource.h"
#include "zel/paxosinit.h"

namespace zeld {

// What the repository hands the engine: the callbacks, and the disks of each
// instance (own is this node's store).
struct ReplicaHooks {
  AppliedFn applied;
  CaughtUpFn caughtUp;
  std::function<DiskSet(const CommittedState& s, const std::shared_ptr<Disk>& own)> disks;
};

// What the engine provides: creating this node's block store from the initial
// block of "init", and opening a replica over it (*store: that store, which
// the other nodes reach through this node; may stay null).
struct ReplicaFactory {
  std::function<int(const std::string& storePath, int nodeId, const Dblock& initial)> initStore;
  std::function<int(const std::string& storePath, int nodeId, const ReplicaHooks& hooks,
                    std::shared_ptr<Disk>* store, std::unique_ptr<Replica>* out)>
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
  ~Repository();
  Repository(const Repository&) = delete;
  Repository& operator=(const Repository&) = delete;

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
  int snapshot(int* seq, StateRef* s) const;
  // The state a linearizable read answers from (see Replica::barrier).
  int barrier(int* seq, StateRef* s);
  std::string describe() const;
  // The server is stopping: requests waiting on the engine end (819) and the
  // file fetcher leaves at once.
  void stop();

  // This node's block store as the other nodes reach it, and what it needs to
  // take a block whose input is a file; null before init.
  std::shared_ptr<Disk> store() const;
  PxFiles pxFiles();
  // Whether this node holds the content of the file the state names for fileId
  // (a node that caught up fetches it from the others first).
  bool holdsFile(int fileId, const FileVersion& fv) const;
  // Whether some file s names is not here yet.
  bool lacksFiles(const CommittedState& s) const;

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
              const std::string& staging, int* seq, StateRef* state);

 private:
  void applied(int seq, const CommittedState& s, const ProposedUpdate& inp);
  void caughtUp(int seq, const CommittedState& s);
  int openReplica();
  DiskSet disksFor(const CommittedState& s, const std::shared_ptr<Disk>& own);
  // Where this node keeps the content of a file update: staged or committed.
  int fileSource(const ProposedUpdate& u, std::string* path);
  // A committed zel.nodes or zel.disks: the address book follows it.
  void listFileCommitted(const std::string& name, const std::string& path);
  // The thread that fetches, with "fxfer", files the state names and this node
  // lacks (it skipped their updates or did not receive their content).
  void fetchLoop();
  bool fetchMissing();
  void wakeFetcher();

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
  mutable std::mutex stagingMu_;
  std::map<std::string, std::string> staging_;  // uidString -> staging path
  // Inputs received from their proposers ("pxrdwr"), by uidString: a node that
  // learns their decision by catching up links them from staging.
  std::map<std::string, ProposedUpdate> stagedInputs_;
  // Staging files found at start, until a quorum read shows which were decided.
  std::vector<std::string> startupStaging_;
  Peers peers_;
  std::shared_ptr<Disk> store_;
  std::mutex disksMu_;
  std::map<int, std::shared_ptr<Disk>> remote_;       // node id -> its store
  std::map<int, std::shared_ptr<Disk>> tiebreakers_;  // disk slot -> disk
  std::mutex fetchMu_;
  std::condition_variable fetchCv_;
  bool fetchStop_ = false;
  bool fetchWanted_ = false;
  int fetchSock_ = -1;  // the fetcher's connection, shut down by stop (under fetchMu_)
  std::thread fetcher_;
};

}  // namespace zeld

#endif  // SERVER_REPOSITORY_H
