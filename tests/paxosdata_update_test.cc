#include <gtest/gtest.h>

#include <string>

#include "support/recordcheck.h"
#include "zel/paxosdata.h"
#include "zel/zelerr.h"

namespace {

const UpdateId kUid(1, 2, 3);

TEST(UpdateIdTest, UidStringAndParse) {
  const struct {
    const char* text;
    int rc;
    UpdateId after;  // fields left behind by a failed parse
  } cases[] = {
      {"000000", 0, UpdateId(0, 0, 0)},
      {"0A0B0C", 0, UpdateId(10, 11, 12)},
      {"f06fdfbf7ff06fdfbf7ff06fdfbf7f", 0, UpdateId(2147483647, 2147483647, 2147483647)},
      {"0102", E_INVAL, UpdateId(1, 2, 0)},      // two values only
      {"01020304", E_INVAL, UpdateId(1, 2, 3)},  // a byte left over
      {"01g203", E_INVAL, UpdateId(5, 5, 5)},    // not hex: untouched
      {"010", E_INVAL, UpdateId(1, 0, 0)},       // trailing digit is a byte of its own
  };
  for (const auto& c : cases) {
    UpdateId u(5, 5, 5);
    EXPECT_EQ(u.parse(c.text), c.rc) << c.text;
    EXPECT_EQ(u, c.after) << c.text;
  }
}

TEST(ProposedUpdateTest, GoldenBytesTextAndRoundTrip) {
  ProposedUpdate fu(kUid, FileUpdate("f", 5, 0, 0x01020304), 7), vu(kUid, ValueUpdate("a", "b"), 7);
  fu.listn = vu.listn = {10, 2};
  ProposedUpdate odd;
  odd.uid = kUid;
  odd.type = static_cast<ProposedUpdate::UpdateType>(200);
  odd.version = 4;
  ConfigData cd;
  cd.nodes = {NodeDescriptor{1, 0, 0, false}};
  cd.minNodes = 1;
  const struct {
    ProposedUpdate u;
    const char* bytes;
    const char* text;
  } cases[] = {
      {ProposedUpdate(), "00 00 00 00 00 00", "((n0,e0),0):(none):-1:None"},
      {ProposedUpdate(UpdateId(1, 1, 1)), "01 01 01 01 00 00", "((n1,e1),1):noop:-1:no-op-update"},
      {ProposedUpdate(kUid, ValueDeletion("a")), "01 02 03 03 00 61 00 00",
       "((n1,e2),3):vd:-1:('a')"},
      {fu, "01 02 03 04 08 66 00 05 00 01 02 03 04 02 0A 02",
       "((n1,e2),3):fu:7:['f',5,0,1020304] listn [a,2]"},
      {ProposedUpdate(kUid, FileDeletion("f", 5)), "01 02 03 05 00 66 00 05 00",
       "((n1,e2),3):fd:-1:['f','5]"},
      {ProposedUpdate(kUid, ConfigUpdate(cd, true, false)),
       "01 02 03 06 00 01 00 01 01 01 00 00 02 00", "((n1,e2),3):cu:-1:<[(N1,S0,V0,L0)] min=1>"},
      {ProposedUpdate(kUid, LeaderUpdate(2, 300), 9), "01 02 03 07 0A 02 80 AC 00",
       "((n1,e2),3):lu:9:[2,300]"},
      {vu, "01 02 03 02 08 61 00 62 00 02 0A 02", "((n1,e2),3):vu:7:('a','b') listn [10,2]"},
      {odd, "01 02 03 C8 05 00", "((n1,e2),3):?:4:Unknown update 200"},
  };
  for (const auto& c : cases) {
    std::string b = Encode(c.u);
    EXPECT_EQ(Hex(b), c.bytes);
    EXPECT_EQ(c.u.toString(), c.text);
    ProposedUpdate back(UpdateId(9, 9, 9), ValueUpdate("x", "y"), 3);
    ASSERT_EQ(LoadPrefix(&back, b, b.size()), static_cast<long>(b.size()));
    EXPECT_EQ(back.toString(), c.text);  // payload and listn too
    ExpectTruncationsFail<ProposedUpdate>(b);
  }
}

TEST(ProposedUpdateTest, CopiesOwnTheirPayloadAndCompareByUidAndType) {
  ProposedUpdate a(kUid, ValueUpdate("a", "1"), 2);
  {
    ProposedUpdate c(a);
    c.reset();
    EXPECT_EQ(c.toString(), "((n0,e0),0):(none):-1:None");
  }
  EXPECT_EQ(a.getValueUpdate()->value, "1");
  EXPECT_EQ(a, ProposedUpdate(kUid, ValueUpdate("a", "other"), 9));
  EXPECT_NE(a, ProposedUpdate(kUid, ValueDeletion("a")));
  EXPECT_NE(a, ProposedUpdate(UpdateId(1, 2, 4), ValueUpdate("a", "1"), 2));
}

}  // namespace
