#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/testutil.h"
#include "zel/zelcmd.h"
#include "zel/zelerr.h"
#include "zel/zelutils.h"

namespace {

// The locally known cluster the items are checked against.
class NodeArgsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetProcessState();
    Nodes local = {Node(2, "nodeB", NodeLocation("10.200.0.2", 1191)),
                   Node(3, "nodeC", NodeLocation("127.0.0.1", 1191)),
                   Node(4, "nodeD", NodeLocation("127.0.0.1", 1300)),
                   Node(5, "nodeE", NodeLocation("127.0.0.1", 1300)),
                   Node(6, "127.0.0.6", NodeLocation("127.0.0.6", 1191))};
    ASSERT_EQ(0, SetNodeList(local, false));
  }
  void TearDown() override {
    SetLocalAddrsFnForTest(nullptr);
    ResetProcessState();
  }
};

// Items, assign ids, rc, the result's text form, messages.
using NodeCase = std::tuple<std::vector<std::string>, bool, int, std::string, std::string>;

TEST_F(NodeArgsTest, ParseNodeList) {
  // clang-format off
  const NodeCase cases[] = {
      {{"3"}, false, 0, "[(3, 'nodeC', ('127.0.0.1', 1191))]", ""},
      {{"7"}, false, E_INVAL, "[]", "Unknwon node id 7\n"},
      {{"0"}, false, E_INVAL, "[]", "invalid node id 0\n"},
      {{"0=127.0.0.1"}, false, E_INVAL, "[]", "Invalid node id 0 in '0=127.0.0.1'\n"},
      {{"5="}, false, E_INVAL, "[]", "Unknown host '5='\n"},
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
      {{"fe80::1"}, false, E_INVAL, "[]", "Unknown host 'fe80:'\n"},
      // Numbers that are not numbers in range are refused, never wrapped or read as 0.
      {{"127.0.0.1:abc"}, false, E_INVAL, "[]", "Invalid port 'abc' in '127.0.0.1:abc'\n"},
      {{"127.0.0.1:65536"}, false, E_INVAL, "[]", "Invalid port '65536' in '127.0.0.1:65536'\n"},
      {{"[::1]x"}, false, E_INVAL, "[]", "Invalid port 'x' in '[::1]x'\n"},
      {{"4294967299"}, false, E_INVAL, "[]", "invalid node id 4294967299\n"},
      // Every bad item is reported; the good ones are kept.
      {{"7", "127.0.0.2", "0", "nohost.invalid"}, true, E_INVAL,
       "[(1, '127.0.0.2', ('127.0.0.2', 1191))]",
       "Unknwon node id 7\ninvalid node id 0\nUnknown host 'nohost.invalid'\n"},
  };
  // clang-format on
  for (const auto& [items, assign, rc, nodes, err] : cases) {
    Nodes out = {Node(99, "stale", NodeLocation())};
    testing::internal::CaptureStderr();
    int got = parseNodeList(items, &out, assign);
    EXPECT_EQ(std::tie(rc, nodes, err),
              std::make_tuple(got, NodesToString(out), testing::internal::GetCapturedStderr()))
        << items[0];
  }
}

TEST_F(NodeArgsTest, DefaultLocal) {
  zelPort = 7000;  // also the port of an item without one
  Nodes out;
  testing::internal::CaptureStderr();
  EXPECT_EQ(E_INVAL, parseNodeListDefaultLocal({}, &out, true));
  EXPECT_EQ("Not a server and no node list specified (use '-n nodeList' option)\n",
            testing::internal::GetCapturedStderr());
  EXPECT_EQ(0, parseNodeListDefaultLocal({}, &out, false));
  EXPECT_EQ("[(-1, 'localhost', ('localhost', 7000))]", NodesToString(out));
  EXPECT_EQ(0, parseNodeListDefaultLocal({"127.0.0.2"}, &out, true));
  EXPECT_EQ("[(-1, '127.0.0.2', ('127.0.0.2', 7000))]", NodesToString(out));

  // This host is node 3 (127.0.0.1 on the current port).
  zelPort = 1191;
  SetLocalAddrsFnForTest(OnlyLoopbackAddrs);
  int id = -2;
  ASSERT_EQ(0, ReInitZELIO(&id));
  EXPECT_EQ(0, parseNodeListDefaultLocal({}, &out, true));
  EXPECT_EQ("[(3, 'nodeC', ('127.0.0.1', 1191))]", NodesToString(out));
}

TEST(DiskArgsTest, ParseDiskList) {
  const std::string desc = "0123456789abcdef";
  // Items, directory, rc, the result's text form, messages.
  const std::tuple<std::vector<std::string>, std::string, int, std::string, std::string> cases[] = {
      // clang-format off
      {{"/dev/a", "", desc, desc + ":x"}, "", 0,
       "[(1, '/dev/a'), (2, '" + desc + "'), (3, '" + desc + ":x')]", ""},
      {{"a", "", "b"}, "/d", 0, "[(1, '/d/a'), (2, '/d/b')]", ""},
      // The first bad label stops the parse.
      {{"/dev/a", "disk1", "/dev/b", "short"}, "", E_INVAL, "[(1, '/dev/a')]",
       "Invalid disk label 'disk1'\n"},
      // clang-format on
  };
  for (const auto& [items, dir, rc, disks, err] : cases) {
    DiskMap out = {{7, ZELDisk("stale", 1)}};
    testing::internal::CaptureStderr();
    int got = parseDiskList(items, dir, &out);
    EXPECT_EQ(std::tie(rc, disks, err),
              std::make_tuple(got, DiskMapToString(out), testing::internal::GetCapturedStderr()));
  }
  // A relative directory is refused, not an abort.
  DiskMap out;
  testing::internal::CaptureStderr();
  EXPECT_EQ(E_INVAL, parseDiskList({"a"}, "rel/dir", &out));
  EXPECT_EQ("Disk directory 'rel/dir' is not an absolute path\n",
            testing::internal::GetCapturedStderr());
}

TEST(NodeArgsSyntaxTest, FirstMalformedNumberIsNamed) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"3", "7=host:1300", "[::1]:2", "host", "fe80::1", "0", "5="}, ""},
      {{"3", "2147483648"}, "invalid node id '2147483648' in '2147483648'"},
      {{"4294967297=h"}, "invalid node id '4294967297' in '4294967297=h'"},
      {{"h:abc", "h:0"}, "invalid port 'abc' in 'h:abc'"},
      {{"h:0"}, "invalid port '0' in 'h:0'"},
      {{"h:"}, "invalid port '' in 'h:'"},
      {{"h:-5"}, "invalid port '-5' in 'h:-5'"},
      {{"[h]junk"}, "invalid port 'junk' in '[h]junk'"},
      {{"2=[h]:99999"}, "invalid port '99999' in '2=[h]:99999'"},
  };
  for (const auto& [items, want] : cases) EXPECT_EQ(want, checkNodeArgs(items)) << items[0];
}

}  // namespace
