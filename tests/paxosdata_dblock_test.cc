#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "support/recordcheck.h"
#include "zel/paxosdata.h"

namespace {

const char kFresh[] = "00 00 01 00 00 00 00 00 00 00 00 00 00";

// A Dblock or a PaxosDblockSummary, both having these fields.
template <typename T = Dblock>
T Block(int seq, BallotNumber mbal, BallotNumber bal, bool withInp, int chall) {
  T b;
  b.seq = seq;
  b.mbal = mbal;
  b.bal = bal;
  if (withInp) b.inp = ProposedUpdate(UpdateId(1, 1, 1));
  b.leaderChallengeVersion = chall;
  return b;
}

TEST(DblockTest, GoldenBytesAndText) {
  Dblock b = Block(4, {2, 1}, {1, 0}, true, 0);
  ExpectGolden(b, std::string("04 02 01 01 00 01 01 01 01 01 00 00 00 ") + kFresh);
  EXPECT_EQ(b.toString(),
            "<seq=4 mbal=(2.1) bal=(1.0) inp=((n1,e1),1):noop:-1:no-op-update chall=0 "
            "committed=" +
                CommittedState().toString());

  ExpectGolden(Block(4, {2, 1}, {1, 0}, false, 3), std::string("04 02 01 01 00 00 03 ") + kFresh);
}

TEST(DblockTest, MoreRecentThanOrdersFieldByField) {
  Dblock base = Block(5, {3, 3}, {3, 3}, false, 3);
  Dblock diffs[] = {Block(6, {0, 0}, {0, 0}, false, 0), Block(5, {4, 0}, {0, 0}, false, 0),
                    Block(5, {3, 4}, {0, 0}, false, 0), Block(5, {3, 3}, {4, 0}, false, 0),
                    Block(5, {3, 3}, {3, 4}, false, 0), Block(5, {3, 3}, {3, 3}, false, 4)};
  for (const auto& d : diffs)
    EXPECT_TRUE(d.moreRecentThan(base) && !base.moreRecentThan(d)) << d.toString();
}

TEST(DblockTest, ResetReplaceApply) {
  auto s = Block<PaxosDblockSummary>(8, {7, 3}, {6, 2}, true, 5);
  s.committed.leaderVersion = 4;
  Dblock b = Block(1, {9, 9}, {9, 9}, false, 2), want = Block(8, {7, 0}, {6, 2}, true, 5);
  want.committed = s.committed;
  b.replace(s);  // mbal keeps only its number
  EXPECT_EQ(b.toString(), want.toString());
  want.mbal = want.bal = BallotNumber();
  want.inp.reset();
  b.reset(s);  // leaderVersion 4 does not exceed the challenge 5: kept; 6 clears it
  EXPECT_EQ(b.toString(), want.toString());
  s.committed.leaderVersion = 6;
  b.reset(s);
  EXPECT_EQ(b.leaderChallengeVersion, 0);
  b = Block(4, {3, 1}, {2, 1}, false, 0);
  b.inp = ProposedUpdate(UpdateId(1, 1, 1), ValueUpdate("k", "v"), 1);
  b.applyInp();
  EXPECT_EQ(std::make_tuple(b.seq, b.mbal, b.bal, b.inp.type, b.committed.valueList["k"].value),
            std::make_tuple(5, BallotNumber(), BallotNumber(), ProposedUpdate::noUpdate, "v"));
}

// The summary starts at seq 5, mbal (4.0), bal (3.0) with an input, chall 2.
TEST(PaxosDblockSummaryTest, AddRules) {
  const struct {
    const char* what;
    Dblock b;
    Dblock want;  // the summary's fields after add; inp present or not
  } cases[] = {
      {"up, no inp", Block(6, {1, 0}, {9, 0}, false, 1), Block(6, {1, 0}, {0, 0}, false, 2)},
      {"up, with inp", Block(6, {1, 0}, {1, 1}, true, 7), Block(6, {1, 0}, {1, 1}, true, 7)},
      {"same, lower mbal", Block(5, {1, 0}, {1, 0}, true, 9), Block(5, {4, 0}, {3, 0}, true, 9)},
      {"same, higher", Block(5, {5, 0}, {4, 0}, true, 0), Block(5, {5, 0}, {4, 0}, true, 2)},
      {"same, no inp", Block(5, {1, 0}, {8, 0}, false, 0), Block(5, {4, 0}, {3, 0}, true, 2)},
      {"lower seq", Block(4, {9, 0}, {9, 0}, true, 3), Block(5, {4, 0}, {3, 0}, true, 3)},
  };
  for (const auto& c : cases) {
    auto s = Block<PaxosDblockSummary>(5, {4, 0}, {3, 0}, true, 2);
    s.add(c.b, 1);
    Dblock got = Block(s.seq, s.mbal, s.bal, s.inp.type != ProposedUpdate::noUpdate,
                       s.leaderChallengeVersion);
    EXPECT_EQ(got.toString(), c.want.toString()) << c.what;
  }
}

TEST(PaxosDblockSummaryTest, MergeTakesBalRegardlessOfInput) {
  auto a = Block<PaxosDblockSummary>(5, {0, 0}, {1, 0}, true, 0);
  auto b = Block<PaxosDblockSummary>(5, {0, 0}, {2, 0}, false, 4);  // no input, higher bal
  a.merge(b);
  EXPECT_EQ(a.toString(), b.toString());
}

TEST(PaxosDblockSummaryTest, CommitMismatchAsserts) {
  auto s = Block<PaxosDblockSummary>(3, {0, 0}, {0, 0}, false, 0);
  Dblock b = Block(3, {0, 0}, {0, 0}, false, 0);
  b.committed.cfgVersion = 1;
  EXPECT_DEATH(s.add(b, 7),
               "assertion 'committed == b.committed' failed\ncommit mismatch disk 7\n"
               "c1=<config ver 1: .*\nc2=<config ver 0: ");
  PaxosDblockSummary t = s;
  t.committed.cfgVersion = 1;
  EXPECT_DEATH(s.merge(t), "'committed == s.committed' failed\nc1=<config ver 0");
}

TEST(PaxosFileDataTest, FormatVersions) {
  PaxosFileData f;
  f.epoch = 2;
  f.slotAssignmentVersion = 3;
  f.summary.seq = 1;
  std::string sum = std::string(" 00 00 00 00 00 00 00 00 00 00 00 ") + kFresh;
  EXPECT_EQ(f.summary.toString(),
            "<seq=1 mbal=(0.0) bal=(0.0) inp=((n0,e0),0):(none):-1:None chal=0 committed=" +
                CommittedState().toString() + ">");
  EXPECT_EQ(f.toString(), "epoch=2 saVer=3 summary=" + f.summary.toString());
  EXPECT_EQ(f.toShortString(), "<epoch=2 seq=1");
  for (int fmt : {0, 1}) {
    std::string b(static_cast<size_t>(f.getSize(fmt)), '\0');
    ASSERT_EQ(f.dump(&b[0], fmt), &b[0] + b.size());
    EXPECT_EQ(Hex(b), (fmt == 0 ? "02 01" : "02 03 01") + sum);
    PaxosFileData back;
    back.slotAssignmentVersion = 77;  // format 0 has none
    EXPECT_EQ(LoadPrefix(&back, b, b.size(),
                         [fmt](PaxosFileData* d, const char* p, const char* e) {
                           return d->load(p, e, fmt);
                         }),
              static_cast<long>(b.size()));
    EXPECT_EQ(std::make_pair(back.slotAssignmentVersion, back.summary.toString()),
              std::make_pair(fmt == 0 ? 77 : 3, f.summary.toString()));
  }
}

}  // namespace
