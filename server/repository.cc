#include "server/repository.h"

#include <signal.h>

#include <sstream>

#include "platform/pfile.h"
#include "platform/pfileio.h"
#include "server/rules.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"

namespace zeld {

namespace {

std::string encodeInit(const InitRequest& r) {
  std::string b(static_cast<size_t>(r.getSize()), '\0');
  char* e = r.dump(&b[0]);
  ZASSERT(e == b.data() + b.size());
  return b;
}

}  // namespace

Repository::Repository(const RepoPaths& paths, const ReplicaFactory& factory, FileStore* files,
                       UidSource* uids, const RepoFaults& faults)
    : paths_(paths), factory_(factory), files_(files), uids_(uids), faults_(faults) {}

int Repository::openReplica() {
  AppliedFn fn = [this](int seq, const CommittedState& s, const ProposedUpdate& inp) {
    applied(seq, s, inp);
  };
  std::unique_ptr<Replica> r;
  int rc = factory_.open(paths_.store, nodeId_, fn, &r);
  if (rc != 0) {
    trace(0, "opening the block store '%s' failed (err %d)", paths_.store.c_str(), rc);
    return rc;
  }
  int seq = 0;
  CommittedState s;
  r->snapshot(&seq, &s);
  rc = uids_->open(nodeId_, s);
  if (rc != 0) {
    trace(0, "update id epochs cannot be reserved (err %d)", rc);
    return rc;
  }
  rc = files_->reconcile(s);
  if (rc != 0) trace(1, "linking staged files at start-up failed (err %d)", rc);
  replica_ = std::move(r);
  ready_ = true;
  return 0;
}

int Repository::start() {
  std::lock_guard<std::mutex> g(initMu_);
  std::string data;
  int rc = PlatReadFile(paths_.identity, &data);
  if (rc == ENOENT) return 0;
  if (rc != 0) return rc;
  InitRequest req;
  const char* end = data.data() + data.size();
  if (req.load(data.data(), end) != end) {
    trace(0, "'%s' is malformed", paths_.identity.c_str());
    return E_BAD_PAXOS_DATA;
  }
  // The node id is the one stored after the nodes: identity = init body + id.
  std::string idText;
  rc = PlatReadFile(paths_.identity + ".node", &idText);
  if (rc != 0) return rc;
  nodeId_ = atoi(idText.c_str());
  clusterId_ = req.clusterId;
  return openReplica();
}

int Repository::initialize(const InitRequest& req, int selfId) {
  std::lock_guard<std::mutex> g(initMu_);
  std::string body = encodeInit(req);
  if (ready_) {
    std::string old;
    PlatReadFile(paths_.identity, &old);
    return old == body && selfId == nodeId_ ? 0 : EEXIST;
  }
  // The identity file is written last: it is what makes the node initialised.
  PlatUnlink(paths_.store.c_str());
  int rc = factory_.initStore(paths_.store, selfId, req.block);
  if (rc != 0) {
    trace(0, "initialising the block store '%s' failed (err %d)", paths_.store.c_str(), rc);
    return rc;
  }
  rc = PlatWriteFileDurably(paths_.identity + ".node", std::to_string(selfId) + "\n");
  if (rc == 0) rc = PlatWriteFileDurably(paths_.identity, body);
  if (rc != 0) return rc;
  nodeId_ = selfId;
  clusterId_ = req.clusterId;
  return openReplica();
}

int Repository::snapshot(int* seq, CommittedState* s) const {
  if (!ready_) return E_NOT_SERVER;
  replica_->snapshot(seq, s);
  return 0;
}

std::string Repository::describe() const {
  if (!ready_) return "not initialised\n";
  std::ostringstream os;
  int seq = 0;
  CommittedState s;
  replica_->snapshot(&seq, &s);
  os << "node " << nodeId_ << " cluster " << clusterId_ << " seq " << seq << "\n"
     << s.toShortString() << "\n"
     << replica_->describe() << "\n";
  return os.str();
}

int Repository::propose(UpdateId* uid, bool fresh, const Announce& announce, const Prepare& prepare,
                        const std::string& staging, int* seq, CommittedState* state) {
  if (!ready_) return E_NOT_SERVER;
  std::lock_guard<std::mutex> g(proposeMu_);
  bool issued = false;
  if (uid->isNull()) {
    int rc = uids_->nextMain(uid);
    if (rc != 0) return rc;
    issued = true;
    announce(*uid);
  } else if (fresh) {
    int s0 = 0;
    CommittedState now;
    replica_->snapshot(&s0, &now);
    if (now.includes(*uid) != 0) {
      trace(2, "update id %s fell behind the update horizon; issuing another",
            uid->toString().c_str());
      int rc = uids_->newStream(uid);
      if (rc != 0) return rc;
      announce(*uid);
    }
  }
  const std::string key = uid->uidString();
  if (!staging.empty()) {
    std::lock_guard<std::mutex> sg(stagingMu_);
    staging_[key] = staging;
  }
  UpdateId id = *uid;
  // By value: an update answered 819 stays queued in the engine.
  PrepareFn pf = [prepare, id](const CommittedState& s, ProposedUpdate* u) {
    return prepare(s, id, u);
  };
  int rc = replica_->submit(pf, seq, state);
  if (!staging.empty() && rc != E_TRY_OTHERS) {
    std::lock_guard<std::mutex> sg(stagingMu_);
    staging_.erase(key);
  }
  if (rc != 0 && issued) {
    // Refused or undecided: no later id may follow this one in its stream, or a
    // retry of it would be taken for applied.
    int r2 = uids_->retireMain();
    if (r2 != 0) trace(0, "retiring the update stream failed (err %d)", r2);
  }
  return rc;
}

void Repository::applied(int seq, const CommittedState& s, const ProposedUpdate& inp) {
  trace(4, "applied seq %d: %s", seq, inp.toString().c_str());
  uids_->observe(s);
  if (inp.type == ProposedUpdate::fileUpdate) {
    std::string path;
    {
      std::lock_guard<std::mutex> g(stagingMu_);
      auto it = staging_.find(inp.uid.uidString());
      if (it != staging_.end()) path = it->second;
    }
    if (path.empty()) {
      trace(1, "applied file update %s has no staged file here", inp.uid.toString().c_str());
      return;
    }
    if (faults_.crashBeforeLink) raise(SIGKILL);
    int rc = files_->commit(path, inp);
    const FileUpdate* f = inp.getFileUpdate();
    if (rc == 0 && f->fileId == kNodesFileId) {
      std::string data;
      FileVersion fv(inp.version, inp.uid, f->crc);
      rc = PlatReadFile(files_->committedPath(f->name, f->fileId, fv), &data);
      if (rc == 0) rc = PlatWriteFileDurably(paths_.nodes, data);
      if (rc != 0) trace(1, "updating '%s' failed (err %d)", paths_.nodes.c_str(), rc);
    }
  } else if (inp.type == ProposedUpdate::fileDeletion) {
    files_->forget(inp.getFileDeletion()->fileId);
  }
}

}  // namespace zeld
