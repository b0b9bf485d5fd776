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
  enum Kind { kArrive, kReply, kCrash, kRestart, kSubmit, kReconfigure } kind = kArrive;
  int node = 0;  // node id
  int life = 0;
  DiskOp op;
  DiskReply reply;
};

struct Node {
  std::unique_ptr<MemDisk> store;
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
  void startNode(int id);
  void drain(int id);
  void fail(const std::string& why) {
    if (res_.error.empty()) res_.error = why;
  }
  void onApplied(int id, const AppliedEvent& e);
  MemDisk* diskFor(const DiskOp& op);
  void deliver(Event& e);
  void submit(int id, zeld::PrepareFn prep, const UpdateId& uid);
  void submitValue(int id);
  void submitConfig(int id);
  std::string nodeName(int id) { return "node " + std::to_string(id); }

  SimConfig c_;
  std::mt19937 rng_;
  long long now_ = 0;
  long long order_ = 0;
  std::multimap<std::pair<long long, long long>, Event> events_;
  std::vector<std::unique_ptr<MemDisk>> tiebreakers_;
  std::map<int, Node> nodes_;
  std::map<int, std::string> decided_;          // seq -> input decided at it
  std::map<int, StateRef> states_;              // seq -> state there
  std::vector<std::pair<UpdateId, int>> acks_;  // uid acknowledged, at seq
  SimResult res_;
};

void Sim::startNode(int id) {
  Node& n = nodes_[id];
  PaxosCore::Options o;
  o.nodeId = id;
  o.requestMs = 3000;
  o.phaseMs = 200;
  o.pollMs = 300;
  o.backoffMinMs = 1;
  o.backoffMaxMs = 60;
  o.seed = c_.seed * 31 + id * 7 + n.life;
  o.shape = [](const CommittedState& st) {
    DiskShape s;
    s.nodeStores = static_cast<int>(st.config.nodes.size());
    s.tiebreakers = static_cast<int>(st.config.disks.size());
    s.minNodes = st.config.minNodes;
    return s;
  };
  n.core.reset(new PaxosCore(o));
  if (n.core->start(n.store->slots(), now_) != 0) fail(nodeName(id) + ": store not initialised");
  drain(id);
}

void Sim::onApplied(int id, const AppliedEvent& e) {
  auto st = states_.find(e.seq);
  if (st == states_.end())
    states_[e.seq] = e.state;
  else if (!SameState(st->second, e.state))
    fail(nodeName(id) + " reached another state at seq " + std::to_string(e.seq));
  // A node the configuration adds gets a store initialised from that state.
  for (const NodeDescriptor& d : e.state->config.nodes) {
    if (nodes_.count(d.id)) continue;
    SharedBlock b;
    b.reset(e.seq, e.state);
    nodes_[d.id].store.reset(new MemDisk(nodeName(d.id)));
    nodes_[d.id].store->init(d.slot, b);
    startNode(d.id);
  }
  if (e.caughtUp) return;
  res_.decided++;
  std::string inp = encode(e.inp);
  auto d = decided_.find(e.seq - 1);
  if (d == decided_.end())
    decided_[e.seq - 1] = inp;
  else if (d->second != inp)
    fail("two inputs decided at seq " + std::to_string(e.seq - 1));
}

