// zel-local end to end: a real repository of zeld-testinstall nodes brought up,
// stopped, restarted and taken down with no process left, and its refusals. The
// data kept across a restart is the tour's to show (tests/demo/zeltour.cc).
// Runs under the /tmp/zel.nodes lock: zel-local up runs kxzel init.
#ifdef ZEL_LOCAL_E2E

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <regex>

#include "gtest/gtest.h"
#include "support/testutil.h"

namespace {

// Zombies count as gone (and are reaped first: the test is their subreaper).
std::vector<pid_t> LiveUnder(const std::string& dir) {
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  return ProcessesUnder(dir);
}

class ZelLocalE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    // Nodes outlive zel-local; as their subreaper this test can reap them.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    dir_ = tmp_.path() + "/repo";
  }
  void TearDown() override {
    Local({"down", dir_});
    for (pid_t pid : LiveUnder(dir_)) kill(pid, SIGKILL);
  }

  RunResult Local(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {ZEL_LOCAL_BIN};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunCommand(argv, {}, 120000);
  }

  TempDir tmp_;
  std::string dir_, port_;
};

TEST_F(ZelLocalE2E, UpStopStartDownLeavesNothingRunning) {
  RunResult up = Local({"up", dir_, "-n", "1", "-d", "0"});
  ASSERT_EQ(up.exitStatus, 0) << up.err;
  std::smatch m;
  ASSERT_TRUE(std::regex_match(up.out, m, std::regex("export ZEL_BASE=(\\S+) ZEL_PORT=(\\d+)\n")))
      << up.out;
  EXPECT_EQ(m[1], dir_ + "/client");
  port_ = m[2];

  RunResult st = Local({"status", dir_});
  EXPECT_EQ(st.exitStatus, 0) << st.err;
  EXPECT_TRUE(std::regex_search(st.out, std::regex("\\n +1  " + port_ + " +[0-9]+ +up ")))
      << st.out;
  int pid = atoi(ReadFile(dir_ + "/node1.pid").c_str());
  ASSERT_GT(pid, 1);

  // A directory in use is refused, and nothing of it is touched.
  RunResult again = Local({"up", dir_});
  EXPECT_EQ(again.exitStatus, 1);
  EXPECT_NE(again.err.find("is in use: node 1 runs"), std::string::npos) << again.err;

  EXPECT_EQ(Local({"stop", dir_, "1"}).exitStatus, 0);
  EXPECT_EQ(LiveUnder(dir_), std::vector<pid_t>{});
  st = Local({"status", dir_});
  EXPECT_EQ(st.exitStatus, 3);
  EXPECT_TRUE(std::regex_search(st.out, std::regex("\\n +1  " + port_ + " +- +down "))) << st.out;

  // Its port taken by someone else: a clear refusal.
  {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(atoi(port_.c_str())));
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    ASSERT_EQ(listen(fd, 1), 0);
    RunResult taken = Local({"start", dir_, "1"});
    EXPECT_EQ(taken.exitStatus, 1);
    EXPECT_NE(taken.err.find("port " + port_ + " of node 1 is taken by another process"),
              std::string::npos)
        << taken.err;
    close(fd);
  }

  RunResult start = Local({"start", dir_, "1"});
  ASSERT_EQ(start.exitStatus, 0) << start.err;

  // An added node runs on a port of its own and is one of the repository's for
  // status and down.
  RunResult add = Local({"add", dir_});
  ASSERT_EQ(add.exitStatus, 0) << add.err;
  ASSERT_TRUE(std::regex_match(add.out, m, std::regex("127\\.0\\.0\\.1:(\\d+)\n"))) << add.out;
  std::string port2 = m[1];
  EXPECT_NE(port2, port_);
  st = Local({"status", dir_});
  EXPECT_EQ(st.exitStatus, 0) << st.out;
  EXPECT_TRUE(std::regex_search(st.out, std::regex("\\n +2  " + port2 + " +[0-9]+ +up ")))
      << st.out;

  RunResult down = Local({"down", dir_});
  EXPECT_EQ(down.exitStatus, 0) << down.err;
  EXPECT_EQ(LiveUnder(dir_), std::vector<pid_t>{});
  EXPECT_FALSE(PathExists(dir_ + "/node1.pid"));
  EXPECT_FALSE(PathExists(dir_ + "/node2.pid"));
  // The data stays for a later start.
  EXPECT_TRUE(PathExists(dir_ + "/node1"));
}

TEST_F(ZelLocalE2E, AddRefusesWhatIsNotARepositoryWithRoom) {
  RunResult r = Local({"add", tmp_.path()});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_NE(r.err.find("is not a zel-local repository"), std::string::npos) << r.err;
  std::string full = "disks 0\n";
  for (int i = 1; i <= 8; i++)
    full += "node " + std::to_string(i) + " " + std::to_string(40000 + i) + "\n";
  WriteFile(tmp_.file("zel-local.conf"), full);
  r = Local({"add", tmp_.path()});
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_NE(r.err.find("already has 8 nodes"), std::string::npos) << r.err;
  EXPECT_FALSE(PathExists(tmp_.file("node9")));
}

TEST_F(ZelLocalE2E, ANodeThatDoesNotComeUpIsReportedWithItsLog) {
  // A server that cannot use its directory stops at once; up then shows its log
  // and leaves nothing running.
  std::string dir = dir_;
  RunResult up = Local({"up", dir, "-n", "1", "-d", "0"});
  ASSERT_EQ(up.exitStatus, 0) << up.err;
  ASSERT_EQ(Local({"stop", dir, "1"}).exitStatus, 0);
  // A directory where the server's lock file belongs: it cannot lock and stops.
  ASSERT_EQ(::unlink((dir + "/node1/zeld.lock").c_str()) == 0 || errno == ENOENT, true);
  ASSERT_EQ(::mkdir((dir + "/node1/zeld.lock").c_str(), 0755), 0);
  RunResult start = Local({"start", dir, "1"});
  EXPECT_EQ(start.exitStatus, 1);
  EXPECT_NE(start.err.find("node 1 did not come up; the end of " + dir + "/node1.log:"),
            std::string::npos)
      << start.err;
  EXPECT_EQ(LiveUnder(dir), std::vector<pid_t>{});
}

}  // namespace

#endif  // ZEL_LOCAL_E2E
