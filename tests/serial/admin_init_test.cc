#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "serial/adminfixture.h"

namespace {

class AdminInitTest : public AdminFixture {
 protected:
  // The "init" node part for servers 0..n-1 as nodes 1..n named by address.
  std::string NodesPart(int n) const {
    std::string s = V(n, 0);
    for (int i = 0; i < n; i++) {
      s += V(i + 1, 0) + '\0' + S("127.0.0.1") + S("127.0.0.1") + V(srv_[i]->port(), 0);
    }
    return s;
  }
  std::string Listing(int n) const {
    std::string s = "zel server nodes to be initialized:\n";
    for (int i = 0; i < n; i++) s += std::to_string(i + 1) + " " + Loc(i) + " 127.0.0.1\n";
    return s;
  }
  std::string LocalList(int n) const {
    std::string s;
    for (int i = 0; i < n; i++) s += Line(i + 1, i, "127.0.0.1");
    return s;
  }
  // The initial block: every node listening in slot order, minNodes 1.
  static Dblock Block(int n, const DiskList& disks) {
    std::vector<std::pair<int, int>> nodes;
    for (int i = 0; i < n; i++) nodes.push_back({i + 1, i});
    Dblock b;
    b.committed.config = Cfg(nodes, disks).config;
    return b;
  }
  const std::string cid_ = std::string(7, '\0') + "\x4d";  // -c 77
};

TEST_F(AdminInitTest, InitWithDisks) {
  const std::string desc = "0A1B2C3D4E5F6071";
  const std::string disks = V(2, 0) + V(1, 0) + S("/dev/sdb") + '\0' + V(2, 0) + S(desc) + '\0';
  const std::string block3 = Encode(Block(3, {1, 2}));
  srv(0).expect(MSG_TYPE_PXINIT, disks + block3 + V(8, 0) + V(1, 0)).reply(MSG_TYPE_OK);
  for (int i = 0; i < 3; i++) {
    srv(i).expect(MSG_TYPE_INIT, cid_ + NodesPart(3) + disks + block3).reply(MSG_TYPE_OK);
  }
  AcceptPut(0);
  AcceptPut(0);
  RunResult r = Run(
      {"init", "-c", "77", "-n", Loc(0) + "," + Loc(1) + "," + Loc(2), "-d", "/dev/sdb," + desc});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_EQ(r.out,
            Out(Listing(3) + "zel shared disks to be initialized:\n1 /dev/sdb\n2 " + desc + "\n"));
  EXPECT_EQ(r.err, "");
  ASSERT_TRUE(AllDone());
  EXPECT_EQ(Puts(0), (std::vector<std::string>{LocalList(3), "1,0,/dev/sdb\n2,0," + desc + "\n"}));
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), LocalList(3));
}

TEST_F(AdminInitTest, NineNodesAreRefusedBeforeAnythingIsSent) {
  std::string items, listing = "zel server nodes to be initialized:\n";
  for (int i = 1; i <= 9; i++) {
    std::string loc = "127.0.0.1:" + std::to_string(1000 + i);
    items += (i > 1 ? "," : "") + loc;
    listing += std::to_string(i) + " " + loc + " 127.0.0.1\n";
  }
  RunResult r = Run({"init", "-n", items});
  EXPECT_EQ(r.exitStatus, 149);
  EXPECT_EQ(r.out, Out(listing));
  EXPECT_EQ(r.err, "Too namy nodes (max 8)\n");
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), "");
}

// A node that refuses "init" is reported, the others are still tried, nothing
// is committed; the same command completes once the node accepts. Without
// disks there is no "pxinit" and an empty disk list is committed.
TEST_F(AdminInitTest, FailedNodeThenRerun) {
  const std::string block = Encode(Block(2, {}));
  srv(0).expect(MSG_TYPE_INIT).replyFailed(22);
  srv(1).expect(MSG_TYPE_INIT, cid_ + NodesPart(2) + V(0, 0) + block).reply(MSG_TYPE_OK);
  const std::vector<std::string> cmd = {"init", "-c", "77", "-n", Loc(0) + "," + Loc(1)};
  RunResult r = Run(cmd);
  EXPECT_EQ(r.exitStatus, 149);
  EXPECT_EQ(r.err, "initialize (1, '127.0.0.1', ('127.0.0.1', " + std::to_string(srv(0).port()) +
                       ")) failed (err 22)\nserver initialization failed (err 22)\n");
  ASSERT_TRUE(AllDone());
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), LocalList(2));

  for (int i = 0; i < 2; i++) srv(i).expect(MSG_TYPE_INIT).reply(MSG_TYPE_OK);
  AcceptPut(0);
  AcceptPut(0);
  r = Run(cmd);
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_EQ(r.out, Out(Listing(2)));
  ASSERT_TRUE(AllDone());
  EXPECT_EQ(Puts(0), (std::vector<std::string>{LocalList(2), ""}));
}

TEST_F(AdminInitTest, Setup) {
  namespace fs = std::filesystem;
  WriteFile(base_ + "/marker", "x");
  RunResult r = Run({"setup", "-c", "cert"});
  EXPECT_EQ(r.exitStatus, 1);  // the directory exists
  EXPECT_TRUE(PathExists(base_ + "/marker"));

  r = Run({"setup", "-c", "cert", "-F"});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_FALSE(PathExists(base_ + "/marker"));
  EXPECT_TRUE(PathExists(base_ + "/cached") && PathExists(base_ + "/committed"));

  fs::remove_all(base_);
  r = Run({"setup"});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_EQ(r.err, "-c paramter missing\n");

  // With nodes: the repository's node list becomes the local one.
  fs::remove_all(base_);
  const std::string repoNodes = Line(1, 0, "alpha") + Line(2, 1, "beta");
  ServeFile(0, "zel.nodes", repoNodes, Cfg({{1, 0}, {2, 1}}));
  r = Run({"setup", "-c", "cert", "-n", Loc(0)});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), repoNodes);
}

}  // namespace
