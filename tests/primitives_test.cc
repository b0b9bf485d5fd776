#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/recordcheck.h"
#include "zel/paxosutils.h"

namespace {

std::string hex(const char* b, const char* e) {
  return Hex(std::string(b, e));
}

struct VarCase {
  long long v;
  int bias;
  const char* bytes;
};

TEST(VarUIntTest, GoldenEncodingsRoundTrip) {
  const VarCase cases[] = {
      {0, 0, "00"},
      {127, 0, "7F"},
      {128, 0, "80 00"},
      {300, 0, "80 AC"},
      {16511, 0, "BF FF"},
      {16512, 0, "C0 00 00"},
      {-1, -1, "00"},
      {0, -1, "01"},
      {126, -1, "7F"},
      {127, -1, "80 00"},
      {2147483647, 0, "F0 6F DF BF 7F"},
  };
  for (const auto& c : cases) {
    char buf[MaxSizeVarUInt];
    char* e = DumpVarUInt(buf, c.v, c.bias);
    EXPECT_EQ(hex(buf, e), c.bytes) << c.v;
    EXPECT_EQ(e - buf, SizeVarUInt(c.v, c.bias)) << c.v;
    int out = 12345;
    EXPECT_EQ(LoadVarUInt(buf, e, &out, c.bias), e) << c.v;
    EXPECT_EQ(out, c.v);
  }
}

TEST(VarUIntTest, EveryLengthBoundaryRoundTrips) {
  // The first and last quantity of each code length.
  unsigned long long base = 0, span = 128;
  for (int n = 1; n <= 8; n++) {
    for (unsigned long long q : {base, base + span - 1}) {
      char buf[MaxSizeVarUInt];
      char* e = DumpVarUInt(buf, static_cast<long long>(q), 0);
      ASSERT_EQ(e - buf, n) << q;
      int out = -7;
      const char* r = LoadVarUInt(buf, e, &out, 0);
      if (q <= 2147483647ULL) {
        EXPECT_EQ(r, e);
        EXPECT_EQ(static_cast<unsigned long long>(out), q);
      } else {
        EXPECT_EQ(r, nullptr) << q;  // the decoder's 2^31 - 1 limit
        EXPECT_EQ(out, -7);          // left untouched when too large
      }
      for (int cut = 0; cut < n; cut++) {
        int o2 = 99;
        EXPECT_EQ(LoadVarUInt(buf, buf + cut, &o2, -1), nullptr);
        EXPECT_EQ(o2, -1);  // bias on a cut-short input
      }
    }
    base += span;
    span *= 128;
    if (n == 7) span = (1ULL << 56) - base;  // the assertion caps the last range
  }
}

TEST(VarUIntTest, DecoderLimit) {
  char buf[MaxSizeVarUInt];
  char* e = DumpVarUInt(buf, 2147483648LL, 0);  // too large for the signed decoder only
  unsigned int u = 0;
  EXPECT_EQ(LoadVarUIntU(buf, e, &u, 0), e);
  EXPECT_EQ(u, 2147483648u);
  const std::string ones(10, '\xFF');
  int out = 5;
  EXPECT_EQ(LoadVarUInt(ones.data(), ones.data() + ones.size(), &out, 0), nullptr);
  EXPECT_EQ(LoadVarUInt(nullptr, ones.data(), &out, 3), nullptr);
  EXPECT_EQ(out, 3);
}

TEST(VarUIntDeathTest, BelowBiasAsserts) {
  EXPECT_DEATH(SizeVarUInt(-2, -1), "assertion '\\(unsigned long long\\)i < \\(1ULL << 56\\)'");
  char buf[MaxSizeVarUInt];
  EXPECT_DEATH(DumpVarUInt(buf, 1LL << 56, 0), "zel/paxosutils:[0-9]+: assertion");
}

TEST(PrimitivesTest, UInt32AndStrings) {
  char buf[16];
  EXPECT_EQ(DumpUInt32(buf, 0x1FABC4ADu), buf + 4);
  EXPECT_EQ(hex(buf, buf + 4), "1F AB C4 AD");
  unsigned int v = 7;
  EXPECT_EQ(LoadUInt32(buf, buf + 3, &v), nullptr);
  EXPECT_EQ(v, 7u);
  EXPECT_EQ(LoadUInt32(buf, buf + 4, &v), buf + 4);
  EXPECT_EQ(v, 0x1FABC4ADu);

  char* e = DumpString(buf, "");
  EXPECT_EQ(hex(buf, e), "00");
  e = DumpString(buf, "ab");
  std::string s = "keep";
  EXPECT_EQ(LoadString(buf, e - 1, &s), nullptr);  // no zero byte before end
  EXPECT_EQ(s, "keep");
  EXPECT_EQ(LoadString(buf, e, &s), e);
  EXPECT_EQ(s, "ab");
}

}  // namespace
