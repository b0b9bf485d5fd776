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

TEST(NodeListTest, VersionFlagGoldenBytes) {
  struct Case {
    NodeDescriptor node;
    const char* bytes;
  } cases[] = {
      {Node(3, -1, 0, false), "01 03 00 00"},
      {Node(3, -1, 0, true), "01 03 00 01"},
      {Node(3, 0, 5, false), "01 03 01 02 05"},
      {Node(3, 2, 5, true), "01 03 03 03 05"},
      {Node(200, 127, 128, true), "01 80 48 80 00 03 80 00"},
  };
  for (const auto& c : cases) {
    NodeList l;
    l.push_back(c.node);
    std::string b = Encode(l);
    EXPECT_EQ(Hex(b), c.bytes);
    NodeList back;
    EXPECT_EQ(LoadPrefix(&back, b, b.size()), static_cast<long>(b.size()));
    EXPECT_EQ(back, l);
    ExpectTruncationsFail<NodeList>(b);
  }
}

TEST(NodeListTest, ShortCountKeepsDecodedEntries) {
  NodeList two;
  two.push_back(Node(1, 0, 0, false));
  two.push_back(Node(2, 1, 0, false));
  std::string b = Encode(two);
  b[0] = 3;
  NodeList l;
  l.push_back(Node(9, 9, 9, true));  // cleared by load
  EXPECT_EQ(LoadPrefix(&l, b, b.size()), -1);
  EXPECT_EQ(l, two);
}

TEST(ConfigDataTest, EmptyAndFullGolden) {
  ConfigData empty;
  EXPECT_EQ(Hex(Encode(empty)), "00 00 00");
  EXPECT_EQ(Text(empty), "<[] [] min=-1>");

  ConfigData c;
  c.nodes.push_back(Node(1, 0, 0, true));
  c.nodes.push_back(Node(2, -1, 4, false));
  c.disks = {7, 300};
  c.minNodes = 1;
  std::string b = Encode(c);
  EXPECT_EQ(Hex(b), "02 01 01 01 02 00 02 04 02 07 80 AC 02");
  EXPECT_EQ(Text(c), "<[(N1,S0,V0,L1), (N2,S-1,V4,L0)] [D7,D300] min=1>");
  ConfigData back;
  EXPECT_EQ(LoadPrefix(&back, b, b.size()), static_cast<long>(b.size()));
  EXPECT_EQ(back, c);
  ExpectTruncationsFail<ConfigData>(b);

  // A failure before minNodes leaves it -1.
  ConfigData cut;
  cut.minNodes = 5;
  EXPECT_EQ(LoadPrefix(&cut, b, 3), -1);
  EXPECT_EQ(cut.minNodes, -1);
}

TEST(PaxosConfigTest, EqualityAndEquivalence) {
  NodeList nl;
  for (int id : {10, 20, 30}) nl.push_back(Node(id, id / 10, 0, false));
  PaxosConfig a(nl, DiskList(), 2);
  PaxosConfig b = a;
  b.updateListeners({0, 2});
  EXPECT_TRUE(b.nodes[0].listen);
  EXPECT_FALSE(b.nodes[1].listen);
  EXPECT_TRUE(b.nodes[2].listen);
  EXPECT_TRUE(a.isEquivalent(b));
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a != b);
  // Positions, not ids: an id as position matches nothing.
  b.updateListeners({10});
  EXPECT_EQ(a, b);

  PaxosConfig c = a;
  c.nodes[1].version = 1;
  EXPECT_FALSE(a.isEquivalent(c));
  EXPECT_EQ(a.nodes.findNode(20), &a.nodes[1]);
}

TEST(ConfigUpdateTest, FlagsEncodingAndText) {
  ConfigUpdate none;
  EXPECT_EQ(Text(none), "<>");
  EXPECT_EQ(Hex(Encode(none)), "00 00 00 00 00");

  ConfigData cd;
  cd.nodes.push_back(Node(1, 0, 0, false));
  cd.disks = {4};
  cd.minNodes = 0;
  struct Case {
    bool n, d;
    const char* text;
    const char* bytes;
  } cases[] = {
      {true, false, "<[(N1,S0,V0,L0)] min=0>", "01 00 01 01 01 00 01 04 01"},
      {false, true, "<[D4] min=0>", "00 01 01 01 01 00 01 04 01"},
      {true, true, "<[(N1,S0,V0,L0)] [D4] min=0>", "01 01 01 01 01 00 01 04 01"},
  };
  for (const auto& c : cases) {
    ConfigUpdate u(cd, c.n, c.d);
    EXPECT_EQ(Text(u), c.text);
    std::string b = Encode(u);
    EXPECT_EQ(Hex(b), c.bytes);
    ConfigUpdate back;
    EXPECT_EQ(LoadPrefix(&back, b, b.size()), static_cast<long>(b.size()));
    EXPECT_EQ(back, u);
    ExpectTruncationsFail<ConfigUpdate>(b);
  }
  // Missing flags still clear the lists.
  ConfigUpdate partial(cd, false, false);
  EXPECT_EQ(LoadPrefix(&partial, Encode(partial), 1), -1);
  EXPECT_TRUE(partial.nodes.empty());
  EXPECT_TRUE(partial.disks.empty());
  EXPECT_EQ(partial.minNodes, -1);
}

}  // namespace
