#include "zel/pxwire.h"

#include <gtest/gtest.h>

#include <string>

#include "support/recordcheck.h"
#include "support/samples.h"
#include "support/wirebodies.h"

namespace {

// The encoding of a fresh committed state.
const char kFresh[] = "00 00 01 00 00 00 00 00 00 00 00 00 00";

Dblock Block(int seq, int ballot, const CommittedState& c, bool withInp) {
  Dblock b;
  b.seq = seq;
  b.mbal = BallotNumber(ballot, 2);
  b.bal = withInp ? BallotNumber(ballot, 2) : BallotNumber();
  if (withInp) b.inp = ProposedUpdate(UpdateId(2, 1, seq), ValueUpdate("k", "v"), 3);
  b.committed = c;
  return b;
}

// Loads bytes exactly as a received body; the decoded record or a failure.
template <typename R>
bool Decodes(const std::string& bytes, R* r) {
  std::string copy = bytes;  // heap-sized exactly, for AddressSanitizer
  return PxDecode(r, copy.data(), static_cast<int>(copy.size()));
}

TEST(PxWireTest, RequestGoldens) {
  ExpectGolden(PxReadRequest{3, 260}, "03 " + Hex(V(260, 0)));
  PxWriteRequest w;
  w.writerId = 2;
  w.slot = 1;
  w.block = Block(4, 1, CommittedState(), false);
  ExpectGolden(w, std::string("02 01 04 01 02 00 00 00 00 ") + kFresh);
  ExpectGolden(PxFileRequest{"zel.nodes", 1, -1, UpdateId(1, 2, 3)},
               "7A 65 6C 2E 6E 6F 64 65 73 00 01 00 01 02 03");
  ExpectGolden(PxFileSize{300}, Hex(V(300, 0)));
}

TEST(PxWireTest, SlotsGoldenWithSharedState) {
  PxSlots s;
  s[0].present = true;
  s[0].block = Block(4, 1, CommittedState(), false);
  s[2].present = true;
  s[2].block = Block(4, 3, CommittedState(), false);  // same state: a reference to slot 0
  ExpectGolden(s, std::string("08 01 04 01 02 00 00 00 00 ") + kFresh +
                      " 00 02 00 04 03 02 00 00 00 00 00 00 00 00 00");
}

TEST(PxWireTest, SlotsRoundTripKeepsEveryBlock) {
  CommittedState a = SampleState(), b = SampleState();
  b.valueList["z"] = ValueVersion{1, "other"};
  struct Case {
    const char* what;
    std::vector<std::pair<int, Dblock>> blocks;
  } cases[] = {
      {"empty store", {}},
      {"all slots, one state", {}},
      {"two instances interleaved",
       {{1, Block(7, 2, a, true)},
        {3, Block(8, 1, b, false)},
        {4, Block(7, 5, a, false)},
        {7, Block(8, 9, b, true)}}},
      {"same seq, different states",  // a fault the reader must see as it is
       {{0, Block(7, 2, a, false)}, {1, Block(7, 2, b, false)}}},
      {"same state, different seq", {{0, Block(7, 2, a, false)}, {5, Block(9, 2, a, false)}}},
  };
  for (int i = 0; i < kPxSlots; i++) cases[1].blocks.push_back({i, Block(6, i, a, i % 2 == 0)});
  for (const Case& c : cases) {
    PxSlots s;
    for (const auto& ib : c.blocks) {
      s[ib.first].present = true;
      s[ib.first].block = ib.second;
    }
    std::string bytes = Encode(s);
    PxSlots back;
    ASSERT_TRUE(Decodes(bytes, &back)) << c.what;
    for (int i = 0; i < kPxSlots; i++) {
      EXPECT_EQ(back[i].present, s[i].present) << c.what << " slot " << i;
      if (s[i].present) {
        EXPECT_EQ(back[i].block.toString(), s[i].block.toString()) << c.what;
      }
    }
    EXPECT_EQ(Encode(back), bytes) << c.what;
    ExpectTruncationsFail<PxSlots>(bytes);
  }
}

TEST(PxWireTest, ReadersGetTheStateOfTheNewestBlocksOnly) {
  CommittedState a = SampleState(), b = SampleState();
  b.valueList["z"] = ValueVersion{1, "other"};
  struct Case {
    const char* what;
    int readerSeq;
    std::vector<std::pair<int, Dblock>> blocks;
    std::string heads;  // per slot: '-' absent, 'h' head only, 's' with its state
  } cases[] = {
      {"one instance", 7, {{0, Block(7, 1, a, false)}, {2, Block(7, 2, a, true)}}, "s-s-----"},
      {"lagging blocks", 8, {{0, Block(7, 1, a, false)}, {1, Block(8, 2, b, true)}}, "hs------"},
      {"reader behind", 7, {{0, Block(7, 1, a, false)}, {5, Block(8, 2, b, false)}}, "h----s--"},
      {"reader ahead", 9, {{0, Block(7, 1, a, false)}, {1, Block(8, 2, b, false)}}, "hh------"},
  };
  for (const Case& c : cases) {
    PxSlots s;
    for (const auto& ib : c.blocks) {
      s[ib.first].present = true;
      s[ib.first].block = ib.second;
    }
    PxOmitStates(&s, c.readerSeq);
    std::string bytes = Encode(s);
    PxSlots back;
    ASSERT_TRUE(Decodes(bytes, &back)) << c.what;
    std::string got;
    for (int i = 0; i < kPxSlots; i++) {
      got += !back[i].present ? '-' : back[i].headOnly ? 'h' : 's';
      if (!back[i].present) continue;
      EXPECT_EQ(back[i].block.seq, s[i].block.seq) << c.what;
      if (!back[i].headOnly) {
        EXPECT_TRUE(SameState(back[i].block.committed, s[i].block.committed)) << c.what;
      }
    }
    EXPECT_EQ(got, c.heads) << c.what;
    EXPECT_TRUE(back == s) << c.what;
    ExpectTruncationsFail<PxSlots>(bytes);
  }
}

TEST(PxWireTest, SharedStateIsSentOnce) {
  CommittedState big;
  for (int i = 0; i < 200; i++) big.valueList["name" + std::to_string(i)] = ValueVersion{1, "v"};
  PxSlots s;
  for (int i = 0; i < kPxSlots; i++) {
    s[i].present = true;
    s[i].block = Block(5, i, big, false);
  }
  EXPECT_LT(s.getSize(), big.getSize() + 8 * 16);
}

TEST(PxWireTest, MalformedBodiesAreRefused) {
  std::string absent8 = V(8, 0) + std::string(8, '\0');
  std::string block = Encode(Block(4, 1, CommittedState(), false));
  std::string head = block.substr(0, block.size() - Encode(CommittedState()).size());
  struct Case {
    const char* what;
    std::string bytes;
  } slotCases[] = {
      {"seven slots", V(7, 0) + std::string(7, '\0')},
      {"nine slots", V(9, 0) + std::string(9, '\0')},
      {"unknown kind", V(8, 0) + V(4, 0) + std::string(7, '\0')},
      {"reference to a head",
       V(8, 0) + V(3, 0) + head + V(2, 0) + V(0, 0) + head + std::string(6, '\0')},
      {"reference to itself", V(8, 0) + V(2, 0) + V(0, 0) + head + std::string(7, '\0')},
      {"reference to an absent slot",
       V(8, 0) + std::string(1, '\0') + V(2, 0) + V(0, 0) + head + std::string(6, '\0')},
      {"reference to a later slot",
       V(8, 0) + V(2, 0) + V(1, 0) + head + V(1, 0) + block + std::string(6, '\0')},
      {"trailing byte", absent8 + "x"},
  };
  PxSlots ok;
  EXPECT_TRUE(Decodes(absent8, &ok));
  for (const Case& c : slotCases) {
    PxSlots s;
    EXPECT_FALSE(Decodes(c.bytes, &s)) << c.what;
  }
  PxWriteRequest w;
  EXPECT_TRUE(Decodes(V(1, 0) + V(7, 0) + block, &w));
  EXPECT_FALSE(Decodes(V(1, 0) + V(8, 0) + block, &w)) << "slot 8";
  EXPECT_FALSE(Decodes(V(1, 0) + V(7, 0) + block + "x", &w)) << "trailing byte";
  PxReadRequest r;
  EXPECT_FALSE(PxDecode(&r, nullptr, 0)) << "empty";
  EXPECT_FALSE(Decodes(V(1, 0), &r)) << "no seq";
  EXPECT_FALSE(Decodes(V(1, 0) + V(1, 0) + V(1, 0), &r)) << "trailing number";
}

}  // namespace
