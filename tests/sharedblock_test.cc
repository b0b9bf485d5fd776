#include "zel/sharedblock.h"

#include <gtest/gtest.h>

#include "support/recordcheck.h"
#include "support/samples.h"

namespace {

Dblock sampleBlock() {
  Dblock d;
  d.seq = 7;
  d.committed = SampleState();
  d.mbal = BallotNumber(3, 1);
  d.bal = BallotNumber(2, 1);
  d.inp = ProposedUpdate(UpdateId(1, 2, 9), ValueUpdate("a", "y"), 5);
  d.leaderChallengeVersion = 1;
  return d;
}

// A state no other test of this binary holds, so it is not among the recent ones.
CommittedState uniqueState(const std::string& tag) {
  CommittedState s = SampleState();
  s.valueList["tag"] = ValueVersion{1, tag};
  return s;
}

std::string encodeState(const CommittedState& s) {
  std::string b(static_cast<size_t>(s.getSize()), '\0');
  s.dump(&b[0]);
  return b;
}

TEST(SharedBlock, SameBytesAsTheDblockBothWays) {
  Dblock d = sampleBlock();
  std::string bytes = Encode(d);
  EXPECT_EQ(Encode(SharedBlock(d)), bytes);
  SharedBlock back;
  ASSERT_EQ(LoadPrefix(&back, bytes, bytes.size()), static_cast<long>(bytes.size()));
  EXPECT_TRUE(back.toDblock() == d);
  ExpectTruncationsFail<SharedBlock>(bytes);
}

TEST(SharedBlock, EqualBytesDecodeToOneStateAndOthersDoNot) {
  std::string a = encodeState(uniqueState("equal-a"));
  std::string b = encodeState(uniqueState("equal-b"));
  StateRef x, y, z;
  ASSERT_EQ(LoadSharedState(a.data(), a.data() + a.size(), &x), a.data() + a.size());
  ASSERT_EQ(LoadSharedState(b.data(), b.data() + b.size(), &y), b.data() + b.size());
  ASSERT_EQ(LoadSharedState(a.data(), a.data() + a.size(), &z), a.data() + a.size());
  EXPECT_EQ(x, z);  // shared, not decoded again
  EXPECT_NE(x, y);
  EXPECT_FALSE(SameState(x, y));
  EXPECT_TRUE(*x == uniqueState("equal-a"));
}

TEST(SharedBlock, AKnownStateDoesNotLetATruncatedOrLongerEncodingThrough) {
  std::string a = encodeState(uniqueState("known"));
  StateRef known;
  ASSERT_NE(LoadSharedState(a.data(), a.data() + a.size(), &known), nullptr);
  // Shorter than the known encoding: must fail as a plain decode would.
  for (size_t n = 0; n < a.size(); n++) {
    std::string cut = a.substr(0, n);
    StateRef s;
    EXPECT_EQ(LoadSharedState(cut.data(), cut.data() + cut.size(), &s), nullptr) << n;
  }
  // Trailing bytes are left for the caller.
  std::string more = a + "xyz";
  StateRef s;
  EXPECT_EQ(LoadSharedState(more.data(), more.data() + more.size(), &s), more.data() + a.size());
  EXPECT_EQ(s, known);
}

TEST(SharedBlock, ManyStatesStillDecodeRightAfterTheOldestAreForgotten) {
  std::vector<std::string> enc;
  std::vector<StateRef> refs;
  for (int i = 0; i < 12; i++) {
    enc.push_back(encodeState(uniqueState("many-" + std::to_string(i))));
    StateRef r;
    ASSERT_NE(LoadSharedState(enc[i].data(), enc[i].data() + enc[i].size(), &r), nullptr);
    refs.push_back(r);
  }
  for (int i = 0; i < 12; i++) {
    StateRef r;
    ASSERT_NE(LoadSharedState(enc[i].data(), enc[i].data() + enc[i].size(), &r), nullptr);
    EXPECT_TRUE(SameState(r, refs[i])) << i;
    EXPECT_EQ(*EncodedState(r), enc[i]) << i;
  }
}

TEST(SharedBlock, ApplyingAnInputLeavesOtherHoldersOfTheStateAlone) {
  SharedBlock b(sampleBlock());
  b.inp = ProposedUpdate(UpdateId(3, 1, 1), ValueUpdate("fresh", "v"), 1);
  b.bal = b.mbal;
  SharedBlock other = b;
  std::string before = *EncodedState(other.committed);
  b.applyInp();
  EXPECT_EQ(b.seq, 8);
  EXPECT_EQ(b.committed->valueList.count("fresh"), 1u);
  EXPECT_EQ(other.committed->valueList.count("fresh"), 0u);
  EXPECT_EQ(*EncodedState(other.committed), before);
  EXPECT_EQ(*EncodedState(b.committed), encodeState(*b.committed));
}

}  // namespace
