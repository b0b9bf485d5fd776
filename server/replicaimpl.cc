// The threaded runner: drives a PaxosCore on real disks. One driver thread owns
// the core's time-outs and callbacks; one worker per disk runs its operations,
// so a slow disk delays only itself.
#include <signal.h>
#include <stdio.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "platform/pclock.h"
#include "server/paxoscore.h"
#include "server/replica.h"
#include "zel/paxosutils.h"

namespace zeld {

namespace {

class EngineReplica : public Replica {
 public:
  explicit EngineReplica(const ReplicaOptions& o);
  ~EngineReplica() override;
  int open();
  int submit(const PrepareFn& prepare, int* seq, StateRef* state) override;
  void snapshot(int* seq, StateRef* state) const override;
  int barrier(int* seq, StateRef* state) override;
  std::string describe() const override;
  void stop() override;

 private:
  struct Worker {
    std::shared_ptr<Disk> disk;
    std::deque<DiskOp> q;
    bool stop = false;
    std::thread t;
  };

  DiskShape shapeOf(const CommittedState& st);
  void dispatch(std::vector<DiskOp> ops);
  void driverLoop();
  void workerLoop(Worker* w);
  void publish(std::unique_lock<std::mutex>& lock);
  int await(std::unique_lock<std::mutex>& lock, uint64_t id, int* seq, StateRef* state);