void Sim::drain(int id) {
  Node& n = nodes_[id];
  if (!n.core) return;
  for (DiskOp& op : n.core->takeOps()) {
    if (faulty() && coin() < c_.loseRequest) continue;
    int copies = faulty() && coin() < c_.duplicate ? 2 : 1;
    for (int k = 0; k < copies; k++) {
      Event e;
      e.kind = Event::kArrive;
      e.node = id;
      e.life = n.life;
      e.op = op;
      // Now and then a message is held back long enough to land phases later.
      long long delay =
          faulty() && coin() < 0.05 ? pick(0, 25 * c_.maxDelayMs) : pick(0, c_.maxDelayMs);
      schedule(now_ + delay, e);
    }
  }
  for (const AppliedEvent& e : n.core->takeApplied()) onApplied(id, e);
  for (const Completion& c : n.core->takeCompletions()) {
    auto it = n.pending.find(c.id);
    if (it == n.pending.end()) continue;
    if (c.rc == 0) {
      res_.acknowledged++;
      acks_.emplace_back(it->second, c.seq);
      if (c.state->includes(it->second) == 0) fail("acknowledged state lacks its update");
    } else if (c.rc != 819) {
      res_.refused++;
    }
    if (c.rc != 819) n.pending.erase(it);
  }
  std::string bad = n.core->checkInvariants();
  if (!bad.empty()) fail(nodeName(id) + ": " + bad);
}

void Sim::submit(int id, zeld::PrepareFn prep, const UpdateId& uid) {
  Node& n = nodes_[id];
  uint64_t rid = n.core->submit(prep, now_);
  n.pending[rid] = uid;
  drain(id);
}

void Sim::submitValue(int id) {
  Node& n = nodes_[id];
  if (!n.core) return;
  UpdateId uid(id, n.life, ++n.uidSeq);
  std::string name = "k" + std::to_string(pick(0, 2));
  std::string value = uid.toString();
  bool conditional = coin() < 0.2;
  int expect = static_cast<int>(pick(0, 3));
  submit(
      id,
      [uid, name, value, conditional, expect](const CommittedState& st, ProposedUpdate* u) {
        auto it = st.valueList.find(name);
        int old = it == st.valueList.end() ? 0 : it->second.version;
        *u = ProposedUpdate(uid, ValueUpdate(name, value),
                            std::max(old, st.maxDeletedValueVersion) + 1);
        return conditional && old != expect ? 805 : 0;
      },
      uid);
}

// Removes the highest node id while the configuration is full, else adds a node
// with a new id into the free slot.
void Sim::submitConfig(int id) {
  Node& n = nodes_[id];
  if (!n.core) return;
  UpdateId uid(id, n.life, ++n.uidSeq);
  int full = c_.nodes;
  submit(
      id,
      [uid, full](const CommittedState& st, ProposedUpdate* u) {
        NodeList nodes = st.config.nodes;
        if (static_cast<int>(nodes.size()) >= full) {
          auto top = std::max_element(
              nodes.begin(), nodes.end(),
              [](const NodeDescriptor& a, const NodeDescriptor& b) { return a.id < b.id; });
          nodes.erase(top);
        } else {
          std::vector<bool> used(zeld::kDiskSlots, false);
          for (const NodeDescriptor& d : nodes) used[d.slot] = true;
          int slot = static_cast<int>(std::find(used.begin(), used.end(), false) - used.begin());
          nodes.push_back(NodeDescriptor{100 + st.cfgVersion, slot, 0, true});
        }
        ConfigData data = st.config;
        data.nodes = nodes;
        data.minNodes = -1;
        *u = ProposedUpdate(uid, ConfigUpdate(data, true, false));
        u->version = st.cfgVersion + 1;
        return 0;
      },
      uid);
}

MemDisk* Sim::diskFor(const DiskOp& op) {
  auto st = states_.find(op.seq);
  if (st == states_.end()) return nullptr;
  const PaxosConfig& cfg = st->second->config;
  int n = static_cast<int>(cfg.nodes.size());
  if (op.disk >= 0 && op.disk < n) {
    auto it = nodes_.find(cfg.nodes[op.disk].id);
    // A node's store answers only while its node is up.
    return it == nodes_.end() || !it->second.core ? nullptr : it->second.store.get();
  }
  int t = op.disk - n;
  return t >= 0 && t < static_cast<int>(tiebreakers_.size()) ? tiebreakers_[t].get() : nullptr;
}

