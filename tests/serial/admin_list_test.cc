#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <tuple>

#include "serial/adminfixture.h"

namespace {

class AdminListTest : public AdminFixture {
 protected:
  void SetUp() override {
    AdminFixture::SetUp();
    WriteFile(base_ + "/zel.nodes", Line(1, 0, "alpha"));
    repoNodes_ = Line(1, 0, "alpha") + Line(2, 1, "beta") + "3,0,127.0.0.1,,gamma\n";
    state_ = Cfg({{1, 0}, {2, 1}}, {1}, 2);
    state_.config.nodes[1].version = 3;
    state_.config.nodes[1].listen = false;
  }
  std::string Pad(std::string s) const { return s.append(22 - s.size(), ' '); }

  std::string repoNodes_;
  const std::string repoDisks_ =
      "1,0,/dev/sdb\n2,1,0A1B2C3D4E5F6071:extra\n3,0,0a1b2c3d4e5f6071\n4,0,rel\n";
  CommittedState state_;
};

TEST_F(AdminListTest, TablesInBothForms) {
  const std::string nodeTable =
      " node  slot version active listen  address                name\n"
      "----- ----- ------- ------ ------  ---------------------  -----------------------\n"
      "    1     0       0   true   true  " +
      Pad(Loc(0)) +
      " alpha\n"
      "    2     1       3   true  false  " +
      Pad(Loc(1)) +
      " beta\n"
      "    3    -1       0  false  false  " +
      Pad("127.0.0.1:1191") + " gamma\n";
  const std::string diskTable =
      " disk status type        label                           \n"
      "----- ------ ----------- --------------------------------\n"
      "    1 active file        /dev/sdb\n"
      "    2 old    extra       0A1B2C3D4E5F6071\n"
      "    3 stdby  generic     0a1b2c3d4e5f6071\n"
      "    4 stdby  unknown     rel\n";
  const std::string nodeRecords =
      "nodeId:nodeName:diskSlot:version:active:listen:ip:port\n"
      "1:alpha:0:0:true:true:" +
      Loc(0) + "\n2:beta:1:3:true:false:" + Loc(1) + "\n3:gamma:-1:0:false:false:127.0.0.1:1191\n";
  const std::string diskRecords =
      "diskId:diskLabel:diskType:status\n1:/dev/sdb:file:active\n"
      "2:0A1B2C3D4E5F6071:extra:old\n3:0a1b2c3d4e5f6071:generic:stdby\n4:rel:unknown:stdby\n";
  struct {
    std::vector<std::string> args;
    bool nodes, disks;
    std::string out;
  } cases[] = {
      {{"lsnodes"}, true, false, nodeTable},
      {{"lsdisks", "-y"}, false, true, diskRecords},
      {{"config"}, true, true, nodeTable + "\n" + diskTable},
      {{"config", "-y"}, true, true, nodeRecords + "\n" + diskRecords},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.back());
    WriteFile(base_ + "/zel.nodes", Line(1, 0, "alpha"));
    WriteFile(base_ + "/zel.disks", "");
    if (c.nodes) ServeFile(0, "zel.nodes", repoNodes_, state_);
    if (c.disks) ServeFile(0, "zel.disks", repoDisks_, state_);
    RunResult r = Run(c.args);
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(r.out, Out(c.out));
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(AllDone());
    // The local lists are rewritten from the repository's copies.
    EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), c.nodes ? repoNodes_ : Line(1, 0, "alpha"));
    EXPECT_EQ(ReadFile(base_ + "/zel.disks"), c.disks ? repoDisks_ : "");
    EXPECT_FALSE(PathExists("/tmp/zel.nodes") || PathExists("/tmp/zel.disks"));
  }
}

// A failed node-list fetch ends config before the disk table.
TEST_F(AdminListTest, FailedFetchStopsConfig) {
  srv(0).expect(MSG_TYPE_FGET).replyFailed(805);
  RunResult r = Run({"config"});
  EXPECT_EQ(r.exitStatus, 153);
  EXPECT_EQ(r.out, Out(""));
  EXPECT_EQ(r.err, "Failed to retrieve current node list (err 805)\n");
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), Line(1, 0, "alpha"));
}

// An empty list from the repository never replaces the local one, and a link
// planted at the fixed temporary name is replaced, not written through.
TEST_F(AdminListTest, EmptyFetchedListAndPlantedLink) {
  ServeFile(0, "zel.nodes", "", state_);
  RunResult r = Run({"lsnodes"});
  EXPECT_EQ(std::make_tuple(156, std::string("Failed to retrieve current node list (err 812)\n"
                                             "the repository's node list is empty\n")),
            std::make_tuple(r.exitStatus, r.err));
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), Line(1, 0, "alpha"));

  const std::string victim = dir_.file("victim");
  WriteFile(victim, "precious");
  ASSERT_EQ(0, symlink(victim.c_str(), "/tmp/zel.nodes"));
  ServeFile(0, "zel.nodes", repoNodes_, state_);
  r = Run({"lsnodes"});
  unlink("/tmp/zel.nodes");  // left only if the command failed
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_EQ(ReadFile(victim), "precious");
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), repoNodes_);
  EXPECT_TRUE(AllDone());
}

// Two commands at once take turns on the fixed files: neither installs the
// other's list or an empty one.
TEST_F(AdminListTest, ConcurrentCommandsTakeTurns) {
  std::string other = Line(1, 1, "beta") + Line(2, 2, "gamma");
  for (int i = 0; i < 3; i++) ServeFile(0, "zel.nodes", repoNodes_, state_);
  for (int i = 0; i < 3; i++) ServeFile(1, "zel.nodes", other, state_);
  TempDir otherDir;
  const std::string otherBase = otherDir.file("repo");
  ASSERT_EQ(0, mkdir(otherBase.c_str(), 0755));
  ASSERT_EQ(0, mkdir((otherBase + "/committed").c_str(), 0755));
  WriteFile(otherBase + "/zel.nodes", Line(1, 1, "beta"));
  std::thread t([&] {
    for (int i = 0; i < 3; i++) {
      RunResult r = RunCommand({KxzelTestBin(), "lsnodes"}, {{"ZEL_BASE", otherBase}}, 30000);
      EXPECT_EQ(r.exitStatus, 0) << r.err;
    }
  });
  for (int i = 0; i < 3; i++) {
    RunResult r = Run({"lsnodes"});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
  }
  t.join();
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), repoNodes_);
  EXPECT_EQ(ReadFile(otherBase + "/zel.nodes"), other);
  EXPECT_TRUE(AllDone());
}

}  // namespace
