#include "server/repository.h"

#include <signal.h>
#include <sys/socket.h>

#include <sstream>

#include "platform/pfile.h"
#include "platform/pfileio.h"
#include "server/remotedisk.h"
#include "server/rules.h"
#include "zel/kxconnect.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelglobals.h"
#include "zel/zelmsg.h"
#include "zel/zelxfer.h"

namespace zeld {

namespace {

constexpr char kDisksFileName[] = "zel.disks";
// A node that lacks a file asks the others again after this long.
constexpr int kFetchRetryMs = 1000;
constexpr int kFetchConnectMs = 2000;
constexpr int kFetchIoMs = 30000;

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

Repository::~Repository() {
  stop();
  if (fetcher_.joinable()) fetcher_.join();
  replica_.reset();
}

void Repository::stop() {
  {
    std::lock_guard<std::mutex> g(fetchMu_);
    fetchStop_ = true;
    if (fetchSock_ >= 0) ::shutdown(fetchSock_, SHUT_RDWR);
  }
  fetchCv_.notify_all();
  if (ready_) replica_->stop();
}

int Repository::openReplica() {
  ReplicaHooks hooks;
  hooks.applied = [this](int seq, const CommittedState& s, const ProposedUpdate& inp) {
    applied(seq, s, inp);
  };
  hooks.caughtUp = [this](int seq, const CommittedState& s) { caughtUp(seq, s); };
  hooks.disks = [this](const CommittedState& s, const std::shared_ptr<Disk>& own) {
    return disksFor(s, own);
  };
  {
    // Listed before the engine runs: it may decide an input of the last life
    // again at once, and its apply looks for the content among these.
    std::lock_guard<std::mutex> g(stagingMu_);
    startupStaging_ = files_->stagingFiles();
  }
  std::unique_ptr<Replica> r;
  std::shared_ptr<Disk> store;
  int rc = factory_.open(paths_.store, nodeId_, hooks, &store, &r);
  if (rc != 0) {
    trace(0, "opening the block store '%s' failed (err %d)", paths_.store.c_str(), rc);
    return rc;
  }
  int seq = 0;
  StateRef s;
  r->snapshot(&seq, &s);
  rc = uids_->open(nodeId_, *s);
  if (rc != 0) {
    trace(0, "update id epochs cannot be reserved (err %d)", rc);
    return rc;
  }
  // Staging files of the last life: those the state names are linked now; the
  // rest wait until a quorum read has shown what was decided (an input voted
  // before a crash is decided again after it), then go.
  rc = files_->reconcile(*s, startupStaging_, false);
  if (rc != 0) trace(1, "linking staged files at start-up failed (err %d)", rc);
  store_ = store;
  replica_ = std::move(r);
  zelClusterId = clusterId_;
  ready_ = true;
  fetcher_ = std::thread([this] { fetchLoop(); });
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
  peers_.addNodes(req.nodes);
  peers_.addDisks(req.disks);
  // The committed lists, newer than those of "init" when the cluster changed.
  peers_.addNodesFile(paths_.nodes);
  int disksId = files_->lookup(kDisksFileName);
  if (disksId > 0) {
    std::string path = files_->latestPath(disksId);
    if (!path.empty()) peers_.addDisksFile(path);
  }
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
  peers_.addNodes(req.nodes);
  peers_.addDisks(req.disks);
  return openReplica();
}

int Repository::snapshot(int* seq, StateRef* s) const {
  if (!ready_) return E_NOT_SERVER;
  replica_->snapshot(seq, s);
  return 0;
}

int Repository::barrier(int* seq, StateRef* s) {
  if (!ready_) return E_NOT_SERVER;
  return replica_->barrier(seq, s);
}

std::shared_ptr<Disk> Repository::store() const {
  return ready_ ? store_ : nullptr;
}

std::string Repository::describe() const {
  if (!ready_) return "not initialised\n";
  std::ostringstream os;
  int seq = 0;
  StateRef s;
  replica_->snapshot(&seq, &s);
  os << "node " << nodeId_ << " cluster " << clusterId_ << " seq " << seq << "\n"
     << s->toShortString() << "\n"
     << replica_->describe() << peers_.describe();
  return os.str();
}

DiskSet Repository::disksFor(const CommittedState& s, const std::shared_ptr<Disk>& own) {
  std::lock_guard<std::mutex> g(disksMu_);
  DiskSet d;
  for (const NodeDescriptor& n : s.config.nodes) {
    if (n.slot < 0) continue;
    if (n.id == nodeId_) {
      d.nodeStores.push_back(own);
      continue;
    }
    std::shared_ptr<Disk>& r = remote_[n.id];
    if (!r) {
      int id = n.id;
      RemoteDisk::AddrFn addr = [this, id](CommAddr* out) { return peers_.addressOf(id, out); };
      PxFileSourceFn src = [this](const ProposedUpdate& u, std::string* path) {
        return fileSource(u, path);
      };
      r = std::make_shared<RemoteDisk>(nodeId_, id, addr, src, RemoteDisk::Options());
    }
    d.nodeStores.push_back(r);
  }
  for (int slot : s.config.disks) {
    std::shared_ptr<Disk>& t = tiebreakers_[slot];
    if (!t) t = std::make_shared<TiebreakerDisk>([this, slot] { return peers_.diskLabel(slot); });
    d.tiebreakers.push_back(t);
  }
  d.minNodes = s.config.minNodes < 1 ? 1 : s.config.minNodes;
  return d;
}

int Repository::fileSource(const ProposedUpdate& u, std::string* path) {
  const FileUpdate* f = u.getFileUpdate();
  if (f == nullptr) return E_XFER_FAILED;
  {
    std::lock_guard<std::mutex> g(stagingMu_);
    auto it = staging_.find(u.uid.uidString());
    if (it != staging_.end()) {
      *path = it->second;
      return 0;
    }
  }
  FileVersion fv(u.version, u.uid, f->crc);
  if (!files_->holds(f->fileId, fv)) return E_XFER_FAILED;
  *path = files_->committedPath(f->name, f->fileId, fv);
  return 0;
}

bool Repository::holdsFile(int fileId, const FileVersion& fv) const {
  return files_->holds(fileId, fv);
}

bool Repository::lacksFiles(const CommittedState& s) const {
  for (const auto& [id, fv] : s.fileList)
    if (!files_->holds(id, fv)) return true;
  return false;
}

PxFiles Repository::pxFiles() {
  PxFiles p;
  p.holds = [this](const ProposedUpdate& u) {
    std::string path;
    return fileSource(u, &path) == 0;
  };
  p.stagingPath = [this](const ProposedUpdate& u) {
    // The receiver creates the file: it lands under this name only when whole.
    std::string path = files_->stagingName(u.uid);
    std::lock_guard<std::mutex> g(stagingMu_);
    staging_[u.uid.uidString()] = path;
    stagedInputs_[u.uid.uidString()] = u;
    return path;
  };
  return p;
}

void Repository::listFileCommitted(const std::string& name, const std::string& path) {
  if (name == kNodesFileName) {
    std::string data;
    int rc = PlatReadFile(path, &data);
    if (rc == 0) rc = PlatWriteFileDurably(paths_.nodes, data);
    if (rc == 0) rc = peers_.addNodesFile(paths_.nodes);
    if (rc != 0) trace(1, "updating '%s' failed (err %d)", paths_.nodes.c_str(), rc);
  } else if (name == kDisksFileName) {
    int rc = peers_.addDisksFile(path);
    if (rc != 0) trace(1, "reading the committed '%s' failed (err %d)", path.c_str(), rc);
  }
}

void Repository::caughtUp(int seq, const CommittedState& s) {
  trace(2, "caught up to seq %d", seq);
  uids_->observe(s);
  // Inputs this store took from their proposers were decided meanwhile: their
  // content is here already.
  std::vector<std::pair<std::string, ProposedUpdate>> ready;
  {
    std::lock_guard<std::mutex> g(stagingMu_);
    for (auto it = stagedInputs_.begin(); it != stagedInputs_.end();) {
      const FileUpdate* f = it->second.getFileUpdate();
      auto named = s.fileList.find(f->fileId);
      auto st = staging_.find(it->first);
      if (named != s.fileList.end() && st != staging_.end() &&
          named->second.uid == it->second.uid && named->second.version == it->second.version) {
        ready.push_back({st->second, it->second});
        staging_.erase(st);
        it = stagedInputs_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (const auto& [path, u] : ready) {
    const FileUpdate* f = u.getFileUpdate();
    files_->learn(f->name, f->fileId);
    if (files_->commit(path, u) == 0) {
      FileVersion fv(u.version, u.uid, f->crc);
      listFileCommitted(f->name, files_->committedPath(f->name, f->fileId, fv));
    }
  }
  wakeFetcher();
}

void Repository::wakeFetcher() {
  {
    std::lock_guard<std::mutex> g(fetchMu_);
    fetchWanted_ = true;
  }
  fetchCv_.notify_all();
}

void Repository::fetchLoop() {
  std::unique_lock<std::mutex> lock(fetchMu_);
  for (;;) {
    std::vector<std::string> names;
    {
      std::lock_guard<std::mutex> g(stagingMu_);
      names = startupStaging_;
    }
    if (names.empty() || fetchStop_) break;
    lock.unlock();
    int seq = 0;
    StateRef s;
    int rc = replica_->barrier(&seq, &s);
    if (rc == 0) {
      files_->reconcile(*s, names, true);
      std::lock_guard<std::mutex> g(stagingMu_);
      startupStaging_.clear();
    }
    lock.lock();
    if (rc != 0)
      fetchCv_.wait_for(lock, std::chrono::milliseconds(kFetchRetryMs),
                        [this] { return fetchStop_; });
  }
  fetchWanted_ = true;  // a restarted node may lack files of its state
  while (!fetchStop_) {
    if (!fetchWanted_) {
      fetchCv_.wait(lock, [this] { return fetchStop_ || fetchWanted_; });
      continue;
    }
    fetchWanted_ = false;
    lock.unlock();
    bool done = fetchMissing();
    lock.lock();
    if (!done && !fetchStop_) {
      fetchCv_.wait_for(lock, std::chrono::milliseconds(kFetchRetryMs),
                        [this] { return fetchStop_; });
      fetchWanted_ = true;
    }
  }
}

namespace {

// One request to a peer; the reply's type and body.
int ask(Connection* c, int type, const std::string& body, int* rtype, std::string* reply) {
  int rc = c->send(type, body.data(), static_cast<int>(body.size()));
  int len = 0;
  char* b = nullptr;
  if (rc == 0) rc = c->receive(rtype, &b, &len);
  if (rc == 0) reply->assign(b, static_cast<size_t>(len));
  delete[] b;
  return rc;
}

}  // namespace

// One pass over the files the applied state names: true when every one is here.
bool Repository::fetchMissing() {
  int seq = 0;
  StateRef sp;
  replica_->snapshot(&seq, &sp);
  const CommittedState& s = *sp;
  std::vector<std::pair<int, FileVersion>> missing;
  for (const auto& [id, fv] : s.fileList)
    if (!files_->holds(id, fv)) missing.push_back({id, fv});
  if (missing.empty()) return true;
  trace(3, "%d file(s) of seq %d missing here; fetching", static_cast<int>(missing.size()), seq);
  for (const NodeDescriptor& n : s.config.nodes) {
    if (n.id == nodeId_ || missing.empty()) continue;
    CommAddr addr;
    Connection* c = nullptr;
    if (peers_.addressOf(n.id, &addr) != 0 || connectTo(addr, &c, kFetchConnectMs) != 0) continue;
    {
      std::lock_guard<std::mutex> g(fetchMu_);
      if (fetchStop_) {
        delete c;
        return false;
      }
      fetchSock_ = c->getSock();
    }
    c->setTimeouts(kFetchIoMs, kFetchIoMs);
    // The names: the state holds ids only.
    int rtype = 0;
    std::string reply;
    FileIdMap names;
    if (ask(c, MSG_TYPE_FGET, std::string(), &rtype, &reply) == 0 &&
        rtype == REPLY_TYPE_SEQ_COMMIT_FLIST) {
      const char* p = reply.data();
      const char* end = p + reply.size();
      int peerSeq = 0;
      CommittedState peerState;
      p = LoadVarUInt(p, end, &peerSeq, 0);
      p = peerState.load(p, end);
      if (p == nullptr || names.load(p, end) != end) names.clear();
    }
    std::vector<std::pair<int, FileVersion>> left;
    for (const auto& [id, fv] : missing) {
      std::string name = id == kNodesFileId ? kNodesFileName : names.getFileName(id);
      if (name.empty()) name = files_->nameOf(id);
      int rc = ValidFileName(name) ? 0 : ENOENT;
      std::string staging = files_->stagingName(fv.uid);
      if (rc == 0) {
        std::string body;
        char b[4096];
        char* e = DumpString(b, name);
        e = DumpVarUInt(e, id, 0);
        e = DumpVarUInt(e, fv.version, -1);
        e = fv.uid.dump(e);
        body.assign(b, e);
        rc = ask(c, MSG_TYPE_FXFER, body, &rtype, &reply);
        int size = -1;
        if (rc == 0 && rtype == MSG_TYPE_OK) {
          const char* p = LoadVarUInt(reply.data(), reply.data() + reply.size(), &size, 0);
          if (p == nullptr || size < 0) rc = E_BAD_MESSAGE;
        } else if (rc == 0) {
          rc = ENOENT;  // that node lacks it too
        }
        unsigned int crc = 0;
        bool localErr = false;
        if (rc == 0) rc = receiveFile(c, staging, size, false, &crc, &localErr, true);
        if (rc == 0 && crc != fv.crc) rc = E_XFER_FAILED;
        if (rc == 0) {
          ProposedUpdate u(fv.uid, FileUpdate(name, id, 0, crc), fv.version);
          files_->learn(name, id);
          rc = files_->commit(staging, u);
          if (rc == 0) listFileCommitted(name, files_->committedPath(name, id, fv));
          if (rc == 0)
            trace(2, "fetched '%s' version %d from node %d", name.c_str(), fv.version, n.id);
        }
        if (rc != 0) PlatUnlink(staging.c_str());
      }
      if (rc != 0) left.push_back({id, fv});
      if (c->isBroken()) break;
    }
    {
      std::lock_guard<std::mutex> g(fetchMu_);
      fetchSock_ = -1;
    }
    delete c;
    missing.swap(left);
  }
  return missing.empty();
}

int Repository::propose(UpdateId* uid, bool fresh, const Announce& announce, const Prepare& prepare,
                        const std::string& staging, int* seq, StateRef* state) {
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
    StateRef now;
    replica_->snapshot(&s0, &now);
    if (now->includes(*uid) != 0) {
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
    const FileUpdate* f = inp.getFileUpdate();
    files_->learn(f->name, f->fileId);
    std::string path;
    {
      std::lock_guard<std::mutex> g(stagingMu_);
      auto it = staging_.find(inp.uid.uidString());
      if (it != staging_.end()) {
        path = it->second;
        staging_.erase(it);
      }
      stagedInputs_.erase(inp.uid.uidString());
    }
    if (path.empty()) {
      // Decided again after a restart: its content may wait in a staging file
      // of the last life.
      std::vector<std::string> names;
      {
        std::lock_guard<std::mutex> g(stagingMu_);
        names = startupStaging_;
      }
      if (faults_.crashBeforeLink) raise(SIGKILL);
      if (!names.empty() && files_->commitFromStaging(names, inp) == 0) {
        FileVersion fv(inp.version, inp.uid, f->crc);
        listFileCommitted(f->name, files_->committedPath(f->name, f->fileId, fv));
        return;
      }
      trace(2, "applied file update %s has no staged file here; fetching it",
            inp.uid.toString().c_str());
      wakeFetcher();
      return;
    }
    if (faults_.crashBeforeLink) raise(SIGKILL);
    int rc = files_->commit(path, inp);
    if (rc != 0) {
      wakeFetcher();
      return;
    }
    FileVersion fv(inp.version, inp.uid, f->crc);
    listFileCommitted(f->name, files_->committedPath(f->name, f->fileId, fv));
  } else if (inp.type == ProposedUpdate::fileDeletion) {
    files_->forget(inp.getFileDeletion()->fileId);
  }
}

}  // namespace zeld
