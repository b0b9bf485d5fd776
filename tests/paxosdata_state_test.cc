#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "support/recordcheck.h"
#include "support/samples.h"
#include "zel/paxosdata.h"

namespace {

TEST(CommittedStateTest, GoldenBytesAndTexts) {
  CommittedState s = SampleState();
  ExpectGolden(s,
               "01 01 01 01 01 07 02 03 02 93 08 02 00 01 01 02 03 01 61 00 04 78 00 00 "
               "01 05 06 01 02 03 DE AD BE EF 01");
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
  b[b.find('b')] = 'a';  // a later duplicate is dropped without error
  EXPECT_EQ(LoadPrefix(&s, b, b.size()), static_cast<long>(b.size()));
  EXPECT_EQ(s.valueList.toString(), "{a: (v1,'first')}");
}

TEST(CommittedStateTest, ApplyByTypeAndDuplicateFilter) {
  CommittedState s = SampleState();
  auto apply = [&s](int seq, ProposedUpdate u, int version) {
    u.uid = UpdateId(9, 1, seq);
    u.version = version;
    s.apply(u);
  };
  apply(1, ProposedUpdate(UpdateId(), ValueUpdate("a", "y"), 0), 5);
  apply(1, ProposedUpdate(UpdateId(), ValueUpdate("a", "z"), 0), 6);  // uid already applied
  apply(2, ProposedUpdate(UpdateId(), ValueUpdate("b", "w"), 0), 6);
  apply(3, ProposedUpdate(UpdateId(), ValueDeletion("b")), 7);
  apply(4, ProposedUpdate(UpdateId(), FileUpdate("f", 8, 77, 0xAB), 0), 1);
  apply(5, ProposedUpdate(UpdateId(), FileDeletion("g", 5)), 7);
  apply(6, ProposedUpdate(UpdateId(), LeaderUpdate(4, 900), 0), 3);
  apply(7, ProposedUpdate(UpdateId(), ConfigUpdate()), 4);  // only raises cfgVersion
  ProposedUpdate noop(UpdateId(9, 1, 8));
  noop.listn = {5};  // a no-op with listeners changes them
  s.apply(noop);
  EXPECT_EQ(s.toString(),
            "<config ver 4: <[(N1,S0,V0,L0)] [D7] min=1> leader=4 lease=900 ver=3 horiz=-1 "
            "updates={(n1,e2): 3, (n9,e1): 8} vals={a: (v5,'y')} vdel=6 "
            "files={8: (v1,((n9,e1),4)} fdel=6>");
  // The null uid is applied every time and never recorded; deleting a missing value raises
  // the deleted maximum to 0.
  CommittedState n;
  n.maxDeletedValueVersion = -3;
  for (int v = 1; v <= 2; v++) n.apply(ProposedUpdate(UpdateId(), ValueUpdate("a", "x"), v));
  ProposedUpdate vd(UpdateId(), ValueDeletion("none"));
  vd.version = 1;
  n.apply(vd);
  EXPECT_EQ(n.toString(),
            "<config ver 0: <[] [] min=0> leader=-1 lease=0 ver=0 horiz=-1 updates={} "
            "vals={a: (v2,'x')} vdel=0 files={} fdel=0>");
}

TEST(CommittedStateTest, EvictionMovesHorizon) {
  CommittedState s;
  s.updateHorizon = 1;
  // Streams (n, 1) with seq 100 + n, except node 7 which has the lowest seq 3.
  for (int n = 1; n <= kMaxUpdateStreams; n++) s.addUpdate(UpdateId(n, 1, n == 7 ? 3 : 100 + n));
  auto inc = [&s](int node, int seq) { return s.includes(UpdateId(node, 1, seq)); };
  EXPECT_EQ(std::make_tuple(inc(7, 3), inc(30, 1), inc(30, 2)), std::make_tuple(1, 2, 0));
  s.updateHorizon = 50;
  s.addUpdate(UpdateId(21, 1, 500));
  // The horizon follows the eviction downwards.
  EXPECT_EQ(std::make_tuple(s.updateList.size(), s.updateHorizon, inc(7, 3), inc(7, 4)),
            std::make_tuple(size_t{20}, 3, 2, 0));
  // Tie on the smallest seq: the first in stream order goes.
  CommittedState t;
  for (int n = 1; n <= kMaxUpdateStreams; n++) t.addUpdate(UpdateId(n, 2, 10));
  t.addUpdate(UpdateId(99, 1, 1));
  EXPECT_EQ(t.updateList.count(UpdateStream{1, 2}), 0u);
  EXPECT_EQ(t.getLatestEpoch(99), 1);
}

// A stream missing on the right is checked against the right's horizon.
TEST(CommittedStateTest, ContainmentOrder) {
  auto st = [](int seq, int horizon) {
    CommittedState c;
    if (seq > 0) c.updateList[UpdateStream{1, 1}] = seq;
    c.updateHorizon = horizon;
    return c;
  };
  const struct {
    CommittedState x, y;
    bool le;
  } cases[] = {{st(0, -1), st(5, 2), true}, {st(5, 2), st(6, 2), true},
               {st(6, 2), st(5, 2), false}, {st(0, 5), st(0, -1), false},
               {st(5, 2), st(0, 5), true},  {st(6, 2), st(0, 5), false}};
  for (size_t i = 0; i < 6; i++) EXPECT_EQ(cases[i].x <= cases[i].y, cases[i].le) << i;
}

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
  s.verifyIsPrefixOf(s);
  CommittedState lease = s;
  lease.leaderLeaseMS = 1;
  EXPECT_DEATH(
      s.verifyIsEqual(lease),
      "'leaderLeaseMS == other.leaderLeaseMS' failed\nleaderLeaseMS mismatch: v1=5000 v2=1");
}

}  // namespace
