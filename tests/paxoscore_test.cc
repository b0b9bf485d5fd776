// The core alone, driven step by step over in-memory disks with every message
// delivered: quorum rule, recovery of an earlier life's vote, catch-up, faults.
#include <gtest/gtest.h>

#include <memory>

#include "server/paxoscore.h"
#include "support/memdisk.h"
#include "support/samples.h"

using namespace zeld;

namespace {

TEST(Quorum, Rule) {
  struct Case {
    int nodes, tbs, minNodes;
    std::vector<char> ok;
    bool quorum;
  } cases[] = {
      {1, 0, 1, {1}, true},
      {1, 0, 1, {0}, false},
      {2, 0, 1, {1, 0}, false},  // half is not a majority
      {2, 0, 1, {1, 1}, true},
      {3, 0, 1, {0, 1, 1}, true},
      {3, 0, 1, {0, 0, 1}, false},
      {4, 0, 1, {1, 1, 0, 0}, false},
      {2, 1, 1, {1, 0, 1}, true},         // one node and the tiebreaker
      {2, 1, 1, {1, 1, 0}, false},        // both nodes, tiebreaker missing
      {2, 1, 2, {1, 0, 1}, false},        // minNodes 2
      {3, 2, 1, {1, 0, 0, 1, 0}, false},  // half the tiebreakers
      {3, 3, 1, {0, 0, 1, 1, 1, 0}, true},
      {0, 0, 1, {}, false},
  };
  for (const Case& c : cases) {
    DiskShape s;
    s.nodeStores = c.nodes;
    s.tiebreakers = c.tbs;
    s.minNodes = c.minNodes;
    EXPECT_EQ(IsQuorum(s, c.ok), c.quorum) << c.nodes << "+" << c.tbs << " min " << c.minNodes;
  }
}

// A core over three in-memory node stores, every operation answered at once.
struct Rig {
  std::vector<std::unique_ptr<MemDisk>> disks;
  std::unique_ptr<PaxosCore> core;
  std::vector<AppliedEvent> applied;
  std::vector<Completion> done;
  long long now = 0;
  // Applied to each reply, as a remote store's wire form would change it.
  std::function<void(int disk, std::vector<SlotBlock>*)> strip;

