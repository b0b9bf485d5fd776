#include "paxossim.h"

#include <map>
#include <memory>
#include <random>
#include <sstream>

#include "memdisk.h"
#include "server/paxoscore.h"

using zeld::AppliedEvent;
using zeld::Completion;
using zeld::DiskOp;
using zeld::DiskReply;
using zeld::DiskShape;
using zeld::PaxosCore;

namespace {

std::string encode(const ProposedUpdate& u) {
  std::string s(u.getSize(), '\0');
  u.dump(&s[0]);
  return s;
}

struct Event {
  enum Kind { kArrive, kReply, kCrash, kRestart, kSubmit } kind = kArrive;
  int node = 0;
  int life = 0;
  DiskOp op;
  DiskReply reply;
};

struct Node {
  std::unique_ptr<PaxosCore> core;
  int life = 1;
  int uidSeq = 0;
  std::map<uint64_t, UpdateId> pending;  // request id -> uid
};

class Sim {
 public:
  explicit Sim(const SimConfig& c) : c_(c), rng_(c.seed) {}
  SimResult run();

 private:
  double coin() { return std::uniform_real_distribution<double>(0, 1)(rng_); }
  long long pick(long long lo, long long hi) {
    return std::uniform_int_distribution<long long>(lo, hi)(rng_);
  }
  bool faulty() const { return now_ < c_.faultyMs; }
  void schedule(long long t, Event e) {
    events_.emplace(std::make_pair(t, order_++), std::move(e));
  }
  void startNode(int i);
  void drain(int i);
  void fail(const std::string& why) {
    if (res_.error.empty()) res_.error = why;
  }
  void onApplied(int i, const AppliedEvent& e);
  void deliver(Event& e);
  void submit(int i);

