// kxzel health: one status request per node of the local list, the local view
// of the disks, and the exit status by quorum.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <regex>
#include <string>

#include "local/zellocal.h"
#include "support/clifixture.h"
#include "support/fakeserver.h"
#include "support/wirebodies.h"
#include "zel/zelcmd.h"
#include "zel/zelmsg.h"
#include "zel/zelpaxosfile.h"

namespace {

TEST(Health, QuorumIsAMajorityWithoutDisksAndOneNodeWithThem) {
  struct Case {
    int nodes, disks, required;
  } cases[] = {{1, 0, 1}, {2, 0, 2}, {3, 0, 2}, {4, 0, 3}, {5, 0, 3},
               {8, 0, 5}, {1, 1, 1}, {2, 1, 1}, {3, 2, 1}};
  for (const Case& c : cases) {
    EXPECT_EQ(HealthNodesRequired(c.nodes, c.disks), c.required) << c.nodes << " " << c.disks;
  }
}

// Round trips vary: compare the output with them blanked.
std::string NoRtt(const std::string& s) {
  return std::regex_replace(std::regex_replace(s, std::regex(" +[0-9]+\\.[0-9] ms"), " R ms"),
                            std::regex(":[0-9]+\\.[0-9]{3}\n"), ":R\n");
}

class HealthCliTest : public CliFixture {
 protected:
  void SetUp() override {
    std::vector<int> ports;
    ASSERT_TRUE(zellocal::PickPorts(1, &ports));
    dead_ = std::to_string(ports[0]);  // nothing listens there
    nodes_ = "1,0,127.0.0.1," + std::to_string(a_.port()) + ",alpha\n" + "2,0,127.0.0.1," +
             std::to_string(b_.port()) + ",beta\n" + "3,0,127.0.0.1," + dead_ + ",gamma\n";
    CliFixture::SetUp();
  }
  // The client's usual line for the node it cannot reach (its socket number blanked).
  std::string Unreachable() const {
    return "ZEL: failed to connect to node 127.0.0.1:" + dead_ + " (sock S err 111)\n";
  }
  static std::string NoSock(const std::string& s) {
    return std::regex_replace(s, std::regex("\\(sock [0-9]+ "), "(sock S ");
  }
  FakeServer a_, b_;
  std::string dead_;
};

TEST_F(HealthCliTest, LinesPerNodeAndDiskAndTheExitStatus) {
  std::string present = dir_.file("disk1");
  WriteFile(present, "");
  WriteFile(base_ + "/zel.disks",
            "1,0," + present + "\n2,0," + dir_.file("nodisk") + "\n3,0,0123456789abcdef:tb\n");
  const std::string pa = std::to_string(a_.port()), pb = std::to_string(b_.port());
  struct Case {
    std::vector<std::string> args;
    int aStatus, bStatus;  // what the two live servers answer
    int exit;
    std::string out;
  } cases[] = {
      {{"health"},
       2,
       4,
       0,
       " node name                 address                 state       rtt\n"
       "----- -------------------- ----------------------- ------ ---------\n"
       "    1 alpha                127.0.0.1:" +
           pa +
           "         up R ms\n"
           "    2 beta                 127.0.0.1:" +
           pb +
           "         joined R ms\n"
           "    3 gamma                127.0.0.1:" +
           dead_ +
           "         down           -\n"
           "\n disk state   label\n----- ------- --------------------------------\n"
           "    1 present " +
           present + "\n    2 absent  " + dir_.file("nodisk") +
           "\n    3 -       0123456789abcdef:tb\n"},
      {{"health", "-y"},
       3,
       1,
       0,
       "node:1:alpha:127.0.0.1:" + pa + ":up:R\nnode:2:beta:127.0.0.1:" + pb +
           ":down:R\nnode:3:gamma:127.0.0.1:" + dead_ + ":down:-\n" + "disk:1:" + present +
           ":present\ndisk:2:" + dir_.file("nodisk") + ":absent\ndisk:3:0123456789abcdef:tb:-\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.back());
    a_.expect(MSG_TYPE_STATUS, "").reply(MSG_TYPE_OK, V(c.aStatus, 0));
    b_.expect(MSG_TYPE_STATUS, "").reply(MSG_TYPE_OK, V(c.bStatus, 0));
    RunResult r = Run(c.args);
    EXPECT_EQ(r.exitStatus, c.exit) << r.err;
    EXPECT_EQ(NoRtt(r.out), BaseLine() + c.out);
    // The client's usual line for a node it cannot reach, and nothing else.
    EXPECT_EQ(NoSock(r.err), Unreachable());
    EXPECT_TRUE(a_.waitDone(3000) && b_.waitDone(3000));
  }
}

TEST_F(HealthCliTest, NoQuorumWithoutDisksIs157) {
  // alpha answers "down" (1), beta sends garbage, gamma is not there: none up.
  a_.expect(MSG_TYPE_STATUS).reply(MSG_TYPE_OK, V(1, 0));
  b_.expect(MSG_TYPE_STATUS).reply(MSG_TYPE_OK, "");
  RunResult r = Run({"health", "-y"});
  EXPECT_EQ(r.exitStatus, 157);
  EXPECT_EQ(NoRtt(r.out), BaseLine() + "node:1:alpha:127.0.0.1:" + std::to_string(a_.port()) +
                              ":down:R\nnode:2:beta:127.0.0.1:" + std::to_string(b_.port()) +
                              ":down:-\nnode:3:gamma:127.0.0.1:" + dead_ + ":down:-\n");
  EXPECT_EQ(NoSock(r.err), Unreachable() + "No quorum: 0 of 3 nodes are up; 2 are required\n");
  EXPECT_TRUE(a_.waitDone(3000) && b_.waitDone(3000));
}

TEST_F(HealthCliTest, DisksOnlyInTheCachedConfigurationStillCount) {
  // As after init: no local disk list, but the cached state names a disk.
  ASSERT_EQ(mkdir((base_ + "/cached").c_str(), 0755), 0);
  PaxosFileData pfd;
  pfd.summary.seq = 3;
  pfd.summary.committed.config.disks = {1};
  ASSERT_EQ(storePaxosFile(base_ + "/cached/zel.paxos", pfd, 77, 1), 0);
  a_.expect(MSG_TYPE_STATUS).reply(MSG_TYPE_OK, V(4, 0));
  b_.expect(MSG_TYPE_STATUS).reply(MSG_TYPE_OK, V(0, 0));
  RunResult r = Run({"health", "-y"});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_NE(r.out.find(":down:-\ndisk:1::-\n"), std::string::npos) << r.out;
  EXPECT_TRUE(a_.waitDone(3000) && b_.waitDone(3000));
}

TEST_F(HealthCliTest, AnEmptyNodeListIsRefused) {
  WriteFile(base_ + "/zel.nodes", "");
  RunResult r = Run({"health"});
  EXPECT_EQ(r.exitStatus, 156);
  EXPECT_EQ(r.err, "zel node list missing or empty\n");
}

}  // namespace
