// The threaded engine over real block stores and in-memory disks: what the
// request service relies on (durability, exactly-once, refusals, 819 in time).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "server/blockstore.h"
#include "server/replica.h"
#include "support/memdisk.h"
#include "support/testutil.h"

using namespace zeld;

namespace {

CommittedState oneNodeState() {
  CommittedState st;
  st.config.nodes.push_back(NodeDescriptor{1, 0, 0, true});
  st.config.minNodes = 1;
  return st;
}

Dblock initialBlock() {
  Dblock b;
  b.committed = oneNodeState();
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
    CommittedState st;
    ASSERT_EQ(r->submit(putFn(a, "x", "1"), &seq, &st), 0);
    EXPECT_EQ(seq, 1);
    EXPECT_EQ(st.valueList["x"].version, 1);
    ASSERT_EQ(r->submit(putFn(b, "x", "2"), &seq, &st), 0);
    EXPECT_EQ(seq, 2);
    EXPECT_EQ(st.valueList["x"].value, "2");
    // The applied callback ran for each instance, in order, before the reply.
    EXPECT_EQ(rec.seqs, (std::vector<int>{1, 2}));
    // The same uid again: answered from the state, nothing decided.
    ASSERT_EQ(r->submit(putFn(a, "x", "other"), &seq, &st), 0);
    EXPECT_EQ(seq, 2);
    EXPECT_EQ(st.valueList["x"].value, "2");
    EXPECT_NE(r->describe().find("seq 2"), std::string::npos) << r->describe();
  }
  // Restart: everything acknowledged is there.
  std::shared_ptr<BlockStore> store;
  ASSERT_EQ(BlockStore::Open(path, &store), 0);
  std::unique_ptr<Replica> r;
  ASSERT_EQ(OpenReplica(optionsFor(store, &rec), &r), 0);
  int seq = -1;
  CommittedState st;
  r->snapshot(&seq, &st);
  EXPECT_EQ(seq, 2);
  EXPECT_EQ(st.valueList["x"].value, "2");
  EXPECT_EQ(st.includes(b), 1);
}

TEST(Replica, RefusalsEndTheRequestAndDecideNothing) {
  auto disk = std::make_shared<MemDisk>("own");
  disk->init(0, initialBlock());
  Recorder rec;
  std::unique_ptr<Replica> r;
  ASSERT_EQ(OpenReplica(optionsFor(disk, &rec), &r), 0);
  struct Case {
    const char* name;
    PrepareFn fn;
    int rc;
  } cases[] = {
      {"prepare refuses",
       [](const CommittedState&, ProposedUpdate* u) {
         u->uid = UpdateId(1, 1, 1);
         return 805;
       },
       805},
      {"version not above the current one",
       [](const CommittedState&, ProposedUpdate* u) {
         *u = ProposedUpdate(UpdateId(1, 1, 2), ValueUpdate("x", "v"), 0);
         return 0;
       },
       22},
      {"unknown type",
       [](const CommittedState&, ProposedUpdate* u) {
         u->uid = UpdateId(1, 1, 3);
         u->type = static_cast<ProposedUpdate::UpdateType>(9);
         u->version = 5;
         return 0;
       },
       22},
      {"type without payload",
       [](const CommittedState&, ProposedUpdate* u) {
         u->uid = UpdateId(1, 1, 4);
         u->type = ProposedUpdate::valueUpdate;
         u->version = 5;
         return 0;
       },
       22},
      {"negative uid",
       [](const CommittedState&, ProposedUpdate* u) {
         *u = ProposedUpdate(UpdateId(-1, 1, 5), ValueUpdate("x", "v"), 1);
         return 0;
       },
       22},
      {"name with a zero byte",
       [](const CommittedState&, ProposedUpdate* u) {
         *u = ProposedUpdate(UpdateId(1, 1, 6), ValueUpdate(std::string("a\0b", 3), "v"), 1);
         return 0;
       },
       22},
      {"state too large for a block",
       [](const CommittedState&, ProposedUpdate* u) {
         *u = ProposedUpdate(UpdateId(1, 1, 7), ValueUpdate("x", std::string(kMaxBlockBytes, 'v')),
                             1);
         return 0;
       },
       34},
  };
  for (const Case& c : cases) {
    int seq = -1;
    EXPECT_EQ(r->submit(c.fn, &seq, nullptr), c.rc) << c.name;
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
  CommittedState st;
  ASSERT_EQ(r->submit(putFn(a, "x", "again"), &seq, &st), 0);
  EXPECT_EQ(seq, 2);
  EXPECT_EQ(st.valueList["x"].value, "2");
  EXPECT_EQ(st.valueList["x"].version, 2);
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
  CommittedState st;
  r->snapshot(&seq, &st);
  EXPECT_EQ(seq, 1);
  EXPECT_EQ(st.valueList["x"].value, "voted");
  EXPECT_EQ(rec.seqs, std::vector<int>{1});
}

TEST(Replica, DisagreeingBlocksAre148NeverAnAbort) {
  auto own = std::make_shared<MemDisk>("own");
  auto other = std::make_shared<MemDisk>("other");
  auto third = std::make_shared<MemDisk>("third");
  CommittedState st = oneNodeState();
  st.config.nodes.push_back(NodeDescriptor{2, 1, 0, true});
  st.config.nodes.push_back(NodeDescriptor{3, 2, 0, true});
  Dblock b;
  b.committed = st;
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