  SimConfig c_;
  std::mt19937 rng_;
  long long now_ = 0;
  long long order_ = 0;
  std::multimap<std::pair<long long, long long>, Event> events_;
  std::vector<std::unique_ptr<MemDisk>> disks_;
  std::vector<Node> nodes_;
  std::map<int, std::string> decided_;          // seq -> input decided at it
  std::map<int, CommittedState> states_;        // seq -> state there
  std::vector<std::pair<UpdateId, int>> acks_;  // uid acknowledged, at seq
  SimResult res_;
};

void Sim::startNode(int i) {
  PaxosCore::Options o;
  o.nodeId = i + 1;
  o.requestMs = 3000;
  o.phaseMs = 200;
  o.pollMs = 300;
  o.backoffMinMs = 1;
  o.backoffMaxMs = 60;
  o.seed = c_.seed * 31 + i * 7 + nodes_[i].life;
  o.shape = [](const CommittedState& st) {
    DiskShape s;
    s.nodeStores = static_cast<int>(st.config.nodes.size());
    s.tiebreakers = static_cast<int>(st.config.disks.size());
    s.minNodes = st.config.minNodes;
    return s;
  };
  nodes_[i].core.reset(new PaxosCore(o));
  if (nodes_[i].core->start(disks_[i]->slots(), now_) != 0) fail("node store not initialised");
  drain(i);
}

void Sim::onApplied(int i, const AppliedEvent& e) {
  auto st = states_.find(e.seq);
  if (st == states_.end())
    states_[e.seq] = e.state;
  else if (!(st->second == e.state))
    fail("node " + std::to_string(i + 1) + " reached another state at seq " +
         std::to_string(e.seq));
  if (e.caughtUp) return;
  res_.decided++;
  std::string inp = encode(e.inp);
  auto d = decided_.find(e.seq - 1);
  if (d == decided_.end())
    decided_[e.seq - 1] = inp;
  else if (d->second != inp)
    fail("two inputs decided at seq " + std::to_string(e.seq - 1));
}

void Sim::drain(int i) {
  Node& n = nodes_[i];
  if (!n.core) return;
  for (DiskOp& op : n.core->takeOps()) {
    if (faulty() && coin() < c_.loseRequest) continue;
    int copies = faulty() && coin() < c_.duplicate ? 2 : 1;
    for (int k = 0; k < copies; k++) {
      Event e;
      e.kind = Event::kArrive;
      e.node = i;
      e.life = n.life;
      e.op = op;
      schedule(now_ + pick(0, c_.maxDelayMs), e);
    }
  }
  for (const AppliedEvent& e : n.core->takeApplied()) onApplied(i, e);
  for (const Completion& c : n.core->takeCompletions()) {
    auto it = n.pending.find(c.id);
    if (it == n.pending.end()) continue;
    if (c.rc == 0) {
      res_.acknowledged++;
      acks_.emplace_back(it->second, c.seq);
      if (c.state.includes(it->second) == 0) fail("acknowledged state lacks its update");
    } else if (c.rc != 819) {
      res_.refused++;
    }
    if (c.rc != 819) n.pending.erase(it);
  }
  std::string bad = n.core->checkInvariants();
  if (!bad.empty()) fail("node " + std::to_string(i + 1) + ": " + bad);
}

void Sim::submit(int i) {
  Node& n = nodes_[i];
  if (!n.core) return;
  UpdateId uid(i + 1, n.life, ++n.uidSeq);
  std::string name = "k" + std::to_string(pick(0, 2));
  std::string value = uid.toString();
  bool conditional = coin() < 0.2;
  int expect = static_cast<int>(pick(0, 3));
  zeld::PrepareFn prep = [uid, name, value, conditional, expect](const CommittedState& st,
                                                                 ProposedUpdate* u) {
    auto it = st.valueList.find(name);
    int old = it == st.valueList.end() ? 0 : it->second.version;
    *u =
        ProposedUpdate(uid, ValueUpdate(name, value), std::max(old, st.maxDeletedValueVersion) + 1);
    return conditional && old != expect ? 805 : 0;
  };
  uint64_t id = n.core->submit(prep, now_);
  n.pending[id] = uid;
  drain(i);
}

void Sim::deliver(Event& e) {
  Node& n = nodes_[e.node];
  switch (e.kind) {
    case Event::kArrive: {
      int d = e.op.disk;
      if (d < 0 || d >= static_cast<int>(disks_.size())) return;
      // A node's store answers only while its node is up.
      if (d < c_.nodes && !nodes_[d].core) return;
      Event r;
      r.kind = Event::kReply;
      r.node = e.node;
      r.life = e.life;
      r.reply.tag = e.op.tag;
      r.reply.disk = d;
      if (e.op.write)
        r.reply.rc = disks_[d]->writeRead(e.node + 1, e.op.slot, e.op.block, &r.reply.slots);
      else
        r.reply.rc = disks_[d]->read(&r.reply.slots);
      if (faulty() && coin() < c_.loseReply) return;
      schedule(now_ + pick(0, c_.maxDelayMs), r);
      return;
    }
    case Event::kReply:
      if (!n.core || n.life != e.life) return;
      n.core->onReply(e.reply, now_);
      return drain(e.node);
    case Event::kCrash: {
      if (!n.core) return;
      n.core.reset();
      n.pending.clear();
      // What the dead node had sent lands before it restarts, or never.
      for (auto it = events_.begin(); it != events_.end();) {
        if (it->second.node == e.node && it->second.life == n.life &&
            it->second.kind == Event::kArrive && coin() < 0.5) {
          Event moved = std::move(it->second);
          it = events_.erase(it);
          deliver(moved);
        } else if (it->second.node == e.node && it->second.life == n.life) {
          it = events_.erase(it);
        } else {
          ++it;
        }
      }
      Event r;
      r.kind = Event::kRestart;
      r.node = e.node;
      schedule(now_ + pick(20, 400), r);
      return;
    }
    case Event::kRestart:
      if (n.core) return;
      n.life++;
      n.uidSeq = 0;
      return startNode(e.node);
    case Event::kSubmit:
      return submit(e.node);
  }
}

SimResult Sim::run() {
  PaxosConfig cfg;
  for (int i = 0; i < c_.nodes; i++) cfg.nodes.push_back(NodeDescriptor{i + 1, i, 0, true});
  for (int j = 0; j < c_.tiebreakers; j++) cfg.disks.push_back(j);
  cfg.minNodes = c_.minNodes;
  Dblock init;
  init.committed.config = cfg;
  for (int i = 0; i < c_.nodes + c_.tiebreakers; i++) {
    disks_.emplace_back(new MemDisk("disk" + std::to_string(i)));
    disks_.back()->init(i < c_.nodes ? i : 0, init);
  }
  states_[0] = init.committed;
  nodes_.resize(c_.nodes);
  for (int i = 0; i < c_.nodes; i++) startNode(i);
  for (int i = 0; i < c_.nodes; i++) {
    for (int k = 0; k < c_.updatesPerNode; k++) {
      Event e;
      e.kind = Event::kSubmit;
      e.node = i;
      schedule(pick(0, c_.faultyMs), e);
    }
  }
  for (int k = 0; k < c_.crashes; k++) {
    Event e;
    e.kind = Event::kCrash;
    e.node = static_cast<int>(pick(0, c_.nodes - 1));
    schedule(pick(0, c_.faultyMs), e);
  }
  const long long end = c_.faultyMs + c_.healMs;
  while (res_.error.empty()) {
    long long next = events_.empty() ? end + 1 : events_.begin()->first.first;
    int wakeNode = -1;
    for (int i = 0; i < c_.nodes; i++) {
      if (nodes_[i].core && nodes_[i].core->nextWake() < next) {
        next = nodes_[i].core->nextWake();
        wakeNode = i;
      }
    }
    if (next > end) break;
    now_ = std::max(now_, next);
    if (wakeNode >= 0) {
      nodes_[wakeNode].core->tick(now_);
      drain(wakeNode);
      continue;
    }
    Event e = std::move(events_.begin()->second);
    events_.erase(events_.begin());
    deliver(e);
  }
  now_ = end;
  if (!res_.error.empty()) return res_;
  for (const auto& a : acks_)
    for (auto it = states_.lower_bound(a.second); it != states_.end(); ++it)
      if (it->second.includes(a.first) == 0)
        fail("acknowledged " + a.first.toString() + " missing from the state at seq " +
             std::to_string(it->first));
  // Liveness once the faults stopped: every request answered, every node current.
  int top = states_.rbegin()->first;
  for (int i = 0; i < c_.nodes; i++) {
    Node& n = nodes_[i];
    if (!n.core) continue;
    if (n.core->queued() != 0)
      fail("node " + std::to_string(i + 1) + " still has requests: " + n.core->describe());
    if (n.core->appliedSeq() != top)
      fail("node " + std::to_string(i + 1) + " is behind: " + n.core->describe());
  }
  return res_;
}

}  // namespace

SimResult RunPaxosSim(const SimConfig& cfg) {
  Sim s(cfg);
  SimResult r = s.run();
  if (!r.error.empty()) {
    std::ostringstream os;
    os << r.error << " (seed " << cfg.seed << ")";
    r.error = os.str();
  }
  return r;
}
