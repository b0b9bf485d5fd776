#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zel/zelcmd.h"
#include "zel/zelerr.h"
#include "zel/zelutils.h"

namespace {

int OnlyLoopback(IpAddrArray* out) {
  IpAddr a;
  IpAddr::parse("127.0.0.1", &a);
  out->push_back(a);
  return 0;
}

// The locally known cluster the items are checked against.
class NodeArgsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetZELIOForTest();
    Nodes local = {Node(2, "nodeB", NodeLocation("10.200.0.2", 1191)),
                   Node(3, "nodeC", NodeLocation("127.0.0.1", 1191)),
                   Node(4, "nodeD", NodeLocation("127.0.0.1", 1300)),
                   Node(5, "nodeE", NodeLocation("127.0.0.1", 1300)),
                   Node(6, "127.0.0.6", NodeLocation("127.0.0.6", 1191))};
    ASSERT_EQ(0, SetNodeList(local, false));
  }
  void TearDown() override {
    SetLocalAddrsFnForTest(nullptr);
    ResetZELIOForTest();
  }
};

struct NodeCase {
  std::vector<std::string> items;
  bool assign;
  int rc;
  std::string nodes;  // text form of the result
  std::string err;
};

TEST_F(NodeArgsTest, ParseNodeList) {
  // clang-format off
  const NodeCase cases[] = {
      {{"3"}, false, 0, "[(3, 'nodeC', ('127.0.0.1', 1191))]", ""},
      {{"7"}, false, E_INVAL, "[]", "Unknwon node id 7\n"},
      {{"0"}, false, E_INVAL, "[]", "invalid node id 0\n"},
      {{""}, false, E_INVAL, "[]", "invalid node id \n"},
      {{"0=127.0.0.1"}, false, E_INVAL, "[]", "Invalid node id 0 in '0=127.0.0.1'\n"},
      {{"5="}, false, E_INVAL, "[]", "Unknown host '5='\n"},
      {{"nohost.invalid:1200"}, false, E_INVAL, "[]", "Unknown host 'nohost.invalid'\n"},
      {{":1200"}, false, E_INVAL, "[]", "Missing host in ':1200'\n"},
      // Two ids at one location: the higher one is found.
      {{"127.0.0.1:1300"}, false, 0, "[(5, '127.0.0.1', ('127.0.0.1', 1300))]", ""},
      {{"127.0.0.2", "3", "127.0.0.3"}, true, 0, "[(4, '127.0.0.2', ('127.0.0.2', 1191)), "
       "(3, 'nodeC', ('127.0.0.1', 1191)), (5, '127.0.0.3', ('127.0.0.3', 1191))]", ""},
      {{"8=127.0.0.8", "127.0.0.9"}, true, 0,
       "[(8, '127.0.0.8', ('127.0.0.8', 1191)), (9, '127.0.0.9', ('127.0.0.9', 1191))]", ""},
      {{"2=127.0.0.1"}, false, E_INVAL, "[]",
       "Node id 2 in '2=2=127.0.0.1' already known as 'nodeB'\n"},
      {{"6=127.0.0.6:1200"}, false, E_INVAL, "[]", "Address of node 6 in '6=6=127.0.0.6:1200' "
       "changed from 127.0.0.6:1191 to 127.0.0.6:1200\n"},
      {{"[::1]:1300"}, false, 0, "[(-1, '::1', ('::1', 1300))]", ""},
      {{"[::1]"}, false, 0, "[(-1, '::1', ('::1', 1191))]", ""},
      {{"[::1]x"}, false, 0, "[(-1, '::1', ('::1', 0))]", ""},
      {{"fe80::1"}, false, E_INVAL, "[]", "Unknown host 'fe80:'\n"},
      {{"127.0.0.1:abc"}, false, 0, "[(-1, '127.0.0.1', ('127.0.0.1', 0))]", ""},
      // Every bad item is reported; the good ones are kept.
      {{"7", "127.0.0.2", "0", "nohost.invalid"}, true, E_INVAL,
       "[(1, '127.0.0.2', ('127.0.0.2', 1191))]",
       "Unknwon node id 7\ninvalid node id 0\nUnknown host 'nohost.invalid'\n"},
  };
  // clang-format on
  for (const NodeCase& c : cases) {
    std::string label = c.items.empty() ? "" : c.items[0];
    Nodes out = {Node(99, "stale", NodeLocation())};
    testing::internal::CaptureStderr();
    int rc = parseNodeList(c.items, &out, c.assign);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(c.rc, rc) << label;
    EXPECT_EQ(c.nodes, NodesToString(out)) << label;
    EXPECT_EQ(c.err, err) << label;
  }
}

