#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/testutil.h"
#include "zel/zelcmd.h"

namespace {

// A test installation: ZEL_BASE at a fresh repository directory whose node
// list names this host (127.0.0.1) as node 1 on the default port.
class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    base_ = dir_.file("repo");
    ASSERT_EQ(0, mkdir(base_.c_str(), 0755));
    ASSERT_EQ(0, mkdir((base_ + "/committed").c_str(), 0755));
    WriteFile(base_ + "/zel.nodes", "1,0,127.0.0.1,,self\n2,0,10.200.0.2,,far\n");
    WriteFile(base_ + "/zel.disks", "1,0,/dev/sdb\n");
  }
  RunResult Run(std::vector<std::string> args, EnvList env = {}) {
    args.insert(args.begin(), KxzelTestBin());
    env.push_back({"ZEL_BASE", base_});
    RunResult r = RunCommand(args, env);
    EXPECT_FALSE(r.timedOut);
    return r;
  }
  std::string BaseLine() const { return "zelBaseDir: " + base_ + "\n"; }

  TempDir dir_;
  std::string base_;
};

TEST_F(CliTest, UsageErrors) {
  const std::string usage = UsageText(KxzelTestBin());
  const std::string bin = KxzelTestBin();
  struct {
    std::vector<std::string> args;
    std::string err;
  } cases[] = {
      // clang-format off
      {{}, ""},
      {{"vget"}, "name parameter missing\n\n"},
      {{"vput", "a"}, "name or value parameter missing\n\n"},
      {{"fget", "a", "b", "c"}, "Too many arguments\n\n"},
      {{"vdel", "a", "b"}, "missing or extraneous arguments\n"},
      {{"chnodes", "extra"}, "-n option missing\n"},
      {{"bogus"}, "Unknown subcommand: 'bogus'"},
      {{"vlist", "-x"}, bin + ": invalid option -- 'x'\ninvalid option\n"},
      {{"vput", "a", "b", "-c"}, bin + ": option requires an argument -- 'c'\ninvalid option\n"},
      // clang-format on
  };
  for (const auto& c : cases) {
    std::string label = c.args.empty() ? "(none)" : c.args[0];
    RunResult r = Run(c.args);
    EXPECT_EQ(1, r.exitStatus) << label;
    EXPECT_EQ(usage, r.out) << label;
    EXPECT_EQ(c.err, r.err) << label;
  }
}

TEST_F(CliTest, StartUpFailures) {
  RunResult r = Run({"fput", "name", dir_.file("missing")});
  EXPECT_EQ(149, r.exitStatus);
  EXPECT_EQ("'" + dir_.file("missing") + "' does not exist\n", r.err);

  WriteFile(base_ + "/zel.nodes", "");
  r = Run({"vlist"});
  EXPECT_EQ(156, r.exitStatus);
  EXPECT_EQ("zel node list missing or empty\n", r.err);

  r = RunCommand({KxzelTestBin(), "vlist"}, {{"ZEL_BASE", dir_.file("absent")}});
  EXPECT_EQ(149, r.exitStatus);
  EXPECT_EQ("zelBaseDir: " + dir_.file("absent") + "\n", r.out);
  EXPECT_EQ("zelio initialization failed (err 811)\n", r.err);
}

bool Contains(const std::string& hay, const std::string& needle) {
  return hay.find(needle) != std::string::npos;
}

TEST_F(CliTest, ReadsListsAndFindsOwnNode) {
  RunResult r = Run({"dump"}, {{"ZEL_DEBUG", "4"}});
  EXPECT_EQ(149, r.exitStatus);
  EXPECT_TRUE(Contains(r.err, "called: '" + std::string(KxzelTestBin()) + " dump'\n")) << r.err;
  EXPECT_TRUE(Contains(r.err, "readNodeList('" + base_ + "/zel.nodes') size 2 nErr 0\n"));
  EXPECT_TRUE(Contains(r.err, "readDiskList('" + base_ + "/zel.disks') size 1 nErr 0\n"));
  EXPECT_TRUE(Contains(r.err, "zelio init: ip=127.0.0.1 port=1191 node=1\n")) << r.err;
  EXPECT_TRUE(PathExists(base_ + "/cached"));

  // Four -V give the same detail without ZEL_DEBUG.
  r = Run({"dump", "-VVVV"});
  EXPECT_TRUE(Contains(r.err, "zelNodeId: 1\n")) << r.err;

  WriteFile(base_ + "/zel.nodes", "1,0,10.200.0.1,,far\n4,0,127.0.0.1,7000,self\n");
  r = Run({"dump"}, {{"ZEL_DEBUG", "4"}, {"ZEL_PORT", "7000"}});
  EXPECT_TRUE(Contains(r.err, "zelio init: ip=127.0.0.1 port=7000 node=4\n")) << r.err;
}

TEST(ProductCliTest, MissingProductDirectoryExitsOne) {
  if (PathExists("/var/kolt")) GTEST_SKIP() << "/var/kolt exists on this machine";
  RunResult r = RunCommand({KxzelBin(), "vlist"}, {{"ZEL_DEBUG", "1"}});
  EXPECT_EQ(1, r.exitStatus);
  EXPECT_EQ("", r.out);
  EXPECT_TRUE(Contains(r.err, "Directory /var/kolt not found.\n\n")) << r.err;
}

}  // namespace