void Sim::deliver(Event& e) {
  Node& n = nodes_[e.node];
  switch (e.kind) {
    case Event::kArrive: {
      MemDisk* d = diskFor(e.op);
      if (d == nullptr) return;
      Event r;
      r.kind = Event::kReply;
      r.node = e.node;
      r.life = e.life;
      r.reply.tag = e.op.tag;
      r.reply.disk = e.op.disk;
      if (e.op.write)
        r.reply.rc = d->writeRead(e.node, e.op.slot, e.op.block, &r.reply.slots);
      else
        r.reply.rc = d->read(&r.reply.slots);
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
        Event& x = it->second;
        bool mine = x.node == e.node && x.life == n.life &&
                    (x.kind == Event::kArrive || x.kind == Event::kReply);
        if (mine && x.kind == Event::kArrive && coin() < 0.5) {
          Event moved = std::move(x);
          it = events_.erase(it);
          deliver(moved);
        } else if (mine) {
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
      return submitValue(e.node);
    case Event::kReconfigure:
      return submitConfig(e.node);
  }
}

SimResult Sim::run() {
  PaxosConfig cfg;
  for (int i = 0; i < c_.nodes; i++) cfg.nodes.push_back(NodeDescriptor{i + 1, i, 0, true});
  for (int j = 0; j < c_.tiebreakers; j++) cfg.disks.push_back(j);
  cfg.minNodes = c_.minNodes;
  auto first = std::make_shared<CommittedState>();
  first->config = cfg;
  SharedBlock init;
  init.reset(0, first);
  states_[0] = init.committed;
  for (int j = 0; j < c_.tiebreakers; j++) {
    tiebreakers_.emplace_back(new MemDisk("tiebreaker " + std::to_string(j)));
    tiebreakers_.back()->init(0, init);
  }
  for (int i = 0; i < c_.nodes; i++) {
    nodes_[i + 1].store.reset(new MemDisk(nodeName(i + 1)));
    nodes_[i + 1].store->init(i, init);
  }
  for (int i = 0; i < c_.nodes; i++) startNode(i + 1);
  auto randomEvent = [&](Event::Kind kind) {
    Event e;
    e.kind = kind;
    e.node = static_cast<int>(pick(1, c_.nodes));
    schedule(pick(0, c_.faultyMs), e);
  };
  for (int k = 0; k < c_.nodes * c_.updatesPerNode; k++) randomEvent(Event::kSubmit);
  for (int k = 0; k < c_.crashes; k++) randomEvent(Event::kCrash);
  for (int k = 0; k < c_.configChanges; k++) randomEvent(Event::kReconfigure);
  const long long end = c_.faultyMs + c_.healMs;
  while (res_.error.empty()) {
    long long next = events_.empty() ? end + 1 : events_.begin()->first.first;
    int wake = -1;
    for (auto& e : nodes_) {
      if (e.second.core && e.second.core->nextWake() < next) {
        next = e.second.core->nextWake();
        wake = e.first;
      }
    }
    if (next > end) break;
    now_ = std::max(now_, next);
    if (wake >= 0) {
      nodes_[wake].core->tick(now_);
      drain(wake);
      continue;
    }
    Event e = std::move(events_.begin()->second);
    events_.erase(events_.begin());
    deliver(e);
  }
  if (!res_.error.empty()) return res_;
  for (const auto& a : acks_)
    for (auto it = states_.lower_bound(a.second); it != states_.end(); ++it)
      if (it->second->includes(a.first) == 0)
        fail("acknowledged " + a.first.toString() + " missing from the state at seq " +
             std::to_string(it->first));
  // Liveness once the faults stopped: the final configuration's nodes have
  // answered every request and are all current.
  int top = states_.rbegin()->first;
  for (const NodeDescriptor& d : states_.rbegin()->second->config.nodes) {
    Node& n = nodes_[d.id];
    if (!n.core) {
      fail(nodeName(d.id) + " is down at the end");
      continue;
    }
    if (n.core->queued() != 0) fail(nodeName(d.id) + " still has requests: " + n.core->describe());
    if (n.core->appliedSeq() != top) fail(nodeName(d.id) + " is behind: " + n.core->describe());
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