TEST_F(NodeArgsTest, ItemPortDefaultsToCurrentPort) {
  zelPort = 7000;
  Nodes out;
  ASSERT_EQ(0, parseNodeList({"127.0.0.2"}, &out, false));
  EXPECT_EQ("[(-1, '127.0.0.2', ('127.0.0.2', 7000))]", NodesToString(out));
}

TEST_F(NodeArgsTest, DefaultLocal) {
  zelPort = 1191;
  Nodes out;
  testing::internal::CaptureStderr();
  EXPECT_EQ(E_INVAL, parseNodeListDefaultLocal({}, &out, true));
  EXPECT_EQ("Not a server and no node list specified (use '-n nodeList' option)\n",
            testing::internal::GetCapturedStderr());
  EXPECT_EQ(0, parseNodeListDefaultLocal({}, &out, false));
  EXPECT_EQ("[(-1, 'localhost', ('localhost', 1191))]", NodesToString(out));
  EXPECT_EQ(0, parseNodeListDefaultLocal({"3"}, &out, true));
  EXPECT_EQ("[(3, 'nodeC', ('127.0.0.1', 1191))]", NodesToString(out));

  // This host is node 3 (127.0.0.1 on the current port).
  SetLocalAddrsFnForTest(OnlyLoopback);
  int id = -2;
  ASSERT_EQ(0, ReInitZELIO(&id));
  ASSERT_EQ(3, id);
  EXPECT_EQ(0, parseNodeListDefaultLocal({}, &out, true));
  EXPECT_EQ("[(3, 'nodeC', ('127.0.0.1', 1191))]", NodesToString(out));
}

TEST(DiskArgsTest, ParseDiskList) {
  const std::string desc = "0123456789abcdef";
  struct {
    std::vector<std::string> items;
    std::string dir;
    int rc;
    std::string disks;
    std::string err;
  } cases[] = {
      // clang-format off
      {{"/dev/a", "", desc, desc + ":x"}, "", 0,
       "[(1, '/dev/a'), (2, '" + desc + "'), (3, '" + desc + ":x')]", ""},
      {{"disk1"}, "/dev/tb", 0, "[(1, '/dev/tb/disk1')]", ""},
      {{"a", "", "b"}, "/d", 0, "[(1, '/d/a'), (2, '/d/b')]", ""},
      {{"0123456789abcdeg"}, "", E_INVAL, "[]", "Invalid disk label '0123456789abcdeg'\n"},
      // The first bad label stops the parse.
      {{"/dev/a", "disk1", "/dev/b", "short"}, "", E_INVAL, "[(1, '/dev/a')]",
       "Invalid disk label 'disk1'\n"},
      // clang-format on
  };
  for (const auto& c : cases) {
    DiskMap out = {{7, ZELDisk("stale", 1)}};
    testing::internal::CaptureStderr();
    EXPECT_EQ(c.rc, parseDiskList(c.items, c.dir, &out)) << c.disks;
    EXPECT_EQ(c.err, testing::internal::GetCapturedStderr());
    EXPECT_EQ(c.disks, DiskMapToString(out));
  }
  DiskMap out;
  EXPECT_DEATH(parseDiskList({"a"}, "rel/dir", &out),
               "assertion 'diskDir.empty\\(\\) \\|\\| IsAbsPath\\(diskDir\\)' failed");
}

}  // namespace