  Rig() {
    for (int i = 0; i < 3; i++) disks.emplace_back(new MemDisk("d" + std::to_string(i)));
  }
  // Every node's store holds the three-node configuration in its own slot.
  Dblock initAll() {
    Dblock base;
    base.committed = NodesState(3);
    for (int d = 0; d < 3; d++) disks[d]->init(d, base);
    return base;
  }
  void write(int d, int writer, int slot, const Dblock& b) {
    std::vector<SlotBlock> out;
    ASSERT_EQ(disks[d]->writeRead(writer, slot, b, &out), 0);
  }
  void start(int nodeId) {
    PaxosCore::Options o;
    o.nodeId = nodeId;
    o.phaseMs = 100;
    o.requestMs = 1000;
    o.shape = [](const CommittedState& st) {
      DiskShape s;
      s.nodeStores = static_cast<int>(st.config.nodes.size());
      return s;
    };
    core.reset(new PaxosCore(o));
    ASSERT_EQ(core->start(disks[nodeId - 1]->slots(), now), 0);
  }
  // Delivers every operation until the core is idle (bounded).
  void settle(int nodeId) {
    for (int step = 0; step < 1000; step++) {
      std::vector<DiskOp> ops = core->takeOps();
      for (AppliedEvent& e : core->takeApplied()) applied.push_back(e);
      for (Completion& c : core->takeCompletions()) done.push_back(c);
      if (ops.empty()) {
        if (core->phase() == PaxosCore::kIdle || core->phase() == PaxosCore::kFaulted) return;
        now = core->nextWake();
        core->tick(now);
        continue;
      }
      for (DiskOp& op : ops) {
        DiskReply r;
        r.tag = op.tag;
        r.disk = op.disk;
        MemDisk* d = disks[op.disk].get();
        r.rc = op.write ? d->writeRead(nodeId, op.slot, op.block, &r.slots) : d->read(&r.slots);
        if (strip) strip(op.disk, &r.slots);
        core->onReply(r, now);
      }
      ASSERT_EQ(core->checkInvariants(), "");
    }
    FAIL() << "no settling: " << core->describe();
  }
  // Three disks holding a fresh three-node state, nodeId's core idle on them.
  Dblock idle(int nodeId) {
    Dblock base;
    base.committed = NodesState(3);
    for (auto& d : disks) d->init(0, base);
    start(nodeId);
    settle(nodeId);
    return base;
  }
  // Settles and lets time pass until a completion comes out (bounded).
  void awaitDone(int nodeId) {
    for (int i = 0; i < 1000 && done.empty(); i++) {
      settle(nodeId);
      now = core->nextWake();
      core->tick(now);
    }
    settle(nodeId);
  }
};

TEST(PaxosCore, AVoteOfAnEarlierLifeIsNeverErasedAndGetsDecided) {
  // Node 1 voted for v at (5.1) on disks 1 and 2 (a quorum: v may be chosen and
  // acknowledged) but its own store missed that write.
  Rig rig;
  Dblock base;
  base.committed = NodesState(3);
  Dblock own = base;
  own.mbal = BallotNumber(5, 1);
  Dblock vote = own;
  vote.bal = BallotNumber(5, 1);
  vote.inp = ProposedUpdate(UpdateId(1, 1, 1), ValueUpdate("x", "v"), 1);
  rig.disks[0]->init(0, own);
  for (int d = 1; d < 3; d++) {
    rig.disks[d]->init(0, vote);
    Dblock theirs = base;
    theirs.mbal = BallotNumber(1, d + 1);
    rig.write(d, d + 1, d, theirs);
  }
  rig.start(1);
  rig.settle(1);
  ASSERT_EQ(rig.applied.size(), 1u);
  EXPECT_EQ(rig.applied[0].seq, 1);
  EXPECT_EQ(rig.applied[0].state->valueList.at("x").value, "v");
}

TEST(PaxosCore, CatchesUpFromAHigherBlockAndAnswersItsUpdateFromIt) {
  Rig rig;
  // Node 2 is five instances ahead, and its state includes node 1's update.
  Dblock ahead = rig.initAll();
  ahead.seq = 5;
  ahead.committed.apply(ProposedUpdate(UpdateId(1, 1, 1), ValueUpdate("x", "1"), 1));
  for (int d = 1; d < 3; d++) rig.write(d, 2, 1, ahead);
  rig.start(1);
  int calls = 0;
  rig.core->submit(
      [&](const CommittedState& st, ProposedUpdate* u) {
        calls++;
        *u = ProposedUpdate(UpdateId(1, 1, 1), ValueUpdate("x", "1"), st.valueList.size() + 1);
        return 0;
      },
      rig.now);
  rig.settle(1);
  ASSERT_FALSE(rig.applied.empty());
  EXPECT_TRUE(rig.applied[0].caughtUp);
  EXPECT_EQ(rig.applied[0].seq, 5);
  ASSERT_EQ(rig.done.size(), 1u);
  EXPECT_EQ(rig.done[0].rc, 0);
  EXPECT_EQ(rig.done[0].seq, 5);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(rig.core->appliedSeq(), 5);
}

// Heads as a remote store sends them: every block below the newest it holds.
void headsBelowNewest(int disk, std::vector<SlotBlock>* slots) {
  if (disk == 0) return;  // the node's own store is read whole
  int top = -1;
  for (const SlotBlock& s : *slots)
    if (s.present) top = std::max(top, s.block.seq);
  for (SlotBlock& s : *slots) s.headOnly = s.present && s.block.seq < top;
}

TEST(PaxosCore, AHeadAtItsSeqCountsOnlyBesideANewerBlock) {
  {
    // Nothing newer on the other stores, yet heads at this seq: no answer, no fault.
    Rig rig;
    rig.initAll();
    rig.start(1);
    for (const DiskOp& op : rig.core->takeOps()) {
      DiskReply r;
      r.tag = op.tag;
      r.disk = op.disk;
      rig.disks[op.disk]->read(&r.slots);
      if (op.disk != 0)
        for (SlotBlock& s : r.slots) s.headOnly = s.present;
      rig.core->onReply(r, rig.now);
    }
    EXPECT_EQ(rig.core->phase(), PaxosCore::kStarting);
    EXPECT_EQ(rig.core->fault(), 0) << rig.core->describe();
  }
  // A node's block of this seq as a head beside a newer block: the node catches up.
  Rig rig;
  Dblock base = rig.initAll();
  Dblock ahead = base;
  ahead.seq = 4;
  ahead.committed.apply(ProposedUpdate(UpdateId(2, 1, 1), ValueUpdate("x", "1"), 1));
  for (int d = 1; d < 3; d++) {
    rig.write(d, 2, 1, ahead);
    rig.write(d, 3, 2, base);
  }
  rig.strip = headsBelowNewest;
  rig.start(1);
  rig.settle(1);
  ASSERT_FALSE(rig.applied.empty());
  EXPECT_TRUE(rig.applied[0].caughtUp);
  EXPECT_EQ(rig.core->appliedSeq(), 4);
  EXPECT_EQ(rig.core->fault(), 0);
}

TEST(PaxosCore, FaultsAre148AndNeverStopTheProgram) {
  struct Case {
    const char* name;
    void (*setup)(Rig& rig, const Dblock& base);
    const char* why;
  } cases[] = {
      {"two higher blocks of one seq with different states",
       [](Rig& rig, const Dblock& base) {
         // Seen together on one disk before the node takes either.
         for (int d = 1; d < 3; d++) {
           Dblock b = base;
           b.seq = 3;
           b.committed.valueList["x"] = ValueVersion{d, "differs"};
           for (int disk = 1; disk < 3; disk++) rig.write(disk, d + 1, d, b);
         }
       },
       "two blocks of one seq hold different states"},
      {"a decided input that breaks the version rule",
       [](Rig& rig, const Dblock& base) {
         Dblock b = base;
         b.mbal = b.bal = BallotNumber(2, 2);
         b.inp = ProposedUpdate(UpdateId(2, 1, 1), ValueUpdate("x", "bad"), 0);
         for (int d = 0; d < 3; d++) rig.write(d, 2, 1, b);
       },
       "version"},
      {"a decided input of an unknown type",
       [](Rig& rig, const Dblock& base) {
         Dblock b = base;
         b.mbal = b.bal = BallotNumber(2, 2);
         b.inp.uid = UpdateId(2, 1, 1);
         b.inp.type = static_cast<ProposedUpdate::UpdateType>(200);
         for (int d = 0; d < 3; d++) rig.write(d, 2, 1, b);
       },
       "type"},
  };
  for (const Case& c : cases) {
    Rig rig;
    c.setup(rig, rig.initAll());
    rig.start(1);
    rig.core->submit(
        [](const CommittedState&, ProposedUpdate* u) {
          *u = ProposedUpdate(UpdateId(1, 1, 1), ValueUpdate("y", "1"), 1);
          return 0;
        },
        rig.now);
    rig.settle(1);
    EXPECT_EQ(rig.core->fault(), 148) << c.name;
    ASSERT_EQ(rig.done.size(), 1u) << c.name;
    EXPECT_EQ(rig.done[0].rc, 148) << c.name;
    EXPECT_NE(rig.core->describe().find("fault 148"), std::string::npos) << c.name;
    EXPECT_NE(rig.core->describe().find(c.why), std::string::npos) << rig.core->describe();
  }
}

TEST(PaxosCore, RepliesOfALeftAttemptAreIgnored) {
  Rig rig;
  rig.initAll();
  rig.start(1);
  std::vector<DiskOp> first = rig.core->takeOps();
  ASSERT_EQ(first.size(), 3u);
  rig.now = rig.core->nextWake();
  rig.core->tick(rig.now);  // the start read timed out: a new attempt
  std::vector<DiskOp> second = rig.core->takeOps();
  ASSERT_EQ(second.size(), 3u);
  for (const DiskOp& op : first) {
    DiskReply r;
    r.tag = op.tag;
    r.disk = op.disk;
    rig.disks[op.disk]->read(&r.slots);
    rig.core->onReply(r, rig.now);
  }
  EXPECT_EQ(rig.core->phase(), PaxosCore::kStarting);
  EXPECT_FALSE(rig.core->settled());
}

}  // namespace

