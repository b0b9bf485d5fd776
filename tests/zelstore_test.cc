#include <gtest/gtest.h>

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <tuple>
#include <vector>

#include "platform/pclock.h"
#include "support/testutil.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelutils.h"

namespace {

// A test installation rooted at a fresh directory, with 127.0.0.1 the only
// local address.
class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Restart();
    SetLocalAddrsFnForTest(OnlyLoopbackAddrs);
    base_ = dir_.file("repo");
    setenv("ZEL_BASE", base_.c_str(), 1);
    unsetenv("ZEL_PORT");
  }
  void TearDown() override {
    unsetenv("ZEL_BASE");
    unsetenv("ZEL_PORT");
    SetLocalAddrsFnForTest(nullptr);
    ResetProcessState();
  }
  // InitZELIO with the "zelBaseDir: " line swallowed.
  int Init(int port = 0, int mode = 0) {
    testing::internal::CaptureStdout();
    int rc = InitZELIO(port, mode, true);
    testing::internal::GetCapturedStdout();
    return rc;
  }
  // Back to a fresh process state in the test installation.
  void Restart() {
    ResetProcessState();
    isTrovInstall = false;
    isTestInstall = true;
  }
  void MakeRepo(bool committed = true) {
    createDir(base_, 0755);
    if (committed) createDir(base_ + "/committed", 0755);
  }

  TempDir dir_;
  std::string base_;
};

TEST_F(StoreTest, PortChoice) {
  MakeRepo();
  WriteFile(base_ + "/zel.nodes", "1,0,10.200.0.1,7000,far\n2,0,127.0.0.1,7000,near\n");
  // The argument, ZEL_PORT, the port chosen.
  const std::tuple<int, const char*, int> cases[] = {{0, nullptr, 1191},
                                                     {-5, nullptr, 1191},
                                                     {0, "7000", 7000},
                                                     {0, "abc", 0},
                                                     {7000, "1300", 7000}};
  for (const auto& [arg, env, want] : cases) {
    Restart();
    env ? setenv("ZEL_PORT", env, 1) : unsetenv("ZEL_PORT");
    EXPECT_EQ(0, Init(arg));
    // The local node (a local address) is only found on its own port.
    EXPECT_EQ(std::make_pair(want, want == 7000 ? 2 : -1), std::make_pair(zelPort, zelNodeId))
        << arg;
  }
}

TEST_F(StoreTest, MissingDirectoriesGive811AndReadNothing) {
  EXPECT_EQ(E_NO_REPOSITORY, InitZELIO(0, 0, true));
  MakeRepo(false);
  WriteFile(base_ + "/zel.nodes", "1,0,127.0.0.1,,near\n");
  Restart();
  EXPECT_EQ(E_NO_REPOSITORY, InitZELIO(0, 0, true));
  EXPECT_TRUE(GetNodeList().empty());
  EXPECT_FALSE(dirExists(base_ + "/cached"));
}

// A bad node line fails the start-up and leaves the disk list unread; a
// missing node file does not stop the disk list from being read.
TEST_F(StoreTest, NodeFileProblems) {
  MakeRepo();
  WriteFile(base_ + "/zel.disks", "1,0,/dev/sdb\n2,1,/dev/sdc\n");
  WriteFile(base_ + "/zel.nodes", "1,0,10.200.0.1,,a\nbroken\n2,0,10.200.0.2,,b\n");
  EXPECT_EQ(E_IO, Init());
  EXPECT_EQ(2u, GetNodeList().size());
  EXPECT_TRUE(GetNodeMap().empty() && getDiskMap().empty());
  Restart();
  ASSERT_EQ(0, unlink((base_ + "/zel.nodes").c_str()));
  EXPECT_EQ(0, Init());
  EXPECT_EQ("[(1, '/dev/sdb'), (2 (old), '/dev/sdc')]", DiskMapToString(getDiskMap()));
}

TEST_F(StoreTest, CreateModesAndFatalStartUps) {
  ASSERT_EQ(0, Init(0, 1));
  EXPECT_TRUE(dirExists(base_ + "/cached") && dirExists(base_ + "/committed"));
  WriteFile(base_ + "/committed/old", "x");
  Restart();
  ASSERT_EQ(0, Init(0, 2));
  EXPECT_TRUE(dirExists(base_ + "/committed"));
  EXPECT_FALSE(PathExists(base_ + "/committed/old"));  // the old tree was deleted

  Restart();
  EXPECT_EXIT(InitZELIO(0, 1, true), ::testing::ExitedWithCode(1),
              "Directory .* already exists.\nDelete the directory first, or use -F option");
  // Two lines for this one machine: a clear failure, not an abort.
  WriteFile(base_ + "/zel.nodes", "1,0,127.0.0.1,,a\n2,0,127.0.0.1,,b\n");
  ClearErrorCause();
  EXPECT_EQ(E_INVAL, Init());
  EXPECT_EQ("node list names this host twice: node 1 (127.0.0.1) and node 2 (127.0.0.1)",
            ErrorCause());
}

