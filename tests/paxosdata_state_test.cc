#include <gtest/gtest.h>

#include <string>

#include "support/recordcheck.h"
#include "support/samples.h"
#include "zel/paxosdata.h"

namespace {

TEST(CommittedStateTest, GoldenBytesAndTexts) {
  CommittedState fresh;
  EXPECT_EQ(Hex(Encode(fresh)), "00 00 01 00 00 00 00 00 00 00 00 00 00");
  CommittedState s = SampleState();
  std::string b = Encode(s);
  EXPECT_EQ(Hex(b),
            "01 01 01 01 01 07 02 03 02 93 08 02 00 01 01 02 03 01 61 00 04 78 00 00 "
            "01 05 06 01 02 03 DE AD BE EF 01");
  CommittedState back;
  ASSERT_EQ(LoadPrefix(&back, b, b.size()), static_cast<long>(b.size()));
  EXPECT_EQ(back, s);
  EXPECT_EQ(Encode(back), b);
  ExpectTruncationsFail<CommittedState>(b);
  EXPECT_EQ(s.toString(),
            "<config ver 3: <[(N1,S0,V0,L1)] [D7] min=1> leader=1 lease=5000 ver=2 horiz=-1 "
            "updates={(n1,e2): 3} vals={a: (v4,'x')} vdel=0 files={5: (v6,((n1,e2),3)} fdel=1>");
  EXPECT_EQ(s.toShortString(),
            "<configVer 3 nNodes 1 nDisks 1 minNodes 1> <leader 1 lease 5000 ver 2> "
            "<horiz -1 nUpdates 1> nVals 1 vdelVer 0 nFiles 1 fdelVer 1>");
}

TEST(CommittedStateTest, LoadKeepsFirstDuplicate) {
  CommittedState s;
  s.valueList["a"] = ValueVersion{1, "first"};
  s.valueList["b"] = ValueVersion{2, "second"};
  std::string b = Encode(s);
  // Rename "b" to "a": a later duplicate is dropped without error.
  size_t at = b.find("b", 0);
  b[at] = 'a';
  CommittedState back;
  EXPECT_EQ(LoadPrefix(&back, b, b.size()), static_cast<long>(b.size()));
  ASSERT_EQ(back.valueList.size(), 1u);
  EXPECT_EQ(back.valueList["a"].value, "first");
}

TEST(CommittedStateTest, ApplyByType) {
  CommittedState s = SampleState();
  const UpdateId u(9, 1, 1);
  s.apply(ProposedUpdate(u, ValueUpdate("a", "y"), 5));
  EXPECT_EQ(s.valueList["a"], (ValueVersion{5, "y"}));
  ProposedUpdate vdel(UpdateId(9, 1, 2), ValueDeletion("a"));
  vdel.version = 6;
  s.apply(vdel);
  EXPECT_EQ(s.valueList.count("a"), 0u);
  EXPECT_EQ(s.maxDeletedValueVersion, 5);
  s.apply(ProposedUpdate(UpdateId(9, 1, 3), FileUpdate("f", 8, 77, 0xAB), 1));
  EXPECT_EQ(s.fileList[8], FileVersion(1, UpdateId(9, 1, 3), 0xAB));
  ProposedUpdate fd(UpdateId(9, 1, 4), FileDeletion("g", 5));
  fd.version = 7;
  s.apply(fd);
  EXPECT_EQ(s.fileList.count(5), 0u);
  EXPECT_EQ(s.maxDeletedFileVersion, 6);
  s.apply(ProposedUpdate(UpdateId(9, 1, 5), LeaderUpdate(4, 900), 3));
  EXPECT_EQ(s.leaderId, 4);
  EXPECT_EQ(s.leaderLeaseMS, 900);
  EXPECT_EQ(s.leaderVersion, 3);
  // Config update with no flags and minNodes -1 only raises cfgVersion.
  PaxosConfig before = s.config;
  ProposedUpdate cu(UpdateId(9, 1, 6), ConfigUpdate());
  cu.version = 4;
  s.apply(cu);
  EXPECT_EQ(s.config, before);
  EXPECT_EQ(s.cfgVersion, 4);
  // A no-op with listeners changes them.
  ProposedUpdate noop(UpdateId(9, 1, 7));
  noop.listn = {5};
  s.apply(noop);
  EXPECT_FALSE(s.config.nodes[0].listen);
  EXPECT_EQ(s.updateList[(UpdateStream{9, 1})], 7);
  // Deleting a missing value still needs a version above 0 and raises the max to 0.
  CommittedState t;
  t.maxDeletedValueVersion = -3;
  ProposedUpdate vd(UpdateId(), ValueDeletion("none"));
  vd.version = 1;
  t.apply(vd);
  EXPECT_EQ(t.maxDeletedValueVersion, 0);
}

TEST(CommittedStateTest, DuplicateFilterAndNullUid) {
  CommittedState s;
  ProposedUpdate u(UpdateId(1, 1, 1), ValueUpdate("a", "1"), 1);
  s.apply(u);
  CommittedState once = s;
  u.version = 2;  // would be valid, but the uid was applied
  s.apply(u);
  EXPECT_EQ(s, once);

  // The null uid is applied every time and never recorded.
  CommittedState n;
  for (int v = 1; v <= 3; v++) n.apply(ProposedUpdate(UpdateId(), ValueUpdate("a", "x"), v));
  EXPECT_EQ(n.valueList["a"].version, 3);
  EXPECT_TRUE(n.updateList.empty());
}

TEST(CommittedStateTest, EvictionMovesHorizon) {
  CommittedState s;
  s.updateHorizon = 1;
  // Streams (n, 1) with seq 100 + n, except node 7 which has the lowest seq 3.
  for (int n = 1; n <= kMaxUpdateStreams; n++) s.addUpdate(UpdateId(n, 1, n == 7 ? 3 : 100 + n));
  EXPECT_EQ(s.updateList.size(), 20u);
  EXPECT_EQ(s.includes(UpdateId(7, 1, 3)), 1);
  EXPECT_EQ(s.includes(UpdateId(7, 1, 4)), 0);
  EXPECT_EQ(s.includes(UpdateId(30, 1, 1)), 2);
  EXPECT_EQ(s.includes(UpdateId(30, 1, 2)), 0);
  s.updateHorizon = 50;
  s.addUpdate(UpdateId(21, 1, 500));
  EXPECT_EQ(s.updateList.size(), 20u);
  EXPECT_EQ(s.updateList.count(UpdateStream{7, 1}), 0u);
  EXPECT_EQ(s.updateHorizon, 3);  // follows the eviction downwards
  EXPECT_EQ(s.includes(UpdateId(7, 1, 3)), 2);
  EXPECT_EQ(s.includes(UpdateId(7, 1, 4)), 0);
  // Tie on the smallest seq: the first in stream order goes.
  CommittedState t;
  for (int n = 1; n <= kMaxUpdateStreams; n++) t.addUpdate(UpdateId(n, 2, 10));
  t.addUpdate(UpdateId(99, 1, 1));
  EXPECT_EQ(t.updateList.count(UpdateStream{1, 2}), 0u);
  EXPECT_EQ(t.updateList.count(UpdateStream{2, 2}), 1u);
  EXPECT_EQ(t.updateHorizon, 10);
}

TEST(CommittedStateTest, LatestEpochAndOldVersion) {
  CommittedState s = SampleState();
  s.updateList[UpdateStream{1, 9}] = 1;
  s.updateList[UpdateStream{2, 4}] = 1;
  EXPECT_EQ(s.getLatestEpoch(1), 9);
  EXPECT_EQ(s.getLatestEpoch(2), 4);
  EXPECT_EQ(s.getLatestEpoch(3), 0);
  const UpdateId u(1, 1, 1);
  EXPECT_EQ(s.getOldVersion(ProposedUpdate(u)), -1);
  EXPECT_EQ(s.getOldVersion(ProposedUpdate(u, ValueDeletion("a"))), 4);
  EXPECT_EQ(s.getOldVersion(ProposedUpdate(u, FileDeletion("", 5))), 6);
  EXPECT_EQ(s.getOldVersion(ProposedUpdate(u, ConfigUpdate())), 3);
  EXPECT_EQ(s.getOldVersion(ProposedUpdate()), 0);
}

TEST(CommittedStateTest, ContainmentOrder) {
  CommittedState fresh, a, b;
  a.updateList[UpdateStream{1, 1}] = 5;
  a.updateHorizon = 2;
  b.updateList[UpdateStream{1, 1}] = 6;
  b.updateHorizon = 2;
  CommittedState h5;
  h5.updateHorizon = 5;
  CommittedState c;  // stream not listed in c: checked against c's horizon
  c.updateHorizon = 5;
  struct Case {
    const char* what;
    const CommittedState& x;
    const CommittedState& y;
    bool le;
  } cases[] = {
      {"fresh <= a", fresh, a, true},   {"a <= b", a, b, true},
      {"b <= a", b, a, false},          {"h5 <= fresh", h5, fresh, false},
      {"a <= c (horizon)", a, c, true}, {"b <= c (horizon)", b, c, false},
  };
  for (const auto& k : cases) EXPECT_EQ(k.x <= k.y, k.le) << k.what;
}

using CommittedStateDeathTest = testing::Test;

TEST(CommittedStateDeathTest, Assertions) {
  CommittedState s = SampleState();
  EXPECT_DEATH(s.apply(ProposedUpdate(UpdateId(5, 1, 1), ValueUpdate("a", "y"), 4)),
               "zel/paxosdata:[0-9]+: assertion 'newVersion > oldVersion' failed\n"
               "bad update version: old 4 new 4");
  ProposedUpdate odd(UpdateId(5, 1, 1));
  odd.type = static_cast<ProposedUpdate::UpdateType>(9);
  odd.version = 1;
  EXPECT_DEATH(s.apply(odd), "Unknown update type 9");
  EXPECT_DEATH(
      s.addUpdate(UpdateId(1, 2, 3)),
      "assertion '!includes\\(uid\\)' failed\naddUpdate: duplicate uid \\(\\(n1,e2\\),3\\)");
  CommittedState h5;
  h5.updateHorizon = 5;
  EXPECT_DEATH(h5.verifyIsPrefixOf(CommittedState()),
               "update mismatch: h1=5 h2=-1\nu1: \\{\\}\nu2: \\{\\}");
  CommittedState newer = s;
  newer.valueList["a"].version = 10;
  EXPECT_DEATH(newer.verifyIsPrefixOf(s), "iter->second.version <= otherIter->second.version");
  s.verifyIsPrefixOf(s);
  s.verifyIsEqual(SampleState());
  CommittedState lease = s;
  lease.leaderLeaseMS = 1;
  EXPECT_DEATH(
      s.verifyIsEqual(lease),
      "'leaderLeaseMS == other.leaderLeaseMS' failed\nleaderLeaseMS mismatch: v1=5000 v2=1");
  CommittedState files = s;
  files.fileList.clear();
  EXPECT_DEATH(s.verifyIsEqual(files), "fileList mismatch:\nv1: \\{5: \\(v6,.*\nv2: \\{\\}");
}

}  // namespace
