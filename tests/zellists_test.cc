#include <gtest/gtest.h>

#include <tuple>

#include "support/testutil.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelutils.h"

namespace {

TEST(NodeListFileTest, ReadsGoodLinesAndCountsBadOnes) {
  TempDir d;
  const std::tuple<const char*, int, const char*> cases[] = {
      // text, rc, nodes read
      {"3,0,10.1.1.1,,nodeC", 0, "[(3, 'nodeC', ('10.1.1.1', 1191))]"},  // no final newline
      {"", 0, "[]"},
      // Each bad line is skipped and counted: port, id, flag, empty id, sign, fields, empty line.
      {"1,0,h,x,a\n-3,0,h,,c\n1,,h,,a\n,0,h,,a\n1,0,h,+5,a\n1,0,h\n\n2,0,h,,b\n", E_IO,
       "[(2, 'b', ('h', 1191))]"},
      // Commas in the name; no carriage return is stripped.
      {"1,0,host,,n,a,b\n2,3,10.0.0.2,7000,b\r\n4,2,,1,\n", 0,
       "[(1, 'n,a,b', ('host', 1191)), (2 (old), 'b\r', ('10.0.0.2', 7000)), (4, '', ('', 1))]"},
      // Ids and ports beyond their range are bad lines, not wrapped values.
      {"4294967297,0,h,,a\n1,0,h,0,a\n1,0,h,65536,a\n2,0,h,65535,b\n", E_IO,
       "[(2, 'b', ('h', 65535))]"},
  };
  for (const auto& [text, rc, want] : cases) {
    WriteFile(d.file("zel.nodes"), text);
    Nodes nodes = {Node(9, "stale", NodeLocation())};
    EXPECT_EQ(rc, readNodeList(d.file("zel.nodes"), &nodes)) << text;
    EXPECT_EQ(want, NodesToString(nodes)) << text;
  }
}

TEST(NodeListFileTest, FirstBadLineIsTheCause) {
  TempDir d;
  WriteFile(d.file("zel.nodes"), "1,0,h,,a\n\n1,0,h,x,a\n");
  Nodes nodes;
  ClearErrorCause();
  EXPECT_EQ(E_IO, readNodeList(d.file("zel.nodes"), &nodes));
  EXPECT_EQ(d.file("zel.nodes") + " line 2: '' is not id,old,address,port,name", ErrorCause());
  WriteFile(d.file("zel.disks"), "1,0,a\n1,0\n");
  DiskMap disks;
  EXPECT_EQ(E_IO, readDiskList(d.file("zel.disks"), &disks));
  EXPECT_EQ(d.file("zel.disks") + " line 2: '1,0' is not slot,old,name", ErrorCause());
}

TEST(ListFileTest, WriteThenReadRoundTrips) {
  TempDir d;
  const std::string text = "3,0,10.1.1.1,1192,nodeC\n2,1,10.0.0.2,,nodeB,rack2\n";
  WriteFile(d.file("in"), text);
  Nodes nodes;
  ASSERT_EQ(0, readNodeList(d.file("in"), &nodes));
  ASSERT_EQ(0, writeNodeList(d.file("out"), nodes));
  EXPECT_EQ(text, ReadFile(d.file("out")));

  DiskMap disks = {{3, ZELDisk("0A1B2C3D4E5F6071:extra", 0)}, {0, ZELDisk("/dev/sdb", 1)}};
  ASSERT_EQ(0, writeDiskList(d.file("out"), disks));
  EXPECT_EQ("0,1,/dev/sdb\n3,0,0A1B2C3D4E5F6071:extra\n", ReadFile(d.file("out")));
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

TEST(ClassifierTest, DiskDescriptorsAndPrivateNames) {
  const char* descs[] = {"0123456789abcdef", "0123456789ABCDEF0", "0123456789abcdef:any text"};
  for (const char* s : descs) EXPECT_TRUE(isDiskDesc(s)) << s;
  const char* notDescs[] = {"0123456789abcde", "0123456789abcdef-any", "0123456789abcdeg", ""};
  for (const char* s : notDescs) EXPECT_FALSE(isDiskDesc(s)) << s;
  for (const char* s : {"_cfg", "genKeyData"}) EXPECT_TRUE(isFilePrivate(s)) << s;
  for (const char* s : {"mycfg", "genKe", ""}) EXPECT_FALSE(isFilePrivate(s)) << s;
}

}  // namespace
