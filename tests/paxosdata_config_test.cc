#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "support/recordcheck.h"
#include "zel/paxosdata.h"

namespace {

NodeDescriptor Node(int id, int slot, int version, bool listen) {
  NodeDescriptor n;
  n.id = id;
  n.slot = slot;
  n.version = version;
  n.listen = listen;
  return n;
}

template <typename T>
std::string Text(const T& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

TEST(ConfigDataTest, EmptyAndFullGolden) {
  ExpectGolden(ConfigData(), "00 00 00");
  EXPECT_EQ(Text(ConfigData()), "<[] [] min=-1>");
  ConfigData c;
  // Flags: 1 listen, 2 version present; the slot is stored plus one.
  c.nodes = {Node(1, 0, 0, true), Node(200, 127, 128, false), Node(3, -1, 0, false)};
  c.disks = {7, 300};
  c.minNodes = 1;
  ExpectGolden(c, "03 01 01 01 80 48 80 00 02 80 00 03 00 00 02 07 80 AC 02");
  EXPECT_EQ(Text(c), "<[(N1,S0,V0,L1), (N200,S127,V128,L0), (N3,S-1,V0,L0)] [D7,D300] min=1>");
}

TEST(ConfigUpdateTest, FlagsEncodingAndText) {
  ExpectGolden(ConfigUpdate(), "00 00 00 00 00");
  EXPECT_EQ(Text(ConfigUpdate()), "<>");
  ConfigData cd;
  cd.nodes = {Node(1, 0, 0, false)};
  cd.disks = {4};
  cd.minNodes = 0;
  const struct {
    bool n, d;
    const char* text;
    const char* bytes;
  } cases[] = {
      {true, false, "<[(N1,S0,V0,L0)] min=0>", "01 00 01 01 01 00 01 04 01"},
      {false, true, "<[D4] min=0>", "00 01 01 01 01 00 01 04 01"},
      {true, true, "<[(N1,S0,V0,L0)] [D4] min=0>", "01 01 01 01 01 00 01 04 01"},
  };
  for (const auto& c : cases) {
    ExpectGolden(ConfigUpdate(cd, c.n, c.d), c.bytes);
    EXPECT_EQ(Text(ConfigUpdate(cd, c.n, c.d)), c.text);
  }
}

}  // namespace
