#include <gtest/gtest.h>

#include "support/testutil.h"
#include "zel/zelerr.h"
#include "zel/zelutils.h"

namespace {

TEST(NodeListFileTest, ReadsGoodLinesAndCountsBadOnes) {
  TempDir d;
  struct {
    const char* text;
    int rc;
    size_t n;
  } cases[] = {
      {"3,0,10.1.1.1,,nodeC\n", 0, 1},
      {"3,0,10.1.1.1,,nodeC", 0, 1},  // last line without newline
      {"", 0, 0},
      {"3,0,10.1.1.1,x,nodeC\n1,0,h,,a\n", E_IO, 1},  // non-numeric port
      {"-3,0,10.1.1.1,,nodeC\n1,0,h,,a\n", E_IO, 1},  // negative id
      {"1,0,h,,a\n\n2,0,h,,b\n", E_IO, 2},            // empty line
      {"1,0,h,,\n", 0, 1},                            // empty name
      {"1,0,h\n", E_IO, 0},                           // too few fields
      {"1,,h,,a\n", E_IO, 0},                         // empty old field
      {",0,h,,a\n", E_IO, 0},                         // empty id
      {"1,0,h,+5,a\n", E_IO, 0},                      // sign in port
  };
  for (const auto& c : cases) {
    WriteFile(d.file("zel.nodes"), c.text);
    Nodes nodes = {Node(9, "stale", NodeLocation())};
    EXPECT_EQ(c.rc, readNodeList(d.file("zel.nodes"), &nodes)) << c.text;
    EXPECT_EQ(c.n, nodes.size()) << c.text;
  }
}

TEST(NodeListFileTest, FieldValues) {
  TempDir d;
  WriteFile(d.file("n"),
            "3,0,10.1.1.1,,nodeC\n1,0,host,,name,with,commas\n2,3,10.0.0.2,7000,b\r\n"
            "4,2,,0,\n");
  Nodes nodes;
  ASSERT_EQ(0, readNodeList(d.file("n"), &nodes));
  ASSERT_EQ(4u, nodes.size());
  EXPECT_EQ(Node(3, "nodeC", NodeLocation("10.1.1.1", 1191)), nodes[0]);
  EXPECT_EQ("name,with,commas", nodes[1].name);
  // No carriage return is stripped.
  EXPECT_EQ("(2 (old), 'b\r', ('10.0.0.2', 7000))", nodes[2].toString());
  EXPECT_EQ(0, nodes[3].old);
  EXPECT_EQ(NodeLocation("", 0), nodes[3].addr);
}

TEST(NodeListFileTest, WriteThenReadRoundTrips) {
  TempDir d;
  const std::string text = "3,0,10.1.1.1,,nodeC\n2,1,10.0.0.2,7000,nodeB,rack2\n";
  WriteFile(d.file("in"), text);
  Nodes nodes;
  ASSERT_EQ(0, readNodeList(d.file("in"), &nodes));
  ASSERT_EQ(0, writeNodeList(d.file("out"), nodes));
  EXPECT_EQ(text, ReadFile(d.file("out")));
  nodes[0].addr.port = 1192;
  ASSERT_EQ(0, writeNodeList(d.file("out"), nodes));
  EXPECT_EQ("3,0,10.1.1.1,1192,nodeC\n2,1,10.0.0.2,7000,nodeB,rack2\n", ReadFile(d.file("out")));
}

TEST(DiskListFileTest, ReadRules) {
  TempDir d;
  WriteFile(d.file("zel.disks"),
            "2,0,/dev/first\n4,2,disk\n2,1,/dev/second\n5,3,disk,with,commas\nbad\n6,x,y\n");
  DiskMap disks = {{9, ZELDisk("stale", 0)}};
  EXPECT_EQ(E_IO, readDiskList(d.file("zel.disks"), &disks));
  // The last line for a slot wins; only the lowest bit of the flag counts.
  EXPECT_EQ("[(2 (old), '/dev/second'), (4, 'disk'), (5 (old), 'disk,with,commas')]",
            DiskMapToString(disks));
}

TEST(DiskListFileTest, WriteInSlotOrder) {
  TempDir d;
  DiskMap disks = {{3, ZELDisk("0A1B2C3D4E5F6071:extra", 0)}, {0, ZELDisk("/dev/sdb", 1)}};
  ASSERT_EQ(0, writeDiskList(d.file("out"), disks));
  EXPECT_EQ("0,1,/dev/sdb\n3,0,0A1B2C3D4E5F6071:extra\n", ReadFile(d.file("out")));
  DiskMap back;
  ASSERT_EQ(0, readDiskList(d.file("out"), &back));
  EXPECT_TRUE(back == disks);
}

TEST(ClassifierTest, DiskDescriptorsAndPrivateNames) {
  struct {
    const char* s;
    bool want;
  } descs[] = {{"0123456789abcde", false},
               {"0123456789abcdef", true},
               {"0123456789ABCDEF0", true},
               {"0123456789abcdef:any text", true},
               {"0123456789abcdef-any text", false},
               {"0123456789abcdeg", false},
               {"", false}};
  for (const auto& c : descs) EXPECT_EQ(c.want, isDiskDesc(c.s)) << c.s;
  struct {
    const char* s;
    bool want;
  } names[] = {
      {"_cfg", true}, {"genKeyData", true}, {"mycfg", false}, {"genKe", false}, {"", false}};
  for (const auto& c : names) EXPECT_EQ(c.want, isFilePrivate(c.s)) << c.s;
}

}  // namespace