  ReplicaOptions o_;
  mutable std::mutex mu_;
  std::condition_variable cv_;  // driver: replies, submits, stop
  std::condition_variable doneCv_;
  std::condition_variable workCv_;
  PaxosCore core_;
  bool stop_ = false;
  std::deque<DiskReply> replies_;
  std::map<uint64_t, Completion> results_;
  // The disk set of the configuration in force, and one worker per disk object.
  PaxosConfig setConfig_;
  int setCfgVersion_ = -1;
  DiskSet set_;
  std::map<Disk*, std::unique_ptr<Worker>> workers_;
  std::vector<std::unique_ptr<Worker>> retired_;
  std::thread driver_;
  mutable std::mutex snapMu_;
  int snapSeq_ = 0;
  StateRef snapState_ = EmptyState();
};

PaxosCore::Options coreOptions(const ReplicaOptions& o) {
  PaxosCore::Options c;
  c.nodeId = o.nodeId;
  c.requestMs = o.requestMs;
  c.phaseMs = o.phaseMs;
  c.pollMs = o.pollMs;
  c.seed = o.seed != 0 ? o.seed : static_cast<unsigned>(PlatNowMs() * 2654435761u + o.nodeId);
  if (!o.crashAt.empty()) {
    std::string at = o.crashAt;
    c.point = [at](const char* point) {
      if (at == point) {
        fprintf(stderr, "zeld: test switch: crashing at %s\n", point);
        raise(SIGKILL);
      }
    };
  }
  return c;
}

EngineReplica::EngineReplica(const ReplicaOptions& o) : o_(o), core_(coreOptions(o)) {}

DiskShape EngineReplica::shapeOf(const CommittedState& st) {
  if (setCfgVersion_ != st.cfgVersion || !(setConfig_ == st.config)) {
    set_ = o_.disks ? o_.disks(st) : DiskSet();
    if (set_.nodeStores.empty() && set_.tiebreakers.empty() && o_.ownStore)
      set_.nodeStores.push_back(o_.ownStore);
    setConfig_ = st.config;
    setCfgVersion_ = st.cfgVersion;
    std::map<Disk*, std::unique_ptr<Worker>> keep;
    auto adopt = [&](const std::shared_ptr<Disk>& d) {
      if (!d || keep.count(d.get())) return;
      auto it = workers_.find(d.get());
      if (it != workers_.end()) {
        keep[d.get()] = std::move(it->second);
        workers_.erase(it);
        return;
      }
      std::unique_ptr<Worker> w(new Worker);
      w->disk = d;
      Worker* raw = w.get();
      w->t = std::thread([this, raw] { workerLoop(raw); });
      keep[d.get()] = std::move(w);
    };
    for (const auto& d : set_.nodeStores) adopt(d);
    for (const auto& d : set_.tiebreakers) adopt(d);
    for (auto& e : workers_) {
      e.second->stop = true;
      retired_.push_back(std::move(e.second));
    }
    workers_ = std::move(keep);
    workCv_.notify_all();
  }
  DiskShape s;
  s.nodeStores = static_cast<int>(set_.nodeStores.size());
  s.tiebreakers = static_cast<int>(set_.tiebreakers.size());
  s.minNodes = set_.minNodes;
  return s;
}

void EngineReplica::dispatch(std::vector<DiskOp> ops) {
  for (DiskOp& op : ops) {
    std::shared_ptr<Disk> d;
    if (op.seq == core_.appliedSeq()) {
      int n = static_cast<int>(set_.nodeStores.size());
      if (op.disk < n)
        d = set_.nodeStores[op.disk];
      else if (op.disk - n < static_cast<int>(set_.tiebreakers.size()))
        d = set_.tiebreakers[op.disk - n];
    }
    auto it = d ? workers_.find(d.get()) : workers_.end();
    if (it == workers_.end()) {
      DiskReply r;
      r.tag = op.tag;
      r.disk = op.disk;
      r.rc = 5;
      replies_.push_back(std::move(r));
      continue;
    }
    // Only the newest operation for a disk matters: older ones belong to attempts
    // the core has left.
    it->second->q.clear();
    it->second->q.push_back(std::move(op));
  }
  workCv_.notify_all();
  cv_.notify_all();
}

void EngineReplica::workerLoop(Worker* w) {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    workCv_.wait(lock, [&] { return w->stop || stop_ || !w->q.empty(); });
    if (w->stop || stop_) return;
    DiskOp op = std::move(w->q.front());
    w->q.pop_front();
    lock.unlock();
    DiskReply r;
    r.tag = op.tag;
    r.disk = op.disk;
    if (op.write)
      r.rc = w->disk->writeRead(o_.nodeId, op.slot, op.block, &r.slots);
    else
      r.rc = w->disk->readFor(op.seq, &r.slots);
    lock.lock();
    replies_.push_back(std::move(r));
    cv_.notify_all();
  }
}

void EngineReplica::publish(std::unique_lock<std::mutex>& lock) {
  std::vector<AppliedEvent> applied = core_.takeApplied();
  std::vector<Completion> done = core_.takeCompletions();
  if (applied.empty() && done.empty()) return;
  lock.unlock();
  for (const AppliedEvent& e : applied) {
    if (e.caughtUp && o_.caughtUp) o_.caughtUp(e.seq, *e.state);
    if (!e.caughtUp && o_.applied) o_.applied(e.seq, *e.state, e.inp);
    std::lock_guard<std::mutex> g(snapMu_);
    snapSeq_ = e.seq;
    snapState_ = e.state;
  }
  lock.lock();
  for (Completion& c : done) results_[c.id] = std::move(c);
  doneCv_.notify_all();
}

void EngineReplica::driverLoop() {
  std::unique_lock<std::mutex> lock(mu_);
  while (!stop_) {
    long long now = PlatNowMs();
    while (!replies_.empty()) {
      DiskReply r = std::move(replies_.front());
      replies_.pop_front();
      core_.onReply(r, now);
    }
    core_.tick(now);
    dispatch(core_.takeOps());
    publish(lock);
    if (!replies_.empty() || stop_) continue;
    long long wait = core_.nextWake() - PlatNowMs();
    if (wait > 0) cv_.wait_for(lock, std::chrono::milliseconds(std::min(wait, 60000LL)));
  }
}

int EngineReplica::open() {
  std::vector<SlotBlock> slots;
  if (!o_.ownStore) return 22;
  int rc = o_.ownStore->read(&slots);
  if (rc != 0) return rc;
  std::unique_lock<std::mutex> lock(mu_);
  PaxosCore::Options co = coreOptions(o_);
  co.shape = [this](const CommittedState& st) { return shapeOf(st); };
  core_ = PaxosCore(co);
  rc = core_.start(slots, PlatNowMs());
  if (rc != 0) return rc;
  {
    std::lock_guard<std::mutex> g(snapMu_);
    snapSeq_ = core_.appliedSeq();
    snapState_ = core_.appliedState();
  }
  dispatch(core_.takeOps());
  driver_ = std::thread([this] { driverLoop(); });
  // Serve only once the node knows where the repository stands (bounded).
  long long until = PlatNowMs() + std::min(o_.requestMs, o_.settleMs);
  while (!core_.settled() && PlatNowMs() < until)
    doneCv_.wait_for(lock, std::chrono::milliseconds(20));
  return 0;
}

void EngineReplica::stop() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stop_ = true;
  }
  cv_.notify_all();
  doneCv_.notify_all();
}

