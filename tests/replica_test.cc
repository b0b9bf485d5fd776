// The threaded engine over real block stores and in-memory disks: what the
// request service relies on (durability, exactly-once, refusals, 819 in time).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "server/blockstore.h"
#include "server/replica.h"
#include "support/memdisk.h"
#include "support/samples.h"
#include "support/testutil.h"

using namespace zeld;

namespace {

Dblock initialBlock() {
  Dblock b;
  b.committed = NodesState(1);
  return b;
}

// Puts name=value at the next version, as the service prepares a vput.
PrepareFn putFn(const UpdateId& uid, const std::string& name, const std::string& value) {
  return [=](const CommittedState& st, ProposedUpdate* u) {
    auto it = st.valueList.find(name);
    int old = it == st.valueList.end() ? 0 : it->second.version;
    *u =
        ProposedUpdate(uid, ValueUpdate(name, value), std::max(old, st.maxDeletedValueVersion) + 1);
    return 0;
  };
}

struct Recorder {
  std::vector<int> seqs;
  std::mutex mu;
  AppliedFn fn() {
    return [this](int seq, const CommittedState&, const ProposedUpdate&) {
      std::lock_guard<std::mutex> g(mu);
      seqs.push_back(seq);
    };
  }
};

ReplicaOptions optionsFor(std::shared_ptr<Disk> store, Recorder* rec) {
  ReplicaOptions o;
  o.nodeId = 1;
  o.ownStore = store;
  o.applied = rec->fn();
  o.requestMs = 400;
  o.phaseMs = 100;
  o.pollMs = 100;
  o.seed = 7;
  return o;
}

TEST(Replica, UninitialisedStoreIsRefused) {
  std::unique_ptr<Replica> r;
  Recorder rec;
  auto disk = std::make_shared<MemDisk>("empty");
  EXPECT_EQ(OpenReplica(optionsFor(disk, &rec), &r), 2);
  EXPECT_EQ(r, nullptr);
}

TEST(Replica, OneNodeOnAFileStoreIsDurableAndExactlyOnce) {
  TempDir dir;
  std::string path = dir.file("store");
  ASSERT_EQ(BlockStore::Init(path, 0, initialBlock()), 0);
  Recorder rec;
  UpdateId a(1, 1, 1), b(1, 1, 2);
  {
    std::shared_ptr<BlockStore> store;
    ASSERT_EQ(BlockStore::Open(path, &store), 0);
    std::unique_ptr<Replica> r;
    ASSERT_EQ(OpenReplica(optionsFor(store, &rec), &r), 0);
    int seq = -1;
    StateRef st;
    ASSERT_EQ(r->submit(putFn(a, "x", "1"), &seq, &st), 0);
    EXPECT_EQ(seq, 1);
    EXPECT_EQ(st->valueList.at("x").version, 1);
    ASSERT_EQ(r->submit(putFn(b, "x", "2"), &seq, &st), 0);
    EXPECT_EQ(seq, 2);
    EXPECT_EQ(st->valueList.at("x").value, "2");
    // The applied callback ran for each instance, in order, before the reply.
    EXPECT_EQ(rec.seqs, (std::vector<int>{1, 2}));
    // The same uid again: answered from the state, nothing decided.
    ASSERT_EQ(r->submit(putFn(a, "x", "other"), &seq, &st), 0);
    EXPECT_EQ(seq, 2);
    EXPECT_EQ(st->valueList.at("x").value, "2");
    EXPECT_NE(r->describe().find("seq 2"), std::string::npos) << r->describe();
  }
  // Restart: everything acknowledged is there.
  std::shared_ptr<BlockStore> store;
  ASSERT_EQ(BlockStore::Open(path, &store), 0);
  std::unique_ptr<Replica> r;
  ASSERT_EQ(OpenReplica(optionsFor(store, &rec), &r), 0);
  int seq = -1;
  StateRef st;
  r->snapshot(&seq, &st);
  EXPECT_EQ(seq, 2);
  EXPECT_EQ(st->valueList.at("x").value, "2");
  EXPECT_EQ(st->includes(b), 1);
}

TEST(Replica, RefusalsEndTheRequestAndDecideNothing) {
  auto disk = std::make_shared<MemDisk>("own");
  disk->init(0, initialBlock());
  Recorder rec;
  std::unique_ptr<Replica> r;
  ASSERT_EQ(OpenReplica(optionsFor(disk, &rec), &r), 0);
  // An update of a type with no payload.
  auto bare = [](int seq, int type) {
    ProposedUpdate u;
    u.uid = UpdateId(1, 1, seq);
    u.type = static_cast<ProposedUpdate::UpdateType>(type);
    u.version = 5;
    return u;
  };
  struct Case {
    const char* name;
    ProposedUpdate u;
    int prepareRc, rc;
  } cases[] = {
      {"prepare refuses", ProposedUpdate(UpdateId(1, 1, 1)), 805, 805},
      {"version not above the current one",
       ProposedUpdate(UpdateId(1, 1, 2), ValueUpdate("x", "v"), 0), 0, 22},
      {"unknown type", bare(3, 9), 0, 22},
      {"type without payload", bare(4, ProposedUpdate::valueUpdate), 0, 22},
      {"negative uid", ProposedUpdate(UpdateId(-1, 1, 5), ValueUpdate("x", "v"), 1), 0, 22},
      {"name with a zero byte",
       ProposedUpdate(UpdateId(1, 1, 6), ValueUpdate(std::string("a\0b", 3), "v"), 1), 0, 22},
      {"state too large for a block",
       ProposedUpdate(UpdateId(1, 1, 7), ValueUpdate("x", std::string(kMaxBlockBytes, 'v')), 1), 0,
       34},
  };
  for (const Case& c : cases) {
    int seq = -1;
    PrepareFn fn = [&c](const CommittedState&, ProposedUpdate* u) {
      *u = c.u;
      return c.prepareRc;
    };
    EXPECT_EQ(r->submit(fn, &seq, nullptr), c.rc) << c.name;
  }
  int seq = -1;
  r->snapshot(&seq, nullptr);
  EXPECT_EQ(seq, 0);
  EXPECT_TRUE(rec.seqs.empty());
}

TEST(Replica, NoQuorumAnswers819InTimeAndTheUpdateIsStillDecided) {
  auto disk = std::make_shared<MemDisk>("own");
  disk->init(0, initialBlock());
  Recorder rec;
  std::unique_ptr<Replica> r;
  ASSERT_EQ(OpenReplica(optionsFor(disk, &rec), &r), 0);
  disk->setFailure(5);
  UpdateId a(1, 1, 1), b(1, 1, 2);
  EXPECT_EQ(r->submit(putFn(a, "x", "1"), nullptr, nullptr), 819);
  // b queues behind a; a, handed out already, is decided first once the disk is back.
  std::atomic<int> rcB{-1};
  std::thread t([&] { rcB = r->submit(putFn(b, "x", "2"), nullptr, nullptr); });
  disk->setFailure(0);
  t.join();
  EXPECT_EQ(rcB, 0);
  int seq = -1;
  StateRef st;
  ASSERT_EQ(r->submit(putFn(a, "x", "again"), &seq, &st), 0);
  EXPECT_EQ(seq, 2);
  EXPECT_EQ(st->valueList.at("x").value, "2");
  EXPECT_EQ(st->valueList.at("x").version, 2);
}

TEST(Replica, AVoteLeftOnTheStoreIsDecidedOnRestart) {
  // The node crashed after its phase-2 write: the input must not be lost.
  auto disk = std::make_shared<MemDisk>("own");
  Dblock b = initialBlock();
  b.mbal = b.bal = BallotNumber(3, 1);
  b.inp = ProposedUpdate(UpdateId(1, 1, 1), ValueUpdate("x", "voted"), 1);
  disk->init(0, b);
  Recorder rec;
  std::unique_ptr<Replica> r;
  ASSERT_EQ(OpenReplica(optionsFor(disk, &rec), &r), 0);
  int seq = -1;
  StateRef st;
  r->snapshot(&seq, &st);
  EXPECT_EQ(seq, 1);
  EXPECT_EQ(st->valueList.at("x").value, "voted");
  EXPECT_EQ(rec.seqs, std::vector<int>{1});
}

TEST(Replica, DisagreeingBlocksAre148NeverAnAbort) {
  auto own = std::make_shared<MemDisk>("own");
  auto other = std::make_shared<MemDisk>("other");
  auto third = std::make_shared<MemDisk>("third");
  Dblock b;
  b.committed = NodesState(3);
  own->init(0, b);
  Dblock forged = b;
  forged.committed.valueList["y"] = ValueVersion{1, "forged"};
  other->init(1, forged);
  third->init(2, forged);
  Recorder rec;
  ReplicaOptions o = optionsFor(own, &rec);
  o.disks = [&](const CommittedState&) {
    DiskSet s;
    s.nodeStores = {own, other, third};
    return s;
  };
  std::unique_ptr<Replica> r;
  ASSERT_EQ(OpenReplica(o, &r), 0);
  EXPECT_EQ(r->submit(putFn(UpdateId(1, 1, 1), "x", "1"), nullptr, nullptr), 148);
  EXPECT_NE(r->describe().find("fault 148"), std::string::npos) << r->describe();
}

}  // namespace