// Creation removes exactly the old repository, whatever its name, and a
// missing parent is a failure that names the directory.
TEST_F(StoreTest, CreateRemovesOnlyItsOwnTreeAndReportsMissingParent) {
  base_ = dir_.file("my repo");
  setenv("ZEL_BASE", base_.c_str(), 1);
  for (const char* other : {"my", "repo"}) createDir(dir_.file(other), 0755);
  MakeRepo();
  ASSERT_EQ(0, Init(0, 2));
  EXPECT_EQ((std::vector<std::string>{"my", "my repo", "repo"}), ListDir(dir_.path()));

  Restart();
  base_ = dir_.file("absent/repo");
  setenv("ZEL_BASE", base_.c_str(), 1);
  ClearErrorCause();
  EXPECT_EQ(ENOENT, Init(0, 1));
  EXPECT_EQ("cannot create '" + base_ + "': No such file or directory", ErrorCause());
}

// A node whose host does not resolve is skipped with a warning; only a list
// of which no node is usable fails.
TEST_F(StoreTest, UnresolvableNodeIsSkipped) {
  MakeRepo();
  WriteFile(base_ + "/zel.nodes", "1,0,no-such-host.invalid,,a\n2,0,127.0.0.1,7000,b\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(0, Init());
  EXPECT_EQ("warning: node 1: cannot resolve host 'no-such-host.invalid'; node skipped\n",
            testing::internal::GetCapturedStderr());
  EXPECT_EQ(2u, GetNodeList().size());
  EXPECT_EQ((NodeNameMap{{2, "b"}}), GetNodeNames());

  Restart();
  WriteFile(base_ + "/zel.nodes", "1,0,no-such-host.invalid,,a\n");
  testing::internal::CaptureStderr();
  EXPECT_NE(0, Init());
  testing::internal::GetCapturedStderr();
  EXPECT_EQ("cannot resolve host 'no-such-host.invalid' of node 1", ErrorCause());
}

TEST_F(StoreTest, TestDirectoryNamedAfterPort) {
  unsetenv("ZEL_BASE");
  if (PathExists("/tmp/zel.7000")) GTEST_SKIP() << "/tmp/zel.7000 exists";
  EXPECT_EQ(E_NO_REPOSITORY, InitZELIO(7000, 0, false));
  EXPECT_EQ("/tmp/zel.7000", zelBaseDir);
}

TEST_F(StoreTest, ListsAreWrittenOnlyWhenNeeded) {
  MakeRepo();
  ASSERT_EQ(0, Init());
  const std::string path = GetPath(NodeFile), dpath = GetPath(DiskFile);
  Nodes a = {Node(1, "a", NodeLocation("10.200.0.1", 1191)),
             Node(2, "me", NodeLocation("127.0.0.1", 1191))};
  ASSERT_EQ(0, SetNodeList(a, true));
  EXPECT_EQ("1,0,10.200.0.1,,a\n2,0,127.0.0.1,,me\n", ReadFile(path));
  EXPECT_EQ(2, zelNodeId);
  WriteFile(path, "sentinel");
  ASSERT_EQ(0, SetNodeList(a, true));  // unchanged and on disk: file untouched
  EXPECT_EQ("sentinel", ReadFile(path));
  a[0].old = 1;
  ASSERT_EQ(0, SetNodeList(a, false));  // memory only
  EXPECT_EQ("sentinel", ReadFile(path));
  ASSERT_EQ(0, SetNodeList(a, true));  // equal list, but the file is stale
  EXPECT_EQ("1,1,10.200.0.1,,a\n2,0,127.0.0.1,,me\n", ReadFile(path));

  DiskMap d = {{2, ZELDisk("/dev/sdc", 1)}};
  ASSERT_EQ(0, SetDiskList(d));
  WriteFile(dpath, "sentinel");
  ASSERT_EQ(0, SetDiskList(d));
  EXPECT_EQ("sentinel", ReadFile(dpath));

  // A failed write keeps the lists in memory as they were.
  unlink(path.c_str());
  createDir(path, 0755);
  EXPECT_EQ(E_IO, SetNodeList({Node(1, "a", NodeLocation("10.200.0.9", 1191))}, true));
  EXPECT_TRUE(GetNodeList() == a);
}

std::vector<long long> sleeps;
void RecordSleep(long long us) {
  sleeps.push_back(us);
}

TEST(StoreHelpersTest, DoDelaySleepsWholeSeconds) {
  PlatSleepFn old = PlatSetSleepFn(RecordSleep);
  sleeps.clear();
  doDelay(0.9);
  doDelay(2.7);
  doDelay(-3);
  PlatSetSleepFn(old);
  EXPECT_EQ(std::vector<long long>{2000000}, sleeps);
}

}  // namespace
