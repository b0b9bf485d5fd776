#include <gtest/gtest.h>

#include <string>

#include "support/recordcheck.h"
#include "zel/paxosutils.h"

namespace {

TEST(VarUIntTest, GoldenEncodingsRoundTrip) {
  const struct {
    long long v;
    int bias;
    const char* bytes;
  } cases[] = {
      {0, 0, "00"},        {127, 0, "7F"},
      {128, 0, "80 00"},   {300, 0, "80 AC"},
      {16511, 0, "BF FF"}, {16512, 0, "C0 00 00"},
      {-1, -1, "00"},      {126, -1, "7F"},
      {127, -1, "80 00"},  {2147483647, 0, "F0 6F DF BF 7F"},
  };
  for (const auto& c : cases) {
    char buf[MaxSizeVarUInt];
    char* e = DumpVarUInt(buf, c.v, c.bias);
    EXPECT_EQ(Hex(std::string(buf, e)), c.bytes) << c.v;
    EXPECT_EQ(e - buf, SizeVarUInt(c.v, c.bias)) << c.v;
    int out = 12345;
    EXPECT_EQ(LoadVarUInt(buf, e, &out, c.bias), e) << c.v;
    EXPECT_EQ(out, c.v);
  }
}

// The first and last quantity of each code length; the signed decoder stops at 2^31 - 1, the
// unsigned one does not, and a cut-short input leaves the bias behind.
TEST(VarUIntTest, EveryLengthBoundaryAndDecoderLimit) {
  unsigned long long base = 0, span = 128;
  for (int n = 1; n <= 8; n++) {
    for (unsigned long long q : {base, base + span - 1}) {
      char buf[MaxSizeVarUInt];
      char* e = DumpVarUInt(buf, static_cast<long long>(q), 0);
      ASSERT_EQ(e - buf, n) << q;
      int out = -7;
      unsigned int u = 0;
      bool fits = q <= 2147483647ULL;
      EXPECT_EQ(LoadVarUInt(buf, e, &out, 0), fits ? e : nullptr) << q;
      EXPECT_EQ(out, fits ? static_cast<long long>(q) : -7) << q;
      EXPECT_EQ(LoadVarUIntU(buf, e, &u, 0) != nullptr, q <= 4294967295ULL) << q;
      for (int cut = 0; cut < n; cut++) {
        EXPECT_EQ(LoadVarUInt(buf, buf + cut, &out, -1), nullptr);
        EXPECT_EQ(out, -1);
      }
    }
    base += span;
    span *= 128;
    if (n == 7) span = (1ULL << 56) - base;  // the assertion caps the last range
  }
  char buf[MaxSizeVarUInt];
  int out = 0;
  EXPECT_EQ(LoadVarUInt(buf, DumpVarUInt(buf, 2147483648LL, 0), &out, 0), nullptr);
  unsigned int u = 0;
  EXPECT_NE(LoadVarUIntU(buf, DumpVarUInt(buf, 4294967295LL, 0), &u, 0), nullptr);
  EXPECT_EQ(u, 4294967295u);
  EXPECT_EQ(LoadVarUInt(nullptr, buf, &out, 3), nullptr);  // chaining after a failure
  EXPECT_EQ(out, 3);
}

TEST(VarUIntDeathTest, OutOfRangeAsserts) {
  EXPECT_DEATH(SizeVarUInt(-2, -1), "assertion '\\(unsigned long long\\)i < \\(1ULL << 56\\)'");
  char buf[MaxSizeVarUInt];
  EXPECT_DEATH(DumpVarUInt(buf, 1LL << 56, 0), "zel/paxosutils:[0-9]+: assertion");
}

}  // namespace