namespace {

// Three replicas in one process over shared in-memory stores, and optionally
// tiebreakers: what several zeld nodes do over "pxrdwr" and disk files.
struct Cluster {
  std::vector<std::shared_ptr<MemDisk>> stores, tiebreakers;
  std::vector<std::unique_ptr<Recorder>> recs;  // outlive the replicas that call them
  std::vector<std::unique_ptr<Replica>> nodes;

  Cluster(int n, int t) {
    Dblock b;
    b.committed = NodesState(n, t);
    for (int i = 0; i < n; i++) {
      stores.push_back(std::make_shared<MemDisk>("node store " + std::to_string(i + 1)));
      stores.back()->init(i, b);
    }
    for (int j = 0; j < t; j++) {
      tiebreakers.push_back(std::make_shared<MemDisk>("tiebreaker " + std::to_string(j)));
      tiebreakers.back()->init(0, b);
    }
    nodes.resize(n);
    for (int i = 0; i < n; i++) recs.emplace_back(new Recorder);
    for (int i = 0; i < n; i++) EXPECT_EQ(open(i), 0);
  }
  int open(int i) {
    ReplicaOptions o = optionsFor(stores[i], recs[i].get());
    o.nodeId = i + 1;
    o.seed = 11 + i;
    o.requestMs = 2000;
    o.disks = [this](const CommittedState&) {
      DiskSet s;
      s.nodeStores.assign(stores.begin(), stores.end());
      s.tiebreakers.assign(tiebreakers.begin(), tiebreakers.end());
      return s;
    };
    return OpenReplica(o, &nodes[i]);
  }
  // The node is gone: its replica stops and its store stops answering.
  void stop(int i) {
    nodes[i].reset();
    stores[i]->setFailure(111);
  }
};

TEST(ReplicaCluster, ConcurrentWritersThroughEveryNodeLoseNothing) {
  Cluster c(3, 0);
  const int kPerWriter = 15;
  std::vector<std::thread> writers;
  std::atomic<int> failures{0};
  for (int w = 0; w < 6; w++) {
    writers.emplace_back([&, w] {
      Replica* r = c.nodes[w % 3].get();
      for (int k = 1; k <= kPerWriter; k++) {
        // One stream per writer; a conditional increment of a shared counter.
        UpdateId uid(w % 3 + 1, w + 1, k);
        PrepareFn inc = [uid](const CommittedState& st, ProposedUpdate* u) {
          auto it = st.valueList.find("n");
          int old = it == st.valueList.end() ? 0 : it->second.version;
          int v = it == st.valueList.end() ? 0 : std::stoi(it->second.value);
          *u = ProposedUpdate(uid, ValueUpdate("n", std::to_string(v + 1)), old + 1);
          return 0;
        };
        if (r->submit(inc, nullptr, nullptr) != 0) failures++;
      }
    });
  }
  for (auto& t : writers) t.join();
  EXPECT_EQ(failures, 0);
  int seq = 0;
  StateRef st;
  ASSERT_EQ(c.nodes[0]->submit(putFn(UpdateId(1, 99, 1), "done", "1"), &seq, &st), 0);
  EXPECT_EQ(st->valueList.at("n").value, std::to_string(6 * kPerWriter));
  EXPECT_EQ(seq, 6 * kPerWriter + 1);
}

TEST(ReplicaCluster, SurvivesAMinorityAndRefusesWithoutAQuorum) {
  struct Case {
    const char* name;
    int nodes, tiebreakers;
    std::vector<int> down;
    int rc;
  } cases[] = {
      {"3 nodes, one down", 3, 0, {2}, 0},
      {"3 nodes, two down", 3, 0, {1, 2}, 819},
      {"2 nodes and a tiebreaker, first down", 2, 1, {0}, 0},
      {"2 nodes and a tiebreaker, second down", 2, 1, {1}, 0},
  };
  for (const Case& k : cases) {
    Cluster c(k.nodes, k.tiebreakers);
    for (int i : k.down) c.stop(i);
    int live = 0;
    while (std::find(k.down.begin(), k.down.end(), live) != k.down.end()) live++;
    int seq = 0;
    EXPECT_EQ(c.nodes[live]->submit(putFn(UpdateId(live + 1, 1, 1), "x", "1"), &seq, nullptr), k.rc)
        << k.name;
    if (k.rc != 0) continue;
    // A stopped node that comes back catches up from the blocks.
    int back = k.down[0];
    c.stores[back]->setFailure(0);
    ASSERT_EQ(c.open(back), 0) << k.name;
    StateRef st;
    int backSeq = 0;
    for (int tries = 0; tries < 100 && backSeq < seq; tries++) {
      c.nodes[back]->snapshot(&backSeq, &st);
      if (backSeq < seq) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(backSeq, seq) << k.name;
    EXPECT_EQ(st->valueList.at("x").value, "1") << k.name;
  }
}

}  // namespace