TEST(PaxosCore, ReadBarrierWaitsForAnInputThatMayBeDecided) {
  // Node 1 voted x=v on a quorum of disks (decided and acknowledged) and stopped
  // before announcing it. Node 2, idle at that seq, must not answer a read
  // barrier from the state without x; with no such vote it answers at once.
  for (bool voted : {false, true}) {
    Rig rig;
    Dblock base = rig.idle(2);
    UpdateId uid(1, 1, 1);
    if (voted) {
      Dblock vote = base;
      vote.mbal = vote.bal = BallotNumber(3, 1);
      vote.inp = ProposedUpdate(uid, ValueUpdate("x", "v"), 1);
      std::vector<SlotBlock> out;
      for (int d = 0; d < 2; d++) ASSERT_EQ(rig.disks[d]->writeRead(1, 0, vote, &out), 0);
    }
    uint64_t id = rig.core->barrier(rig.now);
    rig.awaitDone(2);
    ASSERT_EQ(rig.done.size(), 1u) << rig.core->describe();
    EXPECT_EQ(rig.done[0].id, id);
    EXPECT_EQ(rig.done[0].rc, 0);
    EXPECT_EQ(rig.done[0].state->includes(uid) != 0, voted);
  }
}

TEST(PaxosCore, ReadBarrierWithoutAQuorumEndsWith819) {
  Rig rig;
  rig.idle(2);
  rig.disks[0]->setFailure(5);
  rig.disks[2]->setFailure(5);
  rig.core->barrier(rig.now);
  rig.awaitDone(2);
  ASSERT_EQ(rig.done.size(), 1u);
  EXPECT_EQ(rig.done[0].rc, 819);
}