EngineReplica::~EngineReplica() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stop_ = true;
    for (auto& e : workers_) e.second->stop = true;
  }
  cv_.notify_all();
  workCv_.notify_all();
  if (driver_.joinable()) driver_.join();
  for (auto& e : workers_)
    if (e.second->t.joinable()) e.second->t.join();
  for (auto& w : retired_)
    if (w->t.joinable()) w->t.join();
}

int EngineReplica::submit(const PrepareFn& prepare, int* seq, StateRef* state) {
  std::unique_lock<std::mutex> lock(mu_);
  uint64_t id = core_.submit(prepare, PlatNowMs());
  return await(lock, id, seq, state);
}

int EngineReplica::barrier(int* seq, StateRef* state) {
  std::unique_lock<std::mutex> lock(mu_);
  // Alone, past the recovery of its own last vote, and with every decided
  // instance applied (callbacks done): its state is the truth.
  if (set_.tiebreakers.empty() && set_.nodeStores.size() == 1 &&
      set_.nodeStores[0] == o_.ownStore && core_.settled()) {
    std::lock_guard<std::mutex> g(snapMu_);
    if (snapSeq_ == core_.appliedSeq()) {
      if (seq != nullptr) *seq = snapSeq_;
      if (state != nullptr) *state = snapState_;
      return 0;
    }
  }
  uint64_t id = core_.barrier(PlatNowMs());
  return await(lock, id, seq, state);
}

int EngineReplica::await(std::unique_lock<std::mutex>& lock, uint64_t id, int* seq,
                         StateRef* state) {
  dispatch(core_.takeOps());
  cv_.notify_all();
  doneCv_.wait(lock, [&] { return results_.count(id) != 0 || stop_; });
  auto it = results_.find(id);
  if (it == results_.end()) return 819;
  int rc = it->second.rc;
  if (rc == 0) {
    if (seq != nullptr) *seq = it->second.seq;
    if (state != nullptr) *state = std::move(it->second.state);
  }
  results_.erase(it);
  return rc;
}

void EngineReplica::snapshot(int* seq, StateRef* state) const {
  std::lock_guard<std::mutex> g(snapMu_);
  if (seq != nullptr) *seq = snapSeq_;
  if (state != nullptr) *state = snapState_;
}

std::string EngineReplica::describe() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::string s = core_.describe();
  int i = 0;
  for (const auto& d : set_.nodeStores)
    s += "  disk " + std::to_string(i++) + ": " + d->label() + "\n";
  for (const auto& d : set_.tiebreakers)
    s += "  disk " + std::to_string(i++) + ": " + d->label() + "\n";
  return s;
}

}  // namespace

int OpenReplica(const ReplicaOptions& opts, std::unique_ptr<Replica>* out) {
  std::unique_ptr<EngineReplica> r(new EngineReplica(opts));
  int rc = r->open();
  if (rc != 0) return rc;
  *out = std::move(r);
  return 0;
}

}  // namespace zeld
